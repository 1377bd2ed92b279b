// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   To JSON       the library's record, a report, a summary
//   From JSON     the library's record
//   Table         text for people
//   Files         kept statistics
#include "statistics.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "print.h"
#include "render.h"
#include "st0601_items.h"
#include "values.h"

namespace mdencoder {

using Json = nlohmann::ordered_json;

namespace {

bool IsNetwork(const SourceSettings& settings) {
  return settings.record.enInputType == MDATA_INPUT_NETWORK;
}
bool IsCot(const SourceSettings& settings) {
  return settings.record.enDataType == MDATA_DATA_COT;
}
// Returns whether the library fills the rewriting counters.
bool HasInserts(const SourceSettings& settings) {
  return settings.record.bClassifyMission || settings.record.szMissionID[0] != '\0';
}

// Returns the text of a fixed array, which may lack its terminator, for JSON and terminals.
std::string SafeText(const char* text, size_t size) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text);
  return st0601::Decode(*st0601::FindItem(st0601::kMissionIdTag), {bytes, strnlen(text, size)}).text;
}

std::string SenderText(const MDATA_INET_STATS& sender) {
  return AddressText(sender.iSourceAddressFamily, sender.SourceAddress);
}

int SensorCount(const MDATA_COT_STATS& cot) {
  return std::clamp(cot.nDiscoveredSensorsCount, 0, MDATA_MAX_DISCOVERED_SENSORS);
}

// Returns the number of events that are in no packet: their partners did not come, or are still to come. Rejected events
// count as received, and so do they here.
uint64_t EventsWithoutPartner(const MDATA_COT_STATS& cot) {
  const uint64_t received = cot.nRxAirCraftMessages + cot.nRxSPIMessages;
  const uint64_t used = cot.nFilteredRxSPIMessages + 2 * cot.nConvertedKLVMessages;
  return received > used ? received - used : 0;
}

// --- To JSON -----------------------------------------------------------------------------------------

Json CotJson(const MDATA_COT_STATS& cot) {
  Json json;
  json["sensor_point_events"] = cot.nRxSPIMessages;
  json["aircraft_events"] = cot.nRxAirCraftMessages;
  json["filtered_sensor_point_events"] = cot.nFilteredRxSPIMessages;
  json["converted_messages"] = cot.nConvertedKLVMessages;
  json["converted_bytes"] = cot.nConvertedKLVBytes;
  json["sensors"] = Json::array();
  for (int i = 0; i < SensorCount(cot); ++i) {
    json["sensors"].push_back(SafeText(cot.aszSensorUIDs[i], sizeof(cot.aszSensorUIDs[i])));
  }
  return json;
}

Json KlvJson(const MDATA_KLV_STATS& klv) {
  Json json;
  json["uas_messages"] = klv.nRxUASMessages;
  json["invalid_uas_messages"] = klv.nInvalidUASMessages;
  json["added_mission_ids"] = klv.nAddedMissionIDs;
  json["updated_mission_ids"] = klv.nUpdatedMissionIDs;
  json["added_security_sets"] = klv.nAddedSecuritySets;
  json["updated_security_sets"] = klv.nUpdatedSecuritySets;
  return json;
}

Json RelayJson(const SourceSettings& settings, size_t relay, const MDATA_RELAY_STATS& counts) {
  Json json;
  json["destination"] = RelayText(settings, relay);
  if (relay < settings.relayHosts.size() && !settings.relayHosts[relay].empty()) {
    const MDATA_RELAY_CFG& record = settings.record.Relays[relay];
    json["address"] =
        record.iDestAddressFamily == 0 ? "" : AddressText(record.iDestAddressFamily, record.acDestAddress);
  }
  json["bytes"] = counts.nRelayedBytes;
  json["messages"] = counts.nRelayedMessages;
  json["errors"] = counts.nRelayErrors;
  json["last_errno"] = counts.iLastRelayError;
  json["last_error"] = counts.iLastRelayError == 0 ? "" : std::strerror(counts.iLastRelayError);
  json["last_error_time"] = counts.iLastRelayErrorTime;
  return json;
}

