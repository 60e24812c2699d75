// linkwash-host: the native-messaging host the browser extensions talk to. The browser starts it,
// writes framed JSON requests to its standard input and reads one framed reply per request from
// its standard output; it runs until the browser closes its input.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "base/diagnostics.h"
#include "core/clipboard/clipboard_control.h"
#include "extension/extension_message_handler.h"
#include "extension/native_messaging.h"
#include "platform/pasteboard/desktop_pasteboard.h"

int main() {
  using namespace linkwash;
  // The browser may pass the extension's origin or manifest path as arguments; nothing in them
  // changes what the host does, so they are ignored.

  // A browser that goes away must end the host through a failed write, not a signal.
  std::signal(SIGPIPE, SIG_IGN);
  setDiagnosticSink(standardErrorSink());

  // Standard output carries only framed replies: keep a private descriptor for them and point
  // descriptor 1 at standard error, so a stray print anywhere in the process cannot corrupt the
  // stream the browser parses.
  const int replies = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (replies < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
    std::perror("linkwash-host: cannot set up standard output");
    return 1;
  }

  // "copyMissedReport" puts the report on the desktop clipboard (through the clipboard daemon
  // when it runs); without a display it stays in memory.
  setGeneralPasteboard(std::make_shared<DaemonFirstPasteboard>(makeLazyDesktopPasteboard()));

  const ExtensionMessageHandler handler;
  return serveNativeMessaging(STDIN_FILENO, replies,
                              [&handler](const Json& message) { return handler.handle(message); });
}
