// SPDX-License-Identifier: Apache-2.0
// Tests of slices, attributes and times.
#include "md_cot_text.h"

#include <endian.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "fake_host.h"

static int g_zoneQuestions = 0;

// The linker sends every call of mktime here.
extern "C" time_t __real_mktime(struct tm* fields);
extern "C" time_t __wrap_mktime(struct tm* fields) {
  ++g_zoneQuestions;
  return __real_mktime(fields);
}

namespace {

class TextTest : public HostTest {};
using XmlText = TextTest;
using CotTime = TextTest;

cvtCotField Field(const std::string& name) {
  cvtCotField field = {};
  name.copy(field.name, sizeof(field.name) - 1);
  return field;
}

CVT_COTKLV_STATUS LookUp(const std::string& text, int length, cvtCotField* field) {
  return xml_getCotFieldInTagSlice(text.c_str(), length, field);
}

TEST_F(XmlText, TenCharactersAreSearchedAndNineRefused) {
  const char* slice = nullptr;
  uint32_t length = 77;
  const char* text = "<a b=\"c\"/>";
  EXPECT_EQ(xml_getTagSlice(text, 10, "<a", "/>", &slice, &length), CVT_COTKLV_STATUS_OK);
  EXPECT_EQ(slice, text);
  EXPECT_EQ(length, 8u);
  ExpectLog(7, "Found event end: sliceLen = 0x8\n");
  EXPECT_EQ(xml_getTagSlice(text, 9, "<a", "/>", &slice, &length), CVT_COTKLV_STATUS_INVALID_INPUT);
  EXPECT_EQ(length, 0u);
  ExpectLog(3, "invalid input\n");
  cvtCotField field = Field("b");
  EXPECT_EQ(LookUp(text, 10, &field), CVT_COTKLV_STATUS_OK);
  EXPECT_STREQ(field.valueStr, "c");
  EXPECT_EQ(field.flag, 1);
  EXPECT_EQ(LookUp(text, 9, &field), CVT_COTKLV_STATUS_INVALID_INPUT);
  EXPECT_EQ(field.flag, 0);
  ExpectLog(3, "invalid input\n");
  EXPECT_EQ(LookUp(text, 10, nullptr), CVT_COTKLV_STATUS_INVALID_INPUT);
  ExpectLog(3, "invalid input\n");
}

TEST_F(XmlText, MissingMarkersAreNotFound) {
  const char* slice = nullptr;
  uint32_t length = 0;
  const char* text = "xx<a b=\"c\"/>";
  EXPECT_EQ(xml_getTagSlice(text, 12, "<q", "/>", &slice, &length), CVT_COTKLV_STATUS_NOT_FOUND);
  ExpectLog(7, "slice <q not found\n");
  EXPECT_EQ(xml_getTagSlice(text, 12, "<a", "</a>", &slice, &length), CVT_COTKLV_STATUS_NOT_FOUND);
  ExpectLog(4, "slice </a> not found\n");
  EXPECT_EQ(slice, text + 2) << "stored before the end was looked for";
}

TEST_F(XmlText, SliceIsOnlyBoundedByTheTextsEnd) {
  const char* slice = nullptr;
  uint32_t length = 0;
  const char* text = "0123456789 <a />";
  EXPECT_EQ(xml_getTagSlice(text, 10, "<a", "/>", &slice, &length), CVT_COTKLV_STATUS_OK);
  EXPECT_EQ(slice, text + 11) << "beyond the length given";
  EXPECT_EQ(xml_getTagSlice("<a 34567890/>", 10, "<a", "/>", &slice, &length), CVT_COTKLV_STATUS_NOT_FOUND);
  EXPECT_EQ(length, 11u);
  ExpectLog(3, "found slice, but length is out of buffer\n");
}

TEST_F(XmlText, HitExactlyAtTheLengthIsAccepted) {
  cvtCotField field = Field("lat");
  EXPECT_EQ(LookUp("0123456789lat=\"1\"", 10, &field), CVT_COTKLV_STATUS_OK);
  EXPECT_EQ(LookUp("0123456789_lat=\"1\"", 10, &field), CVT_COTKLV_STATUS_NOT_FOUND);
  ExpectLog(3, "field lat out of slice. \n");
}

TEST_F(XmlText, NamesAreBareSubstrings) {
  cvtCotField field = Field("roll");
  EXPECT_EQ(LookUp("<s xroll=\"1\" roll=\"2\"", 20, &field), CVT_COTKLV_STATUS_OK);
  EXPECT_STREQ(field.valueStr, "1");
}

TEST_F(XmlText, QuotesAreDoubleAndBothNeeded) {
  cvtCotField field = Field("lat");
  EXPECT_EQ(LookUp("<point lat='1'", 14, &field), CVT_COTKLV_STATUS_NOT_FOUND);
  ExpectLog(3, "field lat not found open \"\n");
  EXPECT_EQ(LookUp("<point lat=\"1", 13, &field), CVT_COTKLV_STATUS_NOT_FOUND);
  ExpectLog(3, "field lat not found close \"\n");
  EXPECT_EQ(LookUp("<point lon=\"1\"", 14, &field), CVT_COTKLV_STATUS_NOT_FOUND);
  ExpectLog(3, "field lat not found\n");
  EXPECT_EQ(LookUp("<point lat = \"\"", 14, &field), CVT_COTKLV_STATUS_OK) << "an empty value is one";
  EXPECT_EQ(field.valueLen, 0);
  EXPECT_EQ(field.flag, 1);
}

TEST_F(XmlText, SixtyFourCharactersFitAndSixtyFiveDoNot) {
  cvtCotField field = Field("uid");
  EXPECT_EQ(LookUp("<event uid=\"" + std::string(64, 'u') + "\"", 20, &field), CVT_COTKLV_STATUS_OK);
  EXPECT_EQ(field.valueLen, 64);
  EXPECT_EQ(std::string(field.valueStr, 64), std::string(64, 'u'));
  EXPECT_EQ(LookUp("<event uid=\"" + std::string(65, 'u') + "\"", 20, &field), CVT_COTKLV_STATUS_NOT_FOUND);
  EXPECT_EQ(field.flag, 0);
  ExpectLog(3, "field uid found invalid value length 0x41\n");
}

// The text outlives the slice: callers pass literals or their own variables.
CotSlice Slice(const char* text) {
  return {text, static_cast<uint32_t>(strlen(text))};
}

TEST_F(XmlText, ValueOfSixtyFourCharactersIsReadThroughACopyWithATerminator) {
  cvtCotField field = Field("uid");
  EXPECT_EQ(LookUp("<event uid=\"" + std::string(64, 'u') + "\"", 20, &field), CVT_COTKLV_STATUS_OK);
  EXPECT_EQ(CotText(field.valueStr).Get(), std::string(64, 'u'));
  EXPECT_EQ(LookUp("<event uid=\"short\"", 19, &field), CVT_COTKLV_STATUS_OK);
  EXPECT_STREQ(CotText(field.valueStr).Get(), "short") << "the longer value before it is gone";
}

TEST_F(XmlText, FoundSliceIsTheTextUpToItsEndMarker) {
  const std::string text = "<event><point lat=\"1\"/><track/></event>";
  CotSlice slice;
  ASSERT_TRUE(_FindSlice(Slice(text.c_str()), "<point", "/>", &slice));
  EXPECT_EQ(std::string(slice.text, slice.length), "<point lat=\"1\"");
  EXPECT_FALSE(_FindSlice(Slice(text.c_str()), "<sensor", "/>", &slice));
  EXPECT_EQ(slice.length, 0u);
  ExpectLog(7, "slice <sensor not found\n");
}

std::string Value(const CotSlice& value) {
  return {value.text, value.length};
}

TEST_F(XmlText, FieldOfARowIsFoundAndLogged) {
  constexpr cvtCotField kRow = {"lon", "2", 0, 7, 0};
  CotSlice value;
  ASSERT_TRUE(_FindField(Slice("<point lon=\"-73\""), kRow, &value));
  EXPECT_EQ(Value(value), "-73");
  ExpectLog(7, "Found cotField: name = lon\n");
  EXPECT_FALSE(_FindField(Slice("<point lat=\"45\""), kRow, &value));
  EXPECT_EQ(Value(value), "-73") << "unchanged";
  ExpectLog(3, "field lon not found\n");
}

TEST_F(XmlText, AttributeWithoutARowIsLookedUpByName) {
  CotSlice value;
  EXPECT_TRUE(_LookUp(Slice("<event type=\"a-f-A\""), "type", &value));
  EXPECT_EQ(Value(value), "a-f-A");
  EXPECT_EQ(CotText(value).Get(), std::string("a-f-A"));
  EXPECT_FALSE(_LookUp(Slice("<event type=\"a-f-A\""), "uid", &value));
  ExpectLog(3, "field uid not found\n");
  EXPECT_FALSE(_LookUp(Slice("<t u=\"1\">"), "u", &value)) << "nine characters";
  ExpectLog(3, "invalid input\n");
}

// Returns the microseconds of a text, or -1.
int64_t Microseconds(const char* text) {
  uint64_t value = 0;
  if (cvt_getUSecsFromTimeStr(text, &value) != 0) return -1;
  return static_cast<int64_t>(be64toh(value));
}

constexpr int64_t kWhole = 1704164645000000;  // 2024-01-02 03:04:05 UTC

TEST_F(CotTime, FractionIsTwoDigitsReadAsHundredths) {
  EXPECT_EQ(Microseconds("2024-01-02T03:04:05Z"), kWhole);
  EXPECT_EQ(Microseconds("2024-01-02T03:04:05.5Z"), kWhole + 50000);
  EXPECT_EQ(Microseconds("2024-01-02T03:04:05.123Z"), kWhole + 120000);
  EXPECT_EQ(Microseconds("2024-01-02T03:04:05."), kWhole);
  EXPECT_EQ(Microseconds("2024-01-02T03:04:05 and much more without a point"), kWhole);
}

TEST_F(CotTime, TextBeforeThePointIsAtMost20Characters) {
  EXPECT_EQ(Microseconds("2024-01-02T03:04:05Z.25"), kWhole + 250000);
  EXPECT_EQ(Microseconds("2024-01-02T03:04:05ZZ.25"), -1);
  ExpectLog(3, "str is too long, len = 0x15\n");
}

TEST_F(CotTime, TimesAreLocal) {
  setenv("TZ", "EST5", 1);
  tzset();
  EXPECT_EQ(Microseconds("2024-01-02T03:04:05Z"), kWhole + int64_t{5} * 3600 * 1000000);
}

// Returns how often the C library is asked about the time zone for a text.
int Questions(const char* text) {
  const int before = g_zoneQuestions;
  Microseconds(text);
  return g_zoneQuestions - before;
}

TEST_F(CotTime, ZoneIsAskedOncePerMinuteAndHalfSecond) {
  host().SetWallClock(1704164645);
  host().Advance(500);
  EXPECT_EQ(Questions("2024-01-02T03:04:05.00Z"), 1);
  EXPECT_EQ(Questions("2024-01-02T03:04:05.50Z"), 0);
  EXPECT_EQ(Questions("2024-01-02T03:05:05.00Z"), 1) << "another minute";
  EXPECT_EQ(Questions("2024-01-02T03:04:05.00Z"), 0) << "the first one is still remembered";
  host().Advance(499);
  EXPECT_EQ(Questions("2024-01-02T03:04:05.00Z"), 0);
  host().Advance(1);
  EXPECT_EQ(Questions("2024-01-02T03:04:05.00Z"), 1);
}

TEST_F(CotTime, SecondsBetweenTwoAnswersAreNotAsked) {
  EXPECT_EQ(Questions("2024-01-02T03:04:10.00Z"), 1);
  EXPECT_EQ(Questions("2024-01-02T03:04:20.00Z"), 1);
  EXPECT_EQ(Questions("2024-01-02T03:04:15.00Z"), 0);
  EXPECT_EQ(Questions("2024-01-02T03:04:09.00Z"), 1);
  EXPECT_EQ(Questions("2024-01-02T03:04:21.00Z"), 1);
  EXPECT_EQ(Questions("2024-01-02T03:04:09.00Z"), 0);
  EXPECT_EQ(Microseconds("2024-01-02T03:04:15Z"), kWhole + 10000000);
}

TEST_F(CotTime, ChangeOfTheZoneShowsWithinASecond) {
  EXPECT_EQ(Microseconds("2024-01-02T03:04:05Z"), kWhole);
  setenv("TZ", "EST5", 1);
  host().Advance(999);
  EXPECT_EQ(Microseconds("2024-01-02T03:04:05Z"), kWhole + int64_t{5} * 3600 * 1000000);
}

TEST_F(CotTime, ExportedConversionAsksTheZoneInEveryCall) {
  timeval time = {};
  const int before = g_zoneQuestions;
  ConvertTimeString("2024-01-02T03:04:05.06Z", &time);
  ConvertTimeString("2024-01-02T03:04:05.06Z", &time);
  EXPECT_EQ(g_zoneQuestions - before, 2) << "any thread may call it";
}

TEST_F(CotTime, FailureOfTheCalendarIsNotRemembered) {
  EXPECT_EQ(Microseconds("1969-12-31T23:59:59Z"), -1);
  ExpectLog(3, "failed in mktime()\n");
  EXPECT_EQ(Questions("1969-12-31T23:59:59Z"), 1);
  ExpectLog(3, "failed in mktime()\n");
}

TEST_F(CotTime, FieldsAreCheckedInTheirRanges) {
  struct tm fields;
  const char* bad[] = {"1899-01-02T03:04:05Z",
                       "2024-00-02T03:04:05Z",
                       "2024-13-02T03:04:05Z",
                       "2024-01-00T03:04:05Z",
                       "2024-01-32T03:04:05Z",
                       "2024-01-02T24:04:05Z",
                       "2024-01-02T03:60:05Z",
                       "2024-01-02T03:04:61Z",
                       "2024-01-02T-1:04:05Z",
                       "",
                       "2024",
                       "x"};
  for (const char* text : bad) EXPECT_EQ(cvt_strptime(text, &fields), -1) << text;
  EXPECT_EQ(cvt_strptime("1900-01-02T03:04:60Z", &fields), 0);
  EXPECT_EQ(fields.tm_sec, 60);
  EXPECT_EQ(fields.tm_year, 0);
  EXPECT_EQ(fields.tm_isdst, 0);
  EXPECT_EQ(cvt_strptime("2024x01y02z03?04!05", &fields), 0) << "separators do not matter";
  EXPECT_EQ(cvt_strptime("2024-01-02", &fields), 0) << "groups the text does not reach are 0";
  EXPECT_EQ(fields.tm_hour, 0);
  EXPECT_EQ(Microseconds("1899-01-02T03:04:05.1Z"), -1);
  ExpectLog(3, "failed in cvt_strptime() with decimal!\n");
  EXPECT_EQ(Microseconds("1899-01-02T03:04:05Z"), -1);
  ExpectLog(3, "failed in cvt_strptime()!\n");
}

TEST_F(CotTime, CalendarResultOfMinusOneIsAFailure) {
  EXPECT_EQ(Microseconds("1969-12-31T23:59:59Z"), -1);
  ExpectLog(3, "failed in mktime()\n");
}

TEST_F(CotTime, ConvertTimeStringIsAMonthLateAndSeventyYearsEarly) {
  timeval time = {};
  ConvertTimeString("2024-01-02T03:04:05.06Z", &time);
  struct tm expected = {};
  expected.tm_year = 54;
  expected.tm_mon = 1;
  expected.tm_mday = 2;
  expected.tm_hour = 3;
  expected.tm_min = 4;
  expected.tm_sec = 5;
  EXPECT_EQ(time.tv_sec, mktime(&expected));
  EXPECT_EQ(time.tv_usec, 60000);
  ExpectLog(7, "RECONSTITUTED TIME=2024-01-02T03:04:05.06Z.\n");
  ExpectLog(7, "Resulting time " + std::to_string(static_cast<unsigned long>(time.tv_sec)) + " sec,60000 usecs.\n");
}

TEST_F(CotTime, ConvertTimeStringOfOtherTextStartsAtZero) {
  timeval first = {1, 1};
  timeval second = {2, 2};
  ConvertTimeString("no time", &first);
  ConvertTimeString("", &second);
  EXPECT_EQ(first.tv_sec, second.tv_sec);
  EXPECT_EQ(first.tv_usec, 0);
}

}  // namespace
