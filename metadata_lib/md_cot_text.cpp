// The text of Cursor-on-Target events. See the header for threads.
//
// Contents
//   1. XML
//   2. Times
#include "md_cot_text.h"

#include <endian.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>

#include "host_util.h"

#define MD_MODULE "converter"
#define MD_DEBUG_HANDLE g_hCoTConvDbg
#include "md_log.h"

// =====================================================================================================
// 1. XML
// =====================================================================================================

// KEPT: the markers are searched up to the end of the text, not of the slice; every success says "event end".
CVT_COTKLV_STATUS xml_getTagSlice(const char* pInBuf, uint32_t inBufLen, const char* startTag, const char* endTag,
                                  const char** pSlice, uint32_t* sliceLen) {
  *sliceLen = 0;
  if (pInBuf == nullptr || startTag == nullptr || endTag == nullptr || inBufLen < kShortestText) {
    MD_LOG(3, "invalid input\n");
    return CVT_COTKLV_STATUS_INVALID_INPUT;
  }
  const char* pStart = strstr(pInBuf, startTag);
  if (pStart == nullptr) {
    MD_LOG(7, "slice %s not found\n", startTag);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  *pSlice = pStart;
  const char* pEnd = strstr(pStart, endTag);
  if (pEnd == nullptr) {
    MD_LOG(4, "slice %s not found\n", endTag);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  *sliceLen = static_cast<uint32_t>(pEnd - pStart);
  if (*sliceLen > inBufLen) {
    MD_LOG(3, "found slice, but length is out of buffer\n");
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  MD_LOG(7, "Found event end: sliceLen = 0x%x\n", *sliceLen);
  return CVT_COTKLV_STATUS_OK;
}

// KEPT: the name is bare text that also hits inside a longer word, a hit exactly inBufLen characters in counts, and only
// double quotes are quotes.
CVT_COTKLV_STATUS xml_getCotFieldInTagSlice(const char* pInBuf, int32_t inBufLen, cvtCotField* pCotField) {
  if (pCotField != nullptr) pCotField->flag = 0;
  if (pInBuf == nullptr || pCotField == nullptr || inBufLen < static_cast<int32_t>(kShortestText)) {
    MD_LOG(3, "invalid input\n");
    return CVT_COTKLV_STATUS_INVALID_INPUT;
  }
  const char* pHit = strstr(pInBuf, pCotField->name);
  if (pHit == nullptr) {
    MD_LOG(3, "field %s not found\n", pCotField->name);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  if (pHit - pInBuf > inBufLen) {
    MD_LOG(3, "field %s out of slice. \n", pCotField->name);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  const char* pOpen = strchr(pHit, '"');
  if (pOpen == nullptr) {
    MD_LOG(3, "field %s not found open \"\n", pCotField->name);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  const char* pClose = strchr(pOpen + 1, '"');
  if (pClose == nullptr) {
    MD_LOG(3, "field %s not found close \"\n", pCotField->name);
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  const size_t nLength = static_cast<size_t>(pClose - pOpen - 1);
  if (nLength > kCotValueSize) {
    MD_LOG(3, "field %s found invalid value length 0x%x\n", pCotField->name, static_cast<UINT>(nLength));
    return CVT_COTKLV_STATUS_NOT_FOUND;
  }
  memcpy(pCotField->valueStr, pOpen + 1, nLength);
  if (nLength < kCotValueSize) pCotField->valueStr[nLength] = '\0';
  pCotField->valueLen = static_cast<int32_t>(nLength);
  pCotField->flag = 1;
  return CVT_COTKLV_STATUS_OK;
}

bool _FindField(const CotSlice& slice, const cvtCotField& row, cvtCotField* pField) {
  *pField = row;
  xml_getCotFieldInTagSlice(slice.pText, static_cast<int32_t>(slice.nLength), pField);
  if (pField->flag != 1) return false;
  MD_LOG(7, "Found cotField: name = %s\n", pField->name);
  return true;
}

bool _FindSlice(const CotSlice& whole, const char* szStart, const char* szEnd, CotSlice* pSlice) {
  return xml_getTagSlice(whole.pText, whole.nLength, szStart, szEnd, &pSlice->pText, &pSlice->nLength) ==
         CVT_COTKLV_STATUS_OK;
}

bool _LookUp(const CotSlice& slice, const char* szName, cvtCotField* pField) {
  memset(pField, 0, sizeof(*pField));
  CopyString(pField->name, szName, sizeof(pField->name));
  return xml_getCotFieldInTagSlice(slice.pText, static_cast<int32_t>(slice.nLength), pField) == CVT_COTKLV_STATUS_OK;
}

// =====================================================================================================
// 2. Times
// =====================================================================================================

// The decimal number in a group of characters; 0 where the text ends before it.
static int _DateGroup(const char* szText, size_t nTextLength, size_t nOffset, size_t nLength) {
  char szGroup[8] = "0000000";
  if (nOffset >= nTextLength) return 0;
  if (nLength > nTextLength - nOffset) nLength = nTextLength - nOffset;
  memcpy(szGroup, szText + nOffset, nLength);
  szGroup[nLength] = '\0';
  return static_cast<int>(strtol(szGroup, nullptr, 10));
}

// YYYY-MM-DDTHH:MM:SS by position; what stands between the groups does not matter.
int cvt_strptime(const char* timeStr, struct tm* pTm) {
  memset(pTm, 0, sizeof(*pTm));
  const size_t nLength = strlen(timeStr);
  const int nYear = _DateGroup(timeStr, nLength, 0, 4);
  const int nMonth = _DateGroup(timeStr, nLength, 5, 2);
  const int nDay = _DateGroup(timeStr, nLength, 8, 2);
  const int nHour = _DateGroup(timeStr, nLength, 11, 2);
  const int nMinutes = _DateGroup(timeStr, nLength, 14, 2);
  const int nSeconds = _DateGroup(timeStr, nLength, 17, 2);
  if (nYear < 1900) return -1;
  if (nMonth < 1 || nMonth > 12) return -1;
  if (nDay < 1 || nDay > 31) return -1;
  if (nHour < 0 || nHour > 23) return -1;
  if (nMinutes < 0 || nMinutes > 59) return -1;
  if (nSeconds < 0 || nSeconds > 60) return -1;  // 60 is a leap second
  pTm->tm_year = nYear - 1900;
  pTm->tm_mon = nMonth - 1;
  pTm->tm_mday = nDay;
  pTm->tm_hour = nHour;
  pTm->tm_min = nMinutes;
  pTm->tm_sec = nSeconds;
  return 0;
}

// KEPT: the fraction is the two characters after the point read as hundredths (".5Z" is 50 ms), and the time is local
// whatever follows it.
int cvt_getUSecsFromTimeStr(const char* timeStr, uint64_t* uSecs) {
  struct tm Tm;
  int nHundredths = 0;
  const char* pPoint = strchr(timeStr, '.');
  if (pPoint != nullptr) {
    if (pPoint - timeStr > 20) {
      MD_LOG(3, "str is too long, len = 0x%x\n", static_cast<UINT>(pPoint - timeStr));
      return -1;
    }
    if (cvt_strptime(timeStr, &Tm) != 0) {
      MD_LOG(3, "failed in cvt_strptime() with decimal!\n");
      return -1;
    }
    nHundredths = _DateGroup(pPoint, strlen(pPoint), 1, 2);
  } else if (cvt_strptime(timeStr, &Tm) != 0) {
    MD_LOG(3, "failed in cvt_strptime()!\n");
    return -1;
  }
  const time_t nSeconds = mktime(&Tm);
  if (nSeconds == -1) {
    MD_LOG(3, "failed in mktime()\n");
    return -1;
  }
  const int64_t nMicroseconds = int64_t{nSeconds} * 1000000 + int64_t{nHundredths} * 10000;
  *uSecs = htobe64(static_cast<uint64_t>(nMicroseconds));
  return 0;
}

// KEPT: the month is not reduced by one, and the year by 1970 instead of 1900. The result orders times, no more.
void ConvertTimeString(const char* szTime, struct timeval* pOutTime) {
  int nYear = 0;
  int nMonth = 0;
  int nDay = 0;
  int nHour = 0;
  int nMinutes = 0;
  int nSeconds = 0;
  int nHundredths = 0;
  (void)sscanf(szTime, "%04d-%02d-%02dT%02d:%02d:%02d.%02dZ", &nYear, &nMonth, &nDay, &nHour, &nMinutes, &nSeconds,
               &nHundredths);
  struct tm Tm;
  memset(&Tm, 0, sizeof(Tm));
  Tm.tm_sec = nSeconds;
  Tm.tm_min = nMinutes;
  Tm.tm_hour = nHour;
  Tm.tm_mday = nDay;
  Tm.tm_mon = nMonth;
  Tm.tm_year = nYear - 1970;
  pOutTime->tv_sec = mktime(&Tm);
  pOutTime->tv_usec = nHundredths * 10000;
  MD_LOG(7, "RECONSTITUTED TIME=%04d-%02d-%02dT%02d:%02d:%02d.%02dZ.\n", nYear, Tm.tm_mon, Tm.tm_mday, Tm.tm_hour,
         Tm.tm_min, Tm.tm_sec, nHundredths);
  MD_LOG(7, "Resulting time %lu sec,%lu usecs.\n", static_cast<unsigned long>(pOutTime->tv_sec),
         static_cast<unsigned long>(pOutTime->tv_usec));
}
