// SPDX-License-Identifier: Apache-2.0
// The capture of CoT XML. See the header for threads and the lock.
#include "md_xml_log.h"

#include <errno.h>
#include <time.h>

#include "host_util.h"
#include "md_atomic.h"

// The line about a failed write carries the name of the serial CoT link.
#define MD_MODULE "cot_support"
#include "md_log.h"

constinit MdMutex _g_XMLOutLock;
FILE* g_XMLOutFP = nullptr;
int32_t g_nXMLEventCount = 0;

void _ReplaceXMLOutFile(FILE* file) {
  MdLock lock(_g_XMLOutLock);
  if (g_XMLOutFP != nullptr) fclose(g_XMLOutFP);
  g_XMLOutFP = file;
}

// The file's error flag shows whether a failure was already reported: one line per file, not per event.
static bool _IsNewWriteError(FILE* fp, int errorBefore) {
  return errorBefore == 0 && ferror(fp) != 0;
}

static void _ReportXMLLogError(int error) {
  errno = error;
  MD_LOG_ERRNO(3, "Unable to write to the XML event log, errno=%d, \"%s\".\n");
}

// KEPT: the message is written as text up to, but without, its last byte.
void _LogXMLEvent(MDATA_BUFFER* buffer) {
  bool failed = false;
  int error = 0;
  {
    MdLock lock(_g_XMLOutLock);
    if (g_XMLOutFP == nullptr) return;
    const int errorBefore = ferror(g_XMLOutFP);
    const int32_t event = MdAddFetch(g_nXMLEventCount, 1);
    char timeText[40];
    fprintf(g_XMLOutFP, "XML Event #%d at %s\n", event, GenTimeStamp(time(nullptr), timeText, sizeof(timeText)));
    BYTE* last = buffer->pcData + buffer->nDataSize - 1;
    const BYTE lastByte = *last;
    *last = 0;
    fprintf(g_XMLOutFP, "%s\n\n", reinterpret_cast<const char*>(buffer->pcData));
    error = errno;
    *last = lastByte;
    failed = _IsNewWriteError(g_XMLOutFP, errorBefore);
  }
  if (failed) _ReportXMLLogError(error);
}

void _LogLostXMLEvent(ULONG number) {
  bool failed = false;
  int error = 0;
  {
    MdLock lock(_g_XMLOutLock);
    if (g_XMLOutFP == nullptr) return;
    const int errorBefore = ferror(g_XMLOutFP);
    fprintf(g_XMLOutFP, "\nLOST XML Event #%lu\n", number);
    error = errno;
    // KEPT: a lost event has a number too, so the next event's number is two higher than the last one's.
    MdAddFetch(g_nXMLEventCount, 1);
    failed = _IsNewWriteError(g_XMLOutFP, errorBefore);
  }
  if (failed) _ReportXMLLogError(error);
}
