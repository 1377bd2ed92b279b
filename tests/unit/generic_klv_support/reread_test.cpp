// SPDX-License-Identifier: Apache-2.0
// Streams of nested messages, decoded with what the decoder remembers and without it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "decoder_fixture.h"
#include "md_core.h"

namespace {

// All that a decoder shows.
struct Outcome {
  std::vector<std::string> lines;
  std::vector<Bytes> messages;
  ULONG corrupted = 0;
};

class RereadTest : public DecoderTest {
 protected:
  void SetUp() override {
    DecoderTest::SetUp();
    host().SetLevel("METADATALIB", 6);
  }

  // Decodes a stream. Without memory for it the decoder remembers nothing.
  Outcome Decode(const Bytes& stream, size_t chunk, bool remembers) {
    StartOver();
    host().ClearLogs();
    if (!remembers) host().FailNext("calloc", {.times = 1000000});
    FeedInChunks(stream, chunk);
    host().StopFailing("calloc");
    EXPECT_TRUE(remembers || Context().pReread == nullptr);
    Outcome outcome;
    for (const LogLine& line : host().Logs()) {
      // The most buffers so far are counted over all decoders.
      if (line.text.find("Max alloc buffers") == std::string::npos)
        outcome.lines.push_back(std::to_string(line.level) + " " + line.text);
    }
    if (Context().pReread != nullptr) ++m_remembering;
    outcome.messages = m_messages;
    outcome.corrupted = Stats().nRxCorruptedMessages;
    host().ClearLogs();
    return outcome;
  }
  void ExpectTheSame(const Bytes& stream, size_t chunk) {
    const Outcome expected = Decode(stream, chunk, false);
    const Outcome outcome = Decode(stream, chunk, true);
    for (size_t i = 0; i < std::min(outcome.lines.size(), expected.lines.size()); ++i)
      ASSERT_EQ(outcome.lines[i], expected.lines[i]) << i;
    ASSERT_EQ(outcome.lines.size(), expected.lines.size());
    ASSERT_EQ(outcome.corrupted, expected.corrupted);
    ASSERT_TRUE(outcome.messages == expected.messages);
  }

  // A key with a random designator, sometimes that of the standard, and a length that often reaches far.
  Bytes Header(size_t left) {
    static constexpr BYTE kDesignators[] = {0x03, 0x0B, 0x0B, 0x13, 0x1B, 0x2B, 0x43, 0x53, 0x02, 0x05, 0x64, 0x7B};
    Bytes key(UASDataLinkKey, UASDataLinkKey + 16);
    if (Random(2) == 0) key[5] = kDesignators[Random(std::size(kDesignators))];
    const size_t length = Random(3) == 0 ? left : Random(left + 1);
    return key + Bytes{0x82, static_cast<BYTE>(length >> 8), static_cast<BYTE>(length)};
  }
  // Items, most of them small: some long tags, integrity items, some random bytes.
  Bytes Filler(size_t size) {
    Bytes filler;
    const size_t kind = Random(6);
    while (filler.size() < size) {
      if (kind == 0) {
        filler.insert(filler.end(), 50 + Random(2000), BYTE{0x80});
        if (Random(2) == 0) filler = filler + Bytes{1, 2, 0, 0};
      } else if (kind == 1) {
        filler = filler + Bytes{1, 2, static_cast<BYTE>(Random(256)), 0};
      } else if (kind == 2 && Random(40) == 0) {
        filler.push_back(static_cast<BYTE>(Random(256)));
      }
      const size_t length = Random(kind == 3 ? 100 : 4);
      filler = filler + Bytes{static_cast<BYTE>(2 + Random(100)), static_cast<BYTE>(length)};
      filler.insert(filler.end(), length, static_cast<BYTE>(Random(4)));
    }
    filler.resize(size);
    return filler;
  }
  Bytes NestedMessages(size_t size) {
    Bytes stream;
    while (stream.size() < size) {
      const size_t nested = 1 + Random(40);
      for (size_t i = 0; i < nested; ++i) {
        stream = stream + Header(std::min<size_t>(65535, size - std::min(size, stream.size())));
        if (Random(3) == 0) stream = stream + Filler(Random(60));
      }
      if (Random(3) == 0) stream = stream + WellFormedMessage();
      stream = stream + Filler(Random(4000));
    }
    return stream;
  }
  size_t Random(size_t below) { return m_random() % below; }

