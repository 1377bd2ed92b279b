// SPDX-License-Identifier: Apache-2.0
// A workload is a piece of work that is measured from two sides: by the library ("ours") and by a floor. Both do the same to
// the same data. Programs take the sides from one list: bench_modules measures their time, bench_counts their instructions.
#ifndef BENCH_WORKLOAD_H
#define BENCH_WORKLOAD_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host_runtime.h"

namespace bench {

// One side, ready to run. What it works on lives in the function's captures.
struct Work {
  std::function<void()> run;
  double units;         // messages, bytes, calls: what one run handles
  int countedRuns = 8;  // how often it runs while its instructions are counted
};

struct Side {
  std::string name;  // "<workload>/<side>"
  std::function<Work()> make;
};

// All sides, in the order in which they were added.
std::vector<Side>& Sides();
// For static initialisers: adds a side and returns true.
bool Add(const std::string& name, std::function<Work()> make);

// What the library will be started with: lines go to a file and are limited as by default, threads run with ordinary
// priority, like a floor's. May be changed before the first UseLibrary.
HostRuntimeConfig& LibraryConfig();

// Starts the library, once, with everything on: Cursor-on-Target, the geoid grid, all items. The process has two threads
// from then on. Sets the log level of all modules, too.
void UseLibrary(int logLevel);

inline constexpr int kDefaultLogLevel = 5;  // the host runtime's

// Ends the program with a message: a benchmark whose work goes wrong measures nothing.
[[noreturn]] void Fail(const std::string& reason);
inline void Require(bool condition, const char* reason) {
  if (!condition) Fail(reason);
}

}  // namespace bench

#endif  // BENCH_WORKLOAD_H
