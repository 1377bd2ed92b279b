// SPDX-License-Identifier: Apache-2.0
// The state machine of the sources, on a clock and a network that the tests provide.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "config.h"
#include "ini_file.h"
#include "library.h"
#include "reach.h"
#include "resolver.h"
#include "source_keeper.h"
#include "values.h"

namespace mdencoder::keeper_test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Clock = SourceKeeper::Clock;

struct Opened {
  MDATA_SRC_CFG record;
  MDATA_SRC_STATS statistics{};
};

struct Fake {
  std::vector<std::string> calls;
  std::deque<Opened> sources;
  bool refuses = false;
  bool refusesToClose = false;
};
Fake* g_fake = nullptr;

Opened* Of(HMDATASRC handle) {
  return reinterpret_cast<Opened*>(handle);
}
BOOL Open(const MDATA_SRC_CFG* record, HMDATASRC* handle) {
  g_fake->calls.push_back((g_fake->refuses ? "refuse " : "open ") + std::to_string(record->nIndex));
  if (g_fake->refuses) return FALSE;
  g_fake->sources.push_back({*record});
  *handle = reinterpret_cast<HMDATASRC>(&g_fake->sources.back());
  return TRUE;
}
BOOL Close(HMDATASRC* handle) {
  g_fake->calls.push_back("close " + std::to_string(Of(*handle)->record.nIndex));
  return g_fake->refusesToClose ? FALSE : TRUE;
}
BOOL Get(HMDATASRC handle, MDATA_SRC_STATS* statistics) {
  *statistics = Of(handle)->statistics;
  return TRUE;
}
BOOL Set(HMDATASRC handle, const MDATA_SRC_STATS* statistics) {
  Of(handle)->statistics = *statistics;
  return TRUE;
}
BOOL Reset(HMDATASRC handle) {
  Of(handle)->statistics = {};
  return TRUE;
}
BOOL OnMessage(MDATA_BUFFER*, void*, void*) {
  return TRUE;
}

// A stream without a message.
class FakeStream : public HostStream {
 public:
  explicit FakeStream(const HostCaptureState& state) : m_state(state) {}
  int FD() const override { return -1; }
  bool Take(std::vector<uint8_t>&) override { return false; }
  HostCaptureState State() const override { return m_state; }
  HostCaptureStats Stats() const override {
    HostCaptureStats stats;
    stats.oversized = 7;
    return stats;
  }

 private:
  const HostCaptureState& m_state;
};

class KeeperTest : public testing::Test {
 protected:
  KeeperTest() { g_fake = &m_fake; }

  Config Read(const std::string& text) { return MakeConfig(ParseIni(text), "-"); }

  void Start(const std::string& text) {
    m_checked.config = Read(text);
    for (const SourceSettings& source : m_checked.config.sources) {
      m_keeper.Add(source, m_checked.config.encoder.capabilities);
    }
    EXPECT_EQ(m_keeper.OpenAll(m_now), nullptr);
  }

  void Apply(const std::string& text) {
    CheckedConfig fresh{Read(text), {}};
    GiveInputs(fresh.config.sources, m_checked.config.sources);
    const ConfigDifference difference = Compare(m_checked, fresh);
    for (const SourceSettings& source : difference.added) m_keeper.Add(source, m_checked.config.encoder.capabilities);
    m_keeper.Apply(
        difference, fresh.host, [this] { m_fake.calls.push_back("between"); }, m_now);
    m_checked = fresh;
  }

  // Lets the time pass in steps of what is due, as the main loop does.
  void Pass(std::chrono::milliseconds time) {
    const auto end = m_now + time;
    while (m_keeper.Due(m_now) <= end) {
      m_now = std::max(m_now, m_keeper.Due(m_now));
      m_keeper.Tick(m_now);
      ASSERT_LT(++m_ticks, 100000) << "nothing is due any more, and Tick is called all the same";
    }
    m_now = end;
  }

  std::vector<std::string> Calls() { return std::exchange(m_fake.calls, {}); }
  std::vector<std::string> Lines() { return std::exchange(m_lines, {}); }

  Fake m_fake;
  Library m_library{nullptr, nullptr, Open, Close, nullptr, Get, Reset, Set};
  std::string m_obstacle;  // to every source
  int m_asked = 0;
  int32_t m_askedFamily = 0;  // of the source that was asked for last
  std::string m_askedHost;    // the interface of the host that it was asked for on
  Health m_health;
  std::optional<Resolution> m_answer;      // to every name
  std::optional<Resolution> m_lateAnswer;  // for who waits
  std::vector<std::string> m_lines;
  std::array<HostCaptureState, kHostVideoInputs> m_states;
  HostCaptureState m_fed;  // of every stream without a video input
  bool m_refusesStreams = false;
  int m_ticks = 0;
  Clock::time_point m_now = Clock::time_point{} + 1h;
  CheckedConfig m_checked;
  SourceKeeper m_keeper{
      m_library,
      OnMessage,
      this,
      {},
      {[this](const SourceSettings& settings, const HostRuntimeConfig& host) {
         ++m_asked;
         m_askedFamily = settings.record.in.Network.iSrcAddressFamily;
         m_askedHost = host.multicastInterface;
         return m_obstacle;
       },
       [](const SourceSettings&, const HostRuntimeConfig&) {
         return Place{7, "eth1", {}};
       },
       [this](const SourceSettings&, const HostRuntimeConfig&, const Place&) { return m_health; },
       [this](const std::string& host, uint16_t port) {
         m_fake.calls.push_back("ask " + host + ":" + std::to_string(port));
         return NameQuestion{[this] { return m_answer; },
                             [this](std::chrono::milliseconds) { m_answer = m_lateAnswer; }};
       }},
      [this](bool isWarning, const std::string& line) { m_lines.push_back((isWarning ? "4 " : "5 ") + line); },
      {[] { return size_t{1}; },
       [this](int input, const HostCaptureConfig& capture) {
         m_fake.calls.push_back("set " + std::to_string(input) + " " + capture.path);
       },
       [this](int input) { return m_states[static_cast<size_t>(input)]; },
       [this](const HostCaptureConfig& capture, const std::string& name) -> std::unique_ptr<HostStream> {
         m_fake.calls.push_back("stream " + name + " " + capture.path);
         if (m_refusesStreams) return nullptr;
         return std::make_unique<FakeStream>(m_fed);
       }}};
};

constexpr char kUdp[] = "[a]\ninput = udp\nport = 5000\n";

