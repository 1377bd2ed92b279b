// SPDX-License-Identifier: Apache-2.0
// The text of Cursor-on-Target events: slices and attributes of XML, and times.
//
// Nothing builds a tree of the XML: all searches are plain substring searches on a terminated text.
//
// Metadata thread; ConvertTimeString on any thread. The only state is the process's time zone, with the answers of the
// last half second. Log lines carry the converter's name.
#ifndef MD_COT_TEXT_H
#define MD_COT_TEXT_H

#include <stdint.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include "md_mutex.h"

enum CVT_COTKLV_STATUS : int32_t {
  CVT_COTKLV_STATUS_OK = 0,
  CVT_COTKLV_STATUS_INVALID_INPUT = 1,  // null pointer, or 9 bytes or fewer
  CVT_COTKLV_STATUS_NOT_FOUND = 2,      // marker, attribute or quote missing, or a length limit exceeded
  CVT_COTKLV_STATUS_MALLOC_FAIL = 3
};

inline constexpr int kCotValueSize = 64;
inline constexpr uint32_t kShortestText = 10;  // characters; shorter texts are not searched

// One attribute to look up. A value of exactly 64 characters is not terminated: read it through CotText.
struct cvtCotField {
  char name[16];
  char valueStr[kCotValueSize];
  int32_t valueLen;
  int32_t mapId;  // row in its table
  int32_t flag;   // 1 after a successful look-up
};

// A stretch of a terminated text.
struct CotSlice {
  const char* text = nullptr;
  uint32_t length = 0;
};

// Terminated copy of an attribute's value, of up to 64 characters.
class CotText {
 public:
  explicit CotText(const CotSlice& value) {
    memcpy(m_text, value.text, value.length);
    m_text[value.length] = '\0';
  }
  explicit CotText(const char (&value)[kCotValueSize]) {
    memcpy(m_text, value, kCotValueSize);
    m_text[kCotValueSize] = '\0';
  }
  const char* Get() const { return m_text; }

 private:
  char m_text[kCotValueSize + 1];
};

// --- XML ---------------------------------------------------------------------------------------------

CVT_COTKLV_STATUS xml_getTagSlice(const char* pInBuf, uint32_t inBufLen, const char* startTag, const char* endTag,
                                  const char** pSlice, uint32_t* sliceLen);
CVT_COTKLV_STATUS xml_getCotFieldInTagSlice(const char* pInBuf, int32_t inBufLen, cvtCotField* pCotField);

// Finds the slice of a text from a start marker up to, but without, the next end marker. On failure *slice may already
// hold the start.
bool _FindSlice(const CotSlice& whole, const char* start, const char* end, CotSlice* slice);
// Logs that a slice was found, in place of finding it again.
void _LogFoundSlice(const CotSlice& slice);
// Looks up an attribute in a slice that _FindSlice found, as xml_getCotFieldInTagSlice does, without copying its value.
// Changes nothing on failure.
bool _LookUp(const CotSlice& slice, const char* name, CotSlice* value);
// Looks up a row's attribute and logs that it was found.
bool _FindField(const CotSlice& slice, const cvtCotField& row, CotSlice* value);

// --- Times -------------------------------------------------------------------------------------------

// Returns 0, or -1 if the text does not begin with a date.
int cvt_strptime(const char* timeStr, struct tm* pTm);
// Stores microseconds since 1970, big-endian. Returns 0, or -1 leaving *uSecs unchanged.
int cvt_getUSecsFromTimeStr(const char* timeStr, uint64_t* uSecs);
// Does what ConvertTimeString does, without asking the time zone again about a minute it was asked about just before.
void _OrderTime(const char* text, struct timeval* time) MD_REQUIRES(kMetadataThread);

#endif  // MD_COT_TEXT_H
