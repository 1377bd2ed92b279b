// SPDX-License-Identifier: Apache-2.0
#include "mp4_fragments.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "encoded_frame.h"
#include "fragment_ring.h"
#include "observation.h"
#include "scene.h"
#include "video_encoder.h"
#include "video_units.h"

namespace mdencoder::mp4_fragments_test {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int64_t kFrameUs = 40'000;

const bool kIsQuiet = [] {
  av_log_set_level(AV_LOG_QUIET);
  return true;
}();
constexpr std::chrono::milliseconds kNow(0);

uint32_t Word(const Bytes& bytes, size_t at) {
  return static_cast<uint32_t>(bytes[at]) << 24 | static_cast<uint32_t>(bytes[at + 1]) << 16 |
         static_cast<uint32_t>(bytes[at + 2]) << 8 | bytes[at + 3];
}

// Returns the names of the boxes on the highest level.
std::string Boxes(const Bytes& bytes) {
  std::string names;
  for (size_t at = 0; at + 8 <= bytes.size();) {
    names += (names.empty() ? "" : " ") + std::string(bytes.begin() + static_cast<std::ptrdiff_t>(at) + 4,
                                                      bytes.begin() + static_cast<std::ptrdiff_t>(at) + 8);
    const uint32_t size = Word(bytes, at);
    if (size < 8) return names + " and a box without a size";
    at += size;
  }
  return names;
}

// Returns where the content of a box begins.
size_t Find(const Bytes& bytes, std::string_view name) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const size_t at = text.find(name);
  EXPECT_NE(at, std::string_view::npos) << name;
  return at + name.size();
}

// Returns the decode time of a fragment in microseconds.
int64_t DecodeUs(const Bytes& init, const Bytes& fragment) {
  const uint32_t scale = Word(init, Find(init, "mdhd") + 12);
  const size_t at = Find(fragment, "tfdt");
  const uint64_t time = fragment[at] == 1 ? static_cast<uint64_t>(Word(fragment, at + 4)) << 32 | Word(fragment, at + 8)
                                          : Word(fragment, at + 4);
  return static_cast<int64_t>(time * 1'000'000 / scale);
}

// A key frame each second, from so much on.
std::vector<EncodedFrame> Frames(int64_t beginUs, int count, int width = 128) {
  Scene scene({width, 96, 25});
  VideoEncoder encoder({width, 96, 25, 200'000});
  std::vector<EncodedFrame> frames;
  for (int i = 0; i < count; ++i) {
    const int64_t ptsUs = beginUs + i * kFrameUs;
    const auto frame = encoder.Encode(scene.Next(SceneLines("a", static_cast<uint64_t>(ptsUs), {})), ptsUs);
    if (frame) frames.push_back(*frame);
  }
  return frames;
}

TEST(VideoEncoder, GivesEachPictureAtOnceWithItsTime) {
  const auto frames = Frames(5'000'000, 50);
  ASSERT_EQ(frames.size(), 50u);
  for (size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].ptsUs, 5'000'000 + static_cast<int64_t>(i) * kFrameUs);
    EXPECT_EQ(frames[i].dtsUs, frames[i].ptsUs);
    EXPECT_EQ(frames[i].isKey, i % 25 == 0) << i;
    EXPECT_TRUE(video::HasDelimiter(video::Codec::H264, frames[i].bytes));
    EXPECT_EQ(video::ParameterSets(video::Codec::H264, frames[i].bytes).empty(), !frames[i].isKey);
  }
}

