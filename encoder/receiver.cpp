// SPDX-License-Identifier: Apache-2.0
#include "receiver.h"

#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <span>
#include <utility>

#include "wall_clock.h"

namespace mdencoder {
namespace {

constexpr size_t kBatch = 64;
// Without it a metadata thread that has a higher priority, or merely less to do for a message, would take the processor
// from the recorder in order to refuse messages.
constexpr auto kLongestWait = std::chrono::milliseconds(2);
constexpr auto kTickInterval = std::chrono::seconds(1);

}  // namespace

Receiver::Receiver(size_t capacity, size_t reserve, decltype(&MetaData_ReleaseBuffer) release, Handler handler,
                   Tick tick)
    : m_release(release),
      m_handler(std::move(handler)),
      m_tick(std::move(tick)),
      m_ring(capacity, reserve),
      m_thread([this] { Run(); }) {}

Receiver::~Receiver() {
  Finish();
}

bool Receiver::Push(MDATA_BUFFER* buffer, Source& source) {
  const uint64_t timeUs = common::WallClockUs();
  // Only the library's reference is sure to hold the buffer after the push, so the sequence number is read now.
  const uint8_t sequence = buffer->pcData[1];
  const auto headerLength = static_cast<uint16_t>(buffer->pcData[3] << 8 | buffer->pcData[4]);
  const uint64_t length = static_cast<uint64_t>(buffer->nDataSize - MDATA_STREAM_HEADER_SIZE);
  // The recorder may release its reference as soon as it sees the entry.
  __atomic_add_fetch(&buffer->nRefCount, 1, __ATOMIC_RELAXED);
  if (!m_hasPriority) TakePriority();
  const Kept kept = {buffer, &source, timeUs};
  const bool taken = Queue(kept);
  if (!taken) __atomic_sub_fetch(&buffer->nRefCount, 1, __ATOMIC_RELAXED);  // the library still has its own
  source.Saw(timeUs, headerLength);
  source.Arrived(sequence, length, taken);
  return taken;
}

bool Receiver::Queue(const Kept& kept) {
  if (m_ring.Push(kept)) return true;
  if (kept.source->WaitsForRoom() && m_ring.PushIntoReserve(kept)) return true;
  return m_ring.WaitForRoom(kLongestWait) && m_ring.Push(kept);
}

// A recorder of lower priority gets what this thread leaves over, and the more there is to record the less that is. On the
// processor of a busy thread with a real-time priority it would get nothing at all.
void Receiver::TakePriority() {
  m_hasPriority = true;
  int policy = SCHED_OTHER;
  sched_param parameters{};
  if (pthread_getschedparam(pthread_self(), &policy, &parameters) != 0 || policy == SCHED_OTHER) return;
  pthread_setschedparam(m_thread.native_handle(), policy, &parameters);
}

void Receiver::Finish() {
  m_ring.Stop();
  if (m_thread.joinable()) m_thread.join();
}

void Receiver::Run() {
  pthread_setname_np(pthread_self(), "Recorder");
  using Clock = std::chrono::steady_clock;
  auto due = Clock::now() + kTickInterval;
  for (;;) {
    const bool stopped = m_ring.IsStopped();
    const size_t handled = HandleSome();
    if (handled == 0 && stopped) return;
    const auto now = Clock::now();
    if (now >= due) {
      m_tick();
      due = now + kTickInterval;
    }
    if (handled == 0) m_ring.Wait(due - now);
  }
}

size_t Receiver::HandleSome() {
  const std::span<Kept> batch = m_ring.Front(kBatch);
  for (const Kept& kept : batch) Handle(kept);
  for (const Kept& kept : batch) m_release(kept.buffer);
  if (!batch.empty()) m_ring.Discard(batch.size());
  return batch.size();
}

void Receiver::Handle(const Kept& kept) const {
  const BYTE* data = kept.buffer->pcData;
  Received received;
  received.source = kept.source;
  received.name = kept.source->Name();
  received.timeUs = kept.timeUs;
  received.timeStamp = kept.buffer->nTimeStamp;
  received.sequence = data[1];
  received.headerLength = static_cast<uint16_t>(data[3] << 8 | data[4]);
  received.buffer = st0601::ByteView(data, static_cast<size_t>(kept.buffer->nDataSize));
  m_handler(received);
}

}  // namespace mdencoder
