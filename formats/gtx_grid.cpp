// SPDX-License-Identifier: Apache-2.0
#include "gtx_grid.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>

namespace gtx {
namespace {

// Big-endian; south to north, west to east.
//
//   offset size field
//        0    8 latitude of the first row, degrees (double)
//        8    8 longitude of the first column
//       16    8 step between rows
//       24    8 step between columns
//       32    4 rows
//       36    4 columns
//       40  4*n heights, metres (float)
constexpr size_t kSouth = 0;
constexpr size_t kWest = 8;
constexpr size_t kRowStep = 16;
constexpr size_t kColumnStep = 24;
constexpr size_t kRows = 32;
constexpr size_t kColumns = 36;
constexpr size_t kHeights = 40;

template <typename Word>
Word ReadBigEndian(std::string_view data, size_t offset) {
  Word word = 0;
  for (size_t i = 0; i < sizeof(Word); ++i) {
    word = static_cast<Word>(word << 8 | static_cast<unsigned char>(data[offset + i]));
  }
  return word;
}

double ReadDouble(std::string_view data, size_t offset) {
  return std::bit_cast<double>(ReadBigEndian<uint64_t>(data, offset));
}

double HeightAt(const Grid& grid, size_t row, size_t column) {
  return grid.heights[std::min(row, grid.rows - 1) * grid.columns + column % grid.columns];
}

}  // namespace

bool Grid::IsWorldWide() const {
  return std::abs(columnStep * static_cast<double>(columns) - 360.0) < 1e-6;
}

double Grid::Interpolate(double latitude, double longitude) const {
  const double turn = columnStep * static_cast<double>(columns);
  double east = std::fmod(longitude - west, turn);
  if (east < 0) east += turn;
  const double y = std::clamp((latitude - south) / rowStep, 0.0, static_cast<double>(rows - 1));
  const double x = east / columnStep;
  const auto row = static_cast<size_t>(y);
  const auto column = static_cast<size_t>(x);
  const double fy = y - std::floor(y);
  const double fx = x - std::floor(x);
  return (1 - fy) * ((1 - fx) * HeightAt(*this, row, column) + fx * HeightAt(*this, row, column + 1)) +
         fy * ((1 - fx) * HeightAt(*this, row + 1, column) + fx * HeightAt(*this, row + 1, column + 1));
}

std::optional<Grid> Parse(std::string_view data) {
  if (data.size() <= kHeights) return std::nullopt;
  Grid grid;
  grid.south = ReadDouble(data, kSouth);
  grid.west = ReadDouble(data, kWest);
  grid.rowStep = ReadDouble(data, kRowStep);
  grid.columnStep = ReadDouble(data, kColumnStep);
  grid.rows = ReadBigEndian<uint32_t>(data, kRows);
  grid.columns = ReadBigEndian<uint32_t>(data, kColumns);
  if (grid.rows < 2 || grid.columns < 2 || !(grid.rowStep > 0) || !(grid.columnStep > 0)) return std::nullopt;
  // Division, because the product of two 32-bit counts and a size may overflow.
  const size_t count = (data.size() - kHeights) / sizeof(float);
  if ((data.size() - kHeights) % sizeof(float) != 0 || count / grid.rows != grid.columns || count % grid.rows != 0) {
    return std::nullopt;
  }
  grid.heights.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    grid.heights.push_back(std::bit_cast<float>(ReadBigEndian<uint32_t>(data, kHeights + sizeof(float) * i)));
  }
  return grid;
}

}  // namespace gtx
