// SPDX-License-Identifier: Apache-2.0
#include "reception.h"

#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace mdencoder {
namespace {

constexpr std::string_view kFamilies[] = {"any", "ipv4", "ipv6"};
constexpr char kAddressAllowed[] =
    "the sender's numeric IPv4 or IPv6 address of the family given, or up to 16 groups with commas between them";
constexpr size_t kMostGroups = 16;  // of 20 that the kernel lets a socket join, each perhaps on two interfaces

HostReception::Group GroupOf(const ScopedAddress& scoped) {
  HostReception::Group group;
  group.family = scoped.address.family;
  group.address = scoped.address.bytes;
  group.interface = scoped.interface;
  return group;
}

// Reads the list, whose elements are all of one kind and fit the family.
std::vector<ScopedAddress> ReadAddresses(Section& section, const std::string& text, int32_t family) {
  std::vector<ScopedAddress> addresses;
  for (const std::string& part : SplitList(text)) {
    const auto scoped = ParseScopedAddress(part);
    if (!scoped || (family != 0 && scoped->address.family != family)) section.Fail("address", text, kAddressAllowed);
    addresses.push_back(*scoped);
  }
  const auto isGroup = [](const ScopedAddress& each) { return each.address.IsMulticast(); };
  const bool areGroups = !addresses.empty() && std::all_of(addresses.begin(), addresses.end(), isGroup);
  if (addresses.empty() || addresses.size() > (areGroups ? kMostGroups : 1U)) {
    section.Fail("address", text, kAddressAllowed);
  }
  return addresses;
}

void SetAddress(const Address& address, MDATA_INET_SRC_CFG& network) {
  network.iSrcAddressFamily = address.family;
  std::memcpy(network.acSrcAddress, address.bytes.data(), sizeof(network.acSrcAddress));
}

// The library compares the address of its record with the sender's, unless that is an IPv4 group; one group of IPv4 is all
// that it can ask for.
void SetGroups(const std::vector<ScopedAddress>& groups, const std::optional<ScopedAddress>& sender,
               MDATA_INET_SRC_CFG& network, HostReception& reception) {
  const int32_t family = groups.front().address.family;
  const bool isOneFamily = std::all_of(groups.begin(), groups.end(),
                                       [&](const ScopedAddress& each) { return each.address.family == family; });
  if (sender) {
    SetAddress(sender->address, network);
    reception.sender = GroupOf(*sender);
  } else if (isOneFamily && family == AF_INET) {
    SetAddress(groups.front().address, network);
  } else if (isOneFamily) {
    network.iSrcAddressFamily = family;
  }
  if (groups.size() == 1 && family == AF_INET && !sender && reception.interface.empty()) return;
  for (const ScopedAddress& group : groups) reception.groups.push_back(GroupOf(group));
}

}  // namespace

std::optional<ScopedAddress> ParseScopedAddress(std::string_view text) {
  ScopedAddress scoped;
  const size_t percent = text.find('%');
  const auto address = ParseAddress(text.substr(0, percent));
  if (!address) return std::nullopt;
  scoped.address = *address;
  if (percent == std::string_view::npos) return scoped;
  scoped.interface = text.substr(percent + 1);
  const bool fits = address->family == AF_INET6 && !scoped.interface.empty() && scoped.interface.size() < IFNAMSIZ;
  return fits ? std::optional(scoped) : std::nullopt;
}

// An address decides the family.
HostReception ReadReception(Section& section, MDATA_INET_SRC_CFG& network) {
  HostReception reception;
  constexpr int32_t kFamilyValues[] = {0, AF_INET, AF_INET6};
  network.iSrcAddressFamily = kFamilyValues[section.Choice("family", kFamilies, 0)];
  reception.interface = section.Text("interface", IFNAMSIZ - 1);
  const std::string* const text = section.Find("address");
  if (text == nullptr) return reception;
  const std::vector<ScopedAddress> addresses = ReadAddresses(section, *text, network.iSrcAddressFamily);
  if (!addresses.front().address.IsMulticast()) {
    SetAddress(addresses.front().address, network);
    if (reception.interface.empty()) reception.interface = addresses.front().interface;
    return reception;
  }
  std::optional<ScopedAddress> sender;
  if (const std::string* const value = section.Find("sender")) {
    sender = ParseScopedAddress(*value);
    const bool fits = sender && !sender->address.IsMulticast() &&
                      std::all_of(addresses.begin(), addresses.end(), [&](const ScopedAddress& group) {
                        return group.address.family == sender->address.family;
                      });
    if (!fits) section.Fail("sender", *value, "a numeric address of the family of all groups");
  }
  SetGroups(addresses, sender, network, reception);
  return reception;
}

std::vector<Address> GroupsOf(const MDATA_SRC_CFG& record, const HostReception& reception,
                              const std::optional<TakSettings>& tak) {
  std::vector<Address> groups;
  for (const HostReception::Group& group : reception.groups) groups.push_back({group.family, group.address});
  if (!groups.empty() || record.enInputType != MDATA_INPUT_NETWORK) return groups;
  const MDATA_INET_SRC_CFG network = ReceptionOf(record, tak);
  Address address;
  address.family = network.iSrcAddressFamily;
  std::memcpy(address.bytes.data(), network.acSrcAddress, sizeof(network.acSrcAddress));
  if (address.family != 0 && address.IsMulticast()) groups.push_back(address);
  return groups;
}

}  // namespace mdencoder
