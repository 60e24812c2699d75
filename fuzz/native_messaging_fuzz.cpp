// The browser host's message framing on arbitrary input streams: any sequence of length prefixes
// and bytes must be read to its end without a crash, and every reply written must be a whole
// frame.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "base/diagnostics.h"
#include "extension/native_messaging.h"
#include "fuzz/fuzz_support.h"

using namespace linkwash;

namespace {

int memoryFile(const char* name) { return ::memfd_create(name, MFD_CLOEXEC); }

std::string readAll(int fd) {
  std::string out;
  ::lseek(fd, 0, SEEK_SET);
  char buffer[4096];
  ssize_t n = 0;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0) out.append(buffer, static_cast<size_t>(n));
  return out;
}

}  // namespace

// Cut-short input is the common case here; its one-line notices would bury the fuzzer's output.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setDiagnosticSink([](std::string_view) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const int in = memoryFile("in");
  const int out = memoryFile("out");
  if (in < 0 || out < 0 || ::write(in, data, size) != static_cast<ssize_t>(size)) std::abort();
  ::lseek(in, 0, SEEK_SET);

  // Small limits, so the fuzzer reaches the oversized-message and oversized-reply paths.
  NativeMessagingLimits limits;
  limits.maxMessageBytes = 256;
  limits.maxReplyBytes = 128;
  const int result = serveNativeMessaging(
      in, out,
      [](const Json& message) {
        return Json{{"echo", message}};
      },
      limits);
  if (result != 0) fuzz::broken("reading a memory file failed", input);

  const std::string all = readAll(out);
  std::string_view replies = all;
  while (!replies.empty()) {
    std::uint32_t length = 0;
    if (replies.size() < sizeof length) fuzz::broken("a reply frame without its length", input);
    std::memcpy(&length, replies.data(), sizeof length);
    replies.remove_prefix(sizeof length);
    if (length > replies.size() || length > limits.maxReplyBytes) {
      fuzz::broken("a reply frame longer than allowed or than written", input);
    }
    replies.remove_prefix(length);
  }
  ::close(in);
  ::close(out);
  return 0;
}
