// The X11 clipboard against a real X server (Xvfb), with xclip as the other application.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "platform/pasteboard/x11_pasteboard.h"
#include "tests/support/desktop_servers.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

class X11PasteboardTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(xvfb_.display().empty()) << "Xvfb did not start (run scripts/setup)";
    setenv("DISPLAY", xvfb_.display().c_str(), 1);
    board_ = X11Pasteboard::connect();
    ASSERT_TRUE(board_);
  }

  // xclip keeps serving from the background until someone else takes the clipboard.
  void xclipCopy(const std::string& text, const std::string& target = "UTF8_STRING") {
    auto before = board_->changeCount();
    auto run = testing::runProgram("/usr/bin/timeout",
                                   {"5", "xclip", "-selection", "clipboard", "-t", target, "-i"},
                                   home_.path(), text);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    ASSERT_TRUE(testing::waitUntil([&] { return board_->changeCount() != before; }));
  }
  std::string xclipPaste() {
    return testing::runProgram("/usr/bin/timeout", {"5", "xclip", "-selection", "clipboard", "-o"},
                               home_.path())
        .out;
  }

  testing::TempHome home_;
  testing::XvfbServer xvfb_;
  std::unique_ptr<X11Pasteboard> board_;
};

TEST_F(X11PasteboardTest, ReadsOtherClientsAndServesItsOwnWrites) {
  EXPECT_TRUE(board_->items().empty());
  xclipCopy("https://a.example/?utm_source=x");
  EXPECT_EQ(board_->firstText(), "https://a.example/?utm_source=x");

  auto count = board_->clearContents();
  EXPECT_TRUE(board_->setString("https://a.example/"));
  EXPECT_EQ(board_->changeCount(), count);  // a clear followed by a write is one change
  EXPECT_TRUE(board_->ownsClipboard());
  EXPECT_EQ(xclipPaste(), "https://a.example/");
  EXPECT_EQ(board_->changeCount(), count);  // serving a paste is no change

  xclipCopy("next");
  EXPECT_FALSE(board_->ownsClipboard());
  EXPECT_EQ(board_->firstText(), "next");

  std::string big(70000, 'x');
  xclipCopy(big);
  auto items = board_->items();
  ASSERT_EQ(items.size(), 1u);
  EXPECT_GT(items[0].text->size(), 65536u);  // too long to matter, whatever the transfer
}

TEST_F(X11PasteboardTest, NeverReadsSecretsFilesOrImages) {
  const std::vector<std::pair<std::string, std::string>> refused = {
      {"x-kde-passwordManagerHint", "secret"},
      {"x-special/gnome-copied-files", "copy\nfile:///etc/passwd"},
      {"text/uri-list", "file:///home/u/a.txt\r\n"},
      {"image/png", "\x89PNG"},
  };
  for (const auto& [target, data] : refused) {
    xclipCopy(data, target);
    EXPECT_TRUE(board_->items().empty()) << target;
  }
  xclipCopy("# comment\r\nhttps://a.example/x\r\n", "text/uri-list");
  auto items = board_->items();
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].url, "https://a.example/x");
}

}  // namespace
}  // namespace linkwash
