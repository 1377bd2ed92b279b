// SPDX-License-Identifier: Apache-2.0
#include "traffic.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "error.h"
#include "geoid.h"
#include "klv_flight.h"

namespace mdfeed {
namespace {

Bytes Text(const std::string& text) {
  return {text.begin(), text.end()};
}

Bytes Message(size_t valueSize, std::initializer_list<uint8_t> length) {
  Bytes message = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 1, 1, 0x0E, 1, 3, 1, 1, 0, 0, 0};
  message.insert(message.end(), length);
  message.resize(message.size() + valueSize, 0x06);
  return message;
}

Bytes Join(const std::vector<Bytes>& parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

TEST(SplitKlv, CutsAtEveryLengthForm) {
  const std::vector<Bytes> messages = {Message(0, {0}), Message(127, {0x7F}), Message(200, {0x81, 200}),
                                       Message(300, {0x82, 1, 44}), Message(5, {0x84, 0, 0, 0, 5})};
  size_t skipped = 9;
  EXPECT_EQ(SplitKlv(Join(messages), &skipped), messages);
  EXPECT_EQ(skipped, 0u);
}

TEST(SplitKlv, LeavesOutAndCountsWhatIsNoMessage) {
  const Bytes good = Message(3, {3});
  Bytes cutOff = Message(3, {4});
  size_t skipped = 0;
  EXPECT_EQ(SplitKlv(Join({Text("noise"), good, {0x06, 0x0E}, good, cutOff}), &skipped),
            (std::vector<Bytes>{good, good}));
  EXPECT_EQ(skipped, 5 + 2 + cutOff.size());
  EXPECT_TRUE(SplitKlv({}, &skipped).empty());
  EXPECT_EQ(skipped, 0u);
}

TEST(SplitEvents, CutsWholeEventsOutOfText) {
  const std::string event = "<event uid=\"a\"><point/></event>";
  EXPECT_EQ(SplitEvents(Text("<?xml?>" + event + "\n" + event + "<event half")),
            (std::vector<Bytes>{Text(event), Text(event)}));
  EXPECT_TRUE(SplitEvents(Text("</event>")).empty());
}

TEST(SplitChunks, LosesNothing) {
  EXPECT_EQ(SplitChunks(Text("abcdefg"), 3), (std::vector<Bytes>{Text("abc"), Text("def"), Text("g")}));
  EXPECT_TRUE(SplitChunks({}, 3).empty());
}

constexpr char kIndexHeader[] =
    R"({"type":"recording index","version":1,"recording":"a.klv","source":"a","stream_header":true})";

TEST(Indexed, SendsWhatTheIndexNamesWhenItArrived) {
  size_t skipped = 0;
  const auto messages =
      SplitIndexed(Text("12345aa12345b"),
                   Text(std::string(kIndexHeader) +
                        "\n{\"offset\":0,\"length\":7,\"time\":1000}\n"
                        "{\"offset\":7,\"length\":6,\"time\":4000,\"timestamp\":9}\n"
                        "{\"offset\":13,\"length\":6,\"time\":5000}\nnonsense\n[]\n{\"offset\":-1}\n{\"offs"),
                   &skipped);
  EXPECT_EQ(skipped, 5u);
  ASSERT_EQ(messages.size(), 2u);
  const auto traffic = MakeTimed(messages, 2);
  for (const auto& [text, due] : {std::pair("aa", 0), {"b", 3000}, {"aa", 6000}, {"b", 9000}}) {
    EXPECT_EQ(traffic->Next(), Batch{Text(text)});
    EXPECT_EQ(traffic->Due(), std::chrono::microseconds(due));
  }
  EXPECT_FALSE(traffic->Next());
}

TEST(Indexed, AStepBackOfTheClockIsNoPause) {
  const auto traffic = MakeTimed({{Text("a"), 5000}, {Text("b"), 1000}, {Text("c"), 1500}}, 1);
  for (const int due : {0, 0, 500}) {
    EXPECT_TRUE(traffic->Next());
    EXPECT_EQ(traffic->Due(), std::chrono::microseconds(due));
  }
}

TEST(Indexed, AnotherFileIsNoIndex) {
  size_t skipped = 0;
  for (const char* wrong : {"", "{}", "nonsense", R"({"type":"recording index","version":2})", "[1]"}) {
    EXPECT_THROW(SplitIndexed(Text("x"), Text(wrong), &skipped), RunError) << wrong;
  }
}

TEST(Recorded, RepeatsAsOftenAsAsked) {
  const auto twice = MakeRecorded({Text("a"), Text("b")}, 2);
  std::string sent;
  for (auto batch = twice->Next(); batch; batch = twice->Next()) sent += static_cast<char>(batch->at(0)[0]);
  EXPECT_EQ(sent, "abab");
  const auto forEver = MakeRecorded({Text("a")}, 0);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(forEver->Next()->size(), 1u);
}

TEST(Chunked, CutsEveryMessage) {
  const auto chunked = MakeChunked(MakeRecorded({Text("abcde")}, 1), 2);
  EXPECT_EQ(chunked->Next(), (std::vector<Bytes>{Text("ab"), Text("cd"), Text("e")}));
  EXPECT_FALSE(chunked->Next());
}

TEST(Framed, DamagesTheAskedShareOfFrames) {
  const std::string xml = "<event></event>";
  const auto framed = MakeFramed(MakeRecorded({Text(xml)}, 1000), '1', {{FrameField::Crc, 25.0}}, 1);
  const Bytes whole = BuildCotFrame(xml);
  int damaged = 0;
  for (auto batch = framed->Next(); batch; batch = framed->Next()) damaged += batch->at(0) != whole;
  EXPECT_NEAR(damaged, 250, 60);
}

TEST(CotTraffic, OneTickIsAPairWithTheSensorFirst) {
  const auto traffic = MakeCotFlight({}, {}, 100'000);
  const auto batch = traffic->Next().value();
  ASSERT_EQ(batch.size(), 2u);
  EXPECT_THAT(std::string(batch[0].begin(), batch[0].end()), testing::HasSubstr("type=\"b-m-p-s-p-i\""));
  EXPECT_THAT(std::string(batch[1].begin(), batch[1].end()), testing::HasSubstr("type=\"a-f-A-M-F-Q\""));
}

TEST(KlvTraffic, MovesOnByTheInterval) {
  FlightOptions options;
  options.startUs = 1'000'000'000;
  const auto traffic = MakeKlvFlight(options, 250'000);
  traffic->Next();
  Flight flight(options);
  flight.AdvanceTo(250'000);
  EXPECT_EQ(traffic->Next()->at(0), MakeKlvMessage(flight.State()));
}

int64_t NowUs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

TEST(KlvTraffic, ThatStartsNowBeginsWithItsFirstMessage) {
  FlightOptions options;
  options.startUs = 1'000'000'000;
  options.startsNow = true;
  const auto traffic = MakeKlvFlight(options, 250'000);
  const int64_t before = NowUs();
  const Bytes message = traffic->Next()->at(0);
  const int64_t after = NowUs();
  const Bytes stampHead = {2, 8};
  const auto stamp = std::search(message.begin() + 16, message.end(), stampHead.begin(), stampHead.end());
  ASSERT_GE(message.end() - stamp, 10);
  const int64_t time =
      std::accumulate(stamp + 2, stamp + 10, int64_t{0}, [](int64_t sum, uint8_t byte) { return sum << 8 | byte; });
  EXPECT_GT(time, before - 10'000);
  EXPECT_LE(time, after);
}

class GeoidFile : public testing::Test {
 protected:
  void SetUp() override { m_path = testing::TempDir() + "mdfeed_geoid_" + std::to_string(getpid()) + ".gtx"; }
  void TearDown() override { std::filesystem::remove(m_path); }

  // Three rows from 90 S, four columns from 180 W, 90 degrees apart; heights are 10 * row + column.
  void WriteGrid(size_t heights) {
    std::ofstream file(m_path, std::ios::binary);
    const auto put = [&](auto value) {
      char bytes[sizeof(value)];
      std::memcpy(bytes, &value, sizeof(value));
      std::reverse(bytes, bytes + sizeof(value));
      file.write(bytes, sizeof(value));
    };
    for (const double value : {-90.0, -180.0, 90.0, 90.0}) put(value);
    put(uint32_t{3});
    put(uint32_t{4});
    for (size_t i = 0; i < heights; ++i) {
      const size_t height = 10 * (i / 4) + i % 4;
      put(static_cast<float>(height));
    }
  }

  std::string m_path;
};

TEST_F(GeoidFile, IsInterpolatedAndWrapsAtTheDateLine) {
  WriteGrid(12);
  const Undulation undulation = LoadGeoid(m_path);
  EXPECT_DOUBLE_EQ(undulation(-90, -180), 0);
  EXPECT_DOUBLE_EQ(undulation(90, 90), 23);
  EXPECT_DOUBLE_EQ(undulation(0, -180), 10);
  EXPECT_DOUBLE_EQ(undulation(0, 180), 10);
  EXPECT_DOUBLE_EQ(undulation(45, -135), 15.5);
  EXPECT_DOUBLE_EQ(undulation(0, 135), 11.5);
}

TEST_F(GeoidFile, ThatIsCutOffOrMissingIsRefused) {
  WriteGrid(11);
  EXPECT_THROW(LoadGeoid(m_path), RunError);
  std::filesystem::remove(m_path);
  EXPECT_THROW(LoadGeoid(m_path), RunError);
}

}  // namespace
}  // namespace mdfeed
