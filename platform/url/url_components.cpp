// URLComponents: one scan of the text splits it into components that are copied out as written;
// only a component a caller sets is re-encoded, so untouched links come back byte for byte.
#include "platform/url/url_components.h"

#include <array>
#include <limits>

#include "base/strings.h"

namespace linkwash {
namespace {

// Byte classes, one table so every scan is a lookup.
enum : std::uint16_t {
  kUnreserved = 1 << 0,     // ALPHA DIGIT - . _ ~
  kSubDelim = 1 << 1,       // ! $ & ' ( ) * + , ; =
  kSchemeChar = 1 << 2,     // ALPHA DIGIT + - .
  kQueryKeep = 1 << 3,      // unreserved ! $ ' ( ) * + , ; : @ / ?  (no & = #)
  kHexDigit = 1 << 4,       //
  kRejected = 1 << 5,       // space, C0 controls, DEL: never part of a URL
  kColonAt = 1 << 6,        // : @
  kSlashQuestion = 1 << 7,  // / ?
  kAuthorityEnd = 1 << 8,   // / ? #
  kPathEnd = 1 << 9,        // ? #
};

constexpr std::array<std::uint16_t, 256> makeClasses() {
  std::array<std::uint16_t, 256> t{};
  auto mark = [&t](std::string_view chars, std::uint16_t bits) {
    for (char c : chars) t[static_cast<unsigned char>(c)] |= bits;
  };
  for (int c = 0; c < 256; ++c) {
    const bool alpha = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    const bool digit = c >= '0' && c <= '9';
    if (alpha || digit) t[c] |= kUnreserved | kSchemeChar | kQueryKeep;
    if (digit || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f')) t[c] |= kHexDigit;
    if (c <= 0x20 || c == 0x7F) t[c] |= kRejected;
  }
  mark("-._~", kUnreserved | kQueryKeep);
  mark("!$&'()*+,;=", kSubDelim);
  mark("+-.", kSchemeChar);
  mark("!$'()*+,;:@/?", kQueryKeep);
  mark(":@", kColonAt);
  mark("/?", kSlashQuestion);
  mark("/?#", kAuthorityEnd);
  mark("?#", kPathEnd);
  return t;
}

constexpr std::array<std::uint16_t, 256> kClasses = makeClasses();

constexpr bool is(char c, std::uint16_t bits) {
  return (kClasses[static_cast<unsigned char>(c)] & bits) != 0;
}

constexpr bool isAlpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;  // callers checked kHexDigit
}

// Index of the first byte at or after `from` in `bits`, or the size.
std::size_t findClass(std::string_view text, std::size_t from, std::uint16_t bits) {
  while (from < text.size() && !is(text[from], bits)) ++from;
  return from;
}

bool containsAny(std::string_view text, std::string_view chars) {
  return text.find_first_of(chars) != std::string_view::npos;
}

bool containsRejected(std::string_view text) {
  for (char c : text) {
    if (is(c, kRejected)) return true;
  }
  return false;
}

bool isScheme(std::string_view text) {
  if (text.empty() || !isAlpha(text[0])) return false;
  for (char c : text) {
    if (!is(c, kSchemeChar)) return false;
  }
  return true;
}

void appendEncoded(std::string& out, std::string_view text, std::uint16_t keep) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (char c : text) {
    if (is(c, keep)) {
      out.push_back(c);
    } else {
      const auto b = static_cast<unsigned char>(c);
      out.push_back('%');
      out.push_back(kHex[b >> 4]);
      out.push_back(kHex[b & 0xF]);
    }
  }
}

std::string encoded(std::string_view text, std::uint16_t keep) {
  std::string out;
  out.reserve(text.size());
  appendEncoded(out, text, keep);
  return out;
}

std::optional<std::string> decodeOptional(const std::optional<std::string>& raw) {
  if (!raw) return std::nullopt;
  return percentDecode(*raw);
}

// The decoded text, or the text as written when it does not decode (query items keep what
// they cannot decode rather than losing it).
std::string decodedOrRaw(std::string_view text) {
  if (text.find('%') == std::string_view::npos) return std::string(text);
  auto decoded = percentDecode(text);
  return decoded ? std::move(*decoded) : std::string(text);
}

// dec-octet "." dec-octet "." dec-octet "." dec-octet, without leading zeros.
bool isIPv4(std::string_view s) {
  int octets = 0;
  std::size_t i = 0;
  while (true) {
    const std::size_t start = i;
    int value = 0;
    while (i < s.size() && isDigit(s[i]) && i - start < 3) value = value * 10 + (s[i++] - '0');
    const std::size_t len = i - start;
    if (len == 0 || value > 255 || (len > 1 && s[start] == '0')) return false;
    if (++octets == 4) return i == s.size();
    if (i >= s.size() || s[i] != '.') return false;
    ++i;
  }
}

// RFC 3986 IPv6address: eight 16-bit groups, one "::" standing for at least one of them, the
// last two optionally written as an IPv4 address.
bool isIPv6(std::string_view s) {
  int groups = 0;
  bool elided = false;
  std::size_t i = 0;
  if (s.substr(0, 2) == "::") {
    elided = true;
    i = 2;
  } else if (s.empty() || s[0] == ':') {
    return false;
  }
  while (i < s.size()) {
    std::size_t end = i;
    while (end < s.size() && s[end] != ':') ++end;
    const std::string_view piece = s.substr(i, end - i);
    if (piece.find('.') != std::string_view::npos) {
      if (end != s.size() || !isIPv4(piece)) return false;
      groups += 2;
      break;
    }
    if (piece.empty() || piece.size() > 4) return false;
    for (char c : piece) {
      if (!is(c, kHexDigit)) return false;
    }
    ++groups;
    if (end == s.size()) break;
    if (end + 1 < s.size() && s[end + 1] == ':') {
      if (elided) return false;
      elided = true;
      i = end + 2;
    } else {
      i = end + 1;
      if (i == s.size()) return false;  // a trailing single ":"
    }
  }
  return elided ? groups <= 7 : groups == 8;
}

// "v" HEXDIG+ "." ( unreserved / sub-delims / ":" )+
bool isIPvFuture(std::string_view s) {
  if (s.size() < 4 || (s[0] != 'v' && s[0] != 'V')) return false;
  std::size_t i = 1;
  while (i < s.size() && is(s[i], kHexDigit)) ++i;
  if (i == 1 || i >= s.size() - 1 || s[i] != '.') return false;
  for (++i; i < s.size(); ++i) {
    if (!is(s[i], kUnreserved | kSubDelim) && s[i] != ':') return false;
  }
  return true;
}

// The text between the brackets: an IPv6 address, optionally with a zone ("%25" then
// unreserved or escaped bytes), or an IPvFuture.
bool isIpLiteralContent(std::string_view s) {
  if (isIPvFuture(s)) return true;
  const std::size_t zone = s.find('%');
  if (zone == std::string_view::npos) return isIPv6(s);
  const std::string_view id = s.substr(zone);
  if (id.size() <= 3 || id.substr(0, 3) != "%25") return false;
  for (std::size_t i = 3; i < id.size(); ++i) {
    if (id[i] == '%') {
      if (i + 2 >= id.size() || !is(id[i + 1], kHexDigit) || !is(id[i + 2], kHexDigit)) {
        return false;
      }
      i += 2;
    } else if (!is(id[i], kUnreserved)) {
      return false;
    }
  }
  return isIPv6(s.substr(0, zone));
}

bool isIpLiteral(std::string_view host) {
  return host.size() >= 2 && host.front() == '[' && host.back() == ']' &&
         isIpLiteralContent(host.substr(1, host.size() - 2));
}

}  // namespace

