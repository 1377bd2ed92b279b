// SPDX-License-Identifier: Apache-2.0
#include "values.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "st0601_items.h"
#include "value_text.h"

namespace mdencoder {

const char kRelayAllowed[] =
    "HOST:PORT [ttl=0..255|follow] [tos=0..255|follow] with a name or an address (IPv6 in brackets, which cannot follow; "
    "%INTERFACE behind a link-local one)";

std::string Trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
}

std::vector<std::string> SplitList(std::string_view text) {
  std::vector<std::string> parts;
  if (Trim(text).empty()) return parts;
  for (size_t begin = 0; begin <= text.size();) {
    const size_t end = std::min(text.find(',', begin), text.size());
    parts.push_back(Trim(text.substr(begin, end - begin)));
    begin = end + 1;
  }
  return parts;
}

bool Address::IsMulticast() const {
  return family == AF_INET ? bytes[0] >= 224 && bytes[0] < 240 : bytes[0] == 0xFF;
}

std::optional<Address> ParseAddress(std::string_view text) {
  const std::string copy(text);
  Address address;
  if (inet_pton(AF_INET, copy.c_str(), address.bytes.data()) == 1) {
    address.family = AF_INET;
    return address;
  }
  if (inet_pton(AF_INET6, copy.c_str(), address.bytes.data()) == 1) {
    address.family = AF_INET6;
    return address;
  }
  return std::nullopt;
}

std::string AddressText(int32_t family, const BYTE* bytes) {
  char text[INET6_ADDRSTRLEN] = "";
  if (family == AF_INET || family == AF_INET6) inet_ntop(family, bytes, text, sizeof(text));
  return text;
}

std::string DestinationText(const MDATA_RELAY_CFG& relay) {
  const std::string address = AddressText(relay.iDestAddressFamily, relay.acDestAddress);
  const std::string port = std::to_string(relay.usUDPPort);
  return relay.iDestAddressFamily == AF_INET6 ? "[" + address + "]:" + port : address + ":" + port;
}

common::OwnedFD ConnectTo(const MDATA_RELAY_CFG& relay, const std::string& interface) {
  common::OwnedFD fd(socket(relay.iDestAddressFamily, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd.IsOpen()) return fd;
  const auto connects = [&fd](const auto& address) {
    return connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  };
  if (relay.iDestAddressFamily == AF_INET) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(relay.usUDPPort);
    std::memcpy(&address.sin_addr, relay.acDestAddress, sizeof(address.sin_addr));
    if (connects(address)) return fd;
  } else {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(relay.usUDPPort);
    address.sin6_scope_id = if_nametoindex(interface.c_str());  // as in the library
    std::memcpy(&address.sin6_addr, relay.acDestAddress, sizeof(address.sin6_addr));
    if (connects(address)) return fd;
  }
  return common::OwnedFD();
}

namespace {

std::optional<unsigned> ParseTag(const std::string& text, unsigned limit, bool security) {
  if (const auto number = value_text::ParseWholeNumber(text, 0, static_cast<int64_t>(limit) - 1))
    return static_cast<unsigned>(*number);
  for (const st0601::Item& item : security ? st0601::SecurityElements() : st0601::Items()) {
    if (text == item.key && item.tag < limit) return item.tag;
  }
  return std::nullopt;
}

// Returns -1 for "follow", or 0 to 255.
std::optional<int32_t> ParseTtlOrTos(const std::string& text) {
  if (text == "follow") return -1;
  const auto number = value_text::ParseWholeNumber(text, 0, 255);
  if (!number) return std::nullopt;
  return static_cast<int32_t>(*number);
}

// The kernel looks at the interface of these addresses only.
bool IsLinkLocal(const Address& address) {
  if (address.family != AF_INET6) return false;
  if (address.IsMulticast()) return (address.bytes[1] & 0x0F) == 2;
  return address.bytes[0] == 0xFE && (address.bytes[1] & 0xC0) == 0x80;
}

// Reads "ADDRESS:PORT", "[ADDRESS]:PORT", "[ADDRESS%INTERFACE]:PORT" or "NAME:PORT".
bool ParseDestination(const std::string& text, Relay& relay) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) return false;
  std::string host = text.substr(0, colon);
  const bool brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (brackets) host = host.substr(1, host.size() - 2);
  const auto port = value_text::ParseWholeNumber(text.substr(colon + 1), 1, 65535);
  if (!port) return false;
  relay.record.usUDPPort = static_cast<USHORT>(*port);
  const size_t percent = host.find('%');
  const auto address = ParseAddress(host.substr(0, percent));
  if (!address) {
    relay.host = host;
    return !brackets && IsHostName(host);
  }
  if (brackets != (address->family == AF_INET6)) return false;
  if (percent != std::string::npos) {
    relay.interface = host.substr(percent + 1);
    if (!IsLinkLocal(*address) || relay.interface.empty() || relay.interface.size() >= IFNAMSIZ) return false;
  }
  relay.record.iDestAddressFamily = address->family;
  std::memcpy(relay.record.acDestAddress, address->bytes.data(), sizeof(relay.record.acDestAddress));
  return true;
}

size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t change = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, change});
    }
  }
  return row.back();
}

}  // namespace

// A text without a letter would be an address.
bool IsHostName(std::string_view text) {
  constexpr size_t kLongestHostName = 253;
  const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  const auto fits = [&](char c) { return isLetter(c) || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_'; };
  return text.size() <= kLongestHostName && !text.starts_with('-') && !text.starts_with('.') &&
         std::all_of(text.begin(), text.end(), fits) && std::any_of(text.begin(), text.end(), isLetter);
}

std::optional<std::vector<UINT32>> ParseTags(std::string_view text, unsigned limit, bool security) {
  std::vector<UINT32> words((limit + 31) / 32);
  if (text == "none") return words;
  const auto parts = SplitList(text);
  if (parts.empty()) return std::nullopt;
  for (const std::string& part : parts) {
    const size_t dash = part.find('-');
    const auto first = ParseTag(Trim(part.substr(0, dash)), limit, security);
    const auto last = dash == std::string::npos ? first : ParseTag(Trim(part.substr(dash + 1)), limit, security);
    if (!first || !last || *first > *last) return std::nullopt;
    for (unsigned tag = *first; tag <= *last; ++tag) words[tag / 32] |= 1U << tag % 32;
  }
  return words;
}

std::optional<Relay> ParseRelay(std::string_view text) {
  Relay relay;
  std::istringstream words{std::string(text)};
  std::string word;
  if (!(words >> word) || !ParseDestination(word, relay)) return std::nullopt;
  bool ttl = false;
  bool tos = false;
  while (words >> word) {
    const bool isTtl = word.starts_with("ttl=");
    const bool isTos = word.starts_with("tos=");
    const auto value = isTtl || isTos ? ParseTtlOrTos(word.substr(4)) : std::nullopt;
    if (!value || (isTtl ? ttl : tos)) return std::nullopt;
    if (*value < 0 && relay.record.iDestAddressFamily == AF_INET6) return std::nullopt;
    (isTtl ? relay.record.IpTTL : relay.record.IpTOS) = *value;
    (isTtl ? ttl : tos) = true;
  }
  return relay;
}

std::string NearestName(std::string_view name, std::span<const std::string_view> names) {
  std::string_view nearest;
  size_t least = 3;
  for (const std::string_view candidate : names) {
    const size_t distance = EditDistance(name, candidate);
    if (distance < least && distance < candidate.size()) {
      least = distance;
      nearest = candidate;
    }
  }
  return std::string(nearest);
}

}  // namespace mdencoder
