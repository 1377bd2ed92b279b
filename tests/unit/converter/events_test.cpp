// SPDX-License-Identifier: Apache-2.0
// Tests of the items that aircraft and sensor-point events become.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "converter_fixture.h"

namespace {

class AircraftEvent : public ConverterTest {};
class SpiEvent : public ConverterTest {};

std::string Track(const std::string& course, const std::string& speed) {
  return "<track course=\"" + course + "\" speed=\"" + speed + "\"/>";
}
std::string Attitude(const std::string& pitch, const std::string& roll) {
  return "<attitude pitch=\"" + pitch + "\" roll=\"" + roll + "\"/>";
}
std::string Point(const std::string& lat, const std::string& lon, const std::string& hae,
                  const std::string& rest = " le=\"10\" ce=\"10\"") {
  return "<point lat=\"" + lat + "\" lon=\"" + lon + "\" hae=\"" + hae + "\"" + rest + "/>";
}
std::string Sensor(const std::string& attributes) {
  return "<sensor " + attributes + "/>";
}

void AllowMissing() {
  AllowLogs(3, "tag slice!\n");
  AllowLogs(3, "not found\n");
  AllowLogs(3, "not founded\n");
  AllowLogs(3, "out of slice");
}

constexpr char kOutOfRange5[] = "_cvt_processAirMsg():out of range value detected for key=5 value=(PROTECTED)\n";
constexpr char kOutOfRange9[] = "_cvt_processAirMsg():out of range value detected for key=9 value=(PROTECTED)\n";

TEST_F(AircraftEvent, CourseIsAcceptedFrom0To360) {
  AllowMissing();
  ASSERT_TRUE(ConvertAircraft(Track("360", "0")));
  EXPECT_EQ(Number(5), 0xFFFFu);
  ASSERT_TRUE(ConvertAircraft(Track("360.1", "0")));
  EXPECT_FALSE(Has(5));
  ExpectLog(3, kOutOfRange5);
  ASSERT_TRUE(ConvertAircraft(Track("nan", "0")));
  EXPECT_FALSE(Has(5));
  ExpectLog(3, kOutOfRange5);
  ASSERT_TRUE(ConvertAircraft(Track("no number", "0")));
  EXPECT_EQ(Number(5), 0u) << "text that is no number is 0";
}

TEST_F(AircraftEvent, SpeedIsAcceptedWhileItRoundsTo255OrLess) {
  AllowMissing();
  ASSERT_TRUE(ConvertAircraft(Track("1", "255.4")));
  EXPECT_EQ(Number(9), 255u);
  for (const char* speed : {"255.5", "-1", "-0.1", "inf"}) {
    ASSERT_TRUE(ConvertAircraft(Track("1", speed)));
    EXPECT_FALSE(Has(9)) << speed;
    ExpectLog(3, kOutOfRange9);
  }
}

TEST_F(AircraftEvent, LatitudeAndLongitudeAreMarkedOutOfRange) {
  AllowMissing();
  ASSERT_TRUE(ConvertAircraft(Point("-90", "180", "0")));
  EXPECT_EQ(Signed32(13), -2147483647);
  EXPECT_EQ(Signed32(14), 2147483647);
  for (const char* lat : {"90.5", "nan", "-inf"}) {
    ASSERT_TRUE(ConvertAircraft(Point(lat, "-180.5", "0")));
    EXPECT_EQ(Number(13), 0x80000000u);
    EXPECT_EQ(Number(14), 0x80000000u);
    EXPECT_FALSE(Has(15)) << "no altitude without a position";
  }
  ASSERT_TRUE(ConvertAircraft(Point("0x10", "1e1", "0")));
  EXPECT_EQ(Signed32(13), 381774871) << "hexadecimal, like atof";
}

TEST_F(AircraftEvent, RollAndPitchAreMarkedOutOfRange) {
  AllowMissing();
  ASSERT_TRUE(ConvertAircraft(Attitude("20", "-50")));
  EXPECT_EQ(Signed16(6), 32767);
  EXPECT_EQ(Signed16(7), -32767);
  ASSERT_TRUE(ConvertAircraft(Attitude("-90.1", "-91")));
  EXPECT_EQ(Number(6), 0x8000u);
  EXPECT_EQ(Number(7), 0x8000u);
  EXPECT_EQ(m_converter->a_roll, 32768.0f);
  EXPECT_EQ(m_converter->a_pitch, 32768.0f);
  ASSERT_TRUE(ConvertAircraft(Attitude("nan", "nan")));
  EXPECT_EQ(Number(6), 0x8000u);
}

TEST_F(AircraftEvent, PitchAndRollUpTo90AreWrappedIn16Bits) {
  AllowMissing();
  ASSERT_TRUE(ConvertAircraft(Attitude("30", "90")));
  EXPECT_EQ(Number(6), 49151u);
  EXPECT_EQ(Number(7), 58981u);
  EXPECT_EQ(m_converter->a_pitch, 30.0f);
  ASSERT_TRUE(ConvertAircraft(Attitude("-90", "0")));
  EXPECT_EQ(Number(6), static_cast<uint16_t>(-147452));
}

TEST_F(AircraftEvent, AttitudeAndAnglesNeedTheOption) {
  _g_bAllItemsSupport = FALSE;
  Open(500000);
  EXPECT_EQ(Convert(Event(kSpi, "S", kTime, "<point lat=\"1\" lon=\"1\" hae=\"1\" le=\"1\" ce=\"1\"/>")), 0);
  EXPECT_GT(Convert(Aircraft()), 0);
  EXPECT_FALSE(Has(6));
  EXPECT_FALSE(Has(7));
  EXPECT_FALSE(Has(0x12) || Has(0x13) || Has(0x14));
  EXPECT_EQ(m_converter->a_course, -100000.0f);
  ExpectNoLog("not found <sensor> tag slice!\n");
}

TEST_F(AircraftEvent, AltitudeIsAboveTheGeoid) {
  AllowMissing();
  LoadFlatGrid(-30);
  ASSERT_TRUE(ConvertAircraft(Point("45", "-73", "970")));
  EXPECT_EQ(Number(15), 6257u);  // (1000 + 900) * 3.2932161
  ExpectLog(7, "add airCraft hae. undulation = -30.000000\n");
  for (const char* hae : {"-2000", "19000", "nan", "inf"}) {
    ASSERT_TRUE(ConvertAircraft(Point("45", "-73", hae)));
    EXPECT_FALSE(Has(15)) << hae;
  }
  ASSERT_TRUE(ConvertAircraft(Point("45", "-73", "18970")));
  EXPECT_EQ(Number(15), 65535u);
}

TEST_F(AircraftEvent, AltitudeNeedsTheGrid) {
  AllowMissing();
  AllowLogs(3, "failed to calcul_undulation!\n");
  free_ww15mgh_grd();
  ASSERT_TRUE(ConvertAircraft(Point("45", "-73", "970")));
  EXPECT_FALSE(Has(15));
  EXPECT_TRUE(Has(13));
}

TEST_F(AircraftEvent, WithoutElementsStillGivesAMessage) {
  AllowLogs(3, "not found <sensor> tag slice!\n");
  EXPECT_EQ(Convert(Spi()), 0);
  EXPECT_GT(Convert(Aircraft(kTime, "")), 0);
  ExpectLog(3, "not found <track> tag slice!\n");
  ExpectLog(3, "not found <attitude> tag slice!\n");
  ExpectLog(3, "not found <point> tag slice!\n");
  EXPECT_EQ(Number(2), 1704164645000000u);
  EXPECT_EQ(Values(10), std::vector<Bytes>{Text("PLANE")});
  EXPECT_EQ(Number(72), 1704164645000000u);
}

TEST_F(AircraftEvent, MissingAttributesAreNamed) {
  ASSERT_TRUE(ConvertPair(
      Spi(), Event(kAircraft, "P", kTime,
                   Point("1", "1", "1") + "<attitude pitch=\"1\" r=\"1\"/>" + "<track c=\"1\" speed=\"1\"/>")));
  ExpectLog(3, "cotField \"course\" not found\n");
  ExpectLog(3, "cotField \"roll\" not found\n");
  AllowLogs(3, "field ");
  EXPECT_FALSE(Has(7));
  EXPECT_EQ(Number(9), 1u);
}

TEST_F(AircraftEvent, UnparsableStartRepeatsTheTimeStamp) {
  AllowMissing();
  EXPECT_EQ(Convert(Spi()), 0);
  EXPECT_GT(Convert("<event uid=\"P\" type=\"a-f-A\" time=\"2024-01-02T03:04:05.10Z\" start=\"soon\"></event>"), 0);
  ExpectLog(3, "failed in cvt_strptime()!\n");
  ExpectLog(3, "failed to get uSecs for start soon");
  EXPECT_EQ(Number(72), 1704164645100000u);
}

TEST_F(AircraftEvent, MissingStartAndUidAreSkipped) {
  AllowMissing();
  EXPECT_EQ(Convert(Spi()), 0);
  EXPECT_GT(Convert("<event type=\"a-f-A\" time=\"2024-01-02T03:04:05.10Z\"></event>"), 0);
  ExpectLog(3, "cotField \"start\" not found\n");
  ExpectLog(3, "cotField \"uid\" not found\n");
  EXPECT_FALSE(Has(72));
  EXPECT_FALSE(Has(10));
}

TEST_F(AircraftEvent, MissingTimeDropsTheEvent) {
  const std::string event = "<event uid=\"P\" type=\"a-f-A\">";
  cvtXmlMsg message = {};
  EXPECT_EQ(cvt_processAircraftMsg(m_converter, event.c_str(), static_cast<uint32_t>(event.size()), &message), -1);
  ExpectLog(3, "failed to find timeStamp field !\n");
  EXPECT_EQ(cvt_processSpiMsg(m_converter, "<event uid", 10, &message), -1);
  ExpectLog(3, "not found <event> tag slice!\n");
  AllowLogs(3, "not found\n");
  AllowLogs(4, "slice > not found\n");
}

TEST_F(AircraftEvent, UidOfSixtyFourCharactersIsKeptWhole) {
  AllowMissing();
  const std::string uid(64, 'u');
  ASSERT_TRUE(ConvertPair(Spi(), Event(kAircraft, uid, kTime, "")));
  EXPECT_EQ(Values(10), std::vector<Bytes>{Text(uid)});
  ExpectLog(7, "aircraft uid=\"" + uid + "\"");
}

TEST_F(AircraftEvent, SignColumnIsOneForUnsigned) {
  EXPECT_EQ(cotToKlv_airTrackTable[0].sign, 1) << "course, 0 to 360";
  EXPECT_EQ(cotToKlv_airPointTable[0].sign, 0) << "latitude, -90 to 90";
  EXPECT_EQ(cotToKlv_airAttitudeTable[1].sign, 0);
}

TEST_F(SpiEvent, ErrorEstimatesAreScaledTo90Percent) {
  AllowMissing();
  ASSERT_TRUE(ConvertSpi(Point("1", "1", "1", " le=\"10\" ce=\"10\"")));
  EXPECT_EQ(Number(46), 263u);
  EXPECT_EQ(Number(45), 343u);
  ASSERT_TRUE(ConvertSpi(Point("1", "1", "1", " le=\"2500\" ce=\"2500\"")));
  EXPECT_FALSE(Has(46) || Has(45));
  ExpectLog(3, "SPI_POINT_LE value of 2500 (4112.134500) is out of 0 to 4095 range.\n");
  ExpectLog(3, "out of range value detected for key=46, value=(PROTECTED)\n");
  ExpectLog(3, "SPI_POINT_LE value of 2500 (5364.915062) is out of 0 to 4095 range.\n");
  ExpectLog(3, "out of range value detected for key=45, value=(PROTECTED)\n");
  ASSERT_TRUE(ConvertSpi(Point("1", "1", "1", " le=\"nan\" ce=\"-1\"")));
  EXPECT_FALSE(Has(46) || Has(45));
  AllowLogs(3, "range");
}

TEST_F(SpiEvent, PositionOutOfRangeIsMarkedAndLogged) {
  AllowMissing();
  ASSERT_TRUE(ConvertSpi(Point("90.5", "-181", "1")));
  EXPECT_EQ(Number(23), 0x80000000u);
  EXPECT_EQ(Number(24), 0x80000000u);
  EXPECT_FALSE(Has(25));
  ExpectLog(3, "SPI_POINT_LAT value of 90.500000 is out of -90 to 90 range.\n");
  ExpectLog(3, "SPI_POINT_LON value of -181.000000 is out of -180 to 180 range.\n");
  ExpectLog(3, "miss info to calcul undulation of hae\n");
}

TEST_F(SpiEvent, FrameCentreElevationIsAboveTheGeoid) {
  AllowMissing();
  LoadFlatGrid(10);
  ASSERT_TRUE(ConvertSpi(Point("1", "-1", "110")));
  EXPECT_EQ(Number(25), 3293u);  // (100 + 900) * 3.2932161
  ExpectLog(7, "add spi hae. undulation = 10.000000\n");
  ASSERT_TRUE(ConvertSpi(Point("1", "-1", "-2000")));
  EXPECT_FALSE(Has(25));
  ExpectLog(3, "out of range value detected for key=25, value=(PROTECTED)\n");
  free_ww15mgh_grd();
  ASSERT_TRUE(ConvertSpi(Point("1", "-1", "110")));
  EXPECT_FALSE(Has(25));
  ExpectLog(3, "failed to calcul_undulation!\n");
}

TEST_F(SpiEvent, MissingPointGoesOnWithTheSensor) {
  ASSERT_TRUE(
      ConvertSpi(Sensor("vfov=\"180\" fov=\"180\" model=\"IR\" azimuth=\"1\" elevation=\"1\" roll=\"1\" range=\"0\"")));
  ExpectLog(3, "not found <point> tag slice!\n");
  EXPECT_FALSE(Has(23));
  EXPECT_EQ(Number(17), 65535u);
  EXPECT_EQ(Number(16), 65535u);
  EXPECT_EQ(Number(21), 0u);
}

TEST_F(SpiEvent, MissingAttributesAreLoggedAsFounded) {
  ASSERT_TRUE(ConvertSpi("<point lat=\"1\" lon=\"1\" hae=\"1\" le=\"1\" no=\"1\"/><sensor model=\"EO\" fov=\"1\"/>"));
  AllowMissing();
  ExpectLog(3, "cotField \"ce\" not founded\n");
  ExpectLog(3, "cotField \"azimuth\" not founded\n");
}

TEST_F(SpiEvent, FieldsOfViewOutOfRangeAreLoggedWithTheirText) {
  AllowMissing();
  ASSERT_TRUE(ConvertSpi(Sensor("fov=\"180.01\" vfov=\"-1\"")));
  EXPECT_FALSE(Has(16));
  ExpectLog(3, "SPI_SENSOR_FOV value of 180.01 (180.010000) is out of 0 to 180 range.\n");
  ExpectLog(3, "out of range value detected for key=16, value=(PROTECTED)\n");
  EXPECT_FALSE(Has(17));
  ExpectLog(3, "SPI_SENSOR_VFOV value of -1 (-1.000000) is out of 0 to 180 range.\n");
  ExpectLog(3, "out of range value detected for key=17, value=(PROTECTED)\n");
}

TEST_F(SpiEvent, RangeSaturates) {
  AllowMissing();
  ASSERT_TRUE(ConvertSpi(Sensor("range=\"5000000\"")));
  EXPECT_EQ(Number(21), 0xFFFFFFFFu);
  ASSERT_TRUE(ConvertSpi(Sensor("range=\"5000000.5\"")));
  EXPECT_FALSE(Has(21));
  ExpectLog(3, "SPI_SENSOR_RANGE value of 5000000.5 (5000000.500000) is out of 0 to 5000000 range.\n");
  ExpectLog(3, "out of range value detected for key=21, value=(PROTECTED)\n");
}

TEST_F(SpiEvent, UidAndModelBothGiveTag11) {
  ASSERT_TRUE(ConvertPair(Aircraft(), Spi()));
  EXPECT_EQ(Values(11), (std::vector<Bytes>{Text("SPI1"), Text("EO")}));
}

TEST_F(SpiEvent, MissingUidIsSkipped) {
  AllowMissing();
  EXPECT_EQ(Convert(Aircraft()), 0);
  EXPECT_GT(Convert("<event type=\"b-m-p-s-p-i\" time=\"2024-01-02T03:04:05Z\"></event>"), 0);
  ExpectLog(3, "cotField \"uid\" not found\n");
  EXPECT_FALSE(Has(11));
}

// Converts a pair with these angles and checks the relative angle items.
class RelativeAngles : public ConverterTest {
 protected:
  void Pair(const std::string& course, const std::string& pitch, const std::string& roll, const std::string& azimuth,
            const std::string& elevation, const std::string& sensorRoll) {
    AllowMissing();
    AllowLogs(3, "out of range");
    ASSERT_TRUE(ConvertPair(
        Aircraft(kTime, Track(course, "1") + Attitude(pitch, roll)),
        Spi(kTime, "S",
            Sensor("azimuth=\"" + azimuth + "\" elevation=\"" + elevation + "\" roll=\"" + sensorRoll + "\""))));
  }
};

TEST_F(RelativeAngles, AzimuthIsTheAbsoluteDifference) {
  Pair("350", "0", "0", "10", "0", "0");
  EXPECT_EQ(Number(0x12), 4056358001u);
  ExpectLog(7, "adding azimuth key (0x12): klv value = 0xf1c71c71 \n");
}

TEST_F(RelativeAngles, AzimuthAndRollAreCutToWholeDegreesAndElevationIsNot) {
  Pair("100.7", "1.25", "-3.5", "90", "-10.5", "5.4");
  EXPECT_EQ(Number(0x12), 119304647u);    // 10.7 to the left becomes 10
  EXPECT_EQ(Number(0x14), 95443718u);     // 8.9 becomes 8
  EXPECT_EQ(Signed32(0x13), -140182960);  // -11.75
}

TEST_F(RelativeAngles, PitchOutOfRangeMarksElevationAndDropsRoll) {
  Pair("1", "91", "-91", "1", "1", "1");
  EXPECT_EQ(Number(0x13), 0x80000000u);
  EXPECT_FALSE(Has(0x14));
  ExpectLog(7, "adding spi elevation key (0x13): klv value = 0x80000000 \n");
  ExpectLog(7, "no spi roll key will be added to KLV \n");
}

TEST_F(RelativeAngles, ElevationBeyond180IsMarked) {
  Pair("1", "-90", "0", "1", "90.5", "1");
  EXPECT_EQ(Number(0x13), 0x80000000u);
  Pair("1", "-90", "0", "1", "90", "1");
  EXPECT_EQ(Signed32(0x13), 2147483647);
}

TEST_F(RelativeAngles, DifferencesAbove360AreSkipped) {
  Pair("0", "0", "0", "360.9", "0", "-360.9");
  EXPECT_EQ(Number(0x12), 0xFFFFFFFFu);
  EXPECT_EQ(Number(0x14), 0xFFFFFFFFu);
  Pair("0", "0", "0", "361", "0", "361");
  EXPECT_FALSE(Has(0x12) || Has(0x14));
  ExpectLog(7, "no azimuth key will be added to KLV. cours = 0.000000, azimuth = 361.000000  \n");
}

TEST_F(RelativeAngles, NonFiniteAnglesAreSkippedOrMarked) {
  for (const char* angle : {"nan", "inf", "-inf", "1e308"}) {
    Pair("0", "0", "0", angle, angle, angle);
    EXPECT_FALSE(Has(0x12)) << angle;
    EXPECT_EQ(Number(0x13), 0x80000000u) << angle;
    EXPECT_FALSE(Has(0x14)) << angle;
  }
}

TEST_F(RelativeAngles, AnglesOfAnOlderPairAreForgottenOnlyWithTheOption) {
  Pair("10", "1", "1", "20", "1", "1");
  EXPECT_TRUE(Has(0x12));
  ASSERT_TRUE(ConvertPair(Aircraft(kTime, ""), Spi(kTime, "S", "")));
  EXPECT_FALSE(Has(0x12) || Has(0x13) || Has(0x14));
  ExpectLog(7, "no spi elevation key will be added to KLV \n");
  m_converter->a_course = 5;
  _g_bAllItemsSupport = FALSE;
  ASSERT_TRUE(ConvertPair(Aircraft(kTime, ""), Spi(kTime, "S", "")));
  EXPECT_EQ(m_converter->a_course, 5.0f);
}

}  // namespace
