// Values of the configuration as an encoder's user writes them. Each function returns nothing for text that is not
// allowed; the caller names the key, the value and what would have been allowed.
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

namespace mdencoder {

std::string Trim(std::string_view text);
// Parts between commas, trimmed; no part for an empty text.
std::vector<std::string> SplitList(std::string_view text);

struct Address {
  int32_t family = 0;  // AF_INET or AF_INET6
  std::array<BYTE, 16> bytes{};
  bool IsMulticast() const;
};
// Numeric IPv4 or IPv6, without brackets and scope.
std::optional<Address> ParseAddress(std::string_view text);
std::string AddressText(int32_t family, const BYTE* bytes);

// Tags below `limit`: numbers, ranges "13-15" and names of items ("sensor_lat"; `security` takes those of ST 0102),
// separated by commas; "none" for the empty set. Sets bit t % 32 of word t / 32.
std::optional<std::vector<UINT32>> ParseTags(std::string_view text, unsigned limit, bool security);

// "ADDRESS:PORT [ttl=N|follow|default] [tos=N|follow]", an IPv6 address in brackets.
std::optional<MDATA_RELAY_CFG> ParseRelay(std::string_view text);
extern const char kRelayAllowed[];

// The nearest of the names, for "did you mean"; empty when none is near.
std::string NearestName(std::string_view name, std::span<const std::string_view> names);

}  // namespace mdencoder

#endif
