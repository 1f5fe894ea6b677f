// The preference store: which keys count, how their values convert, and stores that are not
// what they claim to be.
#include "legacy/legacy_preferences.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <sstream>

#include "legacy_fixture.h"

namespace corvane::legacy::testing {
namespace {

TEST(LegacyKeyFilter, DecidesEachRuleInOrder) {
  // "corvane.apple" is not the excluded "corvane.apple." itself.
  std::istringstream legacy(
      "z21.host corvane.demo.isEnabled switchboard.layout unifiedThrottle.speedSteps "
      "AppleLanguages locoStripMaxRows settingsLocoListLayoutMode corvane.apple");
  // Excluded prefixes win over included ones they overlap with; then near misses: case, a
  // missing dot, the prefix alone or inside a name.
  std::istringstream not_legacy(
      "flutter.z21.host corvane.apple.usb.lastDevice flutter. Z21.host z21 corvane "
      "applelanguages AppleLanguagesX locoStripMaxRows2 my.z21.host");
  for (std::string key; legacy >> key;) EXPECT_TRUE(IsLegacyKey(key)) << key;
  for (std::string key; not_legacy >> key;) EXPECT_FALSE(IsLegacyKey(key)) << key;
  EXPECT_FALSE(IsLegacyKey(""));
}

class StoreFormatTest : public ::testing::TestWithParam<Format> {
 protected:
  LegacyPreferences Read(plist_t root) {
    bytes_ = Serialize(root, GetParam());
    return LegacyPreferences::Parse(bytes_.data(), bytes_.size());
  }
  std::vector<uint8_t> bytes_;
};

TEST_P(StoreFormatTest, ConvertsEveryKindOfValue) {
  LegacyPreferences prefs = Read(Dict({
      {"flutter.z21.host", Str("new edition")},
      {"z21.host", Str("192.168.0.111")},
      {"z21.port", Int(21105)},
      {"z21.offset", Int(-42)},
      {"z21.big", Int(int64_t{1} << 40)},
      {"z21.ratio", Real(0.25)},
      {"z21.icloud.enabled", Bool(true)},
      {"corvane.apple.camera", Str("platform state")},
      {"corvane.blob", Data(std::string("\x00\x01\xff", 3))},
      {"corvane.lastSync", Date(600000000, 500000)},
      {"corvane.firstRun", Date(-1, -500000)},
      {"switchboard.panels",
       Array({Dict({{"name", Str("yard")}, {"tiles", Array({Int(1), Int(2)})}}), Str("main")})},
      {"unrelated", Str("x")},
  }));

  // Only the legacy keys, in the store's order. 600000000 s after 2001-01-01 is 1578307200 s
  // after 1970-01-01; the binary format keeps the fraction, XML writes whole seconds.
  using channel::ValueList;
  const Value expected = Map({
      {"z21.host", Value("192.168.0.111")},
      {"z21.port", Value::Integer(21105)},
      {"z21.offset", Value::Integer(-42)},
      {"z21.big", Value::Integer(int64_t{1} << 40)},
      {"z21.ratio", Value(0.25)},
      {"z21.icloud.enabled", Value(true)},
      {"corvane.blob", Value(channel::Bytes{0, 1, 0xff})},
      {"corvane.lastSync",
       Map({{"$date", Value(GetParam() == Format::kBinary ? 1578307200.5 : 1578307200.0)}})},
      // Before 2001 the fraction counts further back.
      {"corvane.firstRun",
       Map({{"$date", Value(GetParam() == Format::kBinary ? 978307198.5 : 978307199.0)}})},
      {"switchboard.panels",
       Value(ValueList{Map({{"name", Value("yard")},
                            {"tiles", Value(ValueList{Value::Integer(1), Value::Integer(2)})}}),
                       Value("main")})},
  });
  const ValueMap values = prefs.Values();
  EXPECT_EQ(Value(values), expected);
  // Every converted value survives the codec, so the reply can always be sent; and a backup
  // reads back as the same values.
  EXPECT_TRUE(channel::DecodeMessage(channel::EncodeMessage(Value(values))));
  const std::vector<uint8_t> backup = prefs.Serialize();
  EXPECT_EQ(LegacyPreferences::Parse(backup.data(), backup.size()).Values(), values);
}

TEST_P(StoreFormatTest, ProbeCountsAndFlags) {
  const auto probe = [](bool data, int64_t keys, int64_t bytes, bool demo) {
    return Map({{"hasLegacyData", Value(data)},
                {"keyCount", Value::Integer(keys)},
                {"byteCount", Value::Integer(bytes)},
                {"storeDemo", Value(demo)},
                {"icloudKeyValue", Value(false)}});
  };
  Value every_flag = probe(true, 5, 8, true);
  every_flag.mutable_map_if()->Append(Value("language"), Value("de"));
  const std::tuple<plist_t, Value, size_t> cases[] = {
      {Dict({{"AppleLanguages", Array({Str("nl"), Str("en")})},
             {"z21.a", Data("12345")},
             {"z21.b", Data("678")},
             {"flutter.c", Data("not counted")},
             {"corvane.demo.isEnabled", Bool(true)},
             {"z21.icloud.enabled", Int(1)},  // not a boolean: false
             {"z21.appLanguageOverride", Str("de")}}),
       every_flag, 6},
      // An empty override is a legacy key, but no language.
      {Dict({{"AppleLanguages", Array({Str("nl")})},
             {"z21.appLanguageOverride", Str("")},
             {"flutter.z21.host", Str("x")}}),
       probe(true, 1, 0, false), 2},
      // Languages alone are no legacy data, though readDefaults returns them.
      {Dict({{"AppleLanguages", Array({Str("nl")})}}), probe(false, 0, 0, false), 1},
  };
  for (const auto& [store, expected, values] : cases) {
    LegacyPreferences prefs = Read(store);
    EXPECT_EQ(Value(prefs.Probe()), expected);
    EXPECT_EQ(prefs.Values().size(), values);
  }
}

TEST_P(StoreFormatTest, DeepNestingReadsAsNullBelowTheLimit) {
  plist_t deep = Str("bottom");
  Value expected;
  for (int i = 0; i < kMaxValueDepth + 20; ++i) deep = Array({deep});
  for (int i = 0; i < kMaxValueDepth; ++i) expected = Value(channel::ValueList{expected});
  const ValueMap values = Read(Dict({{"z21.deep", deep}, {"z21.flat", Int(7)}})).Values();
  EXPECT_EQ(Value(values), Map({{"z21.deep", expected}, {"z21.flat", Value::Integer(7)}}));
  EXPECT_TRUE(channel::DecodeMessage(channel::EncodeMessage(Value(values))));
}

INSTANTIATE_TEST_SUITE_P(BinaryAndXml, StoreFormatTest,
                         ::testing::Values(Format::kBinary, Format::kXml), [](const auto& info) {
                           return info.param == Format::kBinary ? "Binary" : "Xml";
                         });

// Every one of these is "no legacy data": no keys, and a probe that still answers.
std::vector<uint8_t> Bytes(const std::string& text) { return {text.begin(), text.end()}; }
std::string Repeat(const std::string& text, int times) {
  std::string out;
  while (times-- > 0) out += text;
  return out;
}

TEST(LegacyStore, UnreadableStoresHoldNoKeys) {
  const std::vector<uint8_t> good = Serialize(Dict({{"z21.ab", Int(1)}}), Format::kBinary);
  const std::vector<uint8_t> xml_good = Serialize(Dict({{"z21.a", Int(1)}}), Format::kXml);
  // libplist aborts the process when asked for a key holding a NUL: such a store is unreadable.
  std::vector<uint8_t> nul_key = good;
  const auto key =
      std::search(nul_key.begin(), nul_key.end(), std::begin("z21.ab"), std::end("z21.ab") - 1);
  ASSERT_NE(key, nul_key.end());
  key[4] = 0;
  const std::string xml_head = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>z21.";
  const std::pair<std::string, std::vector<uint8_t>> cases[] = {
      {"empty", {}},
      {"garbage", Bytes("not a plist")},
      {"binary truncated", std::vector<uint8_t>(good.begin(), good.end() - 10)},
      {"binary header only", std::vector<uint8_t>(good.begin(), good.begin() + 8)},
      {"xml truncated",
       std::vector<uint8_t>(xml_good.begin(), xml_good.begin() + xml_good.size() / 2)},
      {"array root", Serialize(Array({Str("z21.a")}), Format::kBinary)},
      {"string root", Serialize(Str("z21.a"), Format::kXml)},
      {"binary key with a NUL", nul_key},
      {"xml key with a NUL", Bytes(xml_head + '\0' + "</key><true/></dict></plist>")},
      {"xml key with &#0;", Bytes(xml_head + "&#0;</key><true/></dict></plist>")},
      {"xml key with &#x000;", Bytes(xml_head + "&#x000;</key><true/></dict></plist>")},
      {"xml nested past the parser's limit",
       Bytes(xml_head + "a</key>" + Repeat("<array>", kMaxPropertyListDepth + 1) +
             Repeat("</array>", kMaxPropertyListDepth + 1) + "</dict></plist>")},
  };
  for (auto& [name, bytes] : cases) {
    LegacyPreferences prefs = LegacyPreferences::Parse(bytes.data(), bytes.size());
    EXPECT_EQ(prefs.size(), 0u) << name;
    EXPECT_EQ(*prefs.Probe().Find("hasLegacyData"), Value(false)) << name;
  }
}

// Dates past 2069 do not fit 32-bit seconds; the store's "never" is such a date.
TEST(LegacyStore, DatesBeyond32BitSecondsKeepTheirValue) {
  std::vector<uint8_t> bytes = Serialize(Dict({{"corvane.snoozeUntil", Date(0)}}), Format::kBinary);
  const uint8_t zero_date[] = {0x33, 0, 0, 0, 0, 0, 0, 0, 0};
  auto at = std::search(bytes.begin(), bytes.end(), std::begin(zero_date), std::end(zero_date));
  ASSERT_NE(at, bytes.end());
  const uint64_t bits = std::bit_cast<uint64_t>(63113904000.0);  // 4001-01-01
  for (int i = 0; i < 8; ++i) at[1 + i] = static_cast<uint8_t>(bits >> (56 - 8 * i));
  const ValueMap values = LegacyPreferences::Parse(bytes.data(), bytes.size()).Values();
  EXPECT_EQ(Value(values), Map({{"corvane.snoozeUntil", Map({{"$date", Value(64092211200.0)}})}}));
}

// A character reference other than NUL is read as what it stands for.
TEST(LegacyStore, MalformedUtf8BecomesReplacementCharacters) {
  // Written by hand: libplist would not write the malformed bytes.
  const std::string xml =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
      "<key>z21.caf\xe9</key><string>bad \xff byte</string>"
      "<key>z21.ok&#33;&#x3F;</key><string>caf\xc3\xa9</string></dict></plist>";
  LegacyPreferences prefs =
      LegacyPreferences::Parse(reinterpret_cast<const uint8_t*>(xml.data()), xml.size());
  const ValueMap values = prefs.Values();
  EXPECT_EQ(Value(values), Map({{"z21.caf\xef\xbf\xbd", Value("bad \xef\xbf\xbd byte")},
                                {"z21.ok!?", Value("caf\xc3\xa9")}}));
  // libplist's binary writer cannot take malformed strings: the backup holds the cleaned ones.
  const std::vector<uint8_t> backup = prefs.Serialize();
  EXPECT_EQ(LegacyPreferences::Parse(backup.data(), backup.size()).Values(), values);
}

// A binary list whose object i < levels is an array holding object i+1 `fanout` times, and
// whose last object is `leaf` (by default the integer 7): a small file can name a tree of
// fanout^levels leaves.
std::vector<uint8_t> SharedReferenceList(int levels, int fanout = 2,
                                         std::vector<uint8_t> leaf = {0x10, 7}) {
  std::vector<uint8_t> out = Bytes("bplist00"), table;
  for (int i = 0; i <= levels; ++i) {
    table.insert(table.end(), {uint8_t(out.size() >> 8), uint8_t(out.size())});
    if (i == levels) break;
    out.push_back(uint8_t(0xA0 | fanout));
    for (int k = 0; k < fanout; ++k) out.insert(out.end(), {uint8_t((i + 1) >> 8), uint8_t(i + 1)});
  }
  out.insert(out.end(), leaf.begin(), leaf.end());
  std::vector<uint8_t> trailer(32, 0);
  trailer[6] = trailer[7] = 2;  // offset and reference sizes
  trailer[14] = uint8_t((levels + 1) >> 8), trailer[15] = uint8_t(levels + 1);  // root: 0
  for (int i = 0; i < 4; ++i) trailer[28 + i] = uint8_t(out.size() >> (24 - 8 * i));
  out.insert(out.end(), table.begin(), table.end());
  out.insert(out.end(), trailer.begin(), trailer.end());
  return out;
}

// A data object of `n` bytes.
std::vector<uint8_t> DataLeaf(uint32_t n) {
  std::vector<uint8_t> leaf = {0x4F,      0x12, uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8),
                               uint8_t(n)};
  leaf.resize(leaf.size() + n, 'x');
  return leaf;
}

TEST(LegacyStore, ReferenceBombsCyclesAndDanglingReferencesAreRefused) {
  const std::vector<uint8_t> small = SharedReferenceList(4);
  ASSERT_TRUE(ParsePropertyList(small.data(), small.size())) << "what libplist reads passes";
  std::vector<uint8_t> cycle = SharedReferenceList(3), dangling = cycle, no_root = cycle;
  cycle[8 + 5 * 2 + 2] = 0;         // the last array points back at the root
  dangling[9] = 0x7F;               // no such object
  no_root[no_root.size() - 9] = 4;  // the root is past the objects
  // Nodes, bytes and depth at their bounds and just past them: 2^20 - 1 nodes, 128 times
  // 256 KiB, 512 levels.
  const std::pair<std::vector<uint8_t>, bool> cases[] = {
      {SharedReferenceList(19), true},
      {SharedReferenceList(20), false},
      {SharedReferenceList(7, 2, DataLeaf(256 * 1024)), true},
      {SharedReferenceList(7, 2, DataLeaf(256 * 1024 + 1)), false},
      {SharedReferenceList(511, 1), true},
      {SharedReferenceList(512, 1), false},
      {SharedReferenceList(40), false},  // 2^40 leaves from a 250-byte file
      {cycle, false},
      {dangling, false},
      {no_root, false},
  };
  for (const auto& [bytes, within] : cases) {
    EXPECT_EQ(BinaryPropertyListWithinBounds(bytes.data(), bytes.size()), within)
        << &bytes - &cases[0].first;
    if (!within) EXPECT_FALSE(ParsePropertyList(bytes.data(), bytes.size()));
  }
}

}  // namespace
}  // namespace corvane::legacy::testing
