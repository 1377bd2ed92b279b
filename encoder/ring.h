// SPDX-License-Identifier: Apache-2.0
// A queue of fixed size from one thread to one other, without a lock.
//
// The reader works on the entries in their places, and gives the places back in batches. It sleeps only when the queue is
// empty, and the writer wakes it only then: at a high rate neither makes a system call.
#ifndef MDENCODER_RING_H
#define MDENCODER_RING_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace mdencoder {

template <typename Entry>
class Ring {
 public:
  // Holds exactly `capacity` entries of Push, and `reserve` more of PushIntoReserve; the memory is taken now.
  explicit Ring(size_t capacity, size_t reserve = 0)
      : m_capacity(capacity),
        m_reserve(reserve),
        m_mask(std::bit_ceil(capacity + reserve) - 1),
        m_entries(m_mask + 1) {}
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;

  // Writer: adds an entry, or returns false if there is no place. Never waits.
  bool Push(const Entry& entry) { return PushWithin(entry, m_capacity); }
  // Writer: the same for an entry that was under way before its sender saw that no place is left.
  bool PushIntoReserve(const Entry& entry) { return PushWithin(entry, m_capacity + m_reserve); }

  // Writer, after a Push in vain: returns true when half of the places are free, and false when the time is over. While
  // the reader does not move at all, only the first call waits.
  bool WaitForRoom(std::chrono::nanoseconds longest) {
    const size_t begin = m_begin.load(std::memory_order_acquire);
    if (begin == m_stuckAt) return false;
    m_waiting.store(1, std::memory_order_seq_cst);
    if (!HasRoom(m_begin.load(std::memory_order_seq_cst))) Sleep(m_waiting, longest);
    m_waiting.store(0, std::memory_order_relaxed);
    const size_t now = m_begin.load(std::memory_order_acquire);
    m_stuckAt = now == begin && !HasRoom(now) ? now : SIZE_MAX;
    return HasRoom(now);
  }

  // Reader: returns the oldest entries, at most so many. They stay in their places until Discard.
  std::span<Entry> Front(size_t most) {
    const size_t begin = m_begin.load(std::memory_order_relaxed);
    const size_t count = m_end.load(std::memory_order_acquire) - begin;
    const size_t at = begin & m_mask;
    return {m_entries.data() + at, std::min({count, most, m_entries.size() - at})};
  }
  // Reader: gives the places of so many entries back.
  void Discard(size_t count) {
    const size_t begin = m_begin.load(std::memory_order_relaxed) + count;
    m_begin.store(begin, std::memory_order_seq_cst);
    if (m_waiting.load(std::memory_order_seq_cst) != 0 && HasRoom(begin)) Wake(m_waiting);
  }
  // Reader: returns when there is an entry, after Stop, or when the time is over.
  void Wait(std::chrono::nanoseconds longest) {
    m_asleep.store(1, std::memory_order_seq_cst);
    const bool isEmpty = m_end.load(std::memory_order_seq_cst) == m_begin.load(std::memory_order_relaxed);
    if (isEmpty && !m_stopped.load(std::memory_order_seq_cst)) Sleep(m_asleep, longest);
    m_asleep.store(0, std::memory_order_relaxed);
  }

  // Returns how many entries fit now without the reserve. Any thread may call it.
  size_t Room() const {
    const size_t begin = m_begin.load(std::memory_order_acquire);  // before the end, which is never behind it then
    const size_t used = m_end.load(std::memory_order_acquire) - begin;
    return used < m_capacity ? m_capacity - used : 0;
  }

  // Any thread: no entries will follow.
  void Stop() {
    m_stopped.store(true, std::memory_order_seq_cst);
    Wake(m_asleep);
  }
  // Reader: returns whether Stop was called; entries that were pushed before it are visible after true.
  bool IsStopped() const { return m_stopped.load(std::memory_order_seq_cst); }

 private:
  static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "the kernel reads the flags");
  static constexpr size_t kCacheLine = 64;

  bool PushWithin(const Entry& entry, size_t places) {
    const size_t end = m_end.load(std::memory_order_relaxed);
    if (end - m_seenBegin >= places) {
      m_seenBegin = m_begin.load(std::memory_order_acquire);
      if (end - m_seenBegin >= places) return false;
    }
    m_entries[end & m_mask] = entry;
    // In one order with m_asleep: either the reader sees the entry before it sleeps, or this thread sees that it does.
    m_end.store(end + 1, std::memory_order_seq_cst);
    if (m_asleep.load(std::memory_order_seq_cst) != 0) Wake(m_asleep);
    return true;
  }

  bool HasRoom(size_t begin) const { return m_end.load(std::memory_order_relaxed) - begin <= m_capacity / 2; }

  // Sleeps while the flag is set, at most so long.
  static void Sleep(std::atomic<uint32_t>& flag, std::chrono::nanoseconds longest) {
    const auto count = std::max<int64_t>(longest.count(), 0);
    const timespec timeout = {static_cast<time_t>(count / 1000000000), static_cast<long>(count % 1000000000)};
    syscall(SYS_futex, &flag, FUTEX_WAIT_PRIVATE, 1, &timeout, nullptr, 0);
  }
  static void Wake(std::atomic<uint32_t>& flag) {
    if (flag.exchange(0, std::memory_order_seq_cst) == 0) return;
    syscall(SYS_futex, &flag, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  }

  const size_t m_capacity;
  const size_t m_reserve;
  const size_t m_mask;
  std::vector<Entry> m_entries;
  alignas(kCacheLine) std::atomic<size_t> m_end{0};       // counts entries; changed by the writer
  size_t m_seenBegin = 0;                                 // writer: m_begin as it was
  size_t m_stuckAt = SIZE_MAX;                            // writer: m_begin while the reader did not move
  alignas(kCacheLine) std::atomic<size_t> m_begin{0};     // changed by the reader
  alignas(kCacheLine) std::atomic<uint32_t> m_asleep{0};  // the reader sleeps
  std::atomic<uint32_t> m_waiting{0};                     // the writer waits for room
  std::atomic<bool> m_stopped{false};
};

}  // namespace mdencoder

#endif
