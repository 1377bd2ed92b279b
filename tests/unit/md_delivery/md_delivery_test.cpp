// SPDX-License-Identifier: Apache-2.0
// Tests of the two steps that the five receive paths share, rewriting and delivery, with the row of texts of each path.
#include "md_delivery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "builders.h"
#include "fake_host.h"

namespace {

using ::testing::ElementsAre;

// The row of a path and its name for the test's output.
struct Path {
  const char* name;
  const PathTexts* texts;
};

const Path kPaths[] = {{"KLVSerial", &kKLVSerialTexts},
                       {"KLVUDP", &kKLVUDPTexts},
                       {"Video", &kVideoTexts},
                       {"CoTSerial", &kCoTSerialTexts},
                       {"CoTUDP", &kCoTUDPTexts}};

// A bare source and an encoder that records the messages it receives.
class DeliveryTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    _tLastLog = 0;
    m_source->Config.nIndex = 7;
    m_source->Config.pfnCallback = Ready;
    m_source->Config.pvUserParam1 = this;
    m_source->Config.pvUserParam2 = nullptr;
    m_source->HeaderSequence = 9;
  }
  static BOOL Ready(MDATA_BUFFER* pBuff, void* pvUserParam1, void* pvUserParam2) {
    auto* test = static_cast<DeliveryTest*>(pvUserParam1);
    EXPECT_EQ(pvUserParam2, pvUserParam1) << "the first parameter is delivered twice";
    test->m_delivered.emplace_back(pBuff->pcData, pBuff->pcData + pBuff->nDataSize);
    test->m_sequenceInCall = test->m_source->HeaderSequence;
    return test->m_answer;
  }
  // Returns a message with the reserved bytes of the stream header in front of it.
  static MDATA_BUFFER* Buffer(Bytes bytes) {
    MDATA_BUFFER* buffer = nullptr;
    EXPECT_TRUE(DoAllocCopyBufferEx(bytes.data(), static_cast<int>(bytes.size()), MDATA_STREAM_HEADER_SIZE, &buffer));
    return buffer;
  }
  BOOL Deliver(const PathTexts& texts, const Bytes& bytes, int headerLength) {
    MdBufferRef buffer(Buffer(bytes));
    return _Deliver(m_source.get(), texts, buffer.Get(), headerLength);
  }
  Rewritten Rewrite(const PathTexts& texts, Bytes message, MdBufferRef& buffer) {
    return _RewriteOnPath(m_source.get(), texts, message.data(), static_cast<int>(message.size()), buffer);
  }
  void KeepOnlyTag(UINT32 tag) {
    m_source->Config.bFilterUASTags = TRUE;
    memset(m_source->Config.UASTagFilter, 0, sizeof(m_source->Config.UASTagFilter));
    m_source->Config.UASTagFilter[tag / 32] = 1u << (tag % 32);
  }

  std::unique_ptr<tagMDATA_SRC_HANDLE> m_source = std::make_unique<tagMDATA_SRC_HANDLE>();
  BOOL m_answer = TRUE;
  std::vector<Bytes> m_delivered;
  int m_sequenceInCall = -1;
};

class EveryPathTest : public DeliveryTest, public ::testing::WithParamInterface<Path> {};
INSTANTIATE_TEST_SUITE_P(Paths, EveryPathTest, ::testing::ValuesIn(kPaths),
                         [](const auto& path) { return path.param.name; });

// --- Delivery --------------------------------------------------------------------------------------------

TEST_P(EveryPathTest, HeaderHasTheSequenceAndTheGivenLength) {
  const Bytes message(0x10203, 7);
  EXPECT_TRUE(Deliver(*GetParam().texts, message, 0x10203));
  EXPECT_THAT(m_delivered, ElementsAre(Bytes{0x00, 9, 0xDF, 0x02, 0x03} + message));
}

TEST_F(DeliveryTest, HeaderHasTheReceivedLengthEvenIfTheMessageHasAnother) {
  EXPECT_TRUE(Deliver(kKLVUDPTexts, {1, 2, 3}, 0x10203));
  EXPECT_THAT(m_delivered, ElementsAre(Bytes{0x00, 9, 0xDF, 0x02, 0x03, 1, 2, 3}));
}

TEST_P(EveryPathTest, ResultOfTheCallbackIsReturned) {
  m_answer = FALSE;
  EXPECT_FALSE(Deliver(*GetParam().texts, {1}, 1));
  m_answer = TRUE;
  EXPECT_TRUE(Deliver(*GetParam().texts, {1}, 1));
}

TEST_P(EveryPathTest, MissingCallbackAsserts) {
  m_source->Config.pfnCallback = nullptr;
  EXPECT_FALSE(Deliver(*GetParam().texts, {1}, 1));
  ExpectAssertion(GetParam().texts->callbackMissing);
}

