// Byte vectors derived from the standard codec's format: one type tag, little-endian scalars,
// sizes in 1/3/5 bytes, and padding of floats and typed lists to their width, counted from the
// start of the message.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "channel/standard_codec.h"

namespace corvane::channel {
namespace {

Bytes Hex(std::string_view hex) {
  Bytes out;
  std::string digits;
  for (char c : hex) {
    if (c != ' ') digits.push_back(c);
  }
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
}

ValueMap Map(std::initializer_list<std::pair<const char*, Value>> entries) {
  ValueMap m;
  for (const auto& [k, v] : entries) m.Append(Value(k), v);
  return m;
}

struct Vector {
  const char* name;
  Value value;
  const char* hex;
};

TEST(StandardCodec, EncodesEveryTypeAsTheFormatSays) {
  const std::vector<Vector> vectors = {
      {"null", Value(), "00"},
      {"true", Value(true), "01"},
      {"false", Value(false), "02"},
      {"int32", Value(int32_t{1}), "03 01000000"},
      {"negative int32", Value(int32_t{-2}), "03 feffffff"},
      {"int64 that needs 64 bits", Value(int64_t{1} << 32), "04 0000000001000000"},
      {"float64 padded to 8 from the message start", Value(1.0),
       "06 00000000000000 000000000000f03f"},
      {"string", Value("hello"), "07 05 68656c6c6f"},
      {"utf-8 string", Value("\xc3\xa9"), "07 02 c3a9"},
      {"bytes", Value(Bytes{1, 2, 3}), "08 03 010203"},
      {"int32 list", Value(Int32List{1, 2}), "09 02 0000 01000000 02000000"},
      {"empty int32 list is padded too", Value(Int32List{}), "09 00 0000"},
      {"int64 list", Value(Int64List{-1}), "0a 01 000000000000 ffffffffffffffff"},
      {"float32 list", Value(Float32List{1.0f}), "0e 01 0000 0000803f"},
      {"float64 list", Value(Float64List{2.0}), "0b 01 000000000000 0000000000000040"},
      {"empty float64 list", Value(Float64List{}), "0b 00 000000000000"},
      {"list", Value(ValueList{Value(int32_t{1}), Value("a")}), "0c 02 03 01000000 07 01 61"},
      {"map keeps insertion order", Value(Map({{"b", Value(true)}, {"a", Value()}})),
       "0d 02 07 01 62 01 07 01 61 00"},
      {"empty map", Value(ValueMap()), "0d 00"},
      {"map with a non-string key", Value(ValueMap{MapEntry{Value(int32_t{1}), Value("x")}}),
       "0d 01 03 01000000 07 01 78"},
      {"float inside a list aligns to the message start", Value(ValueList{Value(0.5)}),
       "0c 01 06 0000000000 000000000000e03f"},
  };
  for (const auto& v : vectors) {
    SCOPED_TRACE(v.name);
    EXPECT_EQ(EncodeMessage(v.value), Hex(v.hex));
    Decoded<Value> decoded = DecodeMessage(Hex(v.hex));
    ASSERT_TRUE(decoded) << decoded.error;
    EXPECT_EQ(*decoded.value, v.value);
  }
}

TEST(StandardCodec, ChoosesIntegerWidthByValueAndReadsBothWidths) {
  EXPECT_EQ(EncodeMessage(Value(int64_t{7})), Hex("03 07000000"));
  EXPECT_EQ(EncodeMessage(Value(int64_t{-2147483649LL})), Hex("04 ffffff7fffffffff"));
  Decoded<Value> narrow = DecodeMessage(Hex("04 0700000000000000"));
  ASSERT_TRUE(narrow);
  EXPECT_EQ(narrow.value->integer(), 7);
  EXPECT_EQ(DecodeMessage(Hex("03 07000000")).value->integer(), 7);
}

TEST(StandardCodec, SizesUseOneThreeOrFiveBytes) {
  const std::string s253(253, 'x'), s254(254, 'x'), s65536(65536, 'x');
  Bytes e253 = EncodeMessage(Value(s253));
  EXPECT_EQ(Bytes(e253.begin(), e253.begin() + 2), Hex("07 fd"));
  Bytes e254 = EncodeMessage(Value(s254));
  EXPECT_EQ(Bytes(e254.begin(), e254.begin() + 4), Hex("07 fe fe00"));
  EXPECT_EQ(e254.size(), 4u + 254u);
  Bytes e65536 = EncodeMessage(Value(s65536));
  EXPECT_EQ(Bytes(e65536.begin(), e65536.begin() + 6), Hex("07 ff 00000100"));
  for (const auto* s : {&s253, &s254, &s65536}) {
    Decoded<Value> d = DecodeMessage(EncodeMessage(Value(*s)));
    ASSERT_TRUE(d);
    EXPECT_EQ(*d.value->string_if(), *s);
  }
}

TEST(StandardCodec, NonFiniteFloatsRoundTripBitExactly) {
  for (double d :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(), -0.0}) {
    Bytes bytes = EncodeMessage(Value(d));
    Decoded<Value> back = DecodeMessage(bytes);
    ASSERT_TRUE(back);
    EXPECT_EQ(EncodeMessage(*back.value), bytes);
  }
}

TEST(StandardCodec, ZeroBytesDecodeToNull) {
  Decoded<Value> d = DecodeMessage({});
  ASSERT_TRUE(d);
  EXPECT_TRUE(d.value->is_null());
}

TEST(StandardCodec, MalformedBytesAreErrorsNotCrashes) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"truncated int32", "03 0100"},
      {"truncated int64", "04 01000000"},
      {"float64 without its padding", "06 0000"},
      {"unknown tag", "0f"},
      {"retired large-int tag", "05 01 31"},
      {"string longer than the data", "07 05 6162"},
      {"invalid utf-8", "07 01 ff"},
      {"overlong utf-8", "07 02 c0af"},
      {"utf-16 surrogate in utf-8", "07 03 eda080"},
      {"list count far past the data", "0c ff ffffffff"},
      {"map count past the data", "0d 03 00 00"},
      {"typed list longer than the data", "09 ff ffffff7f 0000"},
      {"size prefix cut short", "07 fe 01"},
      {"bytes left over", "00 00"},
      {"map missing its value", "0d 01 07 01 61"},
  };
  for (const auto& [name, hex] : cases) {
    SCOPED_TRACE(name);
    Decoded<Value> d = DecodeMessage(Hex(hex));
    EXPECT_FALSE(d);
    EXPECT_FALSE(d.error.empty());
  }
}

