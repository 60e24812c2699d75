// The native-messaging read-handle-write loop.
#include "extension/native_messaging.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>

#include "base/diagnostics.h"

namespace linkwash {
namespace {

enum class ReadStatus { complete, endOfInput, truncated, failed };

// Fills `size` bytes unless input ends or fails first.
ReadStatus readFully(int fd, char* buffer, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = ::read(fd, buffer + done, size - done);
    if (got > 0) {
      done += static_cast<std::size_t>(got);
    } else if (got == 0) {
      return done == 0 ? ReadStatus::endOfInput : ReadStatus::truncated;
    } else if (errno != EINTR) {
      return ReadStatus::failed;
    }
  }
  return ReadStatus::complete;
}

// Reads and forgets `size` bytes in fixed chunks, so an absurd length never becomes an
// allocation.
ReadStatus discard(int fd, std::uint64_t size) {
  std::array<char, 64 * 1024> chunk;
  bool any = false;
  while (size > 0) {
    const std::size_t step = size < chunk.size() ? static_cast<std::size_t>(size) : chunk.size();
    const ReadStatus status = readFully(fd, chunk.data(), step);
    if (status == ReadStatus::failed) return status;
    if (status != ReadStatus::complete) {
      return any || status == ReadStatus::truncated ? ReadStatus::truncated
                                                    : ReadStatus::endOfInput;
    }
    any = true;
    size -= step;
  }
  return ReadStatus::complete;
}

bool writeFully(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t wrote = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (wrote > 0) {
      done += static_cast<std::size_t>(wrote);
    } else if (wrote < 0 && errno != EINTR) {
      return false;
    }
  }
  return true;
}

std::string frame(const std::string& json) {
  const auto length = static_cast<std::uint32_t>(json.size());
  std::string framed(sizeof length, '\0');
  std::memcpy(framed.data(), &length, sizeof length);
  framed += json;
  return framed;
}

Json errorReply(std::string_view text) {
  Json reply = Json::object();
  reply["error"] = text;
  return reply;
}

}  // namespace

std::string frameReply(const Json& reply, std::size_t maxReplyBytes) {
  std::string json = reply.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (json.size() > maxReplyBytes) {
    json = errorReply("Reply too large").dump();
  }
  return frame(json);
}

int serveNativeMessaging(int inputFd, int outputFd, const NativeMessageHandler& handler,
                         const NativeMessagingLimits& limits) {
  for (;;) {
    std::uint32_t length = 0;
    ReadStatus status = readFully(inputFd, reinterpret_cast<char*>(&length), sizeof length);
    if (status == ReadStatus::endOfInput) return 0;
    if (status == ReadStatus::truncated) {
      diagnostic("linkwash-host: input ended inside a message length; message dropped");
      return 0;
    }
    if (status == ReadStatus::failed) {
      diagnostic(std::string("linkwash-host: cannot read input: ") + std::strerror(errno));
      return 1;
    }

    Json reply;
    if (length > limits.maxMessageBytes) {
      status = discard(inputFd, length);
      if (status == ReadStatus::complete) {
        reply = errorReply("Message too large");
      }
    } else {
      std::string body(length, '\0');
      status = readFully(inputFd, body.data(), body.size());
      if (status == ReadStatus::complete) {
        try {
          reply = handler(parseJson(body).value_or(Json::object()));
        } catch (const std::exception& error) {
          diagnostic(std::string("linkwash-host: request failed: ") + error.what());
          reply = errorReply("Internal error");
        }
      }
    }
    if (status == ReadStatus::endOfInput || status == ReadStatus::truncated) {
      diagnostic("linkwash-host: input ended inside a message; message dropped");
      return 0;
    }
    if (status == ReadStatus::failed) {
      diagnostic(std::string("linkwash-host: cannot read input: ") + std::strerror(errno));
      return 1;
    }

    std::string framed;
    try {
      framed = frameReply(reply, limits.maxReplyBytes);
    } catch (const std::exception&) {
      framed = frameReply(errorReply("Internal error"), limits.maxReplyBytes);
    }
    if (!writeFully(outputFd, framed)) {
      diagnostic(std::string("linkwash-host: cannot write reply: ") + std::strerror(errno));
      return 1;
    }
  }
}

}  // namespace linkwash
