// The capture of CoT XML: a text file with every event that arrives over a serial CoT link, numbered, and a line for
// each one that was lost.
//
// The file is opened and closed with sources, on encoder threads; events are written by the metadata thread. Everything
// here is under _g_XMLOutLock, a leaf lock: nothing else is taken while it is held, and no line is logged.
#ifndef MD_XML_LOG_H
#define MD_XML_LOG_H

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>

#include "metadata_lib.h"

extern pthread_mutex_t _g_XMLOutLock;
extern FILE* g_XMLOutFP;          // the capture, or NULL; under _g_XMLOutLock
extern int32_t g_nXMLEventCount;  // events in the capture so far, lost ones included; written under _g_XMLOutLock

// Replaces the capture by a file that this module owns from here on, and closes the one before. NULL only closes.
void _ReplaceXMLOutFile(FILE* pFile);

// Writes an ARQ message, header included, as the next event. Does nothing without a capture. The message is not empty,
// and unchanged when the call returns.
void _LogXMLEvent(MDATA_BUFFER* pBuff);

// Writes that an event was lost: the nCorrupted-th corrupted message of its source.
void _LogLostXMLEvent(ULONG nCorrupted);

#endif  // MD_XML_LOG_H
