// SPDX-License-Identifier: Apache-2.0
// Events to peers that are there, that are not, that go and that do not read.
#include "cot_sender.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "annotated_mutex.h"
#include "owned_fd.h"

namespace mdencoder::cot_sender_test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

st0601::Observation Seen() {
  st0601::Observation seen;
  seen.platform.emplace();
  seen.platform->latitude = 46;
  seen.frameCenter.emplace();
  return seen;
}

class CotSenderTest : public testing::Test {
 protected:
  // Opens a local socket on a port that the system chooses.
  void Open(int type) {
    m_socket.Reset(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    socklen_t size = sizeof(address);
    getsockname(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), &size);
    m_port = ntohs(address.sin_port);
    if (type == SOCK_STREAM) listen(m_socket.Get(), 4);
  }
  CotSenderSettings Settings(const std::string& scheme) const {
    return {"udp", scheme + "127.0.0.1:" + std::to_string(m_port), 50, "ME", "a-f-A", {}};
  }
  CotSender::Say Complain() {
    return [this](bool, const std::string& line) {
      const common::Lock lock(m_mutex);
      m_lines.push_back(line);
      m_said.NotifyAll();
    };
  }
  std::vector<std::string> WaitForLines(size_t count) {
    common::Lock lock(m_mutex);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (m_lines.size() < count && m_said.WaitUntil(m_mutex, end)) continue;
    return m_lines;
  }
  std::vector<std::string> Lines() {
    const common::Lock lock(m_mutex);
    return m_lines;
  }
  // Gives messages until the counts are as wanted, for a minute at most.
  template <typename Condition>
  static void UpdateUntil(CotSender& sender, Condition isReached) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!isReached(sender.Snapshot()) && std::chrono::steady_clock::now() < end) {
      sender.Update(Seen());
      std::this_thread::yield();
    }
    EXPECT_TRUE(isReached(sender.Snapshot()));
  }
  // Returns the time of day of an attribute, in seconds.
  static int SecondsOf(const std::string& event, const std::string& attribute) {
    std::tm time{};
    const size_t at = event.find(" " + attribute + "=\"");
    if (at == std::string::npos) return -1;
    strptime(event.c_str() + at + attribute.size() + 3, "%Y-%m-%dT%H:%M:%S", &time);
    return static_cast<int>(timegm(&time));
  }
  // Waits for data, and returns it.
  static std::string Receive(int fd) {
    pollfd set = {fd, POLLIN, 0};
    if (poll(&set, 1, 30000) != 1) return {};
    char buffer[65536];
    const ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
    return {buffer, got > 0 ? static_cast<size_t>(got) : 0};
  }

  common::OwnedFD m_socket;
  uint16_t m_port = 0;
  common::Mutex m_mutex;
  common::Condition m_said;
  std::vector<std::string> m_lines GUARDED_BY(m_mutex);
};

TEST_F(CotSenderTest, DestinationsAreNamesOrAddressesWithAPort) {
  EXPECT_EQ(ParseCotDestination("udp://239.2.3.1:6969")->host, "239.2.3.1");
  EXPECT_EQ(ParseCotDestination("tcp://tak.example:8087")->port, "8087");
  EXPECT_TRUE(ParseCotDestination("tcp://tak.example:8087")->isStream);
  EXPECT_FALSE(ParseCotDestination("tcp://tak.example:8087")->isTls);
  EXPECT_TRUE(ParseCotDestination("tak://239.2.3.1:6969")->isTak);
  EXPECT_FALSE(ParseCotDestination("tak://239.2.3.1:6969")->isStream);
  EXPECT_FALSE(ParseCotDestination("udp://239.2.3.1:6969")->isTak);
  EXPECT_TRUE(ParseCotDestination("tls://tak.example:8089")->isStream);
  EXPECT_TRUE(ParseCotDestination("tls://tak.example:8089")->isTls);
  EXPECT_EQ(ParseCotDestination("udp://[fe80::1%lo]:1")->host, "fe80::1%lo");
  for (const char* wrong : {"", "239.2.3.1:6969", "udp://:1", "udp://a", "udp://a:0", "udp://a:70000", "udp://::1:5",
                            "ssl://a:1", "udp://[a]:1", "udp://a/b:1", "udp://u@a:1"}) {
    EXPECT_FALSE(ParseCotDestination(wrong)) << wrong;
  }
}

