// SPDX-License-Identifier: Apache-2.0
#include "stream_report.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "print.h"

namespace mdencoder {
namespace {

using Json = nlohmann::ordered_json;

Json TrackJson(const StreamReport::Track& track) {
  return {{"source", track.source},
          {"pid", track.pid},
          {"messages", track.messages},
          {"late", track.late},
          {"by_arrival", track.byArrival},
          {"offset_ms", static_cast<double>(track.offsetUs) / 1000},
          {"difference_ms", static_cast<double>(track.differenceUs) / 1000},
          {"drift_ppm", track.driftPpm}};
}

unsigned long long Long(uint64_t number) {
  return number;
}

}  // namespace

Json StreamsJson(const std::vector<StreamReport>& reports) {
  Json list = Json::array();
  for (const StreamReport& report : reports) {
    Json json = {{"name", report.name},
                 {"video", report.video},
                 {"has_video", report.hasVideo},
                 {"frames", report.frames},
                 {"frames_late", report.framesLate},
                 {"messages", report.messages},
                 {"lost", report.lost},
                 {"clock", static_cast<double>(report.clockUs) / 1e6},
                 {"wall_offset_ms", static_cast<double>(report.wallOffsetUs) / 1000}};
    json["tracks"] = Json::array();
    for (const StreamReport::Track& track : report.tracks) json["tracks"].push_back(TrackJson(track));
    json["outputs"] = Json::array();
    for (const StreamReport::Output& output : report.outputs) {
      json["outputs"].push_back(
          {{"name", output.name}, {"good", output.isGood}, {"bytes", output.bytes}, {"lost", output.lost}});
    }
    list.push_back(json);
  }
  return list;
}

void AddStreamLines(const std::vector<StreamReport>& reports, std::vector<std::string>& lines) {
  for (const StreamReport& report : reports) {
    lines.push_back(Print("stream %s: %llu frames, %llu left out; %llu messages, %llu lost", report.name.c_str(),
                          Long(report.frames), Long(report.framesLate), Long(report.messages), Long(report.lost)));
    for (const StreamReport::Track& track : report.tracks) {
      lines.push_back(
          Print("    %s in PID 0x%X: %llu messages, %llu late, %llu by arrival; clock %+.1f ms off, followed by "
                "%+.1f ms, drift %+.0f ppm",
                track.source.c_str(), static_cast<unsigned>(track.pid), Long(track.messages), Long(track.late),
                Long(track.byArrival), static_cast<double>(track.differenceUs) / 1000,
                static_cast<double>(track.offsetUs) / 1000, track.driftPpm));
    }
    for (const StreamReport::Output& output : report.outputs) {
      lines.push_back("    " + output.name +
                      Print(": %llu bytes, %llu lost%s", Long(output.bytes), Long(output.lost),
                            output.isGood ? "" : "; cannot be written"));
    }
  }
}

}  // namespace mdencoder
