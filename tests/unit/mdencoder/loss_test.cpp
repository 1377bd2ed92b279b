// SPDX-License-Identifier: Apache-2.0
#include "loss.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace mdencoder::loss_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Clock = SilenceWatch::Clock;

constexpr char kTable[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer drops\n"
    " 1: 0100007F:1388 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 11 2 0000000000000000 7\n"
    " 2: 00000000:1388 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 12 2 0000000000000000 5\n"
    " 3: 00000000:1389 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 13 2 0000000000000000 3\n"
    " 4: 00000000000000000000000000000000:1389 00000000000000000000000000000000:0000 07 00000000:00000000 00:00000000 "
    "00000000     0        0 14 2 0000000000000000 2\n"
    "nonsense\n 5: x:y z\n";

TEST(Kernel, CountsTheSocketsOfThisProcessByTheirPort) {
  KernelDrops drops;
  drops.Update(kTable, {11, 13, 14});
  EXPECT_EQ(drops.Of(5000), 7u);
  EXPECT_EQ(drops.Of(5001), 5u) << "both families";
  EXPECT_EQ(drops.Of(5002), 0u);
}

TEST(Kernel, ASocketThatWasReplacedKeepsItsShare) {
  KernelDrops drops;
  drops.Update(kTable, {11});
  drops.Update(kTable, {12});
  EXPECT_EQ(drops.Of(5000), 12u);
}

TEST(Kernel, ATableThatIsReadAgainCountsOnce) {
  KernelDrops drops;
  drops.Update(kTable, {11});
  drops.Update(kTable, {11});
  EXPECT_EQ(drops.Of(5000), 7u);
  std::string later = kTable;
  later.replace(later.find(" 7\n"), 3, " 9\n");
  drops.Update(later, {11});
  EXPECT_EQ(drops.Of(5000), 9u);
}

TEST(Kernel, FindsItsOwnSocketsInTheTables) {
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  ASSERT_EQ(bind(socket, reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size), 0);
  const int small = 1;
  setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
  const std::string data(1000, 'x');
  for (int i = 0; i < 100; ++i) {
    sendto(socket, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&address), size);
  }
  int arrived = 0;
  std::string buffer(1000, ' ');
  while (recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) ++arrived;
  KernelDrops drops;
  drops.Update();
  EXPECT_EQ(drops.Of(ntohs(address.sin_port)), static_cast<uint64_t>(100 - arrived));
  EXPECT_LT(arrived, 100);
  close(socket);
}

class SilenceTest : public testing::Test {
 protected:
  void Look(double at, uint64_t count, bool isOpen = true, double limit = 5) {
    const auto now =
        Clock::time_point{} + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(at));
    m_watch.Look("a", limit, isOpen, count, now);
  }
  std::vector<std::string> m_lines;
  SilenceWatch m_watch{
      [this](bool isWarning, const std::string& line) { m_lines.push_back((isWarning ? "! " : "") + line); }};
};

TEST_F(SilenceTest, IsOneLineAndItsEndAnother) {
  for (const double at : {0.0, 3.0, 5.0}) Look(at, 0);
  EXPECT_THAT(m_lines, IsEmpty());
  for (const double at : {5.5, 6.0, 60.0}) Look(at, 0);
  EXPECT_THAT(m_lines, ElementsAre("! source a has been silent for 5.5 s"));
  Look(61, 1);
  Look(65, 2);
  EXPECT_THAT(m_lines, ElementsAre("! source a has been silent for 5.5 s", "source a delivers again, after 61.0 s"));
  Look(70.5, 2);
  EXPECT_EQ(m_lines.size(), 3u);
}

TEST_F(SilenceTest, ASourceThatIsNotOpenIsNotSilent) {
  Look(0, 0);
  Look(20, 0, false);
  Look(24, 0);
  EXPECT_THAT(m_lines, IsEmpty());
  Look(26, 0);
  EXPECT_THAT(m_lines, ElementsAre("! source a has been silent for 6.0 s"));
}

TEST_F(SilenceTest, WhatIsClosedWhileItIsSilentIsToldWhenItDelivers) {
  Look(0, 0);
  Look(6, 0);
  Look(10, 0, false);
  Look(30, 0);
  Look(60, 0);
  EXPECT_THAT(m_lines, ElementsAre("! source a has been silent for 6.0 s"));
  Look(61, 1);
  EXPECT_THAT(m_lines, ElementsAre("! source a has been silent for 6.0 s", "source a delivers again, after 61.0 s"));
}

TEST_F(SilenceTest, EachSourceIsSilentByItself) {
  const auto at = [](int seconds) { return Clock::time_point{} + std::chrono::seconds(seconds); };
  for (const int seconds : {0, 4, 8}) {
    m_watch.Look("a", 5, true, 0, at(seconds));
    m_watch.Look("b", 5, true, static_cast<uint64_t>(seconds), at(seconds));
  }
  EXPECT_THAT(m_lines, ElementsAre("! source a has been silent for 8.0 s"));
}

TEST_F(SilenceTest, WithoutALimitThereIsNone) {
  for (const double at : {0.0, 1000.0}) Look(at, 0, true, 0);
  EXPECT_THAT(m_lines, IsEmpty());
}

}  // namespace
}  // namespace mdencoder::loss_test
