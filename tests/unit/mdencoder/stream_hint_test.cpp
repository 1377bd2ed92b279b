// SPDX-License-Identifier: Apache-2.0
#include "stream_hint.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace mdencoder::stream_hint_test {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Transport() {
  Bytes bytes(7 * 188, 0xFF);
  for (size_t at = 0; at < bytes.size(); at += 188) bytes[at] = 0x47;
  return bytes;
}

Bytes Rtp(uint8_t sequence, const Bytes& payload) {
  Bytes bytes = {0x80, 96, 0, sequence, 0, 0, 0, 0, 1, 2, 3, 4};
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

TEST(StreamHint, ATransportStreamIsToldOnce) {
  StreamHint hint;
  EXPECT_EQ(hint.Look(Bytes(50, 9)), "");
  EXPECT_EQ(hint.Look(Transport()), "a transport stream");
  EXPECT_EQ(hint.Look(Transport()), "");
}

TEST(StreamHint, RtpIsToldByWhatItCarriesOrByItsNumbers) {
  EXPECT_EQ(StreamHint().Look(Rtp(1, Transport())), "a transport stream in RTP");
  EXPECT_EQ(StreamHint().Look(Rtp(1, {0x06, 0x0E, 0x2B, 0x34, 1})), "KLV in RTP");
  StreamHint hint;
  for (const uint8_t sequence : Bytes{1, 2, 3, 9, 10, 11, 12}) EXPECT_EQ(hint.Look(Rtp(sequence, {1, 2})), "");
  EXPECT_EQ(hint.Look(Rtp(13, {1, 2})), "RTP") << "the fifth in a row";
}

TEST(StreamHint, OtherKlvIsNoStream) {
  StreamHint hint;
  for (int i = 0; i < 20; ++i) EXPECT_EQ(hint.Look(Bytes{0x06, 0x0E, 0x2B, 0x34, 2, 0x0B}), "");
  for (int i = 0; i < 20; ++i) EXPECT_EQ(hint.Look({}), "");
}

}  // namespace
}  // namespace mdencoder::stream_hint_test
