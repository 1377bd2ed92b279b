// The capture of CoT XML: a text file with every event that arrives over a serial CoT link, numbered, and a line for
// each one that was lost.
//
// Encoder threads open and close the file with their sources; the metadata thread writes the events. Everything here is
// under _g_XMLOutLock, a leaf lock: no other lock is taken and no line is logged while it is held.
#ifndef MD_XML_LOG_H
#define MD_XML_LOG_H

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>

#include "metadata_lib.h"

extern pthread_mutex_t _g_XMLOutLock;
extern FILE* g_XMLOutFP;          // the capture, or NULL; under _g_XMLOutLock
extern int32_t g_nXMLEventCount;  // events in the capture so far, lost ones included; written under _g_XMLOutLock

// Closes the capture and replaces it by a file that this module owns from here on, or by none if the file is NULL.
void _ReplaceXMLOutFile(FILE* file);

// Writes an ARQ message, header included, as the next event. Does nothing without a capture. The message is not empty
// and is unchanged when the call returns.
void _LogXMLEvent(MDATA_BUFFER* buffer);

// Writes that an event was lost; number counts the corrupted messages of its source.
void _LogLostXMLEvent(ULONG number);

#endif  // MD_XML_LOG_H
