// SPDX-License-Identifier: Apache-2.0
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include "error.h"
#include "output.h"
#include "owned_fd.h"
#include "value_text.h"

namespace mdfeed {

[[noreturn]] void ThrowErrno(const std::string& what) {
  throw RunError(what + ": " + std::strerror(errno));
}

UdpAddress ParseUdpAddress(const std::string& text) {
  UdpAddress address;
  const size_t colon = text.rfind(':');
  if (colon != std::string::npos) {
    address.host = text.substr(0, colon);
    address.port = text.substr(colon + 1);
  }
  if (address.host.size() >= 2 && address.host.front() == '[' && address.host.back() == ']') {
    address.host = address.host.substr(1, address.host.size() - 2);
  } else if (address.host.find(':') != std::string::npos) {
    throw std::invalid_argument("'" + text + "': write an IPv6 address as [address]:port");
  }
  const bool digits = !address.port.empty() && address.port.find_first_not_of("0123456789") == std::string::npos;
  if (address.host.empty() || !digits || !value_text::ParseWholeNumber(address.port, 1, 65535)) {
    throw std::invalid_argument("'" + text + "' is not HOST:PORT with a port from 1 to 65535");
  }
  return address;
}

namespace {

class UdpOutput : public Output {
 public:
  UdpOutput(const UdpAddress& address, const std::string& interface) : m_name(address.host + ":" + address.port) {
    Resolve(address);
    m_fd.Reset(socket(m_address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!m_fd.IsOpen()) ThrowErrno("cannot make a UDP socket");
    if (!interface.empty()) ChooseInterface(interface);
  }

  void Send(std::span<const uint8_t> data) override {
    for (;;) {
      const ssize_t sent =
          sendto(m_fd.Get(), data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&m_address), m_addressSize);
      if (sent >= 0) return;
      if (errno == EINTR || errno == ECONNREFUSED) continue;
      if (errno != EAGAIN && errno != ENOBUFS) ThrowErrno("cannot send to " + m_name);
      pollfd ready = {m_fd.Get(), POLLOUT, 0};
      poll(&ready, 1, 10);
    }
  }

  void SetTtl(int ttl) override {
    if (IsV6()) {
      Set(IPPROTO_IPV6, IPV6_UNICAST_HOPS, ttl, "hop limit");
      Set(IPPROTO_IPV6, IPV6_MULTICAST_HOPS, ttl, "hop limit");
    } else {
      Set(IPPROTO_IP, IP_TTL, ttl, "TTL");
      Set(IPPROTO_IP, IP_MULTICAST_TTL, ttl, "TTL");
    }
  }

  void SetTos(int tos) override {
    if (IsV6()) {
      Set(IPPROTO_IPV6, IPV6_TCLASS, tos, "traffic class");
    } else {
      Set(IPPROTO_IP, IP_TOS, tos, "TOS");
    }
  }

 private:
  bool IsV6() const { return m_address.ss_family == AF_INET6; }

  void Resolve(const UdpAddress& address) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found);
    if (error != 0) throw RunError("cannot resolve " + m_name + ": " + gai_strerror(error));
    std::memcpy(&m_address, found->ai_addr, found->ai_addrlen);
    m_addressSize = found->ai_addrlen;
    freeaddrinfo(found);
  }

  void Set(int level, int option, int value, const char* what) {
    if (setsockopt(m_fd.Get(), level, option, &value, sizeof(value)) != 0) {
      ThrowErrno("cannot set the " + std::string(what) + " to " + std::to_string(value));
    }
  }

  // Selects the interface for multicast destinations.
  void ChooseInterface(const std::string& interface) {
    const unsigned index = if_nametoindex(interface.c_str());
    if (index == 0) throw RunError("there is no interface " + interface);
    if (IsV6()) {
      Set(IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(index), "interface");
      return;
    }
    ip_mreqn request{};
    request.imr_ifindex = static_cast<int>(index);
    if (setsockopt(m_fd.Get(), IPPROTO_IP, IP_MULTICAST_IF, &request, sizeof(request)) != 0) {
      ThrowErrno("cannot send through " + interface);
    }
  }

  std::string m_name;
  sockaddr_storage m_address{};
  socklen_t m_addressSize = 0;
  common::OwnedFD m_fd;
};

}  // namespace

std::unique_ptr<Output> OpenUdp(const UdpAddress& address, const std::string& interface) {
  return std::make_unique<UdpOutput>(address, interface);
}

}  // namespace mdfeed
