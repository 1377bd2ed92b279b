// The delivery of a message: its rewriting, the stream header, the output rate, the ready callback.
//
// The five receive paths are five functions of metadata_api.cpp that read top to bottom, because the order of their steps
// is the behaviour. What they have in common are two steps, _RewriteOnPath and _Deliver, and one row of PathTexts per path
// with what differs in them. Metadata thread; the message belongs to the caller.
#ifndef MD_DELIVERY_H
#define MD_DELIVERY_H

#include <time.h>

#include "md_guard.h"
#include "md_source.h"
#include "metadata_lib.h"

// What differs between the paths: above all the texts that operators look for.
struct PathTexts {
  int nSubstitutedLevel;          // dump of a rewritten message
  const char* szSubstituted;      // its title
  const char* szNothingLeft;      // assertion if a tag filter leaves nothing of a message; NULL raises none
  int nCompleteLevel;             // line before the delivery; kNoLine writes none
  int nDumpLevel;                 // dump before the delivery; kNoLine writes none
  const char* szDump;             // its title
  bool bDumpHeader;               // it includes the stream header
  const char* szCallbackMissing;  // assertion if the source has no callback
  bool bSequenceIfTaken;          // the sequence number moves after the call, if the encoder took the buffer; otherwise
                                  // before the call, whatever it answers
};

inline constexpr int kNoLine = -1;

inline constexpr PathTexts kKLVSerialTexts = {.nSubstitutedLevel = 6,
                                              .szSubstituted = "Substituted Serial KLV Message",
                                              .szNothingLeft = "pSubstBuff != NULL",
                                              .nCompleteLevel = 6,
                                              .nDumpLevel = 7,
                                              .szDump = "Streamer KLV AU",
                                              .bDumpHeader = true,
                                              .szCallbackMissing = "pHandle->Config.pfnCallback != NULL",
                                              .bSequenceIfTaken = false};

inline constexpr PathTexts kKLVUDPTexts = {.nSubstitutedLevel = 7,
                                           .szSubstituted = "Substituted KLV over UDP Message",
                                           .szNothingLeft = "pUserBuff != NULL",
                                           .nCompleteLevel = 7,
                                           .nDumpLevel = 7,
                                           .szDump = "Streamer KLV AU",
                                           .bDumpHeader = true,
                                           .szCallbackMissing = "hSource->Config.pfnCallback != NULL",
                                           .bSequenceIfTaken = false};

// KEPT: a refused packet leaves its sequence number to the next one.
inline constexpr PathTexts kVideoTexts = {.nSubstitutedLevel = 6,
                                          .szSubstituted = "Substituted HD-SDI KLV Message",
                                          .szNothingLeft = nullptr,
                                          .nCompleteLevel = kNoLine,
                                          .nDumpLevel = kNoLine,
                                          .szDump = nullptr,
                                          .bDumpHeader = false,
                                          .szCallbackMissing = "hSource->Config.pfnCallback != NULL",
                                          .bSequenceIfTaken = true};

// KEPT: a rewritten packet is dumped under the video path's title, here and below.
inline constexpr PathTexts kCoTSerialTexts = {.nSubstitutedLevel = 6,
                                              .szSubstituted = "Substituted HD-SDI KLV Message",
                                              .szNothingLeft = "pSubstBuff != NULL",
                                              .nCompleteLevel = kNoLine,
                                              .nDumpLevel = 6,
                                              .szDump = "Converted Streamer KLV Message",
                                              .bDumpHeader = false,
                                              .szCallbackMissing = "pHandle->Config.pfnCallback != NULL",
                                              .bSequenceIfTaken = false};

inline constexpr PathTexts kCoTUDPTexts = {.nSubstitutedLevel = 6,
                                           .szSubstituted = "Substituted HD-SDI KLV Message",
                                           .szNothingLeft = "pSubstBuff != NULL",
                                           .nCompleteLevel = 7,
                                           .nDumpLevel = 7,
                                           .szDump = "Streamer KLV AU",
                                           .bDumpHeader = true,
                                           .szCallbackMissing = "hSource->Config.pfnCallback != NULL",
                                           .bSequenceIfTaken = false};

// What becomes of a message.
enum class Rewritten {
  Unchanged,  // goes on as it is
  Replaced,   // by a new buffer
  Dropped     // nothing is left to send
};

extern time_t _tLastLog;  // short-KLV warning, one time for the whole library; metadata thread only

// Whether the source inserts or filters anything.
bool _WantsRewriting(MDATA_SRC_HANDLE hSource);

// Has a message rewritten if it is a whole UAS Local Set. Returns TRUE with the new buffer in *ppNewBuff, or with none if
// nothing is left; *pnNewSize, unless pnNewSize is NULL, is its size. Returns FALSE if the message is to go on unchanged.
BOOL _ProcessRxKLV(MDATA_SRC_HANDLE hSource, BYTE* pcData, int nSize, MDATA_BUFFER** ppNewBuff, int* pnNewSize);

// Rewrites a message where the source asks for it. A new buffer replaces what Buffer holds, which may be the message
// itself; with Dropped it holds nothing. With Unchanged it is left as it is.
Rewritten _RewriteOnPath(MDATA_SRC_HANDLE hSource, const PathTexts& Texts, BYTE* pcData, int nSize,
                         MdBufferRef& Buffer);

// Gives the rate counter the running total, once per wall-clock second.
void _FeedOutputRate(MDATA_SRC_HANDLE hSource, UINT64 nRunningTotal, time_t tNow);

// Writes the stream header, with this length, into the reserve in front of the message and calls the encoder. Returns
// what it answers.
BOOL _Deliver(MDATA_SRC_HANDLE hSource, const PathTexts& Texts, MDATA_BUFFER* pBuff, int nHeaderLength);

#endif  // MD_DELIVERY_H
