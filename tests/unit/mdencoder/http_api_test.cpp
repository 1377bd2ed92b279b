// SPDX-License-Identifier: Apache-2.0
// What the paths answer: messages, histories, events, recordings, statistics and files. No test opens a socket or waits for
// a time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "http/api.h"
#include "http/assets.h"
#include "http/events.h"
#include "http/history.h"
#include "http/hub.h"
#include "http/metrics.h"
#include "http/recordings.h"
#include "http/snapshot.h"
#include "metadata_lib.h"
#include "receiver.h"
#include "source.h"
#include "statistics.h"
#include "stream/stream_report.h"

namespace mdencoder::http::http_api_test {
namespace {

using st0601::Builder;
using st0601::Bytes;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr uint64_t kTime = 1714558830123456;

// A message with a position, a heading and a text.
Bytes MessageAt(double latitude, const std::string& text = "M1") {
  return Builder().AddText(3, text).Add(5, 90.0).Add(13, latitude).Add(14, 7.5).Add(15, 1500.0).Finish();
}

Json ReportOf(const std::string& name, uint64_t messages) {
  return {{"name", name},
          {"input", "udp"},
          {"data", "cot"},
          {"state", "open"},
          {"messages", messages},
          {"bytes", 100},
          {"last_message_age_s", nullptr},
          {"checksum", {{"ok", 3}, {"bad", 1}}},
          {"statistics",
           {{"rx_bytes", 9},
            {"bit_rate_kbps", 12},
            {"cot", {{"sensors", {"S\"1"}}}},
            {"relays", {{{"destination", "239.1.1.1:5"}, {"messages", 2}, {"bytes", 3}, {"errors", 4}}}}}}};
}

void PushTo(Hub& hub, const std::string& name, const Bytes& message, uint64_t timeUs = kTime, uint8_t sequence = 7) {
  Bytes buffer = {0, sequence, 0xDF, 0, 0};
  buffer.insert(buffer.end(), message.begin(), message.end());
  Received received;
  received.name = name;
  received.timeUs = timeUs;
  received.sequence = sequence;
  received.buffer = buffer;
  hub.Push(received);
}

class HubTest : public testing::Test {
 protected:
  void Push(const std::string& name, const Bytes& message, uint64_t timeUs = kTime, uint8_t sequence = 7) {
    PushTo(m_hub, name, message, timeUs, sequence);
  }
  void Update(const std::vector<Json>& reports, int seconds = 0) {
    Snapshot snapshot;
    snapshot.timeUs = kTime + static_cast<uint64_t>(seconds) * 1000000;
    snapshot.at = Hub::Clock::time_point(std::chrono::seconds(1000 + seconds));
    for (const Json& report : reports) snapshot.sources.push_back(report);
    m_hub.Update(std::move(snapshot));
  }
  // Returns all events so far; call it after Stop, which lets the hub's thread come to its end.
  std::vector<std::shared_ptr<const Event>> Events() {
    uint64_t next = 1;
    return m_hub.Wait(next, 10000, Hub::Clock::now()).events;
  }

  Hub m_hub;
};

// --- Hub ---------------------------------------------------------------------------------------------

TEST_F(HubTest, KeepsTheLastMessageOfEachSource) {
  Push("a", MessageAt(1));
  Push("a", MessageAt(2), kTime + 1, 8);
  Push("b", MessageAt(3));
  m_hub.Stop();
  const auto last = m_hub.Last("a");
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->bytes, MessageAt(2));
  EXPECT_EQ(last->sequence, 8);
  EXPECT_EQ(m_hub.Last("b")->timeUs, kTime);
  EXPECT_EQ(m_hub.Last("c"), nullptr);
  EXPECT_EQ(m_hub.Totals().taken, 3U);
  EXPECT_EQ(m_hub.Totals().leftOut, 0U);
}

TEST_F(HubTest, NumbersItsEventsAndHoldsTheNewest) {
  for (size_t i = 0; i < Hub::kMostEvents + 10; ++i) Update({});
  m_hub.Stop();
  EXPECT_EQ(m_hub.NextId(), Hub::kMostEvents + 11);
  EXPECT_EQ(m_hub.OldestId(), 11U);
  uint64_t next = 3;
  const auto batch = m_hub.Wait(next, 5, Hub::Clock::now());
  EXPECT_TRUE(batch.hasMissed);
  ASSERT_EQ(batch.events.size(), 5U);
  EXPECT_EQ(batch.events[0]->id, 11U);
  EXPECT_EQ(next, 16U);
  next = m_hub.NextId();
  EXPECT_TRUE(m_hub.Wait(next, 5, Hub::Clock::now()).isOver);
}

TEST_F(HubTest, HoldsFewerEventsOfLargeMessages) {
  const Bytes large(size_t{256} << 10, 0);
  for (int i = 0; i < 14; ++i) Push("a", large);
  m_hub.Stop();
  EXPECT_LE((m_hub.NextId() - m_hub.OldestId()) * 8 * large.size(), Hub::kMostEventBytes + 16 * large.size());
}

TEST_F(HubTest, LeavesOutWhatDoesNotFit) {
  const Bytes tooLarge(Hub::kMostWaitingBytes + 1, 0);
  Push("a", tooLarge);
  m_hub.Stop();
  EXPECT_EQ(m_hub.Totals().leftOut, 1U);
  EXPECT_EQ(m_hub.Totals().taken, 0U);
}

// A hub whose thread looks at a message as long as the test wants.
class SlowHubTest : public testing::Test {
 protected:
  std::optional<double> Look() {
    const size_t number = m_looked++;
    if (number == 0) {
      m_begun.set_value();
      m_allowed.get_future().wait();
    }
    if (number == 1) m_next.set_value();
    return 7.5;
  }
  void Push(size_t count, const Bytes& message) {
    for (size_t i = 0; i < count; ++i) PushTo(m_hub, "a", message);
  }
  // Waits until the thread looks at the first message.
  void Begin() {
    Push(1, MessageAt(1));
    m_begun.get_future().wait();
  }

