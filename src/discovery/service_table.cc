#include "discovery/service_table.h"

#include <arpa/inet.h>

#include <algorithm>

namespace corvane::discovery {

namespace {

// Which address a service is best reached at, lower first. IPv4 leads because the host's UDP
// transport speaks IPv4; link-local addresses trail because they work on one link only.
int Preference(const Endpoint& e) {
  if (e.address.empty()) return 5;  // only a host name
  in_addr v4{};
  if (inet_pton(AF_INET, e.address.c_str(), &v4) == 1) {
    const uint32_t a = ntohl(v4.s_addr);
    return (a >> 16) == 0xa9fe ? 2 : 0;  // 169.254/16
  }
  const std::string bare = e.address.substr(0, e.address.find('%'));
  in6_addr v6{};
  if (inet_pton(AF_INET6, bare.c_str(), &v6) == 1) {
    return (v6.s6_addr[0] == 0xfe && (v6.s6_addr[1] & 0xc0) == 0x80) ? 3 : 1;
  }
  return 4;
}

}  // namespace

channel::Value ResolvedService::ToValue() const {
  channel::ValueList list;
  list.reserve(addresses.size());
  for (const auto& a : addresses) list.emplace_back(a);
  channel::ValueMap map;
  map.Set("name", channel::Value(name));
  map.Set("type", channel::Value(type));
  map.Set("host", channel::Value(host));
  map.Set("port", channel::Value::Integer(port));
  map.Set("addresses", channel::Value(std::move(list)));
  return channel::Value(std::move(map));
}

std::string ServiceTable::KeyOf(const Sighting& s) {
  std::string key;
  key.reserve(s.name.size() + s.type.size() + s.domain.size() + 2);
  key.append(s.name).push_back('\0');
  key.append(s.type).push_back('\0');
  key.append(s.domain);
  return key;
}

ResolvedService ServiceTable::Merge(const Entry& entry) {
  std::vector<const Seen*> order;
  for (const auto& s : entry.seen) order.push_back(&s);
  const ResolvedService& shown = entry.merged;
  auto is_shown = [&shown](const Seen* s) {
    const Endpoint& e = s->endpoint;
    return (e.address.empty() ? e.host_name : e.address) == shown.host && e.port == shown.port;
  };
  std::stable_sort(order.begin(), order.end(), [&](const Seen* a, const Seen* b) {
    const int pa = Preference(a->endpoint), pb = Preference(b->endpoint);
    if (pa != pb) return pa < pb;
    if (is_shown(a) != is_shown(b)) return is_shown(a);
    return a->order < b->order;
  });
  ResolvedService out;
  out.name = entry.name;
  out.type = entry.reported_type;
  if (order.empty()) return out;
  const Endpoint& best = order.front()->endpoint;
  out.host = best.address.empty() ? best.host_name : best.address;
  out.port = best.port;
  if (!best.address.empty()) out.addresses.push_back(best.address);
  return out;
}

ServiceTable::Outcome ServiceTable::Resolve(const Sighting& sighting, const Endpoint& endpoint,
                                            const std::string& reported_type) {
  const std::string key = KeyOf(sighting);
  auto it = services_.find(key);
  if (it == services_.end()) {
    if (services_.size() >= kMaxServices) return {};
    Entry entry{next_order_++, sighting.name, reported_type, {}, {}};
    entry.seen.push_back({sighting.interface, sighting.protocol, endpoint, next_order_++});
    entry.merged = Merge(entry);
    it = services_.emplace(key, std::move(entry)).first;
    return {Change::kFound, it->second.merged};
  }
  Entry& entry = it->second;
  auto seen = std::find_if(entry.seen.begin(), entry.seen.end(), [&](const Seen& s) {
    return s.interface == sighting.interface && s.protocol == sighting.protocol;
  });
  if (seen != entry.seen.end()) {
    seen->endpoint = endpoint;
  } else {
    if (entry.seen.size() >= kMaxSightingsPerService) return {};
    entry.seen.push_back({sighting.interface, sighting.protocol, endpoint, next_order_++});
  }
  ResolvedService merged = Merge(entry);
  if (merged == entry.merged) return {};
  entry.merged = std::move(merged);
  return {Change::kUpdated, entry.merged};
}

ServiceTable::Outcome ServiceTable::Remove(const Sighting& sighting) {
  auto it = services_.find(KeyOf(sighting));
  if (it == services_.end()) return {};
  Entry& entry = it->second;
  auto seen = std::find_if(entry.seen.begin(), entry.seen.end(), [&](const Seen& s) {
    return s.interface == sighting.interface && s.protocol == sighting.protocol;
  });
  if (seen == entry.seen.end()) return {};
  entry.seen.erase(seen);
  if (entry.seen.empty()) {
    Outcome lost{Change::kLost, std::move(entry.merged)};
    services_.erase(it);
    return lost;
  }
  ResolvedService merged = Merge(entry);
  if (merged == entry.merged) return {};
  entry.merged = std::move(merged);
  return {Change::kUpdated, entry.merged};
}

void ServiceTable::Clear() { services_.clear(); }

std::vector<ResolvedService> ServiceTable::List() const {
  std::vector<const Entry*> entries;
  entries.reserve(services_.size());
  for (const auto& [key, entry] : services_) entries.push_back(&entry);
  std::sort(entries.begin(), entries.end(),
            [](const Entry* a, const Entry* b) { return a->order < b->order; });
  std::vector<ResolvedService> out;
  out.reserve(entries.size());
  for (const Entry* e : entries) out.push_back(e->merged);
  return out;
}

}  // namespace corvane::discovery
