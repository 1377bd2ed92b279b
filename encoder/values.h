// SPDX-License-Identifier: Apache-2.0
// Lists, addresses, tags and relays as they are written in the configuration. Each Parse function returns nothing for
// text that is not allowed; the caller reports the key, the value and the allowed values.
#ifndef MDENCODER_VALUES_H
#define MDENCODER_VALUES_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "metadata_lib.h"
#include "owned_fd.h"

namespace mdencoder {

std::string Trim(std::string_view text);
// Returns the trimmed parts between commas, and none for an empty text.
std::vector<std::string> SplitList(std::string_view text);

struct Address {
  bool operator==(const Address&) const = default;
  int32_t family = 0;  // AF_INET or AF_INET6
  std::array<BYTE, 16> bytes{};
  bool IsMulticast() const;
};
// Reads a numeric IPv4 or IPv6 address, without brackets and scope.
std::optional<Address> ParseAddress(std::string_view text);
std::string AddressText(int32_t family, const BYTE* bytes);
// Returns "ADDRESS:PORT", with an IPv6 address in brackets.
std::string DestinationText(const MDATA_RELAY_CFG& relay);
// The interface of link-local destinations, unless a relay names another one.
constexpr char kRelayInterface[] = "eth0";
// Returns a datagram socket that is connected as the library's socket for the relay would be, or an empty descriptor and
// errno. Nothing is sent.
common::OwnedFD ConnectTo(const MDATA_RELAY_CFG& relay, const std::string& interface = kRelayInterface);

// Reads tags below `limit`, separated by commas: numbers, ranges "13-15" and names of items ("sensor_lat"), which are
// those of ST 0102 if `security` is set. "none" is the empty set. Tag t is bit t % 32 of word t / 32.
std::optional<std::vector<UINT32>> ParseTags(std::string_view text, unsigned limit, bool security);

// Returns whether a text can be the name of a host, and not an address.
bool IsHostName(std::string_view text);

struct Relay {
  MDATA_RELAY_CFG record{};  // without family and address if the destination is the name of a host
  std::string host;          // this name, or empty
  std::string interface;     // of a link-local address, or empty
};
// Reads "HOST:PORT [ttl=N|follow] [tos=N|follow]", with an IPv6 address in brackets.
std::optional<Relay> ParseRelay(std::string_view text);
extern const char kRelayAllowed[];

// Returns the most similar name, for "did you mean", or "" if none is similar.
std::string NearestName(std::string_view name, std::span<const std::string_view> names);

}  // namespace mdencoder

#endif
