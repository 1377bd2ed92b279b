// SPDX-License-Identifier: Apache-2.0
// Converts arbitrary bytes as Cursor-on-Target events: the input's first byte selects the converter, the rest are
// events divided by NUL, so that pairs are found too. Every packet made must be a whole local set with a right
// checksum, with the stream header's reserve in front of it.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "converter.h"

namespace {

void Check(bool bCondition) {
  if (!bCondition) abort();
}

void CheckPacket(const MDATA_BUFFER* pBuffer, int nResult) {
  const BYTE* pcPacket = pBuffer->pcData;
  const BYTE* pcBlock = static_cast<const BYTE*>(pBuffer->pvAllocPtr);
  Check(pBuffer->nDataSize == nResult && nResult >= 17 + 10 + 4);
  Check(pcPacket - pcBlock >= static_cast<ptrdiff_t>(sizeof(MDATA_BUFFER) + MDATA_STREAM_HEADER_SIZE));
  Check(pcPacket + nResult <= pcBlock + pBuffer->nAllocSize);
  Check(memcmp(pcPacket, klvLDS16BytesKeySet, kCvtKeySize) == 0);
  int nAt = 17;
  int nLength = pcPacket[16];
  if (nLength > 0x80) {
    const int nBytes = nLength - 0x80;
    Check(nBytes <= 2);
    nLength = 0;
    for (int i = 0; i < nBytes; i++) nLength = nLength << 8 | pcPacket[nAt++];
  }
  Check(nAt + nLength == nResult);
  Check(pcPacket[nAt] == 2 && pcPacket[nAt + 1] == 8);
  while (nAt < nResult - 4) nAt += 2 + pcPacket[nAt + 1];
  Check(nAt == nResult - 4 && pcPacket[nAt] == 1 && pcPacket[nAt + 1] == 2);
  unsigned nSum = 0;
  for (int i = 0; i < nResult - 2; i++) nSum += i % 2 == 0 ? pcPacket[i] * 256u : pcPacket[i];
  Check((nSum & 0xFFFF) == pcPacket[nResult - 2] * 256u + pcPacket[nResult - 1]);
}

// The event is copied to a block of exactly its size, so that a read past its end is detected.
void Convert(HCONVERTER hConv, const std::vector<BYTE>& event) {
  MDATA_BUFFER* pBuffer = nullptr;
  const int nResult = ConvertCoT2KLV(hConv, event.data(), static_cast<int>(event.size()), &pBuffer);
  Check((pBuffer != nullptr) == (nResult > CVT_COTKLV_STATUS_MALLOC_FAIL));
  if (pBuffer == nullptr) return;
  CheckPacket(pBuffer, nResult);
  ReleaseConvertedData(pBuffer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pcData, size_t nSize) {
  static std::vector<float> grid(kGridValues, -17.25f);
  if (nSize == 0) return 0;
  _g_pGrid = (pcData[0] & 0x01) != 0 ? grid.data() : nullptr;
  _g_bAllItemsSupport = (pcData[0] & 0x02) != 0;
  HCONVERTER hConv = nullptr;
  Check(AllocCoT2KLVConvert(&hConv, 500000, (pcData[0] & 0x04) != 0 ? "SPI1" : "", (pcData[0] & 0x08) != 0));
  const uint8_t* pcEnd = pcData + nSize;
  for (const uint8_t* pcEvent = pcData + 1; pcEvent < pcEnd;) {
    const uint8_t* pcNext = std::find(pcEvent, pcEnd, uint8_t{0});
    Convert(hConv, {pcEvent, pcNext});
    AgeCoT2KLVSensors(hConv);
    pcEvent = pcNext == pcEnd ? pcEnd : pcNext + 1;
  }
  Convert(hConv, {pcData, pcEnd});  // converts all bytes as one event with embedded NULs
  MDATA_COT_STATS stats = {};
  GetCoT2KLVConvertStats(hConv, &stats);
  Check(stats.nDiscoveredSensorsCount >= 0 && stats.nDiscoveredSensorsCount <= MDATA_MAX_DISCOVERED_SENSORS);
  FreeCoT2KLVConvert(&hConv);
  _g_pGrid = nullptr;
  return 0;
}
