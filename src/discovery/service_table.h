// The services currently present, merged from their sightings. One service is one DNS-SD
// instance, keyed by instance name + browse type + domain: the same instance announced on
// several interfaces or over IPv4 and IPv6 is one service, reported at the best address of its
// sightings (IPv4 first: the UDP transport speaks IPv4), with "addresses" = [that address]. It
// is found with its first resolved sighting and lost with its last.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "channel/value.h"
#include "discovery/dns_sd_backend.h"

namespace corvane::discovery {

struct ResolvedService {
  std::string name;
  std::string type;
  std::string host;
  int64_t port = 0;
  std::vector<std::string> addresses;

  // {"name", "type", "host", "port", "addresses"}
  channel::Value ToValue() const;
  friend bool operator==(const ResolvedService&, const ResolvedService&) = default;
};

class ServiceTable {
 public:
  // Bounds: a busy network cannot grow the table without limit.
  static constexpr size_t kMaxServices = 512;
  static constexpr size_t kMaxSightingsPerService = 32;

  enum class Change {
    kNone,     // nothing a listener would see changed
    kFound,    // a new service
    kUpdated,  // a known service's host or port changed
    kLost,     // its last sighting is gone
  };
  struct Outcome {
    Change change = Change::kNone;
    ResolvedService service;  // the service after the change (before it, for kLost)
  };

  // `reported_type` is the type string the service is reported under.
  Outcome Resolve(const Sighting& sighting, const Endpoint& endpoint,
                  const std::string& reported_type);
  Outcome Remove(const Sighting& sighting);
  void Clear();

  // In the order they were first found.
  std::vector<ResolvedService> List() const;
  size_t size() const { return services_.size(); }

 private:
  struct Seen {
    int32_t interface;
    int32_t protocol;
    Endpoint endpoint;
    uint64_t order;  // when it first resolved: ties in preference go to the earliest
  };
  struct Entry {
    uint64_t order;
    std::string name;
    std::string reported_type;
    std::vector<Seen> seen;
    ResolvedService merged;
  };

  static std::string KeyOf(const Sighting& s);
  // The service as its sightings show it. Among equally good sightings the one already
  // reported stays, so a sighting that comes or goes elsewhere changes nothing a listener sees.
  static ResolvedService Merge(const Entry& entry);

  std::map<std::string, Entry> services_;
  uint64_t next_order_ = 0;
};

}  // namespace corvane::discovery
