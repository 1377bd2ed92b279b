// SPDX-License-Identifier: Apache-2.0
#include "tak_settings.h"

#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "stream_url.h"
#include "value_text.h"
#include "values.h"

namespace mdencoder {
namespace {

struct TakScheme {
  std::string_view prefix;
  TakSettings::Transport transport;
};
constexpr TakScheme kTakSchemes[] = {{"tak://", TakSettings::Transport::Udp},
                                     {"tcp://", TakSettings::Transport::Tcp},
                                     {"tls://", TakSettings::Transport::Tls}};

}  // namespace

const char kTakUrlAllowed[] =
    "tak://GROUP:PORT, tcp://HOST:PORT or tls://HOST:PORT (tak:// with a numeric address or none, IPv6 in brackets)";

std::optional<TakSettings> ParseTakUrl(std::string_view url) {
  TakSettings settings;
  settings.url = url;
  const auto* const scheme = std::find_if(std::begin(kTakSchemes), std::end(kTakSchemes),
                                          [&](const TakScheme& each) { return url.starts_with(each.prefix); });
  if (scheme == std::end(kTakSchemes)) return std::nullopt;
  settings.transport = scheme->transport;
  const std::string rest(url.substr(scheme->prefix.size()));
  const size_t colon = rest.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  const auto port = value_text::ParseWholeNumber(rest.substr(colon + 1), 1, 65535);
  if (!port) return std::nullopt;
  settings.port = static_cast<uint16_t>(*port);
  settings.host = rest.substr(0, colon);
  const bool brackets = settings.host.size() > 2 && settings.host.front() == '[' && settings.host.back() == ']';
  if (brackets) settings.host = settings.host.substr(1, settings.host.size() - 2);
  // The scope of a link-local address is the interface's name.
  const auto address = ParseAddress(settings.host.substr(0, settings.host.find('%')));
  if (address ? brackets != (address->family == AF_INET6) : brackets) return std::nullopt;
  if (settings.host.find('%') != std::string::npos && !brackets) return std::nullopt;
  if (settings.transport == TakSettings::Transport::Udp)
    return address || settings.host.empty() ? std::optional(settings) : std::nullopt;
  return address || IsHostName(settings.host) ? std::optional(settings) : std::nullopt;
}

bool IsTakSection(Section& section) {
  const std::string* const data = section.Find("data");
  const std::string* const url = section.Find("url");
  return data != nullptr && *data == "cot" && url != nullptr && stream_url::IsUrl(*url);
}

// The library receives from this program only, over the loopback interface.
TakSettings ReadTak(Section& section, MDATA_INET_SRC_CFG& network) {
  constexpr BYTE kLoopback[] = {127, 0, 0, 1};
  network.iSrcAddressFamily = AF_INET;
  std::copy(std::begin(kLoopback), std::end(kLoopback), network.acSrcAddress);
  const std::string* const url = section.Find("url");
  const auto parsed = url == nullptr ? std::nullopt : ParseTakUrl(*url);
  if (!parsed) section.Fail("url", url == nullptr ? "" : *url, kTakUrlAllowed);
  TakSettings settings = *parsed;
  constexpr size_t kLongestText = 127;
  if (section.Find("cot_aircraft") != nullptr) settings.aircraft = section.Text("cot_aircraft", kLongestText);
  if (settings.transport == TakSettings::Transport::Udp && section.Find("interface") != nullptr) {
    settings.interface = section.Text("interface", IFNAMSIZ - 1);
  }
  if (settings.transport == TakSettings::Transport::Tls) settings.tls = ReadTls(section);
  return settings;
}

TlsSettings ReadTls(Section& section) {
  constexpr size_t kLongestText = 127;
  TlsSettings settings;
  settings.ca = section.Path("tls_ca");
  settings.certificate = section.Path("tls_certificate");
  if (!settings.certificate.empty()) settings.key = section.Path("tls_key");
  if (section.Find("tls_password") != nullptr) settings.password = section.Text("tls_password", kLongestText);
  if (section.Find("tls_name") != nullptr) settings.name = section.Text("tls_name", kLongestText);
  return settings;
}

MDATA_INET_SRC_CFG ReceptionOf(const MDATA_SRC_CFG& record, const std::optional<TakSettings>& tak) {
  if (!tak) return record.in.Network;
  MDATA_INET_SRC_CFG reception{};
  if (tak->transport != TakSettings::Transport::Udp) return reception;
  reception.usUDPPort = tak->port;
  const auto address = ParseAddress(tak->host.substr(0, tak->host.find('%')));
  if (!address) return reception;
  reception.iSrcAddressFamily = address->family;
  // An address of this machine is no sender's.
  if (address->IsMulticast())
    std::memcpy(reception.acSrcAddress, address->bytes.data(), sizeof(reception.acSrcAddress));
  return reception;
}

}  // namespace mdencoder
