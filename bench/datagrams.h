// SPDX-License-Identifier: Apache-2.0
// Sockets of the loopback interface for the path workloads.
#ifndef BENCH_DATAGRAMS_H
#define BENCH_DATAGRAMS_H

#include <sys/socket.h>

#include <cstdint>
#include <vector>

#include "traffic.h"

namespace bench {

// Sends messages to one port, one after the other and again from the start.
class Sender {
 public:
  Sender(std::uint16_t port, const std::vector<Bytes>& messages);
  ~Sender();
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;
  // Returns how many left.
  int Send(int count);

 private:
  int m_socket;
  const std::vector<Bytes>& m_messages;
  std::size_t m_next = 0;
};

// A destination of relays that drops everything in the kernel, so that it costs the same however long it runs.
class Sink {
 public:
  Sink();
  ~Sink();
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;
  std::uint16_t Port() const { return m_port; }
  // A new socket that is connected to it.
  int Connect() const;
  // Makes it the destination of a relay.
  void Describe(MDATA_RELAY_CFG& relay) const;

 private:
  int m_socket;
  std::uint16_t m_port;
};

// A bound receiving socket of the loopback interface, with its port.
int BindLoopback(std::uint16_t* port);
// A new datagram socket that is connected to a port of the loopback interface.
int ConnectLoopback(std::uint16_t port);

}  // namespace bench

#endif  // BENCH_DATAGRAMS_H
