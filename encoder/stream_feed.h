// SPDX-License-Identifier: Apache-2.0
// Passes the messages of a stream that has no video input to a UDP source of the library, one in a datagram, over the
// loopback interface.
//
// A thread of its own does that. It waits while the source's socket holds datagrams or the program has no room. Meanwhile
// the stream's queue fills, which makes a file wait, so that nothing of it is lost, and lets a live stream drop with a
// count. Everything else is called on the main thread.
#ifndef MDENCODER_STREAM_FEED_H
#define MDENCODER_STREAM_FEED_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "host_runtime.h"
#include "loopback.h"
#include "owned_fd.h"

namespace mdencoder {

class StreamFeed {
 public:
  // `room` returns how many messages the program can take now; it is called on the feed's thread. It begins when it has a
  // port. Throws std::runtime_error without descriptors or a thread.
  StreamFeed(std::unique_ptr<HostStream> stream, std::function<size_t()> room);
  ~StreamFeed();  // ends the thread, and the stream
  StreamFeed(const StreamFeed&) = delete;
  StreamFeed& operator=(const StreamFeed&) = delete;

  // Sets the port of the library's source, which must be open.
  void SendTo(uint16_t port) { m_port.store(port); }
  // The stream has ended when the library has read the last message.
  HostCaptureState State() const;
  HostCaptureStats Stats() const;

 private:
  void Run();
  bool WaitForTurn();
  bool Wait(int fd, int milliseconds) const;

  const std::unique_ptr<HostStream> m_stream;
  std::atomic<uint16_t> m_port{0};
  Turns m_turns;  // thread only
  common::OwnedFD m_socket;
  common::OwnedFD m_stop;               // eventfd, set once
  std::atomic<uint64_t> m_passedOn{0};  // messages that were sent, or could not be
  std::atomic<uint64_t> m_unsent{0};    // the kernel refused them
  std::thread m_thread;
};

}  // namespace mdencoder

#endif  // MDENCODER_STREAM_FEED_H
