// SPDX-License-Identifier: Apache-2.0
// Cuts the bytes of a serial line by a clock of the test's own, and feeds the pieces to the library's decoder.
#include "serial_pieces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "metadata_lib.h"
#include "runtime_test.h"

// The decoder's entry points; the library exports them without declaring them in its public header.
extern "C" {
BOOL AllocKlvDecodeContext(void** ppvContext, void (*pfnRxHandler)(MDATA_BUFFER*, void*), void* pvUserParam1);
BOOL FreeKlvDecodeContext(void** ppvContext);
int GenericKLV_ProcessRxData(void* pvCtxt, const BYTE* pvData, int nLength);
}

namespace {

using host_runtime::SerialPieces;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Le;
using Bytes = std::vector<BYTE>;
using Sizes = std::vector<size_t>;

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kAt9600 = 1'041'666;  // ten bits
constexpr int64_t kAt115200 = 86'805;

class PiecesTest : public testing::Test {
 protected:
  explicit PiecesTest(int64_t time = kAt9600) : m_character(time), m_pieces(time) {}

  void Come(size_t count) { m_pieces.Push(Bytes(count, 0x55), m_now); }
  // Returns the sizes of all pieces that are due now.
  Sizes Cut() {
    Sizes sizes;
    for (auto piece = m_pieces.Next(m_now); !piece.empty(); piece = m_pieces.Next(m_now)) {
      sizes.push_back(piece.size());
      m_pieces.Pop(m_now);
    }
    return sizes;
  }
  // Pushes one character after the other, as the line delivers them.
  Sizes Run(int count) {
    Sizes all;
    for (int i = 0; i < count; ++i) {
      m_now += m_character;
      Come(1);
      const Sizes some = Cut();
      all.insert(all.end(), some.begin(), some.end());
    }
    return all;
  }

