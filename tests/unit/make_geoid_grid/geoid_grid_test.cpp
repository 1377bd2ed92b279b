// SPDX-License-Identifier: Apache-2.0
// The geoid tool: both published forms, its checks, and the replacement of its file.
#include "geoid_grid.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

namespace {

using geoid::GridError;
using ::testing::HasSubstr;

template <typename Word>
void PutBigEndian(std::string& out, Word word) {
  for (int shift = static_cast<int>(sizeof(Word)) * 8 - 8; shift >= 0; shift -= 8) {
    out += static_cast<char>(word >> shift & 0xFF);
  }
}

// Returns a GTX grid whose values encode their position.
float ValueAt(int latitudeSteps, int longitudeSteps) {
  return static_cast<float>(latitudeSteps) * 0.2f + static_cast<float>(longitudeSteps) / 10000;
}

std::string MakeGtx(double west = -180.0) {
  std::string data;
  for (const double number : {-90.0, west, 0.25, 0.25}) PutBigEndian(data, std::bit_cast<uint64_t>(number));
  PutBigEndian<uint32_t>(data, 721);
  PutBigEndian<uint32_t>(data, 1440);
  for (int row = 0; row < 721; ++row) {
    for (int column = 0; column < 1440; ++column) {
      PutBigEndian(data, std::bit_cast<uint32_t>(ValueAt(row - 360, (column + 720) % 1440)));
    }
  }
  return data;
}

std::string MakeText(const std::string& header, int count, const std::string& value = "1.5") {
  std::string text = header;
  for (int i = 0; i < count; ++i) text += value + (i % 8 == 7 ? "\n" : " ");
  return text;
}

std::string ErrorOf(const std::string& data) {
  try {
    geoid::ParseGrid(data);
  } catch (const GridError& error) {
    return error.what();
  }
  return "";
}

TEST(GeoidGrid, GtxIsTurnedAndItsFirstColumnRepeated) {
  const geoid::Grid grid = geoid::ParseGrid(MakeGtx());
  ASSERT_EQ(grid.values.size(), 1038961u);
  EXPECT_EQ(grid.values[0], ValueAt(360, 0));
  EXPECT_EQ(grid.values[1], ValueAt(360, 1));
  EXPECT_EQ(grid.values[720], ValueAt(360, 720)) << "180 E";
  EXPECT_EQ(grid.values[1439], ValueAt(360, 1439));
  EXPECT_EQ(grid.values[1440], ValueAt(360, 0));
  EXPECT_EQ(grid.values[1441], ValueAt(359, 0));
  EXPECT_EQ(grid.values.back(), ValueAt(-360, 0));
}

TEST(GeoidGrid, EveryWrittenValueReadsBackAsTheSameFloat) {
  geoid::Grid grid = geoid::ParseGrid(MakeGtx());
  grid.values[5] = 13.6059999f;
  grid.values[6] = -106.990997f;
  grid.values[7] = 1e-7f;
  std::istringstream text(geoid::FormatGrid(grid));
  std::string token;
  size_t i = 0;
  for (; text >> token; ++i) ASSERT_EQ(std::strtof(token.c_str(), nullptr), grid.values[i]) << i;
  EXPECT_EQ(i, grid.values.size());
}

TEST(GeoidGrid, PublishedTextLosesItsHeader) {
  const geoid::Grid grid =
      geoid::ParseGrid(MakeText("  -90.000000   90.000000     .000000  360.000000     .250000     .250000\n", 1038961));
  EXPECT_EQ(grid.form, "text grid with header");
  EXPECT_EQ(grid.values.size(), 1038961u);
  EXPECT_EQ(grid.values[0], 1.5f);
}

TEST(GeoidGrid, OwnOutputIsTakenAgain) {
  const geoid::Grid grid = geoid::ParseGrid(MakeGtx());
  const geoid::Grid again = geoid::ParseGrid(geoid::FormatGrid(grid));
  EXPECT_EQ(again.form, "text grid without header");
  EXPECT_EQ(again.values, grid.values);
}

TEST(GeoidGrid, OtherInputIsRefusedWithTheReason) {
  EXPECT_THAT(ErrorOf(MakeGtx(0.0)), HasSubstr("not 721 rows of 1440 columns"));
  EXPECT_THAT(ErrorOf(MakeGtx().substr(0, 4152999)), HasSubstr("4152999 bytes instead of 4153000"));
  EXPECT_THAT(ErrorOf(MakeText("", 1038960)), HasSubstr("1038960 numbers instead of 1038961"));
  EXPECT_THAT(ErrorOf(MakeText("-90 90 0 360 .5 .5 ", 1038961)), HasSubstr("header line"));
  EXPECT_THAT(ErrorOf("1.5 1,5"), HasSubstr("\"1,5\", after 1 numbers, is not a number"));
  EXPECT_THAT(ErrorOf(MakeText("", 1038961, "91")), HasSubstr("row 0, column 0"));
  EXPECT_THAT(ErrorOf(MakeText("", 1038961, "nan")), HasSubstr("no height of this geoid"));
  EXPECT_THAT(ErrorOf(MakeText("2 ", 1038960)), HasSubstr("row 0 does not repeat its first value"));
  EXPECT_THAT(ErrorOf(""), HasSubstr("0 numbers"));
}

class ReplaceFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string folder = testing::TempDir() + "geoidXXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    m_folder = folder;
  }
  void TearDown() override { std::filesystem::remove_all(m_folder); }

  std::filesystem::path m_folder;
};

TEST_F(ReplaceFileTest, MakesTheFolderAndLeavesNothingElse) {
  const std::filesystem::path path = m_folder / "data" / "grid";
  geoid::ReplaceFile(path, "old");
  geoid::ReplaceFile(path, "new");
  EXPECT_EQ(geoid::ReadWholeFile(path), "new");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path.parent_path()), {}), 1);
  struct stat info = {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
}

TEST_F(ReplaceFileTest, FailureKeepsWhatIsThere) {
  const std::filesystem::path path = m_folder / "occupied";
  std::filesystem::create_directories(path / "inner");
  EXPECT_THROW(geoid::ReplaceFile(path, "new"), GridError);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_folder), {}), 1);
  EXPECT_THROW(geoid::ReadWholeFile(m_folder / "missing"), GridError);
}

}  // namespace
