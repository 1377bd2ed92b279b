// SPDX-License-Identifier: Apache-2.0
#include "relay_graph.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "cot_sender.h"
#include "owned_fd.h"
#include "reception.h"
#include "value_text.h"

namespace mdencoder {
namespace {

// --- Addresses ---------------------------------------------------------------------------------------

std::optional<Address> FromSystem(const sockaddr* address) {
  if (address == nullptr) return std::nullopt;
  Address result;
  result.family = address->sa_family;
  if (address->sa_family == AF_INET) {
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, address, sizeof(ipv4));
    std::memcpy(result.bytes.data(), &ipv4.sin_addr, sizeof(ipv4.sin_addr));
    return result;
  }
  if (address->sa_family != AF_INET6) return std::nullopt;
  sockaddr_in6 ipv6{};
  std::memcpy(&ipv6, address, sizeof(ipv6));
  std::memcpy(result.bytes.data(), &ipv6.sin6_addr, sizeof(ipv6.sin6_addr));
  return result;
}

// An IPv6 socket sends to ::ffff:1.2.3.4 over IPv4.
Address Unmapped(const Address& address) {
  constexpr BYTE kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  if (address.family != AF_INET6 || std::memcmp(address.bytes.data(), kMapped, sizeof(kMapped)) != 0) return address;
  Address ipv4;
  ipv4.family = AF_INET;
  std::copy(address.bytes.begin() + sizeof(kMapped), address.bytes.end(), ipv4.bytes.begin());
  return ipv4;
}

Address Destination(const MDATA_RELAY_CFG& relay) {
  Address address;
  address.family = relay.iDestAddressFamily;
  std::memcpy(address.bytes.data(), relay.acDestAddress, sizeof(relay.acDestAddress));
  return Unmapped(address);
}

bool IsSame(const Address& one, const Address& other) {
  const size_t size = one.family == AF_INET ? 4 : 16;
  return one.family == other.family && std::memcmp(one.bytes.data(), other.bytes.data(), size) == 0;
}

// Returns whether a datagram to this address stays on this machine.
bool IsLocal(const Address& address, const Machine& machine) {
  const auto& bytes = address.bytes;
  constexpr BYTE kBroadcast[4] = {255, 255, 255, 255};
  if (address.family == AF_INET && (bytes[0] == 127 || std::memcmp(bytes.data(), kBroadcast, 4) == 0)) return true;
  const size_t size = address.family == AF_INET ? 4 : 16;
  // 0.0.0.0 and :: are this machine, and so is ::1.
  if (std::all_of(bytes.begin(), bytes.begin() + size - 1, [](BYTE byte) { return byte == 0; })) {
    if (bytes[size - 1] <= (address.family == AF_INET ? 0 : 1)) return true;
  }
  return std::any_of(machine.own.begin(), machine.own.end(), [&](const Address& own) { return IsSame(own, address); });
}

// --- Reception ---------------------------------------------------------------------------------------

Address ConfiguredAddress(const SourceSettings& source) {
  const MDATA_INET_SRC_CFG network = ReceptionOf(source.record, source.tak);
  Address address;
  address.family = network.iSrcAddressFamily;
  std::memcpy(address.bytes.data(), network.acSrcAddress, sizeof(network.acSrcAddress));
  return address;
}

bool ReceivesFamily(const SourceSettings& source, int32_t family, DWORD capabilities) {
  const DWORD needed = family == AF_INET ? METADATALIB_CAPS_IPV4_SUPPORT : METADATALIB_CAPS_IPV6_SUPPORT;
  const int32_t configured = ReceptionOf(source.record, source.tak).iSrcAddressFamily;
  // The socket of a TAK network is this program's own.
  return (source.tak || (capabilities & needed) != 0) && (configured == 0 || configured == family);
}

// Returns whether the source's socket gets what this machine sends to the address. A source of a group gets that group
// only; any other source gets every group that some program of the machine has joined.
bool IsReached(const SourceSettings& source, const Address& destination, const Machine& machine) {
  if (!destination.IsMulticast()) return IsLocal(destination, machine);
  const std::vector<Address> groups = GroupsOf(source.record, source.reception, source.tak);
  return groups.empty() ||
         std::any_of(groups.begin(), groups.end(), [&](const Address& group) { return IsSame(group, destination); });
}

// Returns whether the library accepts this machine as the sender. It filters by addresses other than 0.x.x.x, groups
// and reserved ones.
bool AcceptsThisMachine(const SourceSettings& source, const Address& destination, const Machine& machine) {
  const Address wanted = ConfiguredAddress(source);
  const bool acceptsAll = wanted.family == AF_INET
                              ? wanted.bytes[0] == 0 || wanted.bytes[0] >= 224
                              : std::all_of(wanted.bytes.begin(), wanted.bytes.end(), [](BYTE b) { return b == 0; });
  if (acceptsAll) return true;
  const auto sender = machine.senderTo(destination);
  return sender ? IsSame(*sender, wanted) : IsLocal(wanted, machine);
}

bool Leads(const MDATA_RELAY_CFG& relay, const SourceSettings& source, DWORD capabilities, const Machine& machine) {
  const MDATA_SRC_CFG& record = source.record;
  if (relay.iDestAddressFamily == 0) return false;  // the address of its host is not known yet
  if (record.enInputType != MDATA_INPUT_NETWORK) return false;
  if (ReceptionOf(record, source.tak).usUDPPort != relay.usUDPPort) return false;
  const Address destination = Destination(relay);
  return ReceivesFamily(source, destination.family, capabilities) && IsReached(source, destination, machine) &&
         AcceptsThisMachine(source, destination, machine);
}

// --- Chains ------------------------------------------------------------------------------------------

constexpr UINT32 kCotOut = MDATA_MAX_RELAYS;  // stands for a relay to where the events go

struct Edge {
  size_t from;
  UINT32 relay;
  size_t to;
};

// Returns where the events of a source go as datagrams, unless that is a name.
std::optional<MDATA_RELAY_CFG> EventsOf(const SourceSettings& source) {
  const auto destination = ParseCotDestination(source.cotOut);
  if (!destination || destination->isStream) return std::nullopt;
  const auto address = ParseAddress(destination->host.substr(0, destination->host.find('%')));
  const auto port = value_text::ParseWholeNumber(destination->port, 1, 65535);
  if (!address || !port) return std::nullopt;
  MDATA_RELAY_CFG relay{};
  relay.iDestAddressFamily = address->family;
  relay.usUDPPort = static_cast<USHORT>(*port);
  std::memcpy(relay.acDestAddress, address->bytes.data(), sizeof(relay.acDestAddress));
  return relay;
}

// Returns whether a source makes something of the events of another one, or passes them on.
bool TakesEvents(const SourceSettings& source, const SourceSettings& sender) {
  const bool isOther = source.tak && !source.tak->aircraft.empty() && source.tak->aircraft != sender.cotOutUid;
  return source.record.nNumOfRelays != 0 || (source.record.enDataType == MDATA_DATA_COT && !isOther);
}

std::string EdgeText(const SourceSettings& source, UINT32 relay) {
  return relay == kCotOut ? source.cotOut : DestinationText(source.record.Relays[relay]);
}

std::vector<Edge> FindEdges(const Config& config, const Machine& machine) {
  std::vector<Edge> edges;
  for (size_t from = 0; from < config.sources.size(); ++from) {
    const MDATA_SRC_CFG& record = config.sources[from].record;
    for (UINT32 relay = 0; relay < record.nNumOfRelays; ++relay) {
      for (size_t to = 0; to < config.sources.size(); ++to) {
        if (Leads(record.Relays[relay], config.sources[to], config.encoder.capabilities, machine)) {
          edges.push_back({from, relay, to});
        }
      }
    }
    const auto events = EventsOf(config.sources[from]);
    for (size_t to = 0; events && to < config.sources.size(); ++to) {
      if (TakesEvents(config.sources[to], config.sources[from]) &&
          Leads(*events, config.sources[to], config.encoder.capabilities, machine)) {
        edges.push_back({from, kCotOut, to});
      }
    }
  }
  return edges;
}

// Returns the shortest chain of relays from a source back to itself, or an empty one.
std::vector<Edge> FindChain(const std::vector<Edge>& edges, size_t source, size_t sources) {
  std::vector<std::optional<Edge>> reachedBy(sources);
  std::vector<size_t> front = {source};
  while (!front.empty() && !reachedBy[source]) {
    std::vector<size_t> next;
    for (const Edge& edge : edges) {
      if (reachedBy[edge.to] || std::find(front.begin(), front.end(), edge.from) == front.end()) continue;
      reachedBy[edge.to] = edge;
      next.push_back(edge.to);
    }
    front = std::move(next);
  }
  std::vector<Edge> chain;
  if (!reachedBy[source]) return chain;
  size_t at = source;
  do {
    chain.push_back(*reachedBy[at]);
    at = chain.back().from;
  } while (at != source);
  std::reverse(chain.begin(), chain.end());
  return chain;
}

[[noreturn]] void RefuseLoop(const Config& config, const std::vector<Edge>& chain) {
  const SourceSettings& source = config.sources[chain.front().from];
  std::string path = "[" + source.name + "]";
  for (const Edge& edge : chain) {
    path += " -> " + EdgeText(config.sources[edge.from], edge.relay);
    path += " -> [" + config.sources[edge.to].name + "]";
  }
  const UINT32 relay = chain.front().relay;
  const bool isEvents = relay == kCotOut;
  throw ConfigError("[" + source.name + "] " +
                    value_text::Refusal(isEvents ? "cot_out" : source.relayKeys.at(relay),
                                        isEvents ? source.cotOut : RelayText(source, relay),
                                        "a destination that does not lead back to its source") +
                    ": " + path);
}

}  // namespace

