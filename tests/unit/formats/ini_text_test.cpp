// SPDX-License-Identifier: Apache-2.0
#include "ini_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace ini {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// "line section/key=value" of each entry.
std::vector<std::string> Entries(const Contents& contents) {
  std::vector<std::string> texts;
  for (const Entry& entry : contents.entries) {
    texts.push_back(std::to_string(entry.line) + " " + entry.section + "/" + entry.key + "=" + entry.value);
  }
  return texts;
}

// "line: text", or nothing without a fault.
std::string FaultOf(const std::optional<Fault>& fault) {
  return fault ? std::to_string(fault->line) + ": " + fault->text : "";
}

TEST(ParseIni, GivesEveryKeyWithItsSectionAndLine) {
  const Contents contents = Parse(
      "; a comment\n"
      "before = 1\n"
      "[one]\n"
      "# another comment\n"
      "  \n"
      "a = first value  ; a comment behind it\n"
      "b=2;3\r\n"
      "[two]\n"
      "a =");
  EXPECT_THAT(Entries(contents), ElementsAre("2 /before=1", "6 one/a=first value", "7 one/b=2;3", "9 two/a="));
  EXPECT_EQ(FaultOf(contents.fault), "");
}

TEST(ParseIni, GivesNothingOfAnEmptyText) {
  EXPECT_THAT(Parse("").entries, IsEmpty());
  EXPECT_EQ(FaultOf(Parse("").fault), "");
}

TEST(ParseIni, GivesARepeatedKeyAndAnIndentedLineAsFurtherEntries) {
  EXPECT_THAT(Entries(Parse("[s]\nk = 1\nk = 2\n  3\n[s]\nk = 4\n")),
              ElementsAre("2 s/k=1", "3 s/k=2", "4 s/k=3", "6 s/k=4"));
}

TEST(ParseIni, ReadsOnAfterALineThatIsNeitherSectionNorKey) {
  const Contents contents = Parse("[s]\na = 1\nbroken\n[open\nb = 2\n");
  EXPECT_THAT(Entries(contents), ElementsAre("2 s/a=1", "5 s/b=2"));
  EXPECT_EQ(FaultOf(contents.fault), "3: neither [section] nor key = value");
}

TEST(ParseIni, EndsAtALineThatIsTooLong) {
  const std::string longest = "k = " + std::string(193, 'x');
  EXPECT_EQ(FaultOf(Parse("[s]\n" + longest + "\r\na = 1\n").fault), "");
  const Contents contents = Parse("[s]\na = 1\n" + longest + "xx\nb = 2\n");
  EXPECT_THAT(Entries(contents), ElementsAre("2 s/a=1"));
  EXPECT_EQ(FaultOf(contents.fault), "3: line too long, at most 197 characters are allowed");
}

TEST(ParseIni, ReportsTheFirstOfSeveralFaults) {
  const std::string tooLong(300, 'x');
  EXPECT_EQ(FaultOf(Parse("broken\n" + tooLong + "\n").fault), "1: neither [section] nor key = value");
}

TEST(ParseIni, HidesTheRestOfALineBehindAZeroByte) {
  EXPECT_THAT(Entries(Parse(std::string("[s]\na = 1\0 2\nb = 3\n", 19))), ElementsAre("2 s/a=1", "3 s/b=3"));
}

TEST(FindSectionFault, NamesItsLine) {
  EXPECT_EQ(FaultOf(FindSectionFault("")), "");
  EXPECT_EQ(FaultOf(FindSectionFault("[" + std::string(49, 'x') + "]\n; [" + std::string(80, 'x') + "]\n[")), "");
  EXPECT_EQ(FaultOf(FindSectionFault("a = 1\n\n[" + std::string(50, 'x') + "]")),
            "3: name of a section too long, at most 49 characters are allowed");
}

TEST(FindSectionFault, NamesALineWithTextBehindTheSection) {
  EXPECT_EQ(FaultOf(FindSectionFault("[a] \r\n[b];c\n[c] # d\nk = [x] y\n")), "");
  EXPECT_EQ(FaultOf(FindSectionFault("[a]\n[b] k = 1\n")),
            "2: text behind [section]; a section stands on a line of its own");
}

TEST(FindZeroByte, NamesItsLine) {
  EXPECT_EQ(FaultOf(FindZeroByte("[s]\na = 1\n")), "");
  EXPECT_EQ(FaultOf(FindZeroByte(std::string("[s]\na = 1\0 2\n", 13))),
            "2: contains a zero byte; a text file is expected");
}

TEST(Beside, ResolvesNamesAgainstTheFolderOfTheIniFile) {
  EXPECT_EQ(Beside("/etc/host/host.ini", "logs/host.log"), "/etc/host/logs/host.log");
  EXPECT_EQ(Beside("/etc/host/host.ini", "../x"), "/etc/x");
  EXPECT_EQ(Beside("conf/host.ini", "x"), "conf/x");
  EXPECT_EQ(Beside("host.ini", "x"), "x");
  EXPECT_EQ(Beside("-", "x"), "x") << "the standard input has no folder";
}

TEST(Beside, LeavesAbsoluteNamesUrlsAndEmptyNamesAlone) {
  EXPECT_EQ(Beside("/etc/host.ini", "/dev/ttyUSB0"), "/dev/ttyUSB0");
  EXPECT_EQ(Beside("/etc/host.ini", "udp://239.1.1.1:5000"), "udp://239.1.1.1:5000");
  EXPECT_EQ(Beside("/etc/host.ini", ""), "");
}

}  // namespace
}  // namespace ini
