// From the ready callback to the worker thread: a bounded queue of buffers that are kept beyond the callback.
//
// The callback never blocks: it adds a reference and an entry, or refuses the message when the queue is full. The
// worker looks at each message and gives its reference back.
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

// A message as the worker gets it.
struct Received {
  Source* source = nullptr;
  uint64_t timeUs = 0;     // wall clock at the callback, microseconds since 1970
  uint64_t timeStamp = 0;  // the input's presentation time, 0 when none
  uint8_t sequence = 0;
  uint16_t headerLength = 0;  // as the stream header says
  st0601::ByteView buffer;    // stream header and message
  st0601::ByteView Message() const { return buffer.subspan(MDATA_STREAM_HEADER_SIZE); }
};

class Receiver {
 public:
  using Handler = std::function<void(const Received&)>;

  Receiver(size_t capacity, decltype(&MetaData_ReleaseBuffer) release, Handler handler);
  // Every source must be closed: handles what is left, then ends the thread.
  ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  // What the callback does with a message of `source`. Metadata thread. TRUE when it was taken.
  bool Push(MDATA_BUFFER* buffer, Source& source);
  // Handles what is left and ends the thread.
  void Finish();

 private:
  struct Kept {
    MDATA_BUFFER* buffer;  // one reference of ours
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
