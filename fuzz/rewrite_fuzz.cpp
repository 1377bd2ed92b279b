// SPDX-License-Identifier: Apache-2.0
// Rewrites arbitrary bytes as a UAS Local Set under an arbitrary configuration, with tags of one byte and with BER-OID
// tags. Every message made must be complete, with a correct checksum, in the shortest length form, and with the
// reserved bytes of the stream header in front of it.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <vector>

#include "md_source.h"
#include "metadata_lib.h"
#include "misb0601_tools.h"

namespace {

// Reads the configuration from the front of the input. Returns zeroes at the end of the input.
class Input {
 public:
  Input(const uint8_t* pcData, size_t nSize) : m_pcData(pcData), m_nSize(nSize) {}
  BYTE Byte() {
    if (m_nSize == 0) return 0;
    m_nSize--;
    return *m_pcData++;
  }
  UINT32 Word() {
    UINT32 nWord = 0;
    for (int i = 0; i < 4; i++) nWord = (nWord << 8) | Byte();
    return nWord;
  }
  std::vector<BYTE> Rest() const { return {m_pcData, m_pcData + m_nSize}; }

 private:
  const uint8_t* m_pcData;
  size_t m_nSize;
};

void Check(bool bCondition) {
  if (!bCondition) abort();
}

using Source = std::unique_ptr<tagMDATA_SRC_HANDLE, decltype(&free)>;

Source MakeSource(Input& in) {
  Source pSource(static_cast<MDATA_SRC_HANDLE>(calloc(1, sizeof(tagMDATA_SRC_HANDLE))), &free);
  const BYTE flags = in.Byte();
  _g_bExtendedTags = (flags & 0x10) != 0 ? TRUE : FALSE;
  if (flags & 0x01) {
    char szMissionID[kMaxMissionIDSize + 1] = {};
    memset(szMissionID, 'M', in.Byte() % sizeof(szMissionID));
    pSource->pMissionID = AllocMissionID(szMissionID);
    pSource->nMissionIDElementSize = pSource->pMissionID->cLength + 2;
  }
  if (flags & 0x02) {
    pSource->pSecurityMDataSet = AllocSecurityMetadata(in.Byte(), "USA", "CANMEX");
    pSource->nSecurityMDataSetSize = pSource->pSecurityMDataSet->Length + 2;
  }
  pSource->Config.bFilterUASTags = (flags & 0x04) != 0;
  pSource->Config.bFilterUASSecurityTags = (flags & 0x08) != 0;
  for (UINT32& nWord : pSource->Config.UASTagFilter) nWord = (flags & 0x04) ? in.Word() : 0;
  pSource->Config.UASSecurityTagFilter[0] = (flags & 0x08) ? in.Word() : 0;
  return pSource;
}

void CheckMessage(const MDATA_BUFFER* pBuffer, int nNewSize) {
  Check(pBuffer->nDataSize == nNewSize && nNewSize >= 17 + 4);
  const BYTE* pcBlock = static_cast<const BYTE*>(pBuffer->pvAllocPtr);
  Check(pBuffer->pcData - pcBlock >= static_cast<ptrdiff_t>(sizeof(MDATA_BUFFER) + MDATA_STREAM_HEADER_SIZE));
  Check(pBuffer->pcData + nNewSize <= pcBlock + pBuffer->nAllocSize);
  const int nBody = nNewSize - 16;
  const int nHeaderSize = nBody - 1 <= 127 ? 17 : nBody - 2 <= 255 ? 18 : 19;
  const BYTE* pcChecksum = pBuffer->pcData + nNewSize - 4;
  Check(pcChecksum[0] == UAS_CHECKSUM_TAG && pcChecksum[1] == 2);
  if (nNewSize > 0xFFFF) return;  // longer than the checksum function accepts in one call
  Check(CalcKlvChecksum16(pBuffer->pcData, static_cast<WORD>(nNewSize - 2)) == ((pcChecksum[2] << 8) | pcChecksum[3]));
  (void)ValidateUASLocalDataSet(pBuffer->pcData, nNewSize, nHeaderSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pcData, size_t nSize) {
  Input in(pcData, nSize);
  Source pSource = MakeSource(in);
  const int nHeaderSize = 17 + in.Byte() % 3;
  // The message is copied to a block of exactly its size, so that a read past its end is detected.
  std::vector<BYTE> message = in.Rest();
  const int nUAVSize = static_cast<int>(message.size());
  MDATA_BUFFER* pBuffer = nullptr;
  int nNewSize = -1;
  if (ProcessUASDataLinkLocalSet(pSource.get(), message.data(), nUAVSize, nHeaderSize, &pBuffer, &nNewSize)) {
    if (pBuffer != nullptr) {
      CheckMessage(pBuffer, nNewSize);
      DoReleaseBuffer(&pBuffer);
    } else {
      Check(nNewSize == 0);
    }
  } else {
    Check(pBuffer == nullptr);
  }
  if (nUAVSize >= nHeaderSize) (void)ValidateUASLocalDataSet(message.data(), nUAVSize, nHeaderSize);
  free(pSource->pMissionID);
  free(pSource->pSecurityMDataSet);
  return 0;
}
