// Tests for the JSON writer's exact bytes (escapes, numbers, key order, pretty layout) and for
// non-throwing parsing.
#include "platform/json/json_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace linkwash {
namespace {

TEST(JsonWriterTest, EscapesStringsLikeTheOriginalEncoder) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain", R"("plain")"},
      {"q\"b\\s", R"("q\"b\\s")"},
      {"\b\f\n\r\t", R"("\b\f\n\r\t")"},
      {std::string("\x00\x01\x1f", 3), R"("\u0000\u0001\u001f")"},
      {"\x0b\x1b", R"("\u000b\u001b")"},
      {"del\x7f", "\"del\x7f\""},
      {"é€😀", "\"é€😀\""},
      {"line\xE2\x80\xA8sep", "\"line\xE2\x80\xA8sep\""},
      {"https://a/b", R"("https:\/\/a\/b")"},
      {"bad\xFFutf8", "\"bad\xFFutf8\""},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(writeJson(Json(text)), expected) << expected;
  }
  EXPECT_EQ(writeJson(Json("a/b"), {.escapeSlashes = false}), R"("a/b")");
  // Keys follow the same rules.
  EXPECT_EQ(writeJson(Json::parse(R"({"a/\n":1})")), R"({"a\/\n":1})");
}

TEST(JsonWriterTest, WritesNumbersInTheirShortestForm) {
  auto expectWritten = [](double value, const std::string& expected) {
    EXPECT_EQ(formatDouble(value), expected);
    EXPECT_EQ(writeJson(Json(value)), expected);
  };
  const std::vector<std::pair<double, std::string>> doubles = {
      {1.0, "1"},         {100.0, "100"},       {-2.5, "-2.5"},        {0.1, "0.1"},
      {0.0001, "0.0001"}, {0.00012, "0.00012"}, {0.00001, "1e-05"},    {1.25e-7, "1.25e-07"},
      {1e16, "1e+16"},    {-1e16, "-1e+16"},    {1.5e300, "1.5e+300"}, {5e-324, "5e-324"},
      {0.0, "0"},         {-0.0, "-0"},
  };
  for (const auto& [value, expected] : doubles) expectWritten(value, expected);
  expectWritten(123456.789, "123456.789");
  expectWritten(1e15, "1000000000000000");
  expectWritten(9007199254740992.0, "9007199254740992");  // 2^53, the last plain one
  expectWritten(9007199254740994.0, "9.007199254740994e+15");
  expectWritten(std::numeric_limits<double>::max(), "1.7976931348623157e+308");
  EXPECT_EQ(writeJson(Json(std::numeric_limits<std::int64_t>::min())), "-9223372036854775808");
  EXPECT_EQ(writeJson(Json(std::numeric_limits<std::uint64_t>::max())), "18446744073709551615");
  EXPECT_EQ(writeJson(Json(0)), "0");
  EXPECT_EQ(writeJson(Json(std::numeric_limits<double>::quiet_NaN())), "null");
  EXPECT_EQ(writeJson(Json::parse("[true,false,null]")), "[true,false,null]");
}

TEST(JsonWriterTest, FormattedDoublesReadBackExactly) {
  std::mt19937_64 random(20260314);
  for (int i = 0; i < 20000; ++i) {
    // Any bit pattern, or a decimal with three places.
    double value = static_cast<double>(random() % 100000000) / 1000.0;
    if (i % 2 == 0) {
      const std::uint64_t raw = random();
      std::memcpy(&value, &raw, sizeof value);
      if (!std::isfinite(value)) continue;
    }
    const std::string text = formatDouble(value);
    ASSERT_EQ(std::strtod(text.c_str(), nullptr), value) << text;
    ASSERT_FALSE(text.ends_with(".0")) << text;
  }
}

TEST(JsonWriterTest, SortsKeysByBytesAtEveryLevel) {
  const auto value = *parseJson(R"({"b":1,"a":{"z":[{"y":1,"x":2}],"B":0},"é":3,"Z":4})");
  EXPECT_EQ(writeJson(value), R"({"b":1,"a":{"z":[{"y":1,"x":2}],"B":0},"é":3,"Z":4})");
  EXPECT_EQ(writeJson(value, {.sortedKeys = true}),
            R"({"Z":4,"a":{"B":0,"z":[{"x":2,"y":1}]},"b":1,"é":3})");
}

