// SPDX-License-Identifier: Apache-2.0
#include "stop.h"

#include <algorithm>
#include <csignal>
#include <ctime>

namespace mdfeed {
namespace {

volatile std::sig_atomic_t g_stop = 0;  // only the signal handler writes it

void OnStopSignal(int) {
  g_stop = 1;
}

}  // namespace

void CatchStopSignals() {
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
}

bool StopRequested() {
  return g_stop != 0;
}

void SleepUntil(Clock::time_point when) {
  // The sleep has short steps, so that a signal between the test and the sleep has little effect.
  while (!StopRequested()) {
    const auto left = when - Clock::now();
    if (left <= Clock::duration::zero()) return;
    const auto step = std::min<Clock::duration>(left, std::chrono::milliseconds(100));
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(step).count();
    const timespec pause = {static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
    nanosleep(&pause, nullptr);
  }
}

}  // namespace mdfeed