  const int64_t m_character;
  int64_t m_now = 1'000'000'000'000;
  SerialPieces m_pieces;
};

TEST_F(PiecesTest, AWholeMessageIsHandedOutWhenTheLineWasQuietForSixteenCharacters) {
  Come(150);
  EXPECT_THAT(Cut(), IsEmpty());
  EXPECT_EQ(m_pieces.Due(), m_now + 16 * kAt9600);
  m_now = m_pieces.Due() - 1;
  EXPECT_THAT(Cut(), IsEmpty());
  ++m_now;
  EXPECT_THAT(Cut(), ElementsAre(38u, 38u, 37u, 37u));
  EXPECT_EQ(m_pieces.Due(), SerialPieces::kNever);
}

TEST_F(PiecesTest, AGoodPieceIsHandedOutAtOnce) {
  Come(255);
  EXPECT_THAT(Cut(), IsEmpty());
  Come(1);
  const Sizes sizes = Cut();
  EXPECT_EQ(sizes.size(), 6u);
  EXPECT_THAT(sizes, Each(Le(48u)));
}

TEST_F(PiecesTest, NoShortRestStaysBehindAFullPiece) {
  for (size_t size = 16; size <= 300; ++size) {
    SerialPieces fresh(kAt9600);
    fresh.Push(Bytes(size, 1), m_now);
    m_now = fresh.Due();
    for (auto piece = fresh.Next(m_now); !piece.empty(); piece = fresh.Next(m_now)) {
      EXPECT_GE(piece.size(), 16u) << size;
      EXPECT_LE(piece.size(), 48u) << size;
      fresh.Pop(m_now);
    }
    EXPECT_EQ(fresh.Held(), 0u);
  }
}

TEST_F(PiecesTest, ALineThatRunsGivesAGoodPieceFirstAndThenSixteenCharactersAtATime) {
  EXPECT_THAT(Run(255), IsEmpty());
  EXPECT_EQ(Run(1).size(), 6u);
  EXPECT_THAT(Run(48), ElementsAre(16u, 16u, 16u));
  // A pause between messages does not begin a new burst, a gap does.
  m_now += 60 * kAt9600;
  EXPECT_THAT(Run(16), ElementsAre(16u));
  m_now += 64 * kAt9600;
  EXPECT_THAT(Run(16), IsEmpty());
}

TEST_F(PiecesTest, AShortRestWaitsForTwentyCharactersAndASecondOneForAQuarterSecond) {
  Run(256);
  Come(5);
  EXPECT_EQ(m_pieces.Due(), m_now + 20 * kAt9600);
  m_now = m_pieces.Due();
  EXPECT_THAT(Cut(), ElementsAre(5u));
  Come(5);
  EXPECT_EQ(m_pieces.Due(), m_now + 250 * kMs);
  m_now += 100 * kMs;
  Come(11);
  m_now = m_pieces.Due();
  EXPECT_THAT(Cut(), ElementsAre(16u));
  Come(5);
  EXPECT_EQ(m_pieces.Due(), m_now + 20 * kAt9600);
}

TEST(SerialPieces, PausesFollowTheRateWithinBounds) {
  const auto dueAfter = [](int64_t character, size_t bytes) {
    SerialPieces pieces(character);
    pieces.Push(Bytes(bytes, 1), 0);
    return pieces.Due();
  };
  EXPECT_EQ(dueAfter(kAt115200, 100), 16 * kAt115200);
  EXPECT_EQ(dueAfter(kAt115200, 5), 20 * kMs);         // a sender is not always scheduled at once
  EXPECT_EQ(dueAfter(200'000'000 / 3, 5), 250 * kMs);  // 150 baud
}

TEST(SerialPieces, ALineWithoutPausesIsHeldFor256CharactersOrASecond) {
  constexpr int64_t kAt1200 = 8'333'333;
  SerialPieces slow(kAt1200);
  int64_t now = 0;
  while (slow.Next(now).empty()) {
    now += kAt1200;
    slow.Push(Bytes(1, 1), now);
    ASSERT_LE(now, 1020 * kMs);
  }
  EXPECT_GE(now, 1000 * kMs);
}

TEST_F(PiecesTest, AfterAnInterruptionAFillerEndsWhatTheDecoderWaitsFor) {
  Run(256);
  Come(7);
  m_pieces.Interrupt();
  EXPECT_THAT(Cut(), ElementsAre(7u));  // nothing follows it
  EXPECT_EQ(m_pieces.Due(), SerialPieces::kNever);
  const int64_t last = m_now;
  m_now += 300 * kMs;
  Come(100);
  EXPECT_THAT(Cut(), IsEmpty());
  EXPECT_EQ(m_pieces.Due(), last + 520 * kMs);
  m_now = m_pieces.Due();
  const auto filler = m_pieces.Next(m_now);
  EXPECT_EQ(Bytes(filler.begin(), filler.end()), Bytes(16, 0xFF));
  m_pieces.Pop(m_now);
  EXPECT_THAT(Cut(), ElementsAre(34u, 33u, 33u));
  // The decoder waits for nothing, because nothing was handed out since.
  SerialPieces fresh(kAt9600);
  fresh.Interrupt();
  fresh.Push(Bytes(256, 1), m_now);
  EXPECT_EQ(fresh.Next(m_now).size(), 43u);
}

// --- with the library's decoder ----------------------------------------------------------------------

// Returns a local set of so many bytes, whose values contain many beginnings of keys.
Bytes Message(size_t size, BYTE number) {
  const Bytes key = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01, 0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00, 0x00};
  Bytes message = key;
  const size_t body = size - 19;
  message.insert(message.end(), {0x82, static_cast<BYTE>(body >> 8), static_cast<BYTE>(body)});
  // The body is one item: tag, long length, value.
  message.insert(message.end(), {3, 0x82, static_cast<BYTE>((body - 4) >> 8), static_cast<BYTE>(body - 4), number});
  while (message.size() < size) message.push_back(key[message.size() % 4]);
  return message;
}