  std::promise<void> m_begun;
  std::promise<void> m_allowed;
  std::promise<void> m_next;  // the thread has taken what waited
  size_t m_looked = 0;        // hub's thread
  Hub m_hub{[this](const Delivered&, const st0601::Message&) { return Look(); }};
};

TEST_F(SlowHubTest, LeavesOutMessagesAndLinesThatAreTooMany) {
  Begin();
  Push(Hub::kMostWaiting, MessageAt(2));
  EXPECT_EQ(m_hub.Totals().leftOut, 0U);
  Push(3, MessageAt(3));
  EXPECT_EQ(m_hub.Totals().leftOut, 3U);
  for (size_t i = 0; i < Hub::kMostLogLines + 10; ++i) m_hub.Log(Priority::Notice, "", std::to_string(i));
  m_allowed.set_value();
  m_hub.Stop();
  EXPECT_EQ(m_hub.Totals().taken, 1 + Hub::kMostWaiting);
  EXPECT_EQ(m_hub.Last("a")->bytes, MessageAt(2));
  EXPECT_EQ(m_hub.Last("a")->presentation, 7.5);
  const auto lines = m_hub.Lines(0);
  ASSERT_EQ(lines.size(), Hub::kMostLogLines);
  EXPECT_EQ(lines.front().text, "0");
  EXPECT_EQ(lines.back().text, std::to_string(Hub::kMostLogLines - 1));
}

TEST_F(SlowHubTest, LeavesOutMessagesThatAreTooLarge) {
  const Bytes large(Hub::kMostWaitingBytes / 4, 0);
  Begin();
  Push(5, large);
  EXPECT_EQ(m_hub.Totals().leftOut, 1U);
  m_allowed.set_value();
  m_next.get_future().wait();
  Push(4, large);
  m_hub.Stop();
  EXPECT_EQ(m_hub.Totals().leftOut, 1U) << "there was room again";
  EXPECT_EQ(m_hub.Totals().taken, 9U);
}

TEST_F(HubTest, HoldsTheNewestLinesAndNoMore) {
  for (size_t batch = 0; batch < 3; ++batch) {
    for (size_t i = 0; i < Hub::kMostLogLines / 2; ++i) m_hub.Log(Priority::Warning, "", std::to_string(batch));
    uint64_t next = m_hub.NextId();
    while (m_hub.NextId() <= (batch + 1) * (Hub::kMostLogLines / 2)) {
      m_hub.Wait(next, 1, Hub::Clock::now() + std::chrono::hours(1));
    }
  }
  const auto lines = m_hub.Lines(0);
  ASSERT_EQ(lines.size(), Hub::kMostLogLines);
  EXPECT_EQ(lines.front().text, "1");
  EXPECT_EQ(lines.back().text, "2");
}

TEST_F(HubTest, KnowsNoMoreSourcesThanItMay) {
  for (size_t i = 0; i <= Hub::kMostSources; ++i) Push("s" + std::to_string(i), MessageAt(1));
  m_hub.Stop();
  EXPECT_NE(m_hub.Last("s255"), nullptr);
  EXPECT_EQ(m_hub.Last("s256"), nullptr);
  Update({ReportOf("s256", 1)});
  EXPECT_FALSE(m_hub.State()->sources[0].contains("last_id"));
}

TEST_F(HubTest, TellsHowOldItsNewestMessageIs) {
  Push("a", MessageAt(1));  // of 2024
  m_hub.Stop();
  EXPECT_GT(m_hub.Totals().lag, 86400);
}

TEST_F(HubTest, MeasuresTheRateAcrossSnapshots) {
  Update({ReportOf("a", 10)});
  EXPECT_EQ(m_hub.State()->sources[0].at("rate_per_s"), 0);
  Update({ReportOf("a", 30)}, 2);
  EXPECT_EQ(m_hub.State()->sources[0].at("rate_per_s"), 10);
  for (int second = 3; second <= 20; ++second) Update({ReportOf("a", 30)}, second);
  EXPECT_EQ(m_hub.State()->sources[0].at("rate_per_s"), 0);
  Update({ReportOf("a", 5)}, 21);
  EXPECT_EQ(m_hub.State()->sources[0].at("rate_per_s"), 0) << "the counts were reset";
}

TEST_F(HubTest, TellsOfASensorOnce) {
  Update({ReportOf("a", 1)});
  Update({ReportOf("a", 1)}, 1);
  m_hub.Stop();
  int sensors = 0;
  for (const auto& event : Events()) {
    if (event->kind != EventKind::Sensor) continue;
    ++sensors;
    EXPECT_EQ(Json::parse(event->line).at("uid"), "S\"1");
  }
  EXPECT_EQ(sensors, 1);
}

Bytes SensorPointOf(const std::string& uid, double latitude) {
  return Builder().AddText(11, uid).Add(23, latitude).Add(24, -73.5).Add(25, 30.0).AddText(11, "EO").Finish();
}

Json CotReportOf(const std::string& name, const std::vector<std::string>& sensors) {
  Json report = ReportOf(name, 1);
  report["statistics"]["cot"]["sensors"] = sensors;
  return report;
}

TEST_F(HubTest, KnowsWhereDiscoveredSensorsLook) {
  Json other = ReportOf("klv", 1);
  other["statistics"].erase("cot");
  Update({CotReportOf("a", {}), CotReportOf("b", {}), other});
  Push("a", SensorPointOf("S1", 45.5));
  Push("a", SensorPointOf("S1", 45.75), kTime + 5);
  Push("klv", SensorPointOf("S1", 1), kTime + 9);
  Push("a", Builder().AddText(11, "S2").Add(23, 45.5).Finish());
  Push("a", Builder().Add(23, 45.5).Add(24, 7.0).Finish());
  m_hub.Stop();
  Update({CotReportOf("a", {"S1", "S2"}), CotReportOf("b", {"S1", "EO", ""}), other}, 1);
  const Json& sources = m_hub.State()->sources;
  const Json& first = sources[0].at("sensors")[0];
  EXPECT_EQ(first.at("uid"), "S1");
  EXPECT_NEAR(first.at("place").at("latitude").get<double>(), 45.75, 1e-6);
  EXPECT_NEAR(first.at("place").at("longitude").get<double>(), -73.5, 1e-6);
  EXPECT_NEAR(first.at("place").at("altitude").get<double>(), 30, 0.2);
  EXPECT_EQ(first.at("time_us"), kTime + 5);
  EXPECT_EQ(sources[0].at("sensors")[1].dump(), R"({"uid":"S2"})") << "half a place is none";
  EXPECT_EQ(sources[1].at("sensors")[0], first) << "a sensor that another source accepts";
  EXPECT_EQ(sources[1].at("sensors")[1].dump(), R"({"uid":"EO"})") << "the model is no name of a sensor";
  EXPECT_EQ(sources[1].at("sensors")[2].dump(), R"({"uid":""})");
  EXPECT_FALSE(sources[2].contains("sensors"));
}

TEST_F(HubTest, ForgetsTheOldestPointsOfTooManySensors) {
  Update({CotReportOf("a", {})});
  for (size_t i = 0; i <= Hub::kMostSensors; ++i) Push("a", SensorPointOf("S" + std::to_string(i), 1), kTime + i);
  m_hub.Stop();
  Update({CotReportOf("a", {"S0", "S1", "S1024"})}, 1);
  const Json& sensors = m_hub.State()->sources[0].at("sensors");
  EXPECT_FALSE(sensors[0].contains("place"));
  EXPECT_TRUE(sensors[1].contains("place"));
  EXPECT_TRUE(sensors[2].contains("place"));
}

TEST_F(HubTest, TellsOfASensorAgainOnlyIfItHasForgottenIt) {
  Update({CotReportOf("a", {"first"})});
  for (size_t i = 0; i < Hub::kMostSensors; ++i) Update({CotReportOf("a", {"kept", "S" + std::to_string(i)})});
  for (const uint64_t events : {2U, 1U, 1U}) {  // "first" comes again, and the statistics each time
    const uint64_t before = m_hub.NextId();
    Update({CotReportOf("a", {"kept", "first"})});
    EXPECT_EQ(m_hub.NextId() - before, events);
  }
}

TEST_F(HubTest, KeepsTheNewestLinesOfTheLog) {
  for (size_t i = 0; i < 3; ++i) m_hub.Log(Priority::Warning, "MODULE", "line " + std::to_string(i));
  m_hub.Log(Priority::Critical, "", std::string(Hub::kLongestLogLine + 100, 'x'));
  m_hub.Stop();
  const auto lines = m_hub.Lines(0);
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0].text, "line 0");
  EXPECT_STREQ(lines[0].level, "warning");
  EXPECT_STREQ(lines[3].level, "error");
  EXPECT_EQ(lines[3].text.size(), Hub::kLongestLogLine);
  EXPECT_EQ(m_hub.Lines(lines[1].id).size(), 2U);
}

TEST_F(HubTest, ShowsHostileTextsAsText) {
  m_hub.Log(Priority::Notice, "", "<b>\x01\r\n\xFF\"");
  m_hub.Stop();
  const std::string line = Events().at(0)->line;
  EXPECT_THAT(line, HasSubstr("<b>\\u0001\\r\\n\xEF\xBF\xBD\\\""));
  EXPECT_EQ(line.find('\n'), std::string::npos);
}

// --- History -----------------------------------------------------------------------------------------

TEST(History, KeepsAPointForEachInterval) {
  History history;
  const Bytes bytes = MessageAt(10);
  const auto message = st0601::Parse(bytes);
  const uint64_t start = kTime / History::kInterval * History::kInterval;
  for (uint64_t i = 0; i < 10; ++i) history.Add(start + i * History::kInterval / 5, message);
  const auto points = history.Series(13, 0, 100);
  ASSERT_EQ(points.size(), 2U);
  EXPECT_NEAR(points[0].value, 10, 1e-6);
  EXPECT_EQ(points[1].timeUs, start + History::kInterval);
  EXPECT_TRUE(history.Series(16, 0, 100).empty());
  EXPECT_TRUE(history.Series(3, 0, 100).empty()) << "a text";
  const auto track = history.Track(start + 1, 100);
  ASSERT_EQ(track.size(), 1U);
  EXPECT_NEAR(*track[0].altitude, 1500, 1);
  EXPECT_NEAR(*track[0].heading, 90, 0.01);
}

