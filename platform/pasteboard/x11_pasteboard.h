// The X11 CLIPBOARD selection as a Pasteboard, over xcb with the XFixes extension.
//
// Another client taking the selection bumps the change count (XFixes tells us, so nothing is
// polled). Writing makes this process the owner of CLIPBOARD (never PRIMARY, which holds whatever
// the user last highlighted) and answers paste requests from a thread of its own. Content that
// carries a password-manager hint, copied files or images is never read, so it is never replaced.
// When the object goes away while it owns the clipboard, the text is handed to a running
// clipboard manager so that a paste after exit still works.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/pasteboard/pasteboard.h"

namespace linkwash {

class X11Pasteboard final : public Pasteboard {
 public:
  // Connects to `display` (the DISPLAY variable when empty); nothing when the server cannot be
  // reached or lacks XFixes.
  static std::unique_ptr<X11Pasteboard> connect(const std::string& display = "");
  ~X11Pasteboard() override;

  std::int64_t changeCount() const override;
  std::vector<PasteboardItem> items() const override;
  std::int64_t clearContents() override;
  bool setString(std::string_view value, PasteboardType type = PasteboardType::string) override;

  // Whether this process owns CLIPBOARD right now.
  bool ownsClipboard() const;
  // Offers the owned text to a clipboard manager (done by the destructor too); false when none
  // runs or it did not answer within `timeoutMs`.
  bool handOverToClipboardManager(int timeoutMs = 2000);

  struct Impl;

 private:
  explicit X11Pasteboard(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace linkwash