TEST_F(KeeperTest, SourcesOfDifferentGroupsOnOnePortHaveNumbersOfTheirOwnInTheLibrary) {
  std::vector<HostReception> receptions;
  m_keeper.SetReception([&](const HostReception& reception) { receptions.push_back(reception); });
  Start(
      "[a]\ninput = udp\nport = 5000\naddress = 239.1.1.1\n[b]\ninput = udp\nport = 5000\naddress = 239.1.1.2\n"
      "[c]\ninput = udp\nport = 1\n[d]\ninput = udp\nport = 5000\naddress = ff02::1\ninterface = eth1\n");
  ASSERT_EQ(m_fake.sources.size(), 4U);
  EXPECT_EQ(m_fake.sources[0].record.in.Network.usUDPPort, 5000);
  EXPECT_EQ(m_fake.sources[1].record.in.Network.usUDPPort, 2);
  EXPECT_EQ(m_fake.sources[2].record.in.Network.usUDPPort, 1);
  EXPECT_EQ(m_fake.sources[3].record.in.Network.usUDPPort, 3);
  ASSERT_EQ(receptions.size(), 8U) << "set before each opening, and taken back after it";
  EXPECT_EQ(receptions[0].port, 0);
  EXPECT_EQ(receptions[2].port, 5000);
  EXPECT_EQ(receptions[6].port, 5000);
  EXPECT_EQ(receptions[6].interface, "eth1");
  EXPECT_EQ(receptions[6].groups.size(), 1U);
  EXPECT_EQ(receptions[7], HostReception{});
  EXPECT_EQ(m_keeper.Reports(true).at(3).settings->record.in.Network.usUDPPort, 5000);
}

TEST_F(KeeperTest, WaitsInOneLineAndOpensInAnother) {
  m_obstacle = "UDP port 5000 is in use";
  Start(kUdp);
  Pass(20s);
  EXPECT_THAT(Lines(), ElementsAre("4 source a waits: UDP port 5000 is in use"));
  EXPECT_THAT(Calls(), IsEmpty()) << "the library is not asked";
  EXPECT_EQ(m_asked, 11) << "every two seconds";
  EXPECT_EQ(m_keeper.Summary(), "0 of 1 sources open; a waits: UDP port 5000 is in use");
  m_obstacle.clear();
  Pass(2s);
  EXPECT_THAT(Lines(), ElementsAre("5 source a is open after 22 s"));
  EXPECT_THAT(Calls(), ElementsAre("open 1"));
  EXPECT_EQ(m_keeper.Summary(), "1 of 1 sources open");
  EXPECT_EQ(m_keeper.Due(m_now), Clock::time_point::max());
}

TEST_F(KeeperTest, ATroubleThatBecomesAnotherOneLastsFromTheFirst) {
  m_obstacle = "there is no eth1";
  Start(kUdp);
  Pass(10s);
  m_obstacle = "eth1 is down";
  Pass(10s);
  EXPECT_THAT(Lines(), ElementsAre("4 source a waits: there is no eth1", "4 source a waits: eth1 is down"));
  m_obstacle.clear();
  Pass(2s);
  EXPECT_THAT(Lines(), ElementsAre("5 source a is open after 22 s"));
}

TEST_F(KeeperTest, TheSummaryTellsEachSourceThatIsNotOpen) {
  Start("[a]\ninput = udp\nport = 5000\n[b]\ninput = udp\nport = 5001\nretry = no\n");
  m_health.fault = "eth1 is down";
  m_keeper.OnNetwork({true, {}}, m_now);
  Pass(1s);
  EXPECT_EQ(m_keeper.Summary(), "1 of 2 sources open; a waits: eth1 is down");
  EXPECT_FALSE(m_keeper.IsOpen(*m_keeper.Sources()[0])) << "it is cut off";
  EXPECT_TRUE(m_keeper.HasBeenOpen(*m_keeper.Sources()[0]));
  EXPECT_TRUE(m_keeper.IsOpen(*m_keeper.Sources()[1]));
  Apply("[b]\ninput = udp\nport = 5001\nretry = no\n");
  EXPECT_EQ(m_keeper.Summary(), "1 of 1 sources open");
  EXPECT_EQ(m_keeper.Sources().size(), 1U);
  EXPECT_EQ(m_keeper.EverySource().size(), 2U);
  EXPECT_EQ(m_keeper.Reports(false).size(), 1U);
  ASSERT_EQ(m_keeper.Reports(true).size(), 2U);
  EXPECT_STREQ(m_keeper.Reports(true)[0].state, "removed");
}

TEST_F(KeeperTest, TheEndKeepsTheStateOfEachSource) {
  Start("[a]\ninput = udp\nport = 5000\n[b]\ninput = udp\nport = 5001\nretry = no\n");
  m_fake.sources[1].statistics.nRxBytes = 12;
  m_health.fault = "eth1 is down";
  m_keeper.OnNetwork({true, {}}, m_now);
  Pass(1s);
  Calls();
  m_keeper.CloseAll();
  EXPECT_THAT(Calls(), ElementsAre("close 1", "close 2"));
  EXPECT_STREQ(m_keeper.Reports(false)[0].state, "cut off");
  EXPECT_STREQ(m_keeper.Reports(false)[1].state, "open");
  EXPECT_EQ(m_keeper.Reports(false)[1].statistics.nRxBytes, 12U);
  m_keeper.CloseAll();
  EXPECT_THAT(Calls(), IsEmpty());
  EXPECT_FALSE(m_keeper.Failed());
}

TEST_F(KeeperTest, ASourceThatCannotBeClosedFailsTheRun) {
  Start(kUdp);
  m_fake.refusesToClose = true;
  m_keeper.CloseAll();
  EXPECT_THAT(Lines(), ElementsAre("4 source a cannot be closed"));
  EXPECT_TRUE(m_keeper.Failed());
}

TEST_F(KeeperTest, OnlyWhatWasNeverOpenIsTakenBack) {
  m_obstacle = "there is no device";
  Start(kUdp);
  m_keeper.Discard(*m_keeper.Sources()[0]);
  EXPECT_THAT(m_keeper.EverySource(), IsEmpty());
  m_obstacle.clear();
  Start(kUdp);
  m_keeper.CloseAll();
  m_keeper.Discard(*m_keeper.Sources()[0]);
  EXPECT_THAT(m_keeper.Sources(), IsEmpty());
  EXPECT_EQ(m_keeper.EverySource().size(), 1U) << "messages in the queue refer to it";
}

TEST_F(KeeperTest, StatisticsThatWerePresetAreThoseOfTheFirstOpening) {
  const Config config = Read(kUdp);
  m_keeper.Add(config.sources[0], config.encoder.capabilities);
  MDATA_SRC_STATS statistics{};
  statistics.nRxBytes = 5;
  m_keeper.Preset("none", statistics);
  m_keeper.Preset("a", statistics);
  EXPECT_EQ(m_keeper.OpenAll(m_now), nullptr);
  EXPECT_EQ(m_fake.sources[0].statistics.nRxBytes, 5U);
  EXPECT_EQ(m_keeper.Reports(false)[0].reopened, 0U);
}

