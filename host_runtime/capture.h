// SPDX-License-Identifier: Apache-2.0
// The capture of video inputs: declarations that its back ends share.
//
// Each running input has a thread of its own ("KLV video 0") that runs a back end, and a queue from which the metadata
// thread pops packets. A stream beside them ("KLV stream") has the same, and the program takes the packets. A source file
// of a back end defines HOST_DEBUG_MODULE as CaptureModule().
#ifndef HOST_CAPTURE_BACKENDS_H
#define HOST_CAPTURE_BACKENDS_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "annotated_mutex.h"
#include "host.h"
#include "host_runtime.h"
#include "owned_fd.h"
#include "runtime_state.h"

namespace host_runtime {

constexpr int kDatagramsAtOnce = 64;  // that a back end receives before it looks at the clock again

// The queue between a back end, which pushes packets, and the metadata thread, which pops them. Any thread may use it.
class CaptureQueue {
 public:
  static constexpr size_t kMostPackets = 1024;
  static constexpr size_t kMostBytes = size_t{8} << 20;

  // `label` begins the lines of the log. Packets larger than `largest` are dropped before they take room.
  CaptureQueue(std::string label, size_t largest) : m_label(std::move(label)), m_largest(largest) {}
  // Returns false if the system has no descriptors left.
  bool Open();

  const char* Label() const { return m_label.c_str(); }

  // For the back end's thread.
  void Push(uint64_t timestamp, std::span<const uint8_t> klv);
  void Count(uint64_t HostCaptureStats::*counter, uint64_t count = 1);
  // Waits until the queue and the program have room for another packet of a file. Returns false if the capture is to
  // stop.
  bool AwaitRoom();
  // Says why nothing can come, or with "" that it can. Logs a line when that changes.
  void SetFault(const std::string& fault);
  // Waits until fd is readable, the time has elapsed, or the capture is to stop; fd may be -1. Returns true if it is
  // readable.
  bool Wait(int fd, int64_t nanoseconds);
  bool IsStopping() const { return __atomic_load_n(&m_stopping, __ATOMIC_RELAXED); }

  // For the service.
  void Stop();
  int FD() const { return m_readable.Get(); }
  bool Pop(BYTE* pcData, int* pnLength, UINT64* pnTimeStamp);
  // Stores the next packet, or returns false if there is none.
  bool Take(std::vector<uint8_t>& klv);
  HostCaptureStats Stats() const;
  HostCaptureState State() const;
  // Notes that nothing more is pushed, because a file was played to its end.
  void End();

 private:
  struct Packet {
    uint64_t timestamp;
    std::vector<uint8_t> klv;
  };

  bool HasRoom() const;
  std::optional<Packet> Next(size_t room);

  const std::string m_label;
  const size_t m_largest;
  bool m_isLargestTold = false;  // back end's thread
  bool m_stopping = false;       // atomic
  common::OwnedFD m_readable;    // eventfd, set while packets wait
  common::OwnedFD m_stop;        // eventfd, set once
  mutable common::Mutex m_lock;  // leaf
  std::deque<Packet> m_packets GUARDED_BY(m_lock);
  size_t m_bytes GUARDED_BY(m_lock) = 0;
  HostCaptureStats m_stats GUARDED_BY(m_lock);
  std::string m_fault GUARDED_BY(m_lock);
  bool m_hasEnded GUARDED_BY(m_lock) = false;
};

class CaptureBackend {
 public:
  virtual ~CaptureBackend() = default;
  // Runs on the metadata thread and does the quick checks. Returns false, and logs the reason, if one fails.
  virtual bool Open(CaptureQueue& queue) = 0;
  // Runs on the capture's thread until IsStopping() or the end of the data.
  virtual void Run(CaptureQueue& queue) = 0;
};

// Of the kind Media: the backend for the file or URL.
std::unique_ptr<CaptureBackend> MakeUrlBackend(const HostCaptureConfig& config);
std::unique_ptr<CaptureBackend> MakeMediaBackend(const HostCaptureConfig& config);
std::unique_ptr<CaptureBackend> MakeKlvFileBackend(const HostCaptureConfig& config, bool hasStreamHeaders);
std::unique_ptr<CaptureBackend> MakeDatagramBackend(const HostCaptureConfig& config);
std::unique_ptr<CaptureBackend> MakeAncBackend(const HostCaptureConfig& config);
std::unique_ptr<CaptureBackend> MakeSocketBackend(const HostCaptureConfig& config);

}  // namespace host_runtime

#endif  // HOST_CAPTURE_BACKENDS_H
