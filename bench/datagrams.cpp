// SPDX-License-Identifier: Apache-2.0
#include "datagrams.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "workload.h"

namespace bench {
namespace {

constexpr int kAtOnce = 64;

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

int BindLoopback(std::uint16_t* port) {
  const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(0);
  socklen_t size = sizeof address;
  Require(bind(descriptor, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
              getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "no free port");
  *port = ntohs(address.sin_port);
  return descriptor;
}

int ConnectLoopback(std::uint16_t port) {
  const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(port);
  Require(connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "no connection");
  return descriptor;
}

Sender::Sender(std::uint16_t port, const std::vector<Bytes>& messages)
    : m_socket(ConnectLoopback(port)), m_messages(messages) {}

Sender::~Sender() {
  close(m_socket);
}

int Sender::Send(int count) {
  std::array<iovec, kAtOnce> parts;
  std::array<mmsghdr, kAtOnce> headers{};
  int sent = 0;
  while (sent < count) {
    const int round = std::min(count - sent, kAtOnce);
    for (int i = 0; i < round; ++i) {
      const Bytes& message = m_messages[m_next];
      m_next = (m_next + 1) % m_messages.size();
      const auto k = static_cast<std::size_t>(i);
      parts[k] = {const_cast<std::uint8_t*>(message.data()), message.size()};
      headers[k].msg_hdr.msg_iov = &parts[k];
      headers[k].msg_hdr.msg_iovlen = 1;
    }
    const int left = sendmmsg(m_socket, headers.data(), static_cast<unsigned>(round), 0);
    if (left <= 0) break;
    sent += left;
  }
  return sent;
}

Sink::Sink() : m_socket(BindLoopback(&m_port)) {
  sock_filter none = {BPF_RET | BPF_K, 0, 0, 0};
  const sock_fprog program = {1, &none};
  Require(setsockopt(m_socket, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0, "no filter");
}

Sink::~Sink() {
  close(m_socket);
}

int Sink::Connect() const {
  return ConnectLoopback(m_port);
}

void Sink::Describe(MDATA_RELAY_CFG& relay) const {
  relay.usUDPPort = m_port;
  relay.iDestAddressFamily = AF_INET;
  relay.acDestAddress[0] = 127;
  relay.acDestAddress[3] = 1;
}

}  // namespace bench
