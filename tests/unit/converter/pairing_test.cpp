// SPDX-License-Identifier: Apache-2.0
// Tests of instances, pairing, filter, discovery, statistics, closing of packets and bad XML.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "converter_fixture.h"

namespace {

using Pairing = ConverterTest;
using Discovery = ConverterTest;
using Packet = ConverterTest;

TEST_F(Pairing, SpiThenAircraftWithinTheDeltaGiveOnePacket) {
  EXPECT_EQ(Convert(Spi("2024-01-02T03:04:05.00Z")), 0);
  EXPECT_FALSE(m_delivered);
  ExpectLog(7, "waiting for another message!\n");
  EXPECT_GT(Convert(Aircraft("2024-01-02T03:04:05.40Z")), 0);
  EXPECT_TRUE(m_delivered);
  ExpectLog(7, "Delta of 0 sec 400000 usec is within accepted range of 0.500000.\n");
  ExpectLog(7, "We have both SPI and AIRCRAFT events with time=\"2024-01-02T03:04:05.40Z\" !\n");
  EXPECT_EQ(m_converter->pMsgListHeader, nullptr);
  EXPECT_EQ(Number(2), 1704164645400000u);
}

TEST_F(Pairing, DeltaIsInclusive) {
  EXPECT_TRUE(ConvertPair(Spi("2024-01-02T03:04:05.00Z"), Aircraft("2024-01-02T03:04:05.50Z")));
  EXPECT_FALSE(ConvertPair(Spi("2024-01-02T03:04:05.00Z"), Aircraft("2024-01-02T03:04:05.51Z")));
  ExpectLog(5, "Delta of 0 sec 510000 usec is NOT within accepted range of 0.500000.\n");
}

TEST_F(Pairing, DeltaMayHaveAFractionOfASecond) {
  Open(2500000);
  EXPECT_TRUE(ConvertPair(Spi("2024-01-02T03:04:05.00Z"), Aircraft("2024-01-02T03:04:07.50Z")));
  EXPECT_TRUE(ConvertPair(Spi("2024-01-02T03:04:08.90Z"), Aircraft("2024-01-02T03:04:07.00Z")));
  EXPECT_FALSE(ConvertPair(Spi("2024-01-02T03:04:05.00Z"), Aircraft("2024-01-02T03:04:07.51Z")));
  ExpectLog(5, "Delta of 2 sec 510000 usec is NOT within accepted range of 2.500000.\n");
}

TEST_F(Pairing, NegativeDeltaOnlyPairsEqualTexts) {
  Open(-1000);
  EXPECT_TRUE(ConvertPair(Spi(), Aircraft()));
  EXPECT_FALSE(ConvertPair(Spi("2024-01-02T03:04:05Z"), Aircraft("2024-01-02T03:04:05.00Z")));
  AllowLogs(5, "is NOT within accepted range");
}

TEST_F(Pairing, EventOutsideTheDeltaDiscardsTheOlderAndWaits) {
  EXPECT_EQ(Convert(Aircraft("2024-01-02T03:04:05.00Z")), 0);
  EXPECT_EQ(Convert(Aircraft("2024-01-02T03:04:09.00Z")), 0);
  ExpectLog(5, "Delta of 4 sec 0 usec is NOT within accepted range of 0.500000.\n");
  ExpectLog(7, "Free All Msgs\n");
  ASSERT_NE(m_converter->pMsgListHeader, nullptr);
  EXPECT_EQ(m_converter->pMsgListHeader->pNext, nullptr);
  EXPECT_GT(Convert(Spi("2024-01-02T03:04:09.00Z")), 0);
}

TEST_F(Pairing, TwoEventsOfOneTypeCompleteAPair) {
  EXPECT_EQ(Convert(Aircraft()), 0);
  EXPECT_EQ(m_converter->pMsgListHeader->msgType, 0u);
  EXPECT_GT(Convert(Aircraft("2024-01-02T03:04:05.30Z")), 0);
  EXPECT_TRUE(m_delivered);
  ExpectNoLog("we got the same type msg twice !\n");
}

TEST_F(Pairing, KnownTypeOfThePendingMessageDiscardsIt) {
  EXPECT_EQ(Convert(Aircraft()), 0);
  m_converter->pMsgListHeader->msgType = CVT_MSG_TYPE_AIRCRAFT;
  EXPECT_EQ(Convert(Aircraft()), -1);
  ExpectLog(4, "we got the same type msg twice !\n");
  EXPECT_EQ(m_converter->pMsgListHeader, nullptr);
}

TEST_F(Pairing, OtherTypesAreRejected) {
  EXPECT_EQ(Convert(Event("a-f-G-U-C", "X", kTime, "")), -1);
  ExpectLog(3, "unknow msg event type a-f-G-U-C, len = 9 !\n");
  EXPECT_EQ(Convert(Event("a-f-", "X", kTime, "")), -1);
  ExpectLog(3, "unknow msg event type a-f-, len = 4 !\n");
  EXPECT_EQ(Convert(Event("b-m-p-s-p-j", "X", kTime, "")), -1);
  ExpectLog(3, "unknow msg event type b-m-p-s-p-j, len = 11 !\n");
  const std::string longest(64, 'x');
  EXPECT_EQ(Convert(Event(longest, "X", kTime, "")), -1);
  ExpectLog(3, "unknow msg event type " + longest + ", len = 64 !\n");
  EXPECT_EQ(Stats().nRxAirCraftMessages + Stats().nRxSPIMessages, 0u);
}

TEST_F(Pairing, InputThatIsTooShortIsRefused) {
  MDATA_BUFFER* buffer = reinterpret_cast<MDATA_BUFFER*>(this);
  const BYTE text[] = "<event></event>";
  EXPECT_EQ(ConvertCoT2KLV(m_converter, nullptr, 100, &buffer), -1);
  EXPECT_EQ(buffer, nullptr);
  ExpectLog(3, "invalid input, pvInputData=(nil), nInDataSize=100!\n");
  EXPECT_EQ(ConvertCoT2KLV(m_converter, text, 9, &buffer), -1);
  ExpectLogContaining(3, "nInDataSize=9!\n");
  EXPECT_EQ(ConvertCoT2KLV(m_converter, text, -20, &buffer), -1);
  ExpectLog(3, "input size -20 shorter than minumum!\n");
}

TEST_F(Pairing, IncompleteEventsAreRejected) {
  EXPECT_EQ(Convert("<event type=\"a-f-A\" time=\"\">"), -1);
  ExpectLog(4, "slice </event> not found\n");
  ExpectLog(7, "not found whole msg!\n");
  EXPECT_EQ(Convert("something else"), -1);
  ExpectLog(7, "slice <event not found\n");
  EXPECT_EQ(Convert("<event time=\"1\" </event>"), -1) << "the start tag ends beyond the event";
  ExpectLog(3, "found slice, but length is out of buffer\n");
  ExpectLog(3, "not found <event> tag slice!\n");
  EXPECT_EQ(Convert("<event></event>"), -1);
  ExpectLog(3, "invalid input\n");
  ExpectLog(3, "not found <event> tag slice!\n");
  EXPECT_EQ(Convert("<event uid=\"x\" time=\"y\"></event>"), -1);
  ExpectLog(3, "not found type field !\n");
  AllowLogs(3, "field type ");
}

TEST_F(Pairing, MissingTimeIsLoggedAsTypeAndCountsTheEvent) {
  EXPECT_EQ(Convert("<event uid=\"x\" type=\"a-f-A\"><point/></event>"), -1);
  ExpectLog(3, "field time not found\n");
  ExpectLog(3, "not found type field !\n");
  EXPECT_EQ(Stats().nRxAirCraftMessages, 1u);
}

TEST_F(Pairing, UnparsableTimeDiscardsThePendingMessage) {
  EXPECT_EQ(Convert(Event(kAircraft, "X", "no time", "")), -1);
  ExpectLog(3, "failed in cvt_strptime()!\n");
  ExpectLog(3, "failed to get uSecs for tmStamp no time");
  EXPECT_EQ(m_converter->pMsgListHeader, nullptr);
}

TEST_F(Pairing, OlderBytesNeverCompleteANewerEvent) {
  EXPECT_EQ(Convert(Aircraft("2024-01-02T03:04:05.00Z")), 0);
  EXPECT_EQ(Convert(Aircraft("2024-01-02T03:04:05.00Z").substr(0, 80)), -1);
  AllowLogs(4, "slice </event> not found\n");
}

TEST_F(Pairing, TimeOfSixtyFourCharactersPairs) {
  const std::string time = "2024-01-02T03:04:05" + std::string(45, 'Z');
  ASSERT_EQ(time.size(), 64u);
  EXPECT_TRUE(ConvertPair(Spi(time), Aircraft(time)));
  ExpectLog(7, "matchStr, time=\"" + time + "\" !\n");
}

TEST_F(Pairing, EventFailsIfOutOfMemory) {
  host().FailNext("calloc");
  EXPECT_EQ(Convert(Aircraft()), -1);
  ExpectLog(3, "cvtXmlMsg malloc failed  !\n");
  host().FailNext("calloc", {.skip = 1});
  EXPECT_EQ(Convert(Aircraft()), -1);
  ExpectLog(3, "malloc() failed !\n");
  ExpectLog(3, "failed to init mxl msg !\n");
  EXPECT_EQ(m_converter->pMsgListHeader, nullptr);
  host().FailNext("calloc");
  HCONVERTER other = m_converter;
  EXPECT_FALSE(AllocCoT2KLVConvert(&other, 0, "", FALSE));
}

TEST_F(Pairing, NullHandlesAreAsserted) {
  EXPECT_FALSE(AllocCoT2KLVConvert(nullptr, 0, "", FALSE));
  ExpectAssertion("phConvInstance != NULL");
  FreeCoT2KLVConvert(nullptr);
  ExpectAssertion("phConvInstance != NULL");
  HCONVERTER none = nullptr;
  FreeCoT2KLVConvert(&none);
  ExpectAssertion("*phConvInstance != NULL");
}

TEST_F(Pairing, FreeingReleasesThePendingMessage) {
  EXPECT_EQ(Convert(Aircraft()), 0);
  FreeCoT2KLVConvert(&m_converter);
  EXPECT_EQ(m_converter, nullptr);
  ExpectLog(7, "Free All Msgs\n");
}

TEST_F(Pairing, NewInstanceHasItsDefaults) {
  EXPECT_EQ(m_converter->nMaxSPIAirCraftTimeDeltaInUS, 500000);
  EXPECT_EQ(m_converter->a_course, -100000.0f);
  EXPECT_EQ(m_converter->s_roll, -100000.0f);
  Open(7, std::string(200, 'u').c_str(), TRUE);
  EXPECT_EQ(std::string(m_converter->szSpiUid), std::string(127, 'u'));
  EXPECT_TRUE(m_converter->bDiscoverSensors);
}

TEST_F(Discovery, OtherSensorsAreCountedAndListedUntilTheyAge) {
  Open(500000, "SPI1", TRUE);
  EXPECT_EQ(Convert(Spi(kTime, "SPI2")), -1);
  ExpectLog(7, "Discarding SPI message since UID \"SPI2\" is not \"SPI1\".\n");
  ExpectLog(7, "Storing entry for \"SPI2\" at free offset 0.\n");
  EXPECT_EQ(Stats().nRxSPIMessages, 1u);
  EXPECT_EQ(Stats().nFilteredRxSPIMessages, 1u);
  for (int i = 0; i < 10; i++) AgeCoT2KLVSensors(m_converter);
  ASSERT_EQ(Stats().nDiscoveredSensorsCount, 1);
  EXPECT_STREQ(Stats().aszSensorUIDs[0], "SPI2");
  AgeCoT2KLVSensors(m_converter);
  ExpectLog(7, "Entry for \"SPI2\" has been aged out.\n");
  EXPECT_EQ(Stats().nDiscoveredSensorsCount, 0);
  EXPECT_STREQ(m_converter->KnownSensors[0].szUID, "");
}

TEST_F(Discovery, SensorSeenAgainHasAgeZero) {
  Open(500000, "SPI1", TRUE);
  Convert(Spi(kTime, "SPI2"));
  for (int i = 0; i < 10; i++) AgeCoT2KLVSensors(m_converter);
  Convert(Spi(kTime, "SPI2"));
  ExpectLog(7, "Located existing entry for \"SPI2\" at offset 0.\n");
  for (int i = 0; i < 10; i++) AgeCoT2KLVSensors(m_converter);
  EXPECT_EQ(Stats().nDiscoveredSensorsCount, 1);
}

TEST_F(Discovery, ThirtyThirdSensorReplacesTheEntryAtTheIndexOfTheOldestAge) {
  Open(500000, "SPI1", TRUE);
  for (int i = 0; i < 32; i++) {
    if (i >= 29) AgeCoT2KLVSensors(m_converter);
    Convert(Spi(kTime, "S" + std::to_string(i)));
  }
  EXPECT_EQ(Stats().nDiscoveredSensorsCount, 32);
  Convert(Spi(kTime, "NEW"));
  ExpectLog(7, "Oldest existing record is \"S0\" at offset 0, 3 seconds old.\n");
  ExpectLog(7, "Storing entry for \"NEW\" at oldest offset 3.\n");
  EXPECT_STREQ(Stats().aszSensorUIDs[3], "NEW");
  EXPECT_STREQ(Stats().aszSensorUIDs[0], "S0");
}

TEST_F(Discovery, FilteredSensorsAreForgottenWithoutDiscovery) {
  Open(500000, "SPI1", FALSE);
  EXPECT_EQ(Convert(Spi(kTime, "SPI2")), -1);
  EXPECT_EQ(Stats().nDiscoveredSensorsCount, 0);
}

TEST_F(Discovery, AcceptedSensorsAreListedToo) {
  Open(500000, "SPI1", TRUE);
  EXPECT_TRUE(ConvertPair(Aircraft(), Spi(kTime, "SPI1")));
  ExpectLog(7, "SPI message accepted since UID \"SPI1\" matches filter \"SPI1\".\n");
  ASSERT_EQ(Stats().nDiscoveredSensorsCount, 1);
  EXPECT_STREQ(Stats().aszSensorUIDs[0], "SPI1");
}

TEST_F(Discovery, FilterComparesCaseAndNeedsAUid) {
  Open(500000, "SPI1", FALSE);
  EXPECT_EQ(Convert(Spi(kTime, "spi1")), -1);
  EXPECT_EQ(Convert("<event type=\"b-m-p-s-p-i\" time=\"2024-01-02T03:04:05Z\"></event>"), -1);
  ExpectLog(3, "field uid not found\n");
  ExpectLog(3, "xml_getCotFieldInTagSlice failed for UID retrieval.\n");
  EXPECT_EQ(Convert(Aircraft()), 0) << "aircraft are not filtered";
}

TEST_F(Discovery, StatisticsAreResetAndRestoredWithoutTheSensors) {
  Open(500000, "SPI1", TRUE);
  Convert(Spi(kTime, "SPI2"));
  Convert(Aircraft());
  MDATA_COT_STATS stats = {};
  stats.nConvertedKLVMessages = 77;
  stats.nConvertedKLVBytes = 78;
  GetCoT2KLVConvertStats(m_converter, &stats);
  EXPECT_EQ(stats.nRxAirCraftMessages, 1u);
  EXPECT_EQ(stats.nConvertedKLVMessages, 77u) << "belongs to the caller";
  EXPECT_EQ(stats.nConvertedKLVBytes, 78u);
  ResetCoT2KLVConvertStats(m_converter);
  EXPECT_EQ(Stats().nRxSPIMessages + Stats().nRxAirCraftMessages + Stats().nFilteredRxSPIMessages, 0u);
  EXPECT_EQ(Stats().nDiscoveredSensorsCount, 1);
  SetCoT2KLVConvertStats(m_converter, &stats);
  EXPECT_EQ(Stats().nRxSPIMessages, 1u);
  EXPECT_EQ(Stats().nFilteredRxSPIMessages, 1u);
}

// Converts a pair whose packet has the given value length, which the uids fill.
std::pair<std::string, std::string> PairOfLength(int length) {
  // Time stamps 10 + start 10 + uids with their headers + checksum 4.
  const int text = length - 10 - 10 - 4 - 4;
  const int first = std::min(64, text);
  return {Event(kAircraft, std::string(static_cast<size_t>(first), 'p'), kTime, ""),
          Event(kSpi, std::string(static_cast<size_t>(text - first), 's'), kTime, "")};
}

void AllowMissingElements() {
  AllowLogs(3, "tag slice!\n");
}

TEST_F(Packet, LengthOf127IsShortAnd128IsLong) {
  AllowMissingElements();
  const auto [air127, spi127] = PairOfLength(127);
  ASSERT_TRUE(ConvertPair(air127, spi127));
  EXPECT_EQ(m_packet.size(), 17u + 127);
  EXPECT_EQ(m_packet[16], 0x7F);
  EXPECT_EQ(PacketItems().front().first, 2);
  const auto [air128, spi128] = PairOfLength(128);
  ASSERT_TRUE(ConvertPair(air128, spi128));
  EXPECT_EQ(m_packet.size(), 18u + 128);
  EXPECT_EQ(Bytes(m_packet.begin() + 16, m_packet.begin() + 18), (Bytes{0x81, 0x80}));
  EXPECT_EQ(PacketItems().front().first, 2);
}

TEST_F(Packet, LongPacketsAreDroppedWithoutTheOption) {
  AllowMissingElements();
  _g_bAllItemsSupport = FALSE;
  const auto [air, spi] = PairOfLength(128);
  EXPECT_EQ(Convert(air), 0);
  EXPECT_EQ(Convert(spi), -1);
  EXPECT_FALSE(m_delivered);
  ExpectLog(3, "long form length not implemented yet!\n");
  EXPECT_EQ(m_converter->pMsgListHeader, nullptr);
}

// Extends the pending message to 'length' bytes with items of tag 3; the last ones have 66 bytes each.
void Grow(cvtXmlMsg* message, int length) {
  cvtKlvItem item = {};
  item.key = 3;
  while (message->curKlvLen < length) {
    const int missing = length - message->curKlvLen;
    int step = missing % 66 == 0 ? 66 : missing % 66;
    if (step == 1) step = 33;
    item.length = static_cast<uint8_t>(step - 2);
    ASSERT_EQ(cvt_addKlvItem(&item, message), CVT_COTKLV_STATUS_OK);
  }
}

// Prepares an empty sensor-point event, which adds its empty uid unless the packet is full.
int LengthBefore(int valueLength) {
  const int length = valueLength + 17 - 4;
  return length - 2 < kCvtFullLength ? length - 2 : length;
}

TEST_F(Packet, LengthsOf200And300And1023AreWritten) {
  AllowMissingElements();
  AllowLogs(3, "curKlvLen is too big");
  const std::string air = Event(kAircraft, "", kTime, "");
  const std::string spi = Event(kSpi, "", kTime, "");
  const struct {
    int length;
    Bytes field;
  } cases[] = {{200, {0x81, 0xC8}},
               {255, {0x81, 0xFF}},
               {256, {0x82, 1, 0}},
               {300, {0x82, 0x01, 0x2C}},
               {1023, {0x82, 0x03, 0xFF}}};
  for (const auto& [length, field] : cases) {
    EXPECT_EQ(Convert(air), 0);
    Grow(m_converter->pMsgListHeader, LengthBefore(length));
    EXPECT_EQ(Convert(spi), 16 + static_cast<int>(field.size()) + length);
    ASSERT_TRUE(m_delivered);
    EXPECT_EQ(Bytes(m_packet.begin() + 16, m_packet.begin() + 16 + static_cast<long>(field.size())), field);
    EXPECT_EQ(PacketItems().front().first, 2);
  }
}

TEST_F(Packet, LengthAbove1023IsTooLong) {
  AllowMissingElements();
  EXPECT_EQ(Convert(Event(kAircraft, "", kTime, "")), 0);
  Grow(m_converter->pMsgListHeader, LengthBefore(1024));
  AllowLogs(3, "curKlvLen is too big");
  EXPECT_EQ(Convert(Event(kSpi, "", kTime, "")), -1);
  ExpectLog(3, "KLV packet is too long 1024!\n");
  EXPECT_EQ(m_converter->pMsgListHeader, nullptr);
}

TEST_F(Packet, FailedSecondBufferReturnsThreeWithoutABuffer) {
  EXPECT_EQ(Convert(Aircraft()), 0);
  host().FailNext("calloc");
  EXPECT_EQ(Convert(Spi()), 3);
  EXPECT_FALSE(m_delivered);
  ExpectLog(0, "malloc() failed !\n");
  EXPECT_EQ(m_converter->pMsgListHeader, nullptr);
}

TEST_F(Packet, AppendSucceedsAt1022AndFailsAt1023) {
  EXPECT_EQ(Convert(Aircraft()), 0);
  cvtXmlMsg* message = m_converter->pMsgListHeader;
  Grow(message, 1022);
  ASSERT_EQ(message->curKlvLen, 1022);
  cvtKlvItem item = {};
  item.key = 3;
  item.length = 64;
  EXPECT_EQ(cvt_addKlvItem(&item, message), CVT_COTKLV_STATUS_OK);
  EXPECT_EQ(message->curKlvLen, 1088);
  message->curKlvLen = 1023;
  EXPECT_EQ(cvt_addKlvItem(&item, message), CVT_COTKLV_STATUS_INVALID_INPUT);
  ExpectLog(3, "curKlvLen is too big: 0x3ff !\n");
  EXPECT_EQ(message->curKlvLen, 1023);
  message->curKlvLen = 1088;
  EXPECT_EQ(Convert(Spi()), -1) << "everything written stays within the buffer";
  ExpectLogContaining(3, "KLV packet is too long");
  AllowLogs(3, "curKlvLen is too big");
}

TEST_F(Packet, NullItemsAreRefused) {
  cvtXmlMsg message = {};
  cvtKlvItem item = {};
  EXPECT_EQ(cvt_addKlvItem(nullptr, &message), CVT_COTKLV_STATUS_INVALID_INPUT);
  ExpectLog(3, "invalid input !\n");
  EXPECT_EQ(cvt_addKlvItem(&item, &message), CVT_COTKLV_STATUS_INVALID_INPUT);
  ExpectLog(3, "invalid input !\n");
}

TEST_F(Packet, SecondTimeStampOverwritesTheFirstInFront) {
  EXPECT_TRUE(ConvertPair(Spi("2024-01-02T03:04:05.00Z"), Aircraft("2024-01-02T03:04:05.25Z")));
  EXPECT_EQ(Values(2).size(), 1u);
  EXPECT_EQ(Number(2), 1704164645250000u);
  EXPECT_EQ(PacketItems().front().first, 2);
}

TEST_F(Packet, DeliveredPacketHasReservedBytesInFront) {
  Convert(Aircraft());
  MDATA_BUFFER* buffer = nullptr;
  const Bytes spi = Text(Spi());
  ConvertCoT2KLV(m_converter, spi.data(), static_cast<int>(spi.size()), &buffer);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(buffer->pcData - static_cast<BYTE*>(buffer->pvAllocPtr), static_cast<long>(sizeof(MDATA_BUFFER)) + 5);
  ReleaseConvertedData(buffer);
}

TEST_F(Packet, MessageWithoutTimeStampIsDropped) {
  EXPECT_EQ(Convert(Aircraft()), 0);
  // A full packet does not accept a time stamp either.
  m_converter->pMsgListHeader->tmStampFlag = 0;
  m_converter->pMsgListHeader->curKlvLen = 1023;
  EXPECT_EQ(Convert(Spi()), 0);
  EXPECT_FALSE(m_delivered);
  ExpectLog(3, "no timeStamp found in the message!\n");
  EXPECT_EQ(m_converter->pMsgListHeader, nullptr);
  AllowLogs(3, "curKlvLen is too big");
}

TEST_F(Packet, TwoConvertersOnTwoThreadsDoNotDisturbEachOther) {
  for (const char* module : {"METADATALIB", "COTCONVERTER"}) host().SetLevel(module, 2);
  const auto work = [](const std::string& course, BYTE high) {
    HCONVERTER converter = nullptr;
    AllocCoT2KLVConvert(&converter, 500000, "", FALSE);
    int wrong = 0;
    for (int i = 0; i < 300; i++) {
      MDATA_BUFFER* buffer = nullptr;
      const Bytes spi = Text(Spi());
      const Bytes air = Text(Aircraft(kTime, "<track course=\"" + course + "\" speed=\"1\"/>"));
      ConvertCoT2KLV(converter, air.data(), static_cast<int>(air.size()), &buffer);
      ConvertCoT2KLV(converter, spi.data(), static_cast<int>(spi.size()), &buffer);
      if (buffer == nullptr) return -1;
      const Bytes item = {5, 2, high};
      const BYTE* end = buffer->pcData + buffer->nDataSize;
      if (std::search(buffer->pcData, buffer->pcData + buffer->nDataSize, item.begin(), item.end()) == end) wrong++;
      ReleaseConvertedData(buffer);
    }
    FreeCoT2KLVConvert(&converter);
    return wrong;
  };
  int first = -1;
  int second = -1;
  std::thread one([&] { first = work("90", 0x40); });
  std::thread two([&] { second = work("270", 0xBF); });
  one.join();
  two.join();
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 0);
}

