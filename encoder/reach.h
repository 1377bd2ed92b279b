// SPDX-License-Identifier: Apache-2.0
// What stands between a source and its traffic: whether it can be opened at all, over which interface and from which
// addresses an open one works, and whether that is still so. The questions have no side effects and log nothing, so
// that a source can be asked about every few seconds. A failed opening in the library would be several lines of the log
// each time.
#ifndef MDENCODER_REACH_H
#define MDENCODER_REACH_H

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "config.h"
#include "host_runtime.h"
#include "metadata_lib.h"
#include "relay_names.h"

namespace mdencoder {

// Where an open source is connected.
struct Place {
  int interface = 0;  // on which its group is joined; 0 without a group, or if no interface has a route to it
  std::string interfaceName;
  // Addresses that the relays send from, in the order of the relays; zeros where there is no route.
  std::vector<std::array<BYTE, 16>> senders;
};

struct Health {
  std::string fault;         // why traffic does not pass, or ""
  bool needsReopen = false;  // there is a new place, and only a new opening gets there
};

// The questions, which tests replace.
struct Reach {
  // Returns why the source could not be opened now ("there is no /dev/ttyUSB0"), or "" if nothing is known against it.
  std::function<std::string(const SourceSettings&, const HostRuntimeConfig&)> obstacle;
  std::function<Place(const SourceSettings&, const HostRuntimeConfig&)> locate;
  // Compares the place of an open source with what is there now.
  std::function<Health(const SourceSettings&, const HostRuntimeConfig&, const Place&)> examine;
  AskName ask = AskSystem;  // for the addresses of relays
};
Reach SystemReach();

// Returns the device that the host opens for serial sources.
std::string SerialDevice(const HostRuntimeConfig& host);

}  // namespace mdencoder

#endif  // MDENCODER_REACH_H
