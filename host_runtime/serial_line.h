// A serial device in a descriptor set.
//
// While it is in the set, the descriptor that the library reads is one end of a local stream, and the device stands behind a
// descriptor of the runtime's own: so the runtime decides in which pieces the library gets the bytes, and a device that goes
// away and comes back changes nothing that the library has. The descriptor gets its device back when it leaves the set, so
// that its owner's close() is the end of all of it.
#ifndef HOST_SERIAL_LINE_H
#define HOST_SERIAL_LINE_H

#include <sys/types.h>

#include <cstdint>
#include <memory>

#include "owned_fd.h"
#include "serial_pieces.h"
#include "serial_port.h"

namespace host_runtime {

// How often the log tells that a device went: twenty times at once, then once a second.
class LossLimit {
 public:
  // Whether a loss at `now` is told.
  bool Allow(int64_t now);

 private:
  static constexpr double kBurst = 20;
  double m_tokens = kBurst;
  int64_t m_filled = 0;
};

// Belongs to the thread that selects. All times are MonotonicNs().
class SerialLine {
 public:
  // Puts the line's stream behind fd; the device's events come from `epoll` under `tag`. Null with errno when the system
  // has no descriptors left: everything is then as it was.
  static std::unique_ptr<SerialLine> Attach(int fd, const SerialDevice& device, int epoll, uint64_t tag);
  ~SerialLine();
  SerialLine(const SerialLine&) = delete;
  SerialLine& operator=(const SerialLine&) = delete;

  // The device has bytes or has hung up.
  void Read(int64_t now);
  // Brings back a device that is away, and puts the next piece behind the descriptor when it is due. True while the
  // descriptor has something to read.
  bool Offer(int64_t now);
  // When Offer is to be called next, if the device says nothing; SerialPieces::kNever for never.
  int64_t Due() const;
  // Whether the descriptor is still the one that was attached. Its owner should not have closed it.
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

  const int m_fd;  // the library's
  const SerialDevice m_is;
  const int m_epoll;
  const uint64_t m_tag;
  SerialPieces m_pieces;

  common::OwnedFD m_feed;    // the other end of the stream behind m_fd
  common::OwnedFD m_device;  // none while the device is away
  dev_t m_feedDevice = 0;
  ino_t m_feedNode = 0;
  bool m_watched = false;    // m_device is in m_epoll
  bool m_abandoned = false;  // m_fd was closed: nothing more happens here

  int64_t m_nextTry = 0;
  LossLimit m_limit;
  bool m_lossTold = false;  // of the loss that lasts
  unsigned m_untold = 0;    // losses that were over before they could be told
};

}  // namespace host_runtime

#endif  // HOST_SERIAL_LINE_H