// The counts of a capture, and whether they are losses.
struct CaptureCount {
  const char* key;
  const char* text;
  uint64_t HostCaptureStats::*count;
  bool isLoss;
};
constexpr CaptureCount kCaptureCounts[] = {
    {"packets", "packets", &HostCaptureStats::packets, false},
    {"bytes", "bytes", &HostCaptureStats::bytes, false},
    {"taken", "taken", &HostCaptureStats::taken, false},
    {"overflows", "dropped with the queue full", &HostCaptureStats::overflows, true},
    {"oversized", "too large", &HostCaptureStats::oversized, true},
    {"damaged", "damaged", &HostCaptureStats::damaged, true},
    {"bad_checksums", "wrong checksums", &HostCaptureStats::badChecksums, true},
    {"bad_parity", "wrong parity", &HostCaptureStats::badParity, true},
    {"lost_packets", "RTP packets lost", &HostCaptureStats::lostPackets, true},
    {"reordered", "RTP packets put in order", &HostCaptureStats::reordered, false},
    {"late", "RTP packets late", &HostCaptureStats::late, true},
    {"incomplete", "incomplete", &HostCaptureStats::incomplete, true},
    {"kernel_drops", "dropped by the kernel", &HostCaptureStats::kernelDrops, true},
};

Json CaptureJson(const HostCaptureStats& capture) {
  Json json;
  for (const CaptureCount& each : kCaptureCounts) json[each.key] = capture.*each.count;
  return json;
}

// The counts of the front end of a TAK network, and whether they are events that were not forwarded.
struct TakCount {
  const char* key;
  const char* text;
  uint64_t TakCounts::*count;
  bool isRefused;
};
constexpr TakCount kTakCounts[] = {
    {"bytes", "bytes", &TakCounts::bytes, false},
    {"datagrams", "datagrams", &TakCounts::datagrams, false},
    {"connections", "connections", &TakCounts::connections, false},
    {"events", "events", &TakCounts::events, false},
    {"forwarded", "forwarded", &TakCounts::forwarded, false},
    {"shortened", "shortened", &TakCounts::shortened, false},
    {"other_kinds", "of other kinds", &TakCounts::otherKinds, true},
    {"other_aircraft", "of other aircraft", &TakCounts::otherAircraft, true},
    {"faulty", "faulty", &TakCounts::faulty, true},
    {"too_long", "too long", &TakCounts::tooLong, true},
    {"not_sent", "not sent to the library", &TakCounts::notSent, true},
};

Json TakJson(const TakCounts& tak) {
  Json json;
  for (const TakCount& each : kTakCounts) json[each.key] = tak.*each.count;
  return json;
}

Json DetectedJson(int32_t value, ULONG updates, UINT32 upTime) {
  Json json;
  json["value"] = value;
  json["updates"] = updates;
  json["last_update_uptime_s"] = upTime;
  return json;
}

}  // namespace

Json LibraryStatisticsJson(const SourceSettings& settings, const MDATA_SRC_STATS& statistics) {
  Json json;
  json["rx_bytes"] = statistics.nRxBytes;
  json["rx_ok_messages"] = statistics.nRxOkMessages;
  json["rx_corrupt_messages"] = statistics.nRxCorruptMessages;
  json["bit_rate_kbps"] = statistics.nBitRateInKbps;
  if (IsNetwork(settings)) {
    json["sender"] = SenderText(statistics.in.Network);
    json["ttl"] = DetectedJson(statistics.iSrcTTL, statistics.nTTLUpdates, statistics.nLastTTLUpdateUpTimeInSecs);
    json["tos"] = DetectedJson(statistics.iSrcTOS, statistics.nTOSUpdates, statistics.nLastTOSUpdateUpTimeInSecs);
  }
  if (IsCot(settings)) {
    json["cot"] = CotJson(statistics.prot.CoT);
  } else if (HasInserts(settings)) {
    json["klv"] = KlvJson(statistics.prot.KLV);
  }
  json["relays"] = Json::array();
  for (UINT32 i = 0; i < settings.record.nNumOfRelays; ++i) {
    json["relays"].push_back(RelayJson(settings, i, statistics.Relays[i]));
  }
  return json;
}

uint64_t LostOrCorrupt(const Report& report) {
  uint64_t count =
      report.counters.lost + report.counters.dropped + report.kernelDrops + report.statistics.nRxCorruptMessages;
  for (const CaptureCount& each : kCaptureCounts) {
    if (report.capture && each.isLoss) count += (*report.capture).*each.count;
  }
  return count;
}

