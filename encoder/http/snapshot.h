// SPDX-License-Identifier: Apache-2.0
// The state of the program at one moment, as the main thread gives it to the page once a second.
#ifndef MDENCODER_HTTP_SNAPSHOT_H
#define MDENCODER_HTTP_SNAPSHOT_H

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "http/message_json.h"

namespace mdencoder::http {

struct Snapshot {
  uint64_t timeUs = 0;
  std::chrono::steady_clock::time_point at{};
  Json sources = Json::array();       // a report of each, as in the statistics
  std::vector<std::string> troubles;  // why the program is not healthy
  uint64_t waiting = 0;               // messages in the queue of the recorder
  std::optional<double> silentFor;    // seconds since the last sign of the metadata thread
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_SNAPSHOT_H
