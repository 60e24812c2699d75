// The JSON writer: reproduces the original encoder's bytes exactly, since signatures and stored
// records are compared byte for byte.
#include "platform/json/json_writer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace linkwash {
namespace {

// Deeper documents are refused when parsing: no record comes close, and the writer recurses.
constexpr std::size_t kMaxParseDepth = 512;

bool nestsTooDeep(std::string_view text) {
  std::size_t depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxParseDepth) {
        return true;
      }
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return false;
}

void writeString(std::string& out, std::string_view text, bool escapeSlashes) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  std::size_t runStart = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const char* escape = nullptr;
    switch (byte) {
      case '"':
        escape = "\\\"";
        break;
      case '\\':
        escape = "\\\\";
        break;
      case '\b':
        escape = "\\b";
        break;
      case '\f':
        escape = "\\f";
        break;
      case '\n':
        escape = "\\n";
        break;
      case '\r':
        escape = "\\r";
        break;
      case '\t':
        escape = "\\t";
        break;
      case '/':
        if (escapeSlashes) {
          escape = "\\/";
        }
        break;
      default:
        break;
    }
    if (escape == nullptr && byte >= 0x20) {
      continue;  // DEL and every byte of non-ASCII text go out as they are
    }
    out.append(text, runStart, i - runStart);
    runStart = i + 1;
    if (escape != nullptr) {
      out += escape;
    } else {
      const char unicode[] = {'\\', 'u', '0', '0', kHex[byte >> 4], kHex[byte & 0xF]};
      out.append(unicode, sizeof unicode);
    }
  }
  out.append(text, runStart, text.size() - runStart);
  out += '"';
}

