// SPDX-License-Identifier: Apache-2.0
#include "value_text.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace value_text {
namespace {

TEST(ParseWholeNumber, ReadsDecimalAndHexadecimalNumbers) {
  EXPECT_EQ(ParseWholeNumber("12", 0, 20), 12);
  EXPECT_EQ(ParseWholeNumber("-7", -10, 10), -7);
  EXPECT_EQ(ParseWholeNumber("0x1F", 0, 255), 31);
  EXPECT_EQ(ParseWholeNumber("0Xff", 0, 255), 255);
  EXPECT_EQ(ParseWholeNumber("010", 0, 20), 10) << "a leading zero does not make it octal";
  EXPECT_EQ(ParseWholeNumber("9223372036854775807", 0, INT64_MAX), INT64_MAX);
}

TEST(ParseWholeNumber, ReadsTheWholeTextOrNothing) {
  for (const char* text : {"", " 1", "1 ", "+1", "0x", "0x-1", "-0x1", "1e3", "1.0", "99999999999999999999"}) {
    EXPECT_FALSE(ParseWholeNumber(text, -100, 100000)) << text;
  }
}

TEST(ParseWholeNumber, RefusesNumbersOutsideTheRange) {
  EXPECT_EQ(ParseWholeNumber("1", 1, 65535), 1);
  EXPECT_EQ(ParseWholeNumber("65535", 1, 65535), 65535);
  EXPECT_FALSE(ParseWholeNumber("0", 1, 65535));
  EXPECT_FALSE(ParseWholeNumber("65536", 1, 65535));
}

TEST(ParseReal, ReadsNumbersWithAPointWhateverTheirForm) {
  EXPECT_EQ(ParseReal("0.5", 0, 1), 0.5);
  EXPECT_EQ(ParseReal(".5", 0, 1), 0.5);
  EXPECT_EQ(ParseReal("+0.25", 0, 1), 0.25);
  EXPECT_EQ(ParseReal("-1.5e2", -1000, 0), -150);
  EXPECT_EQ(ParseReal("3", 0, 10), 3);
}

TEST(ParseReal, RefusesWhatIsNoNumberOfTheRange) {
  for (const char* text : {"", " 1", "1 ", "1,5", "+-1", "++1", "0x10", "nan", "inf", "1e400", "1e", "-0.1", "10.1"}) {
    EXPECT_FALSE(ParseReal(text, 0, 10)) << text;
  }
}

TEST(ParseSwitch, ReadsEveryWordInUpperAndLowerCase) {
  for (const char* text : {"yes", "Yes", "YES", "on", "On", "true", "True", "1"}) EXPECT_EQ(ParseSwitch(text), true);
  for (const char* text : {"no", "No", "NO", "off", "oFF", "false", "False", "0"}) EXPECT_EQ(ParseSwitch(text), false);
}

TEST(ParseSwitch, RefusesEveryOtherWord) {
  for (const char* text : {"", "y", "yess", "ye", "2", "00", "enabled", " yes"})
    EXPECT_FALSE(ParseSwitch(text)) << text;
}

TEST(Refusal, NamesTheKeyTheValueAndWhatIsAllowed) {
  EXPECT_EQ(Refusal("port", "70000", WholeNumberRange(1, 65535)),
            "port must be a whole number from 1 to 65535, not \"70000\"");
  EXPECT_EQ(Refusal("duration", "-1", RealRange(0, 1e9)), "duration must be a number from 0 to 1e+09, not \"-1\"");
  EXPECT_EQ(Refusal("loop", "", kSwitchValues), "loop must be yes or no, not \"\"");
}

}  // namespace
}  // namespace value_text
