// SPDX-License-Identifier: Apache-2.0
// Streams of nested frames, decoded with what the decoder remembers and without it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "../../../tools/mdfeed/cot_frame.h"
#include "builders.h"
#include "cot_support.h"
#include "fake_host.h"

namespace {

// All that a decoder shows.
struct Outcome {
  std::vector<std::string> lines;
  std::vector<std::string> events;
  ULONG corrupted = 0;
  ULONG good = 0;
};

class RereadFramesTest : public HostTest {
 protected:
  void SetUp() override { host().SetLevel("METADATALIB", 6); }

  static void Collect(MDATA_BUFFER* pBuff, void* pvUserParam1) {
    static_cast<Outcome*>(pvUserParam1)
        ->events.emplace_back(reinterpret_cast<const char*>(pBuff->pcData), static_cast<std::size_t>(pBuff->nDataSize));
  }

  // Decodes a stream. Without memory for it the decoder remembers nothing.
  Outcome Decode(const Bytes& stream, std::size_t piece, bool remembers) {
    Outcome outcome;
    void* context = nullptr;
    EXPECT_TRUE(AllocCotDecodeContext(&context, Collect, &outcome));
    host().ClearLogs();
    if (!remembers) host().FailNext("malloc", {.times = 1000000});
    for (std::size_t at = 0; at < stream.size(); at += piece)
      COT_ProcessRxData(context, stream.data() + at, static_cast<int>(std::min(piece, stream.size() - at)));
    host().StopFailing("malloc");
    const bool remembered = static_cast<COT_DECODE_CONTEXT*>(context)->pReread != nullptr;
    EXPECT_TRUE(remembers || !remembered);
    if (remembered) ++m_remembering;
    for (const LogLine& line : host().Logs()) {
      // The most buffers so far are counted over all decoders.
      if (line.text.find("Max alloc buffers") == std::string::npos)
        outcome.lines.push_back(std::to_string(line.level) + " " + line.text);
    }
    COT_STATS stats = {};
    COT_GetStats(context, &stats);
    outcome.corrupted = stats.nRxCorruptedMessages;
    outcome.good = stats.nRxOkMessages;
    FreeCotDecodeContext(&context);
    host().ClearLogs();
    return outcome;
  }
  void ExpectTheSame(const Bytes& stream, std::size_t piece) {
    const Outcome expected = Decode(stream, piece, false);
    const Outcome outcome = Decode(stream, piece, true);
    for (std::size_t i = 0; i < std::min(outcome.lines.size(), expected.lines.size()); ++i)
      ASSERT_EQ(outcome.lines[i], expected.lines[i]) << i;
    ASSERT_EQ(outcome.lines.size(), expected.lines.size());
    ASSERT_EQ(outcome.corrupted, expected.corrupted);
    ASSERT_EQ(outcome.good, expected.good);
    ASSERT_TRUE(outcome.events == expected.events);
  }

  // A header that announces this many bytes, and the length of the block in them.
  Bytes Header(std::size_t size) {
    const auto low = static_cast<BYTE>(size);
    const auto high = static_cast<BYTE>(size >> 8);
    const WORD check = _CalcLengthCheck(static_cast<WORD>(size));
    Bytes header = {'o', 'H', 'e', 'Y', '!'};
    for (int copy = 0; copy < 3; ++copy)
      header = header + Bytes{low, high, static_cast<BYTE>(check), static_cast<BYTE>(check >> 8)};
    const std::size_t dataBytes = size * 8 / kCodewordBits * kCodewordDataBits / 8;
    const std::size_t block = dataBytes > 2 ? dataBytes - Random(3) * Random(dataBytes / 3 + 1) : 2;
    return Random(4) == 0 ? header : header + Bytes{static_cast<BYTE>(block), static_cast<BYTE>(block >> 8)};
  }
  Bytes NestedFrames(std::size_t size) {
    Bytes stream;
    while (stream.size() < size) {
      const std::size_t nested = 1 + Random(60);
      for (std::size_t i = 0; i < nested; ++i) {
        const std::size_t left = std::min<std::size_t>(65519, size - std::min(size, stream.size()));
        stream = stream + Header(Random(3) == 0 ? left : Random(left + 1));
        for (std::size_t extra = Random(3) == 0 ? Random(200) : 0; extra > 0; --extra)
          stream.push_back(static_cast<BYTE>(Random(256)));
      }
      if (Random(2) == 0)
        stream = stream + mdfeed::BuildCotFrame("<event>" + std::string(Random(3000), 'x') + "</event>");
      for (std::size_t extra = Random(3000); extra > 0; --extra) stream.push_back(static_cast<BYTE>(Random(256)));
    }
    return stream;
  }
  std::size_t Random(std::size_t below) { return m_random() % below; }

  std::mt19937 m_random{12};
  int m_remembering = 0;  // decoders that remembered something
};

// A round takes seconds under an emulator.
#if defined(__aarch64__)
constexpr int kRounds = 4;
#else
constexpr int kRounds = 14;
#endif

TEST_F(RereadFramesTest, NestedFramesGiveTheSameLinesAndEvents) {
  std::size_t events = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    const Bytes stream = NestedFrames(3000 + Random(70000));
    ExpectTheSame(stream, 1 + Random(9000));
    if (HasFatalFailure()) return;
    events += Decode(stream, 4096, true).events.size();
  }
  EXPECT_GE(m_remembering, kRounds - 2);
  EXPECT_GE(events, static_cast<std::size_t>(kRounds / 2));
}

// A good frame that follows inside a bad one arrives in a later piece: it is first checked with what is known, then
// decoded whole.
TEST_F(RereadFramesTest, LongEventInsideABadFrameIsDelivered) {
  const std::string event = "<event>" + std::string(9000, 'y') + "</event>";
  const Bytes inner = mdfeed::BuildCotFrame(event);
  Bytes stream = Header(inner.size() + 500) + inner;
  stream.insert(stream.end(), 6000, BYTE{0});
  const Outcome outcome = Decode(stream, 4096, true);
  EXPECT_EQ(m_remembering, 1);
  EXPECT_EQ(outcome.events, std::vector<std::string>{event});
  EXPECT_EQ(outcome.corrupted, 1u);
}

}  // namespace