Json ReportJson(const Report& report) {
  const Counters& counters = report.counters;
  Json json;
  json["name"] = report.settings->name;
  json["input"] = report.settings->input;
  json["data"] = report.settings->data;
  json["state"] = report.state;
  json["reopened"] = report.reopened;
  json["messages"] = counters.messages;
  json["bytes"] = counters.bytes;
  json["corrupt"] = report.statistics.nRxCorruptMessages;
  json["stream_sequence_gaps"] = counters.sequenceGaps;
  json["stream_sequence_missing"] = counters.lost;
  json["sequence_gaps"] = counters.sequenceGaps;  // the former names of both
  json["lost"] = counters.lost;
  json["dropped"] = counters.dropped;
  json["last_message"] = counters.lastUs == 0 ? Json(nullptr) : Json(UtcText(counters.lastUs));
  json["last_message_age_s"] = report.lastMessageAge ? Json(*report.lastMessageAge) : Json(nullptr);
  if (IsNetwork(*report.settings)) json["kernel_drops"] = report.kernelDrops;
  if (IsNetwork(*report.settings) && !IsCot(*report.settings)) json["cut_at_buffer"] = counters.cutAtBuffer;
  if (report.capture) json["capture"] = CaptureJson(*report.capture);
  if (report.tak) json["tak"] = TakJson(*report.tak);
  json["checksum"] = {{"ok", counters.checksumOk},
                      {"bad", counters.checksumBad},
                      {"missing", counters.checksumMissing},
                      {"misplaced", counters.checksumMisplaced}};
  json["not_st0601"] = counters.notUas;
  json["incomplete"] = counters.incomplete;
  if (counters.sendsCot) json["cot_out"] = {{"events", counters.cotSent}, {"lost", counters.cotLost}};
  if (counters.isRecorded) {
    json["recording"] = {
        {"messages", counters.recorded}, {"lost", counters.recordingLost}, {"files", counters.recordingFiles}};
  }
  if (IsCot(*report.settings)) {
    json["pairs"] = {{"times_differ", counters.pairsApart},
                     {"largest_difference_ms", static_cast<double>(counters.widestPairUs) / 1000},
                     {"events_without_partner", EventsWithoutPartner(report.statistics.prot.CoT)}};
  }
  json["statistics"] = LibraryStatisticsJson(*report.settings, report.statistics);
  return json;
}

namespace {

Json ReportsJson(const std::vector<Report>& reports) {
  Json list = Json::array();
  for (const Report& report : reports) list.push_back(ReportJson(report));
  return list;
}

}  // namespace

std::string StatisticsLine(const std::vector<Report>& reports, uint64_t timeUs,
                           const std::vector<StreamReport>& streams) {
  Json json;
  json["type"] = "statistics";
  json["time"] = UtcText(timeUs);
  json["sources"] = ReportsJson(reports);
  if (!streams.empty()) json["streams"] = StreamsJson(streams);
  return json.dump();
}

std::string SummaryJson(const std::vector<Report>& reports, const RunTimes& times,
                        const std::vector<StreamReport>& streams) {
  Json json;
  json["type"] = "summary";
  json["started"] = UtcText(times.startUs);
  json["ended"] = UtcText(times.endUs);
  json["seconds"] = times.seconds;
  json["ended_by"] = times.endedBy;
  json["rows_dropped"] = times.rowsDropped;
  json["sources"] = ReportsJson(reports);
  if (!streams.empty()) json["streams"] = StreamsJson(streams);
  return json.dump(2) + "\n";
}

// --- From JSON ---------------------------------------------------------------------------------------