std::optional<std::string> percentDecode(std::string_view text) {
  std::size_t i = text.find('%');
  if (i == std::string_view::npos) {
    if (!isValidUtf8(text)) return std::nullopt;
    return std::string(text);
  }
  std::string out;
  out.reserve(text.size());
  out.append(text.substr(0, i));
  for (; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size() || !is(text[i + 1], kHexDigit) || !is(text[i + 2], kHexDigit)) {
      return std::nullopt;
    }
    out.push_back(static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2])));
    i += 2;
  }
  if (!isValidUtf8(out)) return std::nullopt;
  return out;
}

std::string percentEncodeQueryComponent(std::string_view text) { return encoded(text, kQueryKeep); }

std::optional<URLComponents> URLComponents::parse(std::string_view text) {
  for (char c : text) {
    if (is(c, kRejected)) return std::nullopt;
  }
  URLComponents url;
  std::size_t pos = 0;
  if (!text.empty() && isAlpha(text[0])) {
    std::size_t i = 1;
    while (i < text.size() && is(text[i], kSchemeChar)) ++i;
    if (i < text.size() && text[i] == ':') {
      url.scheme_.emplace(text.substr(0, i));
      pos = i + 1;
    }
  }
  if (text.substr(pos, 2) == "//") {
    const std::size_t end = findClass(text, pos + 2, kAuthorityEnd);
    if (!url.parseAuthority(text.substr(pos + 2, end - pos - 2))) return std::nullopt;
    pos = end;
  }
  const std::size_t pathEnd = findClass(text, pos, kPathEnd);
  url.path_.assign(text.substr(pos, pathEnd - pos));
  pos = pathEnd;
  if (pos < text.size() && text[pos] == '?') {
    std::size_t queryEnd = text.find('#', pos + 1);
    if (queryEnd == std::string_view::npos) queryEnd = text.size();
    url.query_.emplace(text.substr(pos + 1, queryEnd - pos - 1));
    pos = queryEnd;
  }
  // Everything after the first "#" is the fragment, a second "#" included.
  if (pos < text.size()) url.fragment_.emplace(text.substr(pos + 1));
  return url;
}

