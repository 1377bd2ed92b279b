// The KLV stream decoder fed with a recorded flight in pieces, with damage, and with hostile streams.
#include <iostream>
#include <random>

#include "decoder_fixture.h"

namespace {

// Bytes moved by memmove while a count is taken.
thread_local bool g_bCounting = false;
thread_local size_t g_nMoved = 0;

// Whether a message is whole: its length field says its size.
bool IsWhole(const Bytes& Message) {
  const std::vector<Bytes> Cut = SplitMessages(Message);
  return Cut.size() == 1 && Cut[0] == Message;
}

class StreamTest : public DecoderTest {
 protected:
  void SetUp() override {
    DecoderTest::SetUp();
    host().SetLevel("METADATALIB", 0);
  }
  void ExpectOnlyWholeMessages() {
    for (const Bytes& Message : m_Messages) ASSERT_TRUE(IsWhole(Message));
    ExpectCountersAddUp();
  }
  // A stream that follows a second of silence is found again after some messages.
  void ExpectRecovery() {
    const Bytes Good = WellFormedMessage();
    for (int i = 0; i < 20; i++) {
      host().Advance(1000);
      m_Messages.clear();
      Feed(Good);
      if (!m_Messages.empty() && m_Messages.back() == Good && Context().nStoredAmount == 0) return;
    }
    FAIL() << "still no message";
  }
};

// The recorded flight; a test without it says so and has nothing to show.
class FlightTest : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    const auto Recording = LoadRecording(METADATA_SHARED_DATA_DIR, "recorded_flight.klv");
    if (!Recording) {
      std::cout << "no recorded_flight.klv in " METADATA_SHARED_DATA_DIR << "\n";
      return;
    }
    m_Flight = *Recording;
    m_FlightMessages = SplitMessages(m_Flight);
    ASSERT_EQ(m_FlightMessages.size(), 407u);
  }
  // Whether what was delivered are messages of the flight, in its order.
  bool IsPartOfFlight() const {
    size_t nAt = 0;
    for (const Bytes& Message : m_Messages) {
      while (nAt < m_FlightMessages.size() && m_FlightMessages[nAt] != Message) nAt++;
      if (nAt++ == m_FlightMessages.size()) return false;
    }
    return true;
  }

  Bytes m_Flight;
  std::vector<Bytes> m_FlightMessages;
};

TEST_F(FlightTest, ArrivesWholeFromChunksOfAtLeastAKey) {
  for (const size_t nChunk : {16u, 17u, 48u, 259u, 1500u, 4096u, 65536u, 200000u}) {
    StartOver();
    FeedInChunks(m_Flight, nChunk);
    EXPECT_TRUE(m_Messages == m_FlightMessages) << nChunk;
    EXPECT_EQ(Stats().nRxCorruptedMessages, 0u) << nChunk;
    ExpectState(KLV_STATE_SCANNING_FOR_HEADER, 0);
    ExpectCountersAddUp();
  }
}

TEST_F(FlightTest, ArrivesWholeWhereverItIsCut) {
  // Every byte of the flight begins a chunk in one of the rounds.
  constexpr size_t kChunk = 263;
  for (size_t nFirst = 1; nFirst <= kChunk; nFirst++) {
    StartOver();
    FeedInChunks(m_Flight, kChunk, nFirst);
    ASSERT_TRUE(m_Messages == m_FlightMessages) << nFirst;
    ASSERT_EQ(Stats().nRxCorruptedMessages, 0u);
  }
}

TEST_F(FlightTest, ShorterChunksLoseMessagesButNeverSpoilOne) {
  for (size_t nChunk = 1; nChunk < 16; nChunk++) {
    StartOver();
    FeedInChunks(m_Flight, nChunk);
    EXPECT_TRUE(IsPartOfFlight()) << nChunk;
    ExpectCountersAddUp();
    // A key that arrives byte by byte is looked at when its sixth byte is missing.
    if (nChunk == 1) {
      EXPECT_TRUE(m_Messages.empty());
    }
    if (nChunk >= 6) {
      EXPECT_TRUE(m_Messages == m_FlightMessages) << nChunk << ": " << m_Messages.size();
    }
  }
}

