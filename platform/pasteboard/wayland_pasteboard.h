// The Wayland clipboard as a Pasteboard, through the data-control protocols (ext-data-control-v1,
// else zwlr-data-control-v1), which let a program that has no window watch and set the
// clipboard. Compositors without them (GNOME) are refused; the caller then uses XWayland.
#pragma once

#include <memory>
#include <string>

#include "platform/pasteboard/pasteboard.h"

namespace linkwash {

class WaylandPasteboard final : public Pasteboard {
 public:
  struct Connection {
    std::unique_ptr<WaylandPasteboard> pasteboard;
    std::string failure;  // why not, when pasteboard is null
  };
  // Connects to `display` (WAYLAND_DISPLAY when empty).
  static Connection connect(const std::string& display = "");
  ~WaylandPasteboard() override;

  std::int64_t changeCount() const override;
  std::vector<PasteboardItem> items() const override;
  std::int64_t clearContents() override;
  bool setString(std::string_view value, PasteboardType type = PasteboardType::string) override;

  struct Impl;

 private:
  explicit WaylandPasteboard(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace linkwash