TEST(History, KeepsTheNumbersOfAMessageOnly) {
  History history;
  const Bytes bytes =
      Builder().Add(5, Bytes{0xFF}).Add(6, Bytes{0x80, 0}).Add(13, 10.0).Add(14, 7.5).Add(75, 900.0).Finish();
  history.Add(kTime, st0601::Parse(bytes));
  EXPECT_TRUE(history.Series(1, 0, 100).empty()) << "a checksum";
  EXPECT_TRUE(history.Series(5, 0, 100).empty()) << "of a wrong length";
  EXPECT_TRUE(history.Series(6, 0, 100).empty()) << "out of range";
  EXPECT_EQ(history.Series(13, kTime, 100).size(), 1U);
  EXPECT_TRUE(history.Series(13, kTime + 1, 100).empty());
  ASSERT_EQ(history.Track(kTime, 100).size(), 1U);
  EXPECT_NEAR(history.Track(kTime, 100)[0].altitude.value_or(0), 900, 1) << "the height above the ellipsoid";
}

TEST(History, CountsThePointsOfASourceWithoutAPlace) {
  History history;
  const Bytes bytes = Builder().Add(5, 90.0).Finish();
  history.Add(kTime, st0601::Parse(bytes));
  EXPECT_EQ(history.Points(), 1U);
  EXPECT_TRUE(history.Track(0, 100).empty());
}

TEST(History, KnowsNoMoreItemsThanItMay) {
  History history;
  Builder first;
  Builder second;
  size_t count = 0;
  std::vector<uint32_t> tags;
  for (const st0601::Item& item : st0601::Items()) {
    if (item.kind == st0601::Kind::Checksum || item.min >= item.max) continue;
    (count++ < History::kItems ? first : second).Add(item.tag, item.min);
    tags.push_back(item.tag);
  }
  ASSERT_GT(count, History::kItems);
  const Bytes messages[] = {first.Finish(), second.Finish()};
  history.Add(kTime, st0601::Parse(messages[0]));
  history.Add(kTime + History::kInterval, st0601::Parse(messages[1]));
  size_t known = 0;
  for (const uint32_t tag : tags) known += history.Series(tag, 0, 1).size();
  EXPECT_LE(known, History::kItems);
  EXPECT_GT(known, History::kItems / 2);
}

TEST(History, ForgetsAndThins) {
  History history;
  const Bytes bytes = MessageAt(10);
  const auto message = st0601::Parse(bytes);
  for (uint64_t i = 0; i < 2 * History::kPoints; ++i) history.Add(kTime + i * History::kInterval, message);
  EXPECT_LE(history.Points(), History::kPoints);
  EXPECT_GE(history.Points(), History::kPoints - 1);
  const auto few = history.Series(13, 0, 10);
  ASSERT_EQ(few.size(), 10U);
  EXPECT_EQ(few.back().timeUs, kTime + (2 * History::kPoints - 1) * History::kInterval) << "the newest one is there";
  history.Add(kTime - 1, message);
  EXPECT_EQ(history.Points(), 1U) << "the clock was set back";
}

// --- Events ------------------------------------------------------------------------------------------

class EventsTest : public HubTest {
 protected:
  // Returns everything that a client gets of the events so far.
  std::string Read(EventWishes wishes, std::string* line = nullptr) {
    m_hub.Stop();
    EventFlow flow(m_hub, std::move(wishes), "run1", [line](const std::string& said) {
      if (line != nullptr) *line = said;
    });
    std::string all;
    std::string piece;
    while (flow.Next(piece)) all += piece;
    return all + piece;
  }
  static EventWishes FromTheFirst() {
    EventWishes wishes;
    wishes.lastId = 0;
    return wishes;
  }
};

TEST_F(EventsTest, GreetAndEnd) {
  EXPECT_THAT(Read({}),
              testing::MatchesRegex("retry: 1000\nevent: hello\ndata: \\{\"run\":\"run1\",.*\"missed\":false\\}\n\n"
                                    "event: bye\ndata: \\{\"reason\":\"the program ends\"\\}\n\n"));
}

TEST_F(EventsTest, AreChosenBySourceAndKind) {
  Push("a", MessageAt(1));
  Push("b", MessageAt(2));
  m_hub.Log(Priority::Notice, "", "said");
  EventWishes wishes = FromTheFirst();
  wishes.sources = {"b"};
  wishes.kinds = {true, false, false, false};
  const std::string text = Read(std::move(wishes));
  EXPECT_THAT(text, HasSubstr("event: message\nid: "));
  EXPECT_THAT(text, HasSubstr("\"source\":\"b\""));
  EXPECT_THAT(text, Not(HasSubstr("\"source\":\"a\"")));
  EXPECT_THAT(text, Not(HasSubstr("event: log")));
}

TEST_F(EventsTest, HaveItemsAsTheyAreWished) {
  Push("a", MessageAt(1));
  EventWishes wishes = FromTheFirst();
  EXPECT_THAT(Read(wishes), HasSubstr("\"items\":{\"3\":\"M1\",\"5\":90.0"));
  wishes.items = ItemForm::Full;
  EXPECT_THAT(Read(wishes),
              HasSubstr("\"items\":[{\"tag\":3,\"name\":\"Mission ID\",\"key\":\"mission_id\",\"value\":\"M1\"}"));
  wishes.items = ItemForm::None;
  const std::string none = Read(wishes);
  EXPECT_THAT(none, Not(HasSubstr("\"items\"")));
  EXPECT_THAT(none, HasSubstr("\"seen\":{\"platform\":{\"latitude\":"));
}

TEST_F(EventsTest, GoOnBehindTheLastOneThatWasSeen) {
  for (int i = 0; i < 3; ++i) m_hub.Log(Priority::Notice, "", "line " + std::to_string(i));
  EventWishes wishes;
  wishes.lastId = 2;
  const std::string text = Read(wishes);
  EXPECT_THAT(text, HasSubstr("\"missed\":false"));
  EXPECT_THAT(text, Not(HasSubstr("line 1")));
  EXPECT_THAT(text, HasSubstr("line 2"));
  wishes.lastId = 99;
  EXPECT_THAT(Read(wishes), HasSubstr("\"missed\":true")) << "of another run";
}

TEST_F(EventsTest, SayThatSomeWereMissed) {
  for (size_t i = 0; i < Hub::kMostEvents + 10; ++i) Update({});
  EventWishes wishes;
  wishes.lastId = 3;
  EXPECT_THAT(Read(wishes), HasSubstr("\"missed\":true"));
}

TEST_F(EventsTest, CloseAClientThatFallsBehind) {
  EventWishes wishes;
  std::string said;
  EventFlow flow(m_hub, wishes, "run1", [&said](const std::string& line) { said = line; });
  std::string piece;
  EXPECT_TRUE(flow.Next(piece));
  for (size_t i = 0; i < Hub::kMostEvents + 10; ++i) Update({});
  EXPECT_TRUE(flow.Next(piece));
  EXPECT_THAT(piece, HasSubstr("too slow"));
  EXPECT_THAT(said, HasSubstr("too slowly"));
  EXPECT_FALSE(flow.Next(piece));
}

TEST_F(EventsTest, OfNoSourceComeWhateverSourcesAreWished) {
  m_hub.Log(Priority::Notice, "", "said");
  Push("a", MessageAt(1));
  EventWishes wishes = FromTheFirst();
  wishes.sources = {"b"};
  wishes.rate = 0.001;
  const std::string text = Read(std::move(wishes));
  EXPECT_THAT(text, HasSubstr("said"));
  EXPECT_THAT(text, Not(HasSubstr("event: message")));
}

TEST_F(EventsTest, OfOtherKindsAreNotThinned) {
  for (int i = 0; i < 5; ++i) m_hub.Log(Priority::Notice, "", "line " + std::to_string(i));
  EventWishes wishes = FromTheFirst();
  wishes.rate = 0.001;
  const std::string text = Read(std::move(wishes));
  for (int i = 0; i < 5; ++i) EXPECT_THAT(text, HasSubstr("line " + std::to_string(i)));
}

