// SPDX-License-Identifier: Apache-2.0
// The simulated flight as an MPEG transport stream with a small picture and a KLV track.
#ifndef MDFEED_TS_FILE_H
#define MDFEED_TS_FILE_H

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

// Writes a temporary file and renames it. Throws RunError.
//
// The picture is MPEG-2 video of 160 x 90 at 25 frames per second, with a bar that moves with the time. KLV is a
// private stream with the registration "KLVA". Each message has a PES packet of its own, with the presentation time of
// its frame.
SendResult WriteTsFile(const FlightOptions& flight, const TsOptions& options, Progress& progress);

}  // namespace mdfeed

#endif  // MDFEED_TS_FILE_H
