#include "bench/link_mix.h"

#include <cstdlib>
#include <fstream>
#include <random>

namespace linkwash::bench {
namespace {

std::string percentEncodeAll(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

}  // namespace

std::filesystem::path sharedDir() {
  if (const char* dir = std::getenv("LINKWASH_SHARED_DIR")) return dir;
  return LINKWASH_DEFAULT_SHARED_DIR;
}

std::vector<std::string> makeLinkMix(std::size_t count, std::uint32_t seed) {
  std::ifstream in(sharedDir() / "corpus/real_urls_kasztp.txt");
  std::vector<std::string> corpus;
  for (std::string line; std::getline(in, line);) {
    if (line.size() > 12) corpus.push_back(line);
  }
  if (corpus.empty()) return {};
  std::mt19937 rng(seed);
  auto pick = [&](const auto& list) -> const auto& { return list[rng() % list.size()]; };
  const std::vector<std::string> trackers = {
      "utm_source=newsletter", "utm_medium=email", "utm_campaign=spring_sale",
      "fbclid=IwAR0x1y2z",     "gclid=Cj0KCQiA",   "mc_cid=8f3e2",
      "mc_eid=a1b2c3",         "_ga=2.1234.5678",  "igshid=MzRlODBiNWFl",
      "si=AbCdEf123",          "ref_=nav_logo",    "yclid=123456",
      "msclkid=abc",           "_hsenc=p2ANqtz"};
  const std::vector<std::string> kept = {"id=42",    "page=2",   "q=search+terms", "lang=en",
                                         "v=dQw4w9", "sort=new", "color=red",      "size=m"};
  const std::vector<std::string> nonAscii = {"caf%C3%A9",
                                             "\xC3\xBC"
                                             "ber",
                                             "\xE6\x97\xA5\xE6\x9C\xAC", "stra%C3%9Fe",
                                             "\xD0\xBC\xD0\xB8\xD1\x80"};
  std::vector<std::string> links;
  links.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    std::string base = pick(corpus);
    const char sep = base.find('?') == std::string::npos ? '?' : '&';
    const unsigned kind = rng() % 100;
    if (kind < 40) {
      links.push_back(base);  // as found: mostly clean
    } else if (kind < 70) {
      std::string link = base + sep + pick(kept) + "&" + pick(trackers);
      if (rng() % 2) link += "&" + pick(trackers);
      links.push_back(link);
    } else if (kind < 80) {
      const std::string target = base + sep + pick(trackers);
      links.push_back(
          rng() % 2 ? "https://www.google.com/url?q=" + percentEncodeAll(target) + "&sa=D"
                    : "https://l.facebook.com/l.php?u=" + percentEncodeAll(target) + "&h=AT0abc");
    } else if (kind < 90) {
      std::string link = base + sep + pick(kept);
      for (int k = 0; k < 10; ++k) link += "&" + (k % 3 == 0 ? pick(trackers) : pick(kept));
      links.push_back(link);
    } else {
      links.push_back(base + (base.back() == '/' ? "" : "/") + pick(nonAscii) + "?" + pick(kept) +
                      "&" + pick(trackers) + "&name=" + pick(nonAscii));
    }
  }
  return links;
}

}  // namespace linkwash::bench

namespace linkwash::bench {

std::vector<std::string> benchmarkLinks(std::size_t count) {
  if (const char* path = std::getenv("LINKWASH_BENCH_CORPUS"); path != nullptr && *path != '\0') {
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> links;
    for (std::string line; std::getline(in, line);) links.push_back(std::move(line));
    if (!links.empty()) return links;
  }
  return makeLinkMix(count);
}

}  // namespace linkwash::bench
