// SPDX-License-Identifier: Apache-2.0
// The network interfaces of this machine: changes as the kernel reports them (rtnetlink), and questions about them.
#ifndef MDENCODER_NETWORK_WATCH_H
#define MDENCODER_NETWORK_WATCH_H

#include <netinet/in.h>

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "owned_fd.h"

namespace mdencoder {

// What changed since the last time.
struct NetworkChanges {
  bool any = false;
  std::vector<int> removedLinks;  // indexes of interfaces that were removed
};

// Adds what the netlink messages in `data` say. Incomplete messages are ignored.
void ReadNetworkChanges(std::span<const std::byte> data, NetworkChanges& changes);

class NetworkWatch {
 public:
  // Without a netlink socket, as in a sandbox, there is no descriptor and there are no changes.
  NetworkWatch();

  // Returns the descriptor to poll, or -1.
  int Descriptor() const { return m_socket.Get(); }
  // Returns what happened to links, addresses and routes. It never waits. Changes that the kernel could not queue count
  // as changes of an unknown kind.
  NetworkChanges Read();

 private:
  common::OwnedFD m_socket;
};

// Returns the index of the interface on which the routing table sends packets to `address`, or 0 if there is no route.
int RouteInterface(in_addr address);
// Returns why no traffic passes over the interface: "eth1 is gone", "eth1 is down", "eth1 has no carrier", or "".
std::string InterfaceFault(int index, const std::string& name);
std::string InterfaceName(int index);  // "" if there is no such interface

}  // namespace mdencoder

#endif  // MDENCODER_NETWORK_WATCH_H