TEST_F(KeeperTest, CountsAreResetAndRestoredWhileASourceIsOpen) {
  Start(kUdp);
  m_fake.sources[0].statistics.nRxBytes = 5;
  m_keeper.Reset(*m_keeper.Sources()[0]);
  EXPECT_EQ(m_fake.sources[0].statistics.nRxBytes, 0U);
  MDATA_SRC_STATS statistics{};
  statistics.nRxBytes = 77;
  m_keeper.Restore(*m_keeper.Sources()[0], statistics);
  EXPECT_EQ(m_fake.sources[0].statistics.nRxBytes, 77U);
}

TEST_F(KeeperTest, TheObstacleIsThatOfTheFamiliesOfTheLibrary) {
  for (const auto& [capabilities, family] : {std::pair("ipv4", AF_INET), {"ipv6", AF_INET6}, {"ipv4, ipv6", 0}}) {
    const std::string encoder = std::string("[encoder]\ncapabilities = ") + capabilities + "\n";
    Start(encoder + kUdp);
    EXPECT_EQ(m_askedFamily, family) << capabilities;
    m_keeper.CloseAll();
    m_keeper.Discard(*m_keeper.Sources()[0]);
  }
}

TEST_F(KeeperTest, AReloadTakesOverWhatNeedsNoOpening) {
  Start(kUdp);
  Calls();
  Apply(std::string(kUdp) +
        "retry = no\nsilence = 9\ntrack = a.kml\ncot_out = udp://192.0.2.1:6969\ncot_out_rate = 2\n"
        "cot_out_uid = ME\ncot_out_type = a-n\n");
  EXPECT_THAT(Calls(), ElementsAre("between"));
  const SourceSettings& settings = *m_keeper.Reports(false)[0].settings;
  EXPECT_EQ(settings.silence, 9);
  EXPECT_EQ(settings.track, "a.kml");
  EXPECT_EQ(settings.cotOut, "udp://192.0.2.1:6969");
  EXPECT_EQ(settings.cotOutRate, 2);
  EXPECT_EQ(settings.cotOutUid, "ME");
  EXPECT_EQ(settings.cotOutType, "a-n");
  m_health.fault = "eth1 is down";
  m_keeper.OnNetwork({true, {}}, m_now);
  Pass(10s);
  EXPECT_THAT(Lines(), IsEmpty()) << "the source must not wait any more";
}

TEST_F(KeeperTest, AReloadTriesWhatWaitsAtItsTimeAndWhatChangedAtOnce) {
  m_obstacle = "there is no device";
  Start("[a]\ninput = udp\nport = 5000\n[b]\ninput = udp\nport = 5001\n");
  m_asked = 0;
  m_obstacle.clear();
  m_now += 1s;
  Apply("[a]\ninput = udp\nport = 5000\n[b]\ninput = udp\nport = 5002\n");
  EXPECT_THAT(Calls(), ElementsAre("between", "open 2"));
  Pass(1s);
  EXPECT_THAT(Calls(), ElementsAre("open 1"));
}

TEST_F(KeeperTest, ASourceThatReturnsIsTriedAtOnce) {
  const std::string other = "[b]\ninput = udp\nport = 5001\n";
  m_obstacle = "there is no device";
  Start(kUdp + other);
  Apply(other);
  m_obstacle.clear();
  Calls();
  Apply(other + kUdp);
  EXPECT_THAT(Calls(), ElementsAre("between", "open 2"));
}

TEST_F(KeeperTest, AReloadThatCannotOpenWhatMustNotWaitFailsTheRun) {
  Start("[b]\ninput = udp\nport = 5001\n");
  m_fake.refuses = true;
  Apply("[b]\ninput = udp\nport = 5002\n");
  EXPECT_FALSE(m_keeper.Failed());
  Lines();
  Apply("[b]\ninput = udp\nport = 5002\n[a]\ninput = udp\nport = 5000\nretry = no\n");
  EXPECT_TRUE(m_keeper.Failed());
  EXPECT_THAT(Lines(), testing::Contains("4 source a cannot be opened; the log tells why"));
}

TEST_F(KeeperTest, AReloadTakesTheHostThatItBrings) {
  Start(kUdp);
  CheckedConfig fresh = m_checked;
  fresh.host.multicastInterface = "eth1";
  const ConfigDifference difference = Compare(m_checked, fresh);
  m_keeper.Apply(
      difference, fresh.host, [] {}, m_now);
  EXPECT_EQ(m_askedHost, "eth1");
}

TEST_F(KeeperTest, NothingIsPlayedWithoutASource) {
  Start("[a]\nurl = a.ts\n");
  m_states[0].phase = HostCaptureState::Phase::Ended;
  EXPECT_TRUE(m_keeper.AllPlayed());
  Apply(kUdp);
  EXPECT_FALSE(m_keeper.AllPlayed());
  EXPECT_TRUE(m_keeper.AllReached(0));
  EXPECT_FALSE(m_keeper.AllReached(1));
}

TEST_F(KeeperTest, AnOpeningThatTheLibraryRefusesIsTriedLessAndLessOften) {
  m_fake.refuses = true;
  Start(kUdp);
  Pass(2s + 4s + 8s + 16s + 30s);
  EXPECT_EQ(Calls().size(), 6U);
  EXPECT_THAT(Lines(), ElementsAre("4 source a waits: the library cannot open it; the log tells why"));
}

