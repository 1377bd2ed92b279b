// SPDX-License-Identifier: Apache-2.0
// Hands messages to a receiving thread in batches that are complete before it begins, and measures what it spends on them.
//
// The thread is held at the last message of each batch, while the next one is sent: so it never waits for the sender, the
// sender's work is not in the figure, and a batch that others on the machine disturbed is one of many.
#ifndef BENCH_GATE_H
#define BENCH_GATE_H

#include <semaphore.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

class Gate {
 public:
  // With a name the instructions of each batch are counted under it, too: see counts_main.cpp.
  explicit Gate(int batch, std::string countedAs = "");

  // --- on the receiving thread ---
  // For every message. The first one is a batch of its own: it pins the thread to its processor and holds it.
  void Arrive();

  // --- on the sending thread ---
  // Holds the thread: sends one message and waits until it has arrived.
  void Close(const std::function<void()>& sendOne);
  // Sends a batch, lets the thread handle it, and waits until it has.
  void Pass(const std::function<void()>& sendBatch);
  // Lets the thread run from now on.
  void Open();

  // Nanoseconds of the thread's processor time per message: the median of the batches.
  double Nanoseconds() const;

 private:
  void EndBatch();

  const int m_batch;
  const std::string m_countedAs;
  int m_expected = 1;  // messages of the batch that runs
  int m_arrived = 0;
  bool m_open = false;
  std::int64_t m_start = 0;
  std::vector<double> m_batches;
  sem_t m_done;
  sem_t m_go;
};

// The processors of this process: the sender has one of its own if there are two.
void PinReceiver();
void PinSender();

// Processor time of the calling thread.
std::int64_t ThreadNs();

}  // namespace bench

#endif  // BENCH_GATE_H
