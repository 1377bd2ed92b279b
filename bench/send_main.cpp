// SPDX-License-Identifier: Apache-2.0
// Sends messages of the flight to a port of the loopback interface at a rate: for mdencoder, whose losses are counted.
//
//   bench_send PORT MESSAGES_A_SECOND SECONDS
//
// Prints one object of JSON: how many it sent, and in which time.
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "datagrams.h"
#include "traffic.h"
#include "workload.h"

namespace {

// So many at once: a sender that wakes the receiver for each message cannot send more than some ten thousand a second.
constexpr int kBurst = 32;

double Seconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace

int main(int argc, char** argv) {
  bench::Require(argc == 4, "to which port, at which rate, for how many seconds?");
  bench::Sender sender(static_cast<std::uint16_t>(std::atoi(argv[1])), bench::FlightMessages());
  // The receiver's thread has a real-time priority where that is permitted, and would stop a sender without one.
  const sched_param parameters = {20};
  sched_setscheduler(0, SCHED_FIFO, &parameters);
  const double rate = std::atof(argv[2]);
  const double duration = std::atof(argv[3]);
  const double start = Seconds();
  double sent = 0;
  double elapsed = 0;
  while (elapsed < duration) {
    const double due = elapsed * rate - sent;
    if (due >= kBurst) sent += sender.Send(static_cast<int>(std::min(due, 4.0 * kBurst)));
    elapsed = Seconds() - start;
  }
  std::printf("{\"sent\": %.0f, \"seconds\": %.4f}\n", sent, Seconds() - start);
  return 0;
}
