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
  EXPECT_EQ(outcome.service.addresses, std::vector<std::string>{"192.168.1.5"});
  // Losing a sighting that is not the best one changes nothing a listener sees.
  EXPECT_EQ(table.Remove(At("Z", 2, 1)).change, Change::kNone);
  EXPECT_EQ(table.Remove(At("Z", 5)).service.host, "2001:db8::4");

  // A sighting is one interface with one protocol (interface 5 has two); the same name under
  // another type is another service.
  EXPECT_EQ(table.Remove(At("Z", 3, 1)).change, Change::kNone);
  const Sighting tcp{"_z21._tcp", "Z", "local", 5, 0};
  EXPECT_EQ(table.Resolve(tcp, Endpoint{"10.0.0.1", 21106, ""}, "t").change, Change::kFound);
  EXPECT_EQ(table.size(), 2u);
}

// Among equally good sightings the host already reported stays: only its own sighting leaving
// (or changing) is news.
TEST(ServiceTableTest, TheReportedHostStaysWhileItsSightingDoes) {
  ServiceTable table;
  EXPECT_EQ(table.Resolve(At("Z", 1), Endpoint{"10.0.0.1", 1, ""}, "t").change, Change::kFound);
  EXPECT_EQ(table.Resolve(At("Z", 2), Endpoint{"10.0.1.1", 1, ""}, "t").change, Change::kNone);
  auto moved = table.Remove(At("Z", 1));
  EXPECT_EQ(moved.change, Change::kUpdated);
  EXPECT_EQ(moved.service.host, "10.0.1.1");
  // The earlier sighting returns: the host shown now stays.
  EXPECT_EQ(table.Resolve(At("Z", 1), Endpoint{"10.0.0.1", 1, ""}, "t").change, Change::kNone);
  EXPECT_EQ(table.List().front().host, "10.0.1.1");
}

TEST(ServiceTableTest, ServicesAndSightingsAreBounded) {
  ServiceTable table;
  for (size_t i = 0; i < ServiceTable::kMaxServices + 5; ++i) {
    table.Resolve(At("S" + std::to_string(i), 1), Endpoint{"10.0.0.1", 1, ""}, "t");
  }
  EXPECT_EQ(table.size(), ServiceTable::kMaxServices);
  const auto kept = static_cast<int32_t>(ServiceTable::kMaxSightingsPerService);
  for (int32_t i = 2; i < kept + 10; ++i) {
    table.Resolve(At("S0", i), Endpoint{"10.0.0.1", 1, ""}, "t");
  }
  // Only the sightings it kept hold the service: it is lost with the last of them.
  for (int32_t i = 1; i < kept; ++i) EXPECT_EQ(table.Remove(At("S0", i)).change, Change::kNone);
  EXPECT_EQ(table.Remove(At("S0", kept)).change, Change::kLost);
}

}  // namespace
}  // namespace corvane::discovery
