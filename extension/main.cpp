// linkwash-host: the native-messaging host the browser extensions talk to. The browser starts it,
// writes framed JSON requests to its standard input and reads one framed reply per request from
// its standard output; it runs until the browser closes its input.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "base/diagnostics.h"
#include "core/clipboard/clipboard_control.h"
#include "extension/extension_message_handler.h"
#include "extension/native_messaging.h"
#include "platform/pasteboard/desktop_pasteboard.h"
#include "platform/resources/resource_bundle.h"

int main(int argc, char** argv) {
  using namespace linkwash;
  // Browsers start the host with arguments of their own (Chromium: the extension's origin, and a
  // parent window on some systems; Firefox: the manifest's path and the extension's ID). None of
  // them changes what the host does, so only a lone --version is taken as a request.
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::printf("linkwash-host %s\n", appVersion().c_str());
    return 0;
  }

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

  // One session for the life of the process; the engine is loaded on the first clean.
  auto session = Session::open();
  if (!session) {
    std::fprintf(stderr, "linkwash-host: %s\n", session.error().message.c_str());
    return 1;
  }
  const ExtensionMessageHandler handler(**session);
  return serveNativeMessaging(STDIN_FILENO, replies,
                              [&handler](const Json& message) { return handler.handle(message); });
}
