// SPDX-License-Identifier: Apache-2.0
// The addresses and interfaces from which a UDP source receives: what of them the library's record holds, and what the host
// does for its sockets.
#ifndef MDENCODER_RECEPTION_H
#define MDENCODER_RECEPTION_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host_runtime.h"
#include "metadata_lib.h"
#include "section.h"
#include "tak_settings.h"
#include "values.h"

namespace mdencoder {

// Reads the keys family, address, sender and interface. Throws ConfigError.
HostReception ReadReception(Section& section, MDATA_INET_SRC_CFG& network);

// Returns the groups that a source joins, none for one that receives whatever is sent to the port.
std::vector<Address> GroupsOf(const MDATA_SRC_CFG& record, const HostReception& reception,
                              const std::optional<TakSettings>& tak);

// An address that belongs to an interface: "fe80::1%eth0", or any other without one.
struct ScopedAddress {
  Address address;
  std::string interface;
};
std::optional<ScopedAddress> ParseScopedAddress(std::string_view text);

}  // namespace mdencoder

#endif  // MDENCODER_RECEPTION_H