TEST(Scene, ShowsTimePositionAndHeading) {
  st0601::Observation seen;
  auto lines = SceneLines("flight", 1'714'558'830'123'000, seen);
  EXPECT_EQ(lines[0], "flight  2024-05-01 10:20:30.123Z");
  EXPECT_EQ(lines[1], "no position");
  EXPECT_EQ(lines[2], "");
  EXPECT_EQ(lines[3], "");
  seen.platform = st0601::Position{-33.5, 151.25, 120.4, {}};
  seen.heading = 271.04;
  seen.timeUs = 1'714'558'829'000'000;
  lines = SceneLines("flight", 0, seen);
  EXPECT_EQ(lines[1], "33.500000 S  151.250000 E");
  EXPECT_EQ(lines[2], "heading 271.0 deg  altitude 120 m");
  EXPECT_EQ(lines[3], "message 2024-05-01 10:20:29.000Z");
}

TEST(Scene, TheTextChangesThePicture) {
  Scene one({128, 96, 25});
  Scene other({128, 96, 25});
  ASSERT_TRUE(one.HasText());
  const AVFrame* const first = one.Next({"AAAA", "", "", ""});
  const AVFrame* const second = other.Next({"%{pts} : '\\", "", "", ""});  // nothing in a text is a command
  size_t different = 0;
  for (int y = 0; y < 96; ++y) {
    for (int x = 0; x < 128; ++x) {
      different += first->data[0][y * first->linesize[0] + x] != second->data[0][y * second->linesize[0] + x] ? 1 : 0;
    }
  }
  EXPECT_GT(different, 10u);
  EXPECT_LT(different, 128u * 40);
}

TEST(Mp4Fragments, HaveTheTimesOfTheStream) {
  const auto ring = std::make_shared<FragmentRing>();
  Mp4Fragments fragments(video::Codec::H264, 128, 96, ring);
  const auto frames = Frames(7'200'000'000, 50);
  for (const EncodedFrame& frame : frames) fragments.Push(frame);
  FragmentRing::Cursor cursor;
  const auto init = ring->Begin(cursor, kNow);
  ASSERT_NE(init, nullptr);
  EXPECT_EQ(Boxes(*init), "ftyp moov");
  Find(*init, "avcC");
  fragments.Finish();
  size_t count = 0;
  int64_t expected = 7'201'000'000;  // of the newest key frame
  while (const auto fragment = ring->Wait(cursor, kNow)) {
    EXPECT_EQ(Boxes(fragment->bytes), "moof mdat");
    EXPECT_EQ(fragment->firstPtsUs, expected);
    EXPECT_EQ(fragment->isKey, count == 0);
    EXPECT_EQ(DecodeUs(*init, fragment->bytes), expected);
    expected += 5 * kFrameUs;
    ++count;
  }
  EXPECT_EQ(count, 5u);
}

TEST(Mp4Fragments, TheLastFrameOfOneIsAsLongAsTheOthers) {
  const auto ring = std::make_shared<FragmentRing>();
  Mp4Fragments fragments(video::Codec::H264, 128, 96, ring);
  auto frames = Frames(0, 30);
  for (size_t i = 0; i < frames.size(); ++i) {
    frames[i].ptsUs = frames[i].dtsUs = static_cast<int64_t>(i) * 20'000;
    fragments.Push(frames[i]);
  }
  FragmentRing::Cursor cursor;
  ASSERT_NE(ring->Begin(cursor, kNow), nullptr);
  const auto fragment = ring->Wait(cursor, kNow);
  ASSERT_NE(fragment, nullptr);
  EXPECT_EQ(Word(fragment->bytes, Find(fragment->bytes, "trun")) & 0x100, 0u) << "no frame has a length of its own";
}

TEST(Mp4Fragments, OtherParameterSetsAreAnotherBeginning) {
  const auto ring = std::make_shared<FragmentRing>();
  Mp4Fragments fragments(video::Codec::H264, 128, 96, ring);
  const auto small = Frames(0, 26);
  for (size_t i = 1; i < small.size(); ++i) fragments.Push(small[i]);  // those before a key frame are left out
  FragmentRing::Cursor cursor;
  ASSERT_NE(ring->Begin(cursor, kNow), nullptr);
  for (const EncodedFrame& frame : Frames(2'000'000, 10, 160)) fragments.Push(frame);
  EXPECT_TRUE(ring->IsOver(cursor));
  ASSERT_NE(ring->Begin(cursor, kNow), nullptr);
  const auto fragment = ring->Wait(cursor, kNow);
  ASSERT_NE(fragment, nullptr);
  EXPECT_EQ(fragment->firstPtsUs, 2'000'000);
}

}  // namespace
}  // namespace mdencoder::mp4_fragments_test