TEST_F(EventsTest, BeginWithThoseToComeUnlessSomeWereSeen) {
  m_hub.Log(Priority::Notice, "", "line 0");
  m_hub.Log(Priority::Notice, "", "line 1");
  EXPECT_THAT(Read({}), Not(HasSubstr("line")));
  EventWishes wishes;
  wishes.lastId = m_hub.NextId() - 1;
  EXPECT_THAT(Read(wishes), AllOf(HasSubstr("\"missed\":false"), Not(HasSubstr("line"))));
  wishes.lastId = m_hub.NextId();
  EXPECT_THAT(Read(wishes), HasSubstr("\"missed\":true")) << "of another run";
}

TEST_F(EventsTest, TheNewestMessageComesWhenItsTimeIsThere) {
  for (int i = 0; i < 50; ++i) Push("a", MessageAt(1, "M" + std::to_string(i)));
  uint64_t next = 50;
  while (m_hub.NextId() <= 50) m_hub.Wait(next, 1, Hub::Clock::now() + std::chrono::hours(1));
  EventWishes wishes = FromTheFirst();
  wishes.rate = 1000;
  EventFlow flow(m_hub, std::move(wishes), "run1", nullptr);
  std::string hello;
  std::string first;
  std::string second;
  std::string last;
  EXPECT_TRUE(flow.Next(hello));
  EXPECT_TRUE(flow.Next(first));
  EXPECT_TRUE(flow.Next(second));
  EXPECT_THAT(first, AllOf(HasSubstr("\"M0\""), Not(HasSubstr("\"M1\""))));
  EXPECT_THAT(second, AllOf(HasSubstr("\"M49\""), Not(HasSubstr("\"M48\""))));
  m_hub.Stop();
  EXPECT_TRUE(flow.Next(last));
  EXPECT_THAT(last, StartsWith("event: bye")) << "no message comes twice";
  EXPECT_FALSE(flow.Next(last));
}

TEST_F(EventsTest, AreThinnedToTheRateWithTheNewestAtTheEnd) {
  for (int i = 0; i < 50; ++i) Push("a", MessageAt(i, "M" + std::to_string(i)));
  EventWishes wishes = FromTheFirst();
  wishes.rate = 0.001;
  const std::string text = Read(std::move(wishes));
  size_t messages = 0;
  for (size_t at = text.find("event: message"); at != std::string::npos; at = text.find("event: message", at + 1))
    ++messages;
  EXPECT_EQ(messages, 1U) << "the next one would be due in a thousand seconds";
}

// --- Recordings --------------------------------------------------------------------------------------

class RecordingsTest : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/recordings_XXXXXX";
    m_folder = mkdtemp(name);
  }
  void TearDown() override { std::filesystem::remove_all(m_folder); }
  void Write(const std::string& name, const std::string& text) const { std::ofstream(m_folder + "/" + name) << text; }
  static std::string Header(bool withHeaders) {
    return R"({"type":"recording index","version":1,"recording":"x","source":"a","stream_header":)" +
           std::string(withHeaders ? "true" : "false") + "}\n";
  }
  // Writes messages a second apart.
  void Record(const std::string& name, int count, bool withHeaders = false) const {
    std::string file;
    std::string index = Header(withHeaders);
    for (int i = 0; i < count; ++i) {
      const Bytes message = MessageAt(i % 90, "number " + std::to_string(i));
      const std::string header = withHeaders ? std::string("\0\x09\xDF\0\0", 5) : "";
      index += "{\"offset\":" + std::to_string(file.size()) +
               ",\"length\":" + std::to_string(header.size() + message.size()) +
               ",\"time\":" + std::to_string(kTime + static_cast<uint64_t>(i) * 1000000) + "}\n";
      file += header + std::string(message.begin(), message.end());
    }
    Write(name, file);
    Write(name + ".json", index);
  }
  static std::string Mission(const Json& message) { return message.at("items")[0].at("value").get<std::string>(); }

  std::string m_folder;
};

TEST_F(RecordingsTest, AreListedWithTheirTimes) {
  Record("a.klv", 10);
  Record("empty.klv", 0);
  Write("c.klv", "no index");
  Write("d.klv.json", "{}\n");
  Write("d.klv", "a bad index");
  std::filesystem::create_symlink("a.klv", m_folder + "/link.klv");
  std::filesystem::create_symlink("a.klv.json", m_folder + "/link.klv.json");
  const Json list = Recordings({m_folder, m_folder + "/absent"}).List().at("recordings");
  ASSERT_EQ(list.size(), 1U) << list;
  EXPECT_EQ(list[0].at("name"), "a.klv");
  EXPECT_EQ(list[0].at("source"), "a");
  EXPECT_EQ(list[0].at("from_us"), kTime);
  EXPECT_EQ(list[0].at("to_us"), kTime + 9000000);
  EXPECT_EQ(list[0].at("bytes"), std::filesystem::file_size(m_folder + "/a.klv"));
}

TEST_F(RecordingsTest, GiveTheMessageOfATime) {
  Record("a.klv", 1000);
  const Recordings recordings({m_folder});
  const auto at = [&](int64_t offset) {
    return Mission(recordings.Message("a.klv", static_cast<int64_t>(kTime) + offset, std::nullopt, false));
  };
  EXPECT_EQ(at(-5), "number 0");
  EXPECT_EQ(at(0), "number 0");
  EXPECT_EQ(at(999999), "number 0");
  for (int i = 1; i < 1000; i += 7) EXPECT_EQ(at(int64_t{i} * 1000000), "number " + std::to_string(i));
  EXPECT_EQ(at(int64_t{1} << 50), "number 999");
}

TEST_F(RecordingsTest, GiveTheNextAndThePreviousMessage) {
  Record("a.klv", 3, true);
  const Recordings recordings({m_folder});
  Json message = recordings.Message("a.klv", 0, std::nullopt, true);
  EXPECT_TRUE(message.at("previous").is_null());
  EXPECT_EQ(message.at("sequence"), 9);
  EXPECT_THAT(message.at("raw").get<std::string>(), StartsWith("060E2B34"));
  message = recordings.Message("a.klv", std::nullopt, message.at("next").get<int64_t>(), false);
  EXPECT_EQ(Mission(message), "number 1");
  EXPECT_EQ(Mission(recordings.Message("a.klv", std::nullopt, message.at("previous").get<int64_t>(), false)),
            "number 0");
  message = recordings.Message("a.klv", std::nullopt, message.at("next").get<int64_t>(), false);
  EXPECT_EQ(Mission(message), "number 2");
  EXPECT_TRUE(message.at("next").is_null());
}

TEST_F(RecordingsTest, GivePointsThatAreThinned) {
  Record("a.klv", 1000);
  const Recordings recordings({m_folder});
  const Json all = recordings.Points("a.klv", {}, {}, 2000);
  EXPECT_EQ(all.at("points").size(), 1000U);
  const Json few = recordings.Points("a.klv", {}, {}, 11).at("points");
  ASSERT_EQ(few.size(), 11U);
  EXPECT_EQ(few.front().at("time_us"), kTime);
  EXPECT_EQ(few.back().at("time_us"), kTime + 999000000);
  const auto time = static_cast<int64_t>(kTime);
  const Json part = recordings.Points("a.klv", time + 500000, time + 4500000, 100).at("points");
  ASSERT_EQ(part.size(), 4U);
  EXPECT_EQ(part.front().at("time_us"), kTime + 1000000);
  EXPECT_NEAR(part.front().at("seen").at("platform").at("latitude").get<double>(), 1, 1e-6);
  EXPECT_TRUE(recordings.Points("a.klv", time + int64_t{2000000000}, {}, 5).at("points").empty());
}

TEST_F(RecordingsTest, AreListedFromTheNewestOn) {
  for (size_t i = 0; i < Recordings::kMostListed + 1; ++i) Record("r" + std::to_string(i), static_cast<int>(i) + 1);
  const Json list = Recordings({m_folder}).List().at("recordings");
  ASSERT_EQ(list.size(), Recordings::kMostListed);
  EXPECT_EQ(list[0].at("name"), "r200");
  EXPECT_EQ(list[199].at("name"), "r1");
}

