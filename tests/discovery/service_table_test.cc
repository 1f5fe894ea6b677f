// Merging sightings into services: which address leads, what is one service, and the bounds.
#include "discovery/service_table.h"

#include <gtest/gtest.h>

namespace corvane::discovery {
namespace {

using Change = ServiceTable::Change;

Sighting At(const std::string& name, int32_t interface, int32_t protocol = 0) {
  return Sighting{"_z21._udp", name, "local", interface, protocol};
}

// Routable IPv4 leads, then IPv6, then link-local (IPv4 first), then a bare host name. Among
// equally good sightings the one shown stays while it is there. A sighting is one
// interface with one protocol, and the same name under another type is another service.
TEST(ServiceTableTest, TheBestSightingLeadsAndOnlyItsChangesAreNews) {
  ServiceTable table;
  const std::tuple<Sighting, Endpoint, Change, std::string> steps[] = {
      {At("Z", 1), {"", 1, "z.local"}, Change::kFound, "z.local"},
      {At("Z", 2, 1), {"fe80::2%eth0", 2, ""}, Change::kUpdated, "fe80::2%eth0"},
      {At("Z", 3), {"169.254.7.7", 3, ""}, Change::kUpdated, "169.254.7.7"},
      {At("Z", 5, 1), {"2001:db8::4", 4, ""}, Change::kUpdated, "2001:db8::4"},
      {At("Z", 5), {"192.168.1.5", 5, ""}, Change::kUpdated, "192.168.1.5"},
      {At("Z", 6), {"10.0.0.1", 5, ""}, Change::kNone, "192.168.1.5"},  // the shown one stays
  };
  for (const auto& [at, endpoint, change, host] : steps) {
    EXPECT_EQ(table.Resolve(at, endpoint, "_z21._udp.").change, change) << endpoint.address;
    EXPECT_EQ(table.List().front().host, host);
  }
  EXPECT_EQ(table.List().front().addresses, std::vector<std::string>{"192.168.1.5"});
  EXPECT_EQ(table.Remove(At("Z", 2, 1)).change, Change::kNone);  // not the shown one
  EXPECT_EQ(table.Remove(At("Z", 3, 1)).change, Change::kNone);  // never seen
  auto moved = table.Remove(At("Z", 5));
  EXPECT_EQ(std::pair(moved.change, moved.service.host),
            std::pair(Change::kUpdated, std::string("10.0.0.1")));
  EXPECT_EQ(table.Resolve(At("Z", 5), {"192.168.1.5", 5, ""}, "t").change, Change::kNone);
  EXPECT_EQ(table.Resolve({"_z21._tcp", "Z", "local", 5, 0}, {"10.0.0.1", 1, ""}, "t").change,
            Change::kFound);
  EXPECT_EQ(table.size(), 2u);
}

TEST(ServiceTableTest, ServicesAndSightingsAreBounded) {
  ServiceTable table;
  for (size_t i = 0; i < ServiceTable::kMaxServices + 5; ++i) {
    table.Resolve(At("S" + std::to_string(i), 1), Endpoint{"10.0.0.1", 1, ""}, "t");
  }
  EXPECT_EQ(table.size(), ServiceTable::kMaxServices);
  const auto kept = static_cast<int32_t>(ServiceTable::kMaxSightingsPerService);
  for (int32_t i = 2; i < kept + 10; ++i) table.Resolve(At("S0", i), {"10.0.0.1", 1, ""}, "t");
  // Only the sightings it kept hold the service: it is lost with the last of them.
  for (int32_t i = 1; i < kept; ++i) EXPECT_EQ(table.Remove(At("S0", i)).change, Change::kNone);
  EXPECT_EQ(table.Remove(At("S0", kept)).change, Change::kLost);
}

}  // namespace
}  // namespace corvane::discovery
