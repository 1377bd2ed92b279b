// SPDX-License-Identifier: Apache-2.0
// Files that grow by whole pieces: what is made, what is refused, and what a file does that takes no more.
#include "growing_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace mdencoder::growing_file_test {
namespace {

namespace fs = std::filesystem;
using testing::EndsWith;

class GrowingFileTest : public testing::Test {
 protected:
  GrowingFileTest() { fs::create_directory(m_folder); }
  ~GrowingFileTest() override { fs::remove_all(m_folder); }

  static std::string Text(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static std::string Refusal(const std::string& path, bool replace = true) {
    try {
      MakeGrowingFile(path, replace);
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(std::string(error.what()).find("cannot write " + path + ": "), 0u) << error.what();
      return error.what();
    }
    return "accepted";
  }

  const fs::path m_folder = fs::temp_directory_path() / ("growing_file." + std::to_string(getpid()));
  const std::string m_path = m_folder / "file";
};

TEST_F(GrowingFileTest, OnlyWholePiecesAreKept) {
  GrowingFile file = MakeGrowingFile(m_path, false);
  EXPECT_EQ(file.path, m_path);
  EXPECT_TRUE(file.isRegular);
  EXPECT_EQ(file.Append("first", 5), 5u);
  file.Keep(5);
  EXPECT_EQ(file.Append("second half", 11), 11u);
  EXPECT_EQ(file.size, 5u);
  file.Keep(6);
  EXPECT_EQ(Text(m_path), "firstsecond");
  EXPECT_EQ(file.Append("X", 1), 1u);
  file.Keep(0);
  EXPECT_EQ(Text(m_path), "firstsecond");
  EXPECT_EQ(file.size, 11u);
}

TEST_F(GrowingFileTest, AFileThatExistsIsReplacedOnlyIfThatIsAsked) {
  std::ofstream(m_path) << "old";
  EXPECT_THAT(Refusal(m_path, false), EndsWith(": File exists"));
  EXPECT_EQ(Text(m_path), "old");
  const GrowingFile file = MakeGrowingFile(m_path, true);
  EXPECT_EQ(Text(m_path), "");
  EXPECT_EQ(file.size, 0u);
}

TEST_F(GrowingFileTest, NoChildInheritsIt) {
  const GrowingFile file = MakeGrowingFile(m_path, true);
  EXPECT_NE(fcntl(file.fd.Get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(GrowingFileTest, WhatIsNoFileIsRefused) {
  EXPECT_THAT(Refusal(m_folder), EndsWith(": Is a directory"));
  EXPECT_THAT(Refusal(m_folder / "none" / "file"), EndsWith(": No such file or directory"));
  std::ofstream(m_path) << "old";
  const std::string link = m_folder / "link";
  fs::create_symlink(m_path, link);
  EXPECT_THAT(Refusal(link), EndsWith(": it is a symbolic link, which is not followed"));
  EXPECT_EQ(Text(m_path), "old");
}

TEST_F(GrowingFileTest, NobodyWaitsForTheReaderOfAPipe) {
  const std::string pipe = m_folder / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_THAT(Refusal(pipe), EndsWith(": No such device or address"));
  const common::OwnedFD reader(open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  EXPECT_THAT(Refusal(pipe), EndsWith(": it is not a file"));
}

TEST_F(GrowingFileTest, ADeviceTakesBytesButHasNoSize) {
  GrowingFile null = MakeGrowingFile("/dev/null", true);
  EXPECT_FALSE(null.isRegular);
  EXPECT_EQ(null.Append("piece", 5), 5u);
  null.Keep(5);
  EXPECT_EQ(null.size, 5u);
  const GrowingFile full = MakeGrowingFile("/dev/full", true);
  EXPECT_EQ(full.Append("piece", 5), 0u);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(GrowingFileTest, WhatAFileTakesOfAPieceIsTold) {
  const auto before = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit small = {8, limit.rlim_max};
  GrowingFile file = MakeGrowingFile(m_path, true);
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_EQ(file.Append("first", 5), 5u);
  file.Keep(5);
  EXPECT_EQ(file.Append("second", 6), 3u);
  EXPECT_EQ(errno, EFBIG);
  file.Keep(0);
  setrlimit(RLIMIT_FSIZE, &limit);
  std::signal(SIGXFSZ, before);
  EXPECT_EQ(Text(m_path), "first");
}

}  // namespace
}  // namespace mdencoder::growing_file_test