TEST_F(RecordingsTest, AreNoLinks) {
  Record("a.klv", 1);
  std::filesystem::create_symlink("a.klv.json", m_folder + "/b.klv.json");
  std::filesystem::copy_file(m_folder + "/a.klv", m_folder + "/b.klv");
  std::filesystem::create_symlink("a.klv", m_folder + "/c.klv");
  std::filesystem::copy_file(m_folder + "/a.klv.json", m_folder + "/c.klv.json");
  EXPECT_EQ(Recordings({m_folder}).List().at("recordings").size(), 1U);
}

TEST_F(RecordingsTest, TellTheTimeStampOfTheirInput) {
  Record("a.klv", 1);
  const Bytes message = MessageAt(0, "number 0");
  std::ofstream(m_folder + "/a.klv.json", std::ios::app)
      << R"({"offset":0,"length":)" << message.size() << R"(,"time":)" << kTime + 1 << R"(,"timestamp":90000})" << '\n';
  const Recordings recordings({m_folder});
  EXPECT_FALSE(recordings.Message("a.klv", 0, std::nullopt, false).contains("timestamp"));
  EXPECT_EQ(recordings.Message("a.klv", int64_t{1} << 60, std::nullopt, false).at("timestamp"), 90000);
}

TEST_F(RecordingsTest, DoNotHoldMessagesOfAnyLength) {
  Record("a.klv", 1, true);
  const auto status = [&](size_t length) {
    std::filesystem::resize_file(m_folder + "/a.klv", length);
    const std::string index = Header(true) + R"({"offset":0,"length":)" + std::to_string(length) + ",\"time\":5}\n";
    Write("a.klv.json", index);
    try {
      Recordings({m_folder}).Message("a.klv", 5, std::nullopt, false);
    } catch (const Refusal& refusal) {
      return refusal.status;
    }
    return 200;
  };
  EXPECT_EQ(status(4), 404) << "shorter than the header";
  EXPECT_EQ(status(5), 200);
  EXPECT_EQ(status(Recordings::kLongestMessage), 200);
  EXPECT_EQ(status(Recordings::kLongestMessage + 1), 404);
}

TEST_F(RecordingsTest, SurviveALongPieceOfWhatIsNoIndex) {
  Record("a.klv", 2);
  std::ofstream(m_folder + "/a.klv.json", std::ios::app) << std::string(6000, 'x') << '\n';
  const Json list = Recordings({m_folder}).List().at("recordings");
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].at("to_us"), kTime + 1000000);
}

TEST_F(RecordingsTest, RefuseWhatIsNotThere) {
  Record("a.klv", 3);
  const Recordings recordings({m_folder});
  for (const char* const name : {"", "b.klv", "../a.klv", "a.klv.json", "/etc/passwd", "a.klv/"}) {
    EXPECT_THROW(recordings.Points(name, {}, {}, 5), Refusal) << name;
  }
  EXPECT_THROW(recordings.Message("a.klv", std::nullopt, 1 << 20, false), Refusal);
}

TEST_F(RecordingsTest, SurviveAnIndexThatDoesNotFit) {
  Record("a.klv", 3);
  std::ofstream(m_folder + "/a.klv.json", std::ios::app)
      << "garbage\n{\"offset\":999999,\"length\":50,\"time\":1714558999000000}\n{\"offset\":0,\"length\":99999999999,\"time\":1714559000000000}\n"
      << std::string(5000, 'x') << "\n{\"offset\":1";
  const Recordings recordings({m_folder});
  EXPECT_EQ(recordings.Points("a.klv", {}, {}, 100).at("points").size(), 3U);
  EXPECT_THROW(recordings.Message("a.klv", 1714559000000000, std::nullopt, false), Refusal);
  EXPECT_EQ(Mission(recordings.Message("a.klv", static_cast<int64_t>(kTime) + 2000000, std::nullopt, false)),
            "number 2");
}

// --- Metrics -----------------------------------------------------------------------------------------