TEST_P(EveryPathTest, SourceWhoseCloseWasGivenUpDeliversNothing) {
  m_source->nRemoveRequest = REQUEST_ABANDONED;
  EXPECT_FALSE(Deliver(*GetParam().texts, {1}, 1));
  EXPECT_TRUE(m_delivered.empty());
}

TEST_P(EveryPathTest, LinesCarryTheEnginesName) {
  m_source->Config.pfnCallback = nullptr;
  MdBufferRef buffer(Buffer({1}));
  host().ClearLogs();
  _Deliver(m_source.get(), *GetParam().texts, buffer.Get(), 1);
  ExpectAssertion(GetParam().texts->callbackMissing);
  EXPECT_EQ(host().Assertions().back().file, "metadata_api");
  for (const LogLine& line : host().Logs()) EXPECT_EQ(line.file, "metadata_api") << line.text;
}

TEST_F(DeliveryTest, SequenceAdvancesBeforeTheCallExceptOnVideo) {
  for (const Path& path : kPaths) {
    const bool video = path.texts == &kVideoTexts;
    for (const BOOL answer : {FALSE, TRUE}) {
      m_source->HeaderSequence = 255;
      m_answer = answer;
      Deliver(*path.texts, {1}, 1);
      EXPECT_EQ(m_sequenceInCall, video ? 255 : 0) << path.name;
      EXPECT_EQ(m_source->HeaderSequence, video && !answer ? 255 : 0) << path.name;
    }
  }
}

TEST_F(DeliveryTest, EachPathWritesItsLineAndDump) {
  const Bytes delivered = {0x00, 9, 0xDF, 0x00, 0x02, 1, 2};
  struct Expected {
    const Path& path;
    int line;  // its level, or -1 if there is no line
    int dump;
    const char* title;
    Bytes bytes;
  };
  const Expected expected[] = {{kPaths[0], 6, 7, "Streamer KLV AU", delivered},
                               {kPaths[1], 7, 7, "Streamer KLV AU", delivered},
                               {kPaths[2], -1, -1, "", {}},
                               {kPaths[3], -1, 6, "Converted Streamer KLV Message", {1, 2}},
                               {kPaths[4], 7, 7, "Streamer KLV AU", delivered}};
  for (const Expected& e : expected) {
    MdBufferRef buffer(Buffer({1, 2}));
    host().ClearLogs();
    m_source->HeaderSequence = 9;
    const size_t lines = host().Logs().size();
    const size_t dumps = host().Dumps().size();
    _Deliver(m_source.get(), *e.path.texts, buffer.Get(), 2);
    EXPECT_EQ(host().Logs().size() - lines, e.line < 0 ? 0u : 1u) << e.path.name;
    if (e.line >= 0) ExpectLog(e.line, "Got complete KLV message of 2 bytes.\n");
    ASSERT_EQ(host().Dumps().size() - dumps, e.dump < 0 ? 0u : 1u) << e.path.name;
    if (e.dump < 0) continue;
    EXPECT_EQ(host().Dumps().back().level, e.dump) << e.path.name;
    EXPECT_EQ(host().Dumps().back().title, e.title) << e.path.name;
    EXPECT_EQ(host().Dumps().back().bytes, e.bytes) << e.path.name;
  }
}

TEST_F(DeliveryTest, RateGetsTheTotalOncePerSecond) {
  ASSERT_TRUE(__AllocCounterRateTable(5, "Test", &m_source->hOutputRate));
  _FeedOutputRate(m_source.get(), 100, 50);
  _FeedOutputRate(m_source.get(), 200, 50);
  _FeedOutputRate(m_source.get(), 300, 51);
  EXPECT_EQ(host().rateTotals, (std::vector<UINT64>{100, 300}));
  DeleteCounterRateTable(m_source->hOutputRate);
}

// --- Rewriting -------------------------------------------------------------------------------------------

TEST_P(EveryPathTest, MessageIsNotInspectedWithoutInsertsAndFilters) {
  MdBufferRef buffer;
  EXPECT_EQ(Rewrite(*GetParam().texts, {1, 2, 3}, buffer), Rewritten::Unchanged);
  EXPECT_EQ(buffer.Get(), nullptr);
  EXPECT_TRUE(host().Logs().empty());
}

TEST_P(EveryPathTest, MessageThatCannotBeRewrittenIsKept) {
  KeepOnlyTag(2);
  MDATA_BUFFER* original = Buffer(Bytes(30, 0x55));
  MdBufferRef buffer(original);
  EXPECT_EQ(Rewrite(*GetParam().texts, Bytes(30, 0x55), buffer), Rewritten::Unchanged);
  EXPECT_EQ(buffer.Get(), original);
  ExpectLog(7, "NON UAS Data Set detected for source#7.\n");
}

