// SPDX-License-Identifier: Apache-2.0
#include "geoid_grid.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "ini_file.h"

namespace mdencoder::geoid_grid_test {
namespace {

class GeoidGrid : public testing::Test {
 protected:
  void TearDown() override { std::filesystem::remove_all(m_path); }
  void Write(size_t numbers, const std::string& more = "") {
    std::ofstream file(m_path);
    for (size_t i = 0; i < numbers; ++i) file << (i % 8 == 0 ? "\n" : " ") << (i % 2 == 0 ? "-12.345" : "1.5e+01");
    file << more;
  }
  std::string Complaint(const std::string& text) const {
    try {
      RequireGeoidGrid(MakeConfig(ParseIni(text), "/conf/demo.ini"), m_path);
    } catch (const ConfigError& error) {
      return error.what();
    }
    return "accepted";
  }

  const std::string m_path = testing::TempDir() + "mdencoder_grid.grd";
};

constexpr size_t kAll = size_t{721} * 1441;
constexpr char kCot[] = "[k]\ninput = udp\nport = 5000\n[c]\ninput = udp\nport = 5001\ndata = cot\n";

TEST_F(GeoidGrid, AWholeOneIsRight) {
  Write(kAll, "\n");
  EXPECT_EQ(GeoidGridFault(m_path), "");
  EXPECT_EQ(Complaint(kCot), "accepted");
}

TEST_F(GeoidGrid, HeightsAreReadFromNorthToSouthAndFromGreenwichToTheEast) {
  {
    std::ofstream file(m_path);
    for (int row = 0; row < 721; ++row) {
      for (int column = 0; column < 1441; ++column) file << (row == 180 ? column % 1440 : -row) << '\n';
    }
  }
  const auto grid = LoadGeoidGrid(m_path);
  ASSERT_TRUE(grid);
  EXPECT_DOUBLE_EQ(grid->Interpolate(45, 0.25), 1);
  EXPECT_DOUBLE_EQ(grid->Interpolate(45, 10.125), 40.5) << "between two columns";
  EXPECT_DOUBLE_EQ(grid->Interpolate(45, -0.25), 1439);
  EXPECT_DOUBLE_EQ(grid->Interpolate(-90, 7), -720);
  EXPECT_DOUBLE_EQ(grid->Interpolate(90, 7), 0);
}

TEST_F(GeoidGrid, AFaultyOneGivesNoHeights) {
  EXPECT_FALSE(LoadGeoidGrid(m_path));
  Write(kAll - 1, " 1.2.3");
  EXPECT_EQ(GeoidGridFault(m_path), "");
  EXPECT_TRUE(LoadGeoidGrid(m_path)) << "1.2 is the last one";
  Write(kAll - 2, " --1 5");
  EXPECT_FALSE(LoadGeoidGrid(m_path));
}

TEST(EllipsoidHeights, AreAddedWhereAMessageLacksThem) {
  st0601::Observation seen;
  seen.platform.emplace();
  seen.platform->latitude = 10;
  seen.platform->longitude = 20;
  seen.platform->altitude = 1000;
  seen.frameCenter.emplace();
  seen.frameCenter->altitude = 500;
  seen.frameCenter->ellipsoidHeight = 501;
  seen.target.emplace();
  AddEllipsoidHeights(seen, [](double, double) { return std::nullopt; });
  EXPECT_FALSE(seen.platform->ellipsoidHeight);
  AddEllipsoidHeights(seen, [](double latitude, double longitude) { return latitude + longitude; });
  EXPECT_EQ(seen.platform->ellipsoidHeight, 1030);
  EXPECT_EQ(seen.frameCenter->ellipsoidHeight, 501);
  EXPECT_FALSE(seen.target->ellipsoidHeight);
}

TEST_F(GeoidGrid, EveryOtherOneIsNamed) {
  EXPECT_EQ(GeoidGridFault(m_path), "is missing");
  Write(kAll - 1, "\n");
  EXPECT_EQ(GeoidGridFault(m_path), "has 1038960 of 1038961 numbers");
  Write(0);
  EXPECT_EQ(GeoidGridFault(m_path), "has 0 of 1038961 numbers");
  Write(5, " <html>");
  EXPECT_EQ(GeoidGridFault(m_path), "is not a text of numbers");
  std::filesystem::remove(m_path);
  std::filesystem::create_directory(m_path);
  EXPECT_EQ(GeoidGridFault(m_path), "is not a file");
}

TEST_F(GeoidGrid, ACotSourceNeedsItUnlessHeightsAreOptional) {
  EXPECT_EQ(Complaint(kCot), "[c] data = cot needs the geoid grid, but " + m_path +
                                 " is missing; make it with make_geoid_grid, or do without heights with heights = "
                                 "optional in [encoder]");
  EXPECT_EQ(Complaint(std::string("[encoder]\nheights = required\n") + kCot).substr(0, 3), "[c]");
  EXPECT_EQ(Complaint(std::string("[encoder]\nheights = optional\n") + kCot), "accepted");
  EXPECT_EQ(Complaint("[k]\ninput = udp\nport = 5000\n"), "accepted");
  EXPECT_EQ(Complaint(std::string("[encoder]\nheights = none\n") + kCot),
            "[encoder] heights must be one of required, optional, not \"none\"");
}

}  // namespace
}  // namespace mdencoder::geoid_grid_test
