// SPDX-License-Identifier: Apache-2.0
// The way of what this program finds itself (in a capture file, on a TAK network, in a stream) into a UDP source of the
// library: one datagram for each message, over the loopback interface, to a port that nobody else has.
#ifndef MDENCODER_LOOPBACK_H
#define MDENCODER_LOOPBACK_H

#include <netinet/in.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>

namespace mdencoder {

// The library cuts longer datagrams.
constexpr size_t kLongestDatagram = 1500;

sockaddr_in Loopback(uint16_t port);

// Returns a UDP port of IPv4 that no socket of this machine has at the moment, or 0.
uint16_t FreePort();

// Returns how much the sockets of this UDP port hold unread, from the text of /proc/net/udp.
uint64_t UnreadBytes(std::string_view table, uint16_t port);
// The same of the kernel's table of the moment. Without the table it is 0.
uint64_t UnreadBytes(uint16_t port);

// Tells when datagrams may be sent so that none is lost: the kernel drops what a socket has no room for, and the program
// refuses messages that it has no room for, without a word to the sender. It belongs to one thread.
class Turns {
 public:
  static constexpr std::chrono::milliseconds kLook{1};  // until it is asked again

  // `room` returns how many messages the program can take now.
  explicit Turns(std::function<size_t()> room) : m_room(std::move(room)) {}
  // Returns whether a datagram may be sent to the port now; 0 stands for one that is not known yet.
  bool Take(uint16_t port);

 private:
  const std::function<size_t()> m_room;
  size_t m_credit = 0;  // datagrams that may be sent before the socket and the room are looked at again
};

}  // namespace mdencoder

#endif  // MDENCODER_LOOPBACK_H
