// SPDX-License-Identifier: Apache-2.0
// The statistics in the text format 0.0.4 of Prometheus.
#ifndef MDENCODER_HTTP_METRICS_H
#define MDENCODER_HTTP_METRICS_H

#include <cstdint>
#include <string>

#include "http/hub.h"
#include "http/message_json.h"

namespace mdencoder::http {

struct ServerCounts {
  uint64_t connections = 0;  // that are open
  uint64_t accepted = 0;
  uint64_t turnedAway = 0;  // because there were too many
  uint64_t requests = 0;
  uint64_t refused = 0;  // requests with a status from 400 on
  uint64_t flows = 0;    // clients of events and streams
  uint64_t slow = 0;     // clients that did not read and were closed
};

struct MetricsInput {
  const Snapshot& state;
  Hub::Counts hub;
  ServerCounts server;
  std::string version;
  double startSeconds = 0;        // since 1970
  const Json* streams = nullptr;  // a report of each, or nothing
};

std::string MetricsText(const MetricsInput& input);

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_METRICS_H