TEST_P(EveryPathTest, RewrittenMessageReplacesTheOriginalAndIsDumped) {
  KeepOnlyTag(2);
  MDATA_BUFFER* original = Buffer(WellFormedMessage());
  MdBufferRef buffer(original);
  ASSERT_EQ(_RewriteOnPath(m_source.get(), *GetParam().texts, original->pcData, original->nDataSize, buffer),
            Rewritten::Replaced);
  const DumpLine dump = host().Dumps().back();
  EXPECT_EQ(dump.title, GetParam().texts->substituted);
  EXPECT_EQ(dump.level, GetParam().texts->substitutedLevel);
  EXPECT_EQ(dump.bytes, Bytes(buffer->pcData, buffer->pcData + buffer->nDataSize));
  EXPECT_LT(dump.bytes.size(), WellFormedMessage().size());
}

TEST_P(EveryPathTest, FilterThatLeavesNothingDropsTheMessageAndAssertsExceptOnVideo) {
  KeepOnlyTag(111);
  MdBufferRef buffer(Buffer(WellFormedMessage()));
  EXPECT_EQ(Rewrite(*GetParam().texts, WellFormedMessage(), buffer), Rewritten::Dropped);
  EXPECT_EQ(buffer.Get(), nullptr) << "the original is released";
  if (GetParam().texts == &kVideoTexts)
    EXPECT_TRUE(host().Assertions().empty());
  else
    ExpectAssertion(GetParam().texts == &kKLVUDPTexts ? "pUserBuff != NULL" : "pSubstBuff != NULL");
}

TEST_F(DeliveryTest, RewrittenMessagesAreDumpedUnderTheTitleOfTheirPath) {
  EXPECT_STREQ(kKLVSerialTexts.substituted, "Substituted Serial KLV Message");
  EXPECT_STREQ(kKLVUDPTexts.substituted, "Substituted KLV over UDP Message");
  for (const PathTexts* texts : {&kVideoTexts, &kCoTSerialTexts, &kCoTUDPTexts}) {
    EXPECT_STREQ(texts->substituted, "Substituted HD-SDI KLV Message");
    EXPECT_EQ(texts->substitutedLevel, 6);
  }
  EXPECT_EQ(kKLVSerialTexts.substitutedLevel, 6);
  EXPECT_EQ(kKLVUDPTexts.substitutedLevel, 7);
}

// --- Header of a UAS Local Set ---------------------------------------------------------------------------

class UASHeaderTest : public DeliveryTest {
 protected:
  BOOL Process(Bytes message) {
    MdBufferRef buffer;
    return _ProcessRxKLV(m_source.get(), message.data(), static_cast<int>(message.size()), buffer.Out(), nullptr);
  }
  static Bytes WithLength(const Bytes& length, size_t rest = 40) {
    return Bytes(UASDataLinkKey, UASDataLinkKey + 16) + length + Bytes(rest);
  }
};

TEST_F(UASHeaderTest, ShortMessageIsLoggedOnceInFiveSeconds) {
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(Process(Bytes(19)));
  EXPECT_EQ(CountLogs(4, "Got less than 16 bytes of KLV.\n"), 1);
  ExpectLog(4, "Got less than 16 bytes of KLV.\n");
  host().Advance(5000);
  EXPECT_FALSE(Process(Bytes(19)));
  ExpectLog(4, "Got less than 16 bytes of KLV.\n");
}

TEST_F(UASHeaderTest, OnlyTheOneAndTwoByteLongFormsAreSupported) {
  for (const int count : {0, 3, 4, 5, 100, 127}) {
    EXPECT_FALSE(Process(WithLength({static_cast<BYTE>(0x80 | count), 0, 0, 0, 5})));
    ExpectLog(4, "Unsupported number of bytes (" + std::to_string(count) + ") for UAV data set length.\n");
  }
}

TEST_F(UASHeaderTest, TotalIsHeaderAndValueInEveryForm) {
  EXPECT_FALSE(Process(WithLength({100}, 9)));
  ExpectLog(3, "UAV set of 117 bytes received but buffer is 26 bytes.\n");
  EXPECT_FALSE(Process(WithLength({0x81, 200}, 9)));
  ExpectLog(3, "UAV set of 218 bytes received but buffer is 27 bytes.\n");
  EXPECT_FALSE(Process(WithLength({0x82, 0x12, 0x34}, 9)));
  ExpectLog(3, "UAV set of 4679 bytes received but buffer is 28 bytes.\n");
}

TEST_F(UASHeaderTest, TotalThatWrapsIsRefusedSilently) {
  EXPECT_FALSE(Process(WithLength({0x82, 0xFF, 0xF0})));
  for (const LogLine& line : host().Logs()) EXPECT_GT(line.level, 5) << line.text;
}

}  // namespace
