// SPDX-License-Identifier: Apache-2.0
// The console of the log on a pipe whose reader stops and comes back.
#include "console_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "owned_fd.h"

namespace host_runtime {
namespace {

class ConsoleLogTest : public testing::Test {
 protected:
  ConsoleLogTest() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    m_reader.Reset(ends[0]);
    m_writer.Reset(ends[1]);
    EXPECT_EQ(fcntl(ends[0], F_SETPIPE_SZ, 4096), 4096);
  }
  std::string Read() {
    fcntl(m_reader.Get(), F_SETFL, O_NONBLOCK);
    std::string text;
    char buffer[4096];
    for (ssize_t got = read(m_reader.Get(), buffer, sizeof(buffer)); got > 0;
         got = read(m_reader.Get(), buffer, sizeof(buffer))) {
      text.append(buffer, static_cast<size_t>(got));
    }
    return text;
  }

  common::OwnedFD m_reader;
  common::OwnedFD m_writer;
};

TEST_F(ConsoleLogTest, LinesComeWholeFromPieces) {
  ConsoleLog log(m_writer.Get());
  log.Put("one li");
  EXPECT_EQ(Read(), "");
  log.Put("ne\ntwo\nthr");
  EXPECT_EQ(Read(), "one line\ntwo\n");
}

TEST_F(ConsoleLogTest, AStoppedReaderCostsLinesButNoTimeAndIsToldHowMany) {
  ConsoleLog log(m_writer.Get());
  const std::string line(99, 'x');
  for (int i = 0; i < 1000; ++i) log.Put(line + "\n");
  EXPECT_EQ(fcntl(m_writer.Get(), F_GETFL) & O_NONBLOCK, 0) << "others write to the same open file";
  std::string text;
  for (std::string more = Read(); !more.empty(); more = Read()) {
    text += more;
    log.Finish(0);
  }
  const size_t kept = text.size() / 100;
  EXPECT_GE(kept, ConsoleLog::kMostWaiting / 100);
  EXPECT_LT(kept, 1000u);
  log.Put("back\n");
  EXPECT_EQ(Read(), std::to_string(1000 - kept) +
                        " lines of the log were left out, because nobody read the standard error\nback\n");
}

TEST_F(ConsoleLogTest, FollowsTheNumberOfTheDescriptor) {
  ConsoleLog log(m_writer.Get());
  log.Put("first\n");
  EXPECT_EQ(Read(), "first\n");
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const common::OwnedFD reader(ends[0]);
  dup2(ends[1], m_writer.Get());
  close(ends[1]);
  log.Put("second\n");
  char buffer[16];
  EXPECT_EQ(read(reader.Get(), buffer, sizeof(buffer)), 7);
}

}  // namespace
}  // namespace host_runtime
