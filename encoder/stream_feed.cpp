// SPDX-License-Identifier: Apache-2.0
#include "stream_feed.h"

#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace mdencoder {

StreamFeed::StreamFeed(std::unique_ptr<HostStream> stream, std::function<size_t()> room)
    : m_stream(std::move(stream)), m_turns(std::move(room)) {
  m_socket.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  m_stop.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!m_socket.IsOpen() || !m_stop.IsOpen()) {
    throw std::runtime_error(std::string("no descriptors: ") + std::strerror(errno));
  }
  m_thread = std::thread([this] { Run(); });
}

StreamFeed::~StreamFeed() {
  eventfd_write(m_stop.Get(), 1);
  m_thread.join();
}

HostCaptureState StreamFeed::State() const {
  using Phase = HostCaptureState::Phase;
  HostCaptureState state = m_stream->State();
  const bool isPassedOn = m_passedOn.load() == m_stream->Stats().taken && UnreadBytes(m_port.load()) == 0;
  if (state.phase == Phase::Ended && !isPassedOn) state.phase = Phase::Running;
  return state;
}

HostCaptureStats StreamFeed::Stats() const {
  HostCaptureStats stats = m_stream->Stats();
  stats.overflows += m_unsent.load();
  return stats;
}

void StreamFeed::Run() {
  pthread_setname_np(pthread_self(), "StreamFeed");
  std::vector<uint8_t> message;
  while (Wait(m_stream->FD(), -1) && WaitForTurn()) {
    if (!m_stream->Take(message)) continue;
    const sockaddr_in to = Loopback(m_port.load());
    const ssize_t sent = sendto(m_socket.Get(), message.data(), message.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    if (sent < 0) m_unsent.fetch_add(1);
    m_passedOn.fetch_add(1);
  }
}

// Returns false if it is to stop.
bool StreamFeed::WaitForTurn() {
  while (!m_turns.Take(m_port.load())) {
    if (!Wait(-1, static_cast<int>(Turns::kLook.count()))) return false;
  }
  return true;
}

// Waits until the descriptor is readable or the time is over; -1 for no limit. Returns false if it is to stop.
bool StreamFeed::Wait(int fd, int milliseconds) const {
  pollfd set[] = {{m_stop.Get(), POLLIN, 0}, {fd, POLLIN, 0}};
  poll(set, 2, milliseconds);
  return set[0].revents == 0;
}

}  // namespace mdencoder
