// URLComponents: a tolerant RFC 3986 splitter for links as people paste them.
//
// Parsing never normalises: every component keeps its bytes exactly as written, and the text
// recomposed from untouched components is the text that was parsed. Changing one component
// re-encodes only that one. Example:
//
//   auto c = URLComponents::parse("https://Example.com/a?utm_source=x&id=1#top");
//   c->host();                      // "Example.com" (as written; callers lower-case)
//   auto items = c->queryItems();   // {utm_source=x, id=1}
//   items->erase(items->begin());
//   c->setQueryItems(*items);
//   c->string();                    // "https://Example.com/a?id=1#top"
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace linkwash {

struct URLQueryItem {
  std::string name;                  // percent-decoded
  std::optional<std::string> value;  // percent-decoded; absent when the item has no "="
  bool operator==(const URLQueryItem&) const = default;
};

class URLComponents {
 public:
  // Parses `text`; nothing when it is not a URL: a space or control character anywhere, a "\"
  // or a stray bracket in the authority, a port that is not digits (or does not fit 32 bits), or
  // a broken IP literal. Everything else is accepted and kept as written, including bytes above
  // 0x7F, "|", "{", a stray "%" and a second "#". Text without a valid scheme is a relative
  // reference ("example.com/a" is a path).
  static std::optional<URLComponents> parse(std::string_view text);

  const std::optional<std::string>& scheme() const { return scheme_; }
  // Raw (still percent-encoded) components, exactly as written.
  const std::optional<std::string>& percentEncodedUser() const { return user_; }
  const std::optional<std::string>& percentEncodedPassword() const { return password_; }
  const std::optional<std::string>& percentEncodedHost() const { return host_; }
  const std::string& percentEncodedPath() const { return path_; }
  const std::optional<std::string>& percentEncodedQuery() const { return query_; }
  const std::optional<std::string>& percentEncodedFragment() const { return fragment_; }

  // Decoded host (percent-escapes decoded, case kept, IP literals keep their brackets); nothing
  // when there is no authority or the escapes do not decode. user(), password() and fragment()
  // decode the same way: nothing when absent or when they do not decode.
  std::optional<std::string> host() const;
  std::optional<std::string> user() const;
  std::optional<std::string> password() const;
  // The port number; nothing when absent or written empty ("https://a.com:/x").
  std::optional<std::uint32_t> port() const { return port_; }
  // The port exactly as written: "" for "https://a.com:/x", "0080" for ":0080"; nothing
  // without a port colon. After setPort it is the number's text.
  const std::optional<std::string>& portText() const { return portText_; }
  // Decoded path; the raw path when it does not decode.
  std::string path() const;
  std::optional<std::string> fragment() const;

  // Query items as the original platform splits them: none without "?", empty list for a bare
  // "?", otherwise split at every "&" (empty pieces kept) and at the first "=".
  std::optional<std::vector<URLQueryItem>> queryItems() const;

  // Every setter counts as a change (see string()). The decoded setters escape as upper-case %XX
  // every byte that is not unreserved or a sub-delimiter (the fragment also keeps : @ / ?); a
  // host in brackets is kept as it is.
  void setScheme(std::optional<std::string> scheme);
  void setUser(std::optional<std::string> decodedUser);          // nothing removes user info
  void setPassword(std::optional<std::string> decodedPassword);  // nothing removes it
  void setHost(std::optional<std::string> decodedHost);
  void setPercentEncodedHost(std::optional<std::string> host);
  void setPort(std::optional<std::uint32_t> port);
  void setPercentEncodedPath(std::string path);
  // Writes the items with the platform's query encoder; nothing removes the query and its "?".
  void setQueryItems(const std::optional<std::vector<URLQueryItem>>& items);
  void setPercentEncodedQuery(std::optional<std::string> query);
  void setPercentEncodedFragment(std::optional<std::string> fragment);
  void setFragment(std::optional<std::string> decodedFragment);

  // The recomposed text. Untouched components keep their bytes: string() of a parsed, unchanged
  // value is the parsed text. Once any setter has run, the port is written as a number and an
  // empty port is dropped. Nothing when the parts cannot form a URL that parses back to them:
  // a path not starting with "/" after an authority, a path starting with "//" without one, a
  // first path segment that would read as a scheme, a delimiter that belongs to another
  // component (":" in a user, "#" in a query, ...), a space or control character, a bad scheme.
  std::optional<std::string> string() const;

 private:
  bool parseAuthority(std::string_view authority);
  bool hasAuthority() const;
  bool formsUrl() const;

  std::optional<std::string> scheme_;
  std::optional<std::string> user_;
  std::optional<std::string> password_;
  std::optional<std::string> host_;  // present exactly when the text has an authority ("//")
  std::optional<std::uint32_t> port_;
  std::optional<std::string> portText_;  // the port exactly as written, "" for "a.com:"
  std::string path_;
  std::optional<std::string> query_;
  std::optional<std::string> fragment_;
  bool changed_ = false;  // a setter ran: recompose with the port as a number
};

// Percent-decoding as the platform does it: nothing when a "%" is not followed by two hex
// digits or when the decoded bytes are not valid UTF-8. "+" is left alone.
std::optional<std::string> percentDecode(std::string_view text);

// Encodes one query-item name or value for `setQueryItems`: bytes that are unreserved or one of
// ! $ ' ( ) * + , ; : @ / ? stay, every other byte becomes upper-case %XX.
std::string percentEncodeQueryComponent(std::string_view text);

}  // namespace linkwash
