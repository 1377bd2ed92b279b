// Copies arbitrary bits and looks for arbitrary patterns, against slow code that does the same one bit, one byte at a
// time.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "metadata_lib.h"

namespace {

void Check(bool bCondition) {
  if (!bCondition) abort();
}

int Bit(const std::vector<BYTE>& Of, size_t n) {
  return (Of[n / 8] >> (7 - n % 8)) & 1;
}

void CheckBits(const std::vector<BYTE>& Data, size_t nFrom, size_t nTo, size_t nBits) {
  const size_t nAll = Data.size() * 8;
  nFrom = std::min(nFrom, nAll);
  nBits = std::min(nBits, nAll - nFrom);
  std::vector<BYTE> Out((nTo + nBits + 7) / 8, 0);
  int nIn = static_cast<int>(nFrom);
  int nOut = static_cast<int>(nTo);
  ExtractBits(Data.data(), &nIn, Out.data(), &nOut, static_cast<int>(nBits));
  Check(nIn == static_cast<int>(nFrom + nBits) && nOut == static_cast<int>(nTo + nBits));
  for (size_t i = 0; i < Out.size() * 8; i++) {
    const bool bCopied = i >= nTo && i < nTo + nBits;
    Check(Bit(Out, i) == (bCopied ? Bit(Data, nFrom + i - nTo) : 0));
  }
}

void CheckPattern(const std::vector<BYTE>& Data, const std::vector<BYTE>& Pattern) {
  int nOffset = -1;
  const UINT nResult = ScanForPattern(Data.data(), static_cast<int>(Data.size()), Pattern.data(),
                                      static_cast<int>(Pattern.size()), &nOffset);
  size_t nAt = 0;
  size_t nMatched = 0;
  while (nAt < Data.size()) {
    nMatched = 0;
    while (nMatched < Pattern.size() && nAt + nMatched < Data.size() && Data[nAt + nMatched] == Pattern[nMatched])
      nMatched++;
    if (nMatched == Pattern.size() || (nMatched > 0 && nAt + nMatched == Data.size())) break;
    nAt += std::max<size_t>(nMatched, 1);
    nMatched = 0;
  }
  Check(nResult == nMatched);
  Check(nMatched == 0 ? nOffset == -1 : nOffset == static_cast<int>(nAt));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pcData, size_t nSize) {
  if (nSize < 4) return 0;
  const size_t nPattern = std::min<size_t>(1 + pcData[3] % 6, nSize - 4);
  const std::vector<BYTE> Pattern(pcData + 4, pcData + 4 + nPattern);
  const std::vector<BYTE> Data(pcData + 4 + nPattern, pcData + nSize);
  CheckBits(Data, pcData[0], pcData[1] % 64, pcData[2]);
  if (nPattern > 0) CheckPattern(Data, Pattern);
  return 0;
}
