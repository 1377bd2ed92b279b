// SPDX-License-Identifier: Apache-2.0
// Capture files that are sent to a socket of the test.
#include "replay.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "owned_fd.h"

namespace mdencoder::replay_test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ReplayTest : public testing::Test {
 protected:
  ReplayTest() {
    std::string pattern = testing::TempDir() + "replay_XXXXXX";
    m_folder = mkdtemp(pattern.data());
    m_port = FreePort();
    m_socket.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(m_port);
    EXPECT_EQ(bind(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  ~ReplayTest() override { std::filesystem::remove_all(m_folder); }

  template <typename Number>
  static void Put(std::string& text, Number number) {
    text.append(reinterpret_cast<const char*>(&number), sizeof(number));
  }
  // Adds a datagram of raw IP with this text, captured at a time in microseconds.
  void Add(int64_t us, const std::string& payload, uint16_t port = 5000, uint16_t fragment = 0) {
    std::string packet = {0x45, 0};
    const auto word = [&packet](size_t value) {
      packet.push_back(static_cast<char>(value >> 8));
      packet.push_back(static_cast<char>(value));
    };
    word(28 + payload.size());
    word(1);
    word(fragment);
    packet += std::string{33, 17, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2};
    word(4000);
    word(port);
    word(8 + payload.size());
    word(0);
    packet += payload;
    Put(m_records, static_cast<uint32_t>(us / 1'000'000));
    Put(m_records, static_cast<uint32_t>(us % 1'000'000));
    Put(m_records, static_cast<uint32_t>(packet.size()));
    Put(m_records, static_cast<uint32_t>(packet.size()));
    m_records += packet;
  }
  ReplaySettings Write() {
    std::string header;
    for (const uint32_t word : {0xA1B2C3D4u, 0x00040002u, 0u, 0u, 65535u, 101u}) Put(header, word);
    std::ofstream(m_folder + "/a.pcap") << header << m_records;
    ReplaySettings settings;
    settings.path = m_folder + "/a.pcap";
    return settings;
  }
  Replay::Surroundings Around() {
    return {[this] { return m_room.load(); },
            [this](bool isWarning, const std::string& line) {
              const std::lock_guard guard(m_lock);
              m_lines.push_back((isWarning ? "4 " : "5 ") + line);
            }};
  }
  // Receives a datagram within ten seconds.
  std::string Receive() {
    pollfd wait = {m_socket.Get(), POLLIN, 0};
    if (poll(&wait, 1, 10'000) != 1) return "nothing";
    std::string text(2'000, 0);
    text.resize(static_cast<size_t>(recv(m_socket.Get(), text.data(), text.size(), 0)));
    return text;
  }
  void WaitForEnd(const Replay& replay) {
    for (int i = 0; i < 10'000 && !replay.HasEnded(); ++i) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(replay.HasEnded());
  }
  std::vector<std::string> Lines() {
    const std::lock_guard guard(m_lock);
    return m_lines;
  }

  std::string m_folder;
  std::string m_records;
  uint16_t m_port;
  common::OwnedFD m_socket;
  std::atomic<size_t> m_room{1'000};

 private:
  std::mutex m_lock;
  std::vector<std::string> m_lines;
};

TEST_F(ReplayTest, DatagramsComeAsFarApartAsTheyWereCaptured) {
  Add(1'000'000, "one");
  Add(1'000'000, "two");
  Add(1'400'000, "three");
  Replay replay("cap", Write(), Around());
  replay.SendTo(m_port);
  EXPECT_EQ(Receive(), "one");
  EXPECT_EQ(Receive(), "two");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Receive(), "three");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 150ms) << "0.4 s, if nobody is late";
  WaitForEnd(replay);
  EXPECT_THAT(Lines(), ElementsAre("5 source cap: end of " + m_folder + "/a.pcap, after 3 datagrams"));
}

TEST_F(ReplayTest, AFilterChoosesAndPartsAreCounted) {
  Add(0, "no", 1);
  Add(1, "yes");
  Add(2, "part", 5000, 0x2000);
  ReplaySettings settings = Write();
  settings.filter = "udp dst port 5000";
  Replay replay("cap", settings, Around());
  replay.SendTo(m_port);
  EXPECT_EQ(Receive(), "yes");
  WaitForEnd(replay);
  EXPECT_THAT(Lines(),
              ElementsAre("4 source cap: end of " + m_folder + "/a.pcap, after 1 datagrams, 1 fragments left out"));
}

TEST_F(ReplayTest, NothingIsSentWithoutRoomOrAPort) {
  for (int i = 0; i < 500; ++i) Add(i, std::to_string(i));
  ReplaySettings settings = Write();
  settings.speed = 0;
  m_room = 0;
  Replay replay("cap", settings, Around());
  pollfd wait = {m_socket.Get(), POLLIN, 0};
  EXPECT_EQ(poll(&wait, 1, 20), 0) << "it has no port";
  replay.SendTo(m_port);
  EXPECT_EQ(poll(&wait, 1, 20), 0) << "there is no room";
  m_room = 16;
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(Receive(), std::to_string(i));
    if (i == 100) replay.SendTo(0);
    if (i == 100) replay.SendTo(m_port);
  }
  WaitForEnd(replay);
}

TEST_F(ReplayTest, ItStopsAtOnceAndBeginsAgainInALoop) {
  Add(0, "one");
  Add(10, "two");
  ReplaySettings settings = Write();
  settings.loop = true;
  {
    Replay replay("cap", settings, Around());
    replay.SendTo(m_port);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(Receive(), i % 2 == 0 ? "one" : "two");
    EXPECT_FALSE(replay.HasEnded());
  }
  m_records.clear();
  Add(0, "one");
  Add(50'000'000, "late");
  const auto begin = std::chrono::steady_clock::now();
  {
    Replay replay("cap", Write(), Around());
    replay.SendTo(m_port);
    while (Receive() != "one") continue;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ReplayTest, AFileThatIsNoneOrIsCutIsSaid) {
  Add(0, "one");
  Add(1, "two");
  m_records.resize(m_records.size() - 5);
  {
    Replay replay("cap", Write(), Around());
    replay.SendTo(m_port);
    EXPECT_EQ(Receive(), "one");
    WaitForEnd(replay);
  }
  ASSERT_EQ(Lines().size(), 1U);
  EXPECT_THAT(Lines()[0], HasSubstr("a.pcap cannot be read to its end: truncated"));
  EXPECT_THAT(Lines()[0], HasSubstr(", after 1 datagrams"));
  ReplaySettings settings;
  settings.path = m_folder + "/none.pcap";
  EXPECT_EQ(ReplayFault(settings), "No such file or directory");
  settings.path = m_folder;
  EXPECT_NE(ReplayFault(settings), "");
  std::ofstream(m_folder + "/text.pcap") << "this is no capture file at all";
  settings.path = m_folder + "/text.pcap";
  EXPECT_EQ(ReplayFault(settings), "unknown file format");
  EXPECT_EQ(FilterFault("udp port 5000"), "");
  EXPECT_THAT(FilterFault("port and port"), HasSubstr("syntax error"));
}

}  // namespace
}  // namespace mdencoder::replay_test
