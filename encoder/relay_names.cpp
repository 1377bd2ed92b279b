// SPDX-License-Identifier: Apache-2.0
#include "relay_names.h"

#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "values.h"

namespace mdencoder {
namespace {

constexpr std::chrono::seconds kFirstNamePause{2};
constexpr std::chrono::seconds kLongestNamePause{30};
constexpr std::chrono::seconds kUsualTime{2};  // that an answer takes

// Returns the address if the library can send to it: the interface of a link-local one is the same for all relays.
std::optional<Address> AddressFor(const HostAddress& host, bool isIPv4, const std::string& interface) {
  Address address;
  address.family = host.address.ss_family;
  if (address.family == AF_INET) {
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, &host.address, sizeof(ipv4));
    std::memcpy(address.bytes.data(), &ipv4.sin_addr, sizeof(ipv4.sin_addr));
    return address;
  }
  if (address.family != AF_INET6 || isIPv4) return std::nullopt;
  sockaddr_in6 ipv6{};
  std::memcpy(&ipv6, &host.address, sizeof(ipv6));
  if (ipv6.sin6_scope_id != 0 && ipv6.sin6_scope_id != if_nametoindex(interface.c_str())) return std::nullopt;
  std::memcpy(address.bytes.data(), &ipv6.sin6_addr, sizeof(ipv6.sin6_addr));
  return address;
}

bool HasAddress(const MDATA_RELAY_CFG& relay, const Address& address) {
  return relay.iDestAddressFamily == address.family &&
         std::memcmp(relay.acDestAddress, address.bytes.data(), sizeof(relay.acDestAddress)) == 0;
}

}  // namespace

NameQuestion AskSystem(const std::string& host, uint16_t port) {
  const auto resolver = std::make_shared<Resolver>();
  resolver->Ask(host, port, SOCK_DGRAM);
  return {[resolver] { return resolver->Take(); },
          [resolver](std::chrono::milliseconds most) {
            pollfd ready = {resolver->Descriptor(), POLLIN, 0};
            poll(&ready, 1, static_cast<int>(most.count()));
          }};
}

void RelayNames::Configure(const SourceSettings& settings) {
  std::vector<Name> before = std::exchange(m_names, {});
  for (size_t relay = 0; relay < settings.relayHosts.size(); ++relay) {
    if (settings.relayHosts[relay].empty()) continue;
    const MDATA_RELAY_CFG& record = settings.record.Relays[relay];
    Name name;
    name.relay = relay;
    name.host = settings.relayHosts[relay];
    name.port = record.usUDPPort;
    name.isIPv4 = record.IpTTL < 0 || record.IpTOS < 0;
    name.interface = settings.reception.relayInterface.empty() ? kRelayInterface : settings.reception.relayInterface;
    const auto known = std::find_if(before.begin(), before.end(), [&](const Name& other) {
      return other.host == name.host && other.isIPv4 == name.isIPv4 && other.interface == name.interface;
    });
    if (known != before.end()) name.address = known->address;
    m_names.push_back(std::move(name));
  }
}

void RelayNames::Ask(Name& name, Clock::time_point now) {
  if (name.question || (name.asked && now - *name.asked < name.pause)) return;
  name.question = m_ask(name.host, name.port);
  name.asked = now;
  name.pause = std::clamp(2 * name.pause, kFirstNamePause, kLongestNamePause);
}

// A host may have several addresses, whose order changes; the one in use stays while it is among them.
void RelayNames::Take(Name& name, const Resolution& resolution) {
  std::vector<Address> addresses;
  for (const HostAddress& each : resolution.addresses) {
    if (const auto address = AddressFor(each, name.isIPv4, name.interface)) addresses.push_back(*address);
  }
  name.fault.clear();
  if (addresses.empty()) {
    name.fault = resolution.fault;
    if (name.fault.empty() && name.isIPv4) {
      name.fault = name.host + " has no address of IPv4, as a relay that follows needs";
    } else if (name.fault.empty()) {
      name.fault = name.host + " has no address on the interface " + name.interface;
    }
    return;
  }
  if (name.address && std::find(addresses.begin(), addresses.end(), *name.address) != addresses.end()) return;
  name.address = addresses.front();
  name.pause = {};
}

void RelayNames::Update(Clock::time_point now) {
  for (Name& name : m_names) {
    if (!name.address) Ask(name, now);
    if (!name.question) continue;
    if (const auto answer = name.question->take()) {
      name.question.reset();
      Take(name, *answer);
    }
  }
}

void RelayNames::Wait(std::chrono::milliseconds most) {
  const auto end = Clock::now() + most;
  for (Name& name : m_names) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (name.question && left.count() > 0) name.question->wait(left);
  }
}

bool RelayNames::AreKnown() const {
  return std::all_of(m_names.begin(), m_names.end(), [](const Name& name) { return name.address.has_value(); });
}

bool RelayNames::IsAsking() const {
  return std::any_of(m_names.begin(), m_names.end(), [](const Name& name) { return name.question.has_value(); });
}

std::string RelayNames::Fault(Clock::time_point now) const {
  for (const Name& name : m_names) {
    if (name.address) continue;
    if (!name.fault.empty()) return name.fault;
    if (name.asked && now - *name.asked >= kUsualTime) return "the address of " + name.host + " is being looked up";
  }
  return {};
}

void RelayNames::Look(const MDATA_SRC_STATS& statistics, Clock::time_point now) {
  for (Name& name : m_names) {
    const ULONG errors = statistics.Relays[name.relay].nRelayErrors;
    if (name.errors && errors > *name.errors) Ask(name, now);
    name.errors = errors;
  }
}

void RelayNames::ForgetErrors() {
  for (Name& name : m_names) name.errors.reset();
}

void RelayNames::ForgetAddresses() {
  for (Name& name : m_names) name.address.reset();
}

bool RelayNames::WouldChange(const SourceSettings& settings) const {
  return std::any_of(m_names.begin(), m_names.end(), [&](const Name& name) {
    return name.address && !HasAddress(settings.record.Relays[name.relay], *name.address);
  });
}

std::vector<size_t> RelayNames::Fill(SourceSettings& settings) const {
  std::vector<size_t> changed;
  for (const Name& name : m_names) {
    MDATA_RELAY_CFG& relay = settings.record.Relays[name.relay];
    if (!name.address || HasAddress(relay, *name.address)) continue;
    relay.iDestAddressFamily = name.address->family;
    std::memcpy(relay.acDestAddress, name.address->bytes.data(), sizeof(relay.acDestAddress));
    changed.push_back(name.relay);
  }
  return changed;
}

}  // namespace mdencoder
