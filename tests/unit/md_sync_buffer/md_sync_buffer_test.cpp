// SPDX-License-Identifier: Apache-2.0
// Compares the buffer of a stream decoder with a plain vector.
#include "md_sync_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>

namespace {

constexpr int kCapacity = 64;
constexpr MdSyncPattern kPattern = {"oHeY!", 5};

class SyncBufferTest : public testing::Test {
 protected:
  void Append(const std::string& text) { m_held.Append(Data(text), Size(text)); }
  void Restart(const std::string& text) { m_held.Restart(Data(text), Size(text)); }
  int ScanChunk(const std::string& text) { return m_held.ScanChunk(Data(text), Size(text), kPattern); }
  bool Continues(const std::string& text, int* compared) {
    return m_held.ContinuesPattern(Data(text), Size(text), kPattern, compared);
  }
  std::string Held() const {
    return {reinterpret_cast<const char*>(m_held.Front()), static_cast<size_t>(m_held.Stored())};
  }
  static const BYTE* Data(const std::string& text) { return reinterpret_cast<const BYTE*>(text.data()); }
  static int Size(const std::string& text) { return static_cast<int>(text.size()); }

  // The block has exactly the capacity, so that a sanitizer detects accesses beyond it.
  const std::unique_ptr<BYTE[]> m_memory = std::make_unique<BYTE[]>(kCapacity);
  int32_t m_start = 0;
  int32_t m_stored = 0;
  uint64_t m_position = 0;
  MdSyncBuffer m_held{m_memory.get(), kCapacity, m_start, m_stored, m_position};
};

// --- Holding bytes ---------------------------------------------------------------------------------------

TEST_F(SyncBufferTest, BytesAreAppendedAfterThoseHeld) {
  Append("abc");
  Append("");
  m_held.Append(nullptr, 0);
  m_held.Append(nullptr, -3);
  Append("de");
  EXPECT_EQ(Held(), "abcde");
  EXPECT_EQ(m_stored, 5);
}

TEST_F(SyncBufferTest, DroppingOnlyMovesTheFront) {
  Append("abcde");
  m_held.Drop(2);
  EXPECT_EQ(Held(), "cde");
  EXPECT_EQ(m_start, 2);
  EXPECT_EQ(std::string(m_memory.get(), m_memory.get() + 5), "abcde");
}

TEST_F(SyncBufferTest, NoPositionIsUsedTwice) {
  m_held.Append(Data("abcdef"), 6);
  EXPECT_EQ(m_held.Position(), 0u);
  m_held.Drop(2);
  EXPECT_EQ(m_held.Position(), 2u);
  m_held.Clear();
  EXPECT_EQ(m_held.Position(), 6u);
  m_held.Append(Data("ghi"), 3);
  EXPECT_EQ(m_held.Position(), 6u);
  m_held.Restart(Data("jk"), 2);
  EXPECT_EQ(m_held.Position(), 9u);
  m_held.MoveToStart();
  EXPECT_EQ(m_held.Position(), 9u);
}

TEST_F(SyncBufferTest, ClearKeepsTheMemoryAsItIs) {
  Append("abcde");
  m_held.Clear();
  EXPECT_EQ(Held(), "");
  EXPECT_EQ(std::string(m_memory.get(), m_memory.get() + 5), "abcde");
}

TEST_F(SyncBufferTest, RestartHoldsNewBytesFromTheStartOfTheMemory) {
  Append("abcde");
  m_held.Drop(3);
  Restart("xy");
  EXPECT_EQ(Held(), "xy");
  EXPECT_EQ(m_start, 0);
  EXPECT_EQ(std::string(m_memory.get(), m_memory.get() + 5), "xycde");
}

TEST_F(SyncBufferTest, AppendMovesTheHeldBytesOnlyForRoom) {
  Append(std::string(kCapacity - 10, 'a') + "0123456789");
  m_held.Drop(kCapacity - 10);
  EXPECT_EQ(m_start, kCapacity - 10);
  Append("x");
  EXPECT_EQ(Held(), "0123456789x");
  EXPECT_EQ(m_start, 0);
  Append(std::string(kCapacity - 11, 'b'));
  EXPECT_EQ(m_stored, kCapacity);
  EXPECT_EQ(m_start, 0);
}

TEST_F(SyncBufferTest, AppendThatJustFitsDoesNotMove) {
  Append(std::string(kCapacity - 1, 'a'));
  m_held.Drop(10);
  Append("x");
  EXPECT_EQ(m_start, 10);
  EXPECT_EQ(m_held.Stored(), kCapacity - 10);
}

TEST_F(SyncBufferTest, CompactMovesNoMoreBytesThanWereDropped) {
  Append("0123456789");
  m_held.Drop(4);
  m_held.Compact(0);
  EXPECT_EQ(m_start, 4);
  m_held.Drop(1);
  m_held.Compact(0);
  EXPECT_EQ(m_start, 0);
  EXPECT_EQ(Held(), "56789");
}

TEST_F(SyncBufferTest, CompactAlwaysMovesAFewBytes) {
  Append("0123456789");
  m_held.Drop(4);
  m_held.Compact(5);
  EXPECT_EQ(m_start, 4);
  m_held.Compact(6);
  EXPECT_EQ(m_start, 0);
  EXPECT_EQ(Held(), "456789");
}

// --- The sync pattern ------------------------------------------------------------------------------------

TEST_F(SyncBufferTest, ChunkWithoutThePatternLeavesTheHeldBytes) {
  Append("abc");
  EXPECT_EQ(ScanChunk("nothing here"), 0);
  EXPECT_EQ(ScanChunk(""), 0);
  EXPECT_EQ(Held(), "abc");
}

TEST_F(SyncBufferTest, ChunkWithThePatternRestartsThere) {
  Append("abc");
  m_held.Drop(1);
  EXPECT_EQ(ScanChunk("noise oHeY!rest"), 5);
  EXPECT_EQ(Held(), "oHeY!rest");
  EXPECT_EQ(m_start, 0);
  EXPECT_EQ(ScanChunk("noise oHe"), 3);
  EXPECT_EQ(Held(), "oHe");
}

TEST_F(SyncBufferTest, RescanDropsTheBytesBeforeThePattern) {
  Append("xoHeYxoHeY!oHeY!");
  int offset = -1;
  EXPECT_EQ(m_held.Rescan(kPattern, &offset), 5);
  EXPECT_EQ(offset, 6);
  EXPECT_EQ(Held(), "oHeY!oHeY!");
  m_held.Drop(5);
  EXPECT_EQ(m_held.Rescan(kPattern, &offset), 5);
  EXPECT_EQ(offset, 0);
  EXPECT_EQ(Held(), "oHeY!");
}

TEST_F(SyncBufferTest, RescanKeepsABeginningOfThePattern) {
  Append("xxoH");
  int offset = -1;
  EXPECT_EQ(m_held.Rescan(kPattern, &offset), 2);
  EXPECT_EQ(offset, 2);
  EXPECT_EQ(Held(), "oH");
}

TEST_F(SyncBufferTest, RescanWithoutThePatternDropsEverything) {
  Append("nothing here");
  int offset = -1;
  EXPECT_EQ(m_held.Rescan(kPattern, &offset), 0);
  EXPECT_EQ(offset, -1);
  EXPECT_EQ(Held(), "");
}

TEST_F(SyncBufferTest, RestOfThePatternIsComparedAsFarAsItHasArrived) {
  int compared = -1;
  Append("oH");
  EXPECT_TRUE(Continues("eY!rest", &compared));
  EXPECT_EQ(compared, 3);
  EXPECT_TRUE(Continues("e", &compared));
  EXPECT_EQ(compared, 1);
  EXPECT_FALSE(Continues("eX", &compared));
  EXPECT_EQ(compared, 2);
  EXPECT_FALSE(Continues("eY?rest", &compared));
  EXPECT_EQ(compared, 3);
  EXPECT_EQ(Held(), "oH");
}

// --- Anything --------------------------------------------------------------------------------------------

// The test checks which bytes are held, but not their position in the buffer.
TEST_F(SyncBufferTest, RandomCallsMatchTheModel) {
  std::mt19937 random(1);
  std::string model;
  for (int round = 0; round < 200'000; ++round) {
    std::string text(random() % 12, ' ');
    for (char& c : text) c = "oHeY!x"[random() % 6];
    text.resize(std::min(text.size(), kCapacity - model.size()));
    int offset = 0;
    switch (random() % 7) {
      case 0:
      case 1:
        Append(text);
        model += text;
        break;
      case 2: {
        const int dropped = static_cast<int>(random() % (model.size() + 1));
        m_held.Drop(dropped);
        model.erase(0, static_cast<size_t>(dropped));
        break;
      }
      case 3:
        m_held.Compact(static_cast<int>(random() % 8));
        ASSERT_TRUE(m_start == 0 || m_stored > m_start);
        break;
      case 4: {
        const int matched = m_held.Rescan(kPattern, &offset);
        model.erase(0, matched == 0 ? model.size() : static_cast<size_t>(offset));
        ASSERT_EQ(model.compare(0, static_cast<size_t>(matched), "oHeY!", static_cast<size_t>(matched)), 0);
        break;
      }
      case 5:
        if (ScanChunk(text) != 0) model = text.substr(text.size() - static_cast<size_t>(m_held.Stored()));
        break;
      default:
        if (random() % 20 == 0) {
          Restart(text);
          model = text;
        }
        break;
    }
    ASSERT_EQ(Held(), model);
    ASSERT_LE(m_start + m_stored, kCapacity);
  }
}

}  // namespace
