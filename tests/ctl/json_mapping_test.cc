#include "json/json_mapping.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "channel/standard_codec.h"

namespace corvane::json {
namespace {

using channel::Bytes;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;

constexpr double kInf = std::numeric_limits<double>::infinity();

Value Parse(std::string_view text) {
  ParsedJson parsed = ParseJsonValue(text);
  EXPECT_TRUE(parsed.value.has_value()) << text << ": " << parsed.error;
  return parsed.value.value_or(Value("<parse failed>"));
}

// Each value prints in its one shortest form, and that reads back as exactly the value, type
// included.
TEST(JsonMapping, ValuesPrintShortestAndReadBackExactly) {
  const std::pair<Value, std::string_view> cases[] = {
      {Value(), "null"},
      {Value(true), "true"},
      {Value("\xf0\x9f\x9a\x82"), "\"\xf0\x9f\x9a\x82\""},  // no escape for non-ASCII
      {Value("q\"b\\s/\b\f\n\r\t\x01\x1f"), R"("q\"b\\s/\b\f\n\r\t\u0001\u001f")"},
      {Value(ValueList{Value(int32_t{1}), Value("x"), Value()}), R"([1,"x",null])"},
      {Value(ValueList()), "[]"},
      {Value(ValueMap{{Value("b"), Value(int32_t{2})}, {Value("a"), Value(ValueMap())}}),
       R"({"b":2,"a":{}})"},
      // Integers keep their width: a small int64 printed plainly would come back as int32.
      {Value(int32_t{-7}), "-7"},
      {Value(int64_t{5}), R"({"$int64":5})"},
      {Value(int64_t{-2147483648LL}), R"({"$int64":-2147483648})"},
      {Value(int64_t{2147483648LL}), "2147483648"},
      {Value(std::numeric_limits<int64_t>::min()), "-9223372036854775808"},
      // Floats stay floats.
      {Value(3.0), "3.0"},
      {Value(-0.0), "-0.0"},
      {Value(0.1), "0.1"},
      {Value(1e300), "1e+300"},
      {Value(5e-324), "5e-324"},
      {Value(123456789012345680000.0), "123456789012345683968.0"},
      {Value(kInf), R"({"$float64":"Infinity"})"},
      {Value(-kInf), R"({"$float64":"-Infinity"})"},
      // Typed data.
      {Value(Bytes{0x00, 0xab, 0xff}), R"({"$bytes":"00abff"})"},
      {Value(Bytes{}), R"({"$bytes":""})"},
      {Value(channel::Int32List{1, -2}), R"({"$int32list":[1,-2]})"},
      {Value(channel::Int64List{1, 1LL << 40}), R"({"$int64list":[1,1099511627776]})"},
      {Value(channel::Float64List{1.0, 0.5, -kInf}), R"({"$float64list":[1,0.5,"-Infinity"]})"},
      // Maps a plain object cannot hold: other keys, a repeated key, a lone key that would read
      // back as a tag. Beside other keys a "$" key is ordinary.
      {Value(ValueMap{{Value(int32_t{1}), Value("one")}, {Value(), Value(true)}}),
       R"({"$map":[[1,"one"],[null,true]]})"},
      {Value(ValueMap{{Value("k"), Value(int32_t{1})}, {Value("k"), Value(int32_t{2})}}),
       R"({"$map":[["k",1],["k",2]]})"},
      {Value(ValueMap{{Value("$bytes"), Value("x")}}), R"({"$map":[["$bytes","x"]]})"},
      {Value(ValueMap{{Value("$int32"), Value(int32_t{1})}, {Value("b"), Value()}}),
       R"({"$int32":1,"b":null})"},
  };
  for (const auto& [value, json] : cases) {
    EXPECT_EQ(ToJson(value), json);
    EXPECT_EQ(Parse(json), value) << json;
  }
}

TEST(JsonMapping, OtherSpellingsReadAsTheSameValue) {
  const std::pair<std::string_view, Value> cases[] = {
      {R"({"$int32":12})", Value(int32_t{12})},
      {"-0", Value(int32_t{0})},
      {"1E2", Value(100.0)},
      {R"({"$float64":3})", Value(3.0)},
      {R"({"$bytes":"ABcd"})", Value(Bytes{0xab, 0xcd})},
      {R"("\/\u00e9\u20AC")", Value("/\xc3\xa9\xe2\x82\xac")},
      {R"("\ud83d\ude82")", Value("\xf0\x9f\x9a\x82")},  // a surrogate pair is one character
  };
  for (const auto& [json, value] : cases) EXPECT_EQ(Parse(json), value) << json;
}

TEST(JsonMapping, ValuesWithoutAPlainTextFormSurvive) {
  EXPECT_EQ(ToJson(Value(std::nan(""))), R"({"$float64":"NaN"})");
  const Value nan = Parse(R"({"$float64":"NaN"})");
  ASSERT_TRUE(nan.float64_if());
  EXPECT_TRUE(std::isnan(*nan.float64_if()));

  // Float32 elements print with float32's own shortest digits and read back bit for bit.
  const channel::Float32List floats{0.1f, 3.4028235e38f, 1.17549435e-38f, 16777217.0f, -0.0f};
  const std::string json = ToJson(Value(floats));
  EXPECT_EQ(json, R"({"$float32list":[0.1,3.4028235e+38,1.1754944e-38,16777216,-0]})");
  const Value back = Parse(json);
  ASSERT_TRUE(back.float32_list_if());
  EXPECT_EQ(back, Value(floats));
  EXPECT_TRUE(std::signbit(back.float32_list_if()->back()));

  // Invalid UTF-8 built in code still yields valid JSON.
  EXPECT_EQ(ToJson(Value(std::string("a\xff"
                                     "b"))),
            R"("a\ufffdb")");

  // A repeated key in a map large enough for the set-based uniqueness check.
  ValueMap big;
  for (int i = 0; i < 40; ++i) big.Append(Value("k" + std::to_string(i % 39)), Value());
  EXPECT_EQ(ToJson(Value(big)).rfind("{\"$map\":", 0), 0u);
  EXPECT_EQ(Parse(ToJson(Value(big))), Value(big));
}

TEST(JsonMapping, DepthIsBoundedLikeTheCodec) {
  const int limit = channel::kMaxNestingDepth;
  EXPECT_TRUE(ParseJsonValue(std::string(limit, '[') + std::string(limit, ']')).value);
  const std::string deep = std::string(limit + 1, '[') + std::string(limit + 1, ']');
  EXPECT_NE(ParseJsonValue(deep).error.find("nested deeper"), std::string::npos);
  // Hostile depth fails quickly instead of exhausting the stack.
  std::string objects;
  std::string maps;
  for (int i = 0; i < 100000; ++i) objects += "{\"a\":";
  for (int i = 0; i < 200; ++i) maps += "{\"$map\":[[1,";
  for (const std::string& text : {std::string(1 << 20, '['), objects, maps + "null"}) {
    EXPECT_FALSE(ParseJsonValue(text).value) << text.substr(0, 20);
  }
}

TEST(JsonMapping, RejectsMalformedText) {
  const char* bad[] = {
      // syntax
      "", " ", "nul", "tru", "[1,]", "[1 2]", "{\"a\":1,}", "{\"a\" 1}", "{a:1}", "{\"a\":1",
      "\"abc", "01", "1.", ".5", "-", "+1", "1e", "NaN", "[1]x", "1 2", "'a'",
      // strings
      "\"\\x\"", "\"\\u12\"", "\"\\ud800\"", "\"\\udc00\"", "\"\\ud800\\u0041\"", "\"a\nb\"",
      "\"\xc3\"", "\"\xed\xa0\x80\"", "\"\xc0\xaf\"",
      // numbers out of range
      "9223372036854775808", "1e400", "{\"$int32\":2147483648}", "{\"$int32list\":[1,2147483648]}",
      "{\"$float32list\":[1e39]}",
      // tags
      "{\"$bytes\":\"abc\"}", "{\"$bytes\":\"zz\"}", "{\"$bytes\":\"a b\"}", "{\"$bytes\":12}",
      "{\"$int32\":1.5}", "{\"$int64\":\"1\"}", "{\"$float64\":\"nan\"}", "{\"$float64\":null}",
      "{\"$int32list\":[1.0]}", "{\"$int64list\":{}}", "{\"$map\":[[1]]}", "{\"$map\":[[1,2,3]]}",
      "{\"$map\":{}}", "{\"$unknown\":1}", "{\"$\":1}", "{\"$Int32\":1}"};
  for (const char* text : bad) {
    ParsedJson parsed = ParseJsonValue(text);
    EXPECT_FALSE(parsed.value) << "accepted: " << text;
    EXPECT_NE(parsed.error.find("offset"), std::string::npos) << text << ": " << parsed.error;
  }
}

}  // namespace
}  // namespace corvane::json