TEST(StandardCodec, RejectsNestingDeeperThanTheLimit) {
  Bytes deep;
  for (int i = 0; i < kMaxNestingDepth + 5; ++i) {
    deep.push_back(0x0c);
    deep.push_back(0x01);
  }
  deep.push_back(0x00);
  EXPECT_FALSE(DecodeMessage(deep));

  Bytes ok;
  for (int i = 0; i < 10; ++i) {
    ok.push_back(0x0c);
    ok.push_back(0x01);
  }
  ok.push_back(0x00);
  EXPECT_TRUE(DecodeMessage(ok));
}

// Elements are budgeted per message, split over lists or not, so a frame of nulls cannot cost
// forty times its size in memory.
TEST(StandardCodec, RejectsMoreElementsThanTheBudget) {
  auto list_of_nulls = [](size_t lists, size_t each) {
    Value outer{ValueList(lists, Value(ValueList(each)))};
    return EncodeMessage(outer);
  };
  const size_t half = kMaxDecodedElements / 2;
  EXPECT_TRUE(DecodeMessage(list_of_nulls(1, half - 1)));
  auto over = DecodeMessage(list_of_nulls(2, half));
  ASSERT_FALSE(over);
  EXPECT_EQ(over.error, "too many elements in one message");
}

// The writer copies short payloads by words, larger ones by memcpy and large ones by a bulk
// append, and grows its buffer in steps: each length here crosses one of those edges.
TEST(StandardCodec, PayloadsOfEveryLengthEncodeExactly) {
  for (size_t n : {0, 1, 3, 4, 7, 8, 9, 15, 16, 17, 31, 253, 254, 4095, 4096, 70000}) {
    SCOPED_TRACE(n);
    std::string text(n, 'a');
    for (size_t i = 0; i < n; ++i) text[i] = static_cast<char>('a' + i % 26);
    const Bytes bytes(text.begin(), text.end());
    // Tag, size in one, three or five bytes, payload.
    auto framed = [&](uint8_t tag) {
      Bytes out{tag};
      if (n < 254) {
        out.push_back(static_cast<uint8_t>(n));
      } else if (n <= 0xffff) {
        for (uint8_t b : {uint8_t{254}, uint8_t(n), uint8_t(n >> 8)}) out.push_back(b);
      } else {
        for (uint8_t b :
             {uint8_t{255}, uint8_t(n), uint8_t(n >> 8), uint8_t(n >> 16), uint8_t{0}}) {
          out.push_back(b);
        }
      }
      for (uint8_t b : bytes) out.push_back(b);
      return out;
    };
    for (const auto& [tag, value] :
         {std::pair{uint8_t{7}, Value(text)}, std::pair{uint8_t{8}, Value(bytes)}}) {
      const Bytes expected = framed(tag);
      EXPECT_EQ(EncodeMessage(value), expected);
      Decoded<Value> back = DecodeMessage(expected);
      ASSERT_TRUE(back) << back.error;
      EXPECT_EQ(*back.value, value);
    }
    // Small values after the payload, inside a list: the buffer must grow past a bulk append
    // and keep what was written before it.
    const Value list(ValueList{Value(bytes), Value(0.25), Value(text), Value(int32_t{9})});
    Decoded<Value> back = DecodeMessage(EncodeMessage(list));
    ASSERT_TRUE(back) << back.error;
    EXPECT_EQ(*back.value, list);
  }
}