template <typename Integer>
void writeInteger(std::string& out, Integer value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

void writeIndent(std::string& out, std::size_t level) { out.append(level * 2, ' '); }

class Writer {
 public:
  Writer(std::string& out, const JsonWriteOptions& options) : out_(out), options_(options) {}

  void write(const Json& value, std::size_t level) {
    switch (value.type()) {
      case Json::value_t::object:
        writeObject(value, level);
        break;
      case Json::value_t::array:
        writeArray(value, level);
        break;
      case Json::value_t::string:
        writeString(out_, value.get_ref<const Json::string_t&>(), options_.escapeSlashes);
        break;
      case Json::value_t::boolean:
        out_ += value.get<bool>() ? "true" : "false";
        break;
      case Json::value_t::number_integer:
        writeInteger(out_, value.get<std::int64_t>());
        break;
      case Json::value_t::number_unsigned:
        writeInteger(out_, value.get<std::uint64_t>());
        break;
      case Json::value_t::number_float: {
        const double number = value.get<double>();
        // JSON has no spelling for these; callers never store them.
        out_ += std::isfinite(number) ? formatDouble(number) : "null";
        break;
      }
      case Json::value_t::null:
      case Json::value_t::binary:
      case Json::value_t::discarded:
        out_ += "null";
        break;
    }
  }

 private:
  // Opens a container; in pretty form the members follow on their own lines, and an empty
  // container still gets its blank line: "[\n\n]".
  void open(char bracket) {
    out_ += bracket;
    if (options_.pretty) {
      out_ += '\n';
    }
  }

  void close(char bracket, std::size_t level) {
    if (options_.pretty) {
      out_ += '\n';
      writeIndent(out_, level);
    }
    out_ += bracket;
  }

  void separate(bool first, std::size_t level) {
    if (!first) {
      out_ += options_.pretty ? ",\n" : ",";
    }
    if (options_.pretty) {
      writeIndent(out_, level);
    }
  }

  void writeMember(const std::string& key, const Json& member, bool first, std::size_t level) {
    separate(first, level + 1);
    writeString(out_, key, options_.escapeSlashes);
    out_ += options_.pretty ? " : " : ":";
    write(member, level + 1);
  }

  void writeObject(const Json& object, std::size_t level) {
    open('{');
    bool first = true;
    if (options_.sortedKeys) {
      std::vector<Json::const_iterator> members;
      members.reserve(object.size());
      for (auto it = object.cbegin(); it != object.cend(); ++it) {
        members.push_back(it);
      }
      // std::string compares as unsigned bytes, which is code point order for UTF-8.
      std::sort(members.begin(), members.end(),
                [](const auto& a, const auto& b) { return a.key() < b.key(); });
      for (const auto& it : members) {
        writeMember(it.key(), it.value(), first, level);
        first = false;
      }
    } else {
      for (auto it = object.cbegin(); it != object.cend(); ++it) {
        writeMember(it.key(), it.value(), first, level);
        first = false;
      }
    }
    close('}', level);
  }

  void writeArray(const Json& array, std::size_t level) {
    open('[');
    bool first = true;
    for (const Json& item : array) {
      separate(first, level + 1);
      write(item, level + 1);
      first = false;
    }
    close(']', level);
  }

  std::string& out_;
  const JsonWriteOptions& options_;
};

// Builds the tree from parser events. nlohmann's own builder inserts each member with a linear
// search of its object for the key, which makes an object of n members cost n^2 (a 1 MiB message
// of 100,000 keys took seconds). Here a large object keeps a hash index of its members, so
// decoding stays linear; the members keep the writer's order and a repeated key keeps its first
// place and its last value, as before.
class TreeBuilder {
 public:
  using Object = Json::object_t;
  using Members = Object::Container;

  bool null() { return place(Json(nullptr)); }
  bool boolean(bool value) { return place(Json(value)); }
  bool number_integer(Json::number_integer_t value) { return place(Json(value)); }
  bool number_unsigned(Json::number_unsigned_t value) { return place(Json(value)); }
  bool number_float(Json::number_float_t value, const Json::string_t& /*text*/) {
    return place(Json(value));
  }
  bool string(Json::string_t& value) { return place(Json(std::move(value))); }
  bool binary(Json::binary_t& /*value*/) { return fail(); }

  bool start_object(std::size_t /*size*/) { return open(Json::object()); }
  bool start_array(std::size_t /*size*/) { return open(Json::array()); }
  bool end_object() { return close(); }
  bool end_array() { return close(); }

  bool key(Json::string_t& name) {
    Frame& frame = stack_.back();
    Members& members = frame.members();
    // Appended without nlohmann's search; the index below finds a repeated key instead.
    members.emplace_back(std::move(name), Json());
    const std::size_t added = members.size() - 1;
    std::size_t existing = added;
    if (frame.index) {
      const auto [it, inserted] = frame.index->insert(added);
      if (!inserted) existing = *it;
    } else {
      for (std::size_t i = 0; i < added; ++i) {
        if (members[i].first == members[added].first) {
          existing = i;
          break;
        }
      }
      if (existing == added && members.size() >= kIndexedObjectSize) frame.buildIndex();
    }
    if (existing != added) members.pop_back();
    pendingValue_ = &members[existing].second;
    return true;
  }

  bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) {
    return fail();
  }

  bool failed() const { return failed_; }
  Json take() { return std::move(root_); }

 private:
  // Below this many members a linear search is cheaper than keeping an index.
  static constexpr std::size_t kIndexedObjectSize = 32;

  struct IndexHash {
    const Members* members;
    std::size_t operator()(std::size_t i) const noexcept {
      return std::hash<std::string_view>{}((*members)[i].first);
    }
  };
  struct IndexEqual {
    const Members* members;
    bool operator()(std::size_t a, std::size_t b) const noexcept {
      return (*members)[a].first == (*members)[b].first;
    }
  };

  struct Frame {
    Json* container;
    std::unique_ptr<std::unordered_set<std::size_t, IndexHash, IndexEqual>> index;

    Members& members() { return *container->get_ptr<Object*>(); }
    void buildIndex() {
      const Members* list = &members();
      index = std::make_unique<std::unordered_set<std::size_t, IndexHash, IndexEqual>>(
          list->size() * 2, IndexHash{list}, IndexEqual{list});
      for (std::size_t i = 0; i < list->size(); ++i) index->insert(i);
    }
  };

  bool fail() {
    failed_ = true;
    return false;
  }

  // Puts a finished value where the parser is: the pending member of an object, the end of an
  // array, or the root. Returns where it went.
  Json* put(Json&& value) {
    if (stack_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    Json& container = *stack_.back().container;
    if (container.is_array()) {
      auto& items = *container.get_ptr<Json::array_t*>();
      items.push_back(std::move(value));
      return &items.back();
    }
    Json* target = std::exchange(pendingValue_, nullptr);
    *target = std::move(value);
    return target;
  }

  bool place(Json&& value) {
    put(std::move(value));
    return true;
  }

  // A container's address stays fixed while it is open: its parent gets nothing new until it
  // closes.
  bool open(Json&& empty) {
    stack_.push_back(Frame{put(std::move(empty)), nullptr});
    return true;
  }

  bool close() {
    stack_.pop_back();
    return true;
  }

  Json root_;
  std::vector<Frame> stack_;
  Json* pendingValue_ = nullptr;
  bool failed_ = false;
};

}  // namespace

