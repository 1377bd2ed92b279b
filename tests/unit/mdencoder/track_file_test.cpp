// SPDX-License-Identifier: Apache-2.0
// Tracks on files that take everything, nothing, or a part. A limit on the size of files stands for a full disk.
#include "track_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace mdencoder::track_file_test {
namespace {

using Json = nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint64_t kNow = 1714558830000000;

class TrackFileTest : public testing::Test {
 protected:
  TrackFileTest() {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &m_before);
  }
  ~TrackFileTest() override {
    setrlimit(RLIMIT_FSIZE, &m_before);
    std::filesystem::remove(m_path);
  }
  void LimitFiles(rlim_t bytes) const {
    const rlimit limit = {bytes, m_before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  TrackSettings Settings() const { return {m_path, "udp", track_text::Format::GeoJson, 1}; }
  TrackFile::Say Complain() {
    return [this](bool, const std::string& line) { m_lines.push_back(line); };
  }
  static void Add(TrackFile& track, double seconds, bool isDamaged = false) {
    st0601::Bytes message = st0601::Builder().Add(13, 45.0).Add(14, 7.0).Finish();
    if (isDamaged) message.back() ^= 1;
    Received received;
    received.timeUs = kNow + static_cast<uint64_t>(seconds * 1e6);
    track.Add(received, st0601::Parse(message));
  }
  std::string Text() const {
    std::ifstream file(m_path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  size_t Points() const {
    size_t points = 0;
    const Json json = Json::parse(Text());
    for (const Json& feature : json["features"]) points += feature["properties"]["kind"] == "platform" ? 1 : 0;
    return points;
  }

  const std::string m_path = testing::TempDir() + "mdencoder_track_" + std::to_string(getpid()) + ".geojson";
  std::vector<std::string> m_lines;
  rlimit m_before{};
};

TEST_F(TrackFileTest, IsWholeAfterEachFlush) {
  TrackFile track(Settings(), Complain());
  track.Open();
  EXPECT_EQ(Points(), 0u);
  for (size_t i = 1; i <= 5; ++i) {
    Add(track, static_cast<double>(i));
    EXPECT_TRUE(track.Flush());
    EXPECT_EQ(Points(), i);
  }
  EXPECT_TRUE(track.Flush());
  track.Close();
  EXPECT_EQ(Points(), 5u);
  EXPECT_THAT(m_lines, IsEmpty());
}

TEST_F(TrackFileTest, TakesSamplesAtItsInterval) {
  TrackFile track(Settings(), Complain());
  track.Open();
  for (const double time : {1.0, 1.5, 1.99, 2.0, 3.1, 0.5}) Add(track, time);  // the clock was set back at the end
  Add(track, 10, true);
  track.Close();
  EXPECT_EQ(Points(), 4u) << "a message with a wrong checksum is no sample";
}

TEST_F(TrackFileTest, StaysWholeOnAFullDiskAndGoesOn) {
  TrackFile track(Settings(), Complain());
  track.Open();
  Add(track, 1);
  track.Flush();
  const std::string before = Text();
  LimitFiles(before.size() + 20);
  for (int i = 2; i < 10; ++i) {
    Add(track, i);
    EXPECT_FALSE(track.Flush());
    EXPECT_EQ(Text(), before);
  }
  EXPECT_THAT(m_lines, ElementsAre("the track of udp cannot be written further to " + m_path + ": File too large"));
  LimitFiles(m_before.rlim_cur);
  EXPECT_TRUE(track.Flush());
  EXPECT_EQ(Points(), 9u);
  EXPECT_EQ(m_lines.back(), "the track of udp continues in " + m_path + "; 0 samples in between were lost");
}

TEST_F(TrackFileTest, MemoryHasALimit) {
  TrackFile track(Settings(), Complain());
  track.Open();
  LimitFiles(10);
  for (int i = 0; i < 20000; ++i) {
    Add(track, i);
    Add(track, i + 0.5);  // not due, whether the one before was kept or lost
    if (i % 100 == 0) track.Flush();
  }
  LimitFiles(m_before.rlim_cur);
  track.Flush();
  EXPECT_THAT(m_lines.back(), HasSubstr("; " + std::to_string(20000 - Points()) + " samples in between were lost"));
  EXPECT_LT(Text().size(), 2 * TrackFile::kMostWaiting);
  EXPECT_GT(Points(), 100u);
}

TEST_F(TrackFileTest, ATrackThatCannotBeBegunIsRefused) {
  LimitFiles(10);
  TrackFile track(Settings(), Complain());
  try {
    track.Open();
    FAIL() << "there is no room for its beginning";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "cannot write " + m_path + ": File too large");
  }
}

TEST_F(TrackFileTest, WhatIsNoFileIsRefused) {
  for (const char* path : {"/dev/null", "/nonexistent/a.kml", "/tmp"}) {
    TrackSettings settings = Settings();
    settings.path = path;
    TrackFile track(settings, Complain());
    EXPECT_THROW(track.Open(), std::runtime_error) << path;
    Add(track, 1);
    EXPECT_TRUE(track.Flush());
  }
}

}  // namespace
}  // namespace mdencoder::track_file_test
