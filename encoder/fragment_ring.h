// SPDX-License-Identifier: Apache-2.0
// The newest pieces of a stream as fragmented MP4, for readers that come and go, such as clients of HTTP.
//
// One thread pushes, any number reads. A reader that is too slow is moved to the newest piece that begins with a key frame;
// nobody waits for it. Pieces are shared, not copied.
#ifndef MDENCODER_FRAGMENT_RING_H
#define MDENCODER_FRAGMENT_RING_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <utility>
#include <vector>

#include "annotated_mutex.h"

namespace mdencoder {

// A movie fragment: "moof" and "mdat".
struct Fragment {
  std::vector<uint8_t> bytes;
  int64_t firstPtsUs = 0;  // presentation time of its first frame on the stream's clock, microseconds
  bool isKey = false;      // it begins with a key frame
};

class FragmentRing {
 public:
  using Clock = std::chrono::steady_clock;
  using Bytes = std::vector<uint8_t>;

  // Holds at most so many pieces and bytes, but always the newest piece.
  explicit FragmentRing(size_t mostFragments = 256, size_t mostBytes = size_t{16} << 20)
      : m_mostFragments(mostFragments), m_mostBytes(mostBytes) {}
  FragmentRing(const FragmentRing&) = delete;
  FragmentRing& operator=(const FragmentRing&) = delete;

  // A reader's place. It is the reader's own: one thread at a time.
  struct Cursor {
    uint64_t next = 0;        // number of the piece that comes next
    uint64_t generation = 0;  // 0 before Begin
    uint64_t skipped = 0;     // pieces that were left out, because the reader was slow or to begin with a key frame
    bool needsKey = false;
  };

  // Gives the pieces to come another beginning ("ftyp" and "moov"). Readers of the former pieces are at their end.
  void SetInit(Bytes init) {
    const common::Lock lock(m_mutex);
    m_init = std::make_shared<const Bytes>(std::move(init));
    ++m_generation;
    m_begin += m_held.size();
    m_held.clear();
    m_heldBytes = 0;
    m_changed.NotifyAll();
  }

  void Push(Fragment fragment) {
    const common::Lock lock(m_mutex);
    m_heldBytes += fragment.bytes.size();
    m_held.push_back(std::make_shared<const Fragment>(std::move(fragment)));
    while (m_held.size() > 1 && (m_held.size() > m_mostFragments || m_heldBytes > m_mostBytes)) {
      m_heldBytes -= m_held.front()->bytes.size();
      m_held.pop_front();
      ++m_begin;
    }
    m_changed.NotifyAll();
  }

  // Ends the stream: readers still get what is held.
  void Close() {
    const common::Lock lock(m_mutex);
    m_isClosed = true;
    m_changed.NotifyAll();
  }

  // Puts the cursor at the newest piece that begins with a key frame, or at the next one to come, and returns the beginning
  // that fits it. Waits for it; returns nothing when the time is over or the ring is closed without one.
  std::shared_ptr<const Bytes> Begin(Cursor& cursor, std::chrono::milliseconds timeout) {
    const auto end = Clock::now() + timeout;
    const common::Lock lock(m_mutex);
    while (m_init == nullptr && !m_isClosed && m_changed.WaitUntil(m_mutex, end)) {
    }
    if (m_init == nullptr) return nullptr;
    cursor = {};
    cursor.generation = m_generation;
    SeekKey(cursor);
    return m_init;
  }

  // Returns the cursor's piece and moves on. Waits for it; returns nothing when the time is over or IsOver(cursor).
  std::shared_ptr<const Fragment> Wait(Cursor& cursor, std::chrono::milliseconds timeout) {
    const auto end = Clock::now() + timeout;
    const common::Lock lock(m_mutex);
    for (;;) {
      if (cursor.generation != m_generation) return nullptr;
      if (auto fragment = Take(cursor)) return fragment;
      if (m_isClosed || Clock::now() >= end) return nullptr;
      m_changed.WaitUntil(m_mutex, end);
    }
  }

  // Tells whether nothing follows for this cursor: the stream has ended, or goes on with another beginning, which Begin
  // returns.
  bool IsOver(const Cursor& cursor) const {
    const common::Lock lock(m_mutex);
    return cursor.generation != m_generation || (m_isClosed && cursor.next >= m_begin + m_held.size());
  }
  bool IsClosed() const {
    const common::Lock lock(m_mutex);
    return m_isClosed;
  }

 private:
  // Moves the cursor to the newest piece with a key frame, or behind what is held.
  void SeekKey(Cursor& cursor) const REQUIRES(m_mutex) {
    size_t at = m_held.size();
    while (at != 0 && !m_held[at - 1]->isKey) --at;
    cursor.needsKey = at == 0;
    cursor.next = m_begin + (at == 0 ? m_held.size() : at - 1);
  }

  // A reader begins, and begins again after a gap, with a key frame only.
  std::shared_ptr<const Fragment> Take(Cursor& cursor) const REQUIRES(m_mutex) {
    const uint64_t from = cursor.next;
    if (cursor.next < m_begin) SeekKey(cursor);
    size_t at = static_cast<size_t>(cursor.next - m_begin);
    while (cursor.needsKey && at < m_held.size() && !m_held[at]->isKey) ++at;
    cursor.next = m_begin + at;
    cursor.skipped += cursor.next - from;
    if (at >= m_held.size()) return nullptr;
    cursor.needsKey = false;
    ++cursor.next;
    return m_held[at];
  }

  const size_t m_mostFragments;
  const size_t m_mostBytes;
  mutable common::Mutex m_mutex;  // leaf
  common::Condition m_changed;
  std::shared_ptr<const Bytes> m_init GUARDED_BY(m_mutex);
  std::deque<std::shared_ptr<const Fragment>> m_held GUARDED_BY(m_mutex);
  size_t m_heldBytes GUARDED_BY(m_mutex) = 0;
  uint64_t m_begin GUARDED_BY(m_mutex) = 0;  // number of the oldest piece that is held
  uint64_t m_generation GUARDED_BY(m_mutex) = 0;
  bool m_isClosed GUARDED_BY(m_mutex) = false;
};

}  // namespace mdencoder

#endif  // MDENCODER_FRAGMENT_RING_H
