// Buffers and utilities.
#include "utils.h"

#include <fcntl.h>
#include <limits.h>

#include <cstring>
#include <thread>

#include "builders.h"
#include "fake_host.h"
#include "md_atomic.h"

namespace {

// --- Metadata buffers --------------------------------------------------------------------------------

class BufferTest : public HostTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(_g_nAllocatedBuffers, m_before) << "a buffer was leaked";
    HostTest::TearDown();
  }
  int32_t m_before = _g_nAllocatedBuffers;
};

TEST_F(BufferTest, EmptyBufferIsAValidRecordWithItsDataRightBehind) {
  MDATA_BUFFER* pBuffer = nullptr;
  ASSERT_TRUE(DoAllocBuffer(0, &pBuffer));
  EXPECT_EQ(pBuffer->nAllocSize, static_cast<int>(sizeof(MDATA_BUFFER)));
  EXPECT_EQ(pBuffer->pcData, static_cast<BYTE*>(pBuffer->pvAllocPtr) + sizeof(MDATA_BUFFER));
  EXPECT_EQ(pBuffer->pvAllocPtr, pBuffer);
  EXPECT_EQ(pBuffer->nRefCount, 1);
  EXPECT_EQ(pBuffer->bDynamic, TRUE);
  EXPECT_EQ(pBuffer->nDataSize, 0);
  EXPECT_EQ(pBuffer->nTimeStamp, 0u);
  DoReleaseBuffer(&pBuffer);
}

TEST_F(BufferTest, ReserveOfFiveZeroBytesLiesInFrontOfTheCopy) {
  Bytes data = Hex("01 02 03 04 05 06 07 08 09 0A");
  MDATA_BUFFER* pBuffer = nullptr;
  ASSERT_TRUE(DoAllocCopyBufferEx(data.data(), 10, 5, &pBuffer));
  EXPECT_EQ(pBuffer->nAllocSize, static_cast<int>(sizeof(MDATA_BUFFER)) + 15);
  EXPECT_EQ(pBuffer->pcData - static_cast<BYTE*>(pBuffer->pvAllocPtr), static_cast<long>(sizeof(MDATA_BUFFER)) + 5);
  EXPECT_EQ(Bytes(pBuffer->pcData - 5, pBuffer->pcData), Bytes(5));
  EXPECT_EQ(Bytes(pBuffer->pcData, pBuffer->pcData + 10), data);
  EXPECT_EQ(pBuffer->nDataSize, 10);
  DoReleaseBuffer(&pBuffer);
}

TEST_F(BufferTest, CopyHoldsExactlyItsBytes) {
  Bytes data = Text("hello");
  MDATA_BUFFER* pBuffer = nullptr;
  ASSERT_TRUE(DoAllocCopyBuffer(data.data(), 5, &pBuffer));
  data[0] = 'J';
  EXPECT_EQ(Bytes(pBuffer->pcData, pBuffer->pcData + 5), Text("hello"));
  EXPECT_EQ(pBuffer->nAllocSize, static_cast<int>(sizeof(MDATA_BUFFER)) + 5);
  DoReleaseBuffer(&pBuffer);
}

TEST_F(BufferTest, HighWaterMarkIsLoggedOnlyWhenItRises) {
  const int32_t nMark = _g_nMaxAllocatedBuffers;
  _g_nMaxAllocatedBuffers = _g_nAllocatedBuffers;
  MDATA_BUFFER* apBuffers[3] = {};
  ASSERT_TRUE(DoAllocBuffer(1, &apBuffers[0]));
  ASSERT_TRUE(DoAllocBuffer(1, &apBuffers[1]));
  ExpectLog(6, "Max alloc buffers now at " + std::to_string(m_before + 1) + ".\n");
  ExpectLog(6, "Max alloc buffers now at " + std::to_string(m_before + 2) + ".\n");
  DoReleaseBuffer(&apBuffers[0]);
  ASSERT_TRUE(DoAllocBuffer(1, &apBuffers[0]));
  EXPECT_EQ(host().Logs().size(), 2u);
  ASSERT_TRUE(DoAllocBuffer(1, &apBuffers[2]));
  ExpectLog(6, "Max alloc buffers now at " + std::to_string(m_before + 3) + ".\n");
  const LogLine last = host().Logs().back();
  EXPECT_EQ(last.function, "DoAllocBuffer");
  EXPECT_EQ(last.file, "utils");
  for (MDATA_BUFFER*& pBuffer : apBuffers) DoReleaseBuffer(&pBuffer);
  if (_g_nMaxAllocatedBuffers < nMark) _g_nMaxAllocatedBuffers = nMark;
}

