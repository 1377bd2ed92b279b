// SPDX-License-Identifier: Apache-2.0
// The reader of GTX grids: header, size, values, interpolation.
#include "gtx_grid.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <string>

namespace {

template <typename Word>
void PutBigEndian(std::string& out, Word word) {
  for (int shift = static_cast<int>(sizeof(Word)) * 8 - 8; shift >= 0; shift -= 8) {
    out += static_cast<char>(word >> shift & 0xFF);
  }
}

struct Header {
  double south = -90;
  double west = -180;
  double rowStep = 90;
  double columnStep = 90;
  uint32_t rows = 3;
  uint32_t columns = 4;
};

// Heights are ten times the row plus the column.
std::string MakeGrid(const Header& header, size_t values = 12) {
  std::string data;
  for (const double number : {header.south, header.west, header.rowStep, header.columnStep}) {
    PutBigEndian(data, std::bit_cast<uint64_t>(number));
  }
  PutBigEndian(data, header.rows);
  PutBigEndian(data, header.columns);
  for (size_t i = 0; i < values; ++i) {
    const size_t height = i / 4 * 10 + i % 4;
    PutBigEndian(data, std::bit_cast<uint32_t>(static_cast<float>(height)));
  }
  return data;
}

TEST(GtxGrid, HoldsWhatTheFileSays) {
  const auto grid = gtx::Parse(MakeGrid({}));
  ASSERT_TRUE(grid.has_value());
  EXPECT_EQ(grid->south, -90);
  EXPECT_EQ(grid->west, -180);
  EXPECT_EQ(grid->rowStep, 90);
  EXPECT_EQ(grid->columnStep, 90);
  EXPECT_EQ(grid->rows, 3u);
  EXPECT_EQ(grid->columns, 4u);
  ASSERT_EQ(grid->heights.size(), 12u);
  EXPECT_EQ(grid->heights[0], 0.0f);
  EXPECT_EQ(grid->heights[11], 23.0f);
  EXPECT_TRUE(grid->IsWorldWide());
}

TEST(GtxGrid, RefusesDataOfAnotherSizeThanItsHeaderSays) {
  const std::string whole = MakeGrid({});
  for (size_t size = 0; size < whole.size(); ++size) EXPECT_FALSE(gtx::Parse(whole.substr(0, size))) << size;
  EXPECT_FALSE(gtx::Parse(whole + '\0'));
  EXPECT_FALSE(gtx::Parse(MakeGrid({}, 13)));
}

TEST(GtxGrid, RefusesCountsWhoseProductWraps) {
  Header header;
  header.rows = 0x80000000u;
  header.columns = 0x80000000u;
  EXPECT_FALSE(gtx::Parse(MakeGrid(header)));
  header.rows = 12;
  header.columns = 0;
  EXPECT_FALSE(gtx::Parse(MakeGrid(header)));
}

TEST(GtxGrid, RefusesStepsThatAreNotPositive) {
  for (const double step : {0.0, -90.0, std::nan("")}) {
    Header header;
    header.rowStep = step;
    EXPECT_FALSE(gtx::Parse(MakeGrid(header))) << step;
    header = {};
    header.columnStep = step;
    EXPECT_FALSE(gtx::Parse(MakeGrid(header))) << step;
  }
}

TEST(GtxGrid, InterpolatesBetweenFourPointsAndAcrossTheDateLine) {
  const auto grid = gtx::Parse(MakeGrid({}));
  ASSERT_TRUE(grid.has_value());
  EXPECT_DOUBLE_EQ(grid->Interpolate(-90, -180), 0);
  EXPECT_DOUBLE_EQ(grid->Interpolate(0, 0), 12);
  EXPECT_DOUBLE_EQ(grid->Interpolate(-45, -135), 5.5);
  EXPECT_DOUBLE_EQ(grid->Interpolate(0, 135), (13 + 10) / 2.0);
  EXPECT_DOUBLE_EQ(grid->Interpolate(0, 135 + 360), (13 + 10) / 2.0);
  EXPECT_DOUBLE_EQ(grid->Interpolate(90, 90), 23) << "the last row";
  EXPECT_DOUBLE_EQ(grid->Interpolate(95, 90), 23) << "beyond the last row";
}

TEST(GtxGrid, KnowsThatARegionIsNotWorldWide) {
  Header header;
  header.columnStep = 1;
  const auto grid = gtx::Parse(MakeGrid(header));
  ASSERT_TRUE(grid.has_value());
  EXPECT_FALSE(grid->IsWorldWide());
}

}  // namespace
