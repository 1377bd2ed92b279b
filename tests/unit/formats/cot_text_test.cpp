// SPDX-License-Identifier: Apache-2.0
// Events of Cursor-on-Target from what a message says.
#include "cot_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "observation.h"
#include "st0601_items.h"
#include "tak_protocol.h"

namespace {

using cot_text::Names;
using cot_text::PlatformEvent;
using cot_text::SensorPointEvent;
using cot_text::Times;
using st0601::Builder;
using st0601::Observation;
using testing::HasSubstr;
using testing::Not;

const Names kNames = {"MACHINE-udp", "a-f-A-M-F-Q", "udp"};
const Times kTimes = {1714558830123456, 1714558835123456};

Observation Seen(const Builder& builder) {
  return st0601::Observe(st0601::Parse(builder.Finish()));
}
Observation Flight() {
  Builder builder;
  builder.AddText(10, "UAV").AddText(11, "EO").Add(5, 90.0).Add(6, 10.0).Add(7, -5.0).Add(56, 61.0);
  builder.Add(13, 60.0).Add(14, 10.0).Add(15, 1500.0).Add(75, 1540.0).Add(16, 6.0).Add(17, 3.0);
  builder.Add(18, 300.0).Add(19, -30.0).Add(20, 1.0).Add(21, 4000.0).Add(23, 60.5).Add(24, 10.5).Add(25, 100.0);
  return Seen(builder);
}

TEST(CotText, PlatformHasTheViewOfItsSensor) {
  const std::string event = PlatformEvent(Flight(), kNames, kTimes);
  EXPECT_THAT(event, HasSubstr("<event version=\"2.0\" uid=\"MACHINE-udp\" type=\"a-f-A-M-F-Q\" how=\"m-g\" "
                               "time=\"2024-05-01T10:20:30.123Z\" start=\"2024-05-01T10:20:30.123Z\" "
                               "stale=\"2024-05-01T10:20:35.123Z\"><point lat=\"60.0000000\" lon=\"10.0000000\" "
                               "hae=\"1539.86\" "));
  EXPECT_THAT(event, HasSubstr("<contact callsign=\"UAV\"/><track course=\"90.001\" speed=\"61.00\"/>"));
  EXPECT_THAT(event, HasSubstr("<sensor azimuth=\"30.001\" elevation=\"-20.000\" roll=\"1.000\" fov=\"6.001\" "));
  EXPECT_THAT(event, HasSubstr("range=\"4000.00\" model=\"EO\""));
}

TEST(CotText, SensorPointIsTheFrameCenterOrElseTheTarget) {
  const std::string event = SensorPointEvent(Flight(), kNames, kTimes);
  EXPECT_THAT(event, HasSubstr(" uid=\"MACHINE-udp-SPI\" type=\"b-m-p-s-p-i\" "));
  EXPECT_THAT(event, HasSubstr("<point lat=\"60.5000000\" lon=\"10.5000000\" hae=\"99.93\" "));
  EXPECT_THAT(event, HasSubstr("<link uid=\"MACHINE-udp\" type=\"a-f-A-M-F-Q\" relation=\"p-p\"/>"));
  const Observation target = Seen(Builder().Add(40, 1.0).Add(41, 2.0));
  EXPECT_THAT(SensorPointEvent(target, kNames, kTimes), HasSubstr("<point lat=\"1.0000000\" lon=\"2.0000000\" "
                                                                  "hae=\"9999999.0\" ce=\"9999999.0\""));
}

TEST(CotText, WhatIsNotKnownIsLeftOut) {
  EXPECT_EQ(PlatformEvent(Seen(Builder().AddText(3, "M")), kNames, kTimes), "");
  EXPECT_EQ(SensorPointEvent(Seen(Builder().Add(13, 1.0).Add(14, 2.0)), kNames, kTimes), "");
  const std::string event = PlatformEvent(Seen(Builder().Add(13, 1.0).Add(14, 2.0)), kNames, kTimes);
  EXPECT_THAT(event, HasSubstr("<detail><contact callsign=\"udp\"/></detail></event>"));
}

TEST(CotText, TheTakProtocolSaysTheSame) {
  const std::string text = PlatformEvent(Flight(), kNames, kTimes, cot_text::Form::Tak);
  const std::vector<uint8_t> bytes(text.begin(), text.end());
  const tak::Datagram datagram = tak::ParseDatagram(bytes);
  ASSERT_EQ(datagram.kind, tak::Datagram::Kind::Protobuf);
  const tak::Message message = tak::ParseMessage(datagram.payload);
  ASSERT_TRUE(message.isValid && message.event);
  const tak::Event& event = *message.event;
  EXPECT_EQ(event.uid, "MACHINE-udp");
  EXPECT_EQ(event.type, "a-f-A-M-F-Q");
  EXPECT_EQ(event.how, "m-g");
  EXPECT_EQ(event.sendTime, 1714558830123U);
  EXPECT_EQ(event.staleTime, 1714558835123U);
  EXPECT_NEAR(event.lat, 60, 1e-6);
  EXPECT_NEAR(event.hae, 1540, 0.2);
  EXPECT_EQ(event.ce, 9999999);
  ASSERT_EQ(event.elements.size(), 2u);
  EXPECT_EQ(event.elements[0].name, "contact");
  EXPECT_EQ(event.elements[1].name, "track");
  EXPECT_THAT(event.xmlDetail, testing::StartsWith("<attitude pitch=\"10.000\" "));
  EXPECT_THAT(event.xmlDetail, HasSubstr("<sensor azimuth=\"30.001\" "));
}

TEST(CotText, TheCourseIsNotTheHeadingWhereBothAreKnown) {
  Builder builder;
  builder.Add(13, 1.0).Add(14, 2.0).Add(5, 90.0).Add(56, 10.0).Add(112, 200.0);
  EXPECT_THAT(PlatformEvent(Seen(builder), kNames, kTimes), HasSubstr("<track course=\"200.0"));
}

TEST(CotText, ACourseWithoutASpeedHasNoField) {
  const std::string text =
      PlatformEvent(Seen(Builder().Add(13, 1.0).Add(14, 2.0).Add(5, 90.0)), kNames, kTimes, cot_text::Form::Tak);
  EXPECT_THAT(text, HasSubstr("<track course=\"90.001\"/>"));
}

TEST(CotText, HostileTextsAreShortAndEscaped) {
  Builder builder;
  builder.AddText(10, std::string(300, '"')).AddText(11, "\"/><event>\n\x1B" + std::string(300, '<'));
  for (uint32_t tag : {5U, 6U, 7U, 13U, 14U, 15U, 16U, 17U, 18U, 19U, 20U, 21U, 23U, 24U, 25U, 56U})
    builder.Add(tag, 15.0);
  for (const std::string& event :
       {PlatformEvent(Seen(builder), kNames, kTimes), SensorPointEvent(Seen(builder), kNames, kTimes)}) {
    EXPECT_LE(PlatformEvent(Seen(builder), kNames, kTimes, cot_text::Form::Tak).size(), event.size());
    EXPECT_LE(event.size(), 1500u);
    EXPECT_EQ(std::count(event.begin(), event.end(), '<'), std::count(event.begin(), event.end(), '>'));
    EXPECT_THAT(event, HasSubstr("model=\"&quot;/&gt;&lt;event&gt;\\n\\x1B&lt;"));
    EXPECT_THAT(event, Not(HasSubstr("\n")));
  }
  const std::string accents = std::string(59, 'a') + "\xC3\xA9";
  EXPECT_THAT(PlatformEvent(Seen(Builder().AddText(10, accents).Add(13, 1.0).Add(14, 1.0)), kNames, kTimes),
              HasSubstr("callsign=\"" + std::string(59, 'a') + "\""))
      << "no half characters";
}

}  // namespace