TEST(StandardCodec, AppendingAlignsFromTheStartOfTheVector) {
  for (size_t prefix = 0; prefix < 9; ++prefix) {
    SCOPED_TRACE(prefix);
    Bytes out(prefix, 0xee);
    EncodeValue(Value(Float64List{1.0}), out);
    // tag, size, then padding up to a multiple of 8 counted from out[0].
    const size_t data_at = (prefix + 2 + 7) / 8 * 8;
    ASSERT_EQ(out.size(), data_at + 8);
    for (size_t i = prefix + 2; i < data_at; ++i) EXPECT_EQ(out[i], 0) << i;
    double d;
    std::memcpy(&d, out.data() + data_at, 8);
    EXPECT_EQ(d, 1.0);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + prefix), Bytes(prefix, 0xee));
  }
}

// ASCII is checked a word at a time with an overlapping last word; a bad byte anywhere, also
// in the overlap, must still be caught, and good multi-byte characters anywhere accepted.
TEST(StandardCodec, Utf8IsCheckedAtEveryPosition) {
  for (size_t n = 1; n <= 20; ++n) {
    for (size_t at = 0; at < n; ++at) {
      SCOPED_TRACE(testing::Message() << "length " << n << " at " << at);
      Bytes bad{7, static_cast<uint8_t>(n)};
      for (size_t i = 0; i < n; ++i) bad.push_back(i == at ? 0xff : 'x');
      EXPECT_FALSE(DecodeMessage(bad));
      if (at + 1 < n) {
        Bytes good{7, static_cast<uint8_t>(n)};
        for (size_t i = 0; i < n; ++i) good.push_back(i == at ? 0xc3 : i == at + 1 ? 0xa9 : 'x');
        EXPECT_TRUE(DecodeMessage(good));
        Bytes cut = good;
        cut[2 + at + 1] = 'x';  // a lead byte without its continuation
        EXPECT_FALSE(DecodeMessage(cut));
      }
    }
  }
}

// Where a decode stops and why is what the engine logs for a bad message.
TEST(StandardCodec, ErrorsSayWhatAndWhere) {
  struct Case {
    const char* hex;
    const char* error;
    size_t offset;
    enum { kMessage, kCall, kEnvelope } as;
  };
  const Case cases[] = {
      {"00 00", "bytes left over after the value", 1, Case::kMessage},
      {"07 02 61", "string longer than the data", 2, Case::kMessage},
      {"0d 01 07 01 61 0f", "unknown type tag", 5, Case::kMessage},
      {"03 01000000 00", "method name is not a string", 0, Case::kCall},
      {"07 01 78 00 00", "bytes left over after the method call", 4, Case::kCall},
      {"07 01 ff 00", "string is not valid UTF-8", 2, Case::kCall},
      {"01 07 01 63 01 00", "error message is neither a string nor null", 4, Case::kEnvelope},
      {"02 00", "envelope status is neither success nor error", 0, Case::kEnvelope},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.hex);
    const Bytes bytes = Hex(c.hex);
    std::string error;
    size_t offset = 0;
    bool ok = true;
    if (c.as == Case::kMessage) {
      auto d = DecodeMessage(bytes);
      ok = bool(d), error = d.error, offset = d.error_offset;
    } else if (c.as == Case::kCall) {
      auto d = DecodeMethodCall(bytes);
      ok = bool(d), error = d.error, offset = d.error_offset;
    } else {
      auto d = DecodeEnvelope(bytes);
      ok = bool(d), error = d.error, offset = d.error_offset;
    }
    EXPECT_FALSE(ok);
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(offset, c.offset);
  }
}

