// SPDX-License-Identifier: Apache-2.0
// The fixture of the converter's tests: events, a converter, and the items of a packet.
#ifndef CONVERTER_FIXTURE_H
#define CONVERTER_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "builders.h"
#include "converter.h"
#include "fake_host.h"

inline constexpr char kAircraft[] = "a-f-A-M-F-Q";
inline constexpr char kSpi[] = "b-m-p-s-p-i";
inline constexpr char kTime[] = "2024-01-02T03:04:05.00Z";

inline std::string Event(const std::string& type, const std::string& uid, const std::string& time,
                         const std::string& inner) {
  return "<event version=\"2.0\" uid=\"" + uid + "\" type=\"" + type + "\" time=\"" + time + "\" start=\"" + time +
         "\">" + inner + "</event>";
}

inline std::string Aircraft(const std::string& time = kTime, const std::string& inner =
                                                                 "<point lat=\"45\" lon=\"-73\" hae=\"1000\"/>"
                                                                 "<track course=\"90\" speed=\"50\"/>"
                                                                 "<attitude pitch=\"1\" roll=\"2\"/>") {
  return Event(kAircraft, "PLANE", time, inner);
}

inline std::string Spi(const std::string& time = kTime, const std::string& uid = "SPI1",
                       const std::string& inner =
                           "<point lat=\"46\" lon=\"-72\" hae=\"10\" le=\"10\" ce=\"10\"/>"
                           "<sensor vfov=\"5\" fov=\"10\" model=\"EO\" azimuth=\"100\" "
                           "elevation=\"-30\" roll=\"0\" range=\"1000\"/>") {
  return Event(kSpi, uid, time, inner);
}

// Tags and values, in packet order.
using Items = std::vector<std::pair<int, Bytes>>;

class ConverterTest : public HostTest {
 protected:
  void SetUp() override {
    LoadFlatGrid(0);
    Open(500000);
  }

  void TearDown() override {
    if (m_converter != nullptr) FreeCoT2KLVConvert(&m_converter);
    free_ww15mgh_grd();
  }

  void LoadFlatGrid(float height) {
    free_ww15mgh_grd();
    _g_pGrid = static_cast<float*>(calloc(kGridValues, sizeof(float)));
    if (height == 0) return;
    for (int i = 0; i < kGridValues; i++) _g_pGrid[i] = height;
  }

  void Open(int32_t delta, const char* uid = "", BOOL discover = FALSE) {
    if (m_converter != nullptr) FreeCoT2KLVConvert(&m_converter);
    ASSERT_TRUE(AllocCoT2KLVConvert(&m_converter, delta, uid, discover));
  }

  // The input is copied to a block of exactly its size, so that a sanitizer detects a read past its end.
  int Convert(const std::string& event) {
    const Bytes exact = Text(event);
    MDATA_BUFFER* buffer = reinterpret_cast<MDATA_BUFFER*>(this);
    const int result = ConvertCoT2KLV(m_converter, exact.data(), static_cast<int>(exact.size()), &buffer);
    m_packet.clear();
    m_delivered = buffer != nullptr;
    if (buffer == nullptr) return result;
    m_packet.assign(buffer->pcData, buffer->pcData + buffer->nDataSize);
    EXPECT_EQ(result, buffer->nDataSize);
    ReleaseConvertedData(buffer);
    return result;
  }

  // Returns the items after key and length, including the checksum. Checks key, length and checksum.
  Items PacketItems() const {
    Items items;
    if (m_packet.size() < 21) return items;
    EXPECT_EQ(Bytes(m_packet.begin(), m_packet.begin() + 16), UasKey());
    size_t at = 17;
    size_t length = m_packet[16];
    if (length > 127) {
      const size_t bytes = length & 0x7F;
      length = 0;
      for (size_t i = 0; i < bytes; i++) length = length << 8 | m_packet[at++];
    }
    EXPECT_EQ(at + length, m_packet.size());
    while (at + 2 <= m_packet.size()) {
      const size_t size = m_packet[at + 1];
      if (at + 2 + size > m_packet.size()) {
        ADD_FAILURE() << "an item runs past the packet";
        break;
      }
      const auto value = m_packet.begin() + static_cast<long>(at) + 2;
      items.emplace_back(m_packet[at], Bytes(value, value + static_cast<long>(size)));
      at += 2 + size;
    }
    const WORD sum = OwnChecksum(m_packet, m_packet.size() - 2);
    EXPECT_EQ(items.back(), (std::pair<int, Bytes>(1, {static_cast<BYTE>(sum >> 8), static_cast<BYTE>(sum)})));
    return items;
  }

  std::vector<Bytes> Values(int tag) const {
    std::vector<Bytes> values;
    for (const auto& [key, value] : PacketItems())
      if (key == tag) values.push_back(value);
    return values;
  }

  // Returns the value of a tag, which must be present exactly once, as a big-endian number.
  uint64_t Number(int tag) const {
    const std::vector<Bytes> values = Values(tag);
    EXPECT_EQ(values.size(), 1u) << "tag " << tag;
    uint64_t number = 0;
    if (!values.empty())
      for (const BYTE byte : values[0]) number = number << 8 | byte;
    return number;
  }
  int16_t Signed16(int tag) const { return static_cast<int16_t>(Number(tag)); }
  int32_t Signed32(int tag) const { return static_cast<int32_t>(Number(tag)); }
  bool Has(int tag) const { return !Values(tag).empty(); }

  // Converts the given events. Returns true if they gave a packet.
  bool ConvertPair(const std::string& first, const std::string& second) {
    EXPECT_EQ(Convert(first), 0);
    Convert(second);
    return m_delivered;
  }
  bool ConvertAircraft(const std::string& inner) { return ConvertPair(Spi(), Aircraft(kTime, inner)); }
  bool ConvertSpi(const std::string& inner) { return ConvertPair(Aircraft(), Spi(kTime, "SPI1", inner)); }

  MDATA_COT_STATS Stats() const {
    MDATA_COT_STATS stats = {};
    GetCoT2KLVConvertStats(m_converter, &stats);
    return stats;
  }

  HCONVERTER m_converter = nullptr;
  Bytes m_packet;
  bool m_delivered = false;
};

#endif  // CONVERTER_FIXTURE_H
