// SPDX-License-Identifier: Apache-2.0
// Sends traffic at its rate and shows the progress.
#ifndef MDFEED_SENDER_H
#define MDFEED_SENDER_H

#include <cstdint>

#include "output.h"
#include "schedule.h"
#include "stop.h"
#include "traffic.h"

namespace mdfeed {

struct SendOptions {
  double rate = 10;     // ticks per second; 0: as fast as possible
  uint64_t count = 0;   // ticks; 0: no limit
  double duration = 0;  // seconds; 0: no limit
  Schedule ttl;
  Schedule tos;
};

struct SendResult {
  uint64_t ticks = 0;
  uint64_t messages = 0;
  uint64_t bytes = 0;
};

// One line on standard error that is rewritten again and again, if that is a terminal.
class Progress {
 public:
  explicit Progress(const char* what);
  // Shows what the program waits for.
  void Waiting(const char* forWhat);
  void Update(const SendResult& result);
  // Ends the line, so that it keeps the last state.
  void Finish(const SendResult& result);

 private:
  void Show(const SendResult& result) const;

  const char* m_what;
  bool m_terminal;
  Clock::time_point m_start = Clock::now();
  Clock::time_point m_shown{};
};

// Sends until the traffic ends, a limit is reached or a stop signal arrives. Throws RunError.
SendResult SendTraffic(Traffic& traffic, Output& output, SendOptions options, Progress& progress);

}  // namespace mdfeed

#endif  // MDFEED_SENDER_H
