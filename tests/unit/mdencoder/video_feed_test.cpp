// SPDX-License-Identifier: Apache-2.0
// The times of frames: of the generated scene, and of a file that is played at its own speed. The test says what time it is.
#include "video_feed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

extern "C" {
#include <libavutil/log.h>
}

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "encoded_frame.h"
#include "observation.h"
#include "stream_settings.h"
#include "ts_mux.h"
#include "video_units.h"

namespace mdencoder::video_feed_test {
namespace {

using testing::ElementsAre;

constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kFrame = 40'000;
constexpr uint64_t kWall = 1'714'558'830'123'456;

const bool kIsQuiet = [] {
  av_log_set_level(AV_LOG_QUIET);
  return true;
}();

StreamSettings Settings() {
  StreamSettings settings;
  settings.name = "a";
  settings.width = 160;
  settings.height = 120;
  return settings;
}

class Feed {
 public:
  explicit Feed(const StreamSettings& settings)
      : m_feed(MakeVideoFeed(settings, [](bool, const std::string& line) { ADD_FAILURE() << line; })) {}

  VideoFeed& Get() { return *m_feed; }
  // Returns the frames whose time has come. Of a file it asks until there are `least`, because another thread reads that.
  std::vector<EncodedFrame> Take(int64_t nowUs, size_t least = 0, uint64_t wallUs = kWall,
                                 const st0601::Observation& seen = {}) {
    std::vector<EncodedFrame> frames;
    m_feed->Take(nowUs, wallUs, seen, frames);
    while (frames.size() < least) {
      std::this_thread::yield();
      m_feed->Take(nowUs, wallUs, seen, frames);
    }
    return frames;
  }
  std::vector<int64_t> Times(int64_t nowUs, size_t least = 0) {
    std::vector<int64_t> times;
    for (const EncodedFrame& frame : Take(nowUs, least)) {
      EXPECT_EQ(frame.ptsUs, frame.dtsUs);
      times.push_back(frame.dtsUs);
    }
    return times;
  }

