#include "receiver.h"

#include <chrono>

namespace mdencoder {

Receiver::Receiver(size_t capacity, decltype(&MetaData_ReleaseBuffer) release, Handler handler)
    : capacity_(capacity), release_(release), handler_(std::move(handler)), thread_([this] { Run(); }) {}

Receiver::~Receiver() {
  Finish();
}

bool Receiver::Take(MDATA_BUFFER* buffer, Source& source) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto timeUs = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
  // The sequence number is read while the library's own reference still holds the buffer.
  const uint8_t sequence = buffer->pcData[1];
  const uint64_t length = static_cast<uint64_t>(buffer->nDataSize - MDATA_STREAM_HEADER_SIZE);
  bool taken = false;
  {
    const std::lock_guard lock(mutex_);
    if (queue_.size() < capacity_ && !finished_) {
      __atomic_add_fetch(&buffer->nRefCount, 1, __ATOMIC_RELAXED);
      queue_.push_back({buffer, &source, timeUs});
      taken = true;
    }
  }
  source.Arrived(sequence, length, taken);
  if (taken) wake_.notify_one();
  return taken;
}

void Receiver::Finish() {
  {
    const std::lock_guard lock(mutex_);
    finished_ = true;
  }
  wake_.notify_one();
  if (thread_.joinable()) thread_.join();
}

void Receiver::Run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return finished_ || !queue_.empty(); });
    if (queue_.empty()) return;
    const Kept kept = queue_.front();
    queue_.pop_front();
    lock.unlock();
    const BYTE* data = kept.buffer->pcData;
    Received received;
    received.source = kept.source;
    received.timeUs = kept.timeUs;
    received.timeStamp = kept.buffer->nTimeStamp;
    received.sequence = data[1];
    received.headerLength = static_cast<uint16_t>(data[3] << 8 | data[4]);
    received.buffer = st0601::ByteView(data, static_cast<size_t>(kept.buffer->nDataSize));
    handler_(received);
    release_(kept.buffer);
    lock.lock();
  }
}

}  // namespace mdencoder
