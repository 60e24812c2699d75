// An in-memory pasteboard, for tests and for embedders without a desktop clipboard. Besides the
// Pasteboard operations it can play "another application" that copies something.
#pragma once

#include <mutex>
#include <vector>

#include "platform/pasteboard/pasteboard.h"

namespace linkwash {

class MemoryPasteboard final : public Pasteboard {
 public:
  MemoryPasteboard() = default;

  std::int64_t changeCount() const override;
  std::vector<PasteboardItem> items() const override;
  std::int64_t clearContents() override;
  bool setString(std::string_view value, PasteboardType type = PasteboardType::string) override;

  // Replaces the contents as another application's copy would: one change, and this process no
  // longer owns the pasteboard.
  void simulateCopy(std::vector<PasteboardItem> items);

 private:
  mutable std::mutex mutex_;
  std::vector<PasteboardItem> items_;
  std::int64_t changeCount_ = 0;
  bool ownedSinceClear_ = false;
};

}  // namespace linkwash
