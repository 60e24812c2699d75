// The framing loop over real pipes, with an echoing handler and small limits so that every
// boundary is cheap to reach.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "extension/native_messaging.h"

namespace linkwash {
namespace {

std::string frame(std::string_view body) {
  const auto length = static_cast<std::uint32_t>(body.size());
  std::string framed(4, '\0');
  std::memcpy(framed.data(), &length, 4);
  return framed.append(body);
}

struct Served {
  int exitCode = -1;
  std::vector<Json> replies;
  std::string leftover;  // bytes after the last complete reply
};

// Feeds `input` to the loop from a writer thread (the pipe holds less than some inputs) and
// collects what it wrote.
Served serve(const std::string& input, const NativeMessageHandler& handler,
             NativeMessagingLimits limits = {}) {
  int in[2];
  int out[2];
  EXPECT_EQ(::pipe(in), 0);
  EXPECT_EQ(::pipe(out), 0);
  std::thread writer([&] {
    std::size_t done = 0;
    while (done < input.size()) {
      const ssize_t n = ::write(in[1], input.data() + done, input.size() - done);
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    ::close(in[1]);
  });
  std::string output;
  std::thread reader([&] {
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(out[0], buffer, sizeof buffer)) > 0) output.append(buffer, n);
  });
  Served served;
  served.exitCode = serveNativeMessaging(in[0], out[1], handler, limits);
  ::close(out[1]);
  writer.join();
  reader.join();
  ::close(in[0]);
  ::close(out[0]);

  std::string_view rest = output;
  while (rest.size() >= 4) {
    std::uint32_t length;
    std::memcpy(&length, rest.data(), 4);
    if (rest.size() - 4 < length) break;
    served.replies.push_back(Json::parse(rest.substr(4, length)));
    rest.remove_prefix(4 + length);
  }
  served.leftover = std::string(rest);
  return served;
}

Json echo(const Json& message) { return {{"echo", message}}; }

TEST(NativeMessagingTest, AnswersEveryMessageInOrderUntilEndOfInput) {
  const Served served = serve(frame(R"({"n":1})") + frame("not json") + frame("") + frame("[1,2]") +
                                  frame(R"({"n":"\u00e9/"})"),
                              echo);
  EXPECT_EQ(served.exitCode, 0);
  EXPECT_EQ(served.leftover, "");
  ASSERT_EQ(served.replies.size(), 5u);
  EXPECT_EQ(served.replies[0], (Json{{"echo", {{"n", 1}}}}));
  // Malformed text reaches the handler as the empty object; other JSON as it is.
  EXPECT_EQ(served.replies[1], (Json{{"echo", Json::object()}}));
  EXPECT_EQ(served.replies[2], (Json{{"echo", Json::object()}}));
  EXPECT_EQ(served.replies[3], (Json{{"echo", {1, 2}}}));
  EXPECT_EQ(served.replies[4], (Json{{"echo", {{"n", "\u00e9/"}}}}));

  EXPECT_EQ(serve("", echo).replies.size(), 0u);
}

TEST(NativeMessagingTest, MessagesOverTheLimitAreSkippedAndAnsweredWithAnError) {
  NativeMessagingLimits limits;
  limits.maxMessageBytes = 16;
  const std::string atLimit = R"({"s":"abcdefgh"})";  // 16 bytes
  ASSERT_EQ(atLimit.size(), 16u);
  const std::string overLimit = R"({"s":"abcdefghi"})";
  const Served served =
      serve(frame(atLimit) + frame(overLimit) + frame(R"({"n":2})"), echo, limits);
  ASSERT_EQ(served.replies.size(), 3u);
  EXPECT_EQ(served.replies[0], (Json{{"echo", {{"s", "abcdefgh"}}}}));
  EXPECT_EQ(served.replies[1], (Json{{"error", "Message too large"}}));
  EXPECT_EQ(served.replies[2], (Json{{"echo", {{"n", 2}}}}));
}

TEST(NativeMessagingTest, RepliesOverTheLimitBecomeAnError) {
  NativeMessagingLimits limits;
  limits.maxReplyBytes = 32;
  const Served served =
      serve(frame(R"({"s":"12345678901234567"})") + frame(R"({"s":""})"), echo, limits);
  ASSERT_EQ(served.replies.size(), 2u);
  EXPECT_EQ(served.replies[0], (Json{{"error", "Reply too large"}}));
  EXPECT_EQ(served.replies[1], (Json{{"echo", {{"s", ""}}}}));
  EXPECT_EQ(frameReply(Json{{"echo", {{"s", "123456789012345"}}}}, 32).size(), 4u + 32u);
}

TEST(NativeMessagingTest, InputCutShortEndsQuietlyAfterTheCompleteMessages) {
  for (const std::string& tail : {std::string("\x05\x00", 2), frame(R"({"n":2})").substr(0, 7),
                                  frame(std::string(100, ' ')).substr(0, 4)}) {
    const Served served = serve(frame(R"({"n":1})") + tail, echo);
    EXPECT_EQ(served.exitCode, 0);
    EXPECT_EQ(served.replies.size(), 1u);
    EXPECT_EQ(served.leftover, "");
  }
}

TEST(NativeMessagingTest, HandlerFailuresAndInvalidTextStillGetAReply) {
  const Served served = serve(frame(R"({"throw":true})") + frame("{}"), [](const Json& message) {
    if (message.contains("throw")) throw std::runtime_error("boom");
    return Json{{"text", std::string("bad \xff byte")}};
  });
  ASSERT_EQ(served.replies.size(), 2u);
  EXPECT_EQ(served.replies[0], (Json{{"error", "Internal error"}}));
  EXPECT_EQ(served.replies[1], (Json{{"text", "bad \ufffd byte"}}));
}

TEST(NativeMessagingTest, StopsWhenTheReaderIsGone) {
  std::signal(SIGPIPE, SIG_IGN);  // as the host does, so the failed write is seen as an error
  int in[2];
  int out[2];
  ASSERT_EQ(::pipe(in), 0);
  ASSERT_EQ(::pipe(out), 0);
  ::close(out[0]);
  const std::string input = frame("{}");
  ASSERT_EQ(::write(in[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
  ::close(in[1]);
  EXPECT_EQ(serveNativeMessaging(in[0], out[1], echo), 1);
  ::close(in[0]);
  ::close(out[1]);
}

}  // namespace
}  // namespace linkwash
