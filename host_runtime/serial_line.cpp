// SPDX-License-Identifier: Apache-2.0
#define HOST_MODULE "serial_line"

#include "serial_line.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "nanoseconds.h"
#include "runtime_state.h"

namespace host_runtime {
namespace {

// A device that returns must be open within half a second, so that data sent from then on arrives.
constexpr int64_t kOpeningRetry = kSecond / 4;
// Further bytes stay in the device's own buffer, where its flow control applies.
constexpr size_t kMostHeld = 4096;

}  // namespace

bool LossLimit::Allow(int64_t now) {
  const double gained = static_cast<double>(now - m_filled) / static_cast<double>(kSecond);
  m_tokens = std::min(kBurst, m_tokens + std::max(gained, 0.0));
  m_filled = now;
  if (m_tokens < 1) return false;
  m_tokens -= 1;
  return true;
}

SerialLine::SerialLine(int fd, const SerialDevice& device, int epoll, uint64_t tag)
    : m_fd(fd), m_is(device), m_epoll(epoll), m_tag(tag), m_pieces(CharacterTime(*device.settings)) {}

std::unique_ptr<SerialLine> SerialLine::Attach(int fd, const SerialDevice& device, int epoll, uint64_t tag) {
  auto line = std::unique_ptr<SerialLine>(new SerialLine(fd, device, epoll, tag));
  if (line->ReplaceDescriptor()) return line;
  const int error = errno;
  line.reset();
  RememberDevice(fd, device);
  errno = error;
  return nullptr;
}

bool SerialLine::ReplaceDescriptor() {
  m_device.Reset(fcntl(m_fd, F_DUPFD_CLOEXEC, 0));
  if (!m_device.IsOpen() || !Watch()) return false;
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) != 0) return false;
  m_feed.Reset(ends[0]);
  const common::OwnedFD other(ends[1]);
  struct stat info;
  epoll_event closed{};  // reports once that the other end was closed
  closed.events = EPOLLRDHUP | EPOLLET;
  closed.data.u64 = m_tag;
  const bool replaced = epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_feed.Get(), &closed) == 0 &&
                        fstat(other.Get(), &info) == 0 && dup3(other.Get(), m_fd, O_CLOEXEC) == m_fd;
  if (!replaced) return false;
  m_feedDevice = info.st_dev;
  m_feedNode = info.st_ino;
  return true;
}

SerialLine::~SerialLine() {
  Unwatch();
  if (m_device.IsOpen() && IsAttached() && dup3(m_device.Get(), m_fd, O_CLOEXEC) == m_fd) {
    NoThrow([this] { RememberDevice(m_fd, m_is); });
  }
  // m_feed leaves the epoll instance when it is closed: it has no other descriptor.
}

bool SerialLine::IsAttached() const {
  struct stat info;
  return m_feedNode != 0 && fstat(m_fd, &info) == 0 && info.st_dev == m_feedDevice && info.st_ino == m_feedNode;
}

bool SerialLine::Watch() {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = m_tag;
  m_watched = m_watched || epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_device.Get(), &event) == 0;
  return m_watched;
}

// The device is removed, because one that hung up would report that even with no events requested.
void SerialLine::Unwatch() {
  if (std::exchange(m_watched, false)) epoll_ctl(m_epoll, EPOLL_CTL_DEL, m_device.Get(), nullptr);
}

// A read callback may leave its bytes, if it does not get a lock in time; they must be read before any others.
bool SerialLine::HasUnread() const {
  int unread = 0;
  return ioctl(m_feed.Get(), TIOCOUTQ, &unread) == 0 && unread != 0;
}

// Gives up after the descriptor was closed while it was in the set: its number may have been reused.
void SerialLine::Abandon() {
  m_abandoned = true;
  Unwatch();
  m_device.Reset();
}

void SerialLine::Read(int64_t now) {
  if (!IsAttached()) Abandon();
  if (!m_device.IsOpen()) return;
  std::array<uint8_t, 4096> buffer;
  const ssize_t got = read(m_device.Get(), buffer.data(), buffer.size());
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (got <= 0) {
    LoseDevice(now);
    return;
  }
  m_pieces.Push({buffer.data(), static_cast<size_t>(got)}, now);
  if (m_pieces.Held() >= kMostHeld) Unwatch();
}

bool SerialLine::Offer(int64_t now) {
  if (m_abandoned) return false;
  if (!m_device.IsOpen() && now >= m_nextTry) TryDevice(now);
  if (HasUnread()) return true;
  const auto piece = m_pieces.Next(now);
  if (piece.empty()) return false;
  const ssize_t sent = send(m_feed.Get(), piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent != static_cast<ssize_t>(piece.size())) {
    if (sent >= 0 || errno == EAGAIN || errno == EINTR || errno == ENOBUFS || errno == ENOMEM) return false;
    Abandon();
    return false;
  }
  m_pieces.Pop(now);
  if (m_device.IsOpen() && m_pieces.Held() < kMostHeld) Watch();
  return true;
}

int64_t SerialLine::Due() const {
  if (m_abandoned) return SerialPieces::kNever;
  if (HasUnread()) return 0;
  const int64_t due = m_pieces.Due();
  return !m_device.IsOpen() ? std::min(due, m_nextTry) : due;
}

void SerialLine::LoseDevice(int64_t now) {
  Unwatch();
  m_device.Reset();
  m_pieces.Interrupt();
  m_nextTry = now + kOpeningRetry;
  m_lossTold = false;
  ReportLoss(now);
}

// Without a report the last line in the log would still be "is back". The loss is therefore reported as soon as the
// limit allows it, if the device is still lost.
void SerialLine::ReportLoss(int64_t now) {
  if (!m_limit.Allow(now)) return;
  m_lossTold = true;
  if (m_untold != 0) {
    HOST_LOG(4, "Serial device \"%s\" went away and came back %u more times.\n", m_is.path.c_str(), m_untold);
  }
  m_untold = 0;
  HOST_LOG(4, "Serial device \"%s\" is gone; waiting for it to come back.\n", m_is.path.c_str());
}

void SerialLine::TryDevice(int64_t now) {
  m_nextTry = now + kOpeningRetry;
  if (!m_lossTold) ReportLoss(now);
  m_device = OpenDevice(m_is.path);
  if (!m_device.IsOpen()) return;
  if (tcsetattr(m_device.Get(), TCSANOW, &*m_is.settings) != 0 || !Watch()) {
    m_device.Reset();
    return;
  }
  if (m_lossTold) {
    HOST_LOG(4, "Serial device \"%s\" is back.\n", m_is.path.c_str());
  } else {
    ++m_untold;
  }
}

}  // namespace host_runtime
