// SPDX-License-Identifier: Apache-2.0
// What an inspection counts.
#include "inspection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "quick_look.h"

namespace mdencoder::inspection_test {
namespace {

using Json = nlohmann::json;
using st0601::Builder;
using st0601::Bytes;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

Bytes MessageAt(double seconds) {
  return Builder().AddWhole(2, static_cast<int64_t>(seconds * 1e6)).AddText(3, "M").Add(13, 45.0).Finish();
}

class InspectionTest : public testing::Test {
 protected:
  InspectionTest() { Use("data", "klv", true); }
  void Use(const char* kind, const char* codec, bool mayHoldKlv) {
    StreamInfo info;
    info.kind = kind;
    info.codec = codec;
    info.mayHoldKlv = mayHoldKlv;
    m_inspection.OnStream(m_streams++, info);
  }
  void Push(std::initializer_list<Bytes> parts) {
    for (const Bytes& part : parts) m_inspection.OnData(0, part, std::nullopt, false);
  }
  Json Report() {
    m_inspection.Finish();
    return Json::parse(m_inspection.Json("a.klv", "klv"));
  }
  std::vector<std::string> Text() {
    m_inspection.Finish();
    return m_inspection.Text("a.klv", "klv");
  }

  Inspection m_inspection{{}};
  size_t m_streams = 0;
};

TEST_F(InspectionTest, CountsMessagesItemsAndRates) {
  for (int i = 0; i < 11; ++i) Push({MessageAt(i * 0.5)});
  const Json report = Report();
  EXPECT_EQ(report["messages"], 11);
  EXPECT_EQ(report["faults"], 0);
  const Json& stream = report["streams"][0];
  EXPECT_EQ(stream["standards"]["MISB ST 0601 UAS Datalink Local Set"], 11);
  EXPECT_EQ(stream["checksum"]["ok"], 11);
  EXPECT_EQ(stream["rate"], 2.0);
  EXPECT_EQ(stream["gaps"], 0);
  EXPECT_EQ(stream["longest_gap_s"], 0.5);
  ASSERT_EQ(stream["items"].size(), 4u);
  EXPECT_EQ(stream["items"][3], Json::parse(R"({"tag":13,"key":"sensor_lat","count":11,"out_of_range":0,"bad_length":0,
                                               "first":"45.00000002 deg","last":"45.00000002 deg"})"));
}

TEST_F(InspectionTest, CountsGapsAndStepsBack) {
  for (const double time : {1.0, 2.0, 7.5, 8.0, 6.0, 6.5}) Push({MessageAt(time)});
  const Json stream = Report()["streams"][0];
  EXPECT_EQ(stream["gaps"], 1);
  EXPECT_EQ(stream["longest_gap_s"], 5.5);
  EXPECT_EQ(stream["steps_back"], 1);
}

TEST_F(InspectionTest, CountsFaults) {
  Bytes wrong = MessageAt(1);
  wrong.back() ^= 1;
  Bytes incomplete = Builder().Add(5, st0601::ByteView(Bytes{1})).Add(7, 1000.0).Finish(false);
  incomplete[18] = 100;  // an item that runs past the end
  Bytes cut = MessageAt(2);
  cut.pop_back();
  Push({{1, 2, 3}, wrong, incomplete, Builder().Add(7, 1000.0).Finish(false), cut});
  const Json report = Report();
  const Json& stream = report["streams"][0];
  EXPECT_EQ(stream["messages"], 3);
  EXPECT_EQ(stream["checksum"], Json::parse(R"({"ok":0,"bad":1,"missing":2,"misplaced":0})"));
  EXPECT_EQ(stream["incomplete"], 1);
  EXPECT_EQ(stream["skipped_at"], 2);
  EXPECT_EQ(stream["skipped_bytes"], 3 + cut.size());
  EXPECT_EQ(stream["cut_off"], 1);
  EXPECT_EQ(report["faults"], 5) << "a checksum, a set, two places, a cut message";
  EXPECT_EQ(stream["items"][3]["out_of_range"], 1);
}

TEST_F(InspectionTest, SequenceNumbersThatAreMissingAreFaults) {
  for (const uint8_t number : Bytes{254, 255, 0, 3}) Push({{0, number, 0xDF, 0, 0}, MessageAt(number)});
  EXPECT_EQ(Report()["streams"][0]["sequence_missing"], 2);
}

TEST_F(InspectionTest, OtherStreamsAreCountedOnly) {
  Use("video", "h264", false);
  Use("data", "unknown", true);
  m_inspection.OnData(1, MessageAt(1), 2.5, false);
  m_inspection.OnData(1, MessageAt(1), 4.0, true);
  m_inspection.OnData(2, Bytes(100, 9), std::nullopt, false);
  m_inspection.OnData(9, Bytes(100, 9), std::nullopt, false);  // never announced
  const auto lines = Text();
  EXPECT_EQ(lines[0], "a.klv: klv, 3 streams, 0 messages, 1 fault");
  EXPECT_THAT(lines, Contains(StartsWith("  video h264: 2 packets, ")));
  EXPECT_THAT(lines, Contains(HasSubstr(", 1.5 s, 1 damaged packet")));
  EXPECT_THAT(lines, Contains("  data unknown: 1 packet, 100 bytes")) << "data that is no KLV is no fault";
}

TEST_F(InspectionTest, KeysAreNamedUpToALimit) {
  for (int i = 0; i < 100; ++i) {
    Push({{0x06, 0x0E, 0x2B, 0x34, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, static_cast<uint8_t>(i), 1, 0}});
  }
  const Json standards = Report()["streams"][0]["standards"];
  EXPECT_EQ(standards.size(), 65u);
  EXPECT_EQ(standards["key 060E2B340102030405060708090A0B00"], 1);
  EXPECT_EQ(standards["other keys"], 36);
}

TEST_F(InspectionTest, HostileTextsAreShortAndPrintable) {
  Push({Builder().AddText(3, "\x1B[2J\n" + std::string(200, 'x')).Finish()});
  for (const std::string& line : Text()) {
    EXPECT_EQ(line.find_first_of("\x1B\n"), std::string::npos);
    EXPECT_LT(line.size(), 250u);
  }
}

TEST_F(InspectionTest, NumberOfMessagesIsALimit) {
  Inspection three({2, 3});
  StreamInfo info;
  info.mayHoldKlv = true;
  three.OnStream(0, info);
  for (int i = 0; i < 10; ++i) three.OnData(0, MessageAt(i), std::nullopt, false);
  EXPECT_TRUE(three.IsEnough());
  EXPECT_EQ(three.Messages(), 3u);
}

TEST(QuickLook, IsForItsCommandsOnly) {
  const char* const none[] = {"mdencoder", "demo.ini"};
  EXPECT_FALSE(RunQuickLook(2, none));
  EXPECT_FALSE(RunQuickLook(1, none));
  const char* const absent[] = {"mdencoder", "inspect", "/nonexistent"};
  EXPECT_EQ(RunQuickLook(3, absent), 1);
  const char* const wrong[] = {"mdencoder", "decode", "x", "--format", "xml"};
  EXPECT_EQ(RunQuickLook(5, wrong), 2);
}

TEST(QuickLook, AuthoritiesAreForServersOfHttpsAndCanBeRead) {
  const auto run = [](const char* command, const char* input, const char* file) {
    const char* const words[] = {"mdencoder", command, input, "--tls-ca", file};
    testing::internal::CaptureStderr();
    const auto result = RunQuickLook(5, words);
    return std::to_string(result.value_or(-1)) + " " + testing::internal::GetCapturedStderr();
  };
  for (const char* command : {"inspect", "decode"}) {
    for (const char* input : {"-", "a.ts", "http://127.0.0.1:1/x"}) {
      EXPECT_THAT(run(command, input, "/dev/null"), StartsWith("2 --tls-ca is allowed only with https://\n"));
    }
    EXPECT_THAT(run(command, "https://127.0.0.1:1/x", "/none"),
                StartsWith("2 --tls-ca must be a file that can be read, not \"/none\": No such file or directory\n"));
    EXPECT_EQ(run(command, "https://127.0.0.1:1/x", "/dev/null"),
              "1 mdencoder: https://127.0.0.1:1/x: Connection refused\n");
  }
}

}  // namespace
}  // namespace mdencoder::inspection_test
