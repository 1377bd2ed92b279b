// SPDX-License-Identifier: Apache-2.0
// Times the sides of the module workloads with Google Benchmark. "items_per_second" counts what a workload counts.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "traffic.h"
#include "workload.h"

int main(int argc, char** argv) {
  benchmark::AddCustomContext("flight", bench::FlightKind());
  for (const bench::Side& side : bench::Sides()) {
    // The list of the library owns it. NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
    benchmark::RegisterBenchmark(side.name.c_str(), [&side](benchmark::State& state) {
      const bench::Work work = side.make();
      work.run();  // caches, lazily made tables
      for ([[maybe_unused]] auto round : state) work.run();
      state.SetItemsProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * work.units));
    });
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
