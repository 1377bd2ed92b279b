// SPDX-License-Identifier: Apache-2.0
// Shows statistics as JSON and as a table, and keeps them in a file.
#ifndef MDENCODER_STATISTICS_H
#define MDENCODER_STATISTICS_H

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "config.h"
#include "metadata_lib.h"
#include "source.h"

namespace mdencoder {

// One source at one moment.
struct Report {
  const SourceSettings* settings = nullptr;
  Counters counters;             // counts of this program
  MDATA_SRC_STATS statistics{};  // counts of the library
};

// Converts the library's counts, without the parts that the source's configuration does not use.
nlohmann::ordered_json LibraryStatisticsJson(const SourceSettings& settings, const MDATA_SRC_STATS& statistics);
// Does the reverse. Throws std::runtime_error if a value is missing or has another type.
MDATA_SRC_STATS LibraryStatisticsFromJson(const SourceSettings& settings, const nlohmann::ordered_json& json);

// Returns name, input, data, messages, bytes, corrupt and all other counters of one source.
nlohmann::ordered_json ReportJson(const Report& report);
// Returns {"type":"statistics","time":...,"sources":[...]} in one line.
std::string StatisticsLine(const std::vector<Report>& reports, uint64_t timeUs);

// Returns the lines of a table: a row per source, and below it lines for faults, senders, rewriting, events and relays.
std::vector<std::string> StatisticsTable(const std::vector<Report>& reports);

struct RunTimes {
  uint64_t startUs = 0;  // wall clock, microseconds since 1970
  uint64_t endUs = 0;
  double seconds = 0;  // on the monotonic clock
  std::string endedBy;
};
std::string SummaryJson(const std::vector<Report>& reports, const RunTimes& times);

// Load and save statistics by source name. A file that does not exist holds none. Both throw std::runtime_error.
std::map<std::string, MDATA_SRC_STATS> LoadStatistics(const std::string& path,
                                                      const std::vector<SourceSettings>& sources);
void SaveStatistics(const std::string& path, const std::vector<Report>& reports);

// Writes a new file and renames it to `path`, so that readers see either the old file or the new one. Throws
// std::runtime_error.
void ReplaceFile(const std::string& path, const std::string& content);

}  // namespace mdencoder

#endif