namespace {

template <typename Number>
void Read(const Json& json, const char* key, Number& number) {
  const Json& value = json.at(key);
  if (!value.is_number_integer()) throw std::runtime_error(std::string(key) + " is not a whole number");
  number = value.get<Number>();
}

void ReadCot(const Json& json, MDATA_COT_STATS& cot) {
  Read(json, "sensor_point_events", cot.nRxSPIMessages);
  Read(json, "aircraft_events", cot.nRxAirCraftMessages);
  Read(json, "filtered_sensor_point_events", cot.nFilteredRxSPIMessages);
  Read(json, "converted_messages", cot.nConvertedKLVMessages);
  Read(json, "converted_bytes", cot.nConvertedKLVBytes);
  // The library discovers the sensors again, because its interface cannot set them.
}

void ReadKlv(const Json& json, MDATA_KLV_STATS& klv) {
  Read(json, "uas_messages", klv.nRxUASMessages);
  Read(json, "invalid_uas_messages", klv.nInvalidUASMessages);
  Read(json, "added_mission_ids", klv.nAddedMissionIDs);
  Read(json, "updated_mission_ids", klv.nUpdatedMissionIDs);
  Read(json, "added_security_sets", klv.nAddedSecuritySets);
  Read(json, "updated_security_sets", klv.nUpdatedSecuritySets);
}

void ReadRelay(const Json& json, MDATA_RELAY_STATS& counts) {
  Read(json, "bytes", counts.nRelayedBytes);
  Read(json, "messages", counts.nRelayedMessages);
  Read(json, "errors", counts.nRelayErrors);
  Read(json, "last_errno", counts.iLastRelayError);
  Read(json, "last_error_time", counts.iLastRelayErrorTime);
}

// The kept TTL and TOS are not loaded: relays that follow start with the system's values on their new sockets, and change
// them only if a datagram has a value that the library does not know yet.
void ReadNetwork(const Json& json, MDATA_SRC_STATS& statistics) {
  if (const auto sender = ParseAddress(json.at("sender").get<std::string>())) {
    statistics.in.Network.iSourceAddressFamily = sender->family;
    std::copy(sender->bytes.begin(), sender->bytes.end(), statistics.in.Network.SourceAddress);
  }
  Read(json.at("ttl"), "updates", statistics.nTTLUpdates);
  Read(json.at("ttl"), "last_update_uptime_s", statistics.nLastTTLUpdateUpTimeInSecs);
  Read(json.at("tos"), "updates", statistics.nTOSUpdates);
  Read(json.at("tos"), "last_update_uptime_s", statistics.nLastTOSUpdateUpTimeInSecs);
}

}  // namespace

// Values that the file lacks, because the configuration has a new relay or mission identifier, start at 0.
MDATA_SRC_STATS LibraryStatisticsFromJson(const SourceSettings& settings, const Json& json) try {
  MDATA_SRC_STATS statistics{};
  statistics.nSize = sizeof(statistics);
  statistics.iSrcTTL = statistics.iSrcTOS = -1;
  Read(json, "rx_bytes", statistics.nRxBytes);
  Read(json, "rx_ok_messages", statistics.nRxOkMessages);
  Read(json, "rx_corrupt_messages", statistics.nRxCorruptMessages);
  if (IsNetwork(settings)) ReadNetwork(json, statistics);
  if (IsCot(settings)) {
    ReadCot(json.at("cot"), statistics.prot.CoT);
  } else if (HasInserts(settings) && json.contains("klv")) {
    ReadKlv(json.at("klv"), statistics.prot.KLV);
  }
  for (const Json& relay : json.at("relays")) {
    for (UINT32 i = 0; i < settings.record.nNumOfRelays; ++i) {
      if (relay.at("destination") == RelayText(settings, i)) ReadRelay(relay, statistics.Relays[i]);
    }
  }
  return statistics;
} catch (const nlohmann::json::exception& error) {
  throw std::runtime_error(error.what());
}

MDATA_SRC_STATS ContinuedStatistics(const SourceSettings& before, const SourceSettings& now,
                                    const MDATA_SRC_STATS& statistics) {
  return LibraryStatisticsFromJson(now, LibraryStatisticsJson(before, statistics));
}

// --- Table -------------------------------------------------------------------------------------------

