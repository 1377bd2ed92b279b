// SPDX-License-Identifier: Apache-2.0
#include "stream_url.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "value_text.h"

namespace stream_url {
namespace {

constexpr char kMark[] = "://";
constexpr size_t kMarkSize = sizeof(kMark) - 1;

// Takes "interface=NAME" from behind the question mark.
bool ParseQuery(const std::string& query, DatagramOrigin* origin) {
  static constexpr char kInterface[] = "interface=";
  if (!query.starts_with(kInterface) || query.size() == sizeof(kInterface) - 1) return false;
  origin->interface = query.substr(sizeof(kInterface) - 1);
  return origin->interface.find_first_of("&=") == std::string::npos;
}

}  // namespace

bool IsUrl(const std::string& text) {
  return text.find(kMark) != std::string::npos;
}

bool IsLive(const std::string& path) {
  return IsUrl(path) || path.ends_with(".sdp");
}

std::string Scheme(const std::string& text) {
  const size_t mark = text.find(kMark);
  return mark == std::string::npos ? std::string() : text.substr(0, mark);
}

bool IsDatagramUrl(const std::string& url) {
  const std::string scheme = Scheme(url);
  return scheme == "udp" || scheme == "rtp";
}

std::optional<HostAndPort> ParseHostAndPort(const std::string& text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  const auto port = value_text::ParseWholeNumber(text.substr(colon + 1), 1, 65535);
  if (!port) return std::nullopt;
  std::string host = text.substr(0, colon);
  const bool isBracketed = host.size() > 2 && host.starts_with('[') && host.ends_with(']');
  if (isBracketed) host = host.substr(1, host.size() - 2);
  if (isBracketed != (host.find(':') != std::string::npos)) return std::nullopt;
  return HostAndPort{host, static_cast<uint16_t>(*port)};
}

std::optional<DatagramOrigin> ParseDatagramUrl(const std::string& url) {
  if (!IsDatagramUrl(url)) return std::nullopt;
  DatagramOrigin origin;
  std::string rest = url.substr(url.find(kMark) + kMarkSize);
  const size_t question = rest.find('?');
  if (question != std::string::npos && !ParseQuery(rest.substr(question + 1), &origin)) return std::nullopt;
  rest.resize(std::min(question, rest.size()));
  if (rest.ends_with('/')) rest.pop_back();
  if (rest.starts_with('@')) rest.erase(0, 1);
  const auto place = ParseHostAndPort(rest);
  if (!place) return std::nullopt;
  origin.address = place->host;
  origin.port = place->port;
  origin.family = place->host.find(':') == std::string::npos ? AF_INET : AF_INET6;
  std::array<uint8_t, 16> bytes{};
  if (!place->host.empty() && inet_pton(origin.family, place->host.c_str(), bytes.data()) != 1) return std::nullopt;
  return origin;
}

std::string Shown(const std::string& url) {
  if (!IsUrl(url)) return url;
  std::string shown = url.substr(0, url.find('?'));
  const size_t begin = shown.find(kMark) + kMarkSize;
  const size_t at = shown.rfind('@', shown.find('/', begin));
  if (at != std::string::npos && at >= begin) shown.erase(begin, at + 1 - begin);
  return shown;
}

}  // namespace stream_url
