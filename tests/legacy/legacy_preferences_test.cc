// The preference store: which keys count, how their values convert, and stores that are not
// what they claim to be.
#include "legacy/legacy_preferences.h"

#include <cmath>

#include "legacy_fixture.h"

namespace corvane::legacy::testing {
namespace {

TEST(LegacyKeyFilter, DecidesEachRuleInOrder) {
  const struct {
    const char* key;
    bool legacy;
  } cases[] = {
      {"z21.host", true},
      {"corvane.demo.isEnabled", true},
      {"switchboard.layout", true},
      {"unifiedThrottle.speedSteps", true},
      {"AppleLanguages", true},
      {"locoStripMaxRows", true},
      {"settingsLocoListLayoutMode", true},
      // Excluded prefixes win over the included ones they overlap with.
      {"flutter.z21.host", false},
      {"corvane.apple.usb.lastDevice", false},
      {"flutter.", false},
      // Near misses: case, missing dot, the prefix alone inside a name.
      {"Z21.host", false},
      {"z21", false},
      {"corvane", false},
      {"corvane.apple", true},  // not "corvane.apple." itself
      {"applelanguages", false},
      {"AppleLanguagesX", false},
      {"locoStripMaxRows2", false},
      {"my.z21.host", false},
      {"", false},
  };
  for (const auto& c : cases) EXPECT_EQ(IsLegacyKey(c.key), c.legacy) << c.key;
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
      {"switchboard.panels",
       Array({Dict({{"name", Str("yard")}, {"tiles", Array({Int(1), Int(2)})}}), Str("main")})},
      {"unrelated", Str("x")},
  }));

  const ValueMap values = prefs.Values();
  std::vector<std::string> keys;
  for (const auto& e : values) keys.push_back(*e.key.string_if());
  EXPECT_EQ(keys, (std::vector<std::string>{"z21.host", "z21.port", "z21.offset", "z21.big",
                                            "z21.ratio", "z21.icloud.enabled", "corvane.blob",
                                            "corvane.lastSync", "switchboard.panels"}));
  EXPECT_EQ(*values.Find("z21.host"), Value("192.168.0.111"));
  EXPECT_EQ(values.Find("z21.port")->integer(), 21105);
  EXPECT_EQ(values.Find("z21.offset")->integer(), -42);
  EXPECT_EQ(values.Find("z21.big")->integer(), int64_t{1} << 40);
  EXPECT_EQ(*values.Find("z21.ratio"), Value(0.25));
  EXPECT_EQ(*values.Find("z21.icloud.enabled"), Value(true));
  EXPECT_EQ(*values.Find("corvane.blob"), Value(channel::Bytes{0, 1, 0xff}));

  // 600000000 s after 2001-01-01 is 1578307200 s after 1970-01-01. The binary format keeps
  // the fraction; XML writes whole seconds.
  const Value* date = values.Find("corvane.lastSync");
  ASSERT_TRUE(date && date->map_if());
  ASSERT_EQ(date->map_if()->size(), 1u);
  const Value* seconds = date->map_if()->Find("$date");
  ASSERT_TRUE(seconds && seconds->float64_if());
  EXPECT_EQ(*seconds->float64_if(), GetParam() == Format::kBinary ? 1578307200.5 : 1578307200.0);

  const Value panels(channel::ValueList{
      Map({{"name", Value("yard")},
           {"tiles", Value(channel::ValueList{Value::Integer(1), Value::Integer(2)})}}),
      Value("main")});
  EXPECT_EQ(*values.Find("switchboard.panels"), panels);

  // Every converted value survives the codec, so the reply can always be sent.
  const channel::Bytes encoded = channel::EncodeMessage(Value(values));
  EXPECT_TRUE(channel::DecodeMessage(encoded));
}

TEST_P(StoreFormatTest, ProbeCountsAndFlags) {
  LegacyPreferences prefs = Read(Dict({
      {"AppleLanguages", Array({Str("nl"), Str("en")})},
      {"z21.a", Data("12345")},
      {"z21.b", Data("678")},
      {"flutter.c", Data("not counted")},
      {"corvane.demo.isEnabled", Bool(true)},
      {"z21.icloud.enabled", Int(1)},  // not a boolean: false
      {"z21.appLanguageOverride", Str("de")},
  }));
  const ValueMap probe = prefs.Probe();
  EXPECT_EQ(*probe.Find("hasLegacyData"), Value(true));
  EXPECT_EQ(probe.Find("keyCount")->integer(), 5);
  EXPECT_EQ(probe.Find("byteCount")->integer(), 8);
  EXPECT_EQ(*probe.Find("storeDemo"), Value(true));
  EXPECT_EQ(*probe.Find("icloudKeyValue"), Value(false));
  EXPECT_EQ(*probe.Find("language"), Value("de"));
}

