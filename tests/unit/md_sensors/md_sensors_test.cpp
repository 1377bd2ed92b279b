// SPDX-License-Identifier: Apache-2.0
// Tests of the sensors that a CoT source has discovered.
#include "md_sensors.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "fake_host.h"

namespace {

class SensorsTest : public HostTest {
 protected:
  void Note(const std::string& uid) { _NoteSensor(m_sensors, uid.c_str()); }
  void Age(int steps) {
    for (int i = 0; i < steps; ++i) _AgeSensors(m_sensors);
  }
  std::vector<std::string> Uids() const {
    char uids[MDATA_MAX_DISCOVERED_SENSORS][MDATA_SENSOR_UID_SIZE];
    const int count = _CopySensors(m_sensors, uids);
    return {uids, uids + count};
  }

  SensorTable m_sensors = {};
};

TEST_F(SensorsTest, AreListedInTheOrderOfTheirEntries) {
  EXPECT_TRUE(Uids().empty());
  Note("B");
  ExpectLog(7, "Adding SPI \"B\".\n");
  ExpectLog(7, "Located first free index at 0.\n");
  ExpectLog(7, "Storing entry for \"B\" at free offset 0.\n");
  Note("A");
  ExpectLog(7, "Oldest existing record is \"B\" at offset 0, 0 seconds old.\n");
  ExpectLog(7, "Storing entry for \"A\" at free offset 1.\n");
  EXPECT_EQ(Uids(), (std::vector<std::string>{"B", "A"}));
}

TEST_F(SensorsTest, SensorSeenAgainHasAgeZeroAndNoSecondEntry) {
  Note("A");
  Age(10);
  Note("A");
  ExpectLog(7, "Located existing entry for \"A\" at offset 0.\n");
  Age(10);
  EXPECT_EQ(Uids(), (std::vector<std::string>{"A"}));
}

TEST_F(SensorsTest, AreRemovedAfterTenStepsAndFreeTheirEntry) {
  Note("A");
  Age(5);
  Note("B");
  Age(5);
  EXPECT_EQ(Uids().size(), 2u);
  Age(1);
  ExpectLog(7, "Entry for \"A\" has been aged out.\n");
  EXPECT_EQ(Uids(), (std::vector<std::string>{"B"}));
  EXPECT_STREQ(m_sensors[0].szUID, "") << "nothing of it is left";
  Note("C");
  EXPECT_EQ(Uids(), (std::vector<std::string>{"C", "B"})) << "a sensor takes the first free place";
}

TEST_F(SensorsTest, FullTableReplacesTheEntryAtTheIndexOfTheOldestAge) {
  for (int i = 0; i < MDATA_MAX_DISCOVERED_SENSORS; ++i) {
    if (i >= 29) Age(1);
    Note("S" + std::to_string(i));
  }
  Note("NEW");
  ExpectLog(7, "Storing entry for \"NEW\" at oldest offset 3.\n");
  EXPECT_EQ(Uids().size(), 32u);
  EXPECT_EQ(Uids()[3], "NEW");
  EXPECT_EQ(Uids()[0], "S0");
}

TEST_F(SensorsTest, LongUidIsTruncatedToItsField) {
  Note(std::string(200, 'u'));
  EXPECT_EQ(Uids(), (std::vector<std::string>{std::string(MDATA_SENSOR_UID_SIZE - 1, 'u')}));
}

TEST_F(SensorsTest, CopiesAreConsistentWhileSensorsComeAndGo) {
  host().SetLevel("COTCONVERTER", 2);
  std::atomic<bool> done = false;
  int torn = 0;
  std::thread reader([&] {
    while (!done) {
      for (const std::string& uid : Uids()) torn += uid == std::string(60, uid[0]) ? 0 : 1;
    }
  });
  for (int i = 0; i < 3000; ++i) {
    Note(std::string(60, static_cast<char>('a' + i % 26)));
    if (i % 2 == 0) Age(11);
  }
  done = true;
  reader.join();
  EXPECT_EQ(torn, 0);
}

}  // namespace
