#include "geoid.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <memory>

#include "error.h"
#include "traffic.h"

namespace mdfeed {
namespace {

// GTX: south to north, west to east, big-endian.
//
//   offset size field
//        0    8 latitude of the first row, degrees (double)
//        8    8 longitude of the first column
//       16    8 step between rows
//       24    8 step between columns
//       32    4 rows
//       36    4 columns
//       40  4*n heights, metres (float)
constexpr std::size_t kHeaderSize = 40;

template <typename Word>
Word ReadBigEndian(const Bytes& data, std::size_t offset) {
  Word word = 0;
  for (std::size_t i = 0; i < sizeof(Word); i++) word = static_cast<Word>(word << 8 | data[offset + i]);
  return word;
}

double ReadDouble(const Bytes& data, std::size_t offset) {
  return std::bit_cast<double>(ReadBigEndian<std::uint64_t>(data, offset));
}

struct Grid {
  double south = 0;
  double west = 0;
  double row_step = 0;
  double column_step = 0;
  std::size_t rows = 0;
  std::size_t columns = 0;
  std::vector<float> heights;

  double At(std::size_t row, std::size_t column) const {
    return heights[std::min(row, rows - 1) * columns + column % columns];
  }

  double Interpolate(double latitude, double longitude) const {
    const double turn = column_step * static_cast<double>(columns);
    double east = std::fmod(longitude - west, turn);
    if (east < 0) east += turn;
    const double y = std::clamp((latitude - south) / row_step, 0.0, static_cast<double>(rows - 1));
    const double x = east / column_step;
    const auto row = static_cast<std::size_t>(y);
    const auto column = static_cast<std::size_t>(x);
    const double fy = y - std::floor(y);
    const double fx = x - std::floor(x);
    return (1 - fy) * ((1 - fx) * At(row, column) + fx * At(row, column + 1)) +
           fy * ((1 - fx) * At(row + 1, column) + fx * At(row + 1, column + 1));
  }
};

}  // namespace

Undulation LoadGeoid(const std::string& path) {
  const Bytes data = ReadFile(path);
  auto grid = std::make_shared<Grid>();
  if (data.size() > kHeaderSize) {
    grid->south = ReadDouble(data, 0);
    grid->west = ReadDouble(data, 8);
    grid->row_step = ReadDouble(data, 16);
    grid->column_step = ReadDouble(data, 24);
    grid->rows = ReadBigEndian<std::uint32_t>(data, 32);
    grid->columns = ReadBigEndian<std::uint32_t>(data, 36);
  }
  const std::size_t count = grid->rows * grid->columns;
  const bool whole = grid->rows > 1 && grid->columns > 1 && grid->row_step > 0 && grid->column_step > 0 &&
                     std::abs(grid->column_step * static_cast<double>(grid->columns) - 360.0) < 1e-6 &&
                     data.size() - kHeaderSize == count * sizeof(float);
  if (!whole) throw RunError(path + " is not a world-wide geoid grid in GTX format");
  grid->heights.reserve(count);
  for (std::size_t i = 0; i < count; i++) {
    grid->heights.push_back(std::bit_cast<float>(ReadBigEndian<std::uint32_t>(data, kHeaderSize + 4 * i)));
  }
  return [grid](double latitude, double longitude) { return grid->Interpolate(latitude, longitude); };
}

}  // namespace mdfeed
