// The capture of video inputs: what its back ends share.
//
// Each running input has a thread of its own ("KLV video 0") that runs a back end, and a queue from which the metadata
// thread takes packets. A source file of a back end defines HOST_DEBUG_MODULE as CaptureModule().
#ifndef HOST_CAPTURE_BACKENDS_H
#define HOST_CAPTURE_BACKENDS_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <vector>

#include "annotated_mutex.h"
#include "host.h"
#include "host_runtime.h"
#include "owned_fd.h"
#include "runtime_state.h"

namespace host_runtime {

// What a back end delivers to, and where the metadata thread takes from. Safe from any thread.
class CaptureQueue {
 public:
  static constexpr size_t kMostPackets = 1024;
  static constexpr size_t kMostBytes = size_t{8} << 20;

  explicit CaptureQueue(int input) : m_input(input) {}
  // False when the system has no descriptors left.
  bool Open();

  int Input() const { return m_input; }

  // For the back end's thread.
  void Push(uint64_t timestamp, std::span<const uint8_t> klv);
  void Count(uint64_t HostCaptureStats::*counter, uint64_t count = 1);
  // Waits until fd (or nothing, for -1) is readable, the time is up, or the capture is to stop. True when readable.
  bool Wait(int fd, int64_t nanoseconds);
  bool IsStopping() const { return __atomic_load_n(&m_stopping, __ATOMIC_RELAXED); }

  // For the service.
  void Stop();
  int FD() const { return m_readable.Get(); }
  bool Pop(BYTE* pcData, int* pnLength, UINT64* pnTimeStamp);
  HostCaptureStats Stats() const;

 private:
  struct Packet {
    uint64_t timestamp;
    std::vector<uint8_t> klv;
  };

  const int m_input;
  bool m_stopping = false;       // atomic
  common::OwnedFD m_readable;    // eventfd, set while packets wait
  common::OwnedFD m_stop;        // eventfd, set once
  mutable common::Mutex m_lock;  // leaf
  std::deque<Packet> m_packets GUARDED_BY(m_lock);
  size_t m_bytes GUARDED_BY(m_lock) = 0;
  HostCaptureStats m_stats GUARDED_BY(m_lock);
};

class CaptureBackend {
 public:
  virtual ~CaptureBackend() = default;
  // On the metadata thread: what can fail at once and quickly. Logs why.
  virtual bool Open(CaptureQueue& queue) = 0;
  // On the capture's thread, until IsStopping() or the end.
  virtual void Run(CaptureQueue& queue) = 0;
};

std::unique_ptr<CaptureBackend> MakeMediaBackend(const HostCaptureConfig& config);
std::unique_ptr<CaptureBackend> MakeAncBackend(const HostCaptureConfig& config);
std::unique_ptr<CaptureBackend> MakeSocketBackend(const HostCaptureConfig& config);

}  // namespace host_runtime

#endif  // HOST_CAPTURE_BACKENDS_H