std::string LoadEvent(const std::string& name) {
  std::ifstream file(std::string(METADATA_COT_EVENTS_DIR) + "/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(Packet, EventsOfAnIndependentLibraryAreConverted) {
  const struct {
    const char* name;
    double lat, lon, course;
  } pairs[] = {{"level_flight", 45.5017, -73.5673, 87.5}, {"southern_bank", -33.8688, 151.2093, 271.25}};
  for (const auto& [name, lat, lon, course] : pairs) {
    ASSERT_TRUE(ConvertPair(LoadEvent(std::string(name) + "_aircraft.xml"), LoadEvent(std::string(name) + "_spi.xml")));
    EXPECT_NEAR(Signed32(13) * 180.0 / 4294967294.0, lat, 5e-8);
    EXPECT_NEAR(Signed32(14) * 360.0 / 4294967294.0, lon, 9e-8);
    EXPECT_NEAR(static_cast<double>(Number(5)) * 360 / 65535, course, 0.003);
    EXPECT_NEAR(Signed32(23) * 180.0 / 4294967294.0, lat + 0.01, 5e-8);
    EXPECT_EQ(Number(2), 1714979289000000u);
    EXPECT_EQ(Values(10), std::vector<Bytes>{Text("AIRCRAFT-1")});
    EXPECT_EQ(Values(11), (std::vector<Bytes>{Text("SENSOR-1"), Text("EO")}));
  }
}

class AnyXml : public ConverterTest {
 protected:
  void SetUp() override {
    ConverterTest::SetUp();
    for (int level = 0; level <= 5; level++) AllowLogs(level, "");
  }
  // A good pair is converted whatever events came before.
  void ExpectGoodPair() {
    const std::string time = "2030-01-02T03:04:05.00Z";
    EXPECT_EQ(Convert(Aircraft(time)), 0);
    EXPECT_GT(Convert(Spi(time)), 0);
    EXPECT_TRUE(m_delivered);
  }
};

TEST_F(AnyXml, BadEventsDoNotAffectTheNextGoodOne) {
  const std::string point = "<point lat=\"";
  const std::string bad[] = {
      "<event type='a-f-A' time='2024-01-02T03:04:05Z'></event>",
      "<event type=\"a-f-A\" time=\"2024-01-02T03:04:05Z></event>",
      Event(kAircraft, std::string(100000, 'u'), kTime, ""),
      Event(kAircraft, "X", std::string(65, '1'), ""),
      "<event <event <event type=\"a-f-A\"><event></event></event>",
      Event(kAircraft, "X", kTime, Event(kSpi, "Y", kTime, "")),
      Event(kAircraft, "X", kTime, std::string("\0\0\0", 3)),
      Event(kAircraft, "X", kTime, point + "nan\" lon=\"inf\" hae=\"1e308\"/>"),
      Event(kAircraft, "X", kTime, point + "0x1p300\" lon=\"-inf\" hae=\"nan\"/>"),
      Event(kAircraft, "X", kTime, point + "45,5\" lon=\"1e999\" hae=\"-1e308\"/>"),
      Event(kSpi, "X", kTime, "<sensor azimuth=\"1e308\" elevation=\"nan\" roll=\"-inf\" range=\"inf\" fov=\"nan\"/>"),
      Event(kSpi, "X", kTime, point + "1\" lon=\"1\" hae=\"1\" le=\"inf\" ce=\"nan\"/>"),
      Event(kAircraft, "X", "99999999999999999999", ""),
      Event(kAircraft, "X", "2024-13-02T03:04:05.99999Z", ""),
      Event(kAircraft, "X", "-999-99-99T-9:-9:-9.-9Z", ""),
      "\xFF\xFE<\0e\0v\0e\0n\0t\0",
      std::string(200000, '<'),
      "<event" + std::string(300000, '"') + "></event>"};
  for (const std::string& event : bad) {
    Convert(event);
    ExpectGoodPair();
  }
}

TEST_F(AnyXml, EmbeddedNulsEndTheText) {
  const std::string event = Aircraft();
  for (size_t at = 0; at < event.size(); at++) {
    std::string damaged = event;
    damaged[at] = '\0';
    EXPECT_EQ(Convert(damaged), -1);
  }
  ExpectGoodPair();
}

TEST_F(AnyXml, DamagedEventsDoNotAffectTheNextGoodOne) {
  for (const char* module : {"METADATALIB", "COTCONVERTER"}) host().SetLevel(module, 2);
  std::mt19937 random(5);
  for (int i = 0; i < 4000; i++) {
    std::string event = i % 2 == 0 ? Aircraft() : Spi();
    for (int n = 0; n < 3; n++) event[random() % event.size()] = "<>\"'/= 9.-eZ\xFF"[random() % 13];
    Convert(event.substr(0, event.size() - random() % 4));
  }
  ExpectGoodPair();
}

// Returns the lines of an event up to its first item; the address in one of them differs from run to run.
std::vector<std::string> FirstLines() {
  std::vector<std::string> lines;
  for (const LogLine& line : host().Logs()) {
    if (line.module != "COTCONVERTER") continue;
    lines.push_back(line.text.substr(0, line.text.find(", pMsg")));
    if (line.text.find("cotField: name = time") != std::string::npos) break;
  }
  host().ClearLogs();
  return lines;
}

TEST_F(Pairing, LinesOfAnEventSayThatItsTagIsFoundThreeTimes) {
  const std::string tag = "Found event end: sliceLen = 0x72\n";
  EXPECT_EQ(Convert(Aircraft()), 0);
  EXPECT_EQ(FirstLines(),
            (std::vector<std::string>{
                "Found event end: sliceLen = 0xd6\n", "found whole msg", tag, "found <event> tag slice!\n", tag,
                "matchStr, time=\"2024-01-02T03:04:05.00Z\" !\n", "RECONSTITUTED TIME=2024-01-02T03:04:05.00Z.\n",
                "Resulting time 18446744073207405861 sec,0 usecs.\n",
                "allocating a new msg since none found with time=\"2024-01-02T03:04:05.00Z\" !\n",
                "Got a aircraft msg!\n", tag, "Found <event> tag slice!\n", "Found cotField: name = time\n"}));
  Convert(Spi());
  const std::string other = "Found event end: sliceLen = 0x71\n";
  EXPECT_EQ(FirstLines(), (std::vector<std::string>{
                              "Found event end: sliceLen = 0x100\n", "found whole msg", other,
                              "found <event> tag slice!\n", other, "matchStr, time=\"2024-01-02T03:04:05.00Z\" !\n",
                              "We have both SPI and AIRCRAFT events with time=\"2024-01-02T03:04:05.00Z\" !\n",
                              "Got a SPI msg!\n", other, "Found cotField: name = uid\n", "SPI uid=\"SPI1\"",
                              "Mapping KLV Item: key=11 (0xb) length = 0x4\n", "Found cotField: name = time\n"}));
}

}  // namespace
