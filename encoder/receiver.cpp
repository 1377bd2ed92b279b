// SPDX-License-Identifier: Apache-2.0
#include "receiver.h"

#include <chrono>
#include <utility>

namespace mdencoder {

Receiver::Receiver(size_t capacity, decltype(&MetaData_ReleaseBuffer) release, Handler handler)
    : m_capacity(capacity), m_release(release), m_handler(std::move(handler)), m_thread([this] { Run(); }) {}

Receiver::~Receiver() {
  Finish();
}

bool Receiver::Push(MDATA_BUFFER* buffer, Source& source) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto timeUs = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
  // Only the library's reference is sure to hold the buffer here, so the sequence number is read now.
  const uint8_t sequence = buffer->pcData[1];
  const uint64_t length = static_cast<uint64_t>(buffer->nDataSize - MDATA_STREAM_HEADER_SIZE);
  bool taken = false;
  {
    const common::Lock lock(m_mutex);
    if (m_queue.size() < m_capacity && !m_finished) {
      __atomic_add_fetch(&buffer->nRefCount, 1, __ATOMIC_RELAXED);
      m_queue.push_back({buffer, &source, timeUs});
      taken = true;
    }
  }
  source.Arrived(sequence, length, taken);
  if (taken) m_wake.NotifyOne();
  return taken;
}

void Receiver::Finish() {
  {
    const common::Lock lock(m_mutex);
    m_finished = true;
  }
  m_wake.NotifyOne();
  if (m_thread.joinable()) m_thread.join();
}

void Receiver::Run() {
  common::Lock lock(m_mutex);
  for (;;) {
    while (!m_finished && m_queue.empty()) m_wake.Wait(m_mutex);
    if (m_queue.empty()) return;
    const Kept kept = m_queue.front();
    m_queue.pop_front();
    lock.Pause();
    const BYTE* data = kept.buffer->pcData;
    Received received;
    received.source = kept.source;
    received.timeUs = kept.timeUs;
    received.timeStamp = kept.buffer->nTimeStamp;
    received.sequence = data[1];
    received.headerLength = static_cast<uint16_t>(data[3] << 8 | data[4]);
    received.buffer = st0601::ByteView(data, static_cast<size_t>(kept.buffer->nDataSize));
    m_handler(received);
    m_release(kept.buffer);
    lock.Resume();
  }
}

}  // namespace mdencoder