bool URLComponents::parseAuthority(std::string_view authority) {
  if (authority.find('\\') != std::string_view::npos) return false;
  std::string_view hostPort = authority;
  if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) {
    const std::string_view info = authority.substr(0, at);
    if (containsAny(info, "[]")) return false;
    const std::size_t colon = info.find(':');
    user_.emplace(info.substr(0, colon));
    if (colon != std::string_view::npos) password_.emplace(info.substr(colon + 1));
    hostPort = authority.substr(at + 1);
  }
  std::size_t hostEnd = 0;
  if (!hostPort.empty() && hostPort[0] == '[') {
    const std::size_t close = hostPort.find(']');
    if (close == std::string_view::npos || !isIpLiteralContent(hostPort.substr(1, close - 1))) {
      return false;
    }
    hostEnd = close + 1;
    if (hostEnd < hostPort.size() && hostPort[hostEnd] != ':') return false;
  } else {
    hostEnd = std::min(hostPort.find(':'), hostPort.size());
    if (containsAny(hostPort.substr(0, hostEnd), "[]")) return false;
  }
  if (hostEnd < hostPort.size()) {
    const std::string_view text = hostPort.substr(hostEnd + 1);
    std::uint64_t value = 0;
    for (char c : text) {
      if (!isDigit(c)) return false;
      value = value * 10 + static_cast<std::uint64_t>(c - '0');
      if (value > std::numeric_limits<std::uint32_t>::max()) return false;
    }
    portText_.emplace(text);
    if (!text.empty()) port_ = static_cast<std::uint32_t>(value);
  }
  host_.emplace(hostPort.substr(0, hostEnd));
  return true;
}

std::optional<std::string> URLComponents::host() const { return decodeOptional(host_); }
std::optional<std::string> URLComponents::user() const { return decodeOptional(user_); }
std::optional<std::string> URLComponents::password() const { return decodeOptional(password_); }
std::optional<std::string> URLComponents::fragment() const { return decodeOptional(fragment_); }

std::string URLComponents::path() const {
  auto decoded = percentDecode(path_);
  return decoded ? std::move(*decoded) : path_;
}

std::optional<std::vector<URLQueryItem>> URLComponents::queryItems() const {
  if (!query_) return std::nullopt;
  std::vector<URLQueryItem> items;
  if (query_->empty()) return items;
  const std::string_view query = *query_;
  std::size_t start = 0;
  while (true) {
    std::size_t end = query.find('&', start);
    if (end == std::string_view::npos) end = query.size();
    const std::string_view piece = query.substr(start, end - start);
    const std::size_t eq = piece.find('=');
    URLQueryItem& item = items.emplace_back();
    item.name = decodedOrRaw(piece.substr(0, eq));
    if (eq != std::string_view::npos) item.value = decodedOrRaw(piece.substr(eq + 1));
    if (end == query.size()) return items;
    start = end + 1;
  }
}

void URLComponents::setScheme(std::optional<std::string> scheme) {
  scheme_ = std::move(scheme);
  changed_ = true;
}

void URLComponents::setUser(std::optional<std::string> decodedUser) {
  user_.reset();
  if (decodedUser) user_ = encoded(*decodedUser, kUnreserved | kSubDelim);
  changed_ = true;
}

void URLComponents::setPassword(std::optional<std::string> decodedPassword) {
  password_.reset();
  if (decodedPassword) password_ = encoded(*decodedPassword, kUnreserved | kSubDelim);
  changed_ = true;
}

void URLComponents::setHost(std::optional<std::string> decodedHost) {
  // An IP literal has nothing to escape, and escaping its ":" would make it a name.
  if (decodedHost && !isIpLiteral(*decodedHost)) {
    decodedHost = encoded(*decodedHost, kUnreserved | kSubDelim);
  }
  setPercentEncodedHost(std::move(decodedHost));
}