TEST(JsonWriterTest, PrettyLayout) {
  EXPECT_EQ(
      writeJson(*parseJson(R"({"n":"x/y","l":[1,[],{}],"o":{"k":[true]}})"), {.pretty = true}),
      "{\n"
      "  \"n\" : \"x\\/y\",\n"
      "  \"l\" : [\n"
      "    1,\n"
      "    [\n\n    ],\n"
      "    {\n\n    }\n"
      "  ],\n"
      "  \"o\" : {\n"
      "    \"k\" : [\n"
      "      true\n"
      "    ]\n"
      "  }\n"
      "}");
  EXPECT_EQ(writeJson(Json::array(), {.pretty = true}), "[\n\n]");
  EXPECT_EQ(writeJson(Json::object(), {.pretty = true}), "{\n\n}");
  EXPECT_EQ(writeJson(Json(7), {.pretty = true}), "7");
  EXPECT_EQ(writeJson(*parseJson(R"({"b":[],"a":1})"), {.sortedKeys = true, .pretty = true}),
            "{\n  \"a\" : 1,\n  \"b\" : [\n\n  ]\n}");
}

TEST(JsonWriterTest, CanonicalFormRoundTrips) {
  const std::string canonical =
      R"({"a":[1,2.5,-3,1e-05,"x/y"],"b":{"c":null,"d":false},"e":"\u0001é"})";
  const auto parsed = parseJson(canonical);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(canonicalJson(*parsed), canonical);

  // Anything not already canonical comes back different, which is how callers detect it.
  for (const char* loose : {R"({"b":1,"a":2})", R"({"a": 1})", R"({"a":"x\/y"})", R"({"a":1.0})",
                            R"({"a":"\u00e9"})", R"({"a":1,"a":2})"}) {
    const auto value = parseJson(loose);
    ASSERT_TRUE(value) << loose;
    EXPECT_NE(canonicalJson(*value), loose);
    EXPECT_EQ(canonicalJson(*parseJson(canonicalJson(*value))), canonicalJson(*value)) << loose;
  }
  // Duplicate keys keep the last value.
  EXPECT_EQ(canonicalJson(*parseJson(R"({"a":1,"a":2})")), R"({"a":2})");
}

TEST(JsonWriterTest, LargeObjectsKeepOrderAndTheLastOfRepeatedKeys) {
  // Past a few dozen members objects are indexed; a repeated key must still keep its first
  // place and its last value, in small and large objects and at every depth.
  std::string text = "{";
  for (int i = 0; i < 1000; ++i)
    text += "\"k" + std::to_string(999 - i) + "\":" + std::to_string(i) + ",";
  text += R"("k5":"last","k998":{"n":{"x":1,"x":[2]}}})";
  const auto parsed = parseJson(text);
  ASSERT_TRUE(parsed);
  ASSERT_EQ(parsed->size(), 1000u);
  EXPECT_EQ(parsed->begin().key(), "k999");
  EXPECT_EQ((*parsed)["k5"], "last");
  EXPECT_EQ(std::next(parsed->begin(), 994).key(), "k5");
  EXPECT_EQ(writeJson((*parsed)["k998"]), R"({"n":{"x":[2]}})");
  EXPECT_EQ((*parsed)["k0"], 999);
}

TEST(JsonWriterTest, ParseFailuresAreValues) {
  for (const char* bad : {"", " ", "{", "[1,]", "{'a':1}", "nul", "1 2", "/*c*/1", R"("\x")",
                          "[1]]", "\"unterminated", "{\"a\" 1}", "NaN", "01"}) {
    EXPECT_FALSE(parseJson(bad)) << bad;
  }
  EXPECT_FALSE(parseJson(std::string(100000, '[') + std::string(100000, ']')));
  EXPECT_TRUE(parseJson(std::string(100, '[') + std::string(100, ']')));
  // Brackets inside strings do not count as nesting.
  EXPECT_TRUE(parseJson("[\"" + std::string(1000, '[') + "\\\"\"]"));
  EXPECT_EQ(parseJson(" 42 "), Json(42));
}

}  // namespace
}  // namespace linkwash
