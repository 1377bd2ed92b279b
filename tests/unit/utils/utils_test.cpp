// SPDX-License-Identifier: Apache-2.0
// Tests of buffers, bits, patterns, CRC and raw captures.
#include "utils.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "builders.h"
#include "fake_host.h"
#include "md_atomic.h"

namespace {

constexpr int kRecord = static_cast<int>(sizeof(MDATA_BUFFER));

const BYTE* EndOfRecord(const MDATA_BUFFER* pBuffer) {
  return static_cast<const BYTE*>(pBuffer->pvAllocPtr) + sizeof(MDATA_BUFFER);
}

int32_t BuffersInUse() {
  return static_cast<int32_t>(MdLoad(_g_nAllocatedBuffers) - MdLoad(_g_nFreedBuffers));
}

// --- Metadata buffers ------------------------------------------------------------------------------------

class BufferTest : public HostTest {
 protected:
  BufferTest() {
    MdStore(_g_nAllocatedBuffers, 0);
    MdStore(_g_nFreedBuffers, 0);
    MdStore(_g_nMaxAllocatedBuffers, 0);
  }
  MDATA_BUFFER* Alloc(int nSize = 0) {
    MDATA_BUFFER* pBuffer = nullptr;
    EXPECT_TRUE(DoAllocBuffer(nSize, &pBuffer));
    return pBuffer;
  }
};

TEST_F(BufferTest, DataAreaFollowsTheRecordOfAnEmptyBuffer) {
  MDATA_BUFFER* pBuffer = Alloc(0);
  EXPECT_EQ(pBuffer->nAllocSize, kRecord);
  EXPECT_EQ(pBuffer->pcData, EndOfRecord(pBuffer));
  EXPECT_EQ(pBuffer->pvAllocPtr, pBuffer);
  EXPECT_EQ(pBuffer->nRefCount, 1);
  EXPECT_EQ(pBuffer->bDynamic, TRUE);
  EXPECT_EQ(pBuffer->nDataSize, 0);
  EXPECT_EQ(pBuffer->nTimeStamp, 0u);
  DoReleaseBuffer(&pBuffer);
  EXPECT_EQ(BuffersInUse(), 0);
}

TEST_F(BufferTest, DataAreaIsZeroFilled) {
  MDATA_BUFFER* pBuffer = Alloc(300);
  EXPECT_EQ(pBuffer->nAllocSize, kRecord + 300);
  EXPECT_EQ(pBuffer->nDataSize, 0);
  EXPECT_EQ(Bytes(pBuffer->pcData, pBuffer->pcData + 300), Bytes(300, 0));
  DoReleaseBuffer(&pBuffer);
}

TEST_F(BufferTest, CopyHoldsTheBytesAndTheirSize) {
  Bytes data = Text("nineteen characters");
  MDATA_BUFFER* pBuffer = nullptr;
  ASSERT_TRUE(DoAllocCopyBuffer(data.data(), static_cast<int>(data.size()), &pBuffer));
  EXPECT_EQ(pBuffer->nAllocSize, kRecord + 19);
  EXPECT_EQ(pBuffer->nDataSize, 19);
  EXPECT_EQ(pBuffer->pcData, EndOfRecord(pBuffer));
  EXPECT_EQ(Bytes(pBuffer->pcData, pBuffer->pcData + 19), data);
  DoReleaseBuffer(&pBuffer);
}

TEST_F(BufferTest, ReservedBytesPrecedeTheCopyAndAreZero) {
  Bytes data = Text("ten bytes.");
  MDATA_BUFFER* pBuffer = nullptr;
  ASSERT_TRUE(DoAllocCopyBufferEx(data.data(), 10, 5, &pBuffer));
  EXPECT_EQ(pBuffer->nAllocSize, kRecord + 15);
  EXPECT_EQ(pBuffer->pcData - static_cast<BYTE*>(pBuffer->pvAllocPtr), kRecord + 5);
  EXPECT_EQ(Bytes(EndOfRecord(pBuffer), EndOfRecord(pBuffer) + 5), Bytes(5, 0));
  EXPECT_EQ(Bytes(pBuffer->pcData, pBuffer->pcData + 10), data);
  EXPECT_EQ(pBuffer->nDataSize, 10);
  DoReleaseBuffer(&pBuffer);
}

TEST_F(BufferTest, EmptyCopyNeedsNoSource) {
  MDATA_BUFFER* pBuffer = nullptr;
  ASSERT_TRUE(DoAllocCopyBufferEx(nullptr, 0, 5, &pBuffer));
  EXPECT_EQ(pBuffer->nAllocSize, kRecord + 5);
  DoReleaseBuffer(&pBuffer);
}

TEST_F(BufferTest, HighWaterMarkIsLoggedOnlyWhenItRises) {
  MDATA_BUFFER* pFirst = Alloc();
  MDATA_BUFFER* pSecond = Alloc();
  ExpectLog(6, "Max alloc buffers now at 1.\n");
  ExpectLog(6, "Max alloc buffers now at 2.\n");
  DoReleaseBuffer(&pSecond);
  host().ClearLogs();
  MDATA_BUFFER* pThird = Alloc();
  EXPECT_TRUE(host().Logs().empty());
  MDATA_BUFFER* pFourth = Alloc();
  ExpectLog(6, "Max alloc buffers now at 3.\n");
  DoReleaseBuffer(&pFirst);
  DoReleaseBuffer(&pThird);
  DoReleaseBuffer(&pFourth);
}

TEST_F(BufferTest, HighWaterLineNamesTheAllocatingFunction) {
  BYTE acData[1] = {7};
  MDATA_BUFFER* apBuffers[3] = {Alloc()};
  DoAllocCopyBuffer(acData, 1, &apBuffers[1]);
  DoAllocCopyBufferEx(acData, 1, 1, &apBuffers[2]);
  const std::vector<LogLine> logs = host().Logs();
  ASSERT_EQ(logs.size(), 3u);
  EXPECT_EQ(logs[0].function, "DoAllocBuffer");
  EXPECT_EQ(logs[1].function, "DoAllocCopyBuffer");
  EXPECT_EQ(logs[2].function, "DoAllocCopyBufferEx");
  EXPECT_EQ(logs[0].file, "utils");
  for (MDATA_BUFFER*& pBuffer : apBuffers) DoReleaseBuffer(&pBuffer);
}

TEST_F(BufferTest, HighWaterLineNeedsLevelSix) {
  host().SetLevel("METADATALIB", 5);
  MDATA_BUFFER* pBuffer = Alloc();
  EXPECT_TRUE(host().Logs().empty());
  EXPECT_EQ(MdLoad(_g_nMaxAllocatedBuffers), 1);
  DoReleaseBuffer(&pBuffer);
}

TEST_F(BufferTest, FailedAllocationChangesNothingAndIsNotLogged) {
  BYTE acData[4] = {};
  MDATA_BUFFER marker = {};
  MDATA_BUFFER* pBuffer = &marker;
  host().FailNext("calloc");
  host().FailNext("malloc", {.times = 2});
  EXPECT_FALSE(DoAllocBuffer(10, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBuffer(acData, 4, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBufferEx(acData, 4, 5, &pBuffer));
  EXPECT_EQ(pBuffer, &marker);
  EXPECT_EQ(BuffersInUse(), 0);
  EXPECT_EQ(MdLoad(_g_nMaxAllocatedBuffers), 0);
  EXPECT_TRUE(host().Logs().empty());
}

TEST_F(BufferTest, InvalidSizesAreRefusedWithoutALine) {
  BYTE acData[4] = {};
  MDATA_BUFFER* pBuffer = nullptr;
  EXPECT_FALSE(DoAllocBuffer(-1, &pBuffer));
  EXPECT_FALSE(DoAllocBuffer(INT_MIN, &pBuffer));
  EXPECT_FALSE(DoAllocBuffer(INT_MAX, &pBuffer));
  EXPECT_FALSE(DoAllocBuffer(INT_MAX - kRecord + 1, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBuffer(acData, -4, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBuffer(acData, INT_MAX, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBufferEx(acData, -1, 5, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBufferEx(acData, 4, -5, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBufferEx(acData, INT_MAX, INT_MAX, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBufferEx(acData, INT_MAX - kRecord - 4, 5, &pBuffer));
  EXPECT_EQ(pBuffer, nullptr);
  EXPECT_TRUE(host().Logs().empty());
}

TEST_F(BufferTest, ReleaseBeforeTheLastLeavesTheBufferAndClearsThePointer) {
  MDATA_BUFFER* pBuffer = Alloc(1);
  MDATA_BUFFER* pOther = pBuffer;
  pBuffer->nRefCount = 2;
  DoReleaseBuffer(&pBuffer);
  EXPECT_EQ(pBuffer, nullptr);
  EXPECT_EQ(pOther->nRefCount, 1);
  EXPECT_EQ(BuffersInUse(), 1);
  pOther->pcData[0] = 1;  // the buffer still exists
  DoReleaseBuffer(&pOther);
  EXPECT_EQ(BuffersInUse(), 0);
}

TEST_F(BufferTest, ExtraReleaseIsReportedAndCountedAndFreesNothing) {
  MDATA_BUFFER record = {};
  record.bDynamic = TRUE;
  MDATA_BUFFER* pBuffer = &record;
  DoReleaseBuffer(&pBuffer);
  ExpectAssertion("pBuffer->nRefCount > 0");
  EXPECT_EQ(record.nRefCount, -1);
  EXPECT_EQ(pBuffer, nullptr);
  pBuffer = &record;
  DoReleaseBuffer(&pBuffer);
  ExpectAssertion("pBuffer->nRefCount > 0");
  EXPECT_EQ(record.nRefCount, -2);
  EXPECT_EQ(BuffersInUse(), 0);
}

TEST_F(BufferTest, RecordOwnedByTheCallerIsNeverFreed) {
  MDATA_BUFFER record = {};
  record.nRefCount = 1;
  MDATA_BUFFER* pBuffer = &record;
  DoReleaseBuffer(&pBuffer);
  EXPECT_EQ(record.nRefCount, 0);
  EXPECT_EQ(pBuffer, nullptr);
  EXPECT_EQ(BuffersInUse(), 0);
}

TEST_F(BufferTest, ThreadStateIsSavedFourTimesIfTheHostDebugsThreads) {
  MDATA_BUFFER* pBuffer = Alloc();
  pBuffer->nRefCount = 2;
  MDATA_BUFFER* pOther = pBuffer;
  DoReleaseBuffer(&pBuffer);
  EXPECT_TRUE(host().savedStates.empty());
  __atomic_store_n(&g_bThreadStateDebuggingEnabled, TRUE, __ATOMIC_RELAXED);
  DoReleaseBuffer(&pOther);
  EXPECT_EQ(host().savedStates, std::vector<std::string>(4, "DoReleaseBuffer"));
}

TEST_F(BufferTest, EncodersAtomicIncrementAndReleasesOnOtherThreadsAgree) {
  host().SetLevel("METADATALIB", 0);
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  MDATA_BUFFER* pShared = Alloc(16);
  const auto work = [pShared] {
    for (int i = 0; i < kRounds; i++) {
      __atomic_add_fetch(&pShared->nRefCount, 1, __ATOMIC_RELAXED);
      MDATA_BUFFER* pMine = pShared;
      DoReleaseBuffer(&pMine);
      MDATA_BUFFER* pOwn = nullptr;
      ASSERT_TRUE(DoAllocBuffer(8, &pOwn));
      DoReleaseBuffer(&pOwn);
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; i++) threads.emplace_back(work);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(pShared->nRefCount, 1);
  EXPECT_EQ(BuffersInUse(), 1);
  EXPECT_GE(MdLoad(_g_nMaxAllocatedBuffers), 2);
  DoReleaseBuffer(&pShared);
}

// --- Bits ------------------------------------------------------------------------------------------------

TEST(ExtractBitsTest, TwelveBitsAreCopiedFromTheMiddleOfAByte) {
  const BYTE acIn[] = {0xAB, 0xCD};
  BYTE acOut[2] = {};
  int nIn = 4;
  int nOut = 0;
  ExtractBits(acIn, &nIn, acOut, &nOut, 12);
  EXPECT_EQ(acOut[0], 0xBC);
  EXPECT_EQ(acOut[1], 0xD0);
  EXPECT_EQ(nIn, 16);
  EXPECT_EQ(nOut, 12);
}

TEST(ExtractBitsTest, ResultSumsTheRemainingBitsOfEachInputByte) {
  const BYTE acIn[] = {0xFF, 0xFF};
  BYTE acOut[2] = {};
  int nIn = 4;
  int nOut = 0;
  // Steps: 4 bits at bit 4, then 4 bits at bit 0 (the output byte is full), then 4 bits at bit 4.
  EXPECT_EQ(ExtractBits(acIn, &nIn, acOut, &nOut, 12), 4 + 8 + 4);
  nIn = nOut = 0;
  EXPECT_EQ(ExtractBits(acIn, &nIn, acOut, &nOut, 1), 8);
  EXPECT_EQ(ExtractBits(acIn, &nIn, acOut, &nOut, 0), 0);
}

TEST(ExtractBitsTest, OutputIsNeverCleared) {
  const BYTE acIn[] = {0x00, 0x0F};
  BYTE acOut[2] = {0xF0, 0x80};
  int nIn = 0;
  int nOut = 0;
  ExtractBits(acIn, &nIn, acOut, &nOut, 16);
  EXPECT_EQ(acOut[0], 0xF0);
  EXPECT_EQ(acOut[1], 0x8F);
}

TEST(ExtractBitsTest, EveryOffsetAndLengthCopiesTheSameBits) {
  std::mt19937 random(1);
  Bytes in(8);
  for (BYTE& nByte : in) nByte = static_cast<BYTE>(random());
  const auto bit = [](const Bytes& of, int n) { return (of[static_cast<size_t>(n / 8)] >> (7 - n % 8)) & 1; };
  for (int nFrom = 0; nFrom < 16; nFrom++) {
    for (int nTo = 0; nTo < 16; nTo++) {
      for (int nBits = 0; nBits <= 48; nBits++) {
        Bytes out(8, 0);
        int nIn = nFrom;
        int nOut = nTo;
        ExtractBits(in.data(), &nIn, out.data(), &nOut, nBits);
        ASSERT_EQ(nIn, nFrom + nBits);
        ASSERT_EQ(nOut, nTo + nBits);
        for (int i = 0; i < 64; i++) {
          const int nExpected = i >= nTo && i < nTo + nBits ? bit(in, nFrom + i - nTo) : 0;
          ASSERT_EQ(bit(out, i), nExpected) << nFrom << " to " << nTo << ", " << nBits << " bits, bit " << i;
        }
      }
    }
  }
}

// --- Patterns --------------------------------------------------------------------------------------------

struct Scan {
  UINT nResult;
  int nOffset;
  bool operator==(const Scan&) const = default;
};
void PrintTo(const Scan& scan, std::ostream* pStream) {
  *pStream << scan.nResult << " at " << scan.nOffset;
}

// Scans data in a block of exactly its size, so that a sanitizer detects a read past its end.
Scan ScanFor(const Bytes& data, const Bytes& pattern) {
  const std::unique_ptr<BYTE[]> pcExact(new BYTE[data.size() + 1]);
  BYTE* pcData = pcExact.get() + 1;
  std::copy(data.begin(), data.end(), pcData);
  Scan scan = {0, -1};
  scan.nResult = ScanForPattern(pcData, static_cast<int>(data.size()), pattern.data(), static_cast<int>(pattern.size()),
                                &scan.nOffset);
  return scan;
}
Scan ScanFor(const std::string& strData, const std::string& strPattern) {
  return ScanFor(Text(strData), Text(strPattern));
}

TEST(ScanForPatternTest, FindsThePatternItsBeginningOrNothing) {
  EXPECT_EQ(ScanFor("xxoHe", "oHeY!"), (Scan{3, 2}));
  EXPECT_EQ(ScanFor("xoHeY!x", "oHeY!"), (Scan{5, 1}));
  EXPECT_EQ(ScanFor("oHx", "oHeY!"), (Scan{0, -1}));
}

TEST(ScanForPatternTest, NothingIsFoundInEmptyData) {
  EXPECT_EQ(ScanFor("", "ab"), (Scan{0, -1}));
  int nOffset = -1;
  EXPECT_EQ(ScanForPattern("ab", -1, "ab", 2, &nOffset), 0u);
  EXPECT_EQ(nOffset, -1);
}

TEST(ScanForPatternTest, FirstOfTwoIsFound) {
  EXPECT_EQ(ScanFor("..ab..ab", "ab"), (Scan{2, 2}));
}

TEST(ScanForPatternTest, MatchAtTheVeryEndIsWhole) {
  EXPECT_EQ(ScanFor("..ab", "ab"), (Scan{2, 2}));
  EXPECT_EQ(ScanFor("...a", "ab"), (Scan{1, 3}));
}

TEST(ScanForPatternTest, SearchContinuesAtTheByteThatDiffered) {
  EXPECT_EQ(ScanFor("AAAB", "AAB"), (Scan{0, -1}));
  // The byte that differed may begin the next match itself.
  EXPECT_EQ(ScanFor("ABABC", "ABC"), (Scan{3, 2}));
}

TEST(ScanForPatternTest, OneBytePatternIsAFullMatchAtOnce) {
  EXPECT_EQ(ScanFor("xyz", "y"), (Scan{1, 1}));
  EXPECT_EQ(ScanFor("xyz", "z"), (Scan{1, 2}));
  EXPECT_EQ(ScanFor("xyz", "a"), (Scan{0, -1}));
}

TEST(ScanForPatternTest, EmptyPatternIsNeverFound) {
  int nOffset = -1;
  EXPECT_EQ(ScanForPattern("ab", 2, "", 0, &nOffset), 0u);
}

// --- CRC -------------------------------------------------------------------------------------------------

TEST(CalcCRC16Test, NineDigitsGiveTheCheckValue) {
  EXPECT_EQ(CalcCRC16(Text("123456789").data(), 9), 0xBB3D);
}

TEST(CalcCRC16Test, EmptyBlockGivesZero) {
  EXPECT_EQ(CalcCRC16(nullptr, 0), 0);
}

TEST(CalcCRC16Test, BlockFollowedByItsCRCLowByteFirstGivesZero) {
  Bytes data = Text("any block at all");
  const WORD nCRC = CalcCRC16(data.data(), static_cast<int>(data.size()));
  data.push_back(static_cast<BYTE>(nCRC));
  data.push_back(static_cast<BYTE>(nCRC >> 8));
  EXPECT_EQ(CalcCRC16(data.data(), static_cast<int>(data.size())), 0);
}

// --- Raw captures ----------------------------------------------------------------------------------------

class DumpTest : public ::testing::Test {
 protected:
  ~DumpTest() override {
    if (m_pFile != nullptr) fclose(m_pFile);
    free(m_pcText);
  }
  std::string Written() {
    fflush(m_pFile);
    return {m_pcText, m_nText};
  }
  BOOL Dump(Bytes data, int nMaxSize = 1000) {
    return DumpRawData(m_pFile, data.data(), static_cast<int>(data.size()), &m_nColumn, nMaxSize);
  }

  char* m_pcText = nullptr;
  size_t m_nText = 0;
  FILE* m_pFile = open_memstream(&m_pcText, &m_nText);
  int m_nColumn = 0;
};

TEST_F(DumpTest, WritesTwoDigitsAndABlankForEachByte) {
  EXPECT_TRUE(Dump({0x00, 0x0F, 0xA5, 0xFF}));
  EXPECT_EQ(Written(), "00 0f a5 ff ");
  EXPECT_EQ(m_nColumn, 4);
}

TEST_F(DumpTest, ColumnFifteenEndsItsLineAfterOneByte) {
  m_nColumn = 15;
  EXPECT_TRUE(Dump({0x42}));
  EXPECT_EQ(Written(), "42 \n");
  EXPECT_EQ(m_nColumn, 0);
}

TEST_F(DumpTest, BlocksContinueTheSameLine) {
  EXPECT_TRUE(Dump(Bytes(10, 0x11)));
  EXPECT_TRUE(Dump(Bytes(10, 0x22)));
  const std::string strText = Written();
  EXPECT_EQ(strText.find('\n'), 48u);
  EXPECT_EQ(strText.substr(27, 6), "11 22 ");
  EXPECT_EQ(strText.size(), 61u);
  EXPECT_EQ(m_nColumn, 4);
}

TEST_F(DumpTest, NothingIsWrittenAtTheSizeLimit) {
  fprintf(m_pFile, "%s", std::string(1024, '.').c_str());
  m_nColumn = 3;
  EXPECT_FALSE(Dump({1, 2}, 1));
  EXPECT_EQ(Written().size(), 1024u);
  EXPECT_EQ(m_nColumn, 3);
  EXPECT_FALSE(Dump({1, 2}, 0));
  EXPECT_FALSE(Dump({1, 2}, INT_MIN));
}

TEST_F(DumpTest, WholeBlockIsWrittenOneByteBelowTheSizeLimit) {
  fprintf(m_pFile, "%s", std::string(1023, '.').c_str());
  EXPECT_TRUE(Dump(Bytes(100, 0xEE), 1));
  EXPECT_GT(Written().size(), 1024u + 200u);
}

TEST_F(DumpTest, SizeLimitBeyond32BitsDoesNotOverflow) {
  EXPECT_TRUE(Dump({1}, INT_MAX));
}

TEST_F(DumpTest, EmptyBlockChangesNothing) {
  m_nColumn = 7;
  EXPECT_TRUE(Dump({}));
  EXPECT_EQ(Written(), "");
  EXPECT_EQ(m_nColumn, 7);
}

TEST(DumpFullDeviceTest, StreamErrorIsReported) {
  FILE* pFile = fopen("/dev/full", "w");
  ASSERT_NE(pFile, nullptr);
  setvbuf(pFile, nullptr, _IONBF, 0);
  BYTE acData[] = {1};
  int nColumn = 0;
  EXPECT_FALSE(DumpRawData(pFile, acData, 1, &nColumn, 1000));
  EXPECT_EQ(nColumn, 1);
  fclose(pFile);
}

}  // namespace