Machine ThisMachine() {
  Machine machine;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) == 0) {
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
      if (const auto address = FromSystem(entry->ifa_addr)) machine.own.push_back(*address);
      if ((entry->ifa_flags & IFF_BROADCAST) == 0) continue;  // the field is the peer's address then
      if (const auto broadcast = FromSystem(entry->ifa_broadaddr)) machine.own.push_back(*broadcast);
    }
  }
  machine.senderTo = [](const Address& destination) -> std::optional<Address> {
    MDATA_RELAY_CFG relay{};
    relay.iDestAddressFamily = destination.family;
    relay.usUDPPort = 9;  // any port: connecting a datagram socket sends nothing
    std::memcpy(relay.acDestAddress, destination.bytes.data(), sizeof(relay.acDestAddress));
    const common::OwnedFD socket = ConnectTo(relay);
    if (!socket.IsOpen()) return std::nullopt;
    sockaddr_storage local{};
    socklen_t size = sizeof(local);
    if (getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&local), &size) != 0) return std::nullopt;
    return FromSystem(reinterpret_cast<const sockaddr*>(&local));
  };
  return machine;
}

void CheckRelays(const Config& config, const Machine& machine) {
  const std::vector<Edge> edges = FindEdges(config, machine);
  for (size_t source = 0; source < config.sources.size(); ++source) {
    const std::vector<Edge> chain = FindChain(edges, source, config.sources.size());
    if (!chain.empty()) RefuseLoop(config, chain);
  }
}

}  // namespace mdencoder