TEST_F(FlightTest, OneDamagedByteNeverSpoilsTheStream) {
  for (size_t nMessage = 0; nMessage < std::min<size_t>(3, m_FlightMessages.size()); nMessage++) {
    const Bytes& Good = m_FlightMessages[nMessage];
    for (size_t nAt = 0; nAt < Good.size(); nAt++) {
      for (const int nFlip : {0x01, 0x80, 0xFF}) {
        Bytes Damaged = Good;
        Damaged[nAt] = static_cast<BYTE>(Damaged[nAt] ^ nFlip);
        StartOver();
        FeedInChunks(Damaged + m_FlightMessages[nMessage + 1], 100);
        ExpectOnlyWholeMessages();
        ExpectRecovery();
        if (HasFailure()) FAIL() << "byte " << nAt << " of message " << nMessage << " flipped by " << nFlip;
      }
    }
  }
}

TEST_F(FlightTest, EveryByteOfTheFlightDamagedOnceDeliversOnlyWholeMessages) {
  // In each round one byte of every message, all at the same distance from its start.
  size_t nLongest = 0;
  for (const Bytes& Message : m_FlightMessages) nLongest = std::max(nLongest, Message.size());
  for (size_t nDistance = 0; nDistance < nLongest; nDistance++) {
    Bytes Damaged = m_Flight;
    size_t nStart = 0;
    for (const Bytes& Message : m_FlightMessages) {
      if (nDistance < Message.size()) Damaged[nStart + nDistance] = static_cast<BYTE>(~Damaged[nStart + nDistance]);
      nStart += Message.size();
    }
    StartOver();
    FeedInChunks(Damaged, 1500);
    ExpectOnlyWholeMessages();
    if (HasFailure()) FAIL() << "distance " << nDistance;
  }
}

TEST_F(FlightTest, DamagedValuesAreCountedAsCorrupted) {
  if (m_FlightMessages.empty()) return;
  const Bytes& Good = m_FlightMessages[0];
  // The time stamp comes first: tag, length, eight bytes.
  for (size_t nAt = 20; nAt < 28; nAt++) {
    Bytes Damaged = Good;
    Damaged[nAt] = static_cast<BYTE>(Damaged[nAt] ^ 0x40);
    StartOver();
    Feed(Damaged + Good);
    EXPECT_EQ(m_Messages, std::vector<Bytes>{Good});
    EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
  }
}

TEST_F(StreamTest, StandardsSampleWithItemsLeftOutCountsAsCorrupted) {
  const auto Sample = LoadRecording(METADATA_SHARED_DATA_DIR, "st0601_sample.klv");
  if (!Sample) {
    std::cout << "no st0601_sample.klv in " METADATA_SHARED_DATA_DIR << "\n";
    return;
  }
  Feed(*Sample);
  EXPECT_TRUE(m_Messages.empty());
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
}