TEST_F(CotSenderTest, AMessageIsOnePairOfDatagrams) {
  Open(SOCK_DGRAM);
  CotSender sender(Settings("udp://"), Complain());
  sender.Update(Seen());
  EXPECT_THAT(Receive(m_socket.Get()), HasSubstr(" uid=\"ME\" "));
  EXPECT_THAT(Receive(m_socket.Get()), HasSubstr(" uid=\"ME-SPI\" "));
  sender.Finish();
  char more;
  EXPECT_EQ(recv(m_socket.Get(), &more, 1, MSG_DONTWAIT), -1) << "a message is not sent again";
  EXPECT_EQ(sender.Snapshot().sent, 2u);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(CotSenderTest, AStreamGoesOnAfterItsPeerHasGone) {
  Open(SOCK_STREAM);
  CotSender sender(Settings("tcp://"), Complain());
  for (int i = 0; i < 2; ++i) {
    const common::OwnedFD peer(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(peer.IsOpen());
    std::string text;
    while (text.find("ME-SPI") == std::string::npos) {
      sender.Update(Seen());
      pollfd set = {peer.Get(), POLLIN, 0};
      if (poll(&set, 1, 20) == 1) text += Receive(peer.Get());
    }
    EXPECT_THAT(text, StartsWith("<?xml")) << "an event that was cut is not continued";
  }
  const auto lines = WaitForLines(2);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_THAT(lines[0], StartsWith("the events of udp cannot be sent to tcp://127.0.0.1:"));
  EXPECT_THAT(lines[1], StartsWith("the events of udp are sent to tcp://127.0.0.1:"));
}

TEST_F(CotSenderTest, APeerThatIsNotThereIsToldOnce) {
  Open(SOCK_STREAM);
  m_socket = common::OwnedFD();
  CotSender sender(Settings("tcp://"), Complain());
  sender.Update(Seen());
  const auto lines = WaitForLines(1);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], HasSubstr("Connection refused"));
  // The thread may have looked for the first time before there was anything to send.
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (sender.Snapshot().lost < 2 && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  sender.Finish();
  EXPECT_EQ(sender.Snapshot().sent, 0u);
  EXPECT_EQ(sender.Snapshot().lost, 2u);
  EXPECT_EQ(Lines().size(), 1u);
}

TEST_F(CotSenderTest, ADatagramThatNobodyReceivesIsSentAllTheSame) {
  Open(SOCK_DGRAM);
  m_socket = common::OwnedFD();
  CotSender sender(Settings("udp://"), Complain());
  UpdateUntil(sender, [](const CotSender::Counts& counts) { return counts.sent >= 8; });
  sender.Finish();
  EXPECT_EQ(sender.Snapshot().lost, 0u);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(CotSenderTest, APeerThatHangsUpIsTold) {
  Open(SOCK_STREAM);
  CotSender sender(Settings("tcp://"), Complain());
  const common::OwnedFD peer(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  shutdown(peer.Get(), SHUT_WR);
  EXPECT_THAT(WaitForLines(1).at(0), EndsWith(": the peer has closed the connection"));
}

TEST_F(CotSenderTest, WhatAPeerSaysIsReadAway) {
  Open(SOCK_STREAM);
  CotSender sender(Settings("tcp://"), Complain());
  const common::OwnedFD peer(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  // More than the buffers between them hold.
  const std::string noise(1 << 20, 'x');
  for (int i = 0; i < 16; ++i) {
    for (size_t sent = 0; sent < noise.size();) {
      const ssize_t taken = send(peer.Get(), noise.data() + sent, noise.size() - sent, MSG_NOSIGNAL);
      ASSERT_GT(taken, 0);
      sent += static_cast<size_t>(taken);
    }
  }
  sender.Update(Seen());
  EXPECT_THAT(Receive(peer.Get()), StartsWith("<?xml"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(CotSenderTest, AnEventIsValidForThreeOfThem) {
  Open(SOCK_DGRAM);
  for (const auto& [rate, seconds] : {std::pair(50.0, 5), {0.5, 6}}) {
    CotSenderSettings settings = Settings("udp://");
    settings.rate = rate;
    CotSender sender(settings, Complain());
    sender.Update(Seen());
    const std::string event = Receive(m_socket.Get());
    Receive(m_socket.Get());
    EXPECT_EQ(SecondsOf(event, "stale") - SecondsOf(event, "time"), seconds);
  }
}

TEST_F(CotSenderTest, APeerThatDoesNotReadCostsEventsOnly) {
  Open(SOCK_STREAM);
  const int small = 4096;
  setsockopt(m_socket.Get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
  CotSender sender(Settings("tcp://"), Complain());
  const common::OwnedFD peer(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 1000; ++i) sender.Update(Seen());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10)) << "nobody waits";
  sender.Finish();
}

TEST_F(CotSenderTest, WhatWaitsForAPeerIsLimitedAndWhole) {
  Open(SOCK_STREAM);
  const int small = 4096;
  setsockopt(m_socket.Get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
  CotSenderSettings settings = Settings("tcp://");
  settings.rate = 50000;
  CotSender sender(settings, Complain());
  const common::OwnedFD peer(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  UpdateUntil(sender, [](const CotSender::Counts& counts) { return counts.lost > 0; });
  EXPECT_THAT(Lines(), IsEmpty());
  const std::string end = "</event>";
  std::string text;
  uint64_t events = 0;
  // The last message may be on its way still.
  while (events < sender.Snapshot().sent) {
    const std::string more = Receive(peer.Get());
    ASSERT_FALSE(more.empty()) << events << " of " << sender.Snapshot().sent;
    text += more;
    events = 0;
    for (size_t at = text.find(end); at != std::string::npos; at = text.find(end, at + 1)) ++events;
  }
  EXPECT_THAT(text, StartsWith("<?xml"));
  EXPECT_THAT(text, EndsWith(end));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(CotSenderTest, ANameThatIsNoneIsToldOnce) {
  CotSenderSettings settings = Settings("udp://");
  settings.url = "udp://name.invalid:1";
  CotSender sender(settings, Complain());
  EXPECT_THAT(WaitForLines(1)[0], StartsWith("the events of udp cannot be sent to udp://name.invalid:1: "));
}

}  // namespace
}  // namespace mdencoder::cot_sender_test
