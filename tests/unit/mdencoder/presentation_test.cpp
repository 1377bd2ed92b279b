// SPDX-License-Identifier: Apache-2.0
// The table that fits the terminal, CSV, and the choice of columns and items.
#include "presentation.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "csv.h"
#include "table.h"

namespace mdencoder::presentation_test {
namespace {

using st0601::Builder;
using st0601::Bytes;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

class PresentationTest : public testing::Test {
 protected:
  PresentationTest() {
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void Use(const Bytes& message) {
    m_buffer = {0, 17, 0xDF, 0, 0};
    m_buffer.insert(m_buffer.end(), message.begin(), message.end());
    m_received.name = "aircraft";
    m_received.timeUs = 1714558830123456;
    m_received.sequence = 17;
    m_received.buffer = m_buffer;
  }
  Presentation Make(size_t width = 120) {
    m_width = width;
    return MakePresentation(m_settings, 8, [this] { return m_width; });
  }
  std::string Row(size_t width = 120) { return Make(width).render(m_received); }
  static std::vector<std::string> Lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
  }

  PresentationSettings m_settings;
  Bytes m_buffer;
  Received m_received;
  size_t m_width = 120;
};

Bytes Sample() {
  return Builder()
      .AddWhole(2, 1224807209913000)
      .AddText(3, "Mission, \"12\"")
      .Add(5, 90.0)
      .Add(13, 60.1768229669783)
      .Add(14, -128.426759)
      .Add(15, 1500.0)
      .Add(21, 4000.0)
      .Add(23, 60.2)
      .Add(24, -128.5)
      .Finish();
}

TEST_F(PresentationTest, TableHasTheUsualColumnsThatFit) {
  Use(Sample());
  const Presentation table = Make(120);
  EXPECT_EQ(table.header,
            "ARRIVAL      SOURCE   SEQ CHECKSUM  TIME         SENSOR LAT  SENSOR LON SENSOR ALT HEADING  FRAME LAT   "
            "FRAME LON\n"
            "                                                        deg         deg          m     deg        deg   "
            "      deg");
  EXPECT_EQ(table.render(m_received),
            "10:20:30.123 aircraft  17 ok        00:13:29.913  60.176823 -128.426759     1500.1  90.001  60.200000 "
            "-128.500000");
}

TEST_F(PresentationTest, NoLineIsWiderThanTheTerminal) {
  Bytes cut = Builder().AddText(3, std::string(100, 'x')).Finish();
  cut.pop_back();
  for (const Bytes& message : {Sample(), Bytes(100, 7), cut}) {
    Use(message);
    for (size_t width = 20; width < 250; ++width) {
      const Presentation table = Make(width);
      for (const std::string& line : Lines(table.header + "\n" + table.render(m_received))) {
        EXPECT_LE(line.size(), width) << line;
      }
    }
  }
}

TEST_F(PresentationTest, ResizedTerminalsGetTheHeaderAgain) {
  Use(Sample());
  const Presentation table = Make(120);
  EXPECT_THAT(Lines(table.render(m_received)), SizeIs(1));
  m_width = 60;
  const auto lines = Lines(table.render(m_received));
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_EQ(lines[0], "ARRIVAL      SOURCE   SEQ CHECKSUM  TIME         SENSOR LAT");
  EXPECT_EQ(lines[2], "10:20:30.123 aircraft  17 ok        00:13:29.913  60.176823");
  EXPECT_THAT(Lines(table.render(m_received)), SizeIs(1));
}

TEST_F(PresentationTest, ChosenColumnsComeInTheirOrder) {
  Use(Sample());
  m_settings.columns = *ParseColumns("length, mission_id, 5, 13-15");
  const auto lines = Lines(Make(120).header + "\n" + Row(120));
  EXPECT_EQ(lines[0], "LENGTH MISSION ID       HEADING SENSOR LAT  SENSOR LON SENSOR ALT");
  EXPECT_EQ(lines[2],
            "    " + std::to_string(Sample().size()) + " Mission, \"12\"     90.001  60.176823 -128.426759     1500.1");
}

TEST_F(PresentationTest, NumbersStandOnTheRightAndTextOnTheLeft) {
  Use(Builder().AddWhole(39, -5).AddWhole(136, 37).AddText(3, "x").Finish());
  m_settings.columns = *ParseColumns("136, 39, mission_id");
  const auto lines = Lines(Make(120).header + "\n" + Row(120));
  EXPECT_EQ(lines[0], "LEAP SECONDS AIR TEMPERATURE MISSION ID");
  EXPECT_EQ(lines[1], "           s            degC");
  EXPECT_EQ(lines[2], "          37              -5 x");
}

TEST_F(PresentationTest, AColumnThatFitsExactlyIsShown) {
  Use(Sample());
  m_settings.columns = *ParseColumns("length, sequence");
  EXPECT_EQ(Lines(Make(10).header)[0], "LENGTH SEQ");
  EXPECT_EQ(Lines(Make(9).header)[0], "LENGTH");
  EXPECT_EQ(Lines(Make(5).header)[0], "LENGTH") << "one is always shown";
  m_settings.columns = *ParseColumns("security, sequence");
  EXPECT_EQ(Lines(Make().header)[0], "SECURITY" + std::string(32, ' ') + " SEQ")
      << "the set is a text of 40 characters";
}

TEST_F(PresentationTest, WideTableIsNotCut) {
  Use(Sample());
  m_settings.isWide = true;
  EXPECT_THAT(Row(40), HasSubstr(" mission_id=Mission, \"12\" heading=90.001 deg"));
  m_settings.columns = *ParseColumns("all");
  EXPECT_GT(Lines(Make(40).header)[0].size(), 1000u);
}

TEST_F(PresentationTest, LongTextIsCutAndSaysSo) {
  Use(Builder().AddText(3, "12345678901234567890").Finish());
  m_settings.columns = *ParseColumns("mission_id");
  EXPECT_EQ(Row(), "123456789012345~");
  Use(Builder().AddText(3, "\xC3\xA9\xC3\xA9\xC3\xA9 \x1B[2J\n").Finish());
  EXPECT_EQ(Row(), "\xC3\xA9\xC3\xA9\xC3\xA9 \\x1B[2J\\n") << "characters are counted, controls are escaped";
}

TEST_F(PresentationTest, OtherMessagesSayWhatTheyAre) {
  Use(Bytes{1, 2, 3});
  EXPECT_EQ(Row(), "10:20:30.123 aircraft  17 - not ST 0601: 010203");
  m_settings.format = Format::Csv;
  m_settings.items = *ParseItems("time");
  EXPECT_EQ(Row(), "2024-05-01T10:20:30.123456Z,aircraft,17,3,not ST 0601,\r");
}

TEST_F(PresentationTest, CsvQuotesWhatRfc4180Names) {
  Use(Sample());
  m_settings.format = Format::Csv;
  m_settings.items = *ParseItems("mission_id, time, sensor_lat, roll");
  EXPECT_EQ(Make().header, "arrival,source,sequence,length,state,mission_id,time,sensor_lat,roll\r");
  EXPECT_EQ(Row(), "2024-05-01T10:20:30.123456Z,aircraft,17," + std::to_string(Sample().size()) +
                       ",ok,\"Mission, \"\"12\"\"\",2008-10-24T00:13:29.913000Z,60.17682297,\r");
}

TEST_F(PresentationTest, CsvLeavesTheCellOfAValueOutOfRangeEmpty) {
  Use(Builder().Add(13, 1000.0).Add(14, 7.0).Finish());
  m_settings.format = Format::Csv;
  m_settings.items = *ParseItems("sensor_lat,sensor_lon");
  EXPECT_THAT(Row(), HasSubstr(",ok,,7.0"));
}

TEST_F(PresentationTest, CsvHoldsNoFormulas) {
  EXPECT_EQ(CsvText("=1+1"), "'=1+1");
  EXPECT_EQ(CsvText("@SUM(A1,\"x\")"), "\"'@SUM(A1,\"\"x\"\")\"");
  EXPECT_EQ(CsvText("a=b"), "a=b");
  EXPECT_EQ(CsvText("-1"), "'-1");
  Use(Builder().AddText(3, "=cmd|' /C calc'!A0\r\n").Add(7, -3.0).Finish());
  m_settings.format = Format::Csv;
  m_settings.items = *ParseItems("mission_id,roll");
  EXPECT_THAT(Row(), HasSubstr(",'=cmd|' /C calc'!A0\\r\\n,-3.0"));
}

TEST_F(PresentationTest, JsonHasTheChosenItemsOnly) {
  Use(Sample());
  m_settings.format = Format::Json;
  EXPECT_EQ(nlohmann::json::parse(Row())["items"].size(), 10u);
  m_settings.items = *ParseItems("13-14");
  const auto json = nlohmann::json::parse(Row());
  ASSERT_EQ(json["items"].size(), 2u);
  EXPECT_EQ(json["items"][1]["key"], "sensor_lon");
  EXPECT_EQ(json["checksum"], "ok") << "it belongs to the message";
}

TEST_F(PresentationTest, ListsNameEveryItemAndNothingElse) {
  for (const st0601::Item& item : st0601::Items()) {
    EXPECT_THAT(*ParseItems(item.key), ElementsAre(&item));
    EXPECT_THAT(*ParseItems(std::to_string(item.tag)), ElementsAre(&item));
  }
  EXPECT_THAT(*ParseItems("all"), SizeIs(143));
  EXPECT_THAT(*ParseItems("13, sensor_lat, 13-13"), SizeIs(1)) << "each once";
  for (const char* wrong : {"", ",", "144", "0", "15-13", "nothing", "5-", "-5", "arrival"}) {
    EXPECT_FALSE(ParseItems(wrong)) << wrong;
  }
  EXPECT_THAT(*ParseColumns("arrival, source,sequence,length,checksum"), Each(testing::Field(&Column::item, nullptr)));
  EXPECT_FALSE(ParseColumns("arrivals"));
  EXPECT_THAT(UsualColumns(), SizeIs(12));
  EXPECT_THAT(UsualItems(), SizeIs(24));
}

TEST_F(PresentationTest, WidthIsThatOfTheEnvironmentOrOfNoTerminal) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  unsetenv("COLUMNS");
  EXPECT_EQ(OutputWidth(ends[1]), 120u);
  setenv("COLUMNS", "77", 1);
  EXPECT_EQ(OutputWidth(ends[1]), 77u);
  setenv("COLUMNS", "wide", 1);
  EXPECT_EQ(OutputWidth(ends[1]), 120u);
  unsetenv("COLUMNS");
  close(ends[0]);
  close(ends[1]);
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(terminal, 0);
  EXPECT_EQ(OutputWidth(terminal), 120u) << "it does not know its size";
  winsize size{};
  size.ws_col = 91;
  ASSERT_EQ(ioctl(terminal, TIOCSWINSZ, &size), 0);
  EXPECT_EQ(OutputWidth(terminal), 91u);
  close(terminal);
}

}  // namespace
}  // namespace mdencoder::presentation_test
