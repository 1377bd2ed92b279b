// SPDX-License-Identifier: Apache-2.0
// Tests of the geoid grid: loading, its text, interpolation.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "converter_fixture.h"

namespace {

class GridTest : public HostTest {
 protected:
  void TearDown() override { free_ww15mgh_grd(); }

  // Loads a file with the given tokens, followed by 'rest' for every missing value.
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

TEST_F(GridFile, IsLoadedWithoutChanges) {
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

TEST_F(GridFile, TextThatIsNotANumberStopsTheScanAndTheLoadSucceeds) {
  EXPECT_EQ(Load("1.5 2.5 abc 3.5 ", 4), 0);
  EXPECT_EQ(_g_pGrid[0], 1.5f);
  EXPECT_EQ(_g_pGrid[1], 2.5f);
  for (int i = 2; i < kGridValues; i++) ASSERT_EQ(_g_pGrid[i], 0.0f) << i;
  for (const char* text : {"1,5", "1 x", "1 _3"}) {
    EXPECT_EQ(Load(text, kGridValues), 0) << text;
    EXPECT_EQ(_g_pGrid[0], 1.0f);
    EXPECT_EQ(_g_pGrid[1], 0.0f) << text;
  }
}

TEST_F(GridFile, BeginningsOfNumbersAreConsumedAndLeaveTheirSlot) {
  EXPECT_EQ(Load("1 - 5 . 6 0x 8 +\n9 1e 10 --11 nax ", 14), 0);
  const float expected[] = {1, 0, 5, 0, 6, 0, 8, 0, 9, 1, 10, 0, -11, 0, 7};
  for (size_t i = 0; i < std::size(expected); i++) EXPECT_EQ(_g_pGrid[i], expected[i]) << i;
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

// The result of a "%f" scan of a text in the "C" locale. A scan that reaches the end of the file, before a number or
// inside it, ends the reading; text that it cannot skip leaves the rest of the grid unchanged.
struct Scanned {
  std::vector<float> values;
  bool bStuck = false;

  explicit Scanned(const std::string& text) {
    FILE* fp = text.empty() ? nullptr : fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    while (fp != nullptr && !bStuck && values.size() < kGridValues) {
      const long nBefore = ftell(fp);
      float value = 0;
      const int nResult = fscanf(fp, "%f", &value);
      if (nResult == EOF || (nResult == 0 && feof(fp))) break;
      bStuck = nResult == 0 && ftell(fp) == nBefore;
      values.push_back(value);
    }
    if (fp != nullptr) fclose(fp);
    if (bStuck) values.resize(kGridValues);
  }
  bool IsWhole() const { return values.size() == kGridValues; }
};

// Loads a text and compares the grid with the scan.
class GridText : public GridTest {
 protected:
  void SetUp() override {
    GridTest::SetUp();
    AllowLogs(5, "Support of additionnal CoT items enabled.\n");
    AllowLogs(3, "fscanf ");
    host().WriteFile(kGridPath, "");
    m_path = host().RealPath(kGridPath);
  }

  void Check(const std::string& text) {
    std::ofstream(m_path, std::ios::binary) << text;
    const Scanned scanned(text);
    const size_t nShown = text.size() < 200 ? 0 : text.size() - 200;
    SCOPED_TRACE(text.substr(nShown));
    host().ClearLogs();
    ASSERT_EQ(init_ww15mgh_grd(), scanned.IsWhole() ? 0 : -1);
    if (scanned.IsWhole()) {
      ASSERT_EQ(memcmp(_g_pGrid, scanned.values.data(), sizeof(float) * kGridValues), 0);
    } else {
      ExpectLog(3, "fscanf " + std::to_string(scanned.values.size()) + " number (unexpected finished earlier)!\n");
      ASSERT_EQ(_g_pGrid, nullptr);
    }
  }

  std::string m_path;
  std::mt19937 m_random{20240102};
};

TEST_F(GridText, CutInTheLastNumberFailsUnlessANumberIsLeft) {
  std::string text;
  for (int i = 1; i < kGridValues; i++) text += "1 ";
  Check(text + "-85.25\n");
  Check(text + "-8");
  Check(text);
  EXPECT_EQ(CountLogs(3, "fscanf 1038960 number (unexpected finished earlier)!\n"), 1);
  Check(text + "-");
  EXPECT_EQ(CountLogs(3, "fscanf 1038960 number (unexpected finished earlier)!\n"), 1) << "the minus is no number";
}

TEST_F(GridText, CutAfterTheFirstBlockFailsWithTheCountRead) {
  std::string text;
  for (int i = 0; text.size() < 140000; i++) text += std::to_string(i % 211 - 107) + (i % 3 == 0 ? ".25\n" : ".5 ");
  for (const size_t cut : {size_t{65535}, size_t{65536}, size_t{65537}, size_t{131072}}) Check(text.substr(0, cut));
  Check(text + "1e");
}

TEST_F(GridText, OddNumbersAmongUsualOnesReadLikeAScan) {
  static const char* const kForms[] = {
      "-",    "1e1",        "- 3",   ".",        "0x",      "1e+",  "0x1.8p1",
      "+3.5", "-inf",       "5.e-1", "nan",      "1.5e-46", "1e39", "0x.8",
      "-.5",  "16777217.0", "0x1p",  "  \r\n 4", "7.",      "-0",   "123456789012345678901234567890"};
  std::string text;
  for (int i = 0; i < kGridValues; i++) {
    if (m_random() % 16 == 0)
      text += kForms[m_random() % std::size(kForms)];
    else
      text +=
          std::to_string(static_cast<int>(m_random() % 2000000) - 1000000) + "." + std::to_string(m_random() % 10000);
    text += " \n\t "[m_random() % 4];
  }
  Check(text);
}

TEST_F(GridFile, PipeIsReadToo) {
  host().PlantFifo(kGridPath);
  const std::string path = host().RealPath(kGridPath);
  std::thread writer([&path] {
    std::ofstream pipe(path);
    pipe << "-13.5 1e1 ";
    for (int i = 2; i < kGridValues; i++) pipe << "7 ";
  });
  AllowLogs(5, "Support of additionnal CoT items enabled.\n");
  EXPECT_EQ(init_ww15mgh_grd(), 0);
  writer.join();
  EXPECT_EQ(_g_pGrid[0], -13.5f);
  EXPECT_EQ(_g_pGrid[1], 10.0f);
  EXPECT_EQ(_g_pGrid[kGridValues - 1], 7.0f);
}

TEST_F(GridFile, LoadsOnASmallStack) {
  host().WriteFile(kGridPath, "1 2 -3.5 1e1 -");
  AllowLogs(5, "Support of additionnal CoT items enabled.\n");
  int nResult = 0;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  // Uses 32 KiB, or the minimum of the C library, which is 128 KiB on 64-bit Arm.
  const size_t size = std::max(size_t{32768}, static_cast<size_t>(sysconf(_SC_THREAD_STACK_MIN)));
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, size), 0);
  pthread_t thread;
  const auto body = [](void* pvResult) -> void* {
    *static_cast<int*>(pvResult) = init_ww15mgh_grd();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, body, &nResult), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(nResult, -1);
  ExpectLog(3, "fscanf 4 number (unexpected finished earlier)!\n");
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

TEST_F(GridFile, LoadFailsIfOutOfMemory) {
  host().WriteFile(kGridPath, "1");
  AllowLogs(5, "Support of additionnal CoT items enabled.\n");
  host().FailNext("calloc");
  EXPECT_EQ(init_ww15mgh_grd(), -1);
  ExpectLog(3, "malloc() failed !\n");
  EXPECT_EQ(_g_pGrid, nullptr);
  host().FailNext("malloc");
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

TEST_F(GridFile, FreeingTwiceIsHarmless) {
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
