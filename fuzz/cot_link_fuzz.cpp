// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary bytes to the serial Cursor-on-Target decoder in arbitrary pieces. Every byte must be counted, and the
// decoder must not deliver more bytes than it was fed.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>

#include "cot_support.h"

namespace {

size_t g_nDelivered = 0;
volatile unsigned g_nSum = 0;  // makes sure that every delivered byte is read

void OnMessage(MDATA_BUFFER* pBuff, void*) {
  unsigned nSum = 0;
  for (int i = 0; i < pBuff->nDataSize; i++) nSum += pBuff->pcData[i];
  g_nSum = nSum;
  g_nDelivered += static_cast<size_t>(pBuff->nDataSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pcData, size_t nSize) {
  if (nSize == 0) return 0;
  void* pvCtxt = nullptr;
  if (!AllocCotDecodeContext(&pvCtxt, OnMessage, nullptr)) return 0;
  g_nDelivered = 0;
  const size_t nPiece = static_cast<size_t>(pcData[0]) * 16 + 1;
  for (size_t nAt = 1; nAt < nSize; nAt += nPiece) {
    COT_ProcessRxData(pvCtxt, pcData + nAt, static_cast<int>(std::min(nPiece, nSize - nAt)));
  }
  COT_STATS stats = {};
  COT_GetStats(pvCtxt, &stats);
  if (stats.nTotalRxBytes != nSize - 1) abort();
  if (g_nDelivered > nSize) abort();
  FreeCotDecodeContext(&pvCtxt);
  return 0;
}
