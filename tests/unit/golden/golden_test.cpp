// SPDX-License-Identifier: Apache-2.0
// Packets that are the same to the byte on every machine: rewritten messages, and packets made from events. A sum that
// changed means that a compiler, a processor or a change of the code makes other bytes.
//
// The sums are FNV-1a over the length and the bytes of each packet. Those of the input tell a changed input from a
// changed packet: the simulated flight is computed with the C library's sine and cosine.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <iostream>
#include <optional>
#include <string>

#include "builders.h"
#include "converter.h"
#include "cot_flight.h"
#include "fake_host.h"
#include "flight.h"
#include "klv_flight.h"
#include "misb0601_processing.h"

namespace {

class Sum {
 public:
  void Add(const void* data, size_t size) {
    AddByte(static_cast<uint8_t>(size));
    AddByte(static_cast<uint8_t>(size >> 8));
    for (size_t i = 0; i < size; ++i) AddByte(static_cast<const uint8_t*>(data)[i]);
    ++m_count;
  }
  void Add(const Bytes& bytes) { Add(bytes.data(), bytes.size()); }
  std::string Text() const {
    char text[48];
    std::snprintf(text, sizeof(text), "%d packets, %016llX", m_count, static_cast<unsigned long long>(m_sum));
    return text;
  }

 private:
  void AddByte(uint8_t byte) { m_sum = (m_sum ^ byte) * 0x100000001B3; }

  uint64_t m_sum = 0xCBF29CE484222325;
  int m_count = 0;
};

// A generator of its own, because a library may draw other numbers on other machines.
class Draws {
 public:
  int Below(int limit) {
    m_state = m_state * 6364136223846793005u + 1442695040888963407u;
    return static_cast<int>((m_state >> 33) % static_cast<uint64_t>(limit));
  }
  // Returns a decimal number between the two, with a number of decimals that varies too.
  std::string Decimal(int low, int high) {
    const int whole = low + Below(high - low);
    const int decimals = 1 + Below(9);
    char text[32];
    std::snprintf(text, sizeof(text), "%d.%0*d", whole, decimals, Below(10));
    for (char* digit = text; *digit != '\0'; ++digit) {
      if (*digit == '0' && digit != text) *digit = static_cast<char>('0' + Below(10));
    }
    return text;
  }

 private:
  uint64_t m_state = 1;
};

// The source that rewrites: it keeps a third of the tags and adds identifier and security set.
class Golden : public HostTest {
 protected:
  void SetUp() override {
    m_source = static_cast<MDATA_SRC_HANDLE>(calloc(1, sizeof(tagMDATA_SRC_HANDLE)));
    m_source->pMissionID = AllocMissionID("GOLDEN 01");
    m_source->nMissionIDElementSize = m_source->pMissionID->cLength + 2;
    m_source->pSecurityMDataSet = AllocSecurityMetadata(4, "USA", "CAN");
    m_source->nSecurityMDataSetSize = m_source->pSecurityMDataSet->Length + 2;
    m_source->Config.bFilterUASTags = TRUE;
    for (int tag = 2; tag < 128; ++tag) {
      if (tag % 3 != 1) m_source->Config.UASTagFilter[tag / 32] |= 1u << (tag % 32);
    }
    _g_pGrid = static_cast<float*>(calloc(kGridValues, sizeof(float)));
    for (int i = 0; i < kGridValues; ++i) _g_pGrid[i] = static_cast<float>(i * 37 % 19000) / 100 - 105;
    ASSERT_TRUE(AllocCoT2KLVConvert(&m_converter, 40000, "", FALSE));
    host().SetLevel("METADATALIB", 0);
    host().SetLevel("COTCONVERTER", 0);
  }
  void TearDown() override {
    FreeCoT2KLVConvert(&m_converter);
    free_ww15mgh_grd();
    free(m_source->pMissionID);
    free(m_source->pSecurityMDataSet);
    free(m_source);
  }

  void Rewrite(Bytes message) {
    m_input.Add(message);
    MDATA_BUFFER* buffer = nullptr;
    int size = 0;
    const int headerSize = message[16] < 0x80 ? 17 : 17 + (message[16] & 0x7F);
    ASSERT_TRUE(ProcessUASDataLinkLocalSet(m_source, message.data(), static_cast<int>(message.size()), headerSize,
                                           &buffer, &size));
    if (buffer == nullptr) return;
    m_output.Add(buffer->pcData, static_cast<size_t>(size));
    DoReleaseBuffer(&buffer);
  }
  void Convert(const std::string& event) {
    const Bytes bytes = Text(event);
    m_input.Add(bytes);
    MDATA_BUFFER* buffer = nullptr;
    ConvertCoT2KLV(m_converter, bytes.data(), static_cast<int>(bytes.size()), &buffer);
    if (buffer == nullptr) return;
    m_output.Add(buffer->pcData, static_cast<size_t>(buffer->nDataSize));
    ReleaseConvertedData(buffer);
  }