TEST_P(StoreFormatTest, LanguagesAloneAreNoLegacyData) {
  LegacyPreferences prefs = Read(Dict({{"AppleLanguages", Array({Str("nl")})},
                                       {"z21.appLanguageOverride", Str("")},
                                       {"flutter.z21.host", Str("x")}}));
  const ValueMap probe = prefs.Probe();
  EXPECT_EQ(*probe.Find("hasLegacyData"), Value(true)) << "the empty override is a legacy key";
  EXPECT_EQ(probe.Find("language"), nullptr) << "but no language";

  LegacyPreferences only = Read(Dict({{"AppleLanguages", Array({Str("nl")})}}));
  const ValueMap alone = only.Probe();
  EXPECT_EQ(*alone.Find("hasLegacyData"), Value(false));
  EXPECT_EQ(alone.Find("keyCount")->integer(), 0);
  EXPECT_EQ(alone.Find("language"), nullptr);
  EXPECT_EQ(only.Values().size(), 1u) << "readDefaults still returns it";
}

TEST_P(StoreFormatTest, DeepNestingReadsAsNullBelowTheLimit) {
  plist_t deep = Str("bottom");
  for (int i = 0; i < kMaxValueDepth + 20; ++i) deep = Array({deep});
  LegacyPreferences prefs = Read(Dict({{"z21.deep", deep}, {"z21.flat", Int(7)}}));
  const ValueMap values = prefs.Values();
  EXPECT_EQ(values.Find("z21.flat")->integer(), 7);
  int depth = 0;
  const Value* v = values.Find("z21.deep");
  while (v && v->list_if() && !v->list_if()->empty()) {
    v = &v->list_if()->front();
    ++depth;
  }
  ASSERT_TRUE(v);
  EXPECT_TRUE(v->is_null());
  EXPECT_EQ(depth, kMaxValueDepth);
  EXPECT_TRUE(channel::DecodeMessage(channel::EncodeMessage(Value(values))));
}

TEST_P(StoreFormatTest, BackupRoundTripsTheLegacyKeysOnly) {
  LegacyPreferences prefs = Read(Dict({{"z21.host", Str("h")},
                                       {"flutter.x", Int(1)},
                                       {"corvane.when", Date(1000)},
                                       {"z21.list", Array({Int(-1), Real(1.5), Data("d")})}}));
  const std::vector<uint8_t> backup = prefs.Serialize();
  LegacyPreferences again = LegacyPreferences::Parse(backup.data(), backup.size());
  EXPECT_EQ(again.Values(), prefs.Values());
  EXPECT_EQ(again.size(), 3u);
}

INSTANTIATE_TEST_SUITE_P(BinaryAndXml, StoreFormatTest,
                         ::testing::Values(Format::kBinary, Format::kXml), [](const auto& info) {
                           return info.param == Format::kBinary ? "Binary" : "Xml";
                         });

// Every one of these is "no legacy data": no keys, and a probe that still answers.
TEST(LegacyStore, UnreadableStoresHoldNoKeys) {
  const std::vector<uint8_t> good = Serialize(Dict({{"z21.a", Int(1)}}), Format::kBinary);
  const std::vector<uint8_t> xml_good = Serialize(Dict({{"z21.a", Int(1)}}), Format::kXml);
  std::vector<std::pair<std::string, std::vector<uint8_t>>> cases = {
      {"empty", {}},
      {"garbage", {'n', 'o', 't', ' ', 'a', ' ', 'p', 'l', 'i', 's', 't'}},
      {"binary truncated", std::vector<uint8_t>(good.begin(), good.end() - 10)},
      {"binary header only", std::vector<uint8_t>(good.begin(), good.begin() + 8)},
      {"xml truncated",
       std::vector<uint8_t>(xml_good.begin(), xml_good.begin() + xml_good.size() / 2)},
      {"array root", Serialize(Array({Str("z21.a")}), Format::kBinary)},
      {"string root", Serialize(Str("z21.a"), Format::kXml)},
  };
  for (auto& [name, bytes] : cases) {
    LegacyPreferences prefs = LegacyPreferences::Parse(bytes.data(), bytes.size());
    EXPECT_EQ(prefs.size(), 0u) << name;
    EXPECT_EQ(*prefs.Probe().Find("hasLegacyData"), Value(false)) << name;
  }
}

TEST(LegacyStore, KeysWithANulAreRefusedBeforeLibplistAssertsOnThem) {
  // libplist aborts the process when asked for such a key; the store counts as unreadable.
  std::vector<uint8_t> binary = Serialize(Dict({{"z21.ab", Int(1)}}), Format::kBinary);
  const auto key =
      std::search(binary.begin(), binary.end(), std::begin("z21.ab"), std::end("z21.ab") - 1);
  ASSERT_NE(key, binary.end());
  key[4] = 0;
  const std::string xml_raw =
      std::string("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>z21.") + '\0' +
      "</key><true/></dict></plist>";
  const std::vector<std::string> xml = {
      xml_raw,
      "<plist version=\"1.0\"><dict><key>z21.&#0;</key><true/></dict></plist>",
      "<plist version=\"1.0\"><dict><key>z21.&#x000;</key><true/></dict></plist>",
  };
  EXPECT_EQ(LegacyPreferences::Parse(binary.data(), binary.size()).size(), 0u);
  for (const std::string& text : xml) {
    const auto* p = reinterpret_cast<const uint8_t*>(text.data());
    EXPECT_EQ(LegacyPreferences::Parse(p, text.size()).size(), 0u) << text;
  }
}

