// SPDX-License-Identifier: Apache-2.0
#include "stream_clock.h"

#include <algorithm>
#include <cstdlib>

namespace mdencoder {

int64_t StreamClock::Push(std::optional<int64_t> stampUs, int64_t arrivalUs) {
  if (!stampUs) return arrivalUs;
  const int64_t difference = arrivalUs - *stampUs;
  if (std::abs(difference) > m_boundUs) {
    ++m_state.replaced;
    return arrivalUs;
  }
  Learn(difference, arrivalUs);
  ++m_state.mapped;
  return Map(stampUs, arrivalUs);
}

int64_t StreamClock::Map(std::optional<int64_t> stampUs, int64_t arrivalUs) const {
  if (!stampUs || std::abs(arrivalUs - *stampUs) > m_boundUs) return arrivalUs;
  return *stampUs + m_state.offsetUs;
}

// The way may make a message late, but never early: the smallest difference of a while is the nearest to the truth.
void StreamClock::Learn(int64_t difference, int64_t arrivalUs) {
  if (!m_hasDifference) {
    m_hasDifference = true;
    m_windowBeginUs = m_slewedUs = arrivalUs;
    m_least = m_state.differenceUs = difference;
    m_state.offsetUs = difference - std::clamp(difference, -kMostAheadUs, kMostLateUs);
  }
  m_least = std::min(m_least, difference);
  // The clock of this machine may be set back.
  if (arrivalUs < m_windowBeginUs || arrivalUs - m_windowBeginUs >= kWindowUs) EndWindow(arrivalUs);
  Slew(arrivalUs);
}

void StreamClock::EndWindow(int64_t arrivalUs) {
  m_state.differenceUs = m_least;
  if (!m_hasFirst) {
    m_hasFirst = true;
    m_firstUs = arrivalUs;
    m_firstLeast = m_least;
  } else if (arrivalUs > m_firstUs) {
    m_state.driftPpm = static_cast<double>(m_least - m_firstLeast) * 1e6 / static_cast<double>(arrivalUs - m_firstUs);
  }
  m_windowBeginUs = arrivalUs;
  m_least = INT64_MAX;
}

void StreamClock::Slew(int64_t arrivalUs) {
  const int64_t target = m_state.differenceUs - std::clamp(m_state.differenceUs, -kMostAheadUs, kMostLateUs);
  const int64_t most = std::clamp<int64_t>(arrivalUs - m_slewedUs, 0, kWindowUs) * kMostSlewPpm / 1'000'000;
  if (most == 0 && arrivalUs >= m_slewedUs) return;  // what is left of a microsecond counts the next time
  m_state.offsetUs += std::clamp(target - m_state.offsetUs, -most, most);
  m_slewedUs = arrivalUs;
}

}  // namespace mdencoder
