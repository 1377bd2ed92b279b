// SPDX-License-Identifier: Apache-2.0
// Tests of the KLV stream decoder with a recorded flight in pieces, with damaged messages, and with hostile streams.
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <random>
#include <vector>

#include "decoder_fixture.h"

namespace {

// Counts the bytes moved by memmove while counting is enabled.
thread_local bool g_bCounting = false;
thread_local size_t g_nMoved = 0;

// Tells whether a message is complete, that is, whether its length field matches its size.
bool IsWhole(const Bytes& message) {
  const std::vector<Bytes> cut = SplitMessages(message);
  return cut.size() == 1 && cut[0] == message;
}

class StreamTest : public DecoderTest {
 protected:
  void SetUp() override {
    DecoderTest::SetUp();
    host().SetLevel("METADATALIB", 0);
  }
  void ExpectOnlyWholeMessages() {
    for (const Bytes& message : m_messages) ASSERT_TRUE(IsWhole(message));
    ExpectCountersAddUp();
  }
  // Checks that after a second of silence the decoder finds the stream again within some messages.
  void ExpectRecovery() {
    const Bytes good = WellFormedMessage();
    for (int i = 0; i < 20; i++) {
      host().Advance(1000);
      m_messages.clear();
      Feed(good);
      if (!m_messages.empty() && m_messages.back() == good && Context().nStoredAmount == 0) return;
    }
    FAIL() << "still no message";
  }
};

// Tests with the recorded flight. If it is absent, they report that and check nothing.
class FlightTest : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    const auto recording = LoadRecording(METADATA_SHARED_DATA_DIR, "recorded_flight.klv");
    if (!recording) {
      std::cout << "no recorded_flight.klv in " METADATA_SHARED_DATA_DIR << "\n";
      return;
    }
    m_flight = *recording;
    m_flightMessages = SplitMessages(m_flight);
    ASSERT_EQ(m_flightMessages.size(), 407u);
  }
  // Tells whether the delivered messages are messages of the flight, in its order.
  bool IsPartOfFlight() const {
    size_t nAt = 0;
    for (const Bytes& message : m_messages) {
      while (nAt < m_flightMessages.size() && m_flightMessages[nAt] != message) nAt++;
      if (nAt++ == m_flightMessages.size()) return false;
    }
    return true;
  }

  Bytes m_flight;
  std::vector<Bytes> m_flightMessages;
};

TEST_F(FlightTest, ArrivesWholeFromChunksOfAtLeastAKey) {
  for (const size_t nChunk : {16u, 17u, 48u, 259u, 1500u, 4096u, 65536u, 200000u}) {
    StartOver();
    FeedInChunks(m_flight, nChunk);
    EXPECT_TRUE(m_messages == m_flightMessages) << nChunk;
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
    FeedInChunks(m_flight, kChunk, nFirst);
    ASSERT_TRUE(m_messages == m_flightMessages) << nFirst;
    ASSERT_EQ(Stats().nRxCorruptedMessages, 0u);
  }
}

TEST_F(FlightTest, ShorterChunksLoseMessagesButNeverAlterOne) {
  for (size_t nChunk = 1; nChunk < 16; nChunk++) {
    StartOver();
    FeedInChunks(m_flight, nChunk);
    EXPECT_TRUE(IsPartOfFlight()) << nChunk;
    ExpectCountersAddUp();
    // A key that arrives byte by byte is evaluated while its sixth byte is missing.
    if (nChunk == 1) {
      EXPECT_TRUE(m_messages.empty());
    }
    if (nChunk >= 6) {
      EXPECT_TRUE(m_messages == m_flightMessages) << nChunk << ": " << m_messages.size();
    }
  }
}

TEST_F(FlightTest, OneDamagedByteNeverStopsTheStream) {
  for (size_t nMessage = 0; nMessage < std::min<size_t>(3, m_flightMessages.size()); nMessage++) {
    const Bytes& good = m_flightMessages[nMessage];
    for (size_t nAt = 0; nAt < good.size(); nAt++) {
      for (const int nFlip : {0x01, 0x80, 0xFF}) {
        Bytes damaged = good;
        damaged[nAt] = static_cast<BYTE>(damaged[nAt] ^ nFlip);
        StartOver();
        FeedInChunks(damaged + m_flightMessages[nMessage + 1], 100);
        ExpectOnlyWholeMessages();
        ExpectRecovery();
        if (HasFailure()) FAIL() << "byte " << nAt << " of message " << nMessage << " flipped by " << nFlip;
      }
    }
  }
}

TEST_F(FlightTest, EveryByteOfTheFlightDamagedOnceDeliversOnlyWholeMessages) {
  // Each round damages one byte of every message, at the same distance from its start.
  size_t nLongest = 0;
  for (const Bytes& message : m_flightMessages) nLongest = std::max(nLongest, message.size());
  for (size_t nDistance = 0; nDistance < nLongest; nDistance++) {
    Bytes damaged = m_flight;
    size_t nStart = 0;
    for (const Bytes& message : m_flightMessages) {
      if (nDistance < message.size()) damaged[nStart + nDistance] = static_cast<BYTE>(~damaged[nStart + nDistance]);
      nStart += message.size();
    }
    StartOver();
    FeedInChunks(damaged, 1500);
    ExpectOnlyWholeMessages();
    if (HasFailure()) FAIL() << "distance " << nDistance;
  }
}

