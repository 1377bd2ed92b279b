// SPDX-License-Identifier: Apache-2.0
// Tests of the statistics calls of an encoder's thread while the metadata thread converts.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "converter_fixture.h"

namespace {

class Threads : public ConverterTest {};

// UIDs consist of one repeated letter, so that an inconsistent copy shows two letters or another length.
std::string LongUid(char letter) {
  return std::string(60, letter);
}

bool IsWhole(const char* uid) {
  return strlen(uid) == 60 && strspn(uid, std::string(1, uid[0]).c_str()) == 60;
}

TEST_F(Threads, StatisticsAreConsistentWhileSensorsComeAndGo) {
  host().SetLevel("COTCONVERTER", 2);
  Open(500000, "SPI1", TRUE);
  std::atomic<bool> done = false;
  int torn = 0;
  ULONG last = 0;
  int backwards = 0;
  std::thread reader([&] {
    while (!done) {
      const MDATA_COT_STATS stats = Stats();
      for (int i = 0; i < stats.nDiscoveredSensorsCount; i++) torn += IsWhole(stats.aszSensorUIDs[i]) ? 0 : 1;
      if (stats.nFilteredRxSPIMessages < last) backwards++;
      last = stats.nFilteredRxSPIMessages;
    }
  });
  for (int i = 0; i < 3000; i++) {
    EXPECT_EQ(Convert(Spi(kTime, LongUid(static_cast<char>('a' + i % 26)))), -1);
    if (i % 2 == 0) AgeCoT2KLVSensors(m_converter);  // each sensor is removed before it is seen again
  }
  done = true;
  reader.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(backwards, 0);
  EXPECT_EQ(Stats().nFilteredRxSPIMessages, 3000u);
}

TEST_F(Threads, CountersAreResetAndRestoredWhileEventsCome) {
  host().SetLevel("COTCONVERTER", 2);
  std::atomic<bool> done = false;
  std::thread encoder([&] {
    MDATA_COT_STATS stats = {};
    stats.nRxSPIMessages = 1000000;
    while (!done) {
      ResetCoT2KLVConvertStats(m_converter);
      SetCoT2KLVConvertStats(m_converter, &stats);
    }
  });
  for (int i = 0; i < 500; i++) Convert(i % 2 == 0 ? Aircraft() : Spi());
  done = true;
  encoder.join();
  ResetCoT2KLVConvertStats(m_converter);
  EXPECT_EQ(Stats().nRxSPIMessages + Stats().nRxAirCraftMessages, 0u);
}

}  // namespace
