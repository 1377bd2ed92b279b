// SPDX-License-Identifier: Apache-2.0
// The delivery of a message: its rewriting, the stream header, the output rate, the ready callback.
//
// The five receive paths are five functions of metadata_api.cpp that read top to bottom, because the order of their
// steps is the behaviour. They share two steps, _RewriteOnPath and _Deliver, and each path has one row of PathTexts
// with the differences in these steps. Metadata thread; the message belongs to the caller.
#ifndef MD_DELIVERY_H
#define MD_DELIVERY_H

#include <time.h>

#include "md_guard.h"
#include "md_mutex.h"
#include "md_source.h"
#include "metadata_lib.h"

// The differences between the paths, above all the texts that operators search the log for.
struct PathTexts {
  int substitutedLevel;         // dump of a rewritten message
  const char* substituted;      // its title
  const char* nothingLeft;      // assertion if a tag filter leaves nothing of a message, or NULL
  int completeLevel;            // line before the delivery, or kNoLine
  int dumpLevel;                // dump before the delivery, or kNoLine
  const char* dump;             // its title
  bool dumpHeader;              // it includes the stream header
  const char* callbackMissing;  // assertion if the source has no callback
  bool sequenceIfTaken;         // the sequence number moves after the call, if the encoder took the buffer; otherwise
                                // before the call, regardless of its result
};

inline constexpr int kNoLine = -1;
inline constexpr int kLowestDeliveryLevel = 6;  // of every path's line and dump before the delivery

inline constexpr PathTexts kKLVSerialTexts = {.substitutedLevel = 6,
                                              .substituted = "Substituted Serial KLV Message",
                                              .nothingLeft = "pSubstBuff != NULL",
                                              .completeLevel = 6,
                                              .dumpLevel = 7,
                                              .dump = "Streamer KLV AU",
                                              .dumpHeader = true,
                                              .callbackMissing = "pHandle->Config.pfnCallback != NULL",
                                              .sequenceIfTaken = false};

inline constexpr PathTexts kKLVUDPTexts = {.substitutedLevel = 7,
                                           .substituted = "Substituted KLV over UDP Message",
                                           .nothingLeft = "pUserBuff != NULL",
                                           .completeLevel = 7,
                                           .dumpLevel = 7,
                                           .dump = "Streamer KLV AU",
                                           .dumpHeader = true,
                                           .callbackMissing = "hSource->Config.pfnCallback != NULL",
                                           .sequenceIfTaken = false};

// KEPT: the packet after a refused one has the same sequence number.
inline constexpr PathTexts kVideoTexts = {.substitutedLevel = 6,
                                          .substituted = "Substituted HD-SDI KLV Message",
                                          .nothingLeft = nullptr,
                                          .completeLevel = kNoLine,
                                          .dumpLevel = kNoLine,
                                          .dump = nullptr,
                                          .dumpHeader = false,
                                          .callbackMissing = "hSource->Config.pfnCallback != NULL",
                                          .sequenceIfTaken = true};

// KEPT: a rewritten packet is dumped under the video path's title, here and below.
inline constexpr PathTexts kCoTSerialTexts = {.substitutedLevel = 6,
                                              .substituted = "Substituted HD-SDI KLV Message",
                                              .nothingLeft = "pSubstBuff != NULL",
                                              .completeLevel = kNoLine,
                                              .dumpLevel = 6,
                                              .dump = "Converted Streamer KLV Message",
                                              .dumpHeader = false,
                                              .callbackMissing = "pHandle->Config.pfnCallback != NULL",
                                              .sequenceIfTaken = false};

inline constexpr PathTexts kCoTUDPTexts = {.substitutedLevel = 6,
                                           .substituted = "Substituted HD-SDI KLV Message",
                                           .nothingLeft = "pSubstBuff != NULL",
                                           .completeLevel = 7,
                                           .dumpLevel = 7,
                                           .dump = "Streamer KLV AU",
                                           .dumpHeader = true,
                                           .callbackMissing = "hSource->Config.pfnCallback != NULL",
                                           .sequenceIfTaken = false};

constexpr bool _LogsDeliveryFrom(int level, const PathTexts& texts) {
  return (texts.completeLevel == kNoLine || texts.completeLevel >= level) &&
         (texts.dumpLevel == kNoLine || texts.dumpLevel >= level);
}
static_assert(_LogsDeliveryFrom(kLowestDeliveryLevel, kKLVSerialTexts) &&
              _LogsDeliveryFrom(kLowestDeliveryLevel, kKLVUDPTexts) &&
              _LogsDeliveryFrom(kLowestDeliveryLevel, kVideoTexts) &&
              _LogsDeliveryFrom(kLowestDeliveryLevel, kCoTSerialTexts) &&
              _LogsDeliveryFrom(kLowestDeliveryLevel, kCoTUDPTexts));

// The outcome of rewriting a message.
enum class Rewritten {
  Unchanged,  // the message continues as received
  Replaced,   // a new buffer continues in its place
  Dropped     // nothing is left to send
};

extern time_t _tLastLog MD_GUARDED_BY(kMetadataThread);  // short-KLV warning, one time for the whole library

// Returns whether the source inserts or filters anything.
inline bool _WantsRewriting(MDATA_SRC_HANDLE hSource) {
  return hSource->pMissionID != nullptr || hSource->pSecurityMDataSet != nullptr || hSource->Config.bFilterUASTags ||
         hSource->Config.bFilterUASSecurityTags;
}

// Rewrites a message if it is a whole UAS Local Set. Returns TRUE with the new buffer in *ppNewBuff, or NULL there if
// nothing is left to send; *pnNewSize, unless pnNewSize is NULL, is its size. Returns FALSE if the message continues
// unchanged.
BOOL _ProcessRxKLV(MDATA_SRC_HANDLE hSource, BYTE* pcData, int nSize, MDATA_BUFFER** ppNewBuff, int* pnNewSize)
    MD_REQUIRES(kMetadataThread);

// Rewrites a message if the source asks for it. A new buffer replaces the reference in buffer, which may be the message
// itself; with Dropped buffer is empty afterwards, with Unchanged it is not changed.
Rewritten _RewriteOnPath(MDATA_SRC_HANDLE hSource, const PathTexts& texts, BYTE* data, int size, MdBufferRef& buffer)
    MD_REQUIRES(kMetadataThread);

// Feeds the running total to the rate counter, once per wall-clock second.
void _FeedOutputRate(MDATA_SRC_HANDLE hSource, UINT64 runningTotal, time_t now) MD_REQUIRES(kMetadataThread);

// Writes the stream header, with this length, into the reserve in front of the message and calls the encoder. Returns
// the encoder's result.
bool _Deliver(MDATA_SRC_HANDLE hSource, const PathTexts& texts, MDATA_BUFFER* buffer, int headerLength)
    MD_REQUIRES(kMetadataThread);

#endif  // MD_DELIVERY_H
