// SPDX-License-Identifier: Apache-2.0
// Passes buffers from the ready callback to the recorder's thread, in a bounded queue without a lock.
//
// The callback adds a reference and an entry, or refuses the message if the queue is full. It waits for nobody, except
// that a full queue gives a recorder that is at work at most 2 ms to make room. Files and replays look at the room before
// they send, but not all at once: what was on its way when the last place went has places in reserve, so that nothing of a
// file is lost. The recorder has the priority of the metadata thread, handles messages in batches and releases their
// references.
#ifndef MDENCODER_RECEIVER_H
#define MDENCODER_RECEIVER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <thread>

#include "metadata_lib.h"
#include "ring.h"
#include "source.h"
#include "st0601_items.h"

namespace mdencoder {

// A message for the recorder.
struct Received {
  Source* source = nullptr;
  std::string_view name;   // of the source
  uint64_t timeUs = 0;     // wall clock at the callback, microseconds since 1970
  uint64_t timeStamp = 0;  // the input's presentation time, or 0
  uint8_t sequence = 0;
  uint16_t headerLength = 0;  // length in the stream header
  st0601::ByteView buffer;    // stream header and message
  st0601::ByteView Message() const { return buffer.subspan(MDATA_STREAM_HEADER_SIZE); }
};

class Receiver {
 public:
  using Handler = std::function<void(const Received&)>;
  using Tick = std::function<void()>;  // called every second, also without messages

  // `reserve` is how many messages of sources that wait for room are kept beyond the capacity.
  Receiver(size_t capacity, size_t reserve, decltype(&MetaData_ReleaseBuffer) release, Handler handler, Tick tick);
  // Handles the remaining messages and ends the thread. Every source must be closed before.
  ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  // Queues a message of `source`, or refuses it. Called by the ready callback on the metadata thread. Returns true if
  // the message was queued.
  bool Push(MDATA_BUFFER* buffer, Source& source);
  // Returns how many messages fit into the queue now, without the reserve. Any thread may call it.
  size_t Room() const { return m_ring.Room(); }
  // Handles the remaining messages and ends the thread.
  void Finish();

 private:
  struct Kept {
    MDATA_BUFFER* buffer;  // owns one reference
    Source* source;
    uint64_t timeUs;
  };

  bool Queue(const Kept& kept);
  void TakePriority();
  void Run();
  void Handle(const Kept& kept) const;
  size_t HandleSome();  // returns how many

  const decltype(&MetaData_ReleaseBuffer) m_release;
  const Handler m_handler;
  const Tick m_tick;
  Ring<Kept> m_ring;
  bool m_hasPriority = false;  // metadata thread: the recorder has its priority
  std::thread m_thread;
};

}  // namespace mdencoder

#endif
