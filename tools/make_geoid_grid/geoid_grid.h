// SPDX-License-Identifier: Apache-2.0
// The EGM96 geoid in steps of 15 minutes: reads and checks either published form, and writes the form that the library
// loads.
#ifndef GEOID_GRID_H
#define GEOID_GRID_H

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace geoid {

inline constexpr int kRows = 721;      // 90 N to 90 S
inline constexpr int kColumns = 1441;  // 0 to 360 E; the last repeats the first
inline constexpr int kValues = kRows * kColumns;

// Reports input that is not such a grid, or a file that cannot be read or written.
class GridError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Grid {
  std::string form;           // form of the input, as text for the user
  std::vector<float> values;  // kValues heights in metres, by rows from 90 N, each from 0 E eastward
};

// Parses a GTX grid (PROJ's egm96_15.gtx) or text: the published grid with its header line of six numbers, or only the
// values. Throws GridError.
Grid ParseGrid(std::string_view data);

// Returns the values as text, with a paragraph per row of the grid. Each one is read back as the same float.
std::string FormatGrid(const Grid& grid);

std::string ReadWholeFile(const std::string& path);
// Writes a new file and renames it, so that nobody ever reads half a grid. Makes missing folders.
void ReplaceFile(const std::string& path, const std::string& text);

}  // namespace geoid

#endif  // GEOID_GRID_H
