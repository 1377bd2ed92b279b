// SPDX-License-Identifier: Apache-2.0
// What every path answers, without the connection.
#ifndef MDENCODER_HTTP_API_H
#define MDENCODER_HTTP_API_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fragment_ring.h"
#include "http/answer.h"
#include "http/assets.h"
#include "http/events.h"
#include "http/hub.h"
#include "http/metrics.h"
#include "http/recordings.h"
#include "http/stream_view.h"

namespace mdencoder::http {

struct ApiSettings {
  std::string version;
  std::string run;  // differs from run to run
  uint64_t startUs = 0;
  std::string tiles;
  std::string attribution;
  std::vector<std::string> folders;  // of recordings
  StreamView streams;
  EventFlow::Say say;
};

class Api {
 public:
  // All live as long as this object.
  Api(ApiSettings settings, const Hub& hub, const Assets& assets);

  // Any thread. Throws Refusal. `counts` are the server's.
  Answer Handle(const Request& request, const ServerCounts& counts) const;

 private:
  using Parts = std::vector<std::string_view>;

  Answer OfApi(const Parts& parts, const Request& request) const;
  Answer OfSource(const Parts& parts, const Request& request) const;
  Answer OfRecording(const Parts& parts, const Request& request) const;
  Json Info() const;
  Json Sources() const;
  Json Source(const std::string& name) const;
  Json Last(const std::string& name, const Request& request) const;
  Json History(const std::string& name, const Request& request) const;
  Json Track(const std::string& name, const Request& request) const;
  Json Log(const Request& request) const;
  Json Streams() const;
  Answer Events(const Request& request) const;
  Answer Stream(const std::string& file) const;
  Answer Metrics(const ServerCounts& counts) const;
  Answer Health() const;

  const ApiSettings m_settings;
  const Hub& m_hub;
  const Assets& m_assets;
  const Recordings m_recordings;
  const std::string m_itemTables;
};

}  // namespace mdencoder::http

#endif  // MDENCODER_HTTP_API_H
