// The in-memory pasteboard.
#include "platform/pasteboard/memory_pasteboard.h"

#include <utility>

namespace linkwash {

std::int64_t MemoryPasteboard::changeCount() const {
  std::lock_guard lock(mutex_);
  return changeCount_;
}

std::vector<PasteboardItem> MemoryPasteboard::items() const {
  std::lock_guard lock(mutex_);
  return items_;
}

std::int64_t MemoryPasteboard::clearContents() {
  std::lock_guard lock(mutex_);
  items_.clear();
  ownedSinceClear_ = true;
  return ++changeCount_;
}

bool MemoryPasteboard::setString(std::string_view value, PasteboardType type) {
  std::lock_guard lock(mutex_);
  // Writing over someone else's contents is a change of its own.
  if (!ownedSinceClear_) {
    ++changeCount_;
    ownedSinceClear_ = true;
  }
  if (items_.empty()) items_.emplace_back();
  auto& slot = type == PasteboardType::string ? items_.front().text : items_.front().url;
  slot = std::string(value);
  return true;
}

void MemoryPasteboard::simulateCopy(std::vector<PasteboardItem> items) {
  std::lock_guard lock(mutex_);
  items_ = std::move(items);
  ownedSinceClear_ = false;
  ++changeCount_;
}

}  // namespace linkwash
