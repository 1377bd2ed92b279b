// SPDX-License-Identifier: Apache-2.0
#include "datagram_input.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "value_text.h"
#include "values.h"

namespace mdencoder {
namespace {

using st0601::ByteView;

constexpr size_t kLargestDatagram = 65536;
constexpr int kSocketBuffer = 4 << 20;  // of the socket, as far as the system allows

// Reads "udp://[@]ADDRESS:PORT", with an IPv6 address in brackets; "udp://:PORT" is any address.
std::optional<std::pair<Address, uint16_t>> ParseUrl(std::string text) {
  text = text.substr(text.find("://") + 3);
  if (text.starts_with('@')) text.erase(0, 1);
  text = text.substr(0, text.find_first_of("?/"));
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  const auto port = value_text::ParseWholeNumber(text.substr(colon + 1), 1, 65535);
  std::string host = text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  if (host.empty()) host = "0.0.0.0";
  if (host == "localhost") host = "127.0.0.1";
  const auto address = ParseAddress(host);
  if (!port || !address) return std::nullopt;
  return std::pair(*address, static_cast<uint16_t>(*port));
}

bool BindV4(int fd, const Address& address, uint16_t port) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  std::memcpy(&local.sin_addr, address.bytes.data(), sizeof(local.sin_addr));
  if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) return false;
  if (!address.IsMulticast()) return true;
  ip_mreqn group{};
  group.imr_multiaddr = local.sin_addr;
  return setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof(group)) == 0;
}

bool BindV6(int fd, const Address& address, uint16_t port) {
  sockaddr_in6 local{};
  local.sin6_family = AF_INET6;
  local.sin6_port = htons(port);
  std::memcpy(&local.sin6_addr, address.bytes.data(), sizeof(local.sin6_addr));
  if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) return false;
  if (!address.IsMulticast()) return true;
  ipv6_mreq group{};
  group.ipv6mr_multiaddr = local.sin6_addr;
  return setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &group, sizeof(group)) == 0;
}

}  // namespace

DatagramInput::DatagramInput(const std::string& url, std::optional<Clock::time_point> end)
    : m_end(end), m_buffer(kLargestDatagram) {
  const auto place = ParseUrl(url);
  if (!place) throw std::runtime_error(url + ": must be udp://ADDRESS:PORT with a numeric address");
  const auto& [address, port] = *place;
  m_socket.Reset(socket(address.family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int yes = 1;
  setsockopt(m_socket.Get(), SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof(kSocketBuffer));
  // Several programs may look at one group.
  if (address.IsMulticast()) setsockopt(m_socket.Get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  const bool isBound = m_socket.IsOpen() && (address.family == AF_INET ? BindV4(m_socket.Get(), address, port)
                                                                       : BindV6(m_socket.Get(), address, port));
  if (!isBound) throw std::runtime_error(url + ": " + std::strerror(errno));
}

std::optional<ByteView> DatagramInput::Next() {
  if (std::exchange(m_isRepeated, false)) return m_payload;
  for (;;) {
    const ssize_t got = recv(m_socket.Get(), m_buffer.data(), m_buffer.size(), 0);
    if (got > 0) return m_payload = Unwrap(ByteView(m_buffer).first(static_cast<size_t>(got)));
    int wait = -1;
    if (m_end) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*m_end - Clock::now()).count();
      if (left <= 0) return std::nullopt;
      wait = static_cast<int>(std::min<int64_t>(left, 3600000));
    }
    pollfd set = {m_socket.Get(), POLLIN, 0};
    poll(&set, 1, wait);
  }
}

// A message and a packet of a transport stream never begin as RTP does.
ByteView DatagramInput::Unwrap(ByteView datagram) {
  const auto packet = live_datagrams::UnpackRtp(datagram);
  if (!packet) return datagram;
  if (m_sequence >= 0) m_missing += static_cast<uint16_t>(packet->sequence - m_sequence - 1);
  m_sequence = packet->sequence;
  return packet->payload;
}

}  // namespace mdencoder
