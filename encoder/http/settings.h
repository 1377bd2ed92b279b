// SPDX-License-Identifier: Apache-2.0
// The settings of the page and its interface for programs.
#ifndef MDENCODER_HTTP_SETTINGS_H
#define MDENCODER_HTTP_SETTINGS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "section.h"

namespace mdencoder {

struct HttpSettings {
  bool operator==(const HttpSettings&) const = default;

  std::string address;  // numeric, without brackets; empty: there is no server
  uint16_t port = 0;
  std::string token;               // file; empty: none is needed
  std::string certificate;         // file; empty: no TLS
  std::string key;                 // file; empty: the certificate's
  std::vector<std::string> hosts;  // names, in lower case, by which clients may call this machine
  std::string tiles;               // "https://host/{z}/{x}/{y}.png", or empty
  std::string attribution;         // of the tiles, as their provider asks for

  bool IsOn() const { return port != 0; }
  // "http://127.0.0.1:8080/"
  std::string Url() const;
};

constexpr std::string_view kHttpKeys[] = {"http",      "http_token", "http_cert",        "http_key",
                                          "http_host", "tiles",      "tiles_attribution"};

// Reads these keys of [encoder]. Throws ConfigError.
HttpSettings ReadHttp(Section& section);

// Returns the token that a file holds. Throws ConfigError.
std::string ReadToken(const std::string& path);

// Reads the files of the settings. Throws ConfigError if one of them cannot be used.
void RequireHttpFiles(const HttpSettings& settings);

// Returns "https://host:port" of a template of tiles.
std::string TileOrigin(const std::string& tiles);

}  // namespace mdencoder

#endif  // MDENCODER_HTTP_SETTINGS_H