  MDATA_SRC_HANDLE m_source = nullptr;
  HCONVERTER m_converter = nullptr;
  Sum m_input;
  Sum m_output;
};

TEST_F(Golden, RecordedFlightRewritten) {
  const std::optional<Bytes> recording = LoadRecording(METADATA_SHARED_DATA_DIR, "recorded_flight.klv");
  if (!recording) {
    std::cerr << "ABSENT: recorded_flight.klv - its packets are not compared\n";
    return;
  }
  for (const Bytes& message : SplitMessages(*recording)) Rewrite(message);
  EXPECT_EQ(m_input.Text(), "407 packets, 0491201042244ABD");
  EXPECT_EQ(m_output.Text(), "407 packets, 6E902BFCCCC3AF54");
}

TEST_F(Golden, SimulatedFlightAsKlv) {
  mdfeed::Flight flight({.seed = 7, .startUs = 1714557600000000, .undulation = {}});
  for (int i = 0; i < 2000; ++i) {
    flight.AdvanceTo(i * int64_t{500000});
    const auto message = mdfeed::MakeKlvMessage(flight.State());
    Rewrite(Bytes(message.begin(), message.end()));
  }
  EXPECT_EQ(m_input.Text(), "2000 packets, 3ACE3C0800458028");
  EXPECT_EQ(m_output.Text(), "2000 packets, 0D5CF99312DBEAFB");
}

TEST_F(Golden, SimulatedFlightAsEvents) {
  mdfeed::Flight flight({.seed = 7, .startUs = 1714557600000000, .undulation = {}});
  mdfeed::CotWriter writer({});
  for (int i = 0; i < 2000; ++i) {
    flight.AdvanceTo(i * int64_t{500000});
    const mdfeed::CotPair pair = writer.Write(flight.State());
    Convert(pair.sensor);
    Convert(pair.aircraft);
  }
  EXPECT_EQ(m_input.Text(), "4000 packets, 65ABF5D59836A779");
  EXPECT_EQ(m_output.Text(), "2000 packets, 7EE891531CE3EFE4");
}

// Appends attributes with drawn values one after the other, because operands of + may be evaluated in any order.
struct Attribute {
  const char* name;
  int low;
  int high;
};
void Append(std::string* event, Draws* draws, std::initializer_list<Attribute> attributes) {
  for (const auto& [name, low, high] : attributes) {
    *event += ' ';
    *event += name;
    *event += "=\"" + draws->Decimal(low, high) + "\"";
  }
}

TEST_F(Golden, RandomPairs) {
  Draws draws;
  for (int i = 0; i < 100000; ++i) {
    const std::string time = mdfeed::FormatTime(1714557600000000 + i * int64_t{100000});
    const std::string times = "\" time=\"" + time + "\" start=\"" + time + "\"><point";
    std::string sensor = "<event version=\"2.0\" uid=\"S\" type=\"b-m-p-s-p-i" + times;
    Append(&sensor, &draws,
           {{"lat", -89, 90}, {"lon", -179, 180}, {"hae", -500, 9000}, {"ce", 0, 2000}, {"le", 0, 2000}});
    sensor += "/><detail><sensor model=\"M" + std::to_string(i % 9) + "\"";
    Append(&sensor, &draws,
           {{"fov", 0, 180},
            {"vfov", 0, 180},
            {"azimuth", 0, 360},
            {"elevation", -90, 90},
            {"roll", 0, 180},
            {"range", 0, 90000}});
    Convert(sensor + "/></detail></event>");
    std::string aircraft = "<event version=\"2.0\" uid=\"A\" type=\"a-f-A-M-F-Q" + times;
    Append(&aircraft, &draws, {{"lat", -89, 90}, {"lon", -179, 180}, {"hae", -500, 19000}});
    aircraft += "/><detail><track";
    Append(&aircraft, &draws, {{"course", 0, 360}, {"speed", 0, 255}});
    aircraft += "/><attitude";
    Append(&aircraft, &draws, {{"pitch", -20, 20}, {"roll", -50, 50}});
    Convert(aircraft + "/></detail></event>");
  }
  EXPECT_EQ(m_input.Text(), "200000 packets, 6E641DAB068CC0AF");
  EXPECT_EQ(m_output.Text(), "100000 packets, 7AE703BA4AC4E555");
}

}  // namespace
