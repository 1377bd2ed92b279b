// SPDX-License-Identifier: Apache-2.0
// Messages of a stream that the test provides are sent to a socket of the test.
#include "stream_feed.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "loopback.h"
#include "owned_fd.h"

namespace mdencoder::stream_feed_test {
namespace {

using namespace std::chrono_literals;
using Phase = HostCaptureState::Phase;

// What the test and the stream share.
struct Queue {
  std::mutex lock;
  std::deque<std::string> messages;
  HostCaptureState state{Phase::Running, {}};
  HostCaptureStats stats;
  bool isGone = false;
  common::OwnedFD readable{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};

  void Push(const std::string& message) {
    const std::lock_guard guard(lock);
    messages.push_back(message);
    eventfd_write(readable.Get(), 1);
  }
};

class FakeStream : public HostStream {
 public:
  explicit FakeStream(Queue& queue) : m_queue(queue) {}
  ~FakeStream() override { m_queue.isGone = true; }

  int FD() const override { return m_queue.readable.Get(); }
  bool Take(std::vector<uint8_t>& message) override {
    const std::lock_guard guard(m_queue.lock);
    if (m_queue.messages.empty()) return false;
    message.assign(m_queue.messages.front().begin(), m_queue.messages.front().end());
    m_queue.messages.pop_front();
    ++m_queue.stats.taken;
    eventfd_t ignored = 0;
    if (m_queue.messages.empty()) eventfd_read(m_queue.readable.Get(), &ignored);
    return true;
  }
  HostCaptureState State() const override {
    const std::lock_guard guard(m_queue.lock);
    return m_queue.state;
  }
  HostCaptureStats Stats() const override {
    const std::lock_guard guard(m_queue.lock);
    return m_queue.stats;
  }

 private:
  Queue& m_queue;
};

class StreamFeedTest : public testing::Test {
 protected:
  StreamFeedTest() {
    m_socket.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = Loopback(m_port);
    EXPECT_EQ(bind(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  std::unique_ptr<StreamFeed> Feed() {
    return std::make_unique<StreamFeed>(std::make_unique<FakeStream>(m_queue), [this] { return m_room.load(); });
  }
  // Receives a datagram within ten seconds.
  std::string Receive() {
    pollfd wait = {m_socket.Get(), POLLIN, 0};
    if (poll(&wait, 1, 10'000) != 1) return "nothing";
    std::string text(2'000, 0);
    text.resize(static_cast<size_t>(recv(m_socket.Get(), text.data(), text.size(), 0)));
    return text;
  }
  bool IsAnything(int milliseconds = 0) const {
    pollfd wait = {m_socket.Get(), POLLIN, 0};
    return poll(&wait, 1, milliseconds) == 1;
  }
  template <typename Condition>
  static bool Eventually(Condition condition) {
    for (int i = 0; i < 10'000 && !condition(); ++i) std::this_thread::sleep_for(1ms);
    return condition();
  }

  const uint16_t m_port = FreePort();
  common::OwnedFD m_socket;
  std::atomic<size_t> m_room{1'000};
  Queue m_queue;
};

TEST_F(StreamFeedTest, EachMessageIsADatagramOnceTheSourceHasAPort) {
  m_queue.Push("one");
  m_queue.Push(std::string(kLongestDatagram, 'x'));
  const auto feed = Feed();
  EXPECT_FALSE(IsAnything(20)) << "nobody has told it the port";
  feed->SendTo(m_port);
  EXPECT_EQ(Receive(), "one");
  EXPECT_EQ(Receive(), std::string(kLongestDatagram, 'x'));
  m_queue.Push("three");
  EXPECT_EQ(Receive(), "three");
  EXPECT_EQ(feed->Stats().taken, 3U);
  EXPECT_EQ(feed->Stats().overflows, 0U);
}

TEST_F(StreamFeedTest, ItWaitsWhileTheProgramHasNoRoom) {
  m_room = 0;
  const auto feed = Feed();
  feed->SendTo(m_port);
  m_queue.Push("one");
  EXPECT_FALSE(IsAnything(20));
  EXPECT_EQ(feed->Stats().taken, 0U) << "it stays in the queue of the stream";
  m_room = 1;
  EXPECT_EQ(Receive(), "one");
}

TEST_F(StreamFeedTest, AFileHasEndedWhenItsLastMessageWasRead) {
  m_room = 0;
  const auto feed = Feed();
  feed->SendTo(m_port);
  EXPECT_EQ(feed->State().phase, Phase::Running);
  m_room = 8;
  m_queue.Push("last");
  {
    const std::lock_guard guard(m_queue.lock);
    m_queue.state = {Phase::Ended, {}};
  }
  ASSERT_TRUE(Eventually([&] { return IsAnything(); }));
  EXPECT_EQ(feed->State().phase, Phase::Running) << "nobody has read it";
  EXPECT_EQ(Receive(), "last");
  EXPECT_TRUE(Eventually([&] { return feed->State().phase == Phase::Ended; }));
}

TEST_F(StreamFeedTest, ItsFaultIsThatOfTheStream) {
  const auto feed = Feed();
  m_queue.state.fault = "cannot open it";
  EXPECT_EQ(feed->State().fault, "cannot open it");
}

TEST_F(StreamFeedTest, AMessageThatCannotBeSentIsCountedAsDropped) {
  const auto feed = Feed();
  feed->SendTo(m_port);
  m_queue.Push(std::string(70'000, 'x'));  // longer than any datagram
  EXPECT_TRUE(Eventually([&] { return feed->Stats().overflows == 1; }));
  m_queue.Push("next");
  EXPECT_EQ(Receive(), "next");
}

TEST_F(StreamFeedTest, ItEndsAtOnceWhateverItWaitsFor) {
  Feed().reset();
  EXPECT_TRUE(m_queue.isGone);
  m_room = 0;
  auto feed = Feed();
  feed->SendTo(m_port);
  m_queue.Push("one");
  feed.reset();
  EXPECT_FALSE(IsAnything());
}

}  // namespace
}  // namespace mdencoder::stream_feed_test
