// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "render.h"
#include "statistics.h"
#include "values.h"

namespace mdencoder::output_test {
namespace {

using Json = nlohmann::ordered_json;
using st0601::Builder;
using st0601::Bytes;
using st0601::ByteView;
using testing::Each;
using testing::HasSubstr;
using testing::Not;

SourceSettings UdpSettings() {
  SourceSettings settings;
  settings.name = "udp";
  settings.input = "udp";
  settings.data = "klv";
  settings.record.enInputType = MDATA_INPUT_NETWORK;
  return settings;
}

// A message in the form that the callback delivers.
Bytes WithHeader(const Bytes& message, uint8_t sequence, uint16_t length) {
  Bytes bytes = {0, sequence, 0xDF, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length & 0xFF)};
  bytes.insert(bytes.end(), message.begin(), message.end());
  return bytes;
}

struct Rendered {
  explicit Rendered(const Bytes& message) : buffer(WithHeader(message, 17, 300)) {
    received.source = &source;
    received.name = source.Name();
    received.timeUs = 1714558830123456;
    received.sequence = 17;
    received.headerLength = 300;
    received.buffer = buffer;
    parsed = st0601::Parse(received.Message());
  }
  SourceSettings settings = UdpSettings();
  Source source{settings};
  Bytes buffer;
  Received received;
  st0601::Message parsed;
};

Bytes Sample() {
  const Bytes security = {1, 1, 4, 3, 5, '/', '/', 'U', 'S', 'A'};
  return Builder()
      .AddWhole(2, 1224807209913000)
      .AddText(3, "Mission 12")
      .Add(13, 60.1768229669783)
      .Add(7, 1000.0)
      .Add(48, ByteView(security))
      .Add(5, ByteView(Bytes{1}))
      .Add(144, ByteView(Bytes{0xAB}))
      .Finish();
}

// --- rows --------------------------------------------------------------------------------------------

TEST(Row, ShowsTheItemsWithUnitsAndTheChecksum) {
  const Bytes sample = Sample();
  const Rendered rendered(sample);
  const std::string row = WideRow(rendered.received, rendered.parsed);
  EXPECT_THAT(row, HasSubstr(" udp               17     " + std::to_string(sample.size()) + " ok        time="));
  EXPECT_THAT(row, HasSubstr(" time=2008-10-24T00:13:29.913000Z mission_id=Mission 12 sensor_lat=60.17682297 deg "));
  EXPECT_THAT(row, HasSubstr(" roll=out of range security={classification=SECRET, classifying_country=//USA} "));
  EXPECT_THAT(row, HasSubstr(" heading=01 144=AB checksum=0x"));
  EXPECT_EQ(row.find('\n'), std::string::npos);
}

TEST(Row, TellsWhatIsWrong) {
  Bytes cut = Sample();
  cut.resize(cut.size() - 1);
  EXPECT_THAT(WideRow(Rendered(cut).received, Rendered(cut).parsed), HasSubstr("runs past the end)"));
  const Rendered other(Bytes{1, 2, 3});
  EXPECT_THAT(WideRow(other.received, other.parsed), HasSubstr(" 3 -         not ST 0601: 010203"));
  const Rendered empty(Bytes{});
  EXPECT_THAT(WideRow(empty.received, empty.parsed), HasSubstr("not ST 0601: "));
}

// The same number means one coding for the classifying country and another one for the object country.
TEST(Row, NamesTheCodingMethodOfEachCountry) {
  const Bytes security = {2, 1, 3, 12, 1, 3};
  const Rendered rendered(Builder().Add(48, ByteView(security)).Finish());
  EXPECT_THAT(WideRow(rendered.received, rendered.parsed),
              HasSubstr(" security={classifying_coding_method=FIPS 10-4 Two Letter, "
                        "object_coding_method=ISO-3166 Numeric} "));
  const Json json = Json::parse(JsonLine(rendered.received, rendered.parsed));
  EXPECT_EQ(json["items"][0]["value"][0]["text"], "FIPS 10-4 Two Letter");
  EXPECT_EQ(json["items"][0]["value"][1]["text"], "ISO-3166 Numeric");
}

// --- JSON lines --------------------------------------------------------------------------------------

TEST(JsonMessage, HoldsEverything) {
  Rendered rendered(Sample());
  rendered.received.timeStamp = 90000;
  const Json json = Json::parse(JsonLine(rendered.received, rendered.parsed));
  EXPECT_EQ(json["type"], "message");
  EXPECT_EQ(json["time"], "2024-05-01T10:20:30.123456Z");
  EXPECT_EQ(json["source"], "udp");
  EXPECT_EQ(json["sequence"], 17);
  EXPECT_EQ(json["length"], Sample().size());
  EXPECT_EQ(json["header_length"], 300);
  EXPECT_EQ(json["timestamp"], 90000);
  EXPECT_EQ(json["checksum"], "ok");
  const Json& items = json["items"];
  ASSERT_EQ(items.size(), 8U);
  EXPECT_EQ(items[0], Json::parse(R"({"tag":2,"name":"Precision Time Stamp","key":"time","value":1224807209913000,
                                      "text":"2008-10-24T00:13:29.913000Z"})"));
  EXPECT_EQ(items[1]["value"], "Mission 12");
  EXPECT_NEAR(items[2]["value"].get<double>(), 60.1768229669783, 1e-12);
  EXPECT_EQ(items[2]["unit"], "deg");
  EXPECT_EQ(items[3]["state"], "out of range");
  EXPECT_TRUE(items[3]["value"].is_null());
  EXPECT_EQ(items[4]["value"][0]["value"], 4);
  EXPECT_EQ(items[4]["value"][0]["text"], "SECRET");
  EXPECT_EQ(items[5]["state"], "bad length");
  EXPECT_EQ(items[6], Json::parse(R"({"tag":144,"raw":"AB"})"));
}

// The text is the same in both, because readers of JSON remove the escapes that JSON adds.
TEST(JsonMessage, HostileTextStaysOneValidLineWithTheTextOfTheTable) {
  const Bytes message = Builder().AddText(3, "a\"\n\x1B[2J\\\u202E\u009B\xFF\xC3").Finish();
  const std::string text = "a\"\\n\\x1B[2J\\\\\\xE2\\x80\\xAE\\xC2\\x9B\\xFF\\xC3";
  const Rendered rendered(message);
  const std::string line = JsonLine(rendered.received, rendered.parsed);
  EXPECT_EQ(line.find('\n'), std::string::npos);
  EXPECT_EQ(Json::parse(line)["items"][0]["value"], text);
  EXPECT_THAT(WideRow(rendered.received, rendered.parsed), HasSubstr(" mission_id=" + text + " "));
}

TEST(JsonMessage, OtherMessagesAreHexadecimal) {
  const Rendered rendered(Bytes{0x06, 0x0E, 0xFF});
  const Json json = Json::parse(JsonLine(rendered.received, rendered.parsed));
  EXPECT_EQ(json["st0601"], false);
  EXPECT_EQ(json["raw"], "060EFF");
  EXPECT_FALSE(json.contains("checksum"));
}

// --- statistics --------------------------------------------------------------------------------------

MDATA_SRC_STATS FullStatistics(bool cot) {
  MDATA_SRC_STATS statistics{};
  statistics.nSize = sizeof(statistics);
  statistics.nRxBytes = 18446744073709551615UL;
  statistics.nRxOkMessages = 2;
  statistics.nRxCorruptMessages = 3;
  statistics.in.Network.iSourceAddressFamily = AF_INET;
  std::memcpy(statistics.in.Network.SourceAddress, "\x0A\x00\x00\x05", 4);
  if (cot) {
    statistics.prot.CoT.nRxSPIMessages = 4;
    statistics.prot.CoT.nRxAirCraftMessages = 5;
    statistics.prot.CoT.nFilteredRxSPIMessages = 6;
    statistics.prot.CoT.nConvertedKLVMessages = 7;
    statistics.prot.CoT.nConvertedKLVBytes = 8;
  } else {
    statistics.prot.KLV = {10, 11, 12, 13, 14, 15};
  }
  statistics.iSrcTTL = 64;
  statistics.nTTLUpdates = 16;
  statistics.nLastTTLUpdateUpTimeInSecs = 17;
  statistics.iSrcTOS = 18;
  statistics.nTOSUpdates = 19;
  statistics.nLastTOSUpdateUpTimeInSecs = 20;
  statistics.Relays[0] = {21, 22, 23, ECONNREFUSED, 24};
  statistics.Relays[1] = {31, 32, 33, 0, 0};
  return statistics;
}

SourceSettings FullSettings(bool cot) {
  SourceSettings settings = UdpSettings();
  settings.data = cot ? "cot" : "klv";
  settings.record.enDataType = cot ? MDATA_DATA_COT : MDATA_DATA_KLV;
  std::strcpy(settings.record.szMissionID, "M");
  settings.record.nNumOfRelays = 2;
  settings.record.Relays[0] = ParseRelay("239.0.0.1:5000")->record;
  settings.record.Relays[1] = ParseRelay("[fd00::1]:5001")->record;
  return settings;
}

TEST(Statistics, WhatIsKeptComesBack) {
  for (const bool cot : {false, true}) {
    const SourceSettings settings = FullSettings(cot);
    MDATA_SRC_STATS statistics = FullStatistics(cot);
    const MDATA_SRC_STATS back =
        LibraryStatisticsFromJson(settings, Json::parse(LibraryStatisticsJson(settings, statistics).dump()));
    // The first datagram after a restart must change the relays' sockets, whatever was received before it.
    statistics.iSrcTTL = statistics.iSrcTOS = -1;
    EXPECT_EQ(std::memcmp(&back, &statistics, sizeof(back)), 0) << settings.data;
  }
}

TEST(Statistics, RelaysAreFoundByTheirDestination) {
  SourceSettings settings = FullSettings(false);
  const Json json = LibraryStatisticsJson(settings, FullStatistics(false));
  std::swap(settings.record.Relays[0], settings.record.Relays[1]);
  const MDATA_SRC_STATS back = LibraryStatisticsFromJson(settings, json);
  EXPECT_EQ(back.Relays[0].nRelayedBytes, 31U);
  EXPECT_EQ(back.Relays[1].nRelayedBytes, 21U);
}

TEST(Statistics, ARelayToANameIsFoundByItWhateverItsAddress) {
  SourceSettings settings = FullSettings(false);
  settings.relayHosts = {"", "map.example.org"};
  const Json json = LibraryStatisticsJson(settings, FullStatistics(false));
  EXPECT_EQ(json["relays"][0].count("address"), 0U);
  EXPECT_EQ(json["relays"][1]["destination"], "map.example.org:5001");
  EXPECT_EQ(json["relays"][1]["address"], "fd00::1");
  settings.record.Relays[1].iDestAddressFamily = 0;
  EXPECT_EQ(LibraryStatisticsFromJson(settings, json).Relays[1].nRelayedBytes, 31U);
  EXPECT_EQ(LibraryStatisticsJson(settings, FullStatistics(false))["relays"][1]["address"], "");
}

TEST(Statistics, CountersThatTheLibraryDoesNotFillAreLeftOut) {
  const Json json = LibraryStatisticsJson(UdpSettings(), FullStatistics(false));
  EXPECT_FALSE(json.contains("klv"));
  EXPECT_FALSE(json.contains("cot"));
  EXPECT_EQ(json["sender"], "10.0.0.5");
}

TEST(Statistics, SensorsAreListedWithinTheirArray) {
  MDATA_SRC_STATS statistics = FullStatistics(true);
  statistics.prot.CoT.nDiscoveredSensorsCount = 1000;
  std::memset(statistics.prot.CoT.aszSensorUIDs, 'x', sizeof(statistics.prot.CoT.aszSensorUIDs));
  const Json json = LibraryStatisticsJson(FullSettings(true), statistics);
  EXPECT_EQ(json["cot"]["sensors"].size(), 32U);
  EXPECT_EQ(json["cot"]["sensors"][31], std::string(128, 'x'));
}

TEST(Statistics, TableNamesWhatThereIsToSay) {
  SourceSettings settings = FullSettings(false);
  Report report{&settings, {}, FullStatistics(false)};
  report.counters.messages = 407;
  report.counters.lost = 5;
  report.counters.sequenceGaps = 2;
  report.counters.checksumBad = 1;
  const auto lines = StatisticsTable({report});
  const std::string text = testing::PrintToString(lines);
  EXPECT_THAT(text, HasSubstr("407"));
  EXPECT_THAT(lines, testing::Contains("    2 gaps in the stream sequence with 5 numbers missing, 0 dropped with the "
                                       "queue full"));
  EXPECT_THAT(text, HasSubstr("checksums 1 bad, 0 missing"));
  EXPECT_THAT(lines, testing::Contains("    last sender 10.0.0.5"));
  EXPECT_THAT(lines, testing::Contains("    TTL 64 (changed 16 times), TOS 18 (changed 19 times)"));
  EXPECT_THAT(lines, testing::Contains("    relay 239.0.0.1:5000: 22 messages, 21 bytes, 23 errors, last \"Connection "
                                       "refused\""));
  EXPECT_THAT(lines, testing::Contains("    rewritten: 10 sets, 11 invalid; mission id added 12, updated 13; security "
                                       "added 14, updated 15"));
  EXPECT_THAT(lines, Each(Not(HasSubstr("\n"))));
}

TEST(Statistics, LossesBeforeTheLibraryAreShown) {
  const SourceSettings settings = UdpSettings();
  Report report;
  report.settings = &settings;
  report.kernelDrops = 12;
  report.counters.cutAtBuffer = 3;
  report.counters.sequenceGaps = 2;
  report.counters.lastUs = 1714558830123456;
  report.lastMessageAge = 2.6;
  auto lines = StatisticsTable({report});
  EXPECT_THAT(lines, testing::Contains("    12 datagrams dropped by the kernel, because the socket's buffer was full"));
  EXPECT_THAT(lines,
              testing::Contains("    3 messages end where the receive buffer of 1500 bytes does, and may be cut"));
  EXPECT_THAT(lines, testing::Contains("    last message 3 s ago"));
  Json json = ReportJson(report);
  EXPECT_EQ(json["kernel_drops"], 12);
  EXPECT_EQ(json["cut_at_buffer"], 3);
  EXPECT_EQ(json["stream_sequence_gaps"], 2);
  EXPECT_EQ(json["sequence_gaps"], 2) << "the former name";
  EXPECT_EQ(json["last_message"], "2024-05-01T10:20:30.123456Z");
  EXPECT_EQ(json["last_message_age_s"], 2.6);
  EXPECT_FALSE(json.contains("capture"));
  report.capture.emplace();
  report.capture->packets = 10;
  report.capture->overflows = 4;
  report.capture->badParity = 1;
  lines = StatisticsTable({report});
  EXPECT_THAT(lines, testing::Contains("    lost in the capture: 4 dropped with the queue full, 1 wrong parity"));
  EXPECT_EQ(ReportJson(report)["capture"]["overflows"], 4);
}

TEST(Statistics, PairsOfDifferentTimesAreCounted) {
  const SourceSettings settings = FullSettings(true);
  Source source(settings);
  for (const int64_t difference : {0, 20'000, 40'000, 10'000}) source.CountPair(difference);
  Report report{&settings, source.Snapshot(), FullStatistics(true)};
  report.statistics.prot.CoT.nConvertedKLVMessages = 1;  // of 4 + 5 events, 6 of them filtered
  EXPECT_THAT(StatisticsTable({report}),
              testing::Contains("    pairs: 3 of events whose times differ, by 40 ms at most; "
                                "1 events without a partner"));
  EXPECT_EQ(ReportJson(report)["pairs"].dump(),
            R"({"times_differ":3,"largest_difference_ms":40.0,"events_without_partner":1})");
  report.statistics.prot.CoT.nConvertedKLVMessages = 7;
  EXPECT_EQ(ReportJson(report)["pairs"]["events_without_partner"], 0);
  const SourceSettings klv = FullSettings(false);
  EXPECT_FALSE(ReportJson({&klv, {}, FullStatistics(false)}).contains("pairs"));
}

TEST(Statistics, FileIsReplacedAsAWholeAndChecked) {
  const std::string path = testing::TempDir() + "mdencoder_kept.json";
  std::remove(path.c_str());
  const std::vector<SourceSettings> sources = {FullSettings(false)};
  EXPECT_TRUE(LoadStatistics(path, sources).empty());
  const MDATA_SRC_STATS statistics = FullStatistics(false);
  SaveStatistics(path, {Report{&sources[0], {}, statistics}});
  const auto loaded = LoadStatistics(path, sources);
  ASSERT_EQ(loaded.size(), 1U);
  MDATA_SRC_STATS expected = statistics;
  expected.iSrcTTL = expected.iSrcTOS = -1;  // detected again, so that new relays follow at once
  EXPECT_EQ(std::memcmp(&loaded.at("udp"), &expected, sizeof(expected)), 0);
  std::vector<SourceSettings> changed = {FullSettings(true)};
  EXPECT_TRUE(LoadStatistics(path, changed).empty());
  const char* const wrongType =
      R"({"sources":[{"name":"udp","input":"udp","data":"klv","statistics":{"rx_bytes":"x"}}]})";
  for (const char* broken : {"", "{", "[]", R"({"sources":[{"name":"udp","input":"udp","data":"klv"}]})", wrongType}) {
    std::ofstream(path, std::ios::trunc) << broken;
    EXPECT_THROW(LoadStatistics(path, sources), std::runtime_error) << broken;
  }
  std::remove(path.c_str());
  EXPECT_THROW(SaveStatistics("/nonexistent/x", {}), std::runtime_error);
}

TEST(Summary, NamesEachSource) {
  const SourceSettings settings = UdpSettings();
  Report report{&settings, {}, {}};
  report.counters.messages = 3;
  report.counters.bytes = 600;
  report.statistics.nRxCorruptMessages = 1;
  const Json json = Json::parse(SummaryJson({report}, {1714558830000000, 1714558831500000, 1.5, "signal"}));
  EXPECT_EQ(json["started"], "2024-05-01T10:20:30.000000Z");
  EXPECT_EQ(json["seconds"], 1.5);
  EXPECT_EQ(json["ended_by"], "signal");
  const Json& source = json["sources"][0];
  EXPECT_EQ(source["name"], "udp");
  EXPECT_EQ(source["input"], "udp");
  EXPECT_EQ(source["data"], "klv");
  EXPECT_EQ(source["messages"], 3);
  EXPECT_EQ(source["bytes"], 600);
  EXPECT_EQ(source["corrupt"], 1);
}

// ---------------------------------------------------------------- sequence numbers, commands

TEST(Sequence, GapsAndWhatTheyLost) {
  SequenceWatch watch;
  for (const int number : {254, 255, 0, 1}) watch.Push(static_cast<uint8_t>(number));
  EXPECT_EQ(watch.Gaps(), 0U);
  watch.Push(5);
  watch.Push(4);
  EXPECT_EQ(watch.Gaps(), 2U);
  EXPECT_EQ(watch.Lost(), 3U + 254U);
}

TEST(Sequence, AVideoSourceUsesARefusedNumberAgain) {
  SourceSettings settings = UdpSettings();
  settings.record.enInputType = MDATA_INPUT_VIDEO;
  Source source(settings);
  source.Arrived(0, 10, true);
  source.Arrived(1, 10, false);
  source.Arrived(1, 10, true);
  EXPECT_EQ(source.Snapshot().sequenceGaps, 0U);
  EXPECT_EQ(source.Snapshot().dropped, 1U);
  EXPECT_EQ(source.Snapshot().messages, 2U);
  EXPECT_EQ(source.Snapshot().bytes, 20U);
}

TEST(Arrival, DatagramsThatFillTheBufferAreCounted) {
  SourceSettings settings = UdpSettings();
  Source source(settings);
  source.Saw(7, 1499);
  source.Saw(8, 1500);
  EXPECT_EQ(source.Snapshot().cutAtBuffer, 1U);
  EXPECT_EQ(source.Snapshot().lastUs, 8U);
  settings.record.enDataType = MDATA_DATA_COT;
  Source events(settings);
  events.Saw(8, 1500);
  EXPECT_EQ(events.Snapshot().cutAtBuffer, 0U) << "that is the length of the converted packet";
}

TEST(Commands, AreReadLeniently) {
  using Kind = Command::Kind;
  EXPECT_FALSE(ParseCommand("  "));
  EXPECT_EQ(ParseCommand("stats")->kind, Kind::Stats);
  EXPECT_EQ(ParseCommand(" reset  udp ")->name, "udp");
  EXPECT_EQ(ParseCommand("reset all")->name, "");
  EXPECT_EQ(ParseCommand("restore x")->kind, Kind::Restore);
  EXPECT_EQ(ParseCommand("save")->kind, Kind::Save);
  EXPECT_EQ(ParseCommand("quit")->kind, Kind::Quit);
  EXPECT_EQ(ParseCommand("help")->kind, Kind::Help);
  EXPECT_EQ(ParseCommand("quit now")->kind, Kind::Unknown);
  EXPECT_EQ(ParseCommand("reset a b")->kind, Kind::Unknown);
  EXPECT_EQ(ParseCommand("bogus")->name, "bogus");
}

}  // namespace
}  // namespace mdencoder::output_test
