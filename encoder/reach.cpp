// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Serial     finds out whether a device is there and free, without opening it
//   Network    tries ports and groups, and asks the routing table about groups
//   Relays     finds out whether there is a route, and whether a sender's address is still this machine's
//   Video      asks about the origin of a video input
//   Reach      puts the answers together
#include "reach.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

#include "network_watch.h"
#include "owned_fd.h"
#include "stream_url.h"
#include "values.h"

namespace mdencoder {
namespace {

using common::OwnedFD;

std::string ErrorText() {
  return std::strerror(errno);
}

// --- Serial ------------------------------------------------------------------------------------------

// Returns the process that has locked the file, as the lines of /proc/locks tell, or 0. Opening a serial device would
// raise its control lines.
int LockOwner(const struct stat& file) {
  std::ifstream locks("/proc/locks");
  std::string line;
  while (std::getline(locks, line)) {
    int owner = 0;
    unsigned major = 0;
    unsigned minor = 0;
    unsigned long node = 0;
    if (std::sscanf(line.c_str(), "%*d: FLOCK %*s %*s %d %x:%x:%lu", &owner, &major, &minor, &node) != 4) continue;
    if (node == file.st_ino && makedev(major, minor) == file.st_dev && owner != getpid()) return owner;
  }
  return 0;
}

std::string SerialObstacle(const std::string& device) {
  if (stream_url::IsUrl(device)) return {};  // the host connects to it, and says what is in the way
  struct stat info;
  if (stat(device.c_str(), &info) != 0) {
    return errno == ENOENT ? "there is no " + device : device + ": " + ErrorText();
  }
  if (!S_ISCHR(info.st_mode)) return device + " is not a device";
  if (access(device.c_str(), R_OK | W_OK) != 0) return device + ": " + ErrorText();
  if (const int owner = LockOwner(info)) return device + " is in use by process " + std::to_string(owner);
  return {};
}

// --- Network -----------------------------------------------------------------------------------------

sockaddr_storage SocketAddress(int family, const BYTE* bytes, uint16_t port, uint32_t scope = 0) {
  sockaddr_storage storage{};
  if (family == AF_INET) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (bytes != nullptr) std::memcpy(&address.sin_addr, bytes, sizeof(address.sin_addr));
    std::memcpy(&storage, &address, sizeof(address));
  } else {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    address.sin6_scope_id = scope;
    if (bytes != nullptr) std::memcpy(&address.sin6_addr, bytes, sizeof(address.sin6_addr));
    std::memcpy(&storage, &address, sizeof(address));
  }
  return storage;
}

const sockaddr* Plain(const sockaddr_storage& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

in_addr GroupOf(const BYTE* bytes) {
  in_addr group{};
  std::memcpy(&group, bytes, sizeof(group));
  return IN_MULTICAST(ntohl(group.s_addr)) ? group : in_addr{};
}

// Binds a socket as the host would. Returns 0 or the error. A group's port is shared.
int TryPort(int family, uint16_t port, bool isShared) {
  const OwnedFD fd(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (!fd.IsOpen()) return errno;
  if (family == AF_INET6) setsockopt(fd.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
  if (isShared) setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  const sockaddr_storage local = SocketAddress(family, nullptr, port);
  return bind(fd.Get(), Plain(local), sizeof(local)) == 0 ? 0 : errno;
}

// A machine without one of the families is no obstacle to a source of both.
std::string PortObstacle(int family, uint16_t port, bool isShared) {
  int missing = 0;
  int error = 0;
  int tried = 0;
  for (const int each : {AF_INET, AF_INET6}) {
    if (family != 0 && family != each) continue;
    ++tried;
    const int result = TryPort(each, port, isShared);
    if (result == 0) continue;
    if (result == EAFNOSUPPORT || result == EADDRNOTAVAIL) ++missing;
    if (error == 0 || error == EAFNOSUPPORT || error == EADDRNOTAVAIL) error = result;
  }
  if (error == 0 || (missing == 1 && tried == 2 && (error == EAFNOSUPPORT || error == EADDRNOTAVAIL))) return {};
  const std::string name = "UDP port " + std::to_string(port);
  return error == EADDRINUSE ? name + " is in use" : name + ": " + std::strerror(error);
}

std::string InterfaceObstacle(const std::string& name) {
  return name.empty() || if_nametoindex(name.c_str()) != 0 ? "" : "there is no interface " + name;
}

// Returns the interface on which the host joins the group.
int GroupInterface(in_addr group, const HostRuntimeConfig& host) {
  if (host.multicastInterface.empty()) return RouteInterface(group);
  return static_cast<int>(if_nametoindex(host.multicastInterface.c_str()));
}

std::string GroupText(in_addr group) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &group, text, sizeof(text));
  return text;
}

// Without an interface of its own the host joins on the loopback interface at least.
std::string GroupObstacle(in_addr group, const HostRuntimeConfig& host) {
  if (group.s_addr == 0 || host.multicastInterface.empty() || GroupInterface(group, host) != 0) return {};
  return "there is no interface " + host.multicastInterface;
}

Health ExamineGroup(in_addr group, const HostRuntimeConfig& host, const Place& place) {
  const int now = GroupInterface(group, host);
  if (place.interface == 0 && place.interfaceName.empty()) {
    if (now != 0) return {{}, true};
    return {"no interface has a route to " + GroupText(group), false};
  }
  Health health;
  health.fault = InterfaceFault(place.interface, place.interfaceName);
  // The group stays where it was joined while traffic can pass there, whatever the routing table prefers now.
  if (!health.fault.empty() && now != 0 && now != place.interface && InterfaceFault(now, {}).empty()) {
    return {{}, true};
  }
  return health;
}

// --- Relays ------------------------------------------------------------------------------------------

// Connects a socket as the library does. Returns the address that it would send from, or nothing with errno.
std::optional<std::array<BYTE, 16>> SenderTo(const MDATA_RELAY_CFG& relay, const std::string& interface) {
  const OwnedFD fd(socket(relay.iDestAddressFamily, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const uint32_t scope = relay.iDestAddressFamily == AF_INET6 ? if_nametoindex(interface.c_str()) : 0;
  const sockaddr_storage to = SocketAddress(relay.iDestAddressFamily, relay.acDestAddress, relay.usUDPPort, scope);
  sockaddr_storage from{};
  socklen_t size = sizeof(from);
  if (!fd.IsOpen() || connect(fd.Get(), Plain(to), sizeof(to)) != 0 ||
      getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&from), &size) != 0) {
    return std::nullopt;
  }
  std::array<BYTE, 16> sender{};
  if (relay.iDestAddressFamily == AF_INET) {
    sockaddr_in address;
    std::memcpy(&address, &from, sizeof(address));
    std::memcpy(sender.data(), &address.sin_addr, sizeof(address.sin_addr));
  } else {
    sockaddr_in6 address;
    std::memcpy(&address, &from, sizeof(address));
    std::memcpy(sender.data(), &address.sin6_addr, sizeof(address.sin6_addr));
  }
  return sender;
}

// Returns the interface of link-local destinations.
const std::string& RelayInterface(const SourceSettings& settings) {
  static const std::string kUsual = kRelayInterface;
  return settings.reception.relayInterface.empty() ? kUsual : settings.reception.relayInterface;
}

std::string RelayObstacle(const SourceSettings& settings) {
  const std::string missing = InterfaceObstacle(settings.reception.relayInterface);
  if (!missing.empty()) return missing;
  const MDATA_SRC_CFG& record = settings.record;
  for (UINT32 i = 0; i < record.nNumOfRelays; ++i) {
    const MDATA_RELAY_CFG& relay = record.Relays[i];
    if (SenderTo(relay, RelayInterface(settings))) continue;
    const std::string why = ErrorText();
    return "no way to the relay destination " + AddressText(relay.iDestAddressFamily, relay.acDestAddress) + ": " + why;
  }
  return {};
}

// A socket keeps the address it was connected with, and cannot send once that is no longer this machine's.
bool IsOwnAddress(int family, const std::array<BYTE, 16>& sender, const std::string& interface) {
  const OwnedFD fd(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const uint32_t scope = family == AF_INET6 ? if_nametoindex(interface.c_str()) : 0;
  const sockaddr_storage local = SocketAddress(family, sender.data(), 0, scope);
  return bind(fd.Get(), Plain(local), sizeof(local)) == 0 || errno != EADDRNOTAVAIL;
}

Health ExamineRelays(const SourceSettings& settings, const Place& place) {
  const std::string fault = RelayObstacle(settings);
  if (!fault.empty()) return {fault, false};
  const MDATA_SRC_CFG& record = settings.record;
  for (UINT32 i = 0; i < record.nNumOfRelays && i < place.senders.size(); ++i) {
    const bool had = place.senders[i] != std::array<BYTE, 16>{};
    const int family = record.Relays[i].iDestAddressFamily;
    if (!had || !IsOwnAddress(family, place.senders[i], RelayInterface(settings))) return {{}, true};
  }
  return {};
}

// --- Video -------------------------------------------------------------------------------------------

std::optional<stream_url::DatagramOrigin> DatagramsOf(const HostCaptureConfig& capture) {
  if (capture.kind != HostCaptureConfig::Kind::Media) return std::nullopt;
  return stream_url::ParseDatagramUrl(capture.path);
}

in_addr CaptureGroup(const HostCaptureConfig& capture) {
  const auto datagrams = DatagramsOf(capture);
  const std::string& text = datagrams ? datagrams->address : capture.address;
  in_addr address{};
  const bool hasAddress = datagrams || capture.kind == HostCaptureConfig::Kind::Anc;
  if (!hasAddress || inet_pton(AF_INET, text.c_str(), &address) != 1) return {};
  return IN_MULTICAST(ntohl(address.s_addr)) ? address : in_addr{};
}

std::string DatagramObstacle(const stream_url::DatagramOrigin& origin, in_addr group, const HostRuntimeConfig& host) {
  if (!origin.interface.empty() && if_nametoindex(origin.interface.c_str()) == 0) {
    return "there is no interface " + origin.interface;
  }
  const std::string fault = PortObstacle(origin.family, origin.port, group.s_addr != 0);
  return fault.empty() ? GroupObstacle(group, host) : fault;
}

// A URL and a key may name the interface on which groups are joined.
HostRuntimeConfig HostOf(const SourceSettings& settings, const HostRuntimeConfig& host) {
  HostRuntimeConfig own = host;
  const auto datagrams = settings.capture ? DatagramsOf(*settings.capture) : std::nullopt;
  if (datagrams && !datagrams->interface.empty()) own.multicastInterface = datagrams->interface;
  if (!settings.reception.interface.empty()) own.multicastInterface = settings.reception.interface;
  return own;
}

std::string SocketObstacle(const std::string& path) {
  std::error_code ignored;
  const auto folder = std::filesystem::absolute(path, ignored).parent_path();
  if (!std::filesystem::is_directory(folder, ignored)) return "there is no folder " + folder.string();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const OwnedFD fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const bool listens = connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  return listens ? path + " is in use" : "";
}

std::string CaptureObstacle(const HostCaptureConfig& capture, const HostRuntimeConfig& host) {
  using Kind = HostCaptureConfig::Kind;
  switch (capture.kind) {
    case Kind::None:
      return {};
    case Kind::Media:
      if (const auto datagrams = DatagramsOf(capture)) {
        return DatagramObstacle(*datagrams, CaptureGroup(capture), host);
      }
      if (stream_url::IsUrl(capture.path) || access(capture.path.c_str(), R_OK) == 0) return {};
      return capture.path + ": " + ErrorText();
    case Kind::Anc: {
      const in_addr group = CaptureGroup(capture);
      const std::string fault = PortObstacle(AF_INET, capture.port, group.s_addr != 0);
      return fault.empty() ? GroupObstacle(group, host) : fault;
    }
    case Kind::Socket:
      return SocketObstacle(capture.path);
  }
  return {};
}

// --- Reach -------------------------------------------------------------------------------------------

// The first group of IPv4 stands for all, which are joined together.
in_addr GroupOf(const SourceSettings& settings, const HostRuntimeConfig& host) {
  if (settings.capture) return CaptureGroup(*settings.capture);
  switch (settings.record.enInputType) {
    case MDATA_INPUT_NETWORK:
      for (const HostReception::Group& group : settings.reception.groups) {
        if (group.family == AF_INET) return GroupOf(group.address.data());
      }
      return settings.record.in.Network.iSrcAddressFamily == AF_INET6
                 ? in_addr{}
                 : GroupOf(settings.record.in.Network.acSrcAddress);
    case MDATA_INPUT_VIDEO:
      return CaptureGroup(CaptureOf(settings, host));
    default:
      return {};
  }
}

// Examines an interface that is not that of a group of IPv4.
Health ExamineInterface(const std::string& name, const Place& place) {
  const int now = static_cast<int>(if_nametoindex(name.c_str()));
  if (now == 0) return {"there is no interface " + name, false};
  if (now != place.interface) return {{}, true};
  return {InterfaceFault(now, name), false};
}

std::string Obstacle(const SourceSettings& settings, const HostRuntimeConfig& asked) {
  const HostRuntimeConfig host = HostOf(settings, asked);
  std::string fault;
  switch (settings.record.enInputType) {
    case MDATA_INPUT_SERIAL:
      fault = SerialObstacle(SerialDevice(host));
      break;
    case MDATA_INPUT_NETWORK: {
      if (settings.capture) {
        fault = CaptureObstacle(*settings.capture, host);
        break;
      }
      if (settings.replay) {
        if (access(settings.replay->path.c_str(), R_OK) != 0) fault = settings.replay->path + ": " + ErrorText();
        break;
      }
      const MDATA_INET_SRC_CFG& network = settings.record.in.Network;
      const in_addr group = GroupOf(settings, host);
      const bool isShared = group.s_addr != 0 || !settings.reception.groups.empty();
      fault = PortObstacle(network.iSrcAddressFamily, network.usUDPPort, isShared);
      if (fault.empty()) fault = GroupObstacle(group, host);
      if (fault.empty()) fault = InterfaceObstacle(settings.reception.interface);
      break;
    }
    default:
      fault = CaptureObstacle(CaptureOf(settings, host), host);
      break;
  }
  return fault.empty() ? RelayObstacle(settings) : fault;
}

Place Locate(const SourceSettings& settings, const HostRuntimeConfig& asked) {
  const HostRuntimeConfig host = HostOf(settings, asked);
  Place place;
  const in_addr group = GroupOf(settings, host);
  if (group.s_addr != 0) {
    place.interface = GroupInterface(group, host);
    place.interfaceName = InterfaceName(place.interface);
  } else if (!settings.reception.interface.empty()) {
    place.interface = static_cast<int>(if_nametoindex(settings.reception.interface.c_str()));
    place.interfaceName = settings.reception.interface;
  }
  for (UINT32 i = 0; i < settings.record.nNumOfRelays; ++i) {
    const auto sender = SenderTo(settings.record.Relays[i], RelayInterface(settings));
    place.senders.push_back(sender.value_or(std::array<BYTE, 16>{}));
  }
  return place;
}

Health Examine(const SourceSettings& settings, const HostRuntimeConfig& asked, const Place& place) {
  const HostRuntimeConfig host = HostOf(settings, asked);
  Health health;
  const in_addr group = GroupOf(settings, host);
  if (group.s_addr != 0) {
    health = ExamineGroup(group, host, place);
  } else if (!settings.reception.interface.empty()) {
    health = ExamineInterface(settings.reception.interface, place);
  }
  if (!health.fault.empty() || health.needsReopen) return health;
  return ExamineRelays(settings, place);
}

}  // namespace

std::string SerialDevice(const HostRuntimeConfig& host) {
  const auto mapped = host.serialDevices.find(kSerialDevice);
  return mapped == host.serialDevices.end() ? kSerialDevice : mapped->second;
}

Reach SystemReach() {
  return {Obstacle, Locate, Examine};
}

}  // namespace mdencoder
