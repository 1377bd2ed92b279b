// SPDX-License-Identifier: Apache-2.0
#define HOST_MODULE "capture_playback"
#define HOST_DEBUG_MODULE ::host_runtime::CaptureModule()

#include "capture_playback.h"

#include <algorithm>

#include "anc_klv.h"
#include "nanoseconds.h"

namespace host_runtime {
namespace {

constexpr int64_t kTicks = 90'000;
constexpr int64_t kFurthest = int64_t{1} << 60;  // time stamps beyond it are not believed
constexpr double kLongestWait = 1e9;             // seconds
constexpr int64_t kLongestPause = 60 * kTicks;   // a longer one is a jump of the clock
constexpr int64_t kLargestStepBack = kTicks;
constexpr int64_t kPreRoll = kSecond / 2;  // before a file begins, so that all sources of the input can be opened
constexpr size_t kAuHeaderSize = 5;        // MPEG-2 systems: header of a metadata access unit

}  // namespace

void Playback::BeginPass() {
  if (m_first && !m_isLive) {
    m_shift += static_cast<uint64_t>(std::max<int64_t>(m_last - *m_first, 0) + m_step);
    m_anchorNs = DueAt(m_last + m_step);
  }
  m_first.reset();
  m_count = 0;
}

bool Playback::Push(CaptureQueue& queue, int64_t time, std::span<const uint8_t> packet) {
  time = std::clamp(time, -kFurthest, kFurthest);
  if (m_first && time > m_last && time - m_last <= kLongestPause) m_step = time - m_last;
  if (!WaitForTime(queue, time)) return false;
  const int64_t inPass = std::max<int64_t>(time - *m_first + m_begin, 0);
  return PushMessages(queue, static_cast<uint64_t>(inPass) + m_shift, packet);
}

void Playback::BeginAt(int64_t time, int64_t now) {
  m_first = time;
  m_last = time;
  m_anchor = time;
  if (!m_started) {
    m_begin = time;
    m_anchorNs = now + (m_isLive || m_speed == 0 ? 0 : kPreRoll);
    m_started = true;
  } else if (m_isLive) {
    m_begin = time;
  }
}

// Returns false if the capture is to stop.
bool Playback::WaitForTime(CaptureQueue& queue, int64_t time) {
  const int64_t now = MonotonicNs();
  if (!m_first) BeginAt(time, now);
  if (m_last - time > kLargestStepBack || time - m_last > kLongestPause) {
    HOST_LOG(5, "%s: the clock of \"%s\" jumps.\n", queue.Label(), m_name.c_str());
    m_anchor = m_last = time;
    m_anchorNs = now;
  }
  m_last = std::max(m_last, time);
  if (m_isLive) return true;
  const int64_t due = DueAt(time);
  if (due > now) queue.Wait(-1, due - now);
  return !queue.IsStopping();
}

// Returns the monotonic time at which the file's clock shows `time`, which is no jump from m_last.
int64_t Playback::DueAt(int64_t time) const {
  if (m_speed == 0) return m_anchorNs;
  const double seconds = static_cast<double>(time - m_anchor) / static_cast<double>(kTicks) / m_speed;
  return m_anchorNs + static_cast<int64_t>(std::min(seconds, kLongestWait) * static_cast<double>(kSecond));
}

bool Playback::PushMessages(CaptureQueue& queue, uint64_t timestamp, std::span<const uint8_t> data) {
  using State = anc_klv::KlvSize::State;
  while (!data.empty()) {
    anc_klv::KlvSize size = anc_klv::SizeOfKlv(data);
    if (size.state == State::Bad && data.size() > kAuHeaderSize) {
      const anc_klv::KlvSize behind = anc_klv::SizeOfKlv(data.subspan(kAuHeaderSize));
      if (behind.state == State::Known) {
        data = data.subspan(kAuHeaderSize);
        size = behind;
      }
    }
    if (size.state != State::Known || size.size > data.size()) {
      queue.Count(&HostCaptureStats::damaged);
      HOST_LOG(4, "%s: %zu bytes of damaged KLV dropped.\n", queue.Label(), data.size());
      return true;
    }
    if (!m_isLive && !queue.AwaitRoom()) return false;
    queue.Push(timestamp, data.first(size.size));
    ++m_count;
    data = data.subspan(size.size);
  }
  return true;
}

}  // namespace host_runtime
