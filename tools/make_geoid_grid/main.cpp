// SPDX-License-Identifier: Apache-2.0
// make_geoid_grid: writes the geoid grid that the library loads at start.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

#include "geoid_grid.h"

namespace {

int Run(int argc, char** argv) {
  std::string input = "/usr/share/proj/egm96_15.gtx";
  std::string output = "/usr/share/vendor/data/ww15mgh.grd";
  CLI::App app{"Writes the EGM96 15-minute geoid grid as text, values only, from 90 N, 0 E eastward and southward."};
  app.set_version_flag("--version", "make_geoid_grid " MAKE_GEOID_GRID_VERSION);
  app.add_option("--input", input, "GTX grid of PROJ's data, or the published text grid")->capture_default_str();
  app.add_option("--output", output, "where the library looks for the grid")->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  const geoid::Grid grid = geoid::ParseGrid(geoid::ReadWholeFile(input));
  geoid::ReplaceFile(output, geoid::FormatGrid(grid));
  const auto [lowest, highest] = std::minmax_element(grid.values.begin(), grid.values.end());
  std::printf("%s: %s, %d rows of %d values from %.3f to %.3f m\n%s: written, %zu values\n", input.c_str(),
              grid.form.c_str(), geoid::kRows, geoid::kColumns, static_cast<double>(*lowest),
              static_cast<double>(*highest), output.c_str(), grid.values.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_geoid_grid: %s\n", error.what());
    return 1;
  }
}
