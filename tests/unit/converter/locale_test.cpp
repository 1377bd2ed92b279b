// SPDX-License-Identifier: Apache-2.0
// Tests of the conversion and the geoid grid in a process whose locale has a decimal comma.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <string>

#include "converter_fixture.h"

namespace {

class DecimalComma : public ConverterTest {
 protected:
  void SetUp() override {
    ConverterTest::SetUp();
    setenv("LOCPATH", METADATA_TEST_LOCALES, 1);
    ASSERT_NE(setlocale(LC_ALL, "de_DE.UTF-8"), nullptr) << "no locale in " << METADATA_TEST_LOCALES;
    ASSERT_STREQ(localeconv()->decimal_point, ",");
  }
  void TearDown() override {
    setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
    ConverterTest::TearDown();
  }
};

TEST_F(DecimalComma, DoesNotChangeTheNumbersOfAnEvent) {
  ASSERT_TRUE(ConvertPair(Spi(), Aircraft(kTime,
                                          "<track course=\"90.5\" speed=\"2,9\"/>"
                                          "<attitude pitch=\"1.5\" roll=\"2.5\"/>"
                                          "<point lat=\"45.25\" lon=\"-73.75\" hae=\"1000.5\"/>")));
  EXPECT_EQ(Number(5), 16475u);
  EXPECT_EQ(Number(9), 2u) << "the comma ends the number";
  EXPECT_EQ(Number(6), 2458u);
  EXPECT_EQ(Signed32(13), 1079707056);
  EXPECT_EQ(Number(15), 6259u);
}

TEST_F(DecimalComma, DoesNotChangeTheGrid) {
  std::string text = "1.5 -2.25 1.5e0 0.000000000000000000001 ";
  for (int i = 4; i < kGridValues; i++) text += "0 ";
  host().WriteFile(kGridPath, text);
  ASSERT_EQ(init_ww15mgh_grd(), 0);
  EXPECT_EQ(_g_pGrid[0], 1.5f);
  EXPECT_EQ(_g_pGrid[1], -2.25f);
  EXPECT_EQ(_g_pGrid[2], 1.5f);
  EXPECT_EQ(_g_pGrid[3], 1e-21f);
  ExpectLog(5, "Support of additionnal CoT items enabled.\n");
}

}  // namespace
