// SPDX-License-Identifier: Apache-2.0
#include "tak_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

namespace tak {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<uint8_t> Read(const std::string& name) {
  std::ifstream file(std::filesystem::path(METADATA_COT_EVENTS_DIR) / name, std::ios::binary);
  EXPECT_TRUE(file) << name;
  return {std::istreambuf_iterator<char>(file), {}};
}

Event Whole() {
  Event event;
  event.type = "a-f-A-M-F-Q";
  event.access = "Unclassified";
  event.qos = "5-r-c";
  event.opex = "o-1";
  event.uid = "AIRCRAFT";
  event.sendTime = 1714979289000;
  event.startTime = 1714979289001;
  event.staleTime = 1714979349000;
  event.how = "m-g";
  event.lat = 45.5;
  event.lon = -73.25;
  event.hae = 1000;
  event.ce = 9.5;
  event.le = 8.5;
  event.xmlDetail = "<remarks>text</remarks>";
  event.elements = {{"contact", {{"endpoint", "*:-1:stcp"}, {"callsign", "HAWK"}}},
                    {"__group", {{"name", "Cyan"}, {"role", "HQ"}}},
                    {"precisionlocation", {{"geopointsrc", "GPS"}, {"altsrc", "DTED0"}}},
                    {"status", {{"battery", "87"}}},
                    {"takv", {{"device", "D"}, {"platform", "P"}, {"os", "31"}, {"version", "4"}}},
                    {"track", {{"speed", "31.5"}, {"course", "123.25"}}}};
  return event;
}

TEST(TakMessage, ReadsWhatAnIndependentLibraryWrote) {
  const Message message = ParseMessage(Read("client_aircraft.pb"));
  ASSERT_TRUE(message.isValid);
  ASSERT_TRUE(message.event);
  const Event& event = *message.event;
  EXPECT_EQ(event.type, "a-f-A-M-F-Q");
  EXPECT_EQ(event.uid, "CLIENT-AIRCRAFT");
  EXPECT_EQ(event.how, "m-g");
  EXPECT_EQ(event.sendTime, 1714979290250U);
  EXPECT_EQ(event.startTime, 1714979290250U);
  EXPECT_EQ(event.staleTime, 1714979350250U);
  EXPECT_EQ(event.lat, 45.5);
  EXPECT_EQ(event.lon, -73.5);
  EXPECT_EQ(event.hae, 1000);
  EXPECT_EQ(event.ce, 9999999.0);
  EXPECT_THAT(event.xmlDetail, HasSubstr("<attitude yaw=\"0\" roll=\"1.5\" pitch=\"-2.5\"/>"));
  EXPECT_THAT(event.elements, testing::Contains(DetailElement{"track", {{"speed", "31.5"}, {"course", "123.25"}}}));
  EXPECT_THAT(event.elements,
              testing::Contains(DetailElement{"contact", {{"endpoint", "*:-1:stcp"}, {"callsign", "HAWK 2"}}}));
  EXPECT_THAT(event.elements, testing::Contains(DetailElement{"status", {{"battery", "87"}}}));
}

TEST(TakMessage, IsReadAsItWasWritten) {
  const Event event = Whole();
  const Message message = ParseMessage(FormatMessage(event));
  ASSERT_TRUE(message.event);
  EXPECT_EQ(*message.event, event);
}

TEST(TakMessage, LeavesZerosOutAndReadsThem) {
  EXPECT_THAT(FormatMessage({}), IsEmpty());
  Event event;
  event.type = "t";
  const Message message = ParseMessage(FormatMessage(event));
  ASSERT_TRUE(message.event);
  EXPECT_EQ(*message.event, event);
}

TEST(TakMessage, WithoutAnEventIsValid) {
  const Message empty = ParseMessage({});
  EXPECT_TRUE(empty.isValid);
  EXPECT_FALSE(empty.event);
  const uint8_t control[] = {0x0A, 0x02, 0x08, 0x01};
  EXPECT_TRUE(ParseMessage(control).isValid);
  EXPECT_FALSE(ParseMessage(control).event);
}

TEST(TakMessage, ThatIsCutAnywhereIsNoneOrLacksItsEventOnly) {
  const std::vector<uint8_t> whole = FormatMessage(Whole());
  for (size_t size = 1; size < whole.size(); ++size) {
    EXPECT_FALSE(ParseMessage(std::span(whole).first(size)).isValid) << size;
  }
}

TEST(TakMessage, SkipsFieldsThatItDoesNotKnow) {
  // Numbers 99 (varint), 98 (8 bytes), 97 (4 bytes) and 96 (text), in the message and in the event.
  const std::vector<uint8_t> unknown = {0x98, 0x06, 0xFF, 0x01, 0x91, 0x06, 1, 2, 3,    4,    5, 6,
                                        7,    8,    0x8D, 0x06, 1,    2,    3, 4, 0x82, 0x06, 1, 'x'};
  std::vector<uint8_t> event = unknown;
  event.insert(event.end(), {0x0A, 3, 'a', '-', 'f'});
  std::vector<uint8_t> bytes = unknown;
  bytes.insert(bytes.end(), {0x12, static_cast<uint8_t>(event.size())});
  bytes.insert(bytes.end(), event.begin(), event.end());
  const Message message = ParseMessage(bytes);
  ASSERT_TRUE(message.event);
  EXPECT_EQ(message.event->type, "a-f");
}

TEST(TakMessage, RefusesWhatIsNoMessage) {
  EXPECT_FALSE(ParseMessage(std::vector<uint8_t>{0x13}).isValid) << "a group";
  EXPECT_FALSE(ParseMessage(std::vector<uint8_t>{0x02, 0x00}).isValid) << "field number 0";
  EXPECT_FALSE(ParseMessage(std::vector<uint8_t>(11, 0xFF)).isValid) << "a number without end";
  EXPECT_FALSE(ParseMessage(std::vector<uint8_t>{0x12, 0x7F, 0x00}).isValid) << "longer than what there is";
}

TEST(TakMessage, RepeatedElementsDoNotAddUp) {
  Event event;
  event.elements = {{"contact", {{"callsign", "ONE"}}}, {"contact", {{"callsign", "TWO"}}}};
  const Message message = ParseMessage(FormatMessage(event));
  ASSERT_TRUE(message.event);
  EXPECT_THAT(message.event->elements, ElementsAre(DetailElement{"contact", {{"callsign", "TWO"}}}));
}

TEST(TakVarint, ReadsUpTo64Bits) {
  EXPECT_EQ(ParseVarint(std::vector<uint8_t>{0x7F}).value, 0x7FU);
  EXPECT_EQ(ParseVarint(std::vector<uint8_t>{0x80, 0x01}).value, 0x80U);
  std::vector<uint8_t> largest(9, 0xFF);
  EXPECT_EQ(ParseVarint(largest).size, 0U);
  EXPECT_TRUE(ParseVarint(largest).isValid);
  largest.push_back(0x01);
  EXPECT_EQ(ParseVarint(largest).value, UINT64_MAX);
  EXPECT_EQ(ParseVarint(largest).size, 10U);
  largest.back() = 0x02;
  EXPECT_FALSE(ParseVarint(largest).isValid);
  largest.back() = 0x81;
  EXPECT_FALSE(ParseVarint(largest).isValid);
}

std::string PayloadText(const Datagram& datagram) {
  return {datagram.payload.begin(), datagram.payload.end()};
}

TEST(TakDatagram, TellsXmlFromProtobuf) {
  const std::string xml = "<event/>";
  const std::vector<uint8_t> plain(xml.begin(), xml.end());
  EXPECT_EQ(ParseDatagram(plain).kind, Datagram::Kind::Xml);
  EXPECT_EQ(PayloadText(ParseDatagram(plain)), xml);
  std::vector<uint8_t> withHeader = {0xBF, 0x00, 0xBF};
  withHeader.insert(withHeader.end(), xml.begin(), xml.end());
  EXPECT_EQ(ParseDatagram(withHeader).kind, Datagram::Kind::Xml);
  EXPECT_EQ(PayloadText(ParseDatagram(withHeader)), xml);
  const std::vector<uint8_t> protobuf = FormatDatagram(Whole());
  EXPECT_EQ(ParseDatagram(protobuf).kind, Datagram::Kind::Protobuf);
  EXPECT_EQ(*ParseMessage(ParseDatagram(protobuf).payload).event, Whole());
}

TEST(TakDatagram, RefusesOtherVersionsAndCutHeaders) {
  for (const std::vector<uint8_t>& bytes :
       {std::vector<uint8_t>{0xBF}, {0xBF, 0x01}, {0xBF, 0x01, 0x00}, {0xBF, 0x02, 0xBF, 0x00}, {0xBF, 0x80, 0xBF}}) {
    EXPECT_EQ(ParseDatagram(bytes).kind, Datagram::Kind::Unknown);
  }
}

}  // namespace
}  // namespace tak
