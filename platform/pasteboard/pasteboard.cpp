// The process's general pasteboard and the helpers every implementation shares.
#include "platform/pasteboard/pasteboard.h"

#include <mutex>

#include "platform/pasteboard/memory_pasteboard.h"

namespace linkwash {
namespace {

struct GeneralSlot {
  std::mutex mutex;
  std::shared_ptr<Pasteboard> current = std::make_shared<MemoryPasteboard>();
};

// Never destroyed, so code running during exit can still reach it.
GeneralSlot& general() {
  static auto* slot = new GeneralSlot;
  return *slot;
}

}  // namespace

std::optional<std::string> Pasteboard::firstText() const {
  for (auto& item : items()) {
    if (item.text) return std::move(item.text);
  }
  return std::nullopt;
}

std::shared_ptr<Pasteboard> generalPasteboard() {
  auto& slot = general();
  std::lock_guard lock(slot.mutex);
  return slot.current;
}

void setGeneralPasteboard(std::shared_ptr<Pasteboard> pasteboard) {
  auto& slot = general();
  if (!pasteboard) pasteboard = std::make_shared<MemoryPasteboard>();
  std::lock_guard lock(slot.mutex);
  slot.current = std::move(pasteboard);
}

}  // namespace linkwash
