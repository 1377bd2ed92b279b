// Parses arbitrary bytes as one KLV element of every field size. What succeeds must lie where it says.
#include <stdint.h>
#include <stdlib.h>

#include <vector>

#include "klv_utils.h"

namespace {

constexpr int kTagCodes[] = {-1, 0, 1, 2, 4, 12, 16};
constexpr int kLengthCodes[] = {0, 1, 2, 4};

void Check(bool bCondition) {
  if (!bCondition) abort();
}

void CheckElement(const std::vector<BYTE>& Data, int nTagCode, int nLengthCode) {
  KLV_INFO Info = {};
  const int nSize = static_cast<int>(Data.size());
  if (!KLV_GetInfo(Data.data(), nSize, nTagCode, nLengthCode, &Info)) return;
  const auto nValueOffset = static_cast<UINT32>(Info.pValue - Data.data());
  Check(nValueOffset > Info.nKeySize && nValueOffset <= Data.size());
  Check(Info.nLength < 1 || nValueOffset < Data.size());
  Check(Info.nTotalSize == nValueOffset + static_cast<UINT32>(Info.nLength));
  Check(nTagCode < 0 || nTagCode == 12 || Info.nKeySize == static_cast<UINT32>(nTagCode));
  // The same bytes with more behind them are the same element.
  std::vector<BYTE> Longer = Data;
  Longer.push_back(0);
  KLV_INFO Again = {};
  Check(KLV_GetInfo(Longer.data(), nSize + 1, nTagCode, nLengthCode, &Again));
  Check(Again.nKey == Info.nKey && Again.nLength == Info.nLength && Again.nTotalSize == Info.nTotalSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pcData, size_t nSize) {
  // A block of exactly the input's size, so that a read past its end is seen.
  const std::vector<BYTE> Data(pcData, pcData + nSize);
  for (const int nTagCode : kTagCodes)
    for (const int nLengthCode : kLengthCodes) CheckElement(Data, nTagCode, nLengthCode);
  return 0;
}
