// The simulated flight as an MPEG transport stream: a small picture, and a KLV track beside it.
#ifndef MDFEED_TS_FILE_H
#define MDFEED_TS_FILE_H

#include <cstdint>
#include <string>

#include "flight.h"
#include "sender.h"

namespace mdfeed {

struct TsOptions {
  std::string output;
  double duration = 10;     // seconds
  double rate = 5;          // timestamps of the KLV track per second, at most kTsFrameRate
  int messagesPerTime = 1;  // messages that share one timestamp
};

inline constexpr int kTsFrameRate = 25;

// Writes the file, through a temporary one beside it. Throws RunError.
//
// The picture is MPEG-2 video of 160 x 90 at 25 frames per second, a bar that walks with the flight's time. KLV travels
// as a private stream with the registration "KLVA", each message in a PES packet of its own, stamped with the
// presentation time of the frame it belongs to.
SendResult WriteTsFile(const FlightOptions& flight, const TsOptions& options, Progress& progress);

}  // namespace mdfeed

#endif  // MDFEED_TS_FILE_H