namespace {

std::string DetectedText(int32_t value, ULONG updates) {
  return value < 0 ? "not detected" : Print("%d (changed %lu times)", value, updates);
}

void AddNetworkLines(const Report& report, std::vector<std::string>& lines) {
  const MDATA_SRC_STATS& statistics = report.statistics;
  const std::string sender = SenderText(statistics.in.Network);
  if (!sender.empty()) lines.push_back("    last sender " + sender);
  if (statistics.iSrcTTL < 0 && statistics.iSrcTOS < 0) return;
  lines.push_back("    TTL " + DetectedText(statistics.iSrcTTL, statistics.nTTLUpdates) + ", TOS " +
                  DetectedText(statistics.iSrcTOS, statistics.nTOSUpdates));
}

void AddProtocolLines(const Report& report, std::vector<std::string>& lines) {
  if (IsCot(*report.settings)) {
    const MDATA_COT_STATS& cot = report.statistics.prot.CoT;
    lines.push_back(Print("    events: %lu aircraft, %lu sensor point, %lu filtered; converted %lu messages, %lu bytes",
                          cot.nRxAirCraftMessages, cot.nRxSPIMessages, cot.nFilteredRxSPIMessages,
                          cot.nConvertedKLVMessages, cot.nConvertedKLVBytes));
    lines.push_back(
        Print("    pairs: %llu of events whose times differ, by %g ms at most; %llu events without a partner",
              static_cast<unsigned long long>(report.counters.pairsApart),
              static_cast<double>(report.counters.widestPairUs) / 1000,
              static_cast<unsigned long long>(EventsWithoutPartner(cot))));
    for (int i = 0; i < SensorCount(cot); ++i) {
      lines.push_back("    sensor " + SafeText(cot.aszSensorUIDs[i], sizeof(cot.aszSensorUIDs[i])));
    }
  } else if (HasInserts(*report.settings)) {
    const MDATA_KLV_STATS& klv = report.statistics.prot.KLV;
    lines.push_back(
        Print("    rewritten: %lu sets, %lu invalid; mission id added %lu, updated %lu; security added %lu, "
              "updated %lu",
              klv.nRxUASMessages, klv.nInvalidUASMessages, klv.nAddedMissionIDs, klv.nUpdatedMissionIDs,
              klv.nAddedSecuritySets, klv.nUpdatedSecuritySets));
  }
}

void AddTakLine(const TakCounts& tak, std::vector<std::string>& lines) {
  std::string line =
      Print("    TAK network: %llu bytes, %llu events, %llu forwarded", static_cast<unsigned long long>(tak.bytes),
            static_cast<unsigned long long>(tak.events), static_cast<unsigned long long>(tak.forwarded));
  for (const TakCount& each : kTakCounts) {
    if (each.isRefused && tak.*each.count != 0) line += ", " + std::to_string(tak.*each.count) + " " + each.text;
  }
  lines.push_back(line);
}

void AddRelayLines(const Report& report, std::vector<std::string>& lines) {
  for (UINT32 i = 0; i < report.settings->record.nNumOfRelays; ++i) {
    const MDATA_RELAY_STATS& relay = report.statistics.Relays[i];
    std::string line =
        Print("    relay %s: %lu messages, %lu bytes, %lu errors", RelayText(*report.settings, i).c_str(),
              relay.nRelayedMessages, relay.nRelayedBytes, relay.nRelayErrors);
    if (relay.nRelayErrors != 0) line += Print(", last \"%s\"", std::strerror(relay.iLastRelayError));
    lines.push_back(line);
  }
}

constexpr double kRecent = 2;  // seconds

void AddLossLines(const Report& report, std::vector<std::string>& lines) {
  if (report.lastMessageAge.value_or(0) >= kRecent) {
    lines.push_back(Print("    last message %.0f s ago", *report.lastMessageAge));
  }
  if (report.kernelDrops != 0) {
    lines.push_back(Print("    %llu datagrams dropped by the kernel, because the socket's buffer was full",
                          static_cast<unsigned long long>(report.kernelDrops)));
  }
  if (report.counters.cutAtBuffer != 0) {
    lines.push_back(Print("    %llu messages end where the receive buffer of 1500 bytes does, and may be cut",
                          static_cast<unsigned long long>(report.counters.cutAtBuffer)));
  }
  if (!report.capture) return;
  std::string losses;
  for (const CaptureCount& each : kCaptureCounts) {
    if (!each.isLoss || *report.capture.*each.count == 0) continue;
    losses += (losses.empty() ? "" : ", ") + std::to_string(*report.capture.*each.count) + " " + each.text;
  }
  if (!losses.empty()) lines.push_back("    lost in the capture: " + losses);
}

void AddFaultLines(const Counters& counters, std::vector<std::string>& lines) {
  if (counters.sequenceGaps + counters.dropped != 0) {
    lines.push_back(
        Print("    %llu gaps in the stream sequence with %llu numbers missing, %llu dropped with the queue full",
              static_cast<unsigned long long>(counters.sequenceGaps), static_cast<unsigned long long>(counters.lost),
              static_cast<unsigned long long>(counters.dropped)));
  }
  if (counters.recordingLost != 0) {
    lines.push_back(
        Print("    %llu messages could not be recorded", static_cast<unsigned long long>(counters.recordingLost)));
  }
  const uint64_t checksums = counters.checksumBad + counters.checksumMissing + counters.checksumMisplaced;
  if (checksums + counters.notUas + counters.incomplete != 0) {
    lines.push_back(
        Print("    checksums %llu bad, %llu missing, %llu misplaced; %llu sets incomplete; %llu not ST 0601",
              static_cast<unsigned long long>(counters.checksumBad),
              static_cast<unsigned long long>(counters.checksumMissing),
              static_cast<unsigned long long>(counters.checksumMisplaced),
              static_cast<unsigned long long>(counters.incomplete), static_cast<unsigned long long>(counters.notUas)));
  }
}

}  // namespace

