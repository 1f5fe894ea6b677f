#include "json/json_mapping.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "channel/standard_codec.h"
#include "json/hex.h"

namespace corvane::json {
namespace {

using channel::Value;
using channel::ValueList;
using channel::ValueMap;

Value Parse(std::string_view text) {
  ParsedJson parsed = ParseJsonValue(text);
  EXPECT_TRUE(parsed.value.has_value()) << text << ": " << parsed.error;
  return parsed.value.value_or(Value("<parse failed>"));
}

// The value prints as `json`, and `json` reads back as exactly the value (type included).
void ExpectMapping(const Value& value, std::string_view json) {
  EXPECT_EQ(ToJson(value), json);
  EXPECT_EQ(Parse(json), value) << json;
}

TEST(JsonMapping, PlainValuesMapAsThemselves) {
  ExpectMapping(Value(), "null");
  ExpectMapping(Value(true), "true");
  ExpectMapping(Value(false), "false");
  ExpectMapping(Value("h\xc3\xa9llo"), "\"h\xc3\xa9llo\"");
  ExpectMapping(Value(ValueList{Value(int32_t{1}), Value("x"), Value()}), "[1,\"x\",null]");
  ExpectMapping(Value(ValueMap{{Value("b"), Value(int32_t{2})}, {Value("a"), Value(ValueMap())}}),
                "{\"b\":2,\"a\":{}}");
  ExpectMapping(Value(ValueList()), "[]");
}

TEST(JsonMapping, IntegersKeepTheirWidth) {
  ExpectMapping(Value(int32_t{-7}), "-7");
  ExpectMapping(Value(std::numeric_limits<int32_t>::max()), "2147483647");
  // An int64 holding a small value would come back as int32 if printed plainly.
  ExpectMapping(Value(int64_t{5}), "{\"$int64\":5}");
  ExpectMapping(Value(int64_t{-2147483648LL}), "{\"$int64\":-2147483648}");
  ExpectMapping(Value(int64_t{2147483648LL}), "2147483648");
  ExpectMapping(Value(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(Parse("{\"$int32\":12}"), Value(int32_t{12}));
  EXPECT_EQ(Parse("-0"), Value(int32_t{0}));
}

TEST(JsonMapping, FloatsPrintShortestAndStayFloats) {
  ExpectMapping(Value(3.0), "3.0");
  ExpectMapping(Value(-0.0), "-0.0");
  ExpectMapping(Value(0.1), "0.1");
  ExpectMapping(Value(1e300), "1e+300");
  ExpectMapping(Value(5e-324), "5e-324");
  ExpectMapping(Value(123456789012345680000.0), "123456789012345683968.0");
  ExpectMapping(Value(std::numeric_limits<double>::infinity()), "{\"$float64\":\"Infinity\"}");
  ExpectMapping(Value(-std::numeric_limits<double>::infinity()), "{\"$float64\":\"-Infinity\"}");
  EXPECT_EQ(ToJson(Value(std::nan(""))), "{\"$float64\":\"NaN\"}");
  const Value nan = Parse("{\"$float64\":\"NaN\"}");
  ASSERT_TRUE(nan.float64_if());
  EXPECT_TRUE(std::isnan(*nan.float64_if()));
  EXPECT_EQ(Parse("1E2"), Value(100.0));
  EXPECT_EQ(Parse("{\"$float64\":3}"), Value(3.0));
}

TEST(JsonMapping, TypedDataUsesTags) {
  ExpectMapping(Value(channel::Bytes{0x00, 0xab, 0xff}), "{\"$bytes\":\"00abff\"}");
  ExpectMapping(Value(channel::Bytes{}), "{\"$bytes\":\"\"}");
  EXPECT_EQ(Parse("{\"$bytes\":\"ABcd\"}"), Value(channel::Bytes{0xab, 0xcd}));
  ExpectMapping(Value(channel::Int32List{1, -2}), "{\"$int32list\":[1,-2]}");
  ExpectMapping(Value(channel::Int64List{1, 1LL << 40}), "{\"$int64list\":[1,1099511627776]}");
  ExpectMapping(Value(channel::Float64List{1.0, 0.5, -std::numeric_limits<double>::infinity()}),
                "{\"$float64list\":[1,0.5,\"-Infinity\"]}");
  // Float32 elements print with float32's own shortest digits and read back bit for bit.
  const channel::Float32List floats{0.1f, 3.4028235e38f, 1.17549435e-38f, 16777217.0f, -0.0f};
  const Value f32(floats);
  EXPECT_EQ(ToJson(f32), "{\"$float32list\":[0.1,3.4028235e+38,1.1754944e-38,16777216,-0]}");
  const Value back = Parse(ToJson(f32));
  ASSERT_TRUE(back.float32_list_if());
  for (size_t i = 0; i < floats.size(); ++i) {
    EXPECT_EQ(std::signbit((*back.float32_list_if())[i]), std::signbit(floats[i]));
  }
  EXPECT_EQ(back, f32);
}

TEST(JsonMapping, MapsThatAreNotPlainObjectsUseMapForm) {
  // Non-string keys.
  ExpectMapping(Value(ValueMap{{Value(int32_t{1}), Value("one")}, {Value(), Value(true)}}),
                "{\"$map\":[[1,\"one\"],[null,true]]}");
  // A repeated key.
  ExpectMapping(Value(ValueMap{{Value("k"), Value(int32_t{1})}, {Value("k"), Value(int32_t{2})}}),
                "{\"$map\":[[\"k\",1],[\"k\",2]]}");
  // A lone key starting with "$" would read back as a tag.
  ExpectMapping(Value(ValueMap{{Value("$bytes"), Value("x")}}), "{\"$map\":[[\"$bytes\",\"x\"]]}");
  // With other keys beside it, a "$" key is an ordinary key.
  ExpectMapping(Value(ValueMap{{Value("$int32"), Value(int32_t{1})}, {Value("b"), Value()}}),
                "{\"$int32\":1,\"b\":null}");
  // A large map takes the set-based uniqueness check.
  ValueMap big;
  for (int i = 0; i < 40; ++i) big.Append(Value("k" + std::to_string(i % 39)), Value());
  EXPECT_EQ(ToJson(Value(big)).rfind("{\"$map\":", 0), 0u);
  EXPECT_EQ(Parse(ToJson(Value(big))), Value(big));
}

TEST(JsonMapping, StringEscapesBothWays) {
  ExpectMapping(Value("q\"b\\s/\b\f\n\r\t\x01\x1f"),
                "\"q\\\"b\\\\s/\\b\\f\\n\\r\\t\\u0001\\u001f\"");
  EXPECT_EQ(Parse("\"\\/\\u00e9\\u20AC\""), Value("/\xc3\xa9\xe2\x82\xac"));
  // A surrogate pair becomes one four-byte sequence; output keeps it as raw UTF-8.
  EXPECT_EQ(Parse("\"\\ud83d\\ude82\""), Value("\xf0\x9f\x9a\x82"));
  EXPECT_EQ(ToJson(Value("\xf0\x9f\x9a\x82")), "\"\xf0\x9f\x9a\x82\"");
  // Invalid UTF-8 built in code still yields valid JSON.
  EXPECT_EQ(ToJson(Value(std::string("a\xff"
                                     "b"))),
            "\"a\\ufffdb\"");
}

TEST(JsonMapping, EveryCodecTypeSurvivesCodecAndJson) {
  ValueMap map{
      {Value("bytes"), Value(channel::Bytes{1, 2, 3})},
      {Value(int32_t{9}), Value(channel::Int32List{7})},
      {Value("nested"),
       Value(ValueList{Value(int64_t{1} << 40), Value(2.5), Value(channel::Float32List{1.5f}),
                       Value(channel::Int64List{}), Value(channel::Float64List{0.25})})}};
  const Value value(std::move(map));
  const std::string json = ToJson(value);
  EXPECT_EQ(Parse(json), value);
  auto decoded = channel::DecodeMessage(channel::EncodeMessage(Parse(json)));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(ToJson(*decoded.value), json);
}

TEST(JsonMapping, DepthIsBoundedLikeTheCodec) {
  const int limit = channel::kMaxNestingDepth;
  std::string ok = std::string(limit, '[') + std::string(limit, ']');
  EXPECT_TRUE(ParseJsonValue(ok).value);
  std::string deep = std::string(limit + 1, '[') + std::string(limit + 1, ']');
  EXPECT_NE(ParseJsonValue(deep).error.find("nested deeper"), std::string::npos);
  // Hostile depth fails quickly instead of exhausting the stack.
  EXPECT_FALSE(ParseJsonValue(std::string(1 << 20, '[')).value);
  std::string objects;
  for (int i = 0; i < 100000; ++i) objects += "{\"a\":";
  EXPECT_FALSE(ParseJsonValue(objects).value);
  std::string maps;
  for (int i = 0; i < 200; ++i) maps += "{\"$map\":[[1,";
  EXPECT_FALSE(ParseJsonValue(maps + "null").value);
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

TEST(Hex, EncodesLowerCaseAndDecodesStrictly) {
  EXPECT_EQ(HexEncode(channel::Bytes{0x0f, 0xa0}), "0fa0");
  std::string error;
  EXPECT_EQ(HexDecode("0F a0\n", true, &error), (channel::Bytes{0x0f, 0xa0}));
  EXPECT_FALSE(HexDecode("0F a0", false, &error));
  EXPECT_EQ(error, "bad hex digit 0x20 at offset 2");
  EXPECT_FALSE(HexDecode("abc", true, &error));
  EXPECT_EQ(error, "odd number of hex digits");
  EXPECT_FALSE(HexDecode("0g", true, &error));
  EXPECT_EQ(error, "bad hex digit 'g' at offset 1");
}

}  // namespace
}  // namespace corvane::json
