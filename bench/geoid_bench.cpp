// Compares loading the geoid grid with a loop of "%f" scans over the same file, which is made for the run and replaces
// the installed one. The load must be at least ten times faster.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include "converter.h"
#include "geoid_grid.h"

namespace {

// The grid file that make_geoid_grid makes from PROJ's data. It is made once and removed at the end.
class GridFile {
 public:
  GridFile() {
    close(mkstemp(m_szPath));
    geoid::ReplaceFile(m_szPath,
                       geoid::FormatGrid(geoid::ParseGrid(geoid::ReadWholeFile("/usr/share/proj/egm96_15.gtx"))));
  }
  ~GridFile() { unlink(m_szPath); }
  const char* Path() const { return m_szPath; }

 private:
  char m_szPath[32] = "/tmp/geoid_benchXXXXXX";
};

const GridFile& File() {
  static const GridFile kFile;
  return kFile;
}

void BM_LoadGrid(benchmark::State& state) {
  File();
  for (auto _ : state) {
    if (init_ww15mgh_grd() != 0) state.SkipWithError("the grid was not loaded");
  }
  free_ww15mgh_grd();
}
BENCHMARK(BM_LoadGrid)->Unit(benchmark::kMillisecond)->MinTime(1.0);

void BM_ScanGrid(benchmark::State& state) {
  const std::unique_ptr<float[]> grid(new float[kGridValues]);
  for (auto _ : state) {
    FILE* fp = fopen(kGridPath, "rb");
    int nRead = 0;
    while (nRead < kGridValues && fscanf(fp, "%f", &grid[static_cast<size_t>(nRead)]) == 1) nRead++;
    if (nRead != kGridValues) state.SkipWithError("the grid was not read");
    benchmark::DoNotOptimize(grid[kGridValues - 1]);
    fclose(fp);
  }
}
BENCHMARK(BM_ScanGrid)->Unit(benchmark::kMillisecond)->MinTime(1.0);

}  // namespace

// The linker wraps fopen, so that every open of the installed grid's path opens the temporary file.
extern "C" FILE* __real_fopen(const char* szPath, const char* szMode);
extern "C" FILE* __wrap_fopen(const char* szPath, const char* szMode) {
  return __real_fopen(strcmp(szPath, kGridPath) == 0 ? File().Path() : szPath, szMode);
}