TEST(LegacyStore, MalformedUtf8BecomesReplacementCharacters) {
  // Written by hand: libplist would not write the malformed bytes.
  const std::string xml =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
      "<key>z21.caf\xe9</key><string>bad \xff byte</string>"
      "<key>z21.ok</key><string>caf\xc3\xa9</string></dict></plist>";
  const std::vector<uint8_t> bytes(xml.begin(), xml.end());
  const ValueMap values = LegacyPreferences::Parse(bytes.data(), bytes.size()).Values();
  ASSERT_EQ(values.size(), 2u);
  EXPECT_EQ(values.entries()[0].key, Value("z21.caf\xef\xbf\xbd"));
  EXPECT_EQ(values.entries()[0].value, Value("bad \xef\xbf\xbd byte"));
  EXPECT_EQ(values.entries()[1].value, Value("caf\xc3\xa9"));

  // libplist's binary writer cannot take malformed strings: the backup holds the cleaned ones.
  LegacyPreferences prefs = LegacyPreferences::Parse(bytes.data(), bytes.size());
  const std::vector<uint8_t> backup = prefs.Serialize();
  EXPECT_EQ(LegacyPreferences::Parse(backup.data(), backup.size()).Values(), values);
}

// A binary list whose objects refer to each other: object i is an array holding object i+1
// twice, so the file is tiny but names a tree of 2^levels leaves.
std::vector<uint8_t> SharedReferenceList(int levels) {
  std::vector<uint8_t> out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  std::vector<uint64_t> offsets;
  const int objects = levels + 1;
  for (int i = 0; i < levels; ++i) {
    offsets.push_back(out.size());
    out.insert(out.end(), {0xA2, static_cast<uint8_t>(i + 1), static_cast<uint8_t>(i + 1)});
  }
  offsets.push_back(out.size());
  out.push_back(0x10);  // integer 7
  out.push_back(7);
  const uint64_t table = out.size();
  for (uint64_t o : offsets) {
    out.push_back(static_cast<uint8_t>(o >> 8));
    out.push_back(static_cast<uint8_t>(o));
  }
  uint8_t trailer[32] = {};
  trailer[6] = 2;  // offset size
  trailer[7] = 1;  // reference size
  trailer[15] = static_cast<uint8_t>(objects);
  trailer[23] = 0;  // root
  trailer[30] = static_cast<uint8_t>(table >> 8);
  trailer[31] = static_cast<uint8_t>(table);
  out.insert(out.end(), trailer, trailer + 32);
  return out;
}

TEST(LegacyStore, SharedReferencesAreCountedBeforeParsing) {
  const std::vector<uint8_t> small = SharedReferenceList(4);
  EXPECT_TRUE(BinaryPropertyListWithinBounds(small.data(), small.size()));
  Plist parsed = ParsePropertyList(small.data(), small.size());
  ASSERT_TRUE(parsed) << "the walk must accept what libplist reads";

  // 2^40 leaves from a 150-byte file: refused without libplist ever expanding it.
  const std::vector<uint8_t> bomb = SharedReferenceList(40);
  EXPECT_FALSE(BinaryPropertyListWithinBounds(bomb.data(), bomb.size()));
  EXPECT_FALSE(ParsePropertyList(bomb.data(), bomb.size()));
}

TEST(LegacyStore, CyclesAndDanglingReferencesAreRefused) {
  std::vector<uint8_t> cycle = SharedReferenceList(3);
  cycle[8 + 3 * 2 + 1] = 0;  // the last array points back at the root
  EXPECT_FALSE(BinaryPropertyListWithinBounds(cycle.data(), cycle.size()));
  std::vector<uint8_t> dangling = SharedReferenceList(3);
  dangling[9] = 200;  // no such object
  EXPECT_FALSE(BinaryPropertyListWithinBounds(dangling.data(), dangling.size()));
}

TEST(LegacyStore, XmlNestedPastTheParserLimitIsRefused) {
  std::string xml = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>z21.a</key>";
  for (int i = 0; i < kMaxPropertyListDepth + 1; ++i) xml += "<array>";
  for (int i = 0; i < kMaxPropertyListDepth + 1; ++i) xml += "</array>";
  xml += "</dict></plist>";
  const auto* p = reinterpret_cast<const uint8_t*>(xml.data());
  EXPECT_FALSE(ParsePropertyList(p, xml.size()));
  EXPECT_EQ(LegacyPreferences::Parse(p, xml.size()).size(), 0u);
}

}  // namespace
}  // namespace corvane::legacy::testing
