// SPDX-License-Identifier: Apache-2.0
// An encoded picture on a stream's clock.
#ifndef MDENCODER_ENCODED_FRAME_H
#define MDENCODER_ENCODED_FRAME_H

#include <cstdint>
#include <vector>

namespace mdencoder {

struct EncodedFrame {
  std::vector<uint8_t> bytes;  // an access unit in Annex B form
  int64_t ptsUs = 0;
  int64_t dtsUs = 0;
  bool isKey = false;
};

// Returns a time in units of 1/90000 s.
constexpr int64_t Ticks(int64_t us) {
  return us >= 0 ? (us * 9 + 50) / 100 : -((-us * 9 + 50) / 100);
}

}  // namespace mdencoder

#endif  // MDENCODER_ENCODED_FRAME_H
