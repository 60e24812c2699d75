// The browsers' native-messaging framing on a pair of file descriptors: every message and every
// reply is a 4-byte length in native byte order followed by that many bytes of UTF-8 JSON. One
// reply per message, as many messages as the browser sends, until end of input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "platform/json/json_writer.h"

namespace linkwash {

struct NativeMessagingLimits {
  // Longer messages are read past without being kept and answered with an "error" reply.
  std::uint32_t maxMessageBytes = 64u << 20;
  // The browsers refuse a longer reply from a host, so one is replaced by an "error" reply.
  std::size_t maxReplyBytes = 1u << 20;
};

using NativeMessageHandler = std::function<Json(const Json& message)>;

// A framed reply: the length prefix and `reply` as JSON (invalid UTF-8 replaced by U+FFFD), or
// the framed {"error": "Reply too large"} when the JSON exceeds `maxReplyBytes`.
std::string frameReply(const Json& reply, std::size_t maxReplyBytes);

// Reads messages from `inputFd` and writes one framed reply per message to `outputFd`. Text that
// is not JSON reaches the handler as the empty object; a handler that throws is answered with an
// "error" reply. Ends at end of input (a final message cut short is dropped unanswered) and
// returns 0, or returns 1 when input cannot be read or a reply cannot be written (the browser
// went away). Diagnostics go to standard error only.
int serveNativeMessaging(int inputFd, int outputFd, const NativeMessageHandler& handler,
                         const NativeMessagingLimits& limits = {});

}  // namespace linkwash
