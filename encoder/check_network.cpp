// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   System      tells what the kernel knows, without binding or sending
//   Receivers   are the UDP sources and the ancillary streams of video inputs
//   Checks      name the first fault
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "check.h"
#include "cot_sender.h"
#include "http/settings.h"
#include "owned_fd.h"
#include "reception.h"
#include "stream_url.h"
#include "tls.h"
#include "values.h"

namespace mdencoder {
namespace {

// --- System ------------------------------------------------------------------------------------------

// Returns whether a socket of a table ("/proc/net/udp") has the port.
bool IsBound(const char* table, uint16_t port) {
  std::ifstream sockets(table);
  std::string line;
  while (std::getline(sockets, line)) {
    unsigned used = 0;
    // "  12: 0100007F:1388 00000000:0000 07 ...": number, local address and port
    if (std::sscanf(line.c_str(), " %*u: %*32[0-9A-Fa-f]:%x", &used) == 1 && used == port) return true;
  }
  return false;
}

// Returns whether an address of the port can be had beside the sockets that share it. The address is bound for a moment;
// it is one to which nothing is sent meanwhile, or whose datagrams every socket of the port gets.
bool IsShared(const BYTE* address, uint16_t port) {
  const common::OwnedFD fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  std::memcpy(&local.sin_addr, address, sizeof(local.sin_addr));
  return bind(fd.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0 || errno != EADDRINUSE;
}

bool MayBind(uint16_t port) {
  unsigned firstFree = 1024;
  std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> firstFree;
  if (port >= firstFree) return true;
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    unsigned long long capabilities = 0;
    constexpr int kNetBindService = 10;
    if (std::sscanf(line.c_str(), "CapEff: %llx", &capabilities) == 1)
      return (capabilities >> kNetBindService & 1) != 0;
  }
  return true;
}

bool HasIPv6() {
  std::string line;
  std::ifstream addresses("/proc/net/if_inet6");
  return static_cast<bool>(std::getline(addresses, line));
}

// Returns "", or why no group can be joined on the interface.
std::string GroupInterfaceFault(const std::string& name) {
  ifreq request{};
  if (name.size() >= sizeof(request.ifr_name)) return std::strerror(ENODEV);
  std::memcpy(request.ifr_name, name.data(), name.size());
  const common::OwnedFD fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (ioctl(fd.Get(), SIOCGIFFLAGS, &request) != 0) return std::strerror(errno);
  if ((request.ifr_flags & IFF_UP) == 0) return "it is down";
  return "";
}

// --- Receivers ---------------------------------------------------------------------------------------

struct Reception {
  KeyPlace place;      // of the port
  KeyPlace ofAddress;  // of the group
  uint16_t port = 0;
  Address address;  // of a group of IPv4; otherwise without a family
  std::string interface;
  bool onIPv4 = true;
  bool onIPv6 = false;
  bool isGroup = false;  // or several
  bool IsGroup() const { return isGroup; }
};

Reception OfSource(const CheckSubject& subject, const SourceSettings& source) {
  const MDATA_INET_SRC_CFG network = ReceptionOf(source.record, source.tak);
  const DWORD capabilities = subject.config.encoder.capabilities;
  const int32_t family = network.iSrcAddressFamily;
  Reception reception;
  reception.place = {subject.configPath, source.name, source.tak ? "url" : "port"};
  reception.ofAddress = {subject.configPath, source.name, source.tak ? "url" : "address"};
  reception.port = network.usUDPPort;
  reception.onIPv4 = (capabilities & METADATALIB_CAPS_IPV4_SUPPORT) != 0 && family != AF_INET6;
  reception.onIPv6 = (capabilities & METADATALIB_CAPS_IPV6_SUPPORT) != 0 && family != AF_INET;
  reception.interface = source.tak ? source.tak->interface : source.reception.interface;
  for (const Address& group : GroupsOf(source.record, source.reception, source.tak)) {
    reception.isGroup = true;
    if (group.family == AF_INET) reception.address = group;
  }
  return reception;
}

// Of a source whose url is udp:// or rtp://.
Reception OfUrl(const CheckSubject& subject, const SourceSettings& source, const stream_url::DatagramOrigin& origin) {
  Reception reception;
  reception.place = reception.ofAddress = {subject.configPath, source.name, "url"};
  reception.port = origin.port;
  reception.onIPv4 = origin.family == AF_INET;
  reception.onIPv6 = origin.family == AF_INET6;
  const auto address = ParseAddress(origin.address);
  if (origin.family == AF_INET && address && address->IsMulticast()) reception.address = *address;
  return reception;
}

Reception OfCapture(const CheckSubject& subject, int input) {
  const HostCaptureConfig& capture = subject.host.captures.at(static_cast<size_t>(input));
  const std::string section = "capture" + std::to_string(input);
  Reception reception;
  reception.place = {subject.config.encoder.hostConfig, section, "port"};
  reception.ofAddress = {subject.config.encoder.hostConfig, section, "address"};
  reception.port = capture.port;
  if (capture.address.empty()) return reception;
  const auto address = ParseAddress(capture.address);
  if (!address || !address->IsMulticast()) {
    Refuse(reception.ofAddress, capture.address, "an IPv4 group, because other addresses are not looked at");
  }
  reception.address = *address;
  reception.isGroup = true;
  return reception;
}

std::vector<Reception> ReceptionsOf(const CheckSubject& subject) {
  std::vector<Reception> receptions;
  std::vector<int> inputs;
  for (const SourceSettings& source : subject.config.sources) {
    if (source.replay) continue;
    if (ReceptionOf(source.record, source.tak).usUDPPort != 0 && source.record.enInputType == MDATA_INPUT_NETWORK) {
      receptions.push_back(OfSource(subject, source));
    }
    if (source.capture) {
      const auto origin = stream_url::ParseDatagramUrl(source.capture->path);
      if (origin) receptions.push_back(OfUrl(subject, source, *origin));
    }
    if (source.capture || source.record.enInputType != MDATA_INPUT_VIDEO) continue;
    const int input = source.record.in.Video.enInputInterface;
    const auto& capture = subject.host.captures.at(static_cast<size_t>(input));
    if (capture.kind != HostCaptureConfig::Kind::Anc) continue;
    if (std::find(inputs.begin(), inputs.end(), input) != inputs.end()) continue;  // several sources share an input
    inputs.push_back(input);
    receptions.push_back(OfCapture(subject, input));
  }
  return receptions;
}

// --- Checks ------------------------------------------------------------------------------------------

void CheckPort(const Reception& reception) {
  const std::string value = std::to_string(reception.port);
  if (!MayBind(reception.port)) {
    Refuse(reception.place, value, "a port that this user may open", "it needs the capability CAP_NET_BIND_SERVICE");
  }
  const bool inTable4 = IsBound("/proc/net/udp", reception.port);
  const bool inTable6 = IsBound("/proc/net/udp6", reception.port);
  bool isBound = false;
  if (reception.IsGroup()) {  // receivers of groups share their port, other programs may not
    const bool isIPv4 = reception.address.family == AF_INET;
    isBound = isIPv4 && (inTable4 || inTable6) && !IsShared(reception.address.bytes.data(), reception.port);
  } else {
    constexpr BYTE kUnused[4] = {127, 255, 255, 254};
    isBound = (reception.onIPv4 && inTable4) || (reception.onIPv6 && inTable6) ||
              // A socket of IPv6 may have the port of IPv4 too.
              (reception.onIPv4 && inTable6 && !IsShared(kUnused, reception.port));
  }
  if (isBound) Refuse(reception.place, value, "a port that no other program has", "it is in use");
}

void CheckGroup(const Reception& reception, const std::string& interface) {
  if (!reception.interface.empty()) {
    const std::string fault = GroupInterfaceFault(reception.interface);
    if (fault.empty()) return;
    Refuse({reception.place.file, reception.place.section, "interface"}, reception.interface, "an interface that is up",
           fault);
  }
  if (reception.address.family != AF_INET || !interface.empty()) return;
  MDATA_RELAY_CFG group{};
  group.iDestAddressFamily = AF_INET;
  group.usUDPPort = reception.port;
  std::copy(reception.address.bytes.begin(), reception.address.bytes.begin() + 4, group.acDestAddress);
  if (ConnectTo(group).IsOpen()) return;
  Refuse(reception.ofAddress, AddressText(AF_INET, reception.address.bytes.data()),
         "a group for which the routing table has an interface", std::strerror(errno));
}

void CheckTogether(const std::vector<Reception>& receptions) {
  for (size_t i = 0; i < receptions.size(); ++i) {
    for (size_t j = 0; j < i; ++j) {
      const Reception& one = receptions[i];
      const Reception& other = receptions[j];
      if (one.port != other.port || (one.IsGroup() && other.IsGroup())) continue;
      if (!(one.onIPv4 && other.onIPv4) && !(one.onIPv6 && other.onIPv6)) continue;
      Refuse(one.place, std::to_string(one.port), "a port of its own", "[" + other.place.section + "] has it");
    }
  }
}

void CheckRelayRoutes(const CheckSubject& subject, const SourceSettings& source) {
  for (UINT32 i = 0; i < source.record.nNumOfRelays; ++i) {
    const MDATA_RELAY_CFG& relay = source.record.Relays[i];
    if (relay.iDestAddressFamily == 0) continue;  // the names of hosts are not looked up
    const KeyPlace place = {subject.configPath, source.name, source.relayKeys[i]};
    const std::string value = DestinationText(relay);
    const BYTE* bytes = relay.acDestAddress;
    const size_t size = relay.iDestAddressFamily == AF_INET ? 4 : 16;
    if (std::all_of(bytes, bytes + size, [](BYTE byte) { return byte == 0; })) {
      Refuse(place, value, "the address of a receiver");
    }
    const std::string& interface = source.reception.relayInterface;
    if (ConnectTo(relay, interface.empty() ? kRelayInterface : interface).IsOpen()) continue;
    Refuse(place, value, "a destination that can be sent to", std::strerror(errno));
  }
}

// Returns whether a socket of a table ("/proc/net/tcp") listens on the port.
bool IsListening(const char* table, uint16_t port) {
  std::ifstream sockets(table);
  std::string line;
  constexpr unsigned kListen = 10;
  while (std::getline(sockets, line)) {
    unsigned used = 0;
    unsigned state = 0;
    // "   0: 0100007F:1F90 00000000:0000 0A ...": number, local address and port, remote ones, state
    if (std::sscanf(line.c_str(), " %*u: %*32[0-9A-Fa-f]:%x %*32[0-9A-Fa-f]:%*x %x", &used, &state) == 2 &&
        used == port && state == kListen) {
      return true;
    }
  }
  return false;
}

// Returns whether this machine has the address.
bool IsOwn(const std::string& text) {
  const auto address = ParseAddress(text);
  if (!address) return false;
  sockaddr_storage local{};
  socklen_t size = sizeof(sockaddr_in);
  local.ss_family = static_cast<sa_family_t>(address->family);
  if (address->family == AF_INET) {
    std::memcpy(&reinterpret_cast<sockaddr_in&>(local).sin_addr, address->bytes.data(), sizeof(in_addr));
  } else {
    size = sizeof(sockaddr_in6);
    std::memcpy(&reinterpret_cast<sockaddr_in6&>(local).sin6_addr, address->bytes.data(), sizeof(in6_addr));
  }
  const common::OwnedFD fd(socket(address->family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return bind(fd.Get(), reinterpret_cast<const sockaddr*>(&local), size) == 0;
}

// The port is not opened.
void CheckPage(const CheckSubject& subject) {
  const HttpSettings& http = subject.config.encoder.http;
  if (!http.IsOn()) return;
  const KeyPlace place = {subject.configPath, "encoder", "http"};
  const std::string value = http.address + ":" + std::to_string(http.port);
  if (!IsOwn(http.address)) Refuse(place, value, "an address of this machine", std::strerror(errno));
  if (!MayBind(http.port)) {
    Refuse(place, value, "a port that this user may open", "it needs the capability CAP_NET_BIND_SERVICE");
  }
  if (IsListening("/proc/net/tcp", http.port) || IsListening("/proc/net/tcp6", http.port)) {
    Refuse(place, value, "a port that no other program has", "it is in use");
  }
}

// The names of hosts are not looked up, and nobody is called.
void CheckTls(const CheckSubject& subject, const SourceSettings& source, const TlsSettings& settings) {
  try {
    const TlsClient client(settings);
  } catch (const ConfigError& error) {
    throw ConfigError(subject.configPath + ": [" + source.name + "] " + error.what());
  }
}

}  // namespace

void CheckNetwork(const CheckSubject& subject) {
  const std::vector<Reception> receptions = ReceptionsOf(subject);
  const std::string& interface = subject.host.multicastInterface;
  if (!interface.empty()) {
    const std::string fault = GroupInterfaceFault(interface);
    if (!fault.empty()) {
      Refuse({subject.config.encoder.hostConfig, "network", "multicast interface"}, interface,
             "an interface that is up", fault);
    }
  }
  CheckTogether(receptions);
  for (const Reception& reception : receptions) {
    if (reception.onIPv6 && !reception.onIPv4 && !HasIPv6()) {
      Refuse({subject.configPath, reception.place.section, "family"}, "ipv6", "any or ipv4 on this machine",
             "no interface has an IPv6 address");
    }
    CheckPort(reception);
    CheckGroup(reception, interface);
  }
  for (const SourceSettings& source : subject.config.sources) {
    CheckRelayRoutes(subject, source);
    if (source.tak && source.tak->transport == TakSettings::Transport::Tls) {
      CheckTls(subject, source, source.tak->tls);
    }
    const auto events = ParseCotDestination(source.cotOut);
    if (events && events->isTls) CheckTls(subject, source, source.cotOutTls);
  }
  CheckPage(subject);
}

}  // namespace mdencoder
