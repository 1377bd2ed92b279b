// SPDX-License-Identifier: Apache-2.0
// The fixture holds a KLV stream decoder and collects its messages.
#ifndef DECODER_FIXTURE_H
#define DECODER_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <vector>

#include "builders.h"
#include "fake_host.h"
#include "generic_klv_support.h"

class DecoderTest : public HostTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(AllocKlvDecodeContext(&m_pvCtxt, &Collect, this));
    host().ClearLogs();
  }
  void TearDown() override {
    if (m_pvCtxt != nullptr) FreeKlvDecodeContext(&m_pvCtxt);
  }

  KLV_DECODE_CONTEXT& Context() { return *static_cast<KLV_DECODE_CONTEXT*>(m_pvCtxt); }
  KLV_STATS Stats() {
    KLV_STATS stats = {};
    GenericKLV_GetStats(m_pvCtxt, &stats);
    return stats;
  }
  // Creates a new decoder, whose buffer has no bytes of earlier messages.
  void StartOver() {
    FreeKlvDecodeContext(&m_pvCtxt);
    AllocKlvDecodeContext(&m_pvCtxt, &Collect, this);
    m_messages.clear();
    m_nFed = 0;
  }

  // Feeds a chunk from a block of exactly its size, so that a sanitizer detects a read past its end.
  void Feed(const Bytes& chunk) { Feed(chunk, 0, chunk.size()); }
  void Feed(const Bytes& from, size_t nBegin, size_t nEnd) {
    const std::unique_ptr<BYTE[]> pcExact(new BYTE[nEnd - nBegin + 1]);
    std::copy(from.begin() + static_cast<ptrdiff_t>(nBegin), from.begin() + static_cast<ptrdiff_t>(nEnd),
              pcExact.get() + 1);
    EXPECT_EQ(GenericKLV_ProcessRxData(m_pvCtxt, pcExact.get() + 1, static_cast<int>(nEnd - nBegin)), 0);
    m_nFed += nEnd - nBegin;
  }
  // Feeds bytes in chunks of one size, the first of which may be shorter.
  void FeedInChunks(const Bytes& stream, size_t nChunk, size_t nFirst = 0) {
    size_t nAt = std::min(nFirst, stream.size());
    if (nAt > 0) Feed(stream, 0, nAt);
    for (; nAt < stream.size(); nAt += std::min(nChunk, stream.size() - nAt))
      Feed(stream, nAt, std::min(nAt + nChunk, stream.size()));
  }

  void ExpectState(int nState, int nStored, Where where = Where::Caller()) {
    ::testing::ScopedTrace trace(where.file, where.line, "state");
    EXPECT_EQ(Context().enState, nState);
    EXPECT_EQ(Context().nStoredAmount, nStored);
  }
  // Checks the counters, which must match for every input: all bytes and all delivered messages are counted.
  void ExpectCountersAddUp(Where where = Where::Caller()) {
    ::testing::ScopedTrace trace(where.file, where.line, "counters");
    EXPECT_EQ(Stats().nTotalRxBytes, m_nFed);
    EXPECT_EQ(Stats().nRxOkMessages, m_messages.size());
    EXPECT_EQ(Context().Stats.nRxChannel1Messages, 0u);
  }

  static void Collect(MDATA_BUFFER* pBuff, void* pvUserParam1) {
    auto* pTest = static_cast<DecoderTest*>(pvUserParam1);
    pTest->m_messages.emplace_back(pBuff->pcData, pBuff->pcData + pBuff->nDataSize);
    pTest->m_pLast = pBuff;
    if (pTest->m_bKeep) __atomic_add_fetch(&pBuff->nRefCount, 1, __ATOMIC_RELAXED);
  }

  void* m_pvCtxt = nullptr;
  std::vector<Bytes> m_messages;
  MDATA_BUFFER* m_pLast = nullptr;
  bool m_bKeep = false;
  size_t m_nFed = 0;
};

#endif  // DECODER_FIXTURE_H