class DecodedTest : public RuntimeTest {
 protected:
  ~DecodedTest() override {
    if (m_decoder != nullptr) FreeKlvDecodeContext(&m_decoder);
  }
  // The pieces of a source that was just opened.
  void Restart() {
    if (m_decoder != nullptr) FreeKlvDecodeContext(&m_decoder);
    m_got.clear();
    ASSERT_TRUE(AllocKlvDecodeContext(&m_decoder, &DecodedTest::Take, this));
  }
  static void Take(MDATA_BUFFER* pMessage, void* pvTest) {
    static_cast<DecodedTest*>(pvTest)->m_got.emplace_back(pMessage->pcData, pMessage->pcData + pMessage->nDataSize);
  }

  void Decode(SerialPieces& pieces, int64_t now) {
    for (auto piece = pieces.Next(now); !piece.empty(); piece = pieces.Next(now)) {
      GenericKLV_ProcessRxData(m_decoder, piece.data(), static_cast<int>(piece.size()));
      pieces.Pop(now);
    }
  }
  // Sends the stream in groups of 1 to `most` bytes at the rate; a group may be late by up to `jitter`.
  void Send(const Bytes& stream, size_t most, int64_t character, int64_t jitter) {
    SerialPieces pieces(character);
    int64_t now = 1'000'000'000'000;
    for (size_t at = 0; at < stream.size();) {
      const size_t size = std::min(1 + m_random() % most, stream.size() - at);
      const int64_t next =
          now + static_cast<int64_t>(size) * character + (jitter == 0 ? 0 : static_cast<int64_t>(m_random()) % jitter);
      for (int64_t due = pieces.Due(); due < next; due = pieces.Due()) Decode(pieces, std::max(due, now));
      now = next;
      pieces.Push({stream.data() + at, size}, now);
      at += size;
      Decode(pieces, now);
    }
    Decode(pieces, pieces.Due() == SerialPieces::kNever ? now : pieces.Due());
  }

  void* m_decoder = nullptr;
  std::vector<Bytes> m_got;
  std::mt19937 m_random{1};
};

TEST_F(DecodedTest, EveryMessageOfAStreamArrivesInLotsOfAnySizeTheFirstOneIncluded) {
  constexpr size_t kLots[] = {1, 2, 3, 5, 7, 8, 14, 15, 16, 17, 47, 48, 49, 62, 100, 1000};
  for (const int64_t character : {kAt9600, kAt9600 / 4, kAt115200}) {
    for (const size_t most : kLots) {
      for (const int64_t jitter : {int64_t{0}, 15 * kMs}) {
        Restart();
        std::vector<Bytes> sent;
        Bytes stream;
        for (BYTE i = 0; i < 40; ++i) {
          sent.push_back(Message(40 + m_random() % 300, i));
          stream.insert(stream.end(), sent.back().begin(), sent.back().end());
        }
        Send(stream, most, character, jitter);
        EXPECT_TRUE(m_got == sent) << m_got.size() << " of 40, lots of up to " << most << ", character " << character
                                   << ", jitter " << jitter;
      }
    }
  }
}

TEST_F(DecodedTest, TheFillerEndsAKeyCutAtAnyByteAndTheNextMessageArrives) {
  const Bytes whole = Message(60, 1);
  const Bytes filler(16, 0xFF);
  for (int cut = 1; cut < 16; ++cut) {
    Restart();
    GenericKLV_ProcessRxData(m_decoder, whole.data(), static_cast<int>(whole.size()));
    GenericKLV_ProcessRxData(m_decoder, whole.data(), cut);
    GenericKLV_ProcessRxData(m_decoder, filler.data(), static_cast<int>(filler.size()));
    GenericKLV_ProcessRxData(m_decoder, whole.data(), static_cast<int>(whole.size()));
    EXPECT_THAT(m_got, ElementsAre(whole, whole)) << cut;
  }
}

}  // namespace
