// SPDX-License-Identifier: Apache-2.0
// Passes buffers from the ready callback to the recorder's thread, in a bounded queue without a lock.
//
// The callback never blocks: it adds a reference and an entry, or refuses the message if the queue is full. The worker
// handles each message and releases the reference.
#ifndef MDENCODER_RECEIVER_H
#define MDENCODER_RECEIVER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <thread>

#include "annotated_mutex.h"
#include "metadata_lib.h"
#include "source.h"
#include "st0601_items.h"

namespace mdencoder {

// A message for the worker.
struct Received {
  Source* source = nullptr;
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

  Receiver(size_t capacity, decltype(&MetaData_ReleaseBuffer) release, Handler handler);
  // Handles the remaining messages and ends the thread. Every source must be closed before.
  ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  // Queues a message of `source`, or refuses it. Called by the ready callback on the metadata thread. Returns true if
  // the message was queued.
  bool Push(MDATA_BUFFER* buffer, Source& source);
  // Handles the remaining messages and ends the thread.
  void Finish();

 private:
  struct Kept {
    MDATA_BUFFER* buffer;  // owns one reference
    Source* source;
    uint64_t timeUs;
  };

  void Run();

  const size_t m_capacity;
  const decltype(&MetaData_ReleaseBuffer) m_release;
  const Handler m_handler;
  common::Mutex m_mutex;  // leaf
  common::Condition m_wake;
  std::deque<Kept> m_queue GUARDED_BY(m_mutex);
  bool m_finished GUARDED_BY(m_mutex) = false;
  std::thread m_thread;
};

}  // namespace mdencoder

#endif
