// PastePayloadSelector: one copy can put several strings on the clipboard (a browser offers the
// page title with the link, or the link both as text and as URL). The monitor must work on
// exactly one text: the string that contains all the others, or none when the choice is
// ambiguous, in which case the clipboard is left alone.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/clipboard/clipboard_links.h"

namespace linkwash {

namespace PastePayloadSelector {

// Duplicates are dropped (first occurrence kept); a single distinct string is always the answer.
// Otherwise the one string that, for every other string B, either contains B or holds every URL
// of B when B is a bare URL (exact comparison); none when no string or several strings qualify.
std::optional<std::string> select(const std::vector<std::string>& strings,
                                  const ClipboardLinkFinder& finder);

}  // namespace PastePayloadSelector

}  // namespace linkwash
