// The geoid grid: loading, its text, interpolation.
#include <clocale>
#include <cmath>
#include <cstring>

#include "converter_fixture.h"

namespace {

class GridTest : public HostTest {
 protected:
  void TearDown() override {
    free_ww15mgh_grd();
    _g_bAllItemsSupport = TRUE;
    HostTest::TearDown();
  }

  // The first tokens of a file, and then 'rest' for every value that is missing.
  static int Load(const std::string& start, int tokens, const std::string& rest = "7 ") {
    AllowLogs(5, "Support of additionnal CoT items enabled.\n");
    std::string text = start;
    for (int i = tokens; i < kGridValues; i++) text += rest;
    host().WriteFile(kGridPath, text);
    return init_ww15mgh_grd();
  }

  void Flat() {
    _g_pGrid = static_cast<float*>(calloc(kGridValues, sizeof(float)));
    ASSERT_NE(_g_pGrid, nullptr);
  }
};
using GridFile = GridTest;
using Undulation = GridTest;

TEST_F(GridFile, IsLoadedAsItStands) {
  EXPECT_EQ(Load("13.5 -2.25\n\n  1e1\t.5 5. +3 0x1.8p1 inf -NAN ", 9), 0);
  const float expected[] = {13.5f, -2.25f, 10.0f, 0.5f, 5.0f, 3.0f, 3.0f};
  for (size_t i = 0; i < std::size(expected); i++) EXPECT_EQ(_g_pGrid[i], expected[i]) << i;
  EXPECT_TRUE(std::isinf(_g_pGrid[7]));
  EXPECT_TRUE(std::isnan(_g_pGrid[8]));
  EXPECT_EQ(_g_pGrid[9], 7.0f);
  EXPECT_EQ(_g_pGrid[kGridValues - 1], 7.0f);
  ExpectLog(6, "Opening grid file \"/usr/share/vendor/data/ww15mgh.grd\".\n");
  ExpectLog(7, "File \"/usr/share/vendor/data/ww15mgh.grd\" opened.\n");
  ExpectLog(7, "Allocating memory block of 4155844 bytes for data grid.\n");
  ExpectLog(7, "Memory allocated OK, reading grid data.\n");
  ExpectLog(6, "Grid init done (loaded in 0.000000 secs).\n");
}

TEST_F(GridFile, SkipsNothing) {
  EXPECT_EQ(Load("-90.0 90.0 .0 360.0 .25 .25\n", 6), 0);
  EXPECT_EQ(_g_pGrid[0], -90.0f) << "a header line would become values";
  EXPECT_EQ(_g_pGrid[3], 360.0f);
}

TEST_F(GridFile, TextThatIsNoNumberStopsTheScanAndTheLoadSucceeds) {
  EXPECT_EQ(Load("1.5 2.5 abc 3.5 ", 4), 0);
  EXPECT_EQ(_g_pGrid[0], 1.5f);
  EXPECT_EQ(_g_pGrid[1], 2.5f);
  for (int i = 2; i < kGridValues; i++) ASSERT_EQ(_g_pGrid[i], 0.0f) << i;
  for (const char* text : {"1 - 5", "1 nax", "1 0x", "1 . 2", "1,5"}) {
    EXPECT_EQ(Load(text, kGridValues), 0) << text;
    EXPECT_EQ(_g_pGrid[0], 1.0f);
    EXPECT_EQ(_g_pGrid[1], 0.0f) << text;
  }
}

TEST_F(GridFile, ShortFileFailsWithTheCountRead) {
  EXPECT_EQ(Load("1 2 3 ", kGridValues), -1);
  ExpectLog(3, "fscanf 3 number (unexpected finished earlier)!\n");
  EXPECT_EQ(_g_pGrid, nullptr);
  EXPECT_EQ(Load("7 ", 2), -1);
  ExpectLog(3, "fscanf 1038960 number (unexpected finished earlier)!\n");
  EXPECT_EQ(Load("", kGridValues), -1);
  ExpectLog(3, "fscanf 0 number (unexpected finished earlier)!\n");
}

TEST_F(GridFile, LastNumberNeedsNoBlank) {
  std::string text;
  for (int i = 1; i < kGridValues; i++) text += "1 ";
  EXPECT_EQ(Load(text + "85.25", kGridValues), 0);
  EXPECT_EQ(_g_pGrid[kGridValues - 1], 85.25f);
}

TEST_F(GridFile, MissingFileFails) {
  AllowLogs(5, "Support of additionnal CoT items enabled.\n");
  EXPECT_EQ(init_ww15mgh_grd(), -1);
  ExpectLog(2, "Failed to open \"/usr/share/vendor/data/ww15mgh.grd\", errno=2 \"No such file or directory\"\n");
  EXPECT_EQ(_g_pGrid, nullptr);
}

TEST_F(GridFile, WithoutMemoryFails) {
  host().WriteFile(kGridPath, "1");
  AllowLogs(5, "Support of additionnal CoT items enabled.\n");
  host().FailNext("calloc");
  EXPECT_EQ(init_ww15mgh_grd(), -1);
  ExpectLog(3, "malloc() failed !\n");
  EXPECT_EQ(_g_pGrid, nullptr);
}

TEST_F(GridFile, ProgressIsReportedByThePercent) {
  EXPECT_EQ(Load("", 0), 0);
  ASSERT_EQ(host().iterations.size(), 100u);
  for (UINT i = 0; i < 100; i++) EXPECT_EQ(host().iterations[i], i + 1);
  ASSERT_EQ(host().pausedStates.size(), 202u);
  EXPECT_EQ(host().pausedStates.front(), 1);
  EXPECT_EQ(host().pausedStates[1], 0);
  EXPECT_EQ(host().pausedStates[2], 1);
  EXPECT_EQ(host().pausedStates.back(), 0);
}

TEST_F(GridFile, NumbersAreTheNearestFloats) {
  // Values around and on the middle between two floats, in forms the quick way takes and forms it does not.
  const char* tokens[] = {"0.1",
                          "16777217.0",
                          "16777217",
                          "16777219.0",
                          "16777217.00000000000000000000000000000000000001",
                          "13.6062453",
                          "-106.990997",
                          "0.000000000000000000000000000000000000000000001",
                          "3.4028236e38",
                          "1e39",
                          "-1e-60",
                          "8.5899345920000001e9",
                          "123456789012345678901234567890",
                          "999999.99999999",
                          "893140928",
                          "-893140928",
                          "0.0123456789",
                          "1.00000005960464477539062",
                          "1.00000005960464477539063",
                          "0x1.000001p0",
                          "0x1.0000010000001p0"};
  std::string text;
  for (const char* token : tokens) text += std::string(token) + " ";
  EXPECT_EQ(Load(text, static_cast<int>(std::size(tokens))), 0);
  for (size_t i = 0; i < std::size(tokens); i++) {
    const float expected = strtof(tokens[i], nullptr);
    EXPECT_EQ(memcmp(&expected, &_g_pGrid[i], sizeof expected), 0) << tokens[i] << " became " << _g_pGrid[i];
  }
}

TEST_F(GridFile, OptionIsOnUnlessConfiguredOtherwise) {
  _g_bAllItemsSupport = FALSE;
  EXPECT_EQ(init_ww15mgh_grd(), -1);
  EXPECT_TRUE(_g_bAllItemsSupport);
  ExpectLog(5, "Support of additionnal CoT items enabled.\n");
  host().SetConfig("/etc/hostos.ini", "CursorOnTarget", "AllItemsSupport", "No");
  EXPECT_EQ(init_ww15mgh_grd(), -1);
  EXPECT_FALSE(_g_bAllItemsSupport);
  ExpectLog(6, "Support of additionnal CoT items disabled.\n");
  host().SetConfig("/etc/hostos.ini", "CursorOnTarget", "AllItemsSupport", "yES");
  EXPECT_EQ(init_ww15mgh_grd(), -1);
  EXPECT_TRUE(_g_bAllItemsSupport);
  ExpectLog(5, "Support of additionnal CoT items enabled.\n");
  AllowLogs(2, "Failed to open");
}

TEST_F(GridFile, FreeingTwiceIsFine) {
  Flat();
  free_ww15mgh_grd();
  free_ww15mgh_grd();
  EXPECT_EQ(_g_pGrid, nullptr);
}

TEST_F(Undulation, CornersAreReadExactlyAndNothingBeyond) {
  Flat();
  _g_pGrid[0] = 13.25f;
  _g_pGrid[1440] = 14.25f;
  _g_pGrid[720 * 1441] = -29.5f;
  _g_pGrid[720 * 1441 + 1440] = -30.5f;
  float height = 0;
  EXPECT_EQ(calcul_undulation(90, 0, &height), 0);
  EXPECT_EQ(height, 13.25f);
  EXPECT_EQ(calcul_undulation(90, 360, &height), 0);
  EXPECT_EQ(height, 14.25f);
  EXPECT_EQ(calcul_undulation(-90, 0, &height), 0);
  EXPECT_EQ(height, -29.5f);
  EXPECT_EQ(calcul_undulation(-90, 360, &height), 0);
  EXPECT_EQ(height, -30.5f);
}

TEST_F(Undulation, IsBilinear) {
  Flat();
  float* cell = _g_pGrid + 4 * 1441 + 8;  // 89 N, 2 E
  cell[0] = 10;
  cell[1] = 20;
  cell[1441] = 30;
  cell[1442] = 60;
  float height = 0;
  EXPECT_EQ(calcul_undulation(89, 2, &height), 0);
  EXPECT_EQ(height, 10.0f);
  EXPECT_EQ(calcul_undulation(89, 2.125f, &height), 0);
  EXPECT_EQ(height, 15.0f);
  EXPECT_EQ(calcul_undulation(88.875f, 2, &height), 0);
  EXPECT_EQ(height, 20.0f);
  EXPECT_EQ(calcul_undulation(88.9375f, 2.1875f, &height), 0);
  EXPECT_EQ(height, 0.75f * (0.25f * 10 + 0.75f * 20) + 0.25f * (0.25f * 30 + 0.75f * 60));
}

TEST_F(Undulation, PositionsOutsideAreRefused) {
  Flat();
  float height = 5;
  const float bad[][2] = {{90.1f, 0}, {-90.1f, 0}, {0, -0.1f}, {0, 360.1f}, {NAN, 0}, {0, NAN}, {INFINITY, 0}};
  for (const auto& position : bad) {
    EXPECT_EQ(calcul_undulation(position[0], position[1], &height), -1);
    ExpectLog(3, "invalid input argument!\n");
  }
  EXPECT_EQ(calcul_undulation(0, 0, nullptr), -1);
  ExpectLog(3, "invalid input argument!\n");
  EXPECT_EQ(height, 5.0f);
}

TEST_F(Undulation, NeedsTheGrid) {
  float height = 5;
  EXPECT_EQ(calcul_undulation(0, 0, &height), -1);
}

}  // namespace
