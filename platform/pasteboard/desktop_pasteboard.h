// Chooses the desktop clipboard: Wayland through the data-control protocols, X11 through xcb.
#pragma once

#include <memory>
#include <string>

#include "platform/pasteboard/pasteboard.h"

namespace linkwash {

enum class PasteboardBackend { automatic, x11, wayland };

struct DesktopPasteboard {
  std::shared_ptr<Pasteboard> pasteboard;  // null when no backend could be opened
  std::string backend;                     // "x11" or "wayland"
  std::string note;     // a one-time remark for the user (the XWayland fallback), or empty
  std::string failure;  // why nothing could be opened, when pasteboard is null
};

// `automatic` takes Wayland when WAYLAND_DISPLAY is set and X11 when DISPLAY is; a Wayland
// compositor without data-control (GNOME) falls back to X11 through XWayland.
DesktopPasteboard openDesktopPasteboard(PasteboardBackend backend);

// A pasteboard that opens the desktop clipboard on first use, and stays in memory when there is
// no display or it cannot be opened. For processes that rarely touch the clipboard.
std::shared_ptr<Pasteboard> makeLazyDesktopPasteboard();

}  // namespace linkwash
