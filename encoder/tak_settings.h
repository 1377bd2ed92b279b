// SPDX-License-Identifier: Apache-2.0
// What a source on a TAK network (url = tak://, tcp:// or tls:// with data = cot) has in its section.
#ifndef MDENCODER_TAK_SETTINGS_H
#define MDENCODER_TAK_SETTINGS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "metadata_lib.h"
#include "section.h"
#include "tls.h"

namespace mdencoder {

struct TakSettings {
  enum class Transport { Udp, Tcp, Tls };
  bool operator==(const TakSettings&) const = default;

  Transport transport = Transport::Udp;
  std::string url;   // as it is written
  std::string host;  // a name or an address, without brackets; Udp: a numeric address, or empty for all of this machine
  uint16_t port = 0;
  std::string interface;  // Udp: where a group is joined; empty: the routing table decides
  std::string aircraft;   // identifier of the only aircraft whose events are taken; empty: all
  TlsSettings tls;        // Tls
};

// Reads "tak://GROUP:PORT", "tcp://HOST:PORT" or "tls://HOST:PORT", with IPv6 addresses in brackets.
std::optional<TakSettings> ParseTakUrl(std::string_view url);
extern const char kTakUrlAllowed[];

// Reads the keys of TLS, which one section has for all its connections. Throws ConfigError.
TlsSettings ReadTls(Section& section);

// Returns whether a section is that of such a source.
bool IsTakSection(Section& section);
// Reads the keys of such a source, and fills its record. Throws ConfigError.
TakSettings ReadTak(Section& section, MDATA_INET_SRC_CFG& network);

// Returns the port, the family and the address on which a source receives datagrams: of the library's record, or of the
// TAK network. The port is 0 for a source that receives none from others.
MDATA_INET_SRC_CFG ReceptionOf(const MDATA_SRC_CFG& record, const std::optional<TakSettings>& tak);

}  // namespace mdencoder

#endif  // MDENCODER_TAK_SETTINGS_H
