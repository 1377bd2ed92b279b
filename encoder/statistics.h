// SPDX-License-Identifier: Apache-2.0
// Shows statistics as JSON and as a table, and keeps them in a file.
#ifndef MDENCODER_STATISTICS_H
#define MDENCODER_STATISTICS_H

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "config.h"
#include "host_runtime.h"
#include "metadata_lib.h"
#include "source.h"
#include "stream_report.h"
#include "tak_input.h"

namespace mdencoder {

// One source at one moment.
struct Report {
  const SourceSettings* settings = nullptr;
  Counters counters;                                       // counts of this program
  MDATA_SRC_STATS statistics{};                            // counts of the library
  const char* state = "open";                              // "waiting", "open", "cut off", "removed"
  uint64_t reopened = 0;                                   // how often it was opened again
  uint64_t kernelDrops = 0;                                // datagrams that the kernel dropped at the source's sockets
  std::optional<HostCaptureStats> capture = std::nullopt;  // counts of the host, of a video source
  std::optional<TakCounts> tak = std::nullopt;             // counts of the front end, of a source on a TAK network
  std::optional<double> lastMessageAge = std::nullopt;     // seconds since the last message
};

// Converts the library's counts, without the parts that the source's configuration does not use.
nlohmann::ordered_json LibraryStatisticsJson(const SourceSettings& settings, const MDATA_SRC_STATS& statistics);
// Does the reverse. Throws std::runtime_error if a value is missing or has another type.
MDATA_SRC_STATS LibraryStatisticsFromJson(const SourceSettings& settings, const nlohmann::ordered_json& json);

// Returns what a source begins with that continues another opening: the counts, with those of the relays matched by their
// destination, but no received TTL and TOS, as if they were loaded from a statistics file.
MDATA_SRC_STATS ContinuedStatistics(const SourceSettings& before, const SourceSettings& now,
                                    const MDATA_SRC_STATS& statistics);

// Returns how much was lost, dropped or corrupt, as far as anybody counts it.
uint64_t LostOrCorrupt(const Report& report);

// Returns name, input, data, messages, bytes, corrupt and all other counters of one source.
nlohmann::ordered_json ReportJson(const Report& report);
// Returns {"type":"statistics","time":...,"sources":[...],"streams":[...]} in one line; without streams that key is absent.
std::string StatisticsLine(const std::vector<Report>& reports, uint64_t timeUs,
                           const std::vector<StreamReport>& streams = {});

// Returns the lines of a table: a row per source, and below it lines for faults, senders, rewriting, events and relays; then
// the streams.
std::vector<std::string> StatisticsTable(const std::vector<Report>& reports,
                                         const std::vector<StreamReport>& streams = {});

struct RunTimes {
  uint64_t startUs = 0;  // wall clock, microseconds since 1970
  uint64_t endUs = 0;
  double seconds = 0;  // on the monotonic clock
  std::string endedBy;
  uint64_t rowsDropped = 0;  // messages that were not printed
};
std::string SummaryJson(const std::vector<Report>& reports, const RunTimes& times,
                        const std::vector<StreamReport>& streams = {});

// Load and save statistics by source name. A file that does not exist holds none. Both throw std::runtime_error.
std::map<std::string, MDATA_SRC_STATS> LoadStatistics(const std::string& path,
                                                      const std::vector<SourceSettings>& sources);
void SaveStatistics(const std::string& path, const std::vector<Report>& reports);

// Writes a new file and renames it to `path`, so that readers see either the old file or the new one. Throws
// std::runtime_error.
void ReplaceFile(const std::string& path, const std::string& content);

}  // namespace mdencoder

#endif