std::vector<std::string> StatisticsTable(const std::vector<Report>& reports, const std::vector<StreamReport>& streams) {
  std::vector<std::string> lines;
  lines.push_back(Print("%-10s %-6s %-4s %8s %11s %11s %8s %7s %6s", "SOURCE", "INPUT", "DATA", "MESSAGES", "BYTES",
                        "RECEIVED", "OK", "CORRUPT", "KBIT/S"));
  for (const Report& report : reports) {
    const SourceSettings& settings = *report.settings;
    const MDATA_SRC_STATS& statistics = report.statistics;
    lines.push_back(Print("%-10s %-6s %-4s %8llu %11llu %11lu %8lu %7lu %6u", settings.name.c_str(),
                          settings.input.c_str(), settings.data.c_str(),
                          static_cast<unsigned long long>(report.counters.messages),
                          static_cast<unsigned long long>(report.counters.bytes), statistics.nRxBytes,
                          statistics.nRxOkMessages, statistics.nRxCorruptMessages, statistics.nBitRateInKbps));
    AddFaultLines(report.counters, lines);
    AddLossLines(report, lines);
    if (IsNetwork(settings)) AddNetworkLines(report, lines);
    if (report.tak) AddTakLine(*report.tak, lines);
    AddProtocolLines(report, lines);
    AddRelayLines(report, lines);
  }
  AddStreamLines(streams, lines);
  return lines;
}

// --- Files -------------------------------------------------------------------------------------------

void ReplaceFile(const std::string& path, const std::string& content) {
  const std::string beside = path + ".new";
  {
    std::ofstream file(beside, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  }
  if (std::rename(beside.c_str(), path.c_str()) != 0) {
    const std::string why = std::strerror(errno);
    std::remove(beside.c_str());
    throw std::runtime_error("cannot write " + path + ": " + why);
  }
}

std::map<std::string, MDATA_SRC_STATS> LoadStatistics(const std::string& path,
                                                      const std::vector<SourceSettings>& sources) try {
  std::map<std::string, MDATA_SRC_STATS> loaded;
  std::ifstream file(path, std::ios::binary);
  if (!file && errno == ENOENT) return loaded;
  if (!file) throw std::runtime_error(std::strerror(errno));
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const Json json = Json::parse(text);
  for (const Json& entry : json.at("sources")) {
    for (const SourceSettings& settings : sources) {
      // A source whose kind has changed starts at 0.
      if (entry.at("name") != settings.name || entry.at("input") != settings.input ||
          entry.at("data") != settings.data) {
        continue;
      }
      loaded[settings.name] = LibraryStatisticsFromJson(settings, entry.at("statistics"));
    }
  }
  return loaded;
} catch (const std::exception& error) {
  throw std::runtime_error("cannot read the statistics in " + path + ": " + error.what());
}

void SaveStatistics(const std::string& path, const std::vector<Report>& reports) {
  Json json;
  json["type"] = "kept statistics";
  json["sources"] = ReportsJson(reports);
  ReplaceFile(path, json.dump(2) + "\n");
}

}  // namespace mdencoder