TEST(MethodCodec, MethodCallIsNameThenArguments) {
  const Bytes expected = Hex("07 01 78 06 00000000 000000000000f83f");
  EXPECT_EQ(EncodeMethodCall({"x", Value(1.5)}), expected);
  Decoded<MethodCall> call = DecodeMethodCall(expected);
  ASSERT_TRUE(call);
  EXPECT_EQ(call.value->method, "x");
  EXPECT_EQ(call.value->arguments, Value(1.5));

  EXPECT_FALSE(DecodeMethodCall(Hex("03 01000000 00"))) << "name must be a string";
  EXPECT_FALSE(DecodeMethodCall(Hex("07 01 78"))) << "arguments are required";
  EXPECT_FALSE(DecodeMethodCall(Hex("07 01 78 00 00"))) << "nothing may follow the arguments";
  EXPECT_FALSE(DecodeMethodCall({}));
}

TEST(MethodCodec, Envelopes) {
  EXPECT_EQ(EncodeSuccessEnvelope(Value()), Hex("00 00"));
  EXPECT_EQ(EncodeSuccessEnvelope(Value(int32_t{5})), Hex("00 03 05000000"));
  EXPECT_EQ(EncodeErrorEnvelope({"c", std::nullopt, Value(), std::nullopt}),
            Hex("01 07 01 63 00 00"));
  EXPECT_EQ(EncodeErrorEnvelope({"c", "m", Value(true), "t"}),
            Hex("01 07 01 63 07 01 6d 01 07 01 74"));

  Decoded<MethodReply> with_trace = DecodeEnvelope(Hex("01 07 01 63 07 01 6d 01 07 01 74"));
  ASSERT_TRUE(with_trace);
  EXPECT_EQ(with_trace.value->kind, MethodReply::Kind::kError);
  EXPECT_EQ(with_trace.value->error.code, "c");
  EXPECT_EQ(with_trace.value->error.message, "m");
  EXPECT_EQ(with_trace.value->error.details, Value(true));
  EXPECT_EQ(with_trace.value->error.stacktrace, "t");

  Decoded<MethodReply> null_trace = DecodeEnvelope(Hex("01 07 01 63 00 00 00"));
  ASSERT_TRUE(null_trace);
  EXPECT_FALSE(null_trace.value->error.stacktrace);
  EXPECT_FALSE(null_trace.value->error.message);

  Decoded<MethodReply> not_implemented = DecodeEnvelope({});
  ASSERT_TRUE(not_implemented);
  EXPECT_EQ(not_implemented.value->kind, MethodReply::Kind::kNotImplemented);

  Decoded<MethodReply> success = DecodeEnvelope(Hex("00 07 01 61"));
  ASSERT_TRUE(success);
  EXPECT_EQ(success.value->value, Value("a"));
}

TEST(MethodCodec, MalformedEnvelopes) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"unknown status", "02 00"},
      {"success without value", "00"},
      {"success with trailing bytes", "00 00 00"},
      {"error code not a string", "01 03 01000000 00 00"},
      {"error message neither string nor null", "01 07 01 63 01 00"},
      {"stacktrace neither string nor null", "01 07 01 63 00 00 01"},
      {"error without details", "01 07 01 63 00"},
      {"five elements", "01 07 01 63 00 00 00 00"},
  };
  for (const auto& [name, hex] : cases) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(DecodeEnvelope(Hex(hex)));
  }
}

}  // namespace
}  // namespace corvane::channel
