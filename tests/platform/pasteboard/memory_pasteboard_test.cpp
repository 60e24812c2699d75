// The in-memory pasteboard's change counting, which pollers rely on to tell their own writes from
// another application's copy, and the process's general pasteboard.
#include <gtest/gtest.h>

#include "platform/pasteboard/memory_pasteboard.h"

namespace linkwash {
namespace {

TEST(MemoryPasteboardTest, ClearThenWritesIsOneChangeAndForeignCopiesAreOneEach) {
  MemoryPasteboard board;
  EXPECT_EQ(board.changeCount(), 0);
  EXPECT_TRUE(board.items().empty());
  EXPECT_EQ(board.firstText(), std::nullopt);

  EXPECT_EQ(board.clearContents(), 1);
  EXPECT_TRUE(board.setString("https://a.example/"));
  EXPECT_TRUE(board.setString("https://a.example/", PasteboardType::url));
  EXPECT_EQ(board.changeCount(), 1);
  EXPECT_EQ(board.items(),
            (std::vector<PasteboardItem>{{"https://a.example/", "https://a.example/"}}));

  board.simulateCopy({{std::nullopt, "https://b.example/"}, {"title", std::nullopt}});
  EXPECT_EQ(board.changeCount(), 2);
  EXPECT_EQ(board.firstText(), "title");
  EXPECT_EQ(board.items()[0].string(PasteboardType::url), "https://b.example/");

  // Writing over another application's contents without clearing is still a change.
  EXPECT_TRUE(board.setString("mine"));
  EXPECT_EQ(board.changeCount(), 3);
  EXPECT_EQ(board.items()[0].text, "mine");
  EXPECT_EQ(board.items().size(), 2u);
}

TEST(MemoryPasteboardTest, GeneralPasteboardCanBeReplacedAndRestored) {
  auto original = generalPasteboard();
  ASSERT_NE(original, nullptr);
  EXPECT_EQ(generalPasteboard(), original);

  auto replacement = std::make_shared<MemoryPasteboard>();
  setGeneralPasteboard(replacement);
  generalPasteboard()->clearContents();
  EXPECT_EQ(replacement->changeCount(), 1);

  setGeneralPasteboard(nullptr);
  EXPECT_NE(generalPasteboard(), nullptr);
  EXPECT_NE(generalPasteboard(), replacement);
}

}  // namespace
}  // namespace linkwash