void URLComponents::setPercentEncodedHost(std::optional<std::string> host) {
  host_ = std::move(host);
  changed_ = true;
}

void URLComponents::setPort(std::optional<std::uint32_t> port) {
  port_ = port;
  portText_.reset();
  if (port) portText_ = std::to_string(*port);
  changed_ = true;
}

void URLComponents::setPercentEncodedPath(std::string path) {
  path_ = std::move(path);
  changed_ = true;
}

void URLComponents::setQueryItems(const std::optional<std::vector<URLQueryItem>>& items) {
  changed_ = true;
  if (!items) {
    query_.reset();
    return;
  }
  std::string query;
  std::size_t size = 0;
  for (const URLQueryItem& item : *items) {
    size += item.name.size() + (item.value ? item.value->size() + 1 : 0) + 1;
  }
  query.reserve(size + size / 4);
  for (const URLQueryItem& item : *items) {
    if (&item != &items->front()) query.push_back('&');
    appendEncoded(query, item.name, kQueryKeep);
    if (item.value) {
      query.push_back('=');
      appendEncoded(query, *item.value, kQueryKeep);
    }
  }
  query_ = std::move(query);
}

void URLComponents::setPercentEncodedQuery(std::optional<std::string> query) {
  query_ = std::move(query);
  changed_ = true;
}

void URLComponents::setPercentEncodedFragment(std::optional<std::string> fragment) {
  fragment_ = std::move(fragment);
  changed_ = true;
}

void URLComponents::setFragment(std::optional<std::string> decodedFragment) {
  fragment_.reset();
  if (decodedFragment) {
    fragment_ = encoded(*decodedFragment, kUnreserved | kSubDelim | kColonAt | kSlashQuestion);
  }
  changed_ = true;
}

bool URLComponents::hasAuthority() const {
  // A parsed value has a host exactly when it has an authority; a changed one also needs "//"
  // for a user, password or port whose host was removed.
  return host_ || (changed_ && (user_ || password_ || port_));
}

// Whether the components, recomposed, parse back into the same components. Parsed components
// always do; this guards what the raw setters let in.
bool URLComponents::formsUrl() const {
  if (scheme_ && !isScheme(*scheme_)) return false;
  for (const auto* part : {&user_, &password_, &host_, &query_, &fragment_}) {
    if (*part && containsRejected(**part)) return false;
  }
  if (containsRejected(path_)) return false;
  // The last "@" ends the user info, so "@" may stay in a user or password.
  if (user_ && containsAny(*user_, ":/?#[]\\")) return false;
  if (password_ && containsAny(*password_, "/?#[]\\")) return false;
  if (host_ && !host_->empty() && host_->front() == '[') {
    if (!isIpLiteral(*host_)) return false;
  } else if (host_ && containsAny(*host_, ":@/?#[]\\")) {
    return false;
  }
  if (containsAny(path_, "?#")) return false;
  if (query_ && query_->find('#') != std::string::npos) return false;
  if (hasAuthority()) return path_.empty() || path_.front() == '/';
  if (path_.starts_with("//")) return false;
  if (!scheme_) {
    // "a:b" without a scheme would read back as scheme "a".
    const std::size_t colon = path_.find(':');
    if (colon != std::string::npos && colon < path_.find('/') &&
        isScheme(std::string_view(path_).substr(0, colon))) {
      return false;
    }
  }
  return true;
}

std::optional<std::string> URLComponents::string() const {
  if (changed_ && !formsUrl()) return std::nullopt;
  std::string out;
  out.reserve((scheme_ ? scheme_->size() + 1 : 0) + (user_ ? user_->size() + 1 : 0) +
              (password_ ? password_->size() + 1 : 0) + (host_ ? host_->size() + 2 : 0) +
              (portText_ ? portText_->size() + 1 : 0) + path_.size() +
              (query_ ? query_->size() + 1 : 0) + (fragment_ ? fragment_->size() + 1 : 0));
  if (scheme_) {
    out += *scheme_;
    out += ':';
  }
  if (hasAuthority()) {
    out += "//";
    if (user_ || password_) {
      if (user_) out += *user_;
      if (password_) {
        out += ':';
        out += *password_;
      }
      out += '@';
    }
    if (host_) out += *host_;
    if (!changed_ && portText_) {
      out += ':';
      out += *portText_;
    } else if (changed_ && port_) {
      out += ':';
      out += std::to_string(*port_);
    }
  }
  out += path_;
  if (query_) {
    out += '?';
    out += *query_;
  }
  if (fragment_) {
    out += '#';
    out += *fragment_;
  }
  return out;
}

}  // namespace linkwash