 private:
  const std::unique_ptr<VideoFeed> m_feed;
};

// --- Scene -------------------------------------------------------------------------------------------

TEST(SceneFeed, FramesHaveTheTimesAtWhichTheyWereDue) {
  Feed feed(Settings());
  EXPECT_EQ(feed.Get().DueUs(), 0);
  const auto first = feed.Take(5);
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(first[0].ptsUs, 0);
  EXPECT_TRUE(first[0].isKey);
  EXPECT_EQ(feed.Get().DueUs(), kFrame);
  EXPECT_THAT(feed.Times(kFrame - 1), ElementsAre());
  EXPECT_THAT(feed.Times(kFrame), ElementsAre(kFrame));
  EXPECT_THAT(feed.Times(3 * kFrame - 1), ElementsAre(2 * kFrame));
  EXPECT_EQ(feed.Get().DueUs(), 3 * kFrame);
  EXPECT_EQ(feed.Get().Late(), 0u);
  EXPECT_EQ(feed.Get().Describe(), (VideoFeed::Shape{video::Codec::H264, 160, 120}));
}

TEST(SceneFeed, FramesThatAreTooLateAreLeftOutAndCounted) {
  Feed feed(Settings());
  feed.Take(0);
  EXPECT_THAT(feed.Times(2 * kFrame), ElementsAre(kFrame)) << "it is one behind, and can make up for that";
  EXPECT_EQ(feed.Get().Late(), 0u);
  EXPECT_THAT(feed.Times(6 * kFrame + 1), ElementsAre(6 * kFrame));
  EXPECT_EQ(feed.Get().Late(), 4u);
  EXPECT_EQ(feed.Get().DueUs(), 7 * kFrame);
}

TEST(SceneFeed, TheRateIsThatOfTheSettings) {
  StreamSettings settings = Settings();
  settings.rate = 29.97;
  Feed feed(settings);
  for (int64_t i = 0; i < 30; ++i) feed.Take(i * 33'367);
  EXPECT_EQ(feed.Get().DueUs(), 1'001'001);
  EXPECT_EQ(feed.Get().Late(), 0u);
}

TEST(SceneFeed, ThePictureShowsItsTimeAndTheMessage) {
  const auto picture = [](int64_t nowUs, uint64_t wallUs, const st0601::Observation& seen) {
    Feed feed(Settings());
    return feed.Take(nowUs, 0, wallUs, seen).at(0).bytes;
  };
  const auto plain = picture(0, kWall, {});
  EXPECT_EQ(picture(30'000, kWall + 30'000, {}), plain) << "a frame that comes late shows when it was due";
  EXPECT_NE(picture(0, kWall + kSecond, {}), plain);
  st0601::Observation seen;
  seen.heading = 123.5;
  EXPECT_NE(picture(0, kWall, seen), plain);
}

// --- File --------------------------------------------------------------------------------------------

class FileFeed : public testing::Test {
 protected:
  void TearDown() override { std::remove(m_path.c_str()); }

  // Writes a transport stream with so many frames, and returns the settings of a stream that plays it. From the frame `gap`
  // on, they have times of a hundred seconds later; each is shown `delayUs` after it is decoded.
  StreamSettings Movie(int64_t frames, int64_t gap = INT64_MAX, int64_t delayUs = 0) const {
    Feed scene(Settings());
    ts::Mux mux(video::Codec::H264, ts::Carriage::Synchronous);
    ts::Bytes bytes;
    for (int64_t i = 0; i < frames; ++i) {
      const EncodedFrame frame = scene.Take(i * kFrame).at(0);
      const int64_t dtsUs = frame.dtsUs + (i < gap ? 0 : 100 * kSecond);
      mux.PutFrame({frame.bytes, Ticks(dtsUs + delayUs), Ticks(dtsUs), frame.isKey}, bytes);
    }
    std::ofstream(m_path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    StreamSettings settings = Settings();
    settings.kind = StreamSettings::Video::File;
    settings.video = m_path;
    settings.copies = true;
    return settings;
  }
  // Returns the times of frames that follow each other.
  static std::vector<int64_t> Row(int64_t from, size_t count) {
    std::vector<int64_t> times;
    for (size_t i = 0; i < count; ++i) times.push_back(from + static_cast<int64_t>(i) * kFrame);
    return times;
  }

  const std::string m_path = testing::TempDir() + "video_feed_test.ts";
};

TEST_F(FileFeed, IsPlayedAtItsOwnSpeedFromTheFirstLookOn) {
  constexpr int64_t kStart = kSecond / 2;
  Feed feed(Movie(25));
  EXPECT_EQ(feed.Get().Describe(), VideoFeed::Shape());
  EXPECT_THAT(feed.Times(kStart, 1), ElementsAre(kStart));
  EXPECT_EQ(feed.Get().Describe(), (VideoFeed::Shape{video::Codec::H264, 160, 120}));
  EXPECT_EQ(feed.Get().DueUs(), kStart + 10'000) << "the next look";
  EXPECT_THAT(feed.Times(kStart + kFrame - 1), ElementsAre());
  EXPECT_THAT(feed.Times(kStart + kFrame, 1), ElementsAre(kStart + kFrame));
  EXPECT_EQ(feed.Times(kStart + 12 * kFrame, 11), Row(kStart + 2 * kFrame, 11)) << "each has its own time";
  EXPECT_EQ(feed.Get().Late(), 0u);
}

TEST_F(FileFeed, ThatBeginsAgainGoesOnAsItDid) {
  Feed feed(Movie(25));
  EXPECT_EQ(feed.Times(0, 1), Row(0, 1));
  EXPECT_EQ(feed.Times(2 * kSecond - 1, 49), Row(kFrame, 49)) << "nobody looked for two seconds";
  EXPECT_EQ(feed.Times(2 * kSecond, 1), Row(2 * kSecond, 1));
}

TEST_F(FileFeed, ThatBeginsAgainMuchTooLateBeginsNow) {
  Feed feed(Movie(25));
  EXPECT_EQ(feed.Times(0, 1), Row(0, 1));
  std::vector<int64_t> wanted = Row(kFrame, 24);
  wanted.push_back(2 * kSecond);
  EXPECT_EQ(feed.Times(2 * kSecond, 25), wanted);
  EXPECT_EQ(feed.Times(2 * kSecond + kFrame, 1), Row(2 * kSecond + kFrame, 1));
}

TEST_F(FileFeed, OfOneFrameHasItOnceInAFrameTime) {
  Feed feed(Movie(1));
  EXPECT_EQ(feed.Times(0, 1), Row(0, 1));
  EXPECT_EQ(feed.Times(3 * kFrame, 3), Row(kFrame, 3));
}

TEST_F(FileFeed, WhoseClockJumpsGoesOnAsItDid) {
  Feed feed(Movie(25, 10));
  EXPECT_EQ(feed.Times(0, 1), Row(0, 1));
  EXPECT_EQ(feed.Times(24 * kFrame, 24), Row(kFrame, 24));
}

TEST_F(FileFeed, FramesAreShownSoLongAfterTheyAreDecoded) {
  Feed feed(Movie(25, INT64_MAX, 2 * kFrame));
  for (const EncodedFrame& frame : feed.Take(12 * kFrame, 1)) EXPECT_EQ(frame.ptsUs - frame.dtsUs, 2 * kFrame);
}

TEST_F(FileFeed, ThatIsLongerThanWhatWaitsLosesNothing) {
  Feed feed(Movie(200));
  EXPECT_EQ(feed.Times(0, 1), Row(0, 1));
  for (int i = 0; i < 2'000 && feed.Get().Late() == 0; ++i) std::this_thread::yield();  // the reader goes on
  EXPECT_EQ(feed.Times(199 * kFrame, 199), Row(kFrame, 199));
  EXPECT_EQ(feed.Get().Late(), 0u);
}

}  // namespace
}  // namespace mdencoder::video_feed_test
