// SPDX-License-Identifier: Apache-2.0
// The conversion of events against its plain form, over random pairs, whole and damaged.
#include "slow_forms.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "converter_fixture.h"
#include "random_events.h"

namespace {

// Each has a dozen attributes; fewer events where every instruction costs ten.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__aarch64__) || defined(__clang__)
constexpr int kEvents = 10000;
#else
constexpr int kEvents = 100000;
#endif

class ConverterSlowForms : public ConverterTest {
 protected:
  using Form = int (*)(CONVERTER_INSTANCE_DATA*, const char*, uint32_t, cvtXmlMsg*);
  struct Side {
    HCONVERTER converter = nullptr;
    cvtXmlMsg message = {};
    int result = 0;
    std::vector<std::string> lines;
  };

  void SetUp() override {
    ConverterTest::SetUp();
    for (Side& side : m_sides) {
      ASSERT_TRUE(AllocCoT2KLVConvert(&side.converter, 500000, "", TRUE));
      ASSERT_EQ(cvt_initXmlMsg(side.converter, &side.message), CVT_COTKLV_STATUS_OK);
    }
    host().ClearLogs();
  }

  void TearDown() override {
    for (Side& side : m_sides) {
      DoReleaseBuffer(&side.message.pBuffer);
      FreeCoT2KLVConvert(&side.converter);
    }
    ConverterTest::TearDown();
  }

  // Converts an event with one form. Sensors and angles stay from one event to the next.
  void Run(Side* side, Form form, const std::vector<char>& text, uint32_t length) {
    side->message.curKlvLen = kCvtFirstItemOffset;
    side->message.tmStampFlag = 0;
    memset(side->message.pKlvPacket, 0, kCvtPacketSize);
    side->result = form(side->converter, text.data(), length, &side->message);
    side->lines.clear();
    for (const LogLine& line : host().Logs()) side->lines.push_back(std::to_string(line.level) + " " + line.text);
    host().ClearLogs();
  }

  static bool SameAngles(const CONVERTER_INSTANCE_DATA& one, const CONVERTER_INSTANCE_DATA& other) {
    return memcmp(&one.a_course, &other.a_course,
                  offsetof(CONVERTER_INSTANCE_DATA, szSpiUid) - offsetof(CONVERTER_INSTANCE_DATA, a_course)) == 0;
  }

  void Compare(Form fast, Form slow) {
    auto& [one, other] = m_sides;
    for (int i = 0; i < kEvents; ++i) {
      host().SetLevel("COTCONVERTER", i % 4 == 0 ? 8 : 5);
      const std::string event = m_events.Any();
      // The text is in a block of its exact size, so that a sanitizer sees a read behind it.
      const std::vector<char> text(event.c_str(), event.c_str() + event.size() + 1);
      const uint32_t length = i % 8 == 0 ? 20 : static_cast<uint32_t>(event.size());
      Run(&one, fast, text, length);
      Run(&other, slow, text, length);
      ASSERT_EQ(one.lines, other.lines) << event;
      ASSERT_EQ(one.result, other.result) << event;
      ASSERT_EQ(one.message.curKlvLen, other.message.curKlvLen) << event;
      ASSERT_EQ(one.message.tmStampFlag, other.message.tmStampFlag) << event;
      ASSERT_EQ(memcmp(one.message.pKlvPacket, other.message.pKlvPacket, kCvtPacketSize), 0) << event;
      ASSERT_TRUE(SameAngles(*one.converter, *other.converter)) << event;
    }
    EXPECT_EQ(memcmp(one.converter->KnownSensors, other.converter->KnownSensors, sizeof(SensorTable)), 0);
  }

  Side m_sides[2];
  RandomEvents m_events{1};
};

TEST_F(ConverterSlowForms, AircraftEventsAreTheSame) {
  Compare(cvt_processAircraftMsg, slow::SlowProcessAircraft);
}

TEST_F(ConverterSlowForms, SensorPointEventsAreTheSame) {
  Compare(cvt_processSpiMsg, slow::SlowProcessSpi);
}

}  // namespace
