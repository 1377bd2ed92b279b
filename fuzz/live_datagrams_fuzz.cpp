// SPDX-License-Identifier: Apache-2.0
// Receives arbitrary datagrams as a live stream. The input is cut into datagrams by the byte in front of each. What comes
// out must be whole transport packets and KLV that begins with a label, and no more bytes than came in.
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "live_datagrams.h"

namespace {

void Check(bool condition) {
  if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace live_datagrams;
  size_t out = 0;
  Receiver receiver({[&out](ByteView bytes) {
                       Check(Recognise(bytes) == Content::TransportStream);
                       out += bytes.size();
                     },
                     [&out](ByteView klv, std::optional<uint64_t>) {
                       Check(Recognise(klv) == Content::Klv);
                       out += klv.size();
                     }});
  int64_t now = 0;
  for (size_t at = 0; at < size;) {
    const size_t length = std::min<size_t>(data[at], size - at - 1);
    // A block of exactly its size, so that a read past its end is detected.
    const std::vector<uint8_t> datagram(data + at + 1, data + at + 1 + length);
    receiver.Push(datagram, now);
    receiver.Expire(now += 10'000'000);
    at += 1 + length;
  }
  Check(out <= size);
  return 0;
}
