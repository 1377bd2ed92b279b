// SPDX-License-Identifier: Apache-2.0
// Ends the program on SIGINT and SIGTERM.
#ifndef MDFEED_STOP_H
#define MDFEED_STOP_H

#include <chrono>

namespace mdfeed {

using Clock = std::chrono::steady_clock;

// Makes both signals set a flag, and end every wait of this program early.
void CatchStopSignals();
bool StopRequested();
// Sleeps until the given time, or until a stop signal.
void SleepUntil(Clock::time_point when);

}  // namespace mdfeed

#endif  // MDFEED_STOP_H