  std::mt19937 m_random{11};
  int m_remembering = 0;  // decoders that remembered something
};

TEST_F(RereadTest, NestedMessagesGiveTheSameLinesAndMessages) {
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE(round);
    ExpectTheSame(NestedMessages(3000 + Random(60000)), 16 + Random(9000));
    if (HasFatalFailure()) return;
  }
  EXPECT_GE(m_remembering, 50);
}

// Messages in which only the checksum is wrong, one inside the other.
TEST_F(RereadTest, NestedChecksumsGiveTheSameLines) {
  for (int round = 0; round < 20; ++round) {
    SCOPED_TRACE(round);
    Bytes stream;
    const size_t nested = 50 + Random(300);
    const size_t size = nested * 23 + 5000 + Random(5000);
    for (size_t i = 0; i < nested; ++i) {
      const size_t length = size - stream.size() - 19 - Random(2);
      // The next key is the value of an item; its checksum item follows all of them.
      stream = stream + Bytes(UASDataLinkKey, UASDataLinkKey + 16) +
               Bytes{0x82, static_cast<BYTE>(length >> 8), static_cast<BYTE>(length)};
      if (Random(2) == 0) stream = stream + Bytes{3, 19};
    }
    while (stream.size() + 4 < size) stream = stream + Bytes{4, 0};
    stream = stream + Bytes{1, 2, static_cast<BYTE>(Random(256)), static_cast<BYTE>(Random(256))};
    ExpectTheSame(stream + Filler(40), 4096);
    if (HasFatalFailure()) return;
  }
  EXPECT_EQ(m_remembering, 20);
}

// The sum of the second of three messages is right, but its last item runs past the end; the third one has to find that
// the same checksum is wrong for it.
TEST_F(RereadTest, ChecksumItemIsFoundByEveryMessageAroundIt) {
  constexpr size_t kItems = 200;
  const Bytes header = Bytes(UASDataLinkKey, UASDataLinkKey + 16) + Bytes{0x82, 0, 0};
  Bytes stream;
  for (int i = 0; i < 3; ++i) stream = stream + Bytes{3, 19} + header;
  stream.erase(stream.begin(), stream.begin() + 2);
  for (size_t i = 0; i < kItems; ++i) stream = stream + Bytes{4, 0};
  const size_t checksum = stream.size();
  stream = stream + Bytes{1, 2, 0, 0};
  for (size_t i = 0; i < kItems; ++i) stream = stream + Bytes{4, 0};
  stream = stream + Bytes{5, 50};
  for (size_t start = 0; start < 60; start += 21) {
    const size_t length = stream.size() - start - 19;
    stream[start + 17] = static_cast<BYTE>(length >> 8);
    stream[start + 18] = static_cast<BYTE>(length);
  }
  constexpr size_t kSecond = 21;
  const uint16_t sum = _MdRunningSumWithout(stream.data() + kSecond, stream.size() - kSecond, checksum + 2 - kSecond);
  stream[checksum + 2] = static_cast<BYTE>(sum >> 8);
  stream[checksum + 3] = static_cast<BYTE>(sum);
  ExpectTheSame(stream, 4096);
  const Outcome outcome = Decode(stream, 4096, true);
  const auto count = [&outcome](const std::string& part) {
    return std::count_if(outcome.lines.begin(), outcome.lines.end(),
                         [&part](const std::string& line) { return line.find(part) != std::string::npos; });
  };
  EXPECT_EQ(count("doesn't match KLV value"), 2);
  EXPECT_EQ(count("KLV_GetInfo returned an error") + count("Sum of item lengths"), 1);
}

// A generic set has no checksum, so that its walk passes an item that the standard's walk must not.
TEST_F(RereadTest, WalksOfOtherStandardsDoNotHideAChecksumItem) {
  Bytes stream;
  constexpr size_t kSize = 2000;
  for (int i = 0; i < 3; ++i) {
    Bytes key(UASDataLinkKey, UASDataLinkKey + 16);
    if (i < 2) key[15] = 0x77;
    const size_t length = kSize - stream.size() - (i > 0 ? 2 : 0) - 19;
    if (i > 0) stream = stream + Bytes{3, 19};
    stream = stream + key + Bytes{0x82, static_cast<BYTE>(length >> 8), static_cast<BYTE>(length)};
  }
  while (stream.size() < kSize / 2) stream = stream + Bytes{4, 0};
  stream = stream + Bytes{1, 2, 0x12, 0x34};
  while (stream.size() < kSize - 2) stream = stream + Bytes{4, 0};
  stream.resize(kSize - 2);
  stream = stream + Bytes{5, 50};
  ExpectTheSame(stream, 4096);
}

}  // namespace