TEST_F(HubTest, MetricsHaveEveryCountOnce) {
  Update({ReportOf("a", 5), ReportOf("b\\\"\n", 6)});
  const auto state = m_hub.State();
  const std::string text = MetricsText({*state, m_hub.Totals(), {}, "1.0", 12.5});
  EXPECT_THAT(text, HasSubstr("# HELP metadata_messages_total Messages that the library delivered.\n"
                              "# TYPE metadata_messages_total counter\n"
                              "metadata_messages_total{source=\"a\"} 5\n"
                              "metadata_messages_total{source=\"b\\\\\\\"\\n\"} 6\n"));
  EXPECT_THAT(text, HasSubstr("metadata_bit_rate_bits_per_second{source=\"a\"} 12000\n"));
  EXPECT_THAT(text, HasSubstr("metadata_checksums_total{source=\"a\",state=\"bad\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("metadata_relay_errors_total{source=\"a\",relay=\"1\",destination=\"239.1.1.1:5\"} 4\n"));
  EXPECT_THAT(text, HasSubstr("metadata_cot_sensors{source=\"a\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("metadata_start_time_seconds 12.5\n"));
  EXPECT_THAT(text, Not(HasSubstr("metadata_kernel_drops_total"))) << "nothing stands without a value";
}

TEST_F(HubTest, MetricsTellOfTroublesAndOfTheServer) {
  Json closed = ReportOf("b", 1);
  closed["state"] = "waiting";
  auto& relays = closed["statistics"]["relays"];
  relays.push_back(relays[0]);
  Snapshot snapshot;
  snapshot.sources = {ReportOf("a", 1), closed};
  snapshot.waiting = 17;
  MetricsInput input{snapshot, {}, {}, "1.0"};
  EXPECT_THAT(MetricsText(input), HasSubstr("\nmetadata_healthy 1\n"));
  snapshot.troubles = {"a trouble"};
  input.hub.taken = 21;
  input.hub.leftOut = 22;
  input.server = {31, 32, 33, 34, 35, 36, 37};
  const std::string text = MetricsText(input);
  for (const char* const line :
       {"healthy 0", "queue_messages 17", "page_messages_total 21", "page_left_out_total 22", "http_connections 31",
        "http_accepted_total 32", "http_turned_away_total 33", "http_requests_total 34", "http_refused_total 35",
        "http_flows 36", "http_slow_total 37", "source_open{source=\"a\",input=\"udp\",data=\"cot\"} 1",
        "source_open{source=\"b\",input=\"udp\",data=\"cot\"} 0",
        "relay_messages_total{source=\"b\",relay=\"2\",destination=\"239.1.1.1:5\"} 2"}) {
    EXPECT_THAT(text, HasSubstr(std::string("\nmetadata_") + line + "\n")) << text;
  }
}

// --- Messages ----------------------------------------------------------------------------------------

TEST(MessageJson, HasWhatIsKnownOfTheMessage) {
  Delivered plain;
  plain.source = "a";
  plain.timeUs = kTime;
  plain.bytes = MessageAt(1);
  Json json = MessageJson(plain, ItemForm::Full, false);
  for (const char* const key : {"id", "timestamp", "presentation", "sequence", "error", "raw"}) {
    EXPECT_FALSE(json.contains(key)) << key;
  }
  EXPECT_EQ(json.at("checksum"), "ok");
  EXPECT_EQ(json.at("length"), plain.bytes.size());
  Delivered full;
  full.id = 5;
  full.timeStamp = 90000;
  full.presentation = 1.5;
  full.sequence = 7;
  full.bytes = {1, 2, 3};
  json = MessageJson(full, ItemForm::Full, false);
  EXPECT_EQ(json.at("id"), 5);
  EXPECT_EQ(json.at("timestamp"), 90000);
  EXPECT_EQ(json.at("presentation"), 1.5);
  EXPECT_EQ(json.at("sequence"), 7);
  EXPECT_EQ(json.at("st0601"), false);
  EXPECT_EQ(json.at("raw"), "010203") << "what is no set has no other form";
  EXPECT_FALSE(MessageJson(full, ItemForm::Compact, true).contains("raw"));
  EXPECT_FALSE(json.contains("checksum"));
}

TEST(MessageJson, TellsWhatIsWrong) {
  Delivered message;
  message.bytes = MessageAt(1);
  message.bytes.pop_back();
  EXPECT_TRUE(MessageJson(message, ItemForm::Compact, false).contains("error"));
}

TEST(MessageJson, HasTheNumbersTimesCodesAndTextsInItsShortForm) {
  Delivered message;
  message.bytes = Builder()
                      .AddWhole(2, 1000001)
                      .AddText(3, "M")
                      .Add(5, 90.0)
                      .Add(6, Bytes{0x80, 0})
                      .AddWhole(34, 2)
                      .Add(48, Bytes{1, 1, 1})
                      .Add(94, Bytes{1, 2})
                      .Finish();
  const Json items = MessageJson(message, ItemForm::Compact, false).at("items");
  EXPECT_EQ(items.at("2"), 1000001);
  EXPECT_EQ(items.at("3"), "M");
  EXPECT_NEAR(items.at("5").get<double>(), 90, 0.01);
  EXPECT_TRUE(items.at("34").is_string()) << items;
  for (const char* const tag : {"1", "6", "48", "94"}) EXPECT_FALSE(items.contains(tag)) << tag << items;
}

TEST(MessageJson, SeesWhereTheSensorLooksAndThePlatformGoes) {
  Delivered message;
  message.bytes = Builder().Add(5, 90.0).Add(112, 45.0).Add(18, 30.0).Add(19, -10.0).Add(6, 5.0).Finish();
  const Json seen = MessageJson(message, ItemForm::None, false).at("seen");
  EXPECT_NEAR(seen.at("heading").get<double>(), 90, 0.01);
  EXPECT_NEAR(seen.at("course").get<double>(), 45, 0.01);
  EXPECT_NEAR(seen.at("azimuth").get<double>(), 120, 0.01);
  EXPECT_NEAR(seen.at("elevation").get<double>(), -5, 0.01);
}

TEST(ItemTables, HaveTheRangesOfNumbersOnly) {
  const Json tables = ItemTablesJson();
  const Json& items = tables.at("items");
  EXPECT_EQ(items[4].at("key"), "heading");
  EXPECT_EQ(items[4].at("kind"), "number");
  EXPECT_EQ(items[4].at("max"), 360);
  EXPECT_EQ(items[2].at("kind"), "text");
  EXPECT_FALSE(items[2].contains("min"));
  EXPECT_EQ(items[0].at("kind"), "checksum");
  EXPECT_EQ(items[1].at("kind"), "time");
  EXPECT_EQ(items[47].at("kind"), "set");
}

// A stream in which every count is another one.
StreamReport FlightReport() {
  StreamReport flight;
  flight.name = "flight";
  flight.video = "scene";
  flight.hasVideo = true;
  flight.frames = 11;
  flight.framesLate = 12;
  flight.messages = 13;
  flight.lost = 14;
  flight.clockUs = 15500000;
  flight.wallOffsetUs = -16000;
  flight.tracks.push_back({"a", 0x101, 21, 22, 23, 24000, 25000, 26});
  flight.outputs.push_back({"flight.ts", true, 31, 32});
  flight.outputs.push_back({"udp://239.1.1.1:5", false, 41, 42});
  return flight;
}

TEST_F(HubTest, MetricsHaveTheCountsOfStreams) {
  Update({});
  MetricsInput input{*m_hub.State(), {}, {}, "1.0"};
  EXPECT_THAT(MetricsText(input), Not(HasSubstr("metadata_stream_")));
  const Json streams = StreamsJson({FlightReport()});
  input.streams = &streams;
  const std::string text = MetricsText(input);
  for (const char* const line :
       {"has_video{stream=\"flight\"} 1", "frames_total{stream=\"flight\"} 11",
        "frames_late_total{stream=\"flight\"} 12", "messages_total{stream=\"flight\"} 13",
        "lost_messages_total{stream=\"flight\"} 14", "clock_seconds{stream=\"flight\"} 15.5",
        "wall_offset_seconds{stream=\"flight\"} -0.016", "source_messages_total{stream=\"flight\",source=\"a\"} 21",
        "source_late_messages_total{stream=\"flight\",source=\"a\"} 22",
        "source_by_arrival_total{stream=\"flight\",source=\"a\"} 23",
        "source_offset_seconds{stream=\"flight\",source=\"a\"} 0.024",
        "source_difference_seconds{stream=\"flight\",source=\"a\"} 0.025",
        "source_drift_ratio{stream=\"flight\",source=\"a\"} 2.",
        "output_good{stream=\"flight\",output=\"1\",destination=\"flight.ts\"} 1",
        "output_good{stream=\"flight\",output=\"2\",destination=\"udp://239.1.1.1:5\"} 0",
        "output_bytes_total{stream=\"flight\",output=\"1\",destination=\"flight.ts\"} 31",
        "output_lost_bytes_total{stream=\"flight\",output=\"2\",destination=\"udp://239.1.1.1:5\"} 42"}) {
    EXPECT_THAT(text, HasSubstr(std::string("\nmetadata_stream_") + line)) << text;
  }
}

// --- Description -------------------------------------------------------------------------------------

// The schemas of the description that programs read.
class Description : public HubTest {
 protected:
  Description() {
    std::ifstream file(METADATA_SOURCE_DIR "/docs/openapi.json");
    m_schemas = Json::parse(file).at("components").at("schemas");
  }

  struct Place {
    const Json* schema;
    std::string name;
    const Json* value = nullptr;
  };
  // Goes to the schema that this one stands for.
  Place Resolved(Place place) const {
    while (place.schema->contains("$ref")) {
      const auto target = place.schema->at("$ref").get<std::string>();
      place.name = target.substr(target.rfind('/') + 1);
      place.schema = &m_schemas.at(place.name);
    }
    return place;
  }
  // Returns the names of all properties below a schema.
  std::set<std::string> Declared(const std::string& name) const {
    std::set<std::string> found;
    std::vector<Place> waiting = {{&m_schemas.at(name), name}};
    while (!waiting.empty()) {
      const Place place = Resolved(waiting.back());
      waiting.pop_back();
      if (place.schema->contains("items")) waiting.push_back({&place.schema->at("items"), place.name});
      if (!place.schema->contains("properties")) continue;
      for (const auto& [key, schema] : place.schema->at("properties").items()) {
        found.insert(place.name + "." + key);
        waiting.push_back({&schema, place.name + "." + key});
      }
    }
    return found;
  }
  // Adds the names of all properties of a value, also of those that the schema does not know.
  void AddUsed(const std::string& name, const Json& value, std::set<std::string>& found) const {
    static const Json kNothing;
    std::vector<Place> waiting = {{&m_schemas.at(name), name, &value}};
    while (!waiting.empty()) {
      const Place place = Resolved(waiting.back());
      waiting.pop_back();
      if (place.value->is_array()) {
        for (const Json& entry : *place.value) waiting.push_back({&place.schema->at("items"), place.name, &entry});
      }
      if (!place.value->is_object()) continue;
      for (const auto& [key, part] : place.value->items()) {
        found.insert(place.name + "." + key);
        const bool isKnown = place.schema->contains("properties") && place.schema->at("properties").contains(key);
        waiting.push_back(
            {isKnown ? &place.schema->at("properties").at(key) : &kNothing, place.name + "." + key, &part});
      }
    }
  }

  Json m_schemas;
};

TEST_F(Description, HasNoObjectWithoutItsProperties) {
  std::vector<std::pair<const Json*, std::string>> waiting = {{&m_schemas, "schemas"}};
  while (!waiting.empty()) {
    const auto [json, name] = waiting.back();
    waiting.pop_back();
    if (json->is_object() && json->contains("type") && json->at("type") == "object") {
      ASSERT_TRUE(json->contains("additionalProperties")) << name;
      // Only the items of a message are named by what was received.
      const bool isOfItems = name == "schemas/MessageEvent/properties/items/oneOf/1";
      EXPECT_TRUE(isOfItems ? json->at("additionalProperties").is_object() : json->at("additionalProperties") == false)
          << name;
    }
    if (!json->is_structured()) continue;
    for (const auto& [key, part] : json->items()) waiting.emplace_back(&part, name + "/" + key);
  }
}

TEST_F(Description, NamesWhatAStreamHas) {
  std::set<std::string> used;
  Json stream = StreamsJson({FlightReport()})[0];
  stream["url"] = "/stream/flight.mp4";
  stream["mime"] = "video/mp4";
  AddUsed("Stream", stream, used);
  EXPECT_EQ(used, Declared("Stream"));
}

TEST_F(Description, NamesWhatASourceHas) {
  std::vector<Json> reports;
  for (const bool isCot : {false, true}) {
    SourceSettings settings;
    settings.name = "a";
    settings.record.enInputType = MDATA_INPUT_NETWORK;
    settings.record.enDataType = isCot ? MDATA_DATA_COT : MDATA_DATA_KLV;
    settings.record.szMissionID[0] = 'M';
    settings.record.nNumOfRelays = 1;
    settings.relayHosts = {"map.example.org"};
    Report report;
    report.settings = &settings;
    report.counters.sendsCot = true;
    report.counters.isRecorded = true;
    if (isCot) {
      report.statistics.prot.CoT.nDiscoveredSensorsCount = 1;
      report.statistics.prot.CoT.aszSensorUIDs[0][0] = 'S';
      report.tak.emplace();
    } else {
      report.capture.emplace();
    }
    Json json = ReportJson(report);
    json["faults"] = LostOrCorrupt(report);
    reports.push_back(std::move(json));
  }
  Update(reports);
  Push("a", Builder().AddText(11, "S").Add(23, 1.0).Add(24, 2.0).Add(25, 3.0).Add(78, 4.0).Finish());
  m_hub.Stop();
  Update(reports, 1);
  std::set<std::string> used;
  for (const Json& source : m_hub.State()->sources) AddUsed("Source", source, used);
  EXPECT_EQ(used, Declared("Source"));
}

// --- Assets ------------------------------------------------------------------------------------------

TEST(Assets, AreServedFromTheTableOnly) {
  const std::string page(5000, 'x');
  const auto* const begin = reinterpret_cast<const unsigned char*>(page.data());
  const BundledFile files[] = {{"/index.html", begin, begin + page.size()}, {"/a/b.js", begin, begin + 1}};
  const Assets assets(files);
  Request request;
  Answer answer = assets.Get("/", request);
  EXPECT_EQ(answer.type, "text/html; charset=utf-8");
  EXPECT_EQ(answer.body, page);
  const auto tag = answer.fields.at(0);
  EXPECT_EQ(tag.first, "ETag");
  request.acceptsGzip = true;
  answer = assets.Get("/index.html", request);
  EXPECT_LT(answer.body.size(), 100U);
  EXPECT_EQ(answer.fields.back(), std::make_pair(std::string("Content-Encoding"), std::string("gzip")));
  request.knownTag = tag.second;
  answer = assets.Get("/", request);
  EXPECT_EQ(answer.status, 304);
  EXPECT_EQ(answer.body, "");
  EXPECT_EQ(assets.Get("/a/b.js", {}).type, "text/javascript; charset=utf-8");
  EXPECT_EQ(assets.Get("/a/b.js", {}).body, "x");
  request.knownTag.clear();
  EXPECT_EQ(assets.Get("/a/b.js", request).body, "x") << "what would not become smaller is not packed";
  for (const char* const path : {"", "/a", "/a/", "/a/b.js/", "/../index.html", "//index.html", "/A/B.JS"}) {
    EXPECT_THROW(assets.Get(path, {}), Refusal) << path;
  }
}

TEST(Assets, OfTheProgramAreThere) {
  const Assets assets;
  EXPECT_THAT(assets.Get("/", {}).body, HasSubstr("<!doctype html>"));
  EXPECT_EQ(Json::parse(assets.Get("/api/v1/openapi.json", {}).body).at("openapi"), "3.0.3");
}

// --- Streams -----------------------------------------------------------------------------------------

TEST(MovieType, NamesTheCodecAndItsProfile) {
  const auto type = [](const std::string& init) {
    return MovieType({reinterpret_cast<const uint8_t*>(init.data()), init.size()});
  };
  EXPECT_EQ(type(std::string("xxavcC\x01\x42\xC0\x1F\xFF\0\0\0\0\0\0\0\0", 19)), "video/mp4; codecs=\"avc1.42c01f\"");
  EXPECT_EQ(type(std::string("hvcC\x01\x01\x60\0\0\0\x90\0\0\0\0\0\x5D", 17)), "video/mp4; codecs=\"hvc1.1.6.L93.90\"");
  EXPECT_EQ(type(std::string("hvcC\x01\x21\x60\0\0\0\x90\0\0\0\0\0\x5D", 17)), "video/mp4; codecs=\"hvc1.1.6.H93.90\"");
  EXPECT_EQ(type(std::string("avcC\x01\x42\xC0\x1F\xFF\0\0\0\0\0\0\0", 16)), "video/mp4") << "cut off";
  EXPECT_EQ(type("avcC"), "video/mp4");
  EXPECT_EQ(type(""), "video/mp4");
}

// --- Paths -------------------------------------------------------------------------------------------

class ApiTest : public HubTest {
 protected:
  ApiTest() {
    m_ring->SetInit({1, 2, 3});
    m_settings.streams.list = [] { return Json::array({{{"name", "flight"}}}); };
    m_settings.streams.ring = [this](const std::string& name) { return name == "flight" ? m_ring : nullptr; };
    m_settings.version = "1.0";
    Update({ReportOf("a", 5)});
  }
  Json Ask(const std::string& path, const Parameters& query = {}) {
    const Api api(m_settings, m_hub, m_assets);
    Request request;
    request.path = path;
    request.query = query;
    return Json::parse(api.Handle(request, {}).body);
  }
  int StatusOf(const std::string& path, const Parameters& query = {}) {
    const Api api(m_settings, m_hub, m_assets);
    Request request;
    request.path = path;
    request.query = query;
    try {
      return api.Handle(request, {}).status;
    } catch (const Refusal& refusal) {
      return refusal.status;
    }
  }

  std::shared_ptr<FragmentRing> m_ring = std::make_shared<FragmentRing>();
  ApiSettings m_settings;
  const Assets m_assets;
};

TEST_F(ApiTest, TellsOfTheProgramAndItsSources) {
  EXPECT_EQ(Ask("/api/v1/info").at("sources"), Json::array({"a"}));
  EXPECT_EQ(Ask("/api/v1/info").at("streams"), Json::array({"flight"}));
  EXPECT_EQ(Ask("/api/v1/sources").at("sources")[0].at("messages"), 5);
  EXPECT_EQ(Ask("/api/v1/sources/a").at("name"), "a");
  EXPECT_GT(Ask("/api/v1/items").at("items").size(), 140U);
}

TEST_F(ApiTest, HasTheStreamsInItsMetrics) {
  const Api api(m_settings, m_hub, m_assets);
  Request request;
  request.path = "/metrics";
  EXPECT_THAT(api.Handle(request, {}).body, HasSubstr("\nmetadata_stream_has_video{stream=\"flight\"} 0\n"));
  m_settings.streams = {};
  EXPECT_THAT(Api(m_settings, m_hub, m_assets).Handle(request, {}).body, Not(HasSubstr("metadata_stream")));
}

TEST_F(ApiTest, TellsOfMessages) {
  EXPECT_EQ(StatusOf("/api/v1/sources/a/last"), 404);
  const uint64_t now = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
  Push("a", MessageAt(12), now);
  m_hub.Stop();
  EXPECT_EQ(Ask("/api/v1/sources/a/last").at("items")[0].at("value"), "M1");
  EXPECT_FALSE(Ask("/api/v1/sources/a/last").contains("raw"));
  EXPECT_EQ(Ask("/api/v1/sources/a/last", {{"raw", "1"}}).at("items")[0].at("raw"), "4D31");
  const Json history = Ask("/api/v1/sources/a/history", {{"item", "13,sensor_lon"}, {"item", "21"}});
  EXPECT_NEAR(history.at("series")[0].at("points")[0][1].get<double>(), 12, 1e-6);
  EXPECT_EQ(history.at("series")[1].at("tag"), 14);
  EXPECT_TRUE(history.at("series")[2].at("points").empty());
  EXPECT_NEAR(Ask("/api/v1/sources/a/track").at("points")[0][1].get<double>(), 12, 1e-6);
}

TEST_F(ApiTest, RefusesWhatItDoesNotKnow) {
  for (const char* const path :
       {"/api/v1/", "/api/v1/x", "/api/v1/info/", "/api/v1/info/x", "/api/v1/sources/b", "/api/v1/sources/a/x",
        "/api/v1/sources/a/last/x", "/api/v2/info", "/x", "", "/api/v1/recordings/x", "/stream/x.mp4", "/stream/flight",
        "/stream/", "/api/v1/recordings/x/y"}) {
    EXPECT_EQ(StatusOf(path), 404) << path;
  }
  const std::vector<std::pair<std::string, Parameters>> bad = {
      {"/api/v1/info", {{"x", "1"}}},
      {"/api/v1/sources/a/last", {{"raw", "2"}}},
      {"/api/v1/sources/a/history", {}},
      {"/api/v1/sources/a/history", {{"item", "x"}}},
      {"/api/v1/sources/a/history", {{"item", "99999"}}},
      {"/api/v1/sources/a/history", {{"item", "13,,14"}}},
      {"/api/v1/sources/a/history", {{"item", "13"}, {"seconds", "601"}}},
      {"/api/v1/events", {{"kind", "x"}}},
      {"/api/v1/events", {{"rate", "-1"}}},
      {"/api/v1/log", {{"level", "x"}}},
      {"/api/v1/recordings/x/message", {}}};
  for (const auto& [path, query] : bad) EXPECT_EQ(StatusOf(path, query), 400) << path;
  EXPECT_EQ(StatusOf("/api/v1/events", {{"source", "b"}}), 404);
}

TEST_F(ApiTest, GivesTheLinesOfALevelBehindAnId) {
  m_hub.Log(Priority::Error, "", "error");
  m_hub.Log(Priority::Warning, "", "warning");
  m_hub.Log(Priority::Debug, "", "debug");
  m_hub.Stop();
  const auto texts = [&](const Parameters& query) {
    std::string all;
    const Json log = Ask("/api/v1/log", query);
    for (const Json& line : log.at("lines")) all += line.at("text").get<std::string>() + " ";
    return all;
  };
  EXPECT_EQ(texts({}), "error warning debug ");
  EXPECT_EQ(texts({{"level", "error"}}), "error ");
  EXPECT_EQ(texts({{"level", "warning"}}), "error warning ");
  EXPECT_EQ(texts({{"level", "notice"}}), "error warning ");
  EXPECT_EQ(texts({{"after", std::to_string(m_hub.Lines(0)[0].id)}}), "warning debug ");
}

TEST_F(ApiTest, GivesEventsAsTheyAreAskedFor) {
  Push("a", MessageAt(1));
  Push("a", MessageAt(2));
  m_hub.Log(Priority::Notice, "", "said");
  m_hub.Stop();
  const auto events = [&](const Parameters& query, const std::string& lastEventId = "") {
    const Api api(m_settings, m_hub, m_assets);
    Request request;
    request.path = "/api/v1/events";
    request.query = query;
    request.lastEventId = lastEventId;
    const Answer answer = api.Handle(request, {});
    EXPECT_EQ(answer.type, "text/event-stream");
    std::string all;
    std::string piece;
    while (answer.flow->Next(piece)) all += piece;
    return all;
  };
  EXPECT_THAT(events({{"last_event_id", "0"}}),
              AllOf(HasSubstr("event: statistics"), HasSubstr("event: log"), HasSubstr("\"items\":{\"3\":\"M1\"")));
  EXPECT_THAT(events({}), Not(HasSubstr("event: message")));
  EXPECT_THAT(events({}, "0"), HasSubstr("event: message"));
  EXPECT_THAT(events({{"last_event_id", "0"}}, std::to_string(m_hub.NextId() - 1)), Not(HasSubstr("event: message")))
      << "the browser's own is newer";
  const std::string only = events({{"last_event_id", "0"}, {"kind", "message"}, {"items", "none"}, {"rate", "0.001"}});
  EXPECT_THAT(only, AllOf(Not(HasSubstr("event: log")), Not(HasSubstr("event: statistics")), Not(HasSubstr("items"))));
  EXPECT_EQ(only.find("event: message"), only.rfind("event: message")) << "at that rate the second is not due";
}

TEST_F(ApiTest, KeepsNothingOfItsAnswersInBrowsers) {
  const Api api(m_settings, m_hub, m_assets);
  for (const char* const path : {"/api/v1/info", "/api/v1/sources/a", "/healthz", "/metrics", "/stream/flight.mp4"}) {
    Request request;
    request.path = path;
    const Answer answer = api.Handle(request, {});
    EXPECT_THAT(answer.fields, testing::Contains(testing::Pair("Cache-Control", "no-store"))) << path;
  }
}

TEST_F(ApiTest, AsksForOneMessageOfARecordingAtATime) {
  for (const Parameters& query : {Parameters{{"time", "1"}, {"at", "1"}}, Parameters{{"time", "-1"}}}) {
    EXPECT_EQ(StatusOf("/api/v1/recordings/x/message", query), 400);
  }
  EXPECT_EQ(StatusOf("/api/v1/recordings/x/message", {{"time", "1"}}), 404);
}

TEST_F(ApiTest, HistoriesBeginSoManySecondsAgo) {
  const uint64_t now = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
  Push("a", MessageAt(1), now - 300 * uint64_t{1000000});
  Push("a", MessageAt(2), now);
  m_hub.Stop();
  const auto points = [&](const Parameters& query) {
    return Ask("/api/v1/sources/a/history", query).at("series")[0].at("points").size();
  };
  EXPECT_EQ(points({{"item", "13"}}), 2U);
  EXPECT_EQ(points({{"item", "13"}, {"seconds", "200"}}), 1U);
  EXPECT_EQ(points({{"item", "13"}, {"points", "1"}}), 1U);
  EXPECT_EQ(Ask("/api/v1/sources/a/track", {{"seconds", "200"}}).at("points").size(), 1U);
  EXPECT_EQ(StatusOf("/api/v1/sources/a/history", {{"item", "13"}, {"points", "3001"}}), 400);
  EXPECT_EQ(StatusOf("/api/v1/sources/a/history", {{"item", "13"}, {"points", "0"}}), 400);
}

TEST_F(ApiTest, AMovieThatNeverBeganEnds) {
  const auto ring = std::make_shared<FragmentRing>();
  m_settings.streams.ring = [ring](const std::string&) { return ring; };
  const Api api(m_settings, m_hub, m_assets);
  Request request;
  request.path = "/stream/flight.mp4";
  const Answer answer = api.Handle(request, {});
  ring->Close();
  std::string piece = "x";
  EXPECT_FALSE(answer.flow->Next(piece));
  EXPECT_EQ(piece, "");
}

TEST_F(ApiTest, StreamsMoviesUntilTheyEnd) {
  const Api api(m_settings, m_hub, m_assets);
  Request request;
  request.path = "/stream/flight.mp4";
  const Answer answer = api.Handle(request, {});
  EXPECT_EQ(answer.type, "video/mp4");
  m_ring->Push({{7}, 0, true});
  m_ring->Close();
  std::string piece;
  EXPECT_TRUE(answer.flow->Next(piece));
  EXPECT_EQ(piece, "\x01\x02\x03");
  EXPECT_TRUE(answer.flow->Next(piece));
  EXPECT_EQ(piece, "\x07");
  EXPECT_FALSE(answer.flow->Next(piece));
}

TEST_F(ApiTest, SaysWhatIsWrong) {
  Snapshot snapshot;
  snapshot.at = Hub::Clock::now();
  m_hub.Update(snapshot);
  EXPECT_EQ(StatusOf("/healthz"), 200);
  snapshot.troubles = {"a trouble"};
  m_hub.Update(snapshot);
  EXPECT_EQ(StatusOf("/healthz"), 503);
  EXPECT_EQ(Ask("/healthz").at("reasons"), Json::array({"a trouble"}));
  snapshot.troubles.clear();
  snapshot.at = Hub::Clock::now() - std::chrono::seconds(20);
  m_hub.Update(snapshot);
  EXPECT_THAT(Ask("/healthz").at("reasons")[0].get<std::string>(), StartsWith("the program has not answered for 2"));
}

}  // namespace
}  // namespace mdencoder::http::http_api_test
