// The EGM96 geoid, 15 minutes apart: read from either published form, checked, and written as the library loads it.
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

// Input that is not such a grid, or a file that cannot be read or written.
class GridError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Grid {
  std::string form;           // what the input was, for people
  std::vector<float> values;  // metres, kValues of them, row after row from 90 N, 0 E eastward
};

// Takes a GTX grid (PROJ's egm96_15.gtx), or text: the published grid with its header line of six numbers, or values
// alone. Throws GridError.
Grid ParseGrid(std::string_view data);

// The values as text, one row of the grid in a paragraph; each reads back as the same float.
std::string FormatGrid(const Grid& grid);

std::string ReadWholeFile(const std::string& path);
// Writes beside the file and renames, so that nobody ever sees half a grid. Makes missing folders.
void ReplaceFile(const std::string& path, const std::string& text);

}  // namespace geoid

#endif  // GEOID_GRID_H
