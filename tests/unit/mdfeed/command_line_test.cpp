// SPDX-License-Identifier: Apache-2.0
#include "command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace mdfeed {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class CommandLine : public testing::Test {
 protected:
  std::optional<Answer> Parse(std::vector<const char*> words) {
    words.insert(words.begin(), "mdfeed");
    return ParseCommandLine(static_cast<int>(words.size()), words.data(), m_args);
  }
  void ExpectMistake(std::vector<const char*> words, const std::string& text) {
    m_args = {};
    const auto answer = Parse(std::move(words));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->exitCode, 2);
    EXPECT_THAT(answer->text, StartsWith("mdfeed: "));
    EXPECT_THAT(answer->text, HasSubstr(text));
    EXPECT_EQ(std::count(answer->text.begin(), answer->text.end(), '\n'), 1);
  }

  Arguments m_args;
};

TEST_F(CommandLine, ReadsASimulatedFlightOverUdp) {
  ASSERT_FALSE(Parse({"klv", "--simulate", "--udp", "239.1.2.3:5000", "--rate", "25", "--duration", "2.5", "--ttl",
                      "32,64@2s", "--tos", "0x28", "--seed", "7"}));
  EXPECT_EQ(m_args.command, Command::Klv);
  EXPECT_TRUE(m_args.simulate);
  ASSERT_TRUE(m_args.udp);
  EXPECT_EQ(m_args.udp->host, "239.1.2.3");
  EXPECT_EQ(m_args.udp->port, "5000");
  EXPECT_EQ(m_args.send.rate, 25.0);
  EXPECT_EQ(m_args.send.duration, 2.5);
  ASSERT_EQ(m_args.send.ttl.Entries().size(), 2u);
  EXPECT_EQ(m_args.send.ttl.Entries()[1].after, std::chrono::seconds(2));
  EXPECT_EQ(m_args.send.ttl.Entries()[1].value, 64);
  EXPECT_EQ(m_args.send.tos.Entries()[0].value, 0x28);
  EXPECT_EQ(m_args.cot.seed, 7u);
}

TEST_F(CommandLine, ReadsAFileInChunksOverAPty) {
  ASSERT_FALSE(Parse({"klv", "--file", "flight.klv", "--chunk", "48", "--repeat", "0", "--pty", "line"}));
  EXPECT_EQ(m_args.file, "flight.klv");
  EXPECT_EQ(m_args.chunk, 48u);
  EXPECT_EQ(m_args.repeat, 0u);
  EXPECT_EQ(m_args.pty, "line");
}

TEST_F(CommandLine, AnIndexGoesWithItsFileAndWholeMessages) {
  ASSERT_FALSE(Parse({"klv", "--file", "a.klv", "--index", "a.klv.json", "--udp", "127.0.0.1:5000"}));
  EXPECT_EQ(m_args.index, "a.klv.json");
  EXPECT_EQ(Parse({"klv", "--simulate", "--index", "a.klv.json", "--udp", "127.0.0.1:5000"})->exitCode, 2);
  EXPECT_EQ(Parse({"klv", "--file", "a", "--index", "b", "--chunk", "48", "--udp", "127.0.0.1:5000"})->exitCode, 2);
}

TEST_F(CommandLine, ReadsDamagedSerialEvents) {
  ASSERT_FALSE(Parse({"cot", "--simulate", "--serial", "ttyS0", "--baud", "9600", "--damage", "crc:20", "--damage",
                      "length1", "--sensors", "3", "--jitter", "50"}));
  EXPECT_EQ(m_args.command, Command::Cot);
  EXPECT_EQ(m_args.serial, "ttyS0");
  ASSERT_EQ(m_args.damage.size(), 2u);
  EXPECT_EQ(m_args.damage[0].field, FrameField::Crc);
  EXPECT_EQ(m_args.damage[0].percent, 20.0);
  EXPECT_EQ(m_args.damage[1].field, FrameField::Length1);
  EXPECT_EQ(m_args.damage[1].percent, 100.0);
  EXPECT_EQ(m_args.cot.sensors, 3);
  EXPECT_EQ(m_args.cot.jitterMs, 50);
}

TEST_F(CommandLine, ReadsAnAncillaryStreamAndATransportStream) {
  ASSERT_FALSE(Parse({"anc", "--simulate", "--udp", "127.0.0.1:5004", "--loss", "3", "--reorder", "4", "--bad-checksum",
                      "5", "--payload-type", "100"}));
  EXPECT_EQ(m_args.command, Command::Anc);
  EXPECT_EQ(m_args.anc.loss, 3.0);
  EXPECT_EQ(m_args.anc.reorder, 4.0);
  EXPECT_EQ(m_args.anc.badChecksum, 5.0);
  EXPECT_EQ(m_args.anc.payloadType, 100);
  m_args = {};
  ASSERT_FALSE(Parse({"ts", "--output", "flight.ts", "--duration", "3", "--rate", "25", "--messages", "2"}));
  EXPECT_EQ(m_args.command, Command::Ts);
  EXPECT_EQ(m_args.ts.output, "flight.ts");
  EXPECT_EQ(m_args.ts.duration, 3.0);
  EXPECT_EQ(m_args.ts.rate, 25.0);
  EXPECT_EQ(m_args.ts.messagesPerTime, 2);
}