TEST_F(BufferTest, ReleaseOfTwoReferencesLeavesOneAndStillClearsThePointer) {
  MDATA_BUFFER* pBuffer = nullptr;
  ASSERT_TRUE(DoAllocBuffer(4, &pBuffer));
  __atomic_add_fetch(&pBuffer->nRefCount, 1, __ATOMIC_RELAXED);
  MDATA_BUFFER* pOther = pBuffer;
  DoReleaseBuffer(&pBuffer);
  EXPECT_EQ(pBuffer, nullptr);
  EXPECT_EQ(pOther->nRefCount, 1);
  DoReleaseBuffer(&pOther);
  EXPECT_EQ(pOther, nullptr);
}

TEST_F(BufferTest, ReleaseTooManyAssertsAndCountsBelowZero) {
  MDATA_BUFFER record = {};
  record.bDynamic = TRUE;
  MDATA_BUFFER* pBuffer = &record;
  DoReleaseBuffer(&pBuffer);
  ExpectAssertion("pBuffer->nRefCount > 0");
  EXPECT_EQ(record.nRefCount, -1);
  EXPECT_EQ(pBuffer, nullptr);
}

TEST_F(BufferTest, ARecordThatIsNotDynamicIsNeverFreed) {
  MDATA_BUFFER record = {};
  record.nRefCount = 1;
  MDATA_BUFFER* pBuffer = &record;
  DoReleaseBuffer(&pBuffer);
  EXPECT_EQ(record.nRefCount, 0);
  EXPECT_EQ(pBuffer, nullptr);
}

