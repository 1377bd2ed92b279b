// SPDX-License-Identifier: Apache-2.0
// Runs sides of the module workloads so that callgrind counts their instructions: started by scripts/bench with
// --instr-atstart=no, it switches the counting on around the runs alone and writes one dump a side, named after it.
// Prints a line a side: its name, and the units that the dump stands for.
#include <valgrind/callgrind.h>

#include <cstdio>
#include <set>
#include <string>

#include "traffic.h"
#include "workload.h"

namespace {

void Count(const bench::Side& side) {
  const bench::Work work = side.make();
  work.run();  // caches, lazily made tables
  CALLGRIND_START_INSTRUMENTATION;
  for (int i = 0; i < work.countedRuns; ++i) work.run();
  CALLGRIND_STOP_INSTRUMENTATION;
  CALLGRIND_DUMP_STATS_AT(side.name.c_str());
  std::printf("%s %.0f\n", side.name.c_str(), work.units * work.countedRuns);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  bench::UseGeneratedFlight();
  std::set<std::string> wanted(argv + 1, argv + argc);
  for (const bench::Side& side : bench::Sides()) {
    if (wanted.erase(side.name) != 0) Count(side);
  }
  if (!wanted.empty()) bench::Fail("there is no workload " + *wanted.begin());
  return 0;
}
