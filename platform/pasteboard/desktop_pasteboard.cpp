// Backend choice for the desktop clipboard.
#include "platform/pasteboard/desktop_pasteboard.h"

#include <cstdlib>
#include <mutex>

#include "platform/pasteboard/memory_pasteboard.h"
#include "platform/pasteboard/wayland_pasteboard.h"
#include "platform/pasteboard/x11_pasteboard.h"

namespace linkwash {
namespace {

bool hasEnv(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0';
}

DesktopPasteboard openX11() {
  if (!hasEnv("DISPLAY")) return {nullptr, "x11", "", "DISPLAY is not set"};
  auto board = X11Pasteboard::connect();
  if (!board) return {nullptr, "x11", "", "cannot open the X display (or it lacks XFixes)"};
  return {std::move(board), "x11", "", ""};
}

DesktopPasteboard openWayland() {
  if (!hasEnv("WAYLAND_DISPLAY")) return {nullptr, "wayland", "", "WAYLAND_DISPLAY is not set"};
  auto opened = WaylandPasteboard::connect();
  if (!opened.pasteboard) return {nullptr, "wayland", "", opened.failure};
  return {std::move(opened.pasteboard), "wayland", "", ""};
}

class LazyDesktopPasteboard final : public Pasteboard {
 public:
  std::int64_t changeCount() const override { return board().changeCount(); }
  std::vector<PasteboardItem> items() const override { return board().items(); }
  std::int64_t clearContents() override { return board().clearContents(); }
  bool setString(std::string_view value, PasteboardType type) override {
    return board().setString(value, type);
  }

 private:
  Pasteboard& board() const {
    std::call_once(once_, [this] {
      board_ = openDesktopPasteboard(PasteboardBackend::automatic).pasteboard;
      if (!board_) board_ = std::make_shared<MemoryPasteboard>();
    });
    return *board_;
  }
  mutable std::once_flag once_;
  mutable std::shared_ptr<Pasteboard> board_;
};

}  // namespace

DesktopPasteboard openDesktopPasteboard(PasteboardBackend backend) {
  switch (backend) {
    case PasteboardBackend::x11:
      return openX11();
    case PasteboardBackend::wayland:
      return openWayland();
    case PasteboardBackend::automatic:
      break;
  }
  if (hasEnv("WAYLAND_DISPLAY")) {
    auto wayland = openWayland();
    if (wayland.pasteboard || !hasEnv("DISPLAY")) return wayland;
    auto x11 = openX11();
    if (x11.pasteboard) {
      x11.note = "The Wayland compositor does not let other programs watch the clipboard (" +
                 wayland.failure + "); using X11 through XWayland instead.";
    }
    return x11;
  }
  if (hasEnv("DISPLAY")) return openX11();
  return {nullptr, "", "", "no display: neither WAYLAND_DISPLAY nor DISPLAY is set"};
}

std::shared_ptr<Pasteboard> makeLazyDesktopPasteboard() {
  return std::make_shared<LazyDesktopPasteboard>();
}

}  // namespace linkwash
