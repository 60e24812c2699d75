// The link-finding and share-link services the clipboard monitor relies on, as small hooks, so
// that the monitor can be exercised with stand-ins and wired to the real finders by its owner.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace linkwash {

// One web link inside a text: the link as written and its byte range [begin, end) in the text.
struct TextLink {
  std::string url;
  std::size_t begin = 0;
  std::size_t end = 0;
  bool operator==(const TextLink&) const = default;
};

struct ClipboardLinkFinder {
  // Every web link of `text` in order; nothing when the text is refused (too large, or holding
  // invisible or direction-changing characters).
  std::function<std::optional<std::vector<TextLink>>(std::string_view text)> blockLinks;
  // The one link a text carries; nothing when the text is refused or has no acceptable link.
  std::function<std::optional<TextLink>(std::string_view text)> singleLink;
};

// A conservative finder used until a fuller one is wired in: "http(s)://" up to white space or
// one of < > " ', without trailing sentence punctuation or an unbalanced closing bracket. Refuses
// texts over 65,536 bytes and texts holding control or bidirectional formatting characters.
ClipboardLinkFinder basicClipboardLinkFinder();

// `text` with each link's range replaced by replacement(index, link); ranges must be in order
// and not overlap.
std::string replaceLinks(
    std::string_view text, const std::vector<TextLink>& links,
    const std::function<std::string(std::size_t, const TextLink&)>& replacement);

// What a successful share-link resolution gives back.
struct ResolvedLink {
  std::string canonicalURL;
  std::string contactedHost;
};

struct ShareLinkSupport {
  // True for a short-link-host link or a supported share link (worth one network request).
  std::function<bool(std::string_view link)> needsResolution;
  // True when the link names a service that a resolution can be attempted for.
  std::function<bool(std::string_view link)> hasService;
  // Performs the request; blocking, called on a worker thread. Nothing on any failure.
  std::function<std::optional<ResolvedLink>(const std::string& link)> resolve;
};

// Recognises nothing and resolves nothing.
ShareLinkSupport noShareLinkSupport();

}  // namespace linkwash
