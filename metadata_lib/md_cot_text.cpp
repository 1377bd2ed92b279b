// SPDX-License-Identifier: Apache-2.0
// The text of Cursor-on-Target events. See the header for threads.
//
// Contents
//   1. XML
//   2. Local time
//   3. Times
#include "md_cot_text.h"

#include <endian.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>

#include "md_mutex.h"

#define MD_MODULE "converter"
#define MD_DEBUG_HANDLE g_hCoTConvDbg
#include "md_log.h"
#include "metadata_lib.h"

// =====================================================================================================
// 1. XML
// =====================================================================================================

// KEPT: every success says "event end".
void _LogFoundSlice(const CotSlice& slice) {
  MD_LOG(7, "Found event end: sliceLen = 0x%x\n", slice.length);
}

// KEPT: the markers are searched up to the end of the text, not of the slice.
CVT_COTKLV_STATUS xml_getTagSlice(const char* pInBuf, uint32_t inBufLen, const char* startTag, const char* endTag,
                                  const char** pSlice, uint32_t* sliceLen) {
  *sliceLen = 0;
  if (pInBuf == nullptr || startTag == nullptr || endTag == nullptr || inBufLen < kShortestText) {
    MD_LOG(3, "invalid input\n");
    return CVT_COTKLV_STATUS_INVALID_INPUT;
  }
  const char* start = strstr(pInBuf, startTag);
  if (start == nullptr) {
    MD_LOG(7, "slice %s not found\n", startTag);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  *pSlice = start;
  const char* end = strstr(start, endTag);
  if (end == nullptr) {
    MD_LOG(4, "slice %s not found\n", endTag);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  *sliceLen = static_cast<uint32_t>(end - start);
  if (*sliceLen > inBufLen) {
    MD_LOG(3, "found slice, but length is out of buffer\n");
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  _LogFoundSlice({start, *sliceLen});
  return CVT_COTKLV_STATUS_OK;
}

// KEPT: the name is searched as plain text and so also matches inside a longer word, a match directly behind the slice
// counts, and only double quotes are quotes.
static bool _FindValue(const CotSlice& slice, const char* name, CotSlice* value) {
  const char* hit = strstr(slice.text, name);
  if (hit == nullptr) {
    MD_LOG(3, "field %s not found\n", name);
    return false;
  }
  if (hit - slice.text > static_cast<ptrdiff_t>(slice.length)) {
    MD_LOG(3, "field %s out of slice. \n", name);
    return false;
  }
  const char* openQuote = strchr(hit, '"');
  if (openQuote == nullptr) {
    MD_LOG(3, "field %s not found open \"\n", name);
    return false;
  }
  const char* closeQuote = strchr(openQuote + 1, '"');
  if (closeQuote == nullptr) {
    MD_LOG(3, "field %s not found close \"\n", name);
    return false;
  }
  const size_t length = static_cast<size_t>(closeQuote - openQuote - 1);
  if (length > kCotValueSize) {
    MD_LOG(3, "field %s found invalid value length 0x%x\n", name, static_cast<UINT>(length));
    return false;
  }
  *value = {openQuote + 1, static_cast<uint32_t>(length)};
  return true;
}

CVT_COTKLV_STATUS xml_getCotFieldInTagSlice(const char* pInBuf, int32_t inBufLen, cvtCotField* pCotField) {
  if (pCotField != nullptr) pCotField->flag = 0;
  if (pInBuf == nullptr || pCotField == nullptr || inBufLen < static_cast<int32_t>(kShortestText)) {
    MD_LOG(3, "invalid input\n");
    return CVT_COTKLV_STATUS_INVALID_INPUT;
  }
  CotSlice value;
  if (!_FindValue({pInBuf, static_cast<uint32_t>(inBufLen)}, pCotField->name, &value))
    return CVT_COTKLV_STATUS_NOT_FOUND;
  memcpy(pCotField->valueStr, value.text, value.length);
  if (value.length < kCotValueSize) pCotField->valueStr[value.length] = '\0';
  pCotField->valueLen = static_cast<int32_t>(value.length);
  pCotField->flag = 1;
  return CVT_COTKLV_STATUS_OK;
}

bool _FindSlice(const CotSlice& whole, const char* start, const char* end, CotSlice* slice) {
  return xml_getTagSlice(whole.text, whole.length, start, end, &slice->text, &slice->length) == CVT_COTKLV_STATUS_OK;
}

bool _LookUp(const CotSlice& slice, const char* name, CotSlice* value) {
  if (slice.length < kShortestText) {
    MD_LOG(3, "invalid input\n");
    return false;
  }
  return _FindValue(slice, name, value);
}

bool _FindField(const CotSlice& slice, const cvtCotField& row, CotSlice* value) {
  if (!_LookUp(slice, row.name, value)) return false;
  MD_LOG(7, "Found cotField: name = %s\n", row.name);
  return true;
}

// =====================================================================================================
// 2. Local time. Metadata thread.
// =====================================================================================================

namespace {

// Answers as mktime does, and remembers the answers: mktime looks at TZ in every call, and without TZ at the zone file.
// All answers are forgotten when the next half of a second begins, so that a change of TZ or of the file shows within a
// second.
class LocalClock {
 public:
  // Returns mktime(fields). The fields' tm_isdst is 0, and they are not normalised.
  time_t Seconds(const struct tm& fields);

 private:
  // What is known of one minute: its seconds from 'first' to 'last'. The answers at both ends agree, and no zone changes
  // its clock twice within a minute, so that those in between agree too.
  struct Minute {
    uint64_t name = 0;  // no minute has this name
    time_t start = 0;
    int first = 0;
    int last = 0;
  };

  static uint64_t NameOf(const struct tm& fields);
  void ForgetOldAnswers();

  Minute m_minutes[32];
  int64_t m_half = 0;  // the half of a second in which the answers were given
};

// Returns the minute's name, or 0 for a minute whose answers are not remembered.
uint64_t LocalClock::NameOf(const struct tm& fields) {
  const auto month = static_cast<unsigned>(fields.tm_mon);
  const auto day = static_cast<unsigned>(fields.tm_mday);
  const auto hour = static_cast<unsigned>(fields.tm_hour);
  const auto minute = static_cast<unsigned>(fields.tm_min);
  if ((month | day | hour | minute) > 0xFF) return 0;
  return uint64_t{static_cast<unsigned>(fields.tm_year)} << 32 | month << 24 | day << 16 | hour << 8 | minute;
}

void LocalClock::ForgetOldAnswers() {
  struct timespec now = {};
  const bool known = clock_gettime(CLOCK_MONOTONIC_COARSE, &now) == 0;
  const int64_t half = int64_t{now.tv_sec} * 2 + (now.tv_nsec >= 500000000 ? 1 : 0);
  if (known && half == m_half) return;
  m_half = half;
  for (Minute& minute : m_minutes) minute = Minute();
}

time_t LocalClock::Seconds(const struct tm& fields) {
  struct tm normalised = fields;
  const uint64_t name = NameOf(fields);
  if (name == 0) return mktime(&normalised);
  ForgetOldAnswers();
  Minute& minute = m_minutes[name * 0x9E3779B97F4A7C15 >> 59];
  const int second = fields.tm_sec;
  if (minute.name == name && second >= minute.first && second <= minute.last) return minute.start + second;
  const time_t answer = mktime(&normalised);
  if (answer == -1) return answer;
  const bool agrees = minute.name == name && minute.start == answer - second;
  minute.first = agrees && minute.first < second ? minute.first : second;
  minute.last = agrees && minute.last > second ? minute.last : second;
  minute.start = answer - second;
  minute.name = name;
  return answer;
}

}  // namespace

static constinit LocalClock _g_LocalClock MD_GUARDED_BY(kMetadataThread);

// =====================================================================================================
// 3. Times
// =====================================================================================================

namespace {

// A date and time as written.
struct WrittenTime {
  int year;
  int month;
  int day;
  int hour;
  int minutes;
  int seconds;
};

}  // namespace

// Stores the number that two digits make. Returns false for other text; reads no further than its end.
static bool _ReadTwoDigits(const char* text, int* number) {
  const auto tens = static_cast<unsigned>(text[0] - '0');
  if (tens > 9) return false;
  const auto ones = static_cast<unsigned>(text[1] - '0');
  *number = static_cast<int>(tens * 10 + ones);
  return ones <= 9;
}

// Reads YYYY-MM-DDTHH:MM:SS whose groups are digits, with any characters between the groups. Returns false for other
// text; reads no further than its end.
static bool _ReadDigitGroups(const char* text, WrittenTime* time) {
  int century = 0;
  int year = 0;
  if (!_ReadTwoDigits(text, &century) || !_ReadTwoDigits(text + 2, &year)) return false;
  time->year = century * 100 + year;
  return text[4] != '\0' && _ReadTwoDigits(text + 5, &time->month) &&      //
         text[7] != '\0' && _ReadTwoDigits(text + 8, &time->day) &&        //
         text[10] != '\0' && _ReadTwoDigits(text + 11, &time->hour) &&     //
         text[13] != '\0' && _ReadTwoDigits(text + 14, &time->minutes) &&  //
         text[16] != '\0' && _ReadTwoDigits(text + 17, &time->seconds);
}

// Returns the decimal number in a group of characters, 0 if the text ends before it.
static int _DateGroup(const char* text, size_t textLength, size_t offset, size_t length) {
  char group[8] = "0000000";
  if (offset >= textLength) return 0;
  if (length > textLength - offset) length = textLength - offset;
  memcpy(group, text + offset, length);
  group[length] = '\0';
  return static_cast<int>(strtol(group, nullptr, 10));
}

static void _ReadAnyGroups(const char* text, WrittenTime* time) {
  const size_t length = strlen(text);
  time->year = _DateGroup(text, length, 0, 4);
  time->month = _DateGroup(text, length, 5, 2);
  time->day = _DateGroup(text, length, 8, 2);
  time->hour = _DateGroup(text, length, 11, 2);
  time->minutes = _DateGroup(text, length, 14, 2);
  time->seconds = _DateGroup(text, length, 17, 2);
}

// Reads YYYY-MM-DDTHH:MM:SS by position; the characters between the groups are not checked.
int cvt_strptime(const char* timeStr, struct tm* pTm) {
  memset(pTm, 0, sizeof(*pTm));
  WrittenTime time;
  if (!_ReadDigitGroups(timeStr, &time)) _ReadAnyGroups(timeStr, &time);
  if (time.year < 1900) return -1;
  if (time.month < 1 || time.month > 12) return -1;
  if (time.day < 1 || time.day > 31) return -1;
  if (time.hour < 0 || time.hour > 23) return -1;
  if (time.minutes < 0 || time.minutes > 59) return -1;
  if (time.seconds < 0 || time.seconds > 60) return -1;  // 60 is a leap second
  pTm->tm_year = time.year - 1900;
  pTm->tm_mon = time.month - 1;
  pTm->tm_mday = time.day;
  pTm->tm_hour = time.hour;
  pTm->tm_min = time.minutes;
  pTm->tm_sec = time.seconds;
  return 0;
}

// KEPT: the fraction is the two characters after the point, read as hundredths (".5Z" is 50 ms), and the time is local
// even if a zone follows it.
int cvt_getUSecsFromTimeStr(const char* timeStr, uint64_t* uSecs) {
  kMetadataThread.Assume();
  struct tm fields;
  int hundredths = 0;
  const char* point = strchr(timeStr, '.');
  if (point != nullptr) {
    if (point - timeStr > 20) {
      MD_LOG(3, "str is too long, len = 0x%x\n", static_cast<UINT>(point - timeStr));
      return -1;
    }
    if (cvt_strptime(timeStr, &fields) != 0) {
      MD_LOG(3, "failed in cvt_strptime() with decimal!\n");
      return -1;
    }
    if (!_ReadTwoDigits(point + 1, &hundredths)) hundredths = _DateGroup(point, strlen(point), 1, 2);
  } else if (cvt_strptime(timeStr, &fields) != 0) {
    MD_LOG(3, "failed in cvt_strptime()!\n");
    return -1;
  }
  const time_t seconds = _g_LocalClock.Seconds(fields);
  if (seconds == -1) {
    MD_LOG(3, "failed in mktime()\n");
    return -1;
  }
  const int64_t microseconds = int64_t{seconds} * 1000000 + int64_t{hundredths} * 10000;
  *uSecs = htobe64(static_cast<uint64_t>(microseconds));
  return 0;
}

// Reads the times that sscanf reads with kTimeFormat, if all groups are digits. Returns false for other text.
static bool _ReadPlainTime(const char* text, WrittenTime* time, int* hundredths) {
  if (!_ReadDigitGroups(text, time)) return false;
  if (text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':') return false;
  *hundredths = 0;
  return text[19] != '.' || _ReadTwoDigits(text + 20, hundredths);
}

static constexpr char kTimeFormat[] = "%04d-%02d-%02dT%02d:%02d:%02d.%02dZ";

// Reads a text into the fields for mktime. Returns the hundredths of a second.
// KEPT: the month is not reduced by one, and the year by 1970 instead of 1900. The result only serves to
// order times.
static int _ReadOrderedTime(const char* text, struct tm* fields) {
  WrittenTime time = {};
  int hundredths = 0;
  if (!_ReadPlainTime(text, &time, &hundredths)) {
    time = {};
    hundredths = 0;
    (void)sscanf(text, kTimeFormat, &time.year, &time.month, &time.day, &time.hour, &time.minutes, &time.seconds,
                 &hundredths);
  }
  memset(fields, 0, sizeof(*fields));
  fields->tm_sec = time.seconds;
  fields->tm_min = time.minutes;
  fields->tm_hour = time.hour;
  fields->tm_mday = time.day;
  fields->tm_mon = time.month;
  fields->tm_year = time.year - 1970;
  return hundredths;
}

void ConvertTimeString(const char* szTime, struct timeval* pOutTime) {
  struct tm fields;
  const int hundredths = _ReadOrderedTime(szTime, &fields);
  const int year = fields.tm_year + 1970;
  pOutTime->tv_sec = mktime(&fields);
  pOutTime->tv_usec = hundredths * 10000;
  MD_LOG(7, "RECONSTITUTED TIME=%04d-%02d-%02dT%02d:%02d:%02d.%02dZ.\n", year, fields.tm_mon, fields.tm_mday,
         fields.tm_hour, fields.tm_min, fields.tm_sec, hundredths);
  MD_LOG(7, "Resulting time %lu sec,%lu usecs.\n", static_cast<unsigned long>(pOutTime->tv_sec),
         static_cast<unsigned long>(pOutTime->tv_usec));
}

void _OrderTime(const char* text, struct timeval* time) {
  // The lines show the fields that mktime normalised.
  if (MdLogEnabled(MD_DEBUG_HANDLE, 7)) return ConvertTimeString(text, time);
  struct tm fields;
  const int hundredths = _ReadOrderedTime(text, &fields);
  time->tv_sec = _g_LocalClock.Seconds(fields);
  time->tv_usec = hundredths * 10000;
}
