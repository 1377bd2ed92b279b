// SPDX-License-Identifier: Apache-2.0
// Tests of the assertions that a sender can raise. docs/integration.md lists them for encoders; the tests raise each of
// them, and check that random messages on every path raise no other.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "../../../tools/mdfeed/cot_frame.h"
#include "builders.h"
#include "engine_test.h"

namespace {

// The text and the module of an assertion.
using Raised = std::set<std::pair<std::string, std::string>>;

// Reads the rows "| `text` | `module` | ..." between the heading and the next one.
Raised Documented() {
  std::ifstream page(METADATA_DOCS_DIR "/integration.md");
  EXPECT_TRUE(page) << "the page for encoders is missing";
  Raised rows;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("## ") || line.starts_with("### ")) inside = line == "## Assertions that a sender can raise";
    if (!inside || !line.starts_with("| `")) continue;
    const size_t textEnd = line.find("` | `", 3);
    const size_t moduleEnd = line.find("` |", textEnd + 5);
    if (textEnd == std::string::npos || moduleEnd == std::string::npos) {
      ADD_FAILURE() << "unreadable row: " << line;
      continue;
    }
    rows.emplace(line.substr(3, textEnd - 3), line.substr(textEnd + 5, moduleEnd - textEnd - 5));
  }
  return rows;
}

std::string EventText(const std::string& type, const std::string& inner) {
  return "<event version=\"2.0\" uid=\"U\" type=\"" + type +
         "\" time=\"2024-01-02T03:04:05.00Z\" start=\"2024-01-02T03:04:05.00Z\">" + inner + "</event>";
}

const std::string kAircraftEvent = EventText("a-f-A", "<point lat=\"45\" lon=\"-73\" hae=\"1000\"/>");
const std::string kSensorPointEvent = EventText("b-m-p-s-p-i", "<point lat=\"46\" lon=\"-72\" hae=\"10\" le=\"1\"/>");

class SenderAssertionTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    StartWithCoT();
  }

  // Claims all lines and assertions so far, and returns the assertions.
  Raised Take() {
    Raised raised;
    for (const Assertion& assertion : host().Assertions()) {
      if (!assertion.claimed) raised.emplace(assertion.text, assertion.file);
    }
    host().ClearLogs();
    return raised;
  }

  void Feed(HMDATASRC source, const Bytes& bytes) {
    switch (source->Config.enInputType) {
      case MDATA_INPUT_NETWORK:
        host().FeedDatagram(source->iFD, bytes);
        break;
      case MDATA_INPUT_SERIAL:
        host().FeedSerial(source->iFD, bytes);
        break;
      default:
        host().FeedCapture(source->Config.in.Video.enInputInterface, bytes, m_timestamp++);
        break;
    }
    host().PassUntilIdle();
  }

  static void KeepOnly(MDATA_SRC_CFG& config, std::initializer_list<int> tags) {
    config.bFilterUASTags = TRUE;
    for (const int tag : tags) config.UASTagFilter[tag / 32] |= 1u << (tag % 32);
  }
  static void KeepOnlyClassification(MDATA_SRC_CFG& config) {
    config.bFilterUASSecurityTags = TRUE;
    config.UASSecurityTagFilter[0] = 1u << 1;
  }
  static void InsertLongestMissionID(MDATA_SRC_CFG& config) { memset(config.szMissionID, 'M', 127); }

  // Feeds the messages to a new source, and returns the assertions that they raised.
  Raised RaisedBy(const MDATA_SRC_CFG& config, const std::vector<Bytes>& messages) {
    const HMDATASRC source = Open(config);
    for (const Bytes& message : messages) Feed(source, message);
    Close(source);
    return Take();
  }

  UINT64 m_timestamp = 1;
};

// --- Each of them --------------------------------------------------------------------------------------

TEST_F(SenderAssertionTest, DocumentedListMatchesTheAssertionsThatSendersRaise) {
  Raised all;
  const auto expect = [&](const Raised& raised, const std::string& text, const std::string& module) {
    EXPECT_EQ(raised, (Raised{{text, module}}));
    all.insert(raised.begin(), raised.end());
  };
  const auto filtered = [](MDATA_SRC_CFG config) {
    KeepOnly(config, {5});
    return config;
  };
  const std::vector<Bytes> plain = {WellFormedMessage()};
  expect(RaisedBy(filtered(NetworkConfig()), plain), "pUserBuff != NULL", "metadata_api");
  expect(RaisedBy(filtered(SerialConfig()), plain), "pSubstBuff != NULL", "metadata_api");
  expect(RaisedBy(filtered(NetworkConfig(MDATA_DATA_COT)), {Text(kSensorPointEvent), Text(kAircraftEvent)}),
         "pSubstBuff != NULL", "metadata_api");
  expect(RaisedBy(filtered(SerialConfig(MDATA_DATA_COT)),
                  {mdfeed::BuildCotFrame(kSensorPointEvent + "\n"), mdfeed::BuildCotFrame(kAircraftEvent + "\n")}),
         "pSubstBuff != NULL", "metadata_api");
  EXPECT_EQ(RaisedBy(filtered(VideoConfig()), plain), Raised{}) << "a video source drops the message in silence";

  const Bytes badSet = UasMessage().Item(48, {1, 1, 5, 3, 9}).Checksum().Build();
  Bytes manyIdentifiers;
  for (int i = 0; i < 739; ++i) manyIdentifiers = manyIdentifiers + Bytes{3, 0};
  const Bytes growing = UasMessage().Raw(manyIdentifiers + Bytes{5, 1, 1}).Build();
  ASSERT_EQ(growing.size(), 1500u) << "one datagram is enough";
  for (MDATA_SRC_CFG config : {NetworkConfig(), SerialConfig(), VideoConfig()}) {
    KeepOnlyClassification(config);
    expect(RaisedBy(config, {badSet}), "nInputSize == 0", "misb0601_processing");
    config.bFilterUASSecurityTags = FALSE;
    InsertLongestMissionID(config);
    expect(RaisedBy(config, {growing}), "0", "misb0601_processing");
  }

  Bytes unreadable = UasMessage().Raw({5, 0x85, 1, 2, 3, 4, 5}).Build();
  EXPECT_FALSE(ValidateUASLocalDataSet(unreadable.data(), static_cast<int>(unreadable.size()), 17));
  expect(Take(), "GetKLVElementSize(pKLV, &nElementSize)", "misb0601_tools");

  EXPECT_EQ(all, Documented());
}

