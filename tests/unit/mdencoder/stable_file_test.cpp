// SPDX-License-Identifier: Apache-2.0
// Files that are being replaced and rewritten.
#include "stable_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace mdencoder::stable_file_test {
namespace {

using namespace std::chrono_literals;

class StableFile : public testing::Test {
 protected:
  ~StableFile() override { std::filesystem::remove(m_path); }
  void Write(const std::string& text) { std::ofstream(m_path, std::ios::trunc) << text; }
  const std::string m_path = testing::TempDir() + "mdencoder_stable_" + std::to_string(getpid());
};

TEST_F(StableFile, IsReadWhole) {
  const std::string text(300'000, 'x');
  Write(text);
  EXPECT_EQ(ReadStable(m_path), text);
  EXPECT_TRUE(IsRegularFile(m_path));
  EXPECT_FALSE(IsRegularFile(m_path + ".none"));
  EXPECT_THROW(ReadStable(m_path + ".none"), std::runtime_error);
}

TEST_F(StableFile, APauseOfTheWriterIsNotTheEnd) {
  Write("first half");
  std::thread writer([this] {
    std::this_thread::sleep_for(50ms);
    std::ofstream(m_path, std::ios::app) << ", second half";
  });
  EXPECT_EQ(ReadStable(m_path, 200ms), "first half, second half");
  writer.join();
}

// The size of a file of this kind says nothing.
TEST_F(StableFile, WhatNeverFitsItsSizeIsGivenUp) {
  try {
    ReadStable("/proc/self/status");
    FAIL() << "accepted";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "is being written all the time");
  }
}

TEST_F(StableFile, ATimeInTheFutureSaysNothing) {
  Write("text");
  const auto now = std::filesystem::file_time_type::clock::now();
  std::filesystem::last_write_time(m_path, now + 1h);
  EXPECT_EQ(ReadStable(m_path, 1min), "text");
  std::filesystem::last_write_time(m_path, now - 1h);
  EXPECT_EQ(ReadStable(m_path, 1min), "text");
}

TEST_F(StableFile, WithoutAQuietTimeTheOneOfTheWriterDoesNotCount) {
  Write("text");
  EXPECT_EQ(ReadStable(m_path), "text");
  EXPECT_THROW(ReadStable(m_path, 1h), std::runtime_error);
}

TEST_F(StableFile, APipeIsReadToItsEnd) {
  ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0);
  EXPECT_FALSE(IsRegularFile(m_path));
  std::thread writer([this] { Write("first half, second half"); });
  EXPECT_EQ(ReadStable(m_path, 1h), "first half, second half");
  writer.join();
}

TEST_F(StableFile, AFolderCannotBeRead) {
  try {
    ReadStable(testing::TempDir());
    FAIL() << "accepted";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "cannot be read");
  }
}

TEST_F(StableFile, IsTheOldOrTheNewOneWhenItIsReplaced) {
  const std::string texts[] = {std::string(200'000, 'a'), std::string(100'000, 'b')};
  Write(texts[0]);
  std::atomic<bool> stopping{false};
  std::thread writer([&] {
    for (int i = 0; !stopping; ++i) {
      const std::string beside = m_path + ".new";
      std::ofstream(beside, std::ios::trunc) << texts[i % 2];
      std::filesystem::rename(beside, m_path);
    }
  });
  for (int i = 0; i < 200; ++i) {
    const std::string text = ReadStable(m_path);
    EXPECT_TRUE(text == texts[0] || text == texts[1]);
  }
  stopping = true;
  writer.join();
}

}  // namespace
}  // namespace mdencoder::stable_file_test
