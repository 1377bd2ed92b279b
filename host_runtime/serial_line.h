// SPDX-License-Identifier: Apache-2.0
// A serial device in a descriptor set.
//
// While it is in the set, the descriptor that the library reads is one end of a local stream, and the runtime has a
// descriptor of its own for the device. The runtime therefore decides in which pieces the library gets the bytes, and a
// device can disappear and return without effect on the library's descriptor. The descriptor refers to its device again
// when it leaves the set, so that its owner's close() releases everything.
#ifndef HOST_SERIAL_LINE_H
#define HOST_SERIAL_LINE_H

#include <sys/types.h>

#include <cstdint>
#include <memory>

#include "owned_fd.h"
#include "serial_pieces.h"
#include "serial_port.h"

namespace host_runtime {

// Limits the reports of lost devices: twenty at once, then one per second.
class LossLimit {
 public:
  // Returns whether a loss at `now` may be reported.
  bool Allow(int64_t now);

 private:
  static constexpr double kBurst = 20;
  double m_tokens = kBurst;
  int64_t m_filled = 0;
};

// It belongs to the thread that selects. All times are those of MonotonicNs().
class SerialLine {
 public:
  // Replaces fd by the line's stream; `epoll` reports the device's events under `tag`. Returns null with errno, and
  // leaves everything as it was, if the system has no descriptors left.
  static std::unique_ptr<SerialLine> Attach(int fd, const SerialDevice& device, int epoll, uint64_t tag);
  ~SerialLine();
  SerialLine(const SerialLine&) = delete;
  SerialLine& operator=(const SerialLine&) = delete;

  // Reads the device after an event: it has bytes or has hung up.
  void Read(int64_t now);
  // Reopens a lost device, and writes the next piece to the descriptor if it is due. Returns true while the descriptor
  // is readable.
  bool Offer(int64_t now);
  // Returns the time for the next call of Offer if the device has no event before, or SerialPieces::kNever.
  int64_t Due() const;
  // Returns whether the descriptor is still the attached one. Its owner should not have closed it.
  bool IsAttached() const;

 private:
  SerialLine(int fd, const SerialDevice& device, int epoll, uint64_t tag);
  bool ReplaceDescriptor();
  bool Watch();
  void Unwatch();
  void Abandon();
  bool HasUnread() const;
  void LoseDevice(int64_t now);
  void TryDevice(int64_t now);
  void ReportLoss(int64_t now);

  const int m_fd;  // the library's descriptor
  const SerialDevice m_is;
  const int m_epoll;
  const uint64_t m_tag;
  SerialPieces m_pieces;

  common::OwnedFD m_feed;    // the other end of the stream behind m_fd
  common::OwnedFD m_device;  // none while the device is lost
  dev_t m_feedDevice = 0;
  ino_t m_feedNode = 0;
  bool m_watched = false;    // m_device is in m_epoll
  bool m_abandoned = false;  // m_fd was closed, and nothing more is done

  int64_t m_nextTry = 0;
  LossLimit m_limit;
  bool m_lossTold = false;  // the current loss was reported
  unsigned m_untold = 0;    // losses that ended before they could be reported
};

}  // namespace host_runtime

#endif  // HOST_SERIAL_LINE_H