TEST_F(FlightTest, DamagedValuesAreCountedAsCorrupted) {
  if (m_flightMessages.empty()) return;
  const Bytes& good = m_flightMessages[0];
  // The time stamp comes first: tag, length, eight bytes.
  for (size_t nAt = 20; nAt < 28; nAt++) {
    Bytes damaged = good;
    damaged[nAt] = static_cast<BYTE>(damaged[nAt] ^ 0x40);
    StartOver();
    Feed(damaged + good);
    EXPECT_EQ(m_messages, std::vector<Bytes>{good});
    EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
  }
}

TEST_F(StreamTest, StandardsSampleWithItemsLeftOutCountsAsCorrupted) {
  const auto sample = LoadRecording(METADATA_SHARED_DATA_DIR, "st0601_sample.klv");
  if (!sample) {
    std::cout << "no st0601_sample.klv in " METADATA_SHARED_DATA_DIR << "\n";
    return;
  }
  Feed(*sample);
  EXPECT_TRUE(m_messages.empty());
  EXPECT_EQ(Stats().nRxCorruptedMessages, 1u);
}

TEST_F(StreamTest, RandomBytesNeverStopTheStream) {
  std::mt19937 random(42);
  const Bytes lengths = {0x00, 0x05, 0x7F, 0x80, 0x81, 0x82, 0x83, 0x84, 0xFF};
  const Bytes designators = {0x01, 0x02, 0x03, 0x04, 0x05, 0x0B, 0x13, 0x1B, 0x22, 0x24, 0x63, 0x7B, 0xFF};
  for (int nRound = 0; nRound < 300; nRound++) {
    Bytes stream;
    while (stream.size() < 2000) {
      Bytes key = UasKey();
      if (random() % 2) key[5] = designators[random() % designators.size()];
      if (random() % 4 == 0) key.resize(1 + random() % 16);
      stream = stream + key + Bytes{lengths[random() % lengths.size()]};
      for (size_t n = random() % 60; n > 0; n--)
        stream.push_back(static_cast<BYTE>(random() % 2 ? random() : random() % 4));
      if (random() % 4 == 0) stream = stream + WellFormedMessage();
    }
    StartOver();
    for (size_t nAt = 0; nAt < stream.size();) {
      const size_t nEnd = std::min(stream.size(), nAt + 1 + random() % (random() % 2 ? 20 : 400));
      Feed(stream, nAt, nEnd);
      nAt = nEnd;
      if (random() % 16 == 0) host().Advance(501);
    }
    ExpectOnlyWholeMessages();
    if (HasFailure()) FAIL() << "round " << nRound;
  }
}

// --- Cost ------------------------------------------------------------------------------------------------

class CostTest : public StreamTest {
 protected:
  size_t MovedBy(const Bytes& stream, size_t nChunk) {
    g_nMoved = 0;
    for (size_t nAt = 0; nAt < stream.size();) {
      const size_t nEnd = std::min(stream.size(), nAt + nChunk);
      const Bytes chunk(stream.begin() + static_cast<ptrdiff_t>(nAt), stream.begin() + static_cast<ptrdiff_t>(nEnd));
      g_bCounting = true;
      GenericKLV_ProcessRxData(m_pvCtxt, chunk.data(), static_cast<int>(chunk.size()));
      g_bCounting = false;
      nAt = nEnd;
    }
    return g_nMoved;
  }
};

Bytes Repeated(const Bytes& what, size_t nSize) {
  Bytes stream;
  while (stream.size() < nSize) stream.insert(stream.end(), what.begin(), what.end());
  return stream;
}

TEST_F(CostTest, NestedSyncPatternsMoveEachByteAtMostOnce) {
  const Bytes pattern = {0x06, 0x0E, 0x2B, 0x34, 0x02};
  const std::vector<Bytes> hostile = {
      pattern,                           // unknown designators
      UasKey() + Hex("83"),              // lengths of no valid form
      UasKey() + Hex("82 FF FF"),        // each is the head of a largest message
      UasKey() + Hex("82 FF FF 03 7F"),  // the same, with items
      UasKey() + Hex("00"),
      UasKey() + Hex("81 20"),
  };
  for (const Bytes& what : hostile) {
    const Bytes stream = UasKey() + Hex("82 FF FF") + Repeated(what, 90000);
    for (const size_t nChunk : {size_t{100}, size_t{1500}, stream.size()}) {
      StartOver();
      EXPECT_LE(MovedBy(stream, nChunk), stream.size() + stream.size() / nChunk * 16)
          << what.size() << " in chunks of " << nChunk;
    }
  }
}

TEST_F(CostTest, FullBufferOfSyncPatternsIsDiscardedInOneChunk) {
  // A largest message without its last byte is full of sync patterns; then the time-out expires.
  const Bytes head = UasKey() + Hex("82 FF FF");
  Feed(head + Repeated(Hex("06 0E 2B 34 02"), 65000));
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
