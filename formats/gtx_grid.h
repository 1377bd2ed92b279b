// SPDX-License-Identifier: Apache-2.0
// Grids of geoid heights in GTX format, as PROJ's data packages carry them. No I/O.
#ifndef GTX_GRID_H
#define GTX_GRID_H

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace gtx {

// Rows run from south to north, columns from west to east.
struct Grid {
  double south = 0;       // latitude of the first row, degrees
  double west = 0;        // longitude of the first column, degrees
  double rowStep = 0;     // degrees
  double columnStep = 0;  // degrees
  size_t rows = 0;
  size_t columns = 0;
  std::vector<float> heights;  // metres, rows * columns of them

  // Returns whether the columns go once around the globe.
  bool IsWorldWide() const;
  // Interpolates the height between the four points around a position in degrees. Longitudes wrap; a latitude beyond
  // the first or last row counts as that row. The grid must be world-wide.
  double Interpolate(double latitude, double longitude) const;
};

// Reads a grid of at least two rows and columns and of positive steps. Returns nothing if the data is not
// such a grid, or if its size differs from what its header says.
std::optional<Grid> Parse(std::string_view data);

}  // namespace gtx

#endif  // GTX_GRID_H
