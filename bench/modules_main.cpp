// SPDX-License-Identifier: Apache-2.0
// Times the module workloads with Google Benchmark: each side alone ("crc_690/ours"), and the two sides of a workload
// together ("crc_690/pair"). "items_per_second" of a side, and the counters of a pair, are about what a workload counts.
#include <benchmark/benchmark.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "traffic.h"
#include "workload.h"

namespace {

constexpr double kSlice =
    1e-3;  // seconds: short beside what neighbours on the machine do, long beside the caches' filling

double ProcessorSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A side of a pair, and what was measured of it.
class PairedSide {
 public:
  explicit PairedSide(const bench::Side& side) : m_work(side.make()) {
    m_work.run();  // caches, lazily made tables
    while (Time(m_runs) < kSlice) m_runs *= 2;
  }

  // Runs for about a slice. Returns the seconds.
  double RunSlice() {
    const double seconds = Time(m_runs);
    m_seconds += seconds;
    ++m_slices;
    return seconds;
  }

  double NsPerUnit() const { return m_seconds * 1e9 / (static_cast<double>(m_slices * m_runs) * m_work.units); }

 private:
  double Time(int64_t runs) const {
    const double begin = ProcessorSeconds();
    for (int64_t i = 0; i < runs; ++i) m_work.run();
    return ProcessorSeconds() - begin;
  }

  bench::Work m_work;
  int64_t m_runs = 1;  // in a slice
  int64_t m_slices = 0;
  double m_seconds = 0;
};

void RunAlone(benchmark::State& state, const bench::Side& side) {
  const bench::Work work = side.make();
  work.run();  // caches, lazily made tables
  for ([[maybe_unused]] auto round : state) work.run();
  state.SetItemsProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * work.units));
}

// The sides take turns, and in beginning too, so that what disturbs the machine disturbs both. An iteration is a slice of
// each; the counters are the nanoseconds of a unit, under the sides' own names.
void RunPair(benchmark::State& state, const bench::Side& first, const bench::Side& second) {
  PairedSide sides[] = {PairedSide(first), PairedSide(second)};
  size_t beginner = 0;
  for ([[maybe_unused]] auto round : state) {
    const double seconds = sides[beginner].RunSlice();
    state.SetIterationTime(seconds + sides[1 - beginner].RunSlice());
    beginner = 1 - beginner;
  }
  state.counters[first.name.substr(first.name.find('/') + 1)] = sides[0].NsPerUnit();
  state.counters[second.name.substr(second.name.find('/') + 1)] = sides[1].NsPerUnit();
}

// The library's list owns what is registered.
// NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)
void Register(const std::vector<bench::Side>& sides) {
  for (size_t i = 0; i < sides.size(); ++i) {
    const bench::Side& side = sides[i];
    benchmark::RegisterBenchmark(side.name.c_str(), [&side](benchmark::State& state) { RunAlone(state, side); });
    const std::string workload = side.name.substr(0, side.name.find('/') + 1);
    if (i == 0 || !sides[i - 1].name.starts_with(workload)) continue;
    const bench::Side& before = sides[i - 1];
    benchmark::RegisterBenchmark((workload + "pair").c_str(), [&before, &side](benchmark::State& state) {
      RunPair(state, before, side);
    })->UseManualTime();
  }
}
// NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

}  // namespace

int main(int argc, char** argv) {
  benchmark::AddCustomContext("flight", bench::FlightKind());
  Register(bench::Sides());
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
