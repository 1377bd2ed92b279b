// SPDX-License-Identifier: Apache-2.0
// The two bits F of an ancillary stream's payload header (RFC 8331).
#include <gtest/gtest.h>

#include <cstdint>
#include <span>

#include "anc_frame.h"

namespace {

using namespace anc_klv;

class AncField : public testing::Test {
 protected:
  // Returns one RTP packet with a whole message and these bits F.
  Bytes Packet(uint8_t field) {
    const Bytes klv = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01, 0x0E, 0x01, 0x03, 0x01, 0x01, 0, 0, 0, 1, 7};
    RtpHeader header;
    header.field = field;
    return PackFrame(std::span(&klv, 1), header, &m_sequence, &m_number).front();
  }

  size_t m_messages = 0;
  uint32_t m_sequence = 0;
  uint8_t m_number = 0;
  Receiver m_receiver{[this](const StampedKlv&) { ++m_messages; }};
};

TEST_F(AncField, ProgressiveAndBothFieldsAreTaken) {
  for (const int field : {0, 2, 3}) m_receiver.Push(Packet(static_cast<uint8_t>(field)), 0);
  EXPECT_EQ(m_messages, 3u);
  EXPECT_EQ(m_receiver.Seen().damaged, 0u);
}

TEST_F(AncField, UndefinedFieldIsDamageAndLeavesAGap) {
  m_receiver.Push(Packet(0), 0);
  m_receiver.Push(Packet(1), 0);
  EXPECT_EQ(m_receiver.Seen().damaged, 1u);
  EXPECT_FALSE(m_receiver.IsWaiting());
  m_receiver.Push(Packet(2), 0);
  EXPECT_EQ(m_messages, 1u) << "the packet behind the gap waits for the missing one";
  EXPECT_TRUE(m_receiver.IsWaiting());
  m_receiver.Expire(RtpOrder::kPatience);
  EXPECT_EQ(m_messages, 2u);
  EXPECT_EQ(m_receiver.Seen().lost, 1u);
}

}  // namespace
