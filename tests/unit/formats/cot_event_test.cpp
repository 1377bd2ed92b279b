// SPDX-License-Identifier: Apache-2.0
#include "cot_event.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>

#include "tak_protocol.h"

namespace cot {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::string Read(const std::string& name) {
  std::ifstream file(std::filesystem::path(METADATA_COT_EVENTS_DIR) / name, std::ios::binary);
  EXPECT_TRUE(file) << name;
  return {std::istreambuf_iterator<char>(file), {}};
}

Prepared PrepareText(const std::string& xml) {
  return Prepare(std::span(reinterpret_cast<const uint8_t*>(xml.data()), xml.size()));
}

constexpr char kTimes[] = "time='2024-05-06T07:08:09.5Z' start='2024-05-06T07:08:08Z' stale='2024-05-06T07:09:09Z'";

std::string Xml(const std::string& type, const std::string& point, const std::string& detail) {
  return "<event version='2.0' uid='U' type='" + type + "' " + kTimes + " how='m-g'><point " + point + "/><detail>" +
         detail + "</detail></event>";
}
std::string Aircraft(const std::string& detail) {
  return Xml("a-f-A-M-F-Q", "lat='1.5' lon='-2.5' hae='100' ce='10' le='20'", detail);
}
std::string Sensor(const std::string& detail) {
  return Xml("b-m-p-s-p-i", "lat='1.5' lon='-2.5' hae='100' ce='10' le='20'", detail);
}

TEST(CotEvent, PutsFirstWhatTheConverterReads) {
  const Prepared prepared = PrepareText(Aircraft("<contact callsign='C'/><track speed='3' course='4.5'/>"));
  EXPECT_EQ(prepared.verdict, Verdict::Ready);
  EXPECT_TRUE(prepared.isAircraft);
  EXPECT_EQ(prepared.uid, "U");
  EXPECT_EQ(prepared.datagram,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><event type=\"a-f-A-M-F-Q\" time=\"2024-05-06T07:08:09.5Z\" "
            "start=\"2024-05-06T07:08:08Z\" uid=\"U\" stale=\"2024-05-06T07:09:09Z\" how=\"m-g\" version=\"2.0\">"
            "<point lat=\"1.5\" lon=\"-2.5\" hae=\"100\" ce=\"10\" le=\"20\"/><detail>"
            "<track course=\"4.5\" speed=\"3\"/><contact callsign=\"C\"/></detail></event>");
}

TEST(CotEvent, UnknownErrorsBecomeTheLargestThatTheirItemsHold) {
  for (const std::string unknown : {"9999999.0", "999999", "1908.3", "-1", "nan", "inf", "", "x"}) {
    const Prepared prepared =
        PrepareText(Xml("b-m-p-s-p-i", "lat='1' lon='2' hae='3' ce='" + unknown + "' le='9999999.0'", ""));
    EXPECT_THAT(prepared.datagram, HasSubstr("ce=\"1908.2\" le=\"2489.5\"")) << unknown;
  }
  EXPECT_THAT(PrepareText(Xml("b-m-p-s-p-i", "lat='1' lon='2'", "")).datagram,
              HasSubstr("hae=\"9999999.0\" ce=\"1908.2\" le=\"2489.5\"/>"));
  EXPECT_LE(1908.2 * 2.145966025, 4095);
  EXPECT_LE(2489.5 * 1.6448538, 4095);
}

TEST(CotEvent, NoNameStandsBehindOneThatContainsIt) {
  const Prepared prepared = PrepareText(
      Sensor("<sensor vfov='5.5' fovBlue='1' model='roll cam' fov='10.5' elevation='-20' roll='0' range='2500' "
             "azimuth='200' type='r-e'/>"));
  EXPECT_THAT(prepared.datagram,
              HasSubstr("<sensor fov=\"10.5\" vfov=\"5.5\" azimuth=\"200\" elevation=\"-20\" roll=\"0\" range=\"2500\" "
                        "model=\"roll cam\" fovBlue=\"1\" type=\"r-e\"/>"));
}

TEST(CotEvent, LeavesOutWhatWouldBeTakenForAnAbsentName) {
  const Prepared prepared = PrepareText(Sensor("<sensor vfov='5.5' fovBlue='1' model='roll cam' type='r-e'/>"));
  EXPECT_THAT(prepared.datagram, HasSubstr("<sensor type=\"r-e\"/>"));
  const Prepared text = PrepareText(Aircraft("<track course='x' speed='nan'/>"));
  EXPECT_THAT(text.datagram, HasSubstr("<track/>"));
}

TEST(CotEvent, LeavesOutElementsThatWouldBeTakenForAbsentOnes) {
  const Prepared prepared = PrepareText(Aircraft("<tracker course='9'/><remarks>ok</remarks>"));
  EXPECT_THAT(prepared.datagram, HasSubstr("<detail><remarks>ok</remarks></detail>"));
  EXPECT_EQ(prepared.leftOut, 1U);
  const Prepared both = PrepareText(Aircraft("<tracker course='9'/><track course='1' speed='2'/>"));
  EXPECT_THAT(both.datagram, HasSubstr("<track course=\"1\" speed=\"2\"/><tracker course=\"9\"/>"));
  EXPECT_EQ(both.leftOut, 0U);
}

TEST(CotEvent, FitsIntoADatagram) {
  std::string detail = "<remarks>" + std::string(2000, 'x') + "</remarks><contact callsign='C'/>";
  const Prepared prepared = PrepareText(Aircraft(detail + "<track course='1' speed='2'/>"));
  EXPECT_EQ(prepared.verdict, Verdict::Ready);
  EXPECT_EQ(prepared.leftOut, 1U);
  EXPECT_LE(prepared.datagram.size(), kLargestDatagram);
  EXPECT_THAT(prepared.datagram, HasSubstr("<track course=\"1\" speed=\"2\"/><contact callsign=\"C\"/>"));
  const std::string spare(kLargestDatagram - PrepareText(Aircraft("<remarks></remarks>")).datagram.size() - 10, 'x');
  for (const size_t more : {9U, 10U, 11U, 12U, 13U}) {
    const Prepared full = PrepareText(Aircraft("<remarks>" + spare + std::string(more, 'x') + "</remarks>"));
    EXPECT_LE(full.datagram.size(), kLargestDatagram);
    EXPECT_EQ(full.verdict, Verdict::Ready);
  }
  const Prepared sensor = PrepareText(Sensor("<sensor fov='1' other='" + std::string(1500, 'x') + "'/>"));
  EXPECT_THAT(sensor.datagram, HasSubstr("<sensor fov=\"1\"/>"));
  EXPECT_EQ(PrepareText(Sensor("<sensor model='" + std::string(1500, 'x') + "'/>")).verdict, Verdict::TooLong);
}

TEST(CotEvent, TellsOtherKindsFromFaults) {
  EXPECT_EQ(PrepareText(Read("client_ground.xml")).verdict, Verdict::OtherKind);
  EXPECT_EQ(PrepareText("<event uid='x' type='t-x-c-t'/>").verdict, Verdict::OtherKind);
  EXPECT_EQ(PrepareText(Xml("a-f-A", "lat='91' lon='0'", "")).verdict, Verdict::Faulty);
  EXPECT_EQ(PrepareText(Xml("a-f-A", "lat='0' lon='-181'", "")).verdict, Verdict::Faulty);
  EXPECT_EQ(PrepareText(Xml("a-f-A", "lat='x' lon='0'", "")).verdict, Verdict::Faulty);
  EXPECT_EQ(PrepareText(Xml("a-f A", "lat='0' lon='0'", "")).verdict, Verdict::Faulty);
  EXPECT_EQ(PrepareText("<event uid='x' type='a-f-A' time='soon'><point lat='0' lon='0'/></event>").verdict,
            Verdict::Faulty);
  EXPECT_EQ(PrepareText(std::string("<event type='a-f-A' ") + kTimes + "><point lat='0' lon='0'/></event>").verdict,
            Verdict::Faulty);
  const std::string longUid(65, 'u');
  EXPECT_EQ(
      PrepareText("<event uid='" + longUid + "' type='a-f-A' " + kTimes + "><point lat='0' lon='0'/></event>").verdict,
      Verdict::Faulty);
  for (const std::string text : {"", "<event", "<events/>", "text", "<event></even>"}) {
    EXPECT_EQ(PrepareText(text).verdict, Verdict::Faulty) << text;
  }
}

TEST(CotEvent, MarkupInValuesStaysEscaped) {
  const Prepared prepared = PrepareText(std::string("<event uid='&lt;point a=&quot;&gt;&#10;' type='a-f-A' ") + kTimes +
                                        "><point lat='0' lon='0'/></event>");
  EXPECT_THAT(prepared.datagram, HasSubstr("uid=\"&lt;point a=&quot;&gt;&#10;\""));
}

TEST(CotEvent, MessagesOfTheProtocolMakeTheSameDatagramsAsXml) {
  for (const std::string name : {"client_aircraft", "client_spi", "level_flight_aircraft", "southern_bank_spi"}) {
    const Prepared xml = PrepareText(Read(name + ".xml"));
    const std::string bytes = Read(name + ".pb");
    const tak::Message message =
        tak::ParseMessage(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
    ASSERT_TRUE(message.event);
    const Prepared protobuf = Prepare(*message.event);
    EXPECT_EQ(protobuf.verdict, Verdict::Ready);
    // What the converter reads ends with the last element that it knows; the others are in another order.
    const auto known = [](const std::string& datagram) {
      std::string text = datagram.substr(0, datagram.find("<detail>"));
      for (const char* const element : {"<track ", "<attitude ", "<sensor "}) {
        const size_t begin = datagram.find(element);
        if (begin != std::string::npos) text += datagram.substr(begin, datagram.find("/>", begin) - begin);
      }
      return text;
    };
    EXPECT_EQ(known(protobuf.datagram), known(xml.datagram)) << name;
  }
}

TEST(CotEvent, AMessageOfTheProtocolWithoutATimeOrWithBrokenDetailIsFaulty) {
  tak::Event event;
  event.type = "a-f-A";
  event.uid = "U";
  event.sendTime = UINT64_MAX;
  EXPECT_EQ(Prepare(event).verdict, Verdict::Faulty);
  event.sendTime = 1714979290250;
  EXPECT_THAT(Prepare(event).datagram,
              HasSubstr("time=\"2024-05-06T07:08:10.250Z\" start=\"2024-05-06T07:08:10.250Z\""));
  event.xmlDetail = "<remarks>";
  EXPECT_EQ(Prepare(event).verdict, Verdict::Faulty);
  event.xmlDetail = "<track course='1' speed='2'/>";
  event.elements = {{"track", {{"course", "3"}, {"speed", "4"}}}};
  EXPECT_THAT(Prepare(event).datagram, Not(HasSubstr("course=\"3\"")));
}

}  // namespace
}  // namespace cot
