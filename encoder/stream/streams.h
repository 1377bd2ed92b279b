// SPDX-License-Identifier: Apache-2.0
// The streams of a run: video and the delivered messages in transport streams, and the video as fragmented MP4 for a page.
#ifndef MDENCODER_STREAMS_H
#define MDENCODER_STREAMS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fragment_ring.h"
#include "receiver.h"
#include "stream_report.h"
#include "stream_settings.h"

namespace mdencoder {

class Stream;

class Streams {
 public:
  using Say = std::function<void(bool isWarning, const std::string& line)>;

  Streams();
  ~Streams();
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;

  // Opens the outputs and starts the threads. `sources` are the names of the run's sources. Throws std::runtime_error.
  void Start(const std::vector<StreamSettings>& streams, const std::vector<std::string>& sources, const Say& say);
  // Writes what is queued and ends the threads. Any order with the other calls but Push.
  void Finish();

  // Gives a message to the streams that carry its source. Recorder's thread; waits for nobody.
  void Push(const Received& received);
  bool IsEmpty() const { return m_streams.empty(); }

  // Any thread, from Start to the end of this object.
  std::vector<std::string> Names() const;
  std::vector<StreamReport> Snapshot() const;
  // Returns the stream's video, or nothing for an unknown name.
  std::shared_ptr<FragmentRing> Ring(std::string_view stream) const;
  // Returns the presentation time of a message on the clock of the stream's video, in microseconds, or nothing for a
  // stream or source that is unknown. `timeUs` is the message's precision time stamp.
  std::optional<int64_t> Presentation(std::string_view stream, std::string_view source, std::optional<uint64_t> timeUs,
                                      uint64_t arrivalUs) const;

 private:
  std::vector<std::unique_ptr<Stream>> m_streams;
};

}  // namespace mdencoder

#endif  // MDENCODER_STREAMS_H
