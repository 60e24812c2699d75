// Picks the one clipboard string the monitor works on.
#include "core/clipboard/paste_payload_selector.h"

#include <algorithm>
#include <string_view>

namespace linkwash {
namespace {

constexpr std::size_t kMaximumCandidateBytes = 65536;

struct Candidate {
  std::string value;
  std::vector<std::string> urls;
  bool isBareURL = false;
};

std::string_view trimmed(std::string_view text) {
  auto isBlank = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

Candidate makeCandidate(const std::string& value, const ClipboardLinkFinder& finder) {
  Candidate candidate{value, {}, false};
  // Oversized values take part only through plain containment.
  if (value.size() <= kMaximumCandidateBytes) {
    if (auto links = finder.blockLinks(value)) {
      for (auto& link : *links) candidate.urls.push_back(link.url);
    }
  }
  candidate.isBareURL = candidate.urls.size() == 1 && trimmed(value) == candidate.urls.front();
  return candidate;
}

bool covers(const Candidate& a, const Candidate& b) {
  if (a.value.find(b.value) != std::string::npos) return true;
  if (!b.isBareURL) return false;
  return std::all_of(b.urls.begin(), b.urls.end(), [&](const std::string& url) {
    return std::find(a.urls.begin(), a.urls.end(), url) != a.urls.end();
  });
}

}  // namespace

std::optional<std::string> PastePayloadSelector::select(const std::vector<std::string>& strings,
                                                        const ClipboardLinkFinder& finder) {
  std::vector<std::string> distinct;
  for (const auto& value : strings) {
    if (std::find(distinct.begin(), distinct.end(), value) == distinct.end()) {
      distinct.push_back(value);
    }
  }
  if (distinct.empty()) return std::nullopt;
  if (distinct.size() == 1) return distinct.front();

  std::vector<Candidate> candidates;
  candidates.reserve(distinct.size());
  for (const auto& value : distinct) candidates.push_back(makeCandidate(value, finder));

  const Candidate* chosen = nullptr;
  for (const auto& a : candidates) {
    bool qualifies = std::all_of(candidates.begin(), candidates.end(),
                                 [&](const Candidate& b) { return &a == &b || covers(a, b); });
    if (!qualifies) continue;
    if (chosen != nullptr) return std::nullopt;
    chosen = &a;
  }
  if (chosen == nullptr) return std::nullopt;
  return chosen->value;
}

}  // namespace linkwash