TEST_F(StreamTest, RandomBytesNeverSpoilTheStream) {
  std::mt19937 Random(42);
  const Bytes Lengths = {0x00, 0x05, 0x7F, 0x80, 0x81, 0x82, 0x83, 0x84, 0xFF};
  const Bytes Designators = {0x01, 0x02, 0x03, 0x04, 0x05, 0x0B, 0x13, 0x1B, 0x22, 0x24, 0x63, 0x7B, 0xFF};
  for (int nRound = 0; nRound < 300; nRound++) {
    Bytes Stream;
    while (Stream.size() < 2000) {
      Bytes Key = UasKey();
      if (Random() % 2) Key[5] = Designators[Random() % Designators.size()];
      if (Random() % 4 == 0) Key.resize(1 + Random() % 16);
      Stream = Stream + Key + Bytes{Lengths[Random() % Lengths.size()]};
      for (size_t n = Random() % 60; n > 0; n--)
        Stream.push_back(static_cast<BYTE>(Random() % 2 ? Random() : Random() % 4));
      if (Random() % 4 == 0) Stream = Stream + WellFormedMessage();
    }
    StartOver();
    for (size_t nAt = 0; nAt < Stream.size();) {
      const size_t nEnd = std::min(Stream.size(), nAt + 1 + Random() % (Random() % 2 ? 20 : 400));
      Feed(Stream, nAt, nEnd);
      nAt = nEnd;
      if (Random() % 16 == 0) host().Advance(501);
    }
    ExpectOnlyWholeMessages();
    if (HasFailure()) FAIL() << "round " << nRound;
  }
}

// --- Cost ------------------------------------------------------------------------------------------------

class CostTest : public StreamTest {
 protected:
  size_t MovedBy(const Bytes& Stream, size_t nChunk) {
    g_nMoved = 0;
    for (size_t nAt = 0; nAt < Stream.size();) {
      const size_t nEnd = std::min(Stream.size(), nAt + nChunk);
      const Bytes Chunk(Stream.begin() + static_cast<ptrdiff_t>(nAt), Stream.begin() + static_cast<ptrdiff_t>(nEnd));
      g_bCounting = true;
      GenericKLV_ProcessRxData(m_pvCtxt, Chunk.data(), static_cast<int>(Chunk.size()));
      g_bCounting = false;
      nAt = nEnd;
    }
    return g_nMoved;
  }
};

Bytes Repeated(const Bytes& What, size_t nSize) {
  Bytes Stream;
  while (Stream.size() < nSize) Stream.insert(Stream.end(), What.begin(), What.end());
  return Stream;
}

TEST_F(CostTest, NestedSyncPatternsMoveEachByteOnceAtMost) {
  const Bytes Pattern = {0x06, 0x0E, 0x2B, 0x34, 0x02};
  const std::vector<Bytes> Hostile = {
      Pattern,                           // unknown designators
      UasKey() + Hex("83"),              // lengths of no form
      UasKey() + Hex("82 FF FF"),        // each the head of a largest message
      UasKey() + Hex("82 FF FF 03 7F"),  // the same, with items
      UasKey() + Hex("00"),
      UasKey() + Hex("81 20"),
  };
  for (const Bytes& What : Hostile) {
    const Bytes Stream = UasKey() + Hex("82 FF FF") + Repeated(What, 90000);
    for (const size_t nChunk : {size_t{100}, size_t{1500}, Stream.size()}) {
      StartOver();
      EXPECT_LE(MovedBy(Stream, nChunk), Stream.size() + Stream.size() / nChunk * 16)
          << What.size() << " in chunks of " << nChunk;
    }
  }
}

TEST_F(CostTest, FullBufferOfSyncPatternsIsGivenUpInOneChunk) {
  // A largest message all but its last byte, full of sync patterns; then time runs out.
  const Bytes Head = UasKey() + Hex("82 FF FF");
  Feed(Head + Repeated(Hex("06 0E 2B 34 02"), 65000));
  ExpectState(KLV_STATE_ACQUIRING_DATA, 19 + 65000);
  host().Advance(600);
  EXPECT_LE(MovedBy(Hex("AA"), 1), 65019u);
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u + 65000u / 5u - 3u);
  EXPECT_LT(Context().nStoredAmount, 16);
}

}  // namespace

extern "C" void* __real_memmove(void* pvTo, const void* pvFrom, size_t nSize);
extern "C" void* __wrap_memmove(void* pvTo, const void* pvFrom, size_t nSize) {
  if (g_bCounting) g_nMoved += nSize;
  return __real_memmove(pvTo, pvFrom, nSize);
}
