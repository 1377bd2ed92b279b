// SPDX-License-Identifier: Apache-2.0
#include "gate.h"

#include <sched.h>
#include <time.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "workload.h"

namespace bench {
namespace {

constexpr int kPatience = 20;  // seconds; callgrind is slow

const cpu_set_t& Processors() {
  static const cpu_set_t kAll = [] {
    cpu_set_t all;
    CPU_ZERO(&all);
    sched_getaffinity(0, sizeof all, &all);
    return all;
  }();
  return kAll;
}

// The processor with this number among those of the process, or the last one.
void Pin(int number) {
  cpu_set_t chosen;
  CPU_ZERO(&chosen);
  for (int i = 0; i < CPU_SETSIZE && number >= 0; ++i) {
    if (!CPU_ISSET(i, &Processors())) continue;
    CPU_ZERO(&chosen);
    CPU_SET(i, &chosen);
    --number;
  }
  sched_setaffinity(0, sizeof chosen, &chosen);
}

void WaitFor(sem_t& semaphore) {
  timespec end{};
  clock_gettime(CLOCK_REALTIME, &end);
  end.tv_sec += kPatience;
  while (sem_timedwait(&semaphore, &end) != 0) Require(errno == EINTR, "messages were lost");
}

}  // namespace

void PinReceiver() {
  Pin(1);
}

void PinSender() {
  Processors();
  Pin(0);
}

std::int64_t ThreadNs() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

Gate::Gate(int batch, std::string countedAs) : m_batch(batch), m_countedAs(std::move(countedAs)) {
  sem_init(&m_done, 0, 0);
  sem_init(&m_go, 0, 0);
}

void Gate::Arrive() {
  if (m_open || ++m_arrived < m_expected) return;
  EndBatch();
}

void Gate::EndBatch() {
  if (m_start == 0) {
    PinReceiver();
    m_expected = m_batch;
  } else {
    const std::int64_t end = ThreadNs();
    if (!m_countedAs.empty()) {
      CALLGRIND_STOP_INSTRUMENTATION;
      CALLGRIND_DUMP_STATS_AT(m_countedAs.c_str());
    }
    m_batches.push_back(static_cast<double>(end - m_start) / m_batch);
  }
  m_arrived = 0;
  sem_post(&m_done);
  while (sem_wait(&m_go) != 0) continue;
  if (!m_countedAs.empty()) CALLGRIND_START_INSTRUMENTATION;
  m_start = ThreadNs();
}

void Gate::Close(const std::function<void()>& sendOne) {
  PinSender();
  sendOne();
  WaitFor(m_done);
}

void Gate::Pass(const std::function<void()>& sendBatch) {
  sendBatch();
  sem_post(&m_go);
  WaitFor(m_done);
}

void Gate::Open() {
  m_open = true;
  sem_post(&m_go);
}

double Gate::Nanoseconds() const {
  std::vector<double> sorted = m_batches;
  std::sort(sorted.begin(), sorted.end());
  return sorted[sorted.size() / 2];
}

}  // namespace bench