std::optional<Json> parseJson(std::string_view text) {
  if (nestsTooDeep(text)) {
    return std::nullopt;
  }
  TreeBuilder builder;
  if (!Json::sax_parse(text.begin(), text.end(), &builder) || builder.failed()) {
    return std::nullopt;
  }
  return builder.take();
}

std::string writeJson(const Json& value, const JsonWriteOptions& options) {
  std::string out;
  Writer(out, options).write(value, 0);
  return out;
}

std::string canonicalJson(const Json& value) {
  return writeJson(value, {.sortedKeys = true, .escapeSlashes = false, .pretty = false});
}

// The shortest digits that read back, laid out as the original encoder did: plain decimal for
// magnitudes from 1e-4 up to 2^53 (the range where doubles usually hold integers or ordinary
// fractions), exponent form outside it, and never a trailing ".0".
std::string formatDouble(double value) {
  if (std::isnan(value)) {
    return "nan";
  }
  if (std::isinf(value)) {
    return value < 0 ? "-inf" : "inf";
  }
  if (value == 0) {
    return std::signbit(value) ? "-0" : "0";
  }

  // "d.ddde±x": to_chars gives the shortest round-trip digits; split them from the exponent.
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, std::fabs(value),
                                    std::chars_format::scientific);
  const std::string_view scientific(buffer, static_cast<std::size_t>(result.ptr - buffer));
  const std::size_t e = scientific.find('e');
  std::string digits;
  for (const char c : scientific.substr(0, e)) {
    if (c != '.') {
      digits += c;
    }
  }
  int exponent = 0;
  const std::string_view exponentText = scientific.substr(e + 1);
  std::from_chars(exponentText.data() + (exponentText.front() == '+' ? 1 : 0),
                  exponentText.data() + exponentText.size(), exponent);

  std::string out = value < 0 ? "-" : "";
  if (exponent < -4 || std::fabs(value) > 0x1.0p53) {
    out += digits[0];
    if (digits.size() > 1) {
      out += '.';
      out.append(digits, 1);
    }
    out += exponent < 0 ? "e-" : "e+";
    const int magnitude = std::abs(exponent);
    if (magnitude < 10) {
      out += '0';
    }
    out += std::to_string(magnitude);
    return out;
  }

  // Decimal point after `point` digits (zero or negative: leading zeros after "0.").
  const int point = exponent + 1;
  const auto count = static_cast<int>(digits.size());
  if (point <= 0) {
    out += "0.";
    out.append(static_cast<std::size_t>(-point), '0');
    out += digits;
  } else if (point >= count) {
    out += digits;
    out.append(static_cast<std::size_t>(point - count), '0');
  } else {
    out.append(digits, 0, static_cast<std::size_t>(point));
    out += '.';
    out.append(digits, static_cast<std::size_t>(point));
  }
  return out;
}

}  // namespace linkwash
