// SPDX-License-Identifier: Apache-2.0
// Relays and events that come back. A UDP source relays every datagram that it receives, so a relay that leads to the
// source's own port, directly or through other sources of the configuration, multiplies one datagram until the machine is
// full of it. A source that receives the events that it sends (cot_out) makes new ones of them for ever.
#ifndef MDENCODER_RELAY_GRAPH_H
#define MDENCODER_RELAY_GRAPH_H

#include <functional>
#include <optional>
#include <vector>

#include "config.h"
#include "values.h"

namespace mdencoder {

// What must be known about the machine to tell where a relay leads.
struct Machine {
  std::vector<Address> own;  // addresses of the interfaces, and their broadcast addresses
  // Returns the address from which this machine sends to `destination`, or nothing if there is no route.
  std::function<std::optional<Address>(const Address& destination)> senderTo;
};

// Asks the system; nothing is sent.
Machine ThisMachine();

// Throws ConfigError for the first source that gets its own datagrams back, with the chain of relays.
void CheckRelays(const Config& config, const Machine& machine);

}  // namespace mdencoder

#endif  // MDENCODER_RELAY_GRAPH_H
