// SPDX-License-Identifier: Apache-2.0
// The traffic to send: one batch of messages per tick of the clock.
#ifndef MDFEED_TRAFFIC_H
#define MDFEED_TRAFFIC_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cot_flight.h"
#include "cot_frame.h"
#include "flight.h"

namespace mdfeed {

using Batch = std::vector<Bytes>;

class Traffic {
 public:
  virtual ~Traffic() = default;
  // Returns the messages of the next tick, or nothing at the end.
  virtual std::optional<Batch> Next() = 0;
  // Returns when the batch of the last Next is due, from the start on, if the traffic has times of its own.
  virtual std::optional<std::chrono::microseconds> Due() const { return std::nullopt; }
};

// Reads a whole file. Throws RunError.
Bytes ReadFile(const std::string& path);

// Cuts a KLV stream into its messages. Bytes between messages are dropped and counted in 'skipped'.
std::vector<Bytes> SplitKlv(const Bytes& stream, size_t* skipped);
// Cuts a text after each event, at "</event>".
std::vector<Bytes> SplitEvents(const Bytes& text);
// Cuts data into pieces of at most 'size' bytes.
std::vector<Bytes> SplitChunks(const Bytes& data, size_t size);

// Repeats the same messages; with repeat 0 it never ends.
std::unique_ptr<Traffic> MakeRecorded(std::vector<Bytes> messages, unsigned repeat);

// A message of a recording with an index (docs/formats/recording_index.md).
struct IndexedMessage {
  Bytes message;   // without the stream header
  int64_t timeUs;  // of its arrival
};
// Takes the messages that the index names out of the recording. Lines that refer to nothing in the file, as the last ones
// of a run that was cut off may, are counted in 'skipped'. Throws RunError if this is no index.
std::vector<IndexedMessage> SplitIndexed(const Bytes& recording, const Bytes& index, size_t* skipped);
// Sends messages as far apart as they arrived. A step back of the clock is a pause of no length.
std::unique_ptr<Traffic> MakeTimed(std::vector<IndexedMessage> messages, unsigned repeat);

// Sends the flight as KLV, one state per interval.
std::unique_ptr<Traffic> MakeKlvFlight(const FlightOptions& flight, int64_t intervalUs);
// Sends the flight as pairs of events.
std::unique_ptr<Traffic> MakeCotFlight(const FlightOptions& flight, const CotOptions& cot, int64_t intervalUs);

// Cuts every message of another traffic into chunks.
std::unique_ptr<Traffic> MakeChunked(std::unique_ptr<Traffic> inner, size_t chunk);

// Damage of frames: the damaged field, and the share of damaged frames.
struct FrameDamage {
  FrameField field;
  double percent;
};
// Parses "crc" or "crc:20". Throws std::invalid_argument.
FrameDamage ParseFrameDamage(const std::string& text);

// Puts every event of another traffic into a frame of the serial link.
std::unique_ptr<Traffic> MakeFramed(std::unique_ptr<Traffic> inner, char channel, std::vector<FrameDamage> damage,
                                    uint32_t seed);

}  // namespace mdfeed

#endif  // MDFEED_TRAFFIC_H
