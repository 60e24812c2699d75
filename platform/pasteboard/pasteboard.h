// Pasteboard: the system clipboard as the cleaning surfaces see it. Its contents are a list of
// items, each holding a plain-text string, a URL string, or both; a change count that grows on
// every change (by this process or another) lets a poller notice new contents cheaply.
//
//   auto board = generalPasteboard();
//   board->clearContents();
//   board->setString("https://example.com/");  // plain text
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace linkwash {

enum class PasteboardType { string, url };

struct PasteboardItem {
  std::optional<std::string> text;  // the plain-text representation
  std::optional<std::string> url;   // the URL representation

  const std::optional<std::string>& string(PasteboardType type) const {
    return type == PasteboardType::string ? text : url;
  }
  bool operator==(const PasteboardItem&) const = default;
};

// Implementations are thread-safe.
class Pasteboard {
 public:
  virtual ~Pasteboard() = default;

  // Never decreases; changes whenever the contents change.
  virtual std::int64_t changeCount() const = 0;
  // The items in order; empty when the pasteboard holds nothing readable as text or URL.
  virtual std::vector<PasteboardItem> items() const = 0;
  // Empties the pasteboard and makes this process its owner; returns the new change count.
  virtual std::int64_t clearContents() = 0;
  // Puts `value` on the first item as `type` (creating the item on an empty pasteboard). Does not
  // change the change count when this process already owns the pasteboard since its last
  // clearContents(), so a clear followed by writes is one change. False when the write failed.
  virtual bool setString(std::string_view value, PasteboardType type = PasteboardType::string) = 0;

  // The plain-text string of the first item that has one.
  std::optional<std::string> firstText() const;
};

// The pasteboard shared by the whole process. Until a desktop implementation is installed with
// setGeneralPasteboard(), it is an in-memory pasteboard private to the process.
// Never null.
std::shared_ptr<Pasteboard> generalPasteboard();
// Replaces the process's general pasteboard (null restores a fresh in-memory one). Holders of the
// previous one keep it alive.
void setGeneralPasteboard(std::shared_ptr<Pasteboard> pasteboard);

}  // namespace linkwash
