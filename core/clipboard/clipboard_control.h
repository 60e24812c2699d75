// The channel between `linkwash watch` and `linkwash clipboard ...`: a unix socket that only the
// user can reach, one JSON request line and one JSON reply line per connection.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>

#include "base/result.h"
#include "platform/json/json_writer.h"
#include "platform/pasteboard/pasteboard.h"

namespace linkwash {

// $LINKWASH_HOME/run/clipboard.sock when LINKWASH_HOME is set, else
// $XDG_RUNTIME_DIR/linkwash/clipboard.sock, else /tmp/linkwash-<uid>/clipboard.sock.
std::filesystem::path clipboardSocketPath();

// Sends `request` to the running daemon; nothing when no daemon answers.
std::optional<Json> sendClipboardCommand(const Json& request);

// A pasteboard for short-lived writers (the browser host): a text written to it goes to the
// running clipboard daemon, which owns the clipboard for as long as the session lasts and knows
// the text as its own (so it never cleans the links inside it); without a daemon it goes to
// `fallback`.
class DaemonFirstPasteboard final : public Pasteboard {
 public:
  explicit DaemonFirstPasteboard(std::shared_ptr<Pasteboard> fallback)
      : fallback_(std::move(fallback)) {}
  std::int64_t changeCount() const override { return fallback_->changeCount(); }
  std::vector<PasteboardItem> items() const override { return fallback_->items(); }
  std::int64_t clearContents() override;
  bool setString(std::string_view value, PasteboardType type = PasteboardType::string) override;

 private:
  std::shared_ptr<Pasteboard> fallback_;
  bool clearPending_ = false;
};

// The daemon's end. listen() creates the folder (mode 0700) and the socket (mode 0600); it
// fails when another daemon already answers on it.
class ClipboardControlServer {
 public:
  ClipboardControlServer() = default;
  ~ClipboardControlServer();
  ClipboardControlServer(const ClipboardControlServer&) = delete;
  ClipboardControlServer& operator=(const ClipboardControlServer&) = delete;

  Result<void> listen();
  int fd() const { return fd_; }
  // Answers one waiting client with handler(request); returns at once when none waits.
  void serveOne(const std::function<Json(const Json&)>& handler);

 private:
  int fd_ = -1;
  std::filesystem::path path_;
};

}  // namespace linkwash
