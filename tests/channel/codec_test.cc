// Byte vectors derived from the standard codec's format: one type tag, little-endian scalars,
// sizes in 1/3/5 bytes, and padding of floats and typed lists to their width, counted from the
// start of the message.
#include <gtest/gtest.h>

#include "channel/standard_codec.h"

namespace corvane::channel {
namespace {

Bytes Hex(std::string_view hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += hex[i] == ' ' ? 1 : 2) {
    if (hex[i] != ' ') out.push_back(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
  }
  return out;
}

// Every type, with the padding of floats and typed lists (even empty ones) counted from the
// message start, and maps in insertion order.
TEST(StandardCodec, EncodesEveryTypeAsTheFormatSays) {
  const std::pair<Value, const char*> vectors[] = {
      {Value(), "00"},
      {Value(true), "01"},
      {Value(false), "02"},
      {Value(int32_t{1}), "03 01000000"},
      {Value(int32_t{-2}), "03 feffffff"},
      {Value(int64_t{1} << 32), "04 0000000001000000"},
      {Value(1.0), "06 00000000000000 000000000000f03f"},
      {Value("hello"), "07 05 68656c6c6f"},
      {Value("\xc3\xa9"), "07 02 c3a9"},
      {Value(Bytes{1, 2, 3}), "08 03 010203"},
      {Value(Int32List{1, 2}), "09 02 0000 01000000 02000000"},
      {Value(Int32List{}), "09 00 0000"},
      {Value(Int64List{-1}), "0a 01 000000000000 ffffffffffffffff"},
      {Value(Float32List{1.0f}), "0e 01 0000 0000803f"},
      {Value(Float64List{2.0}), "0b 01 000000000000 0000000000000040"},
      {Value(Float64List{}), "0b 00 000000000000"},
      {Value(ValueList{Value(int32_t{1}), Value("a")}), "0c 02 03 01000000 07 01 61"},
      {Value(ValueMap{{Value("b"), Value(true)}, {Value("a"), Value()}}),
       "0d 02 07 01 62 01 07 01 61 00"},
      {Value(ValueMap()), "0d 00"},
      {Value(ValueMap{MapEntry{Value(int32_t{1}), Value("x")}}), "0d 01 03 01000000 07 01 78"},
      {Value(ValueList{Value(0.5)}), "0c 01 06 0000000000 000000000000e03f"},
  };
  for (const auto& [value, hex] : vectors) {
    SCOPED_TRACE(hex);
    const Bytes bytes = Hex(hex);
    EXPECT_EQ(EncodeMessage(value), bytes);
    Decoded<Value> decoded = DecodeMessage(bytes);
    ASSERT_TRUE(decoded) << decoded.error;
    EXPECT_EQ(*decoded.value, value);
    // Cut anywhere, the message is an error (and never read past its end).
    for (size_t n = 1; n < bytes.size(); ++n) {
      EXPECT_FALSE(DecodeMessage(std::span(bytes.data(), n))) << "cut to " << n;
    }
  }
}

// The writer never sends a string that is not UTF-8 (see also every position below): each bad
// byte goes out as U+FFFD, method names included, and each repair is counted.
TEST(StandardCodec, TheWriterRepairsStringsThatAreNotUtf8) {
  const size_t before = RepairedStrings();
  EXPECT_EQ(EncodeMethodCall({"x\x80", Value("\xc3\xa9\xff")}),
            Hex("07 04 78efbfbd 07 05 c3a9efbfbd"));
  EXPECT_EQ(RepairedStrings() - before, 2u);
}

// Lookup by value compares whole keys, type included.
TEST(StandardCodec, MapLookupByValueFindsTheEntryWithThatKey) {
  const ValueMap m{{Value(int32_t{1}), Value("int")}, {Value("1"), Value("text")}};
  EXPECT_EQ(*m.Find(Value("1")), Value("text"));
  EXPECT_EQ(*m.Find(Value(int32_t{1})), Value("int"));
  EXPECT_EQ(m.Find(Value(int32_t{2})), nullptr);
}

// The writer picks the narrowest integer; the reader takes both widths, and zero bytes as null.
TEST(StandardCodec, IntegerWidthsAndZeroBytes) {
  EXPECT_EQ(EncodeMessage(Value(int64_t{7})), Hex("03 07000000"));
  EXPECT_EQ(EncodeMessage(Value(int64_t{-2147483649LL})), Hex("04 ffffff7fffffffff"));
  for (const char* hex : {"04 0700000000000000", "03 07000000"}) {
    EXPECT_EQ(DecodeMessage(Hex(hex)).value.value_or(Value()).integer(), 7) << hex;
  }
  Decoded<Value> empty = DecodeMessage({});
  EXPECT_TRUE(empty && empty.value->is_null());
}

// Malformed input is an error, never a crash. Where a decode stops and why is what the engine
// logs for a bad message, so some cases pin the text and the offset too.
TEST(StandardCodec, MalformedInputIsAnErrorSayingWhatAndWhere) {
  enum As { kMessage, kCall, kEnvelope };
  const struct {
    As as;
    const char* hex;
    const char* error = nullptr;
    size_t offset = 0;
  } cases[] = {
      {kMessage, "0f"},                   // unknown tag
      {kMessage, "05 01 31"},             // the retired large-int tag
      {kMessage, "07 02 c0af"},           // overlong UTF-8
      {kMessage, "07 03 eda080"},         // a UTF-16 surrogate in UTF-8
      {kMessage, "0c ff ffffffff"},       // list count far past the data
      {kMessage, "0d 03 00 00"},          // map count past the data
      {kMessage, "09 ff ffffff7f 0000"},  // typed list longer than the data
      {kMessage, "00 00", "bytes left over after the value", 1},
      {kMessage, "07 02 61", "string longer than the data", 2},
      {kMessage, "0d 01 07 01 61 0f", "unknown type tag", 5},
      {kCall, "03 01000000 00", "method name is not a string", 0},
      {kCall, "07 01 78 00 00", "bytes left over after the method call", 4},
      {kCall, "07 01 ff 00", "string is not valid UTF-8", 2},
      {kEnvelope, "00 00 00"},                 // success with bytes left over
      {kEnvelope, "01 03 01000000 00 00"},     // error code not a string
      {kEnvelope, "01 07 01 63 00 00 01"},     // stacktrace neither string nor null
      {kEnvelope, "01 07 01 63 00 00 00 00"},  // five elements
      {kEnvelope, "01 07 01 63 01 00", "error message is neither a string nor null", 4},
      {kEnvelope, "02 00", "envelope status is neither success nor error", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hex);
    auto check = [&](const auto& decoded) {
      EXPECT_FALSE(decoded || decoded.error.empty());
      if (!c.error) return;
      EXPECT_EQ(std::pair(decoded.error, decoded.error_offset),
                std::pair(std::string(c.error), c.offset));
    };
    const Bytes bytes = Hex(c.hex);
    if (c.as == kMessage) check(DecodeMessage(bytes));
    if (c.as == kCall) check(DecodeMethodCall(bytes));
    if (c.as == kEnvelope) check(DecodeEnvelope(bytes));
  }
}

// Nesting is bounded at its limit, and elements are budgeted per message, split over lists or
// not, so a frame of nulls cannot cost forty times its size in memory.
TEST(StandardCodec, NestingAndElementsAreBounded) {
  Bytes nested;
  for (int i = 0; i < kMaxNestingDepth; ++i) nested.insert(nested.end(), {0x0c, 0x01});
  nested.push_back(0x00);
  EXPECT_TRUE(DecodeMessage(nested));
  nested.insert(nested.begin(), {0x0c, 0x01});
  EXPECT_FALSE(DecodeMessage(nested));

  auto list_of_nulls = [](size_t lists, size_t each) {
    return EncodeMessage(Value(ValueList(lists, Value(ValueList(each)))));
  };
  const size_t half = kMaxDecodedElements / 2;
  EXPECT_TRUE(DecodeMessage(list_of_nulls(1, half - 1)));
  EXPECT_EQ(DecodeMessage(list_of_nulls(2, half)).error, "too many elements in one message");
}

// The writer copies short payloads by words, larger ones by memcpy and large ones by a bulk
// append, and grows its buffer in steps: each length here crosses one of those edges.
TEST(StandardCodec, PayloadsOfEveryLengthEncodeExactly) {
  for (size_t n :
       {0, 1, 3, 4, 7, 8, 9, 15, 16, 17, 31, 253, 254, 4095, 4096, 65535, 65536, 70000}) {
    SCOPED_TRACE(n);
    std::string text(n, 'a');
    for (size_t i = 0; i < n; ++i) text[i] = static_cast<char>('a' + i % 26);
    const Bytes bytes(text.begin(), text.end());
    // Tag, size in one, three or five bytes, payload.
    const auto b = [n](int shift) { return static_cast<uint8_t>(n >> shift); };
    const Bytes size = n < 254       ? Bytes{b(0)}
                       : n <= 0xffff ? Bytes{254, b(0), b(8)}
                                     : Bytes{255, b(0), b(8), b(16), b(24)};
    for (const auto& [tag, value] :
         {std::pair{uint8_t{7}, Value(text)}, std::pair{uint8_t{8}, Value(bytes)}}) {
      Bytes expected{tag};
      expected.insert(expected.end(), size.begin(), size.end());
      expected.insert(expected.end(), bytes.begin(), bytes.end());
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
    Bytes out(prefix, 0xee), expected(prefix, 0xee);
    EncodeValue(Value(Float64List{1.0}), out);
    // Tag, size, then zeros up to a multiple of 8 counted from out[0].
    expected.insert(expected.end(), {0x0b, 0x01});
    expected.resize((prefix + 2 + 7) / 8 * 8);
    for (uint8_t b : Hex("000000000000f03f")) expected.push_back(b);
    EXPECT_EQ(out, expected);
  }
}

// ASCII is checked a word at a time with an overlapping last word; a bad byte anywhere, also
// in the overlap, must still be caught (and repaired by the writer), and good multi-byte
// characters anywhere accepted.
TEST(StandardCodec, Utf8IsCheckedAtEveryPosition) {
  for (size_t n = 1; n <= 20; ++n) {
    for (size_t at = 0; at < n; ++at) {
      SCOPED_TRACE(testing::Message() << "length " << n << " at " << at);
      Bytes bad{7, static_cast<uint8_t>(n)};
      for (size_t i = 0; i < n; ++i) bad.push_back(i == at ? 0xff : 'x');
      EXPECT_FALSE(DecodeMessage(bad));
      Bytes repaired = bad;
      repaired[1] += 2;
      repaired.insert(repaired.erase(repaired.begin() + 2 + at), {0xef, 0xbf, 0xbd});
      EXPECT_EQ(EncodeMessage(Value(std::string(bad.begin() + 2, bad.end()))), repaired);
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

TEST(MethodCodec, CallsAndEnvelopesEncodeAndDecodeExactly) {
  const Bytes call = Hex("07 01 78 06 00000000 000000000000f83f");
  EXPECT_EQ(EncodeMethodCall({"x", Value(1.5)}), call);
  Decoded<MethodCall> decoded = DecodeMethodCall(call);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(std::pair(decoded.value->method, decoded.value->arguments),
            std::pair(std::string("x"), Value(1.5)));
  EXPECT_EQ(EncodeSuccessEnvelope(Value(int32_t{5})), Hex("00 03 05000000"));
  EXPECT_EQ(EncodeErrorEnvelope({"c", std::nullopt, Value(), std::nullopt}),
            Hex("01 07 01 63 00 00"));
  const Bytes full = Hex("01 07 01 63 07 01 6d 01 07 01 74");
  EXPECT_EQ(EncodeErrorEnvelope({"c", "m", Value(true), "t"}), full);

  Decoded<MethodReply> error = DecodeEnvelope(full);
  ASSERT_TRUE(error);
  const MethodError& e = error.value->error;
  EXPECT_TRUE(error.value->kind == MethodReply::Kind::kError && e.code == "c" && e.message == "m" &&
              e.details == Value(true) && e.stacktrace == "t");
  Decoded<MethodReply> bare = DecodeEnvelope(Hex("01 07 01 63 00 00 00"));
  ASSERT_TRUE(bare);
  EXPECT_FALSE(bare.value->error.stacktrace || bare.value->error.message);
  Decoded<MethodReply> not_implemented = DecodeEnvelope({});
  ASSERT_TRUE(not_implemented);
  EXPECT_EQ(not_implemented.value->kind, MethodReply::Kind::kNotImplemented);
  // Cut anywhere, a call or an envelope is an error; an empty call too.
  for (size_t n = 0; n < call.size(); ++n)
    EXPECT_FALSE(DecodeMethodCall(std::span(call.data(), n)));
  for (size_t n = 1; n < 8; ++n) EXPECT_FALSE(DecodeEnvelope(std::span(full.data(), n)));
}

}  // namespace
}  // namespace corvane::channel
