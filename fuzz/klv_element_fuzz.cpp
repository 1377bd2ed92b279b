// SPDX-License-Identifier: Apache-2.0
// Parses arbitrary bytes as one KLV element of every field size. The fields of a parsed element must have the reported
// positions and sizes.
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

void CheckElement(const std::vector<BYTE>& data, int nTagCode, int nLengthCode) {
  KLV_INFO info = {};
  const int nSize = static_cast<int>(data.size());
  if (!KLV_GetInfo(data.data(), nSize, nTagCode, nLengthCode, &info)) return;
  const auto nValueOffset = static_cast<UINT32>(info.pValue - data.data());
  Check(nValueOffset > info.nKeySize && nValueOffset <= data.size());
  Check(info.nLength < 1 || nValueOffset < data.size());
  Check(info.nTotalSize == nValueOffset + static_cast<UINT32>(info.nLength));
  Check(nTagCode < 0 || nTagCode == 12 || info.nKeySize == static_cast<UINT32>(nTagCode));
  // The same bytes followed by more bytes must give the same element.
  std::vector<BYTE> longer = data;
  longer.push_back(0);
  KLV_INFO again = {};
  Check(KLV_GetInfo(longer.data(), nSize + 1, nTagCode, nLengthCode, &again));
  Check(again.nKey == info.nKey && again.nLength == info.nLength && again.nTotalSize == info.nTotalSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pcData, size_t nSize) {
  // The input is copied to a block of exactly its size, so that a read past its end is detected.
  const std::vector<BYTE> data(pcData, pcData + nSize);
  for (const int nTagCode : kTagCodes)
    for (const int nLengthCode : kLengthCodes) CheckElement(data, nTagCode, nLengthCode);
  return 0;
}
