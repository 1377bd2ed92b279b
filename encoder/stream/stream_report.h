// SPDX-License-Identifier: Apache-2.0
// What a stream counts, and how the statistics show it.
#ifndef MDENCODER_STREAM_REPORT_H
#define MDENCODER_STREAM_REPORT_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace mdencoder {

// One stream at one moment.
struct StreamReport {
  struct Output {
    std::string name;
    bool isGood = true;
    uint64_t bytes = 0;
    uint64_t lost = 0;  // bytes that could not be written
  };
  struct Track {
    std::string source;
    uint16_t pid = 0;
    uint64_t messages = 0;
    uint64_t late = 0;         // messages that have a later time than their own
    uint64_t byArrival = 0;    // messages without a time that could be used
    int64_t offsetUs = 0;      // added to their times
    int64_t differenceUs = 0;  // from the source's clock to this one, with the time on the way
    double driftPpm = 0;       // of the source's clock
  };
  std::string name;
  std::string video;
  bool hasVideo = false;  // pictures are coming
  uint64_t frames = 0;
  uint64_t framesLate = 0;   // that were left out because this machine was too slow
  uint64_t messages = 0;     // in the stream
  uint64_t lost = 0;         // messages for which there was no room
  int64_t clockUs = 0;       // time of the last frame
  int64_t wallOffsetUs = 0;  // how far the time of day has moved against the stream's clock
  std::vector<Track> tracks;
  std::vector<Output> outputs;
};

nlohmann::ordered_json StreamsJson(const std::vector<StreamReport>& reports);
// Adds the lines of a table.
void AddStreamLines(const std::vector<StreamReport>& reports, std::vector<std::string>& lines);

}  // namespace mdencoder

#endif  // MDENCODER_STREAM_REPORT_H
