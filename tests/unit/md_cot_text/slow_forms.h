// SPDX-License-Identifier: Apache-2.0
// Plain forms of the searches and times: every search copies what it finds, and the C library reads every group of
// digits and answers every question about local time. See md_cot_text.h for what each promises. They log the same lines.
#ifndef COT_TEXT_SLOW_FORMS_H
#define COT_TEXT_SLOW_FORMS_H

#include <endian.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

#include <cstdint>

#include "md_cot_text.h"

#define MD_MODULE "converter"
#define MD_DEBUG_HANDLE g_hCoTConvDbg
#include "md_log.h"

inline CVT_COTKLV_STATUS SlowGetTagSlice(const char* pInBuf, uint32_t inBufLen, const char* startTag,
                                         const char* endTag, const char** pSlice, uint32_t* sliceLen) {
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
  MD_LOG(7, "Found event end: sliceLen = 0x%x\n", *sliceLen);
  return CVT_COTKLV_STATUS_OK;
}

inline CVT_COTKLV_STATUS SlowGetCotField(const char* pInBuf, int32_t inBufLen, cvtCotField* pCotField) {
  if (pCotField != nullptr) pCotField->flag = 0;
  if (pInBuf == nullptr || pCotField == nullptr || inBufLen < static_cast<int32_t>(kShortestText)) {
    MD_LOG(3, "invalid input\n");
    return CVT_COTKLV_STATUS_INVALID_INPUT;
  }
  const char* hit = strstr(pInBuf, pCotField->name);
  if (hit == nullptr) {
    MD_LOG(3, "field %s not found\n", pCotField->name);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  if (hit - pInBuf > inBufLen) {
    MD_LOG(3, "field %s out of slice. \n", pCotField->name);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  const char* openQuote = strchr(hit, '"');
  if (openQuote == nullptr) {
    MD_LOG(3, "field %s not found open \"\n", pCotField->name);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  const char* closeQuote = strchr(openQuote + 1, '"');
  if (closeQuote == nullptr) {
    MD_LOG(3, "field %s not found close \"\n", pCotField->name);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  const size_t length = static_cast<size_t>(closeQuote - openQuote - 1);
  if (length > kCotValueSize) {
    MD_LOG(3, "field %s found invalid value length 0x%x\n", pCotField->name, static_cast<UINT>(length));
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  memcpy(pCotField->valueStr, openQuote + 1, length);
  if (length < kCotValueSize) pCotField->valueStr[length] = '\0';
  pCotField->valueLen = static_cast<int32_t>(length);
  pCotField->flag = 1;
  return CVT_COTKLV_STATUS_OK;
}

// Copies the row to *field and looks the attribute up.
inline bool SlowFindField(const CotSlice& slice, const cvtCotField& row, cvtCotField* field) {
  *field = row;
  SlowGetCotField(slice.text, static_cast<int32_t>(slice.length), field);
  if (field->flag != 1) return false;
  MD_LOG(7, "Found cotField: name = %s\n", field->name);
  return true;
}

// Returns the decimal number in a group of characters, 0 if the text ends before it.
inline int SlowDateGroup(const char* text, size_t textLength, size_t offset, size_t length) {
  char group[8] = "0000000";
  if (offset >= textLength) return 0;
  if (length > textLength - offset) length = textLength - offset;
  memcpy(group, text + offset, length);
  group[length] = '\0';
  return static_cast<int>(strtol(group, nullptr, 10));
}

// Reads YYYY-MM-DDTHH:MM:SS by position; the characters between the groups are not checked.
inline int SlowStrptime(const char* timeStr, struct tm* pTm) {
  memset(pTm, 0, sizeof(*pTm));
  const size_t length = strlen(timeStr);
  const int year = SlowDateGroup(timeStr, length, 0, 4);
  const int month = SlowDateGroup(timeStr, length, 5, 2);
  const int day = SlowDateGroup(timeStr, length, 8, 2);
  const int hour = SlowDateGroup(timeStr, length, 11, 2);
  const int minutes = SlowDateGroup(timeStr, length, 14, 2);
  const int seconds = SlowDateGroup(timeStr, length, 17, 2);
  if (year < 1900) return -1;
  if (month < 1 || month > 12) return -1;
  if (day < 1 || day > 31) return -1;
  if (hour < 0 || hour > 23) return -1;
  if (minutes < 0 || minutes > 59) return -1;
  if (seconds < 0 || seconds > 60) return -1;  // 60 is a leap second
  pTm->tm_year = year - 1900;
  pTm->tm_mon = month - 1;
  pTm->tm_mday = day;
  pTm->tm_hour = hour;
  pTm->tm_min = minutes;
  pTm->tm_sec = seconds;
  return 0;
}

// the fraction is the two characters after the point, read as hundredths (".5Z" is 50 ms), and the time is local
// even if a zone follows it.
inline int SlowGetUSecs(const char* timeStr, uint64_t* uSecs) {
  struct tm fields;
  int hundredths = 0;
  const char* point = strchr(timeStr, '.');
  if (point != nullptr) {
    if (point - timeStr > 20) {
      MD_LOG(3, "str is too long, len = 0x%x\n", static_cast<UINT>(point - timeStr));
      return -1;
    }
    if (SlowStrptime(timeStr, &fields) != 0) {
      MD_LOG(3, "failed in cvt_strptime() with decimal!\n");
      return -1;
    }
    hundredths = SlowDateGroup(point, strlen(point), 1, 2);
  } else if (SlowStrptime(timeStr, &fields) != 0) {
    MD_LOG(3, "failed in cvt_strptime()!\n");
    return -1;
  }
  const time_t seconds = mktime(&fields);
  if (seconds == -1) {
    MD_LOG(3, "failed in mktime()\n");
    return -1;
  }
  const int64_t microseconds = int64_t{seconds} * 1000000 + int64_t{hundredths} * 10000;
  *uSecs = htobe64(static_cast<uint64_t>(microseconds));
  return 0;
}

// the month is not reduced by one, and the year by 1970 instead of 1900. The result only serves to
// order times.
inline void SlowConvertTimeString(const char* szTime, struct timeval* pOutTime) {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minutes = 0;
  int seconds = 0;
  int hundredths = 0;
  (void)sscanf(szTime, "%04d-%02d-%02dT%02d:%02d:%02d.%02dZ", &year, &month, &day, &hour, &minutes, &seconds,
               &hundredths);
  struct tm fields;
  memset(&fields, 0, sizeof(fields));
  fields.tm_sec = seconds;
  fields.tm_min = minutes;
  fields.tm_hour = hour;
  fields.tm_mday = day;
  fields.tm_mon = month;
  fields.tm_year = year - 1970;
  pOutTime->tv_sec = mktime(&fields);
  pOutTime->tv_usec = hundredths * 10000;
  MD_LOG(7, "RECONSTITUTED TIME=%04d-%02d-%02dT%02d:%02d:%02d.%02dZ.\n", year, fields.tm_mon, fields.tm_mday,
         fields.tm_hour, fields.tm_min, fields.tm_sec, hundredths);
  MD_LOG(7, "Resulting time %lu sec,%lu usecs.\n", static_cast<unsigned long>(pOutTime->tv_sec),
         static_cast<unsigned long>(pOutTime->tv_usec));
}

#endif  // COT_TEXT_SLOW_FORMS_H