// --- No other ------------------------------------------------------------------------------------------

class RandomSenderTest : public SenderAssertionTest {
 protected:
  int Pick(int below) { return static_cast<int>(m_random() % static_cast<unsigned>(below)); }
  BYTE Byte() { return static_cast<BYTE>(Pick(256)); }
  Bytes RandomBytes(int most) {
    Bytes bytes(static_cast<size_t>(Pick(most + 1)));
    for (BYTE& byte : bytes) byte = Byte();
    return bytes;
  }
  Bytes Elements(int most) {
    static constexpr BYTE kTags[] = {1, 2, 3, 5, 13, 48, 72, 127, 128, 200};
    Bytes body;
    for (int i = Pick(most); i > 0; --i) {
      const Bytes value = Pick(3) == 0 ? Bytes{1, 1, 5, static_cast<BYTE>(Pick(40)), static_cast<BYTE>(Pick(5))}
                                       : RandomBytes(Pick(8) == 0 ? 100 : 6);
      body.push_back(kTags[Pick(std::size(kTags))]);
      if (Pick(6) == 0) body.push_back(static_cast<BYTE>(0x80 + Pick(6)));
      body.push_back(Pick(20) == 0 ? Byte() : static_cast<BYTE>(value.size()));
      body = body + value;
    }
    return body;
  }
  // Most messages are readable, the others have any designator, any length form, wrong checksums or flipped bytes.
  Bytes Message() {
    UasMessage message;
    message.Raw(Elements(30));
    if (Pick(3) != 0) message.Checksum();
    message.LengthForm(static_cast<UasMessage::Length>(Pick(3)));
    Bytes bytes = message.Build();
    if (Pick(8) == 0) bytes[5] = Byte();
    if (Pick(8) == 0) bytes[16] = Byte();
    for (int i = Pick(4) == 0 ? 3 : 0; i > 0; --i)
      bytes[static_cast<size_t>(Pick(static_cast<int>(bytes.size())))] = Byte();
    if (Pick(8) == 0) bytes.resize(1 + static_cast<size_t>(Pick(static_cast<int>(bytes.size()))));
    return bytes;
  }
  std::string DamagedEvent() {
    std::string event = Pick(2) == 0 ? kAircraftEvent : kSensorPointEvent;
    for (int i = Pick(3); i > 0; --i)
      event[static_cast<size_t>(Pick(static_cast<int>(event.size())))] = static_cast<char>(Byte());
    if (Pick(8) == 0) event.resize(1 + static_cast<size_t>(Pick(static_cast<int>(event.size()))));
    return event;
  }
  Bytes For(const MDATA_SRC_CFG& config) {
    if (config.enDataType == MDATA_DATA_KLV) return Message();
    const std::string event = DamagedEvent();
    if (config.enInputType == MDATA_INPUT_NETWORK) return Text(event);
    Bytes frame = mdfeed::BuildCotFrame(event + "\n");
    if (Pick(3) == 0) frame[static_cast<size_t>(Pick(static_cast<int>(frame.size())))] = Byte();
    return frame;
  }
  void Configure(MDATA_SRC_CFG& config) {
    if (Pick(2) == 0)
      KeepOnly(config, Pick(2) == 0 ? std::initializer_list<int>{2, 3, 48} : std::initializer_list<int>{5});
    if (Pick(2) == 0) KeepOnlyClassification(config);
    if (Pick(2) == 0) InsertLongestMissionID(config);
    if (Pick(3) == 0) {
      config.bClassifyMission = TRUE;
      config.enClassification = 4;
      strcpy(config.szClassifyingCountry, "USA");
      strcpy(config.szObjectCountry, "USA");
    }
    config.nDecimationFactor = static_cast<UINT32>(Pick(4));
    if (Pick(3) == 0) AddRelay(config, {10, 0, 0, 1}, -1, -1);
  }

  std::mt19937 m_random{7};
};

TEST_F(RandomSenderTest, NoOtherAssertionIsRaised) {
  for (const char* module : {"METADATALIB", "COTCONVERTER"}) host().SetLevel(module, 5);
  const Raised documented = Documented();
  Raised raised;
  for (int round = 0; round < 60; ++round) {
    for (MDATA_SRC_CFG config : {NetworkConfig(), SerialConfig(), VideoConfig(), NetworkConfig(MDATA_DATA_COT),
                                 SerialConfig(MDATA_DATA_COT)}) {
      Configure(config);
      std::vector<Bytes> messages;
      for (int i = 0; i < 25; ++i) messages.push_back(For(config));
      const Raised now = RaisedBy(config, messages);
      raised.insert(now.begin(), now.end());
    }
    m_encoder.messages.clear();
  }
  for (const auto& [text, module] : raised)
    EXPECT_TRUE(documented.contains({text, module})) << "\"" << text << "\" of " << module << " is not in the list";
  EXPECT_GE(raised.size(), 3u) << "the messages reach the places";
}

}  // namespace