TEST_F(CommandLine, HelpAndVersionEndWell) {
  const auto help = Parse({"--help"});
  ASSERT_TRUE(help);
  EXPECT_EQ(help->exitCode, 0);
  EXPECT_THAT(help->text, HasSubstr("klv"));
  const auto klv = Parse({"klv", "--help"});
  ASSERT_TRUE(klv);
  EXPECT_EQ(klv->exitCode, 0);
  EXPECT_THAT(klv->text, HasSubstr("--chunk"));
  const auto version = Parse({"--version"});
  ASSERT_TRUE(version);
  EXPECT_EQ(version->exitCode, 0);
}

TEST_F(CommandLine, MistakesNameTheOptionAndWhatIsAllowed) {
  ExpectMistake({}, "subcommand");
  ExpectMistake({"klv", "--simulate"}, "[--udp,--serial,--pty]");
  ExpectMistake({"klv", "--udp", "127.0.0.1:1"}, "one of --file and --simulate");
  ExpectMistake({"klv", "--simulate", "--file", "x", "--udp", "h:1"}, "--file excludes --simulate");
  ExpectMistake({"klv", "--simulate", "--udp", "h:1", "--serial", "x"}, "[--udp,--serial,--pty]");
  ExpectMistake({"klv", "--simulate", "--udp", "h:70000"}, "--udp: 'h:70000' is not HOST:PORT");
  ExpectMistake({"klv", "--simulate", "--udp", "::1:70"}, "[address]:port");
  ExpectMistake({"klv", "--simulate", "--udp", "h:1", "--ttl", "0"}, "--ttl: '0' is not a number from 1 to 255");
  ExpectMistake({"klv", "--simulate", "--udp", "h:1", "--tos", "1,2"}, "--tos: '2' needs a later time");
  ExpectMistake({"klv", "--simulate", "--udp", "h:1", "--tos", "1,2@x"}, "'x' is not a time in seconds");
  ExpectMistake({"klv", "--simulate", "--udp", "h:1", "--rate", "-1"}, "--rate");
  ExpectMistake({"klv", "--simulate", "--udp", "h:1", "--start", "today"}, "--start: 'today' is no time");
  ExpectMistake({"klv", "--simulate", "--serial", "x", "--baud", "1"}, "--baud: 1 is not one of 1200, 2400");
  ExpectMistake({"cot", "--simulate", "--serial", "x", "--damage", "nose"}, "--damage: 'nose' is not one of sync, len");
  ExpectMistake({"cot", "--simulate", "--serial", "x", "--damage", "crc:101"}, "'101' is not a percentage");
  ExpectMistake({"cot", "--simulate", "--serial", "x", "--damage", "crc:x"}, "'x' is not a percentage from 0 to 100");
  ExpectMistake({"anc", "--simulate"}, "--udp is required");
  ExpectMistake({"anc", "--udp", "h:1"}, "one of --file and --simulate");
  ExpectMistake({"ts"}, "--output is required");
  ExpectMistake({"ts", "--output", "x", "--rate", "26"}, "--rate");
  ExpectMistake({"cot", "--simulate", "--udp", "h:1", "--damage", "crc"}, "only frames of a serial line");
}

TEST(UdpAddressText, TakesNamesAndBothFamilies) {
  EXPECT_EQ(ParseUdpAddress("localhost:80").host, "localhost");
  EXPECT_EQ(ParseUdpAddress("[ff02::1%eth0]:5001").host, "ff02::1%eth0");
  EXPECT_EQ(ParseUdpAddress("[::1]:65535").port, "65535");
  for (const char* bad : {"", ":", "h", "h:", ":1", "h:0", "h:1x", "h:0x50", "h:-1", "[]:1", "1:2:3:4"}) {
    EXPECT_THROW(ParseUdpAddress(bad), std::invalid_argument) << bad;
  }
}

TEST(ScheduleText, GivesEachValueOnceWhenItIsDue) {
  using std::chrono::milliseconds;
  Schedule schedule = Schedule::Parse("5@0.5,0x10@2s", 0, 255);
  EXPECT_FALSE(schedule.PopDue(milliseconds(499)));
  EXPECT_EQ(schedule.PopDue(milliseconds(500)), 5);
  EXPECT_FALSE(schedule.PopDue(milliseconds(1'999)));
  EXPECT_EQ(schedule.PopDue(milliseconds(9'000)), 16);
  EXPECT_FALSE(schedule.PopDue(milliseconds(9'999)));
}

TEST(ScheduleText, OfTwoValuesDueTogetherTheLaterOneCounts) {
  Schedule schedule = Schedule::Parse("1,2@1,3@2", 0, 255);
  EXPECT_EQ(schedule.PopDue(std::chrono::seconds(5)), 3);
}

}  // namespace
}  // namespace mdfeed
