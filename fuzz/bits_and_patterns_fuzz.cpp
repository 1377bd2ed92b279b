// SPDX-License-Identifier: Apache-2.0
// Copies arbitrary bits and searches for arbitrary patterns, and compares the results with slow code that works bit by
// bit and byte by byte.
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

int Bit(const std::vector<BYTE>& of, size_t n) {
  return (of[n / 8] >> (7 - n % 8)) & 1;
}

void CheckBits(const std::vector<BYTE>& data, size_t nFrom, size_t nTo, size_t nBits) {
  const size_t nAll = data.size() * 8;
  nFrom = std::min(nFrom, nAll);
  nBits = std::min(nBits, nAll - nFrom);
  std::vector<BYTE> out((nTo + nBits + 7) / 8, 0);
  int nIn = static_cast<int>(nFrom);
  int nOut = static_cast<int>(nTo);
  ExtractBits(data.data(), &nIn, out.data(), &nOut, static_cast<int>(nBits));
  Check(nIn == static_cast<int>(nFrom + nBits) && nOut == static_cast<int>(nTo + nBits));
  for (size_t i = 0; i < out.size() * 8; i++) {
    const bool bCopied = i >= nTo && i < nTo + nBits;
    Check(Bit(out, i) == (bCopied ? Bit(data, nFrom + i - nTo) : 0));
  }
}

void CheckPattern(const std::vector<BYTE>& data, const std::vector<BYTE>& pattern) {
  int nOffset = -1;
  const UINT nResult = ScanForPattern(data.data(), static_cast<int>(data.size()), pattern.data(),
                                      static_cast<int>(pattern.size()), &nOffset);
  size_t nAt = 0;
  size_t nMatched = 0;
  while (nAt < data.size()) {
    nMatched = 0;
    while (nMatched < pattern.size() && nAt + nMatched < data.size() && data[nAt + nMatched] == pattern[nMatched])
      nMatched++;
    if (nMatched == pattern.size() || (nMatched > 0 && nAt + nMatched == data.size())) break;
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
  const std::vector<BYTE> pattern(pcData + 4, pcData + 4 + nPattern);
  const std::vector<BYTE> data(pcData + 4 + nPattern, pcData + nSize);
  CheckBits(data, pcData[0], pcData[1] % 64, pcData[2]);
  if (nPattern > 0) CheckPattern(data, pattern);
  return 0;
}
