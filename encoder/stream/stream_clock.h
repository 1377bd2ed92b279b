// SPDX-License-Identifier: Apache-2.0
// Puts times of another clock, such as the precision time stamps of messages, on the clock of a stream.
//
// A time that is near its arrival is trusted: then its frame is the one that shows its moment. A clock that is ahead, or
// behind by more than a message may take on its way, is followed by an offset, which moves slowly so that times keep their
// distances. Times that are further away than the bound, as those of a recording, are replaced by their arrival.
#ifndef MDENCODER_STREAM_CLOCK_H
#define MDENCODER_STREAM_CLOCK_H

#include <cstdint>
#include <optional>

namespace mdencoder {

class StreamClock {
 public:
  static constexpr int64_t kUsualBoundUs = 2'000'000;
  static constexpr int64_t kMostAheadUs = 20'000;  // of a clock that is right: two readings differ by a little
  static constexpr int64_t kMostLateUs =
      900'000;  // of a message whose clock is right: the stream is later by a little more
  static constexpr int64_t kMostSlewPpm = 1000;    // of the offset
  static constexpr int64_t kWindowUs = 5'000'000;  // in which the fastest message tells the clocks' difference

  explicit StreamClock(int64_t boundUs = kUsualBoundUs) : m_boundUs(boundUs) {}

  // Returns the time on the clock of the arrival, in microseconds. Call it once for each message, in their order.
  int64_t Push(std::optional<int64_t> stampUs, int64_t arrivalUs);
  // Returns what Push would, and learns nothing.
  int64_t Map(std::optional<int64_t> stampUs, int64_t arrivalUs) const;

  struct State {
    int64_t offsetUs = 0;      // added to the stamps
    int64_t differenceUs = 0;  // from the other clock to this one, with the time on the way
    double driftPpm = 0;       // how the difference grows
    uint64_t mapped = 0;       // times that were used
    uint64_t replaced = 0;     // times that were too far away
  };
  const State& Snapshot() const { return m_state; }

 private:
  void Learn(int64_t difference, int64_t arrivalUs);
  void EndWindow(int64_t arrivalUs);
  void Slew(int64_t arrivalUs);

  int64_t m_boundUs;
  State m_state;
  bool m_hasDifference = false;
  int64_t m_windowBeginUs = 0;
  int64_t m_least = 0;     // difference in the window
  int64_t m_slewedUs = 0;  // arrival up to which the offset has moved
  int64_t m_firstUs = 0;   // end of the first window
  int64_t m_firstLeast = 0;
  bool m_hasFirst = false;
};

}  // namespace mdencoder

#endif  // MDENCODER_STREAM_CLOCK_H
