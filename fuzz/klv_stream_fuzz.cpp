// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary bytes to the KLV stream decoder in arbitrary pieces, sometimes after a pause. Every byte must be
// counted, and every delivered message must have the length in its own length field, but no more bytes than were fed.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "generic_klv_support.h"

namespace {

UINT64 g_nMessages = 0;
size_t g_nDelivered = 0;

void Check(bool bCondition) {
  if (!bCondition) abort();
}

void OnMessage(MDATA_BUFFER* pBuff, void*) {
  const BYTE* pcData = pBuff->pcData;
  const int nSize = pBuff->nDataSize;
  Check(nSize >= 17);
  int nExpected = 17 + pcData[16];
  if (pcData[16] == 0x81) nExpected = 18 + pcData[17];
  if (pcData[16] == 0x82) nExpected = 19 + (pcData[17] << 8 | pcData[18]);
  Check(nSize == nExpected);
  g_nMessages++;
  g_nDelivered += static_cast<size_t>(nSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pcData, size_t nSize) {
  if (nSize < 2) return 0;
  void* pvCtxt = nullptr;
  if (!AllocKlvDecodeContext(&pvCtxt, OnMessage, nullptr)) return 0;
  g_nMessages = 0;
  g_nDelivered = 0;
  const size_t nPiece = static_cast<size_t>(pcData[0]) * 16 + 1;
  const size_t nPauseEvery = static_cast<size_t>(pcData[1]) + 1;
  size_t nPieces = 0;
  for (size_t nAt = 2; nAt < nSize; nAt += nPiece) {
    const std::vector<BYTE> piece(pcData + nAt, pcData + nAt + std::min(nPiece, nSize - nAt));
    if (++nPieces % nPauseEvery == 0) static_cast<KLV_DECODE_CONTEXT*>(pvCtxt)->MsgStartTime.tv_sec -= 1;
    GenericKLV_ProcessRxData(pvCtxt, piece.data(), static_cast<int>(piece.size()));
  }
  KLV_STATS stats = {};
  GenericKLV_GetStats(pvCtxt, &stats);
  Check(stats.nTotalRxBytes == nSize - 2);
  Check(stats.nRxOkMessages == g_nMessages);
  Check(g_nDelivered <= nSize - 2);
  FreeKlvDecodeContext(&pvCtxt);
  return 0;
}
