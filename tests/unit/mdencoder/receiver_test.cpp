// SPDX-License-Identifier: Apache-2.0
// Buffers of the test go to a recorder that the test holds up.
#include "receiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <thread>
#include <vector>

namespace mdencoder::receiver_test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

SourceSettings Named(const std::string& name) {
  SourceSettings settings;
  settings.name = name;
  return settings;
}

void Release(MDATA_BUFFER* buffer) {
  __atomic_sub_fetch(&buffer->nRefCount, 1, __ATOMIC_RELAXED);
}

class ReceiverTest : public testing::Test {
 protected:
  static constexpr size_t kCapacity = 4;
  static constexpr size_t kReserve = 2;

  ReceiverTest() { m_file.SetWaitsForRoom(true); }
  ~ReceiverTest() override { m_isHeldUp = false; }

  // Passes a message with the library's reference, which the test keeps, to the queue.
  bool Push(Source& source) {
    auto& bytes = m_bytes.emplace_back(Bytes{0, m_sequence++, 0xDF, 0, 1, 7});
    MDATA_BUFFER& buffer = m_buffers.emplace_back();
    buffer.pcData = bytes.data();
    buffer.nDataSize = static_cast<int32_t>(bytes.size());
    buffer.nRefCount = 1;
    return m_receiver.Push(&buffer, source);
  }
  // Lets the recorder take one message and stop at it, which has its place until the recorder goes on.
  void HoldUp() {
    ASSERT_TRUE(Push(m_live));
    while (m_handled == 0) std::this_thread::sleep_for(1ms);
  }

  using Bytes = std::vector<uint8_t>;
  const SourceSettings m_liveSettings = Named("live");
  const SourceSettings m_fileSettings = Named("file");
  Source m_live{m_liveSettings};
  Source m_file{m_fileSettings};
  uint8_t m_sequence = 0;
  std::deque<Bytes> m_bytes;
  std::deque<MDATA_BUFFER> m_buffers;
  std::atomic<bool> m_isHeldUp{true};
  std::atomic<int> m_handled{0};
  std::vector<int> m_sequences;  // recorder's thread, and the test after its end
  Receiver m_receiver{kCapacity, kReserve, Release,
                      [this](const Received& received) {
                        m_sequences.push_back(received.sequence);
                        ++m_handled;
                        while (m_isHeldUp) std::this_thread::sleep_for(1ms);
                      },
                      [] {}};
};

TEST_F(ReceiverTest, AFullQueueRefusesALiveMessageAndKeepsWhatAFileHadUnderWay) {
  HoldUp();
  for (int i = 1; i < 4; ++i) EXPECT_TRUE(Push(m_live));
  EXPECT_EQ(m_receiver.Room(), 0U);
  EXPECT_FALSE(Push(m_live));
  EXPECT_TRUE(Push(m_file));
  EXPECT_TRUE(Push(m_file));
  EXPECT_FALSE(Push(m_live));
  EXPECT_FALSE(Push(m_file)) << "more than its sender may have under way";
  m_isHeldUp = false;
  m_receiver.Finish();
  EXPECT_THAT(m_sequences, ElementsAre(0, 1, 2, 3, 5, 6)) << "in their order";
  EXPECT_EQ(m_live.Snapshot().dropped, 2U);
  EXPECT_EQ(m_file.Snapshot().dropped, 1U);
  EXPECT_EQ(m_file.Snapshot().messages, 2U);
  for (const MDATA_BUFFER& buffer : m_buffers) EXPECT_EQ(buffer.nRefCount, 1) << "the library's own";
}

}  // namespace
}  // namespace mdencoder::receiver_test
