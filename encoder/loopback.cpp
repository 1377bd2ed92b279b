// SPDX-License-Identifier: Apache-2.0
#include "loopback.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "owned_fd.h"

namespace mdencoder {
namespace {

constexpr size_t kMostCredit = 64;  // datagrams, which every socket's buffer takes
constexpr size_t kPart = 8;         // of the room, because others take some too

}  // namespace

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

uint16_t FreePort() {
  const common::OwnedFD fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  socklen_t size = sizeof(address);
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  if (bind(fd.Get(), plain, size) != 0 || getsockname(fd.Get(), plain, &size) != 0) return 0;
  return ntohs(address.sin_port);
}

uint64_t UnreadBytes(std::string_view table, uint16_t port) {
  uint64_t unread = 0;
  while (!table.empty()) {
    const std::string line(table.substr(0, table.find('\n')));
    table.remove_prefix(std::min(table.size(), line.size() + 1));
    unsigned found = 0;
    unsigned long queued = 0;
    // "  12: 0100007F:1388 00000000:0000 07 00000000:00000300 ...": number, addresses, state, queues to send and to read
    if (std::sscanf(line.c_str(), " %*u: %*32[0-9A-Fa-f]:%x %*32[0-9A-Fa-f]:%*x %*x %*x:%lx", &found, &queued) == 2 &&
        found == port) {
      unread += queued;
    }
  }
  return unread;
}

uint64_t UnreadBytes(uint16_t port) {
  std::ifstream file("/proc/net/udp");
  const std::string table{std::istreambuf_iterator<char>(file), {}};
  return UnreadBytes(table, port);
}

bool Turns::Take(uint16_t port) {
  if (port == 0) return false;
  if (m_credit == 0) {
    const size_t room = UnreadBytes(port) != 0 ? 0 : m_room();
    if (room == 0) return false;
    m_credit = std::clamp(room / kPart, size_t{1}, kMostCredit);
  }
  --m_credit;
  return true;
}

}  // namespace mdencoder
