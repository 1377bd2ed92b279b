// SPDX-License-Identifier: Apache-2.0
// Frames and messages of any size, with any times, in any order: the stream has no fault, and every message is in it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "../tests/support/ts_reader.h"
#include "ts_mux.h"
#include "video_units.h"

namespace {

void Require(bool isRight) {
  if (!isRight) std::abort();
}

// Reads numbers from the input; 0 behind its end.
class Input {
 public:
  explicit Input(std::span<const uint8_t> data) : m_data(data) {}
  bool IsEmpty() const { return m_data.empty(); }
  uint32_t Number(size_t bytes) {
    uint32_t number = 0;
    for (size_t i = 0; i < bytes && !m_data.empty(); ++i, m_data = m_data.subspan(1)) number = number << 8 | m_data[0];
    return number;
  }
  // The bytes are the rest of the input, again and again.
  ts::Bytes Some(size_t size) const {
    ts::Bytes bytes(size, 0xA5);
    if (m_data.empty()) return bytes;
    for (size_t i = 0; i < size; ++i) bytes[i] = m_data[i % m_data.size()];
    return bytes;
  }

 private:
  std::span<const uint8_t> m_data;
};

ts::Bytes Payloads(const std::vector<ts_reader::Pes>& packets, size_t skipped) {
  ts::Bytes all;
  for (const ts_reader::Pes& pes : packets) {
    Require(pes.payload.size() >= skipped && pes.pts);
    all.insert(all.end(), pes.payload.begin() + static_cast<std::ptrdiff_t>(skipped), pes.payload.end());
  }
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(std::span(data, size));
  const auto carriage = input.Number(1) % 2 == 0 ? ts::Carriage::Synchronous : ts::Carriage::Asynchronous;
  const auto codec = input.Number(1) % 2 == 0 ? video::Codec::H264 : video::Codec::H265;
  ts::Mux mux(codec, carriage);
  std::vector<ts::Bytes> expected;
  ts::Bytes stream;
  int64_t now = 0;
  for (int step = 0; step < 64 && !input.IsEmpty(); ++step) {
    const uint32_t kind = input.Number(1) % 4;
    const uint32_t number = input.Number(3);
    if (kind == 0) {
      if (mux.AddTrack()) expected.emplace_back();
    } else if (kind == 1) {
      now += number % 900000;
      mux.PutClock(now, stream);
    } else if (kind == 2) {
      now += number % 20000;
      const ts::Bytes frame = input.Some(number % 30011);
      const int64_t pts = now + static_cast<int64_t>(number % 7000);
      mux.PutFrame({frame, pts, now, number % 3 == 0}, stream);
      video::ParameterSets(codec, frame);
      const auto time =
          video::TimeStamp(codec, video::WithTimeStamp(codec, ts::Bytes{0, 0, 1, 0x26, 1, 2}, number, true));
      Require(time == number);
    } else if (!expected.empty()) {
      const size_t track = number % expected.size();
      const ts::Bytes message = input.Some(number % 70001);
      expected[track].insert(expected[track].end(), message.begin(), message.end());
      const int64_t pts = now - 90000 + static_cast<int64_t>(input.Number(3));
      mux.PutMessage(track, {message, static_cast<uint8_t>(number), pts}, stream);
    }
  }
  ts_reader::Reader reader;
  reader.Read(stream);
  reader.Finish();
  Require(reader.faults.empty());
  for (size_t track = 0; track < expected.size(); ++track) {
    const auto packets = reader.Of(ts::Mux::PidOf(track));
    Require(Payloads(packets, carriage == ts::Carriage::Synchronous ? ts::kCellHeader : 0) == expected[track]);
  }
  return 0;
}
