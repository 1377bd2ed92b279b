// SPDX-License-Identifier: Apache-2.0
#include "http/settings.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>

#include "http/access.h"
#include "stream_url.h"
#include "tls.h"
#include "value_text.h"
#include "values.h"

namespace mdencoder {
namespace {

constexpr char kHttpAllowed[] = "ADDRESS:PORT with a numeric address or localhost, as 127.0.0.1:8080";
constexpr char kHostAllowed[] = "a list of names of hosts without ports";
constexpr char kTilesAllowed[] = "a URL of http or https with {z}, {x} and {y} in its path";
constexpr size_t kLongestHostName = 253;
constexpr size_t kMostHosts = 32;
constexpr size_t kLongestAttribution = 150;

bool IsLoopback(const Address& address) {
  if (address.family == AF_INET) return address.bytes[0] == 127;
  const auto isZero = [](BYTE byte) { return byte == 0; };
  return std::all_of(address.bytes.begin(), address.bytes.end() - 1, isZero) && address.bytes.back() == 1;
}

bool IsHostName(const std::string& name) {
  const auto fits = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.'; };
  return !name.empty() && name.size() <= kLongestHostName && std::all_of(name.begin(), name.end(), fits);
}

std::string LowerText(std::string text) {
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return text;
}

// The address is checked, so that nothing of it can end a directive of the content security policy.
bool IsTiles(const std::string& tiles) {
  const std::string scheme = stream_url::Scheme(tiles);
  if (scheme != "http" && scheme != "https") return false;
  const std::string origin = TileOrigin(tiles);
  const size_t begin = scheme.size() + 3;
  std::string host = LowerText(origin.substr(begin));
  const size_t colon = host.find(':');
  if (colon != std::string::npos) {
    if (!value_text::ParseWholeNumber(host.substr(colon + 1), 1, 65535)) return false;
    host.resize(colon);
  }
  const std::string path = tiles.substr(origin.size());
  const auto isPlain = [](char c) { return c > ' ' && c <= '~' && c != '"' && c != '\\' && c != '<' && c != '>'; };
  return IsHostName(host) && std::all_of(path.begin(), path.end(), isPlain) && path.find("{z}") != std::string::npos &&
         path.find("{x}") != std::string::npos && path.find("{y}") != std::string::npos;
}

void ReadHosts(Section& section, HttpSettings& settings) {
  const std::string* const value = section.Find("http_host");
  if (value == nullptr) return;
  for (const std::string& name : SplitList(*value)) settings.hosts.push_back(LowerText(name));
  const bool isGood = !settings.hosts.empty() && settings.hosts.size() <= kMostHosts &&
                      std::all_of(settings.hosts.begin(), settings.hosts.end(), IsHostName);
  if (!isGood) section.Fail("http_host", *value, kHostAllowed);
}

}  // namespace

std::string HttpSettings::Url() const {
  const bool isLong = address.find(':') != std::string::npos;
  return std::string(certificate.empty() ? "http://" : "https://") + (isLong ? "[" + address + "]" : address) + ":" +
         std::to_string(port) + "/";
}

std::string TileOrigin(const std::string& tiles) {
  const size_t scheme = tiles.find("://");
  return scheme == std::string::npos ? "" : tiles.substr(0, std::min(tiles.find('/', scheme + 3), tiles.size()));
}

HttpSettings ReadHttp(Section& section) {
  HttpSettings settings;
  const std::string* const value = section.Find("http");
  if (value == nullptr) {
    for (const std::string_view key : kHttpKeys) {
      if (section.Find(key) == nullptr) continue;
      throw ConfigError("[" + section.Name() + "] " + std::string(key) + " is allowed only with http");
    }
    return settings;
  }
  const auto place = stream_url::ParseHostAndPort(*value);
  const auto address = place ? ParseAddress(place->host == "localhost" ? "127.0.0.1" : place->host) : std::nullopt;
  if (!address || place->port == 0 || address->IsMulticast()) section.Fail("http", *value, kHttpAllowed);
  settings.address = AddressText(address->family, address->bytes.data());
  settings.port = place->port;
  settings.token = section.Path("http_token");
  settings.certificate = section.Path("http_cert");
  settings.key = section.Path("http_key");
  if (!settings.key.empty() && settings.certificate.empty()) {
    throw ConfigError("[" + section.Name() + "] http_key is allowed only with http_cert");
  }
  ReadHosts(section, settings);
  if (const std::string* const tiles = section.Find("tiles")) {
    if (!IsTiles(*tiles)) section.Fail("tiles", *tiles, kTilesAllowed);
    settings.tiles = *tiles;
  }
  settings.attribution = section.Text("tiles_attribution", kLongestAttribution);
  if (!settings.attribution.empty() && settings.tiles.empty()) {
    throw ConfigError("[" + section.Name() + "] tiles_attribution is allowed only with tiles");
  }
  if (!IsLoopback(*address) && settings.token.empty()) {
    section.Fail("http", *value,
                 "an address of the loopback without an http_token, because other machines reach this one");
  }
  return settings;
}

std::string ReadToken(const std::string& path) {
  if (path.empty()) return {};
  std::ifstream file(path, std::ios::binary);
  std::string text(http::kLongestToken + 3, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (file.bad() || (file.gcount() == 0 && !file.eof())) {
    throw ConfigError("http_token = " + path + ": cannot be read: " + std::strerror(errno));
  }
  text.resize(static_cast<size_t>(file.gcount()));
  while (text.ends_with('\n') || text.ends_with('\r')) text.pop_back();
  if (!http::IsToken(text)) throw ConfigError("http_token = " + path + ": must be " + http::kTokenAllowed);
  return text;
}

void RequireHttpFiles(const HttpSettings& settings) {
  ReadToken(settings.token);
  if (!settings.certificate.empty()) const TlsServer server(settings.certificate, settings.key);
}

}  // namespace mdencoder