TEST_F(BufferTest, AllocationFailureIsSilentAndLeavesThePointer) {
  MDATA_BUFFER* const pMark = reinterpret_cast<MDATA_BUFFER*>(16);
  MDATA_BUFFER* pBuffer = pMark;
  BYTE cData = 0;
  host().FailNext("calloc", {.times = 3});
  EXPECT_FALSE(DoAllocBuffer(10, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBuffer(&cData, 1, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBufferEx(&cData, 1, 5, &pBuffer));
  EXPECT_EQ(pBuffer, pMark);
  EXPECT_TRUE(host().Logs().empty());
}

TEST_F(BufferTest, SizesThatAreNoneAreRefusedSilently) {
  MDATA_BUFFER* pBuffer = nullptr;
  BYTE cData = 0;
  EXPECT_FALSE(DoAllocBuffer(-1, &pBuffer));
  EXPECT_FALSE(DoAllocBuffer(INT_MAX, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBuffer(&cData, -5, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBufferEx(&cData, 1, -1, &pBuffer));
  EXPECT_FALSE(DoAllocCopyBufferEx(&cData, INT_MAX - 10, 20, &pBuffer));
  EXPECT_EQ(pBuffer, nullptr);
  EXPECT_TRUE(host().Logs().empty());
}

TEST_F(BufferTest, ThreadStateIsSavedFourTimesWhenEnabled) {
  MDATA_BUFFER* pBuffer = nullptr;
  ASSERT_TRUE(DoAllocBuffer(1, &pBuffer));
  MdStore(g_bThreadStateDebuggingEnabled, TRUE);
  DoReleaseBuffer(&pBuffer);
  MdStore(g_bThreadStateDebuggingEnabled, FALSE);
  EXPECT_EQ(host().savedStates, std::vector<std::string>(4, "DoReleaseBuffer"));
}

TEST_F(BufferTest, ReferencesAddedAndReleasedOnManyThreadsEndInOneFree) {
  MDATA_BUFFER* pBuffer = nullptr;
  ASSERT_TRUE(DoAllocBuffer(8, &pBuffer));
  __atomic_add_fetch(&pBuffer->nRefCount, 400, __ATOMIC_RELAXED);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([pBuffer] {
      for (int n = 0; n < 100; ++n) {
        __atomic_add_fetch(&pBuffer->nRefCount, 1, __ATOMIC_RELAXED);
        for (int twice = 0; twice < 2; ++twice) {
          MDATA_BUFFER* pMine = pBuffer;
          DoReleaseBuffer(&pMine);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(pBuffer->nRefCount, 1);
  DoReleaseBuffer(&pBuffer);
}

// --- Bits --------------------------------------------------------------------------------------------

TEST(ExtractBits, TwelveBitsFromOffsetFourTakeTheLowNibbleAndTheNextByte) {
  const BYTE in[] = {0xAB, 0xCD};
  BYTE out[2] = {};
  int nIn = 4;
  int nOut = 0;
  ExtractBits(in, &nIn, out, &nOut, 12);
  EXPECT_EQ(out[0], 0xBC);
  EXPECT_EQ(out[1], 0xD0);
  EXPECT_EQ(nIn, 16);
  EXPECT_EQ(nOut, 12);
}

TEST(ExtractBits, ResultIsTheSumOfWhatIsLeftInEachInputByte) {
  const BYTE in[] = {0xFF, 0xFF};
  BYTE out[3] = {};
  int nIn = 4;
  int nOut = 0;
  // Steps: 4 bits (4 left in the byte), 4 bits (8 left), 4 bits (4 left).
  EXPECT_EQ(ExtractBits(in, &nIn, out, &nOut, 12), 4 + 8 + 4);
}

TEST(ExtractBits, OutputIsOrdIntoWhatIsThere) {
  const BYTE in[] = {0x0F};
  BYTE out[1] = {0x80};
  int nIn = 4;
  int nOut = 4;
  ExtractBits(in, &nIn, out, &nOut, 4);
  EXPECT_EQ(out[0], 0x8F);
}

TEST(ExtractBits, AgreesWithABitByBitCopyAtEveryOffset) {
  const Bytes in = Hex("DE AD BE EF 01 23 45 67");
  for (int from = 0; from < 16; ++from)
    for (int to = 0; to < 16; ++to)
      for (int count = 0; count <= 40; ++count) {
        Bytes out(8);
        Bytes wanted(8);
        for (int i = 0; i < count; ++i) {
          const int bit = in[static_cast<size_t>(from + i) / 8] >> (7 - (from + i) % 8) & 1;
          wanted[static_cast<size_t>(to + i) / 8] |= static_cast<BYTE>(bit << (7 - (to + i) % 8));
        }
        int nIn = from;
        int nOut = to;
        ExtractBits(in.data(), &nIn, out.data(), &nOut, count);
        ASSERT_EQ(out, wanted) << from << " " << to << " " << count;
        ASSERT_EQ(nIn, from + count);
        ASSERT_EQ(nOut, to + count);
      }
}

// --- Patterns ----------------------------------------------------------------------------------------

UINT Scan(const std::string& data, const std::string& pattern, int* pnOffset) {
  return ScanForPattern(data.data(), static_cast<int>(data.size()), pattern.data(), static_cast<int>(pattern.size()),
                        pnOffset);
}

TEST(ScanForPattern, PartialMatchAtTheEnd) {
  int nOffset = -1;
  EXPECT_EQ(Scan("xxoHe", "oHeY!", &nOffset), 3u);
  EXPECT_EQ(nOffset, 2);
}

TEST(ScanForPattern, FullMatch) {
  int nOffset = -1;
  EXPECT_EQ(Scan("xoHeY!x", "oHeY!", &nOffset), 5u);
  EXPECT_EQ(nOffset, 1);
}

TEST(ScanForPattern, NoMatch) {
  int nOffset = -1;
  EXPECT_EQ(Scan("oHx", "oHeY!", &nOffset), 0u);
  EXPECT_EQ(Scan("", "oHeY!", &nOffset), 0u);
}

TEST(ScanForPattern, ResumesAtTheByteThatDiffered) {
  int nOffset = -1;
  EXPECT_EQ(Scan("AAAB", "AAB", &nOffset), 0u);
  EXPECT_EQ(Scan("AACAAB", "AAB", &nOffset), 3u);
  EXPECT_EQ(nOffset, 3);
}

TEST(ScanForPattern, OneBytePatternIsAFullMatchWithoutReadingOn) {
  int nOffset = -1;
  EXPECT_EQ(Scan("xxA", "A", &nOffset), 1u);
  EXPECT_EQ(nOffset, 2);
}

// --- CRC ---------------------------------------------------------------------------------------------

TEST(CalcCRC16, CheckValue) {
  EXPECT_EQ(CalcCRC16(reinterpret_cast<const BYTE*>("123456789"), 9), 0xBB3D);
}

TEST(CalcCRC16, EmptyBlockIsZero) {
  EXPECT_EQ(CalcCRC16(nullptr, 0), 0);
}

// --- Raw captures ------------------------------------------------------------------------------------

class DumpTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    m_file = fopen(host().RealPath("/tmp/dump.txt").c_str(), "w+");
    ASSERT_NE(m_file, nullptr);
  }
  void TearDown() override {
    if (m_file != nullptr) fclose(m_file);
    HostTest::TearDown();
  }
  std::string Written() {
    fflush(m_file);
    return host().ReadFile("/tmp/dump.txt");
  }
  FILE* m_file = nullptr;
};

TEST_F(DumpTest, ColumnOfFifteenWritesOneByteAndANewLine) {
  BYTE cData = 0xA5;
  int nColumn = 15;
  EXPECT_TRUE(DumpRawData(m_file, &cData, 1, &nColumn, 1));
  EXPECT_EQ(Written(), "a5 \n");
  EXPECT_EQ(nColumn, 0);
}

TEST_F(DumpTest, BlocksContinueTheSameLine) {
  Bytes data = Hex("00 01 02 03 04 05 06 07 08 09");
  int nColumn = 0;
  EXPECT_TRUE(DumpRawData(m_file, data.data(), 10, &nColumn, 1));
  EXPECT_EQ(nColumn, 10);
  EXPECT_TRUE(DumpRawData(m_file, data.data(), 10, &nColumn, 1));
  EXPECT_EQ(nColumn, 4);
  EXPECT_EQ(Written(), "00 01 02 03 04 05 06 07 08 09 00 01 02 03 04 05 \n06 07 08 09 ");
}

TEST_F(DumpTest, LimitIsTestedBeforeTheBlockOnly) {
  Bytes data(600);
  int nColumn = 0;
  EXPECT_TRUE(DumpRawData(m_file, data.data(), 600, &nColumn, 1));
  const size_t nSize = Written().size();
  EXPECT_GT(nSize, 1024u);
  EXPECT_FALSE(DumpRawData(m_file, data.data(), 1, &nColumn, 1));
  EXPECT_EQ(Written().size(), nSize);
}

TEST_F(DumpTest, LimitInKilobytesDoesNotOverflow) {
  BYTE cData = 1;
  int nColumn = 0;
  EXPECT_TRUE(DumpRawData(m_file, &cData, 1, &nColumn, INT_MAX));
  EXPECT_FALSE(DumpRawData(m_file, &cData, 1, &nColumn, 0));
}

TEST_F(DumpTest, AStreamThatReportsAnErrorGivesFalse) {
  FILE* pReadOnly = fopen(host().RealPath("/tmp/dump.txt").c_str(), "r");
  ASSERT_NE(pReadOnly, nullptr);
  BYTE cData = 1;
  int nColumn = 0;
  EXPECT_FALSE(DumpRawData(pReadOnly, &cData, 1, &nColumn, 10));
  fclose(pReadOnly);
}

}  // namespace
