// Merging sightings into services: which address leads, what is one service, and the bounds.
#include "discovery/service_table.h"

#include <gtest/gtest.h>

namespace corvane::discovery {
namespace {

using Change = ServiceTable::Change;

Sighting At(const std::string& name, int32_t interface, int32_t protocol = 0) {
  return Sighting{"_z21._udp", name, "local", interface, protocol};
}

TEST(ServiceTableTest, SightingsMergeRoutableIPv4FirstThenIPv6ThenLinkLocalThenNames) {
  ServiceTable table;
  auto named = table.Resolve(At("Z", 1), Endpoint{"", 1, "z.local"}, "_z21._udp.");
  EXPECT_EQ(named.change, Change::kFound);
  EXPECT_EQ(named.service.host, "z.local");
  EXPECT_TRUE(named.service.addresses.empty());
  table.Resolve(At("Z", 2, 1), Endpoint{"fe80::2%eth0", 2, ""}, "_z21._udp.");
  table.Resolve(At("Z", 3), Endpoint{"169.254.7.7", 3, ""}, "_z21._udp.");
  table.Resolve(At("Z", 5, 1), Endpoint{"2001:db8::4", 4, ""}, "_z21._udp.");
  auto outcome = table.Resolve(At("Z", 5), Endpoint{"192.168.1.5", 5, ""}, "_z21._udp.");
  EXPECT_EQ(outcome.change, Change::kUpdated);
  EXPECT_EQ(outcome.service.host, "192.168.1.5");
  EXPECT_EQ(outcome.service.port, 5);
  EXPECT_EQ(outcome.service.addresses, (std::vector<std::string>{"192.168.1.5", "2001:db8::4",
                                                                 "169.254.7.7", "fe80::2%eth0"}));

  // A sighting is one interface with one protocol (interface 5 has two); the same name under
  // another type is another service.
  EXPECT_EQ(table.Remove(At("Z", 3, 1)).change, Change::kNone);
  const Sighting tcp{"_z21._tcp", "Z", "local", 5, 0};
  EXPECT_EQ(table.Resolve(tcp, Endpoint{"10.0.0.1", 21106, ""}, "t").change, Change::kFound);
  EXPECT_EQ(table.size(), 2u);
}

TEST(ServiceTableTest, ServicesAndSightingsAreBounded) {
  ServiceTable table;
  for (size_t i = 0; i < ServiceTable::kMaxServices + 5; ++i) {
    table.Resolve(At("S" + std::to_string(i), 1), Endpoint{"10.0.0.1", 1, ""}, "t");
  }
  EXPECT_EQ(table.size(), ServiceTable::kMaxServices);
  for (int32_t i = 2; i < static_cast<int32_t>(ServiceTable::kMaxSightingsPerService) + 10; ++i) {
    table.Resolve(At("S0", i), Endpoint{"10.0.1." + std::to_string(i), 1, ""}, "t");
  }
  EXPECT_EQ(table.List().front().addresses.size(), ServiceTable::kMaxSightingsPerService);
}

}  // namespace
}  // namespace corvane::discovery
