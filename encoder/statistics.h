// Statistics as JSON and as a table, and kept in a file.
#ifndef MDENCODER_STATISTICS_H
#define MDENCODER_STATISTICS_H

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
  Counters counters;             // what this program counted
  MDATA_SRC_STATS statistics{};  // what the library counted
};

// What the library counted; parts that the source's configuration does not fill are left out.
nlohmann::ordered_json LibraryStatisticsJson(const SourceSettings& settings, const MDATA_SRC_STATS& statistics);
// The inverse. Throws std::runtime_error when something is missing or of another type.
MDATA_SRC_STATS LibraryStatisticsFromJson(const SourceSettings& settings, const nlohmann::ordered_json& json);

// Name, input, data, messages, bytes, corrupt and all other counters of one source.
nlohmann::ordered_json ReportJson(const Report& report);
// {"type":"statistics","time":...,"sources":[...]} in one line.
std::string StatisticsLine(const std::vector<Report>& reports, uint64_t timeUs);

// Lines of a table: one row a source, under it what else there is to say.
std::vector<std::string> StatisticsTable(const std::vector<Report>& reports);

struct RunTimes {
  uint64_t startUs = 0;  // wall clock, microseconds since 1970
  uint64_t endUs = 0;
  double seconds = 0;  // on the monotonic clock
  std::string endedBy;
};
std::string SummaryJson(const std::vector<Report>& reports, const RunTimes& times);

// Statistics by source name. Both throw std::runtime_error; a file that does not exist is an empty one.
std::map<std::string, MDATA_SRC_STATS> LoadStatistics(const std::string& path,
                                                      const std::vector<SourceSettings>& sources);
void SaveStatistics(const std::string& path, const std::vector<Report>& reports);

// Writes beside `path` and renames, so that readers see the old file or the new one. Throws std::runtime_error.
void ReplaceFile(const std::string& path, const std::string& content);

}  // namespace mdencoder

#endif
