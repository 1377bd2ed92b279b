// SPDX-License-Identifier: Apache-2.0
#include "tak_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tak_protocol.h"

namespace tak {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t kLongest = 200;

struct Outcome {
  std::vector<std::string> messages;  // those of protobuf behind "pb:"
  uint64_t faults = 0;
  bool isInside = false;
};

Outcome Push(const std::string& text, size_t piece) {
  Outcome outcome;
  StreamReader reader(kLongest);
  for (size_t at = 0; at < text.size(); at += piece) {
    const std::string_view part = std::string_view(text).substr(at, piece);
    reader.Push({reinterpret_cast<const uint8_t*>(part.data()), part.size()},
                [&](StreamReader::Kind kind, std::span<const uint8_t> bytes) {
                  outcome.messages.push_back((kind == StreamReader::Kind::Protobuf ? "pb:" : "") +
                                             std::string(bytes.begin(), bytes.end()));
                });
  }
  outcome.faults = reader.Faults();
  outcome.isInside = reader.IsInside();
  return outcome;
}

// Pushes the text whole and in pieces of every small size, which must make no difference.
Outcome Push(const std::string& text) {
  const Outcome whole = Push(text, text.size());
  for (size_t piece = 1; piece < 8; ++piece) {
    const Outcome outcome = Push(text, piece);
    EXPECT_EQ(outcome.messages, whole.messages) << piece;
    EXPECT_EQ(outcome.faults, whole.faults) << piece;
  }
  return whole;
}

TEST(TakStream, CutsEventsThatFollowEachOther) {
  const Outcome outcome = Push("<event uid='1'><point/></event><event uid='2'></event>\r\n <event uid='3'/>");
  EXPECT_THAT(outcome.messages,
              ElementsAre("<event uid='1'><point/></event>", "<event uid='2'></event>", "<event uid='3'/>"));
  EXPECT_EQ(outcome.faults, 0U);
}

TEST(TakStream, SkipsDeclarationsCommentsAndByteOrderMarks) {
  const Outcome outcome = Push("\xEF\xBB\xBF<?xml version=\"1.0\"?>\n<!-- <event> --><!DOCTYPE event><event/>");
  EXPECT_THAT(outcome.messages, ElementsAre("<event/>"));
  EXPECT_EQ(outcome.faults, 0U);
}

TEST(TakStream, IsNotMisledByWhatLooksLikeAnEnd) {
  for (const std::string event :
       {"<event a='/>'><d/></event>", "<event><!-- </event> --></event>", "<event><!--></event>--></event>",
        "<event><![CDATA[</event>]]></event>", "<event><event/></event>", "<event><event></event></event>",
        "<event><?p </event>?></event>", "<event><a b='>'/></event>", "<event><a b=\"'>\"></a></event>"}) {
    EXPECT_THAT(Push(event + "<event/>").messages, ElementsAre(event, "<event/>"));
  }
}

TEST(TakStream, GivesMessagesOfTheProtocol) {
  Event event;
  event.type = "a-f-A";
  const std::vector<uint8_t> message = FormatMessage(event);
  const std::vector<uint8_t> withHeader = FormatStreamMessage(event);
  const std::string bytes(withHeader.begin(), withHeader.end());
  const std::string payload = "pb:" + std::string(message.begin(), message.end());
  EXPECT_THAT(Push(bytes + "<event/>" + bytes + bytes).messages, ElementsAre(payload, "<event/>", payload, payload));
  EXPECT_THAT(Push(std::string("\xBF\x00", 2) + bytes).messages, ElementsAre(payload));
}

TEST(TakStream, SkipsAMessageThatIsTooLong) {
  const std::string tooLong = "\xBF\xC9\x01" + std::string(201, '<');
  const Outcome outcome = Push(tooLong + "<event/>");
  EXPECT_THAT(outcome.messages, ElementsAre("<event/>"));
  EXPECT_EQ(outcome.faults, 1U);
  EXPECT_THAT(Push("\xBF\xC8\x01" + std::string(200, 'x')).messages, ElementsAre("pb:" + std::string(200, 'x')));
}

TEST(TakStream, GivesUpAnElementWithoutEndAndFindsTheNextEvent) {
  const Outcome outcome = Push("<event><a>" + std::string(300, 'x') + "</event><event uid='2'/>");
  EXPECT_THAT(outcome.messages, ElementsAre("<event uid='2'/>"));
  EXPECT_EQ(outcome.faults, 1U);
}

TEST(TakStream, BeginsAgainAtATagInATag) {
  const Outcome outcome = Push("<event uid=\"1\" type=\"a-<event uid='2'/>");
  EXPECT_THAT(outcome.messages, ElementsAre("<event uid='2'/>"));
  EXPECT_EQ(outcome.faults, 1U);
}

TEST(TakStream, CountsWhatIsNeitherOnce) {
  const Outcome outcome = Push("HTTP/1.1 400 Bad Request\r\n\r\n<eve<event/>");
  EXPECT_THAT(outcome.messages, ElementsAre("<event/>"));
  EXPECT_EQ(outcome.faults, 1U);
  EXPECT_THAT(Push(std::string(1000, 'x')).messages, IsEmpty());
  EXPECT_EQ(Push("\xBF" + std::string(10, '\xFF')).faults, 1U) << "a length without end";
}

TEST(TakStream, TellsThatAMessageIsUnfinished) {
  EXPECT_TRUE(Push("<event><point/>").isInside);
  EXPECT_FALSE(Push("<event/> ").isInside);
  EXPECT_TRUE(Push("\xBF\x05xx").isInside);
}

}  // namespace
}  // namespace tak
