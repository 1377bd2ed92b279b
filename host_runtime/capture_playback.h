// SPDX-License-Identifier: Apache-2.0
// Passes the KLV of a file or stream on: a file in its own time, a stream as it arrives. It belongs to the capture's
// thread.
#ifndef HOST_CAPTURE_PLAYBACK_H
#define HOST_CAPTURE_PLAYBACK_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "capture.h"

namespace host_runtime {

class Playback {
 public:
  // `name` is what lines of the log say.
  Playback(std::string name, bool isLive, double speed) : m_name(std::move(name)), m_isLive(isLive), m_speed(speed) {}

  // Begins a file, its repetition, or a stream that came back. In a repetition the timestamps continue.
  void BeginPass();
  // Waits for `time`, in units of 90 kHz, if it is a file, and pushes the messages of the packet, each of which may have
  // the header of a metadata access unit in front. Returns false if the capture is to stop.
  bool Push(CaptureQueue& queue, int64_t time, std::span<const uint8_t> packet);

  bool HasKlv() const { return m_first.has_value(); }      // in this pass
  unsigned long long Messages() const { return m_count; }  // in this pass

 private:
  bool WaitForTime(CaptureQueue& queue, int64_t time);
  void BeginAt(int64_t time, int64_t now);
  int64_t DueAt(int64_t time) const;
  bool PushMessages(CaptureQueue& queue, uint64_t timestamp, std::span<const uint8_t> data);

  const std::string m_name;
  const bool m_isLive;
  const double m_speed;

  bool m_started = false;
  int64_t m_begin = 0;     // first timestamp of the first pass
  uint64_t m_shift = 0;    // length of the passes before this one
  int64_t m_step = 3'600;  // from the last timestamp of a file to the first one of its repetition
  // State of the current pass; 90 kHz.
  std::optional<int64_t> m_first;
  int64_t m_last = 0;
  // The file's clock shows m_anchor at this monotonic time, ns.
  int64_t m_anchor = 0;
  int64_t m_anchorNs = 0;
  unsigned long long m_count = 0;
};

}  // namespace host_runtime

#endif  // HOST_CAPTURE_PLAYBACK_H