TEST_F(KeeperTest, ASourceThatMustNotWaitIsOpenedWithoutAQuestion) {
  m_obstacle = "anything";
  Start(std::string(kUdp) + "retry = no\n");
  EXPECT_THAT(Calls(), ElementsAre("open 1"));
  EXPECT_EQ(m_asked, 0);
  m_health = {"eth1 is gone", false};
  m_keeper.OnNetwork({true, {7}}, m_now);
  Pass(10s);
  EXPECT_THAT(Calls(), IsEmpty());
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(KeeperTest, ASourceThatMustNotWaitAndCannotBeOpenedIsTold) {
  m_fake.refuses = true;
  const Config config = Read(std::string(kUdp) + "[b]\ninput = udp\nport = 5001\nretry = no\n");
  for (const SourceSettings& source : config.sources) m_keeper.Add(source, config.encoder.capabilities);
  const Source* const failed = m_keeper.OpenAll(m_now);
  ASSERT_NE(failed, nullptr);
  EXPECT_EQ(failed->Name(), "b");
}

TEST_F(KeeperTest, CountsGoOnAfterAnOpening) {
  Start(kUdp);
  m_fake.sources[0].statistics.nRxBytes = 1234;
  m_fake.sources[0].statistics.iSrcTTL = 17;
  m_health.needsReopen = true;
  m_keeper.OnNetwork({true, {}}, m_now);
  Pass(200ms);
  m_health.needsReopen = false;
  Pass(200ms);
  ASSERT_EQ(m_fake.sources.size(), 2U);
  EXPECT_THAT(Calls(), ElementsAre("open 1", "close 1", "open 1"));
  EXPECT_EQ(m_fake.sources[1].statistics.nRxBytes, 1234U);
  EXPECT_EQ(m_fake.sources[1].statistics.iSrcTTL, -1) << "so that relays follow the first datagram";
  EXPECT_EQ(m_keeper.Reports(false)[0].reopened, 1U);
  EXPECT_THAT(Lines(), ElementsAre("5 source a was opened again, because its interface or address changed"));
}

TEST_F(KeeperTest, CountsAreReadResetAndRestoredWhileASourceWaits) {
  m_obstacle = "there is no device";
  Start(kUdp);
  EXPECT_EQ(m_keeper.Reports(false)[0].statistics.iSrcTTL, -1);
  MDATA_SRC_STATS statistics{};
  statistics.nRxBytes = 77;
  m_keeper.Restore(*m_keeper.Sources()[0], statistics);
  EXPECT_EQ(m_keeper.Reports(false)[0].statistics.nRxBytes, 77U);
  EXPECT_STREQ(m_keeper.Reports(false)[0].state, "waiting");
  m_keeper.Reset(*m_keeper.Sources()[0]);
  EXPECT_EQ(m_keeper.Reports(false)[0].statistics.nRxBytes, 0U);
  m_keeper.Restore(*m_keeper.Sources()[0], statistics);
  m_obstacle.clear();
  Pass(2s);
  EXPECT_EQ(m_fake.sources[0].statistics.nRxBytes, 77U);
}

TEST_F(KeeperTest, ASourceThatIsCutOffStaysOpen) {
  Start(kUdp);
  Calls();
  m_health.fault = "eth1 has no carrier";
  m_keeper.OnNetwork({true, {}}, m_now);
  Pass(1s);
  EXPECT_THAT(Lines(), ElementsAre("4 source a waits: eth1 has no carrier"));
  EXPECT_STREQ(m_keeper.Reports(false)[0].state, "cut off");
  m_health.fault.clear();
  m_keeper.OnNetwork({true, {}}, m_now);
  Pass(1s);
  EXPECT_THAT(Lines(), ElementsAre("5 source a is open after 1 s"));
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KeeperTest, WhatFlapsForAnHourIsAFewLinesAndOpenings) {
  Start(kUdp);
  Calls();
  for (int second = 0; second < 3600; ++second) {
    m_health = {"eth1 is gone", false};
    m_keeper.OnNetwork({true, {}}, m_now);
    Pass(500ms);
    m_health = {"", true};
    m_keeper.OnNetwork({true, {}}, m_now);
    Pass(300ms);
    m_health = {};
    m_keeper.OnNetwork({true, {}}, m_now);
    Pass(200ms);
  }
  const auto lines = Lines();
  EXPECT_LT(lines.size(), 150U);
  EXPECT_THAT(lines, testing::Contains(HasSubstr("more times)")));
  EXPECT_LT(Calls().size(), 2 * (3 + 3600U / 5 + 1));
}

TEST_F(KeeperTest, ATroubleThatStaysIsToldEvenAfterManyThatWent) {
  Start(kUdp);
  for (int i = 0; i < 100; ++i) {
    m_health.fault = i % 2 == 0 ? "eth1 is gone" : "";
    m_keeper.OnNetwork({true, {}}, m_now);
    Pass(250ms);
  }
  Lines();
  m_health.fault = "eth1 is gone";
  m_keeper.OnNetwork({true, {}}, m_now);
  Pass(61s);
  EXPECT_THAT(Lines(), ElementsAre(HasSubstr("source a waits: eth1 is gone (it was away and came back")));
}

TEST_F(KeeperTest, SourcesOfOneVideoInputAreOpenedAgainTogether) {
  Start("[a]\ninput = video\n[b]\ninput = video\n[c]\ninput = video\ninterface = 1\nretry = no\n");
  Calls();
  m_health.needsReopen = true;
  m_keeper.OnNetwork({true, {}}, m_now);
  m_now += 200ms;
  m_health.needsReopen = true;
  m_keeper.Tick(m_now);
  const auto calls = Calls();
  ASSERT_GE(calls.size(), 4U);
  EXPECT_THAT(std::vector<std::string>(calls.begin(), calls.begin() + 4),
              ElementsAre("close 1", "close 2", "open 1", "open 2"));
}

TEST_F(KeeperTest, AnInputThatIsCapturedAlreadyIsNoObstacle) {
  Start("[a]\ninput = video\n");
  Calls();
  m_obstacle = "the port is in use";
  Apply("[a]\ninput = video\n[b]\ninput = video\n[c]\ninput = video\ninterface = 1\n");
  EXPECT_THAT(Calls(), ElementsAre("between", "open 2"));
  EXPECT_THAT(Lines(), ElementsAre("4 source c waits: the port is in use"));
}

TEST_F(KeeperTest, ANewConfigurationClosesBeforeItOpens) {
  Start("[a]\ninput = udp\nport = 5000\n[b]\ninput = udp\nport = 5001\n[c]\ninput = udp\nport = 5002\n");
  Calls();
  Apply("[new]\ninput = udp\nport = 5000\n[b]\ninput = udp\nport = 5003\n[c]\ninput = udp\nport = 5002\n");
  EXPECT_THAT(Calls(), ElementsAre("close 1", "close 2", "between", "open 2", "open 1"));
  const auto reports = m_keeper.Reports(true);
  ASSERT_EQ(reports.size(), 4U);
  EXPECT_STREQ(reports[0].state, "removed");
  EXPECT_EQ(m_keeper.Reports(false).size(), 3U);
}

TEST_F(KeeperTest, ARemovedSourceThatReturnsIsTheSameObject) {
  const std::string other = "[b]\ninput = udp\nport = 5001\n";
  Start(kUdp + other);
  m_fake.sources[0].statistics.nRxBytes = 99;
  const Source* const before = m_keeper.Sources()[0];
  Apply(other);
  Apply(other + kUdp);
  EXPECT_EQ(m_keeper.Sources()[1], before);
  EXPECT_EQ(m_keeper.Reports(false)[1].statistics.nRxBytes, 99U);
}

// --- Difference ----------------------------------------------------------------------------------------

std::string Refusal(const std::string& fresh, const std::string& running = "") {
  const auto read = [](const std::string& text) {
    return CheckedConfig{MakeConfig(ParseIni("[encoder]\n" + text + kUdp), "-"), {}};
  };
  try {
    Compare(read(running), read(fresh));
  } catch (const ConfigError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(Difference, NamesTheSettingThatCannotChange) {
  for (const char* key : {"library = x", "host_config = x", "output_dir = x", "stream_header = yes",
                          "extended_tags = no", "heights = optional", "format = json", "format = csv", "live = yes",
                          "stats_json = x", "messages = 1", "messages_each = 1", "queue = 1", "capabilities = ipv4",
                          "capabilities = ipv4, ipv6, cot", "rotate_size = 1000000", "rotate_time = 60"}) {
    const std::string text = key;
    EXPECT_THAT(Refusal(text + "\n"), HasSubstr("[encoder] " + text.substr(0, text.find(' ')) + " "));
    EXPECT_THAT(Refusal(text + "\n"), HasSubstr("cannot change while the program runs"));
  }
}

TEST(Difference, NamesTheSettingOfThePageThatCannotChange) {
  const std::string page = "http = 127.0.0.1:8080\n";
  const std::string tls = page + "http_cert = c.pem\nhttp_key = k.pem\n";
  EXPECT_THAT(Refusal(page), HasSubstr("[encoder] http cannot change"));
  EXPECT_THAT(Refusal("http = 127.0.0.1:8081\n", page), HasSubstr("[encoder] http cannot change"));
  EXPECT_THAT(Refusal("http = 127.0.0.2:8080\n", page), HasSubstr("[encoder] http cannot change"));
  for (const char* key : {"http_token = t", "http_host = a.test", "tiles = https://tiles.test/{z}/{x}/{y}.png"}) {
    const std::string text = key;
    EXPECT_THAT(Refusal(page + text + "\n", page),
                HasSubstr("[encoder] " + text.substr(0, text.find(' ')) + " cannot"));
  }
  EXPECT_THAT(Refusal(page + "http_cert = other.pem\nhttp_key = k.pem\n", tls),
              HasSubstr("[encoder] http_cert cannot"));
  EXPECT_THAT(Refusal(page + "http_cert = c.pem\nhttp_key = other.pem\n", tls), HasSubstr("[encoder] http_key cannot"));
  const std::string tiles = page + "tiles = https://tiles.test/{z}/{x}/{y}.png\n";
  EXPECT_THAT(Refusal(tiles + "tiles_attribution = who\n", tiles), HasSubstr("[encoder] tiles_attribution cannot"));
  EXPECT_EQ(Refusal(tls, tls), "accepted");
}

TEST(Difference, AStreamCannotChange) {
  const auto refusal = [](const std::string& running, const std::string& fresh) -> std::string {
    const auto read = [](const std::string& text) { return CheckedConfig{MakeConfig(ParseIni(kUdp + text), "-"), {}}; };
    try {
      Compare(read(running), read(fresh));
    } catch (const ConfigError& error) {
      return error.what();
    }
    return "accepted";
  };
  const std::string one = "[stream one]\nvideo = https://camera/v.ts\n";
  const std::string two = "[stream two]\nvideo = scene\n";
  EXPECT_EQ(refusal(one + two, one + two), "accepted");
  EXPECT_EQ(refusal(one, one + two), "[stream two] cannot change while the program runs; restart it");
  EXPECT_EQ(refusal(one + two, one), "[stream two] cannot change while the program runs; restart it");
  EXPECT_EQ(refusal(one, one + "tls_ca = ca.pem\n"), "[stream one] cannot change while the program runs; restart it");
}

TEST(Difference, TheRotationOfASourceCannotChange) {
  const auto refusal = [](const std::string& running, const std::string& fresh) -> std::string {
    const auto read = [](const std::string& text) { return CheckedConfig{MakeConfig(ParseIni(kUdp + text), "-"), {}}; };
    try {
      Compare(read("output = a%n.klv\n" + running), read("output = a%n.klv\n" + fresh));
    } catch (const ConfigError& error) {
      return error.what();
    }
    return "accepted";
  };
  const std::string both = "rotate_size = 1000000\nrotate_time = 60\n";
  EXPECT_EQ(refusal(both, both), "accepted");
  EXPECT_EQ(refusal(both, "rotate_size = 2000000\nrotate_time = 60\n"),
            "[a] rotate_size cannot change while the program runs; restart it");
  EXPECT_EQ(refusal(both, "rotate_size = 1000000\nrotate_time = 61\n"),
            "[a] rotate_time cannot change while the program runs; restart it");
}

TEST(Difference, EveryKeyOfASourceCounts) {
  const auto changed = [](const std::string& running, const std::string& fresh) {
    const auto read = [](const std::string& text) { return CheckedConfig{MakeConfig(ParseIni(text), "-"), {}}; };
    return Compare(read(running), read(fresh)).changed.size();
  };
  const std::string udp = kUdp;
  for (const char* key : {"relay1 = 192.0.2.1:7000", "relay1 = map.test:7000", "mission_id = M", "capture = yes"}) {
    EXPECT_EQ(changed(udp, udp + key + "\n"), 1U) << key;
    EXPECT_EQ(changed(udp + key + "\n", udp + key + "\n"), 0U) << key;
  }
  const std::string group = udp + "address = 239.1.1.1\n";
  EXPECT_EQ(changed(group, udp + "address = 239.1.1.1, 239.1.1.2\n"), 1U);
  EXPECT_EQ(changed(group, group + "sender = 192.0.2.1\n"), 1U);
  const std::string file = "[a]\nurl = a.pcap\n";
  EXPECT_EQ(changed(file, file + "speed = 2\n"), 1U);
  const std::string mesh = "[a]\ndata = cot\nurl = tak://239.2.3.1:6969\n";
  EXPECT_EQ(changed(mesh, mesh + "cot_aircraft = ME\n"), 1U);
  EXPECT_EQ(changed("[a]\nurl = srt://h:1\n", "[a]\nurl = srt://h:2\n"), 1U);
}

TEST(Difference, AllRowsOfCsvHaveTheSameItems) {
  EXPECT_EQ(Refusal("format = csv\nitems = 2, 13\n", "format = csv\n"),
            "[encoder] items cannot change while the program runs; restart it");
  EXPECT_EQ(Refusal("format = csv\ncolumns = 2\n", "format = csv\n"), "accepted") << "columns are those of the table";
}

TEST(Difference, AnotherTrackAndOtherEventsLeaveTheSourceOpen) {
  const auto compare = [](const std::string& before, const std::string& after, const std::string& encoder = "") {
    const auto read = [](const std::string& text) { return CheckedConfig{MakeConfig(ParseIni(text), "-"), {}}; };
    return Compare(read(kUdp + before), read(kUdp + after + encoder));
  };
  for (const char* keys : {"track = a.kml\n", "cot_out = udp://10.0.0.1:6969\n"}) {
    const ConfigDifference difference = compare("", keys);
    ASSERT_EQ(difference.redirected.size(), 1U) << keys;
    EXPECT_EQ(difference.unchanged.size(), 1U) << keys;
    EXPECT_FALSE(difference.isShownOtherwise);
    EXPECT_EQ(compare(keys, keys).redirected.size(), 0U) << keys;
    EXPECT_EQ(compare(keys, "").redirected.size(), 1U) << keys;
  }
  const std::string out = "cot_out = udp://10.0.0.1:6969\n";
  for (const char* key : {"cot_out_rate = 2\n", "cot_out_uid = A\n", "cot_out_type = a-n\n"}) {
    EXPECT_EQ(compare(out, out + key).redirected.size(), 1U) << key;
  }
  const std::string tls = "cot_out = tls://10.0.0.1:8089\n";
  EXPECT_EQ(compare(tls, tls + "tls_ca = x\n").redirected.size(), 1U);
  EXPECT_EQ(compare("", "", "[encoder]\ntrack_interval = 3\n").redirected.size(), 0U) << "there is no track";
  EXPECT_EQ(compare("track = a.kml\n", "track = a.kml\n", "[encoder]\ntrack_interval = 3\n").redirected.size(), 1U);
  EXPECT_EQ(compare("", "", "[encoder]\ntrack_dir = tracks\n").redirected.size(), 1U);
  EXPECT_TRUE(compare("", "", "[encoder]\ncolumns = 2, 13\n").isShownOtherwise);
  EXPECT_TRUE(compare("", "", "[encoder]\nwide = yes\n").isShownOtherwise);
}

TEST(Difference, AcceptsTheSettingsThatCan) {
  EXPECT_EQ(Refusal("log_level = 3\nlog_levels = HOST:4\nstatus_interval = 2\nstats_interval = 3\nstats_file = x\n"
                    "summary = y\nduration = 9\nretry = no\ncolumns = 2\nitems = 13\nwide = yes\ntrack_dir = t\n"
                    "track_format = kml\ntrack_interval = 5\n"),
            "accepted");
  EXPECT_EQ(Refusal("", "capabilities = ipv4, ipv6, cot\n"), "accepted") << "less is needed";
}

TEST(Difference, TheNumberOfASourceAloneIsNone) {
  const CheckedConfig before{MakeConfig(ParseIni(kUdp), "-"), {}};
  const CheckedConfig after{MakeConfig(ParseIni(std::string("[new]\ninput = udp\nport = 1\n") + kUdp), "-"), {}};
  const ConfigDifference difference = Compare(before, after);
  EXPECT_EQ(difference.added.size(), 1U);
  EXPECT_EQ(difference.unchanged.size(), 1U);
  EXPECT_THAT(difference.changed, IsEmpty());
}

TEST(Difference, TheOriginThatTheHostHasCounts) {
  CheckedConfig before{
      MakeConfig(ParseIni("[s]\ninput = serial\n[v]\ninput = video\n[w]\ninput = video\ninterface = 1\n"), "-"), {}};
  CheckedConfig after = before;
  after.host.captures[1].port = 5;
  after.host.serialDevices["/dev/ttyPS0"] = "/dev/ttyUSB0";
  const ConfigDifference difference = Compare(before, after);
  ASSERT_EQ(difference.changed.size(), 2U);
  EXPECT_EQ(difference.changed[0].name, "s");
  EXPECT_EQ(difference.changed[1].name, "w");
}

TEST(Difference, TheInterfaceOfGroupsThatTheHostHasCounts) {
  const CheckedConfig before{
      MakeConfig(ParseIni("[s]\ninput = serial\n[u]\ninput = udp\nport = 1\n[v]\ninput = video\n"), "-"), {}};
  CheckedConfig after = before;
  after.host.multicastInterface = "eth1";
  const ConfigDifference difference = Compare(before, after);
  ASSERT_EQ(difference.changed.size(), 2U);
  EXPECT_EQ(difference.changed[0].name, "u");
  EXPECT_EQ(difference.changed[1].name, "v");
}

TEST(Difference, ASourceOfAnotherKindOrFileIsAnotherOne) {
  const auto read = [](const std::string& text) { return CheckedConfig{MakeConfig(ParseIni(text), "-"), {}}; };
  const CheckedConfig before = read(kUdp);
  for (const char* fresh :
       {"[b]\ninput = udp\nport = 5000\n", "[a]\ninput = serial\n", "[a]\ninput = udp\nport = 5000\ndata = cot\n",
        "[a]\ninput = udp\nport = 5000\noutput = a.klv\n"}) {
    CheckedConfig after = read(fresh);
    after.config.encoder.capabilities = before.config.encoder.capabilities;
    const ConfigDifference difference = Compare(before, after);
    EXPECT_THAT(difference.removed, ElementsAre("a")) << fresh;
    EXPECT_EQ(difference.added.size(), 1U) << fresh;
    EXPECT_THAT(difference.changed, IsEmpty()) << fresh;
    EXPECT_THAT(difference.redirected, IsEmpty()) << fresh;
  }
}

// --- relays to names ---------------------------------------------------------------------------------

constexpr char kNamed[] = "[a]\ninput = udp\nport = 5000\nrelay1 = 192.0.2.9:7000\nrelay2 = map.test:7000\n";

// The addresses of a host, each of which is a number.
Resolution At(const std::vector<std::string>& addresses) {
  Resolution resolution;
  for (const std::string& address : addresses) {
    const Resolution one = Resolve(address, 7000, SOCK_DGRAM);
    resolution.addresses.insert(resolution.addresses.end(), one.addresses.begin(), one.addresses.end());
  }
  return resolution;
}

std::string RelayOf(const Opened& opened, size_t relay) {
  return DestinationText(opened.record.Relays[relay]);
}

TEST_F(KeeperTest, ARelayToANameIsOpenedWithItsFirstAddress) {
  m_answer = At({"192.0.2.1", "192.0.2.2"});
  Start(kNamed);
  EXPECT_THAT(Calls(), ElementsAre("ask map.test:7000", "open 1"));
  EXPECT_EQ(RelayOf(m_fake.sources.back(), 0), "192.0.2.9:7000");
  EXPECT_EQ(RelayOf(m_fake.sources.back(), 1), "192.0.2.1:7000");
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(KeeperTest, ASourceWaitsForTheAddressOfARelay) {
  Start(kNamed);
  Pass(1900ms);
  EXPECT_THAT(Calls(), ElementsAre("ask map.test:7000"));
  EXPECT_THAT(Lines(), IsEmpty()) << "an answer takes some time";
  Pass(1s);
  EXPECT_THAT(Lines(), ElementsAre("4 source a waits: the address of map.test is being looked up"));
  m_answer = Resolution{{}, "the address of map.test cannot be found: no such name"};
  Pass(100s);
  EXPECT_THAT(Lines(), ElementsAre("4 source a waits: the address of map.test cannot be found: no such name"));
  const size_t asked = Calls().size();
  EXPECT_GE(asked, 3U);
  EXPECT_LE(asked, 6U) << "less and less often";
  m_answer = At({"192.0.2.1"});
  Pass(31s);
  EXPECT_THAT(Calls(), ElementsAre("ask map.test:7000", "open 1"));
  EXPECT_THAT(Lines(), ElementsAre(HasSubstr("5 source a is open after")));
}

TEST_F(KeeperTest, AnAnswerIsTakenSoonAfterItHasCome) {
  Start(kNamed);
  Pass(500ms);
  m_answer = At({"192.0.2.1"});
  Pass(50ms);
  EXPECT_THAT(Calls(), ElementsAre("ask map.test:7000", "open 1"));
}

TEST_F(KeeperTest, ASourceThatMustNotWaitWaitsForTheAnswerOnce) {
  m_lateAnswer = At({"192.0.2.1"});
  Start(std::string(kNamed) + "retry = no\n");
  EXPECT_THAT(Calls(), ElementsAre("ask map.test:7000", "open 1"));
  m_fake.sources.back().statistics.Relays[1].nRelayErrors = 5;
  Pass(100s);
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(KeeperTest, ASourceThatMustNotWaitFailsWithoutAnAnswer) {
  const Config config = Read(std::string(kNamed) + "retry = no\n");
  m_keeper.Add(config.sources[0], config.encoder.capabilities);
  EXPECT_NE(m_keeper.OpenAll(m_now), nullptr);
  EXPECT_THAT(Calls(), ElementsAre("ask map.test:7000"));
  EXPECT_THAT(Lines(), ElementsAre("4 source a waits: the address of map.test is being looked up"));
}

TEST_F(KeeperTest, ANameIsAskedForAgainOnlyWhenSendingToItFails) {
  m_answer = At({"192.0.2.1"});
  Start(kNamed);
  Calls();
  Pass(100s);
  EXPECT_THAT(Calls(), IsEmpty());
  m_answer = At({"192.0.2.7", "192.0.2.1"});
  m_fake.sources.back().statistics.Relays[0].nRelayErrors = 3;
  Pass(100s);
  EXPECT_THAT(Calls(), IsEmpty()) << "the other relay";
  m_fake.sources.back().statistics.Relays[1] = {70, 7, 1, ECONNREFUSED, 24};
  Pass(2s);
  EXPECT_THAT(Calls(), ElementsAre("ask map.test:7000")) << "the address is still the host's";
  m_answer = At({"192.0.2.7"});
  Pass(100s);
  EXPECT_THAT(Calls(), IsEmpty());
  ++m_fake.sources.back().statistics.Relays[1].nRelayErrors;
  Pass(2s);
  EXPECT_THAT(Calls(), ElementsAre("ask map.test:7000", "close 1", "open 1"));
  EXPECT_EQ(RelayOf(m_fake.sources.back(), 1), "192.0.2.7:7000");
  EXPECT_EQ(m_fake.sources.back().statistics.Relays[1].nRelayedMessages, 7U) << "counts go on";
  EXPECT_THAT(Lines(), ElementsAre("5 source a relays to map.test:7000 at 192.0.2.7 from now on"));
  Pass(100s);
  EXPECT_THAT(Calls(), IsEmpty()) << "the errors of before do not count";
}

TEST_F(KeeperTest, ARelayThatFollowsTakesAnAddressOfIPv4) {
  m_answer = At({"2001:db8::1", "192.0.2.1"});
  Start(std::string(kNamed) + "relay3 = map.test:7001 ttl=follow\n");
  EXPECT_EQ(RelayOf(m_fake.sources.back(), 1), "[2001:db8::1]:7000");
  EXPECT_EQ(RelayOf(m_fake.sources.back(), 2), "192.0.2.1:7001");
}

TEST_F(KeeperTest, ARelayThatFollowsDoesWithoutNoAddressOfIPv4) {
  m_answer = At({"2001:db8::1"});
  Start("[a]\ninput = udp\nport = 5000\nrelay1 = map.test:7001 ttl=follow\n");
  EXPECT_THAT(Lines(), ElementsAre("4 source a waits: map.test has no address of IPv4, as a relay that follows needs"));
}

TEST_F(KeeperTest, ANameThatLeadsBackIsNotRelayedTo) {
  m_answer = At({"127.0.0.1"});
  Start(
      "[a]\ninput = udp\nport = 5000\nrelay1 = map.test:5001\n[b]\ninput = udp\nport = 5001\nrelay1 = map.test:5000\n");
  EXPECT_THAT(Calls(), ElementsAre("ask map.test:5001", "open 1", "ask map.test:5000"));
  EXPECT_THAT(Lines(),
              ElementsAre(HasSubstr("4 source b waits: [a] relay1 must be a destination that does not lead back to "
                                    "its source, not \"map.test:5001\"")));
  m_answer = At({"192.0.2.1"});
  Pass(10s);
  EXPECT_THAT(Calls(), ElementsAre("ask map.test:5000", "open 2"));
}

TEST(Difference, TheNameOfARelayCounts) {
  const CheckedConfig before{MakeConfig(ParseIni(kNamed), "-"), {}};
  EXPECT_EQ(Compare(before, before).unchanged.size(), 1U);
  std::string text = kNamed;
  text.replace(text.find("map.test"), 8, "new.test");
  EXPECT_EQ(Compare(before, {MakeConfig(ParseIni(text), "-"), {}}).changed.size(), 1U);
}

// --- sources with a url ------------------------------------------------------------------------------

constexpr char kCam[] = "[cam]\nurl = srt://camera:9000\n";

TEST_F(KeeperTest, AStreamIsSetBeforeItsInputIsOpened) {
  Start(std::string("[sdi]\ninput = video\n") + kCam);
  EXPECT_THAT(Calls(), ElementsAre("open 1", "set 1 srt://camera:9000", "open 2"));
  EXPECT_EQ(m_fake.sources.back().record.in.Video.enInputInterface, 1);
}

TEST_F(KeeperTest, WhatAStreamLacksIsSaidOnce) {
  Start(kCam);
  m_states[0].fault = "cannot open srt://camera:9000: Connection refused";
  Pass(20s);
  EXPECT_THAT(Lines(), ElementsAre("4 source cam waits: cannot open srt://camera:9000: Connection refused"));
  EXPECT_EQ(m_keeper.Reports(false)[0].state, std::string("cut off"));
  m_states[0].fault.clear();
  Pass(1s);
  EXPECT_THAT(Lines(), ElementsAre("5 source cam is open after 20 s"));
  EXPECT_EQ(m_keeper.Reports(false)[0].state, std::string("open"));
  EXPECT_THAT(Calls(), ElementsAre("set 0 srt://camera:9000", "open 1")) << "the host tries again itself";
}

TEST_F(KeeperTest, AReloadKeepsTheInputOfAStreamThatStays) {
  Start(std::string("[old]\nurl = old.ts\n") + kCam);
  Calls();
  Apply(std::string(kCam) + "[new]\nurl = new.ts\n");
  EXPECT_THAT(Calls(), ElementsAre("close 1", "between", "set 0 new.ts", "open 2")) << "input 1 is still the camera's";
  Apply(std::string("[sdi]\ninput = video\ninterface = 1\n") + kCam);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(KeeperTest, AnotherUrlOpensTheSourceAgain) {
  Start(kCam);
  Calls();
  Apply("[cam]\nurl = srt://camera:9001\n");
  EXPECT_THAT(Calls(), ElementsAre("close 1", "between", "set 0 srt://camera:9001", "open 1"));
}

TEST_F(KeeperTest, EverythingIsPlayedWhenEveryFileIs) {
  Start("[a]\nurl = a.ts\n[b]\nurl = b.ts\n");
  EXPECT_FALSE(m_keeper.AllPlayed());
  m_states[0].phase = HostCaptureState::Phase::Ended;
  EXPECT_FALSE(m_keeper.AllPlayed());
  m_states[1].phase = HostCaptureState::Phase::Ended;
  EXPECT_TRUE(m_keeper.AllPlayed());
  Apply("[a]\nurl = a.ts\n[c]\ninput = udp\nport = 5000\n");
  EXPECT_FALSE(m_keeper.AllPlayed());
}

TEST_F(KeeperTest, OnlyFilesReplaysAndWhatIsFedWaitForRoom) {
  Start(
      "[file]\nurl = a.ts\n[sdp]\nurl = a.sdp\n[live]\nurl = srt://camera:9000\n[more]\nurl = b.ts\n"
      "[fed]\nurl = c.ts\n[net]\ninput = udp\nport = 5000\n");
  const auto waiting = [this] {
    std::vector<std::string> names;
    for (const Source* source : m_keeper.Sources()) {
      if (source->WaitsForRoom()) names.push_back(source->Name());
    }
    return names;
  };
  EXPECT_THAT(waiting(), ElementsAre("file", "more", "fed"));
  Apply(
      "[file]\nurl = srt://camera:9001\n[sdp]\nurl = a.sdp\n[live]\nurl = l.ts\n[more]\nurl = b.ts\n"
      "[fed]\nurl = c.ts\n[net]\ninput = udp\nport = 5000\n");
  EXPECT_THAT(waiting(), ElementsAre("live", "more", "fed"));
  m_keeper.CloseAll();
  HostRuntimeConfig host;
  host.captures[0].kind = HostCaptureConfig::Kind::Media;
  host.captures[0].path = "d.klv";
  host.captures[1].kind = HostCaptureConfig::Kind::Anc;
  const auto own = Read("[own]\ninput = video\n[anc]\ninput = video\ninterface = 1\n").sources;
  ConfigDifference difference;
  difference.added = own;
  for (const SourceSettings& source : own) m_keeper.Add(source, 0);
  m_keeper.Apply(
      difference, host, [] {}, m_now);
  EXPECT_THAT(waiting(), ElementsAre("live", "more", "fed", "own"));
}

// --- sources whose url has no video input ------------------------------------------------------------

constexpr char kFour[] =
    "[a]\ninput = video\n[b]\ninput = video\ninterface = 1\n[c]\ninput = video\ninterface = 2\n"
    "[d]\ninput = video\ninterface = 3\n";

TEST_F(KeeperTest, AStreamWithoutAVideoInputIsFedToASourceOfDatagrams) {
  Start(std::string(kFour) + kCam);
  EXPECT_THAT(Calls(), ElementsAre("open 1", "open 2", "open 3", "open 4", "stream cam srt://camera:9000", "open 5"));
  const MDATA_SRC_CFG& record = m_fake.sources.back().record;
  EXPECT_EQ(record.enInputType, MDATA_INPUT_NETWORK);
  EXPECT_EQ(record.in.Network.acSrcAddress[0], 127);
  EXPECT_NE(record.in.Network.usUDPPort, 0);
  const Report report = m_keeper.Reports(false).back();
  ASSERT_TRUE(report.capture);
  EXPECT_EQ(report.capture->oversized, 7U);
  m_keeper.CloseAll();
  EXPECT_EQ(m_keeper.Reports(true).back().capture->oversized, 7U) << "its counts outlive it";
}

TEST_F(KeeperTest, WhatAFedStreamLacksIsSaidOnce) {
  Start(std::string(kFour) + kCam);
  m_fed.fault = "cannot open srt://camera:9000: Connection refused";
  Pass(20s);
  EXPECT_THAT(Lines(), ElementsAre("4 source cam waits: cannot open srt://camera:9000: Connection refused"));
  EXPECT_EQ(m_keeper.Reports(false).back().state, std::string("cut off"));
  m_fed.fault.clear();
  Pass(1s);
  EXPECT_THAT(Lines(), ElementsAre("5 source cam is open after 20 s"));
}

TEST_F(KeeperTest, AFedStreamThatCannotBeOpenedIsTriedLessAndLessOften) {
  m_refusesStreams = true;
  Start(std::string(kFour) + kCam);
  Calls();
  Pass(61s);
  EXPECT_THAT(Calls(), testing::SizeIs(5)) << "after 2, 4, 8, 16 and 30 seconds";
  EXPECT_THAT(Lines(), ElementsAre("4 source cam waits: its url cannot be opened; the log tells why"));
  m_refusesStreams = false;
  Pass(30s);
  EXPECT_THAT(Lines(), ElementsAre(HasSubstr("5 source cam is open after ")));
}

TEST_F(KeeperTest, AFedFileIsPlayedWhenItsStreamHasEnded) {
  Start(std::string("[a]\nurl = a.ts\n[b]\nurl = b.ts\n[c]\nurl = c.ts\n[d]\nurl = d.ts\n[e]\nurl = e.ts\n"));
  for (HostCaptureState& state : m_states) state.phase = HostCaptureState::Phase::Ended;
  EXPECT_FALSE(m_keeper.AllPlayed());
  m_fed.phase = HostCaptureState::Phase::Ended;
  EXPECT_TRUE(m_keeper.AllPlayed());
}

TEST_F(KeeperTest, AReloadLetsAFedStreamRun) {
  Start(std::string(kFour) + kCam);
  Calls();
  Apply(std::string("[b]\ninput = video\ninterface = 1\n") + kCam + "[file]\nurl = file.ts\n");
  EXPECT_THAT(Calls(), ElementsAre("close 1", "close 3", "close 4", "between", "set 0 file.ts", "open 3"));
  Apply("[b]\ninput = video\ninterface = 1\n[cam]\nurl = srt://camera:9001\n");
  EXPECT_THAT(Calls(), ElementsAre("close 3", "close 5", "between", "stream cam srt://camera:9001", "open 2"));
}

}  // namespace
}  // namespace mdencoder::keeper_test
