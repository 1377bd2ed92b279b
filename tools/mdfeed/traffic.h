// What is sent: one batch of messages per tick of the clock.
#ifndef MDFEED_TRAFFIC_H
#define MDFEED_TRAFFIC_H

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "cot_flight.h"
#include "cot_frame.h"
#include "flight.h"

namespace mdfeed {

using Batch = std::vector<Bytes>;

class Traffic {
 public:
  virtual ~Traffic() = default;
  // The messages of the next tick; nothing at the end.
  virtual std::optional<Batch> Next() = 0;
};

// A whole file. Throws RunError.
Bytes ReadFile(const std::string& path);

// Cuts a KLV stream at the borders of its messages. Bytes between messages are left out and counted in 'skipped'.
std::vector<Bytes> SplitKlv(const Bytes& stream, size_t* skipped);
// Cuts a text at the ends of its events, "</event>".
std::vector<Bytes> SplitEvents(const Bytes& text);
// Cuts into pieces of at most 'size' bytes.
std::vector<Bytes> SplitChunks(const Bytes& data, size_t size);

// The same messages again and again; repeat 0 never ends.
std::unique_ptr<Traffic> MakeRecorded(std::vector<Bytes> messages, unsigned repeat);

// The flight, one state every interval, as KLV.
std::unique_ptr<Traffic> MakeKlvFlight(const FlightOptions& flight, int64_t intervalUs);
// The flight as pairs of events.
std::unique_ptr<Traffic> MakeCotFlight(const FlightOptions& flight, const CotOptions& cot, int64_t intervalUs);

// Cuts every message of another traffic into chunks.
std::unique_ptr<Traffic> MakeChunked(std::unique_ptr<Traffic> inner, size_t chunk);

// Damage of frames: the field, and how many percent of the frames get it.
struct FrameDamage {
  FrameField field;
  double percent;
};
// "crc" or "crc:20". Throws std::invalid_argument.
FrameDamage ParseFrameDamage(const std::string& text);

// Puts every event of another traffic into a frame of the serial link.
std::unique_ptr<Traffic> MakeFramed(std::unique_ptr<Traffic> inner, char channel, std::vector<FrameDamage> damage,
                                    uint32_t seed);

}  // namespace mdfeed

#endif  // MDFEED_TRAFFIC_H
