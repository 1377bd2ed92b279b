// SPDX-License-Identifier: Apache-2.0
// The capture of CoT XML: a text file with every event that arrives over a serial CoT link, numbered, and a line for
// each one that was lost.
//
// Encoder threads open and close the file with their sources; the metadata thread writes the events. Everything here is
// under _g_XMLOutLock, a leaf lock: no other lock is taken and no line is logged while it is held.
#ifndef MD_XML_LOG_H
#define MD_XML_LOG_H

#include <stdint.h>
#include <stdio.h>

#include "md_mutex.h"
#include "metadata_lib.h"

extern MdMutex _g_XMLOutLock;
extern FILE* g_XMLOutFP MD_GUARDED_BY(_g_XMLOutLock) MD_PT_GUARDED_BY(_g_XMLOutLock);  // the capture, or NULL
extern int32_t g_nXMLEventCount MD_GUARDED_BY(_g_XMLOutLock);  // events in the capture so far, lost ones included

// Closes the capture and replaces it by a file that this module owns from here on, or by none if the file is NULL.
void _ReplaceXMLOutFile(FILE* file) MD_EXCLUDES(_g_XMLOutLock);

// Writes an ARQ message, header included, as the next event. Does nothing without a capture. The message is not empty
// and is unchanged when the call returns.
void _LogXMLEvent(MDATA_BUFFER* buffer) MD_EXCLUDES(_g_XMLOutLock);

// Writes that an event was lost; number counts the corrupted messages of its source.
void _LogLostXMLEvent(ULONG number) MD_EXCLUDES(_g_XMLOutLock);

#endif  // MD_XML_LOG_H
