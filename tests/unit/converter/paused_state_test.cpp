// SPDX-License-Identifier: Apache-2.0
// Tests of the report to the host's thread watchdog: after a failed load no thread is left marked as paused.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "converter_fixture.h"

namespace {

class PausedState : public HostTest {
 protected:
  void TearDown() override {
    free_ww15mgh_grd();
    HostTest::TearDown();
  }
  static int Load(const std::string& text) {
    AllowLogs(5, "Support of additionnal CoT items enabled.\n");
    host().WriteFile(kGridPath, text);
    return init_ww15mgh_grd();
  }
};

TEST_F(PausedState, IsClearedAfterAFailedLoad) {
  EXPECT_EQ(Load("1 2 3 "), -1);
  ExpectLog(3, "fscanf 3 number (unexpected finished earlier)!\n");
  EXPECT_EQ(host().pausedStates, (std::vector<int>{1, 0}));
}

TEST_F(PausedState, IsClearedAfterALoadThatFailedLate) {
  std::string text;
  for (int i = 1; i < kGridValues; i++) text += "1 ";
  EXPECT_EQ(Load(text), -1);
  ExpectLog(3, "fscanf 1038960 number (unexpected finished earlier)!\n");
  ASSERT_FALSE(host().pausedStates.empty());
  EXPECT_EQ(host().pausedStates.back(), 0);
}

TEST_F(PausedState, IsNotTouchedWithoutAFile) {
  AllowLogs(5, "Support of additionnal CoT items enabled.\n");
  EXPECT_EQ(init_ww15mgh_grd(), -1);
  ExpectLogContaining(2, "Failed to open");
  EXPECT_TRUE(host().pausedStates.empty());
}

}  // namespace
