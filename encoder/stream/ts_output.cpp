// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Core        is what the thread does
//   TsOutput    starts and ends it
#include "ts_output.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <exception>
#include <utility>

#include "annotated_mutex.h"

namespace mdencoder {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kFirstOutputPause = std::chrono::seconds(1);
constexpr auto kLongestOutputPause = std::chrono::seconds(30);
constexpr auto kEmptyingTime = std::chrono::seconds(3);

}  // namespace

// --- Core --------------------------------------------------------------------------------------------

class TsOutput::Core {
 public:
  Core(std::string what, Say say) : m_what(std::move(what)), m_say(std::move(say)) {}

  // Throws std::runtime_error.
  void Make(const MakeTsSink& make) {
    m_sink = make([this] { return MustHurry(); });
  }

  void Run() {
    pthread_setname_np(pthread_self(), "StreamOutput");
    while (const auto chunk = Next()) Write(*chunk);
    m_sink->Close();
    const common::Lock lock(m_mutex);
    m_isDone = true;
    m_changed.NotifyAll();
  }

  void Push(std::shared_ptr<const TsChunk> chunk) {
    const common::Lock lock(m_mutex);
    if (m_isStopped) return;
    if (m_waiting + chunk->bytes.size() > kMostWaiting) {
      m_counts.lost += chunk->bytes.size();
      m_isOverrun = true;
      return;
    }
    m_waiting += chunk->bytes.size();
    m_queue.push_back(std::move(chunk));
    m_changed.NotifyAll();
  }

  Counts Snapshot() {
    const common::Lock lock(m_mutex);
    return m_counts;
  }

  // Returns true when the thread has ended.
  bool Finish() {
    const common::Lock lock(m_mutex);
    m_isStopped = true;
    m_end = Clock::now() + kEmptyingTime;
    m_changed.NotifyAll();
    const auto end = m_end + kFirstOutputPause;
    while (!m_isDone) {
      if (!m_changed.WaitUntil(m_mutex, end)) break;
    }
    m_isLeft = !m_isDone;
    return m_isDone;
  }

 private:
  // The time after the end is over.
  bool MustHurry() {
    const common::Lock lock(m_mutex);
    return m_isStopped && Clock::now() >= m_end;
  }

  // Opens the place when it is time to, and returns what comes next; nothing at the end.
  std::shared_ptr<const TsChunk> Next() {
    for (;;) {
      if (!m_sink->IsOpen() && Clock::now() >= m_nextTry) Open();
      const common::Lock lock(m_mutex);
      if (m_queue.empty() && m_isStopped) return nullptr;
      if (m_isStopped && Clock::now() >= m_end) return nullptr;
      if (m_queue.empty()) {
        m_changed.WaitUntil(m_mutex, m_sink->IsOpen() ? Clock::now() + kLongestOutputPause : m_nextTry);
        continue;
      }
      auto chunk = m_queue.front();
      m_queue.pop_front();
      m_waiting -= chunk->bytes.size();
      return chunk;
    }
  }

  void Open() {
    std::string reason;
    if (m_sink->Open(reason)) return;
    Fail(reason);
    m_nextTry = Clock::now() + m_pause;
    m_pause = std::min<std::chrono::seconds>(m_pause * 2, kLongestOutputPause);
  }

  void Write(const TsChunk& chunk) {
    if (TakeOverrun()) Fail("it is too slow");
    std::string reason;
    if (!m_sink->IsOpen() || !m_sink->Write(chunk, reason)) {
      {
        const common::Lock lock(m_mutex);
        m_counts.lost += chunk.bytes.size();
      }
      if (!reason.empty()) Fail(reason);
      return;
    }
    m_pause = kFirstOutputPause;
    uint64_t lost = 0;
    {
      const common::Lock lock(m_mutex);
      m_counts.bytes += chunk.bytes.size();
      lost = m_counts.lost - m_lostBefore;
      if (m_counts.isGood) return;
      m_counts.isGood = true;
      m_lostBefore = m_counts.lost;
    }
    Tell(false, m_what + " is written again; " + std::to_string(lost) + " bytes in between were lost");
  }

  bool TakeOverrun() {
    const common::Lock lock(m_mutex);
    return std::exchange(m_isOverrun, false);
  }

  void Fail(const std::string& reason) {
    {
      const common::Lock lock(m_mutex);
      if (!std::exchange(m_counts.isGood, false)) return;
    }
    Tell(true, m_what + " cannot be written: " + reason);
  }

  void Tell(bool isWarning, const std::string& line) {
    const common::Lock lock(m_mutex);
    if (!m_isLeft) m_say(isWarning, line);
  }

  const std::string m_what;
  const Say m_say;

  // Thread.
  std::unique_ptr<TsSink> m_sink;
  Clock::time_point m_nextTry;
  std::chrono::seconds m_pause = kFirstOutputPause;

  common::Mutex m_mutex;  // leaf, but for the lines
  common::Condition m_changed;
  std::deque<std::shared_ptr<const TsChunk>> m_queue GUARDED_BY(m_mutex);
  size_t m_waiting GUARDED_BY(m_mutex) = 0;  // bytes
  Counts m_counts GUARDED_BY(m_mutex);
  uint64_t m_lostBefore GUARDED_BY(m_mutex) = 0;
  bool m_isOverrun GUARDED_BY(m_mutex) = false;
  bool m_isStopped GUARDED_BY(m_mutex) = false;
  bool m_isDone GUARDED_BY(m_mutex) = false;
  bool m_isLeft GUARDED_BY(m_mutex) = false;  // nobody waits for the thread any more
  Clock::time_point m_end GUARDED_BY(m_mutex);
};

// --- TsOutput ----------------------------------------------------------------------------------------

TsOutput::TsOutput(std::string what, const MakeTsSink& make, Say say)
    : m_core(std::make_shared<Core>(std::move(what), std::move(say))) {
  m_core->Make(make);
  m_thread = std::thread([core = m_core] { core->Run(); });
}

TsOutput::~TsOutput() {
  Finish();
}

void TsOutput::Push(std::shared_ptr<const TsChunk> chunk) {
  m_core->Push(std::move(chunk));
}

void TsOutput::Finish() {
  if (!m_thread.joinable()) return;
  if (m_core->Finish()) {
    m_thread.join();
  } else {
    m_thread.detach();  // it waits for a name or a disk, and keeps what it needs
  }
}

TsOutput::Counts TsOutput::Snapshot() const {
  return m_core->Snapshot();
}

}  // namespace mdencoder
