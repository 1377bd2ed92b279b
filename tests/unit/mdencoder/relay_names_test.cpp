// SPDX-License-Identifier: Apache-2.0
// The names of relays: when they are asked for, and which of the answers is taken.
#include "relay_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ini_file.h"

namespace mdencoder::relay_names_test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Clock = RelayNames::Clock;

SourceSettings Source(const std::string& relays) {
  return MakeConfig(ParseIni("[a]\ninput = udp\nport = 5000\n" + relays), "-").sources.at(0);
}

Resolution At(const std::vector<std::string>& addresses) {
  Resolution resolution;
  for (const std::string& address : addresses) {
    const Resolution one = Resolve(address, 7000, SOCK_DGRAM);
    resolution.addresses.insert(resolution.addresses.end(), one.addresses.begin(), one.addresses.end());
  }
  return resolution;
}

class RelayNamesTest : public testing::Test {
 protected:
  void Use(const std::string& relays) {
    m_settings = Source(relays);
    m_names.Configure(m_settings);
  }
  // Lets the time pass by a second, and takes what has come.
  void Pass(int seconds = 1) {
    for (int i = 0; i < seconds; ++i) {
      m_now += 1s;
      m_names.Update(m_now);
    }
  }
  void CountErrors(size_t relay, ULONG errors) {
    m_statistics.Relays[relay].nRelayErrors = errors;
    m_names.Look(m_statistics, m_now);
  }
  std::vector<std::string> Asked() { return std::exchange(m_asked, {}); }
  std::string RelayOf(size_t relay) {
    m_names.Fill(m_settings);
    return DestinationText(m_settings.record.Relays[relay]);
  }

  std::vector<std::string> m_asked;
  std::vector<std::chrono::milliseconds> m_waits;
  std::optional<Resolution> m_answer;  // to every question
  SourceSettings m_settings;
  MDATA_SRC_STATS m_statistics{};
  Clock::time_point m_now = Clock::time_point{} + 1h;
  RelayNames m_names{[this](const std::string& host, uint16_t port) {
    m_asked.push_back(host + ":" + std::to_string(port));
    return NameQuestion{[this] { return m_answer; },
                        [this](std::chrono::milliseconds most) { m_waits.push_back(most); }};
  }};
};

constexpr char kTwo[] = "relay1 = 192.0.2.9:7000\nrelay2 = one.test:7001\nrelay3 = two.test:7002\n";

TEST_F(RelayNamesTest, AddressesAreNoNames) {
  Use("relay1 = 192.0.2.9:7000\nrelay2 = [2001:db8::1]:7000\n");
  EXPECT_TRUE(m_names.IsEmpty());
  EXPECT_TRUE(m_names.AreKnown());
  Use(kTwo);
  EXPECT_FALSE(m_names.IsEmpty());
  EXPECT_FALSE(m_names.AreKnown());
}

TEST_F(RelayNamesTest, EachIsAskedForOnceUntilThereIsAnAnswer) {
  Use(kTwo);
  EXPECT_FALSE(m_names.IsAsking());
  Pass(60);
  EXPECT_THAT(Asked(), ElementsAre("one.test:7001", "two.test:7002"));
  EXPECT_TRUE(m_names.IsAsking());
  m_answer = At({"192.0.2.1"});
  Pass();
  EXPECT_FALSE(m_names.IsAsking());
  EXPECT_TRUE(m_names.AreKnown());
  Pass(60);
  EXPECT_THAT(Asked(), IsEmpty());
  EXPECT_EQ(RelayOf(0), "192.0.2.9:7000");
  EXPECT_EQ(RelayOf(1), "192.0.2.1:7001");
  EXPECT_EQ(RelayOf(2), "192.0.2.1:7002");
}

TEST_F(RelayNamesTest, AnAnswerThatTakesLongIsAFault) {
  Use("relay1 = one.test:7001\n");
  EXPECT_EQ(m_names.Fault(m_now), "") << "nobody has asked";
  m_names.Update(m_now);
  EXPECT_EQ(m_names.Fault(m_now + 1999ms), "");
  EXPECT_EQ(m_names.Fault(m_now + 2s), "the address of one.test is being looked up");
  m_answer = Resolution{{}, "no such name"};
  Pass();
  EXPECT_EQ(m_names.Fault(m_now), "no such name");
  m_answer = At({"192.0.2.1"});
  Pass(2);
  EXPECT_EQ(m_names.Fault(m_now), "");
}

TEST_F(RelayNamesTest, WithoutAnAnswerThePausesGrow) {
  Use("relay1 = one.test:7001\n");
  m_answer = Resolution{{}, "no such name"};
  std::vector<int> asked;
  for (int second = 0; second <= 130; ++second) {
    m_names.Update(m_now + std::chrono::seconds(second));
    if (!Asked().empty()) asked.push_back(second);
  }
  EXPECT_THAT(asked, ElementsAre(0, 2, 6, 14, 30, 60, 90, 120));
}

TEST_F(RelayNamesTest, AnAddressThatIsStillAmongThoseOfTheHostStays) {
  Use("relay1 = one.test:7001\n");
  m_answer = At({"192.0.2.1", "192.0.2.2"});
  Pass();
  EXPECT_EQ(RelayOf(0), "192.0.2.1:7001");
  CountErrors(0, 1);
  m_answer = At({"192.0.2.3", "192.0.2.1"});
  Pass(60);
  CountErrors(0, 2);
  Pass();
  EXPECT_FALSE(m_names.WouldChange(m_settings));
  m_answer = At({"192.0.2.3", "192.0.2.2"});
  Pass(60);
  CountErrors(0, 3);
  Pass();
  EXPECT_TRUE(m_names.WouldChange(m_settings));
  EXPECT_THAT(m_names.Fill(m_settings), ElementsAre(0));
  EXPECT_FALSE(m_names.WouldChange(m_settings));
  EXPECT_THAT(m_names.Fill(m_settings), IsEmpty());
  EXPECT_EQ(RelayOf(0), "192.0.2.3:7001");
}

TEST_F(RelayNamesTest, OnlyMoreErrorsThanBeforeAreAQuestion) {
  Use(kTwo);
  m_answer = At({"192.0.2.1"});
  Pass();
  Asked();
  CountErrors(1, 5);
  EXPECT_THAT(Asked(), IsEmpty()) << "what was before the first look";
  Pass(60);
  CountErrors(1, 5);
  EXPECT_THAT(Asked(), IsEmpty());
  CountErrors(0, 9);
  EXPECT_THAT(Asked(), IsEmpty()) << "a relay without a name";
  CountErrors(1, 6);
  EXPECT_THAT(Asked(), ElementsAre("one.test:7001"));
  Pass(60);
  CountErrors(1, 2);
  EXPECT_THAT(Asked(), IsEmpty()) << "the counts were reset";
  m_names.ForgetErrors();
  CountErrors(1, 7);
  EXPECT_THAT(Asked(), IsEmpty()) << "the source was opened again";
  CountErrors(1, 8);
  EXPECT_THAT(Asked(), ElementsAre("one.test:7001"));
}

TEST_F(RelayNamesTest, AnAnswerWithoutAnAddressLeavesTheOneInUse) {
  Use("relay1 = one.test:7001\n");
  m_answer = At({"192.0.2.1"});
  Pass(60);
  CountErrors(0, 1);
  CountErrors(0, 2);
  m_answer = Resolution{{}, "no such name"};
  Pass();
  EXPECT_TRUE(m_names.AreKnown());
  EXPECT_EQ(m_names.Fault(m_now), "");
  EXPECT_EQ(RelayOf(0), "192.0.2.1:7001");
  m_names.ForgetAddresses();
  EXPECT_FALSE(m_names.AreKnown());
}

TEST_F(RelayNamesTest, WhatIsKnownOfANameThatStaysIsKept) {
  Use("relay1 = one.test:7001\n");
  m_answer = At({"2001:db8::1", "192.0.2.1"});
  Pass();
  m_answer.reset();
  Use("relay1 = two.test:7001\nrelay2 = one.test:7009\n");
  EXPECT_FALSE(m_names.AreKnown());
  EXPECT_EQ(RelayOf(1), "[2001:db8::1]:7009");
  Use("relay1 = one.test:7001\n");
  EXPECT_TRUE(m_names.AreKnown());
  Use("relay1 = one.test:7001 ttl=follow\n");
  EXPECT_FALSE(m_names.AreKnown()) << "it needs an address of IPv4";
  m_answer = At({"2001:db8::1", "192.0.2.1"});
  Pass();
  EXPECT_EQ(RelayOf(0), "192.0.2.1:7001");
}

TEST_F(RelayNamesTest, ATypeOfServiceThatFollowsNeedsIPv4Too) {
  m_answer = At({"2001:db8::1"});
  Use("relay1 = one.test:7001 tos=follow\n");
  Pass();
  EXPECT_EQ(m_names.Fault(m_now), "one.test has no address of IPv4, as a relay that follows needs");
}

TEST_F(RelayNamesTest, ALinkLocalAddressIsOnTheInterfaceOfTheRelays) {
  m_answer = At({"fe80::1%lo"});
  Use("relay1 = one.test:7001\n");
  Pass();
  EXPECT_THAT(m_names.Fault(m_now), HasSubstr("one.test has no address on the interface "));
  Use("relay1 = one.test:7001\nrelay2 = [fe80::7%lo]:7001\n");
  Pass();
  EXPECT_EQ(RelayOf(0), "[fe80::1]:7001");
  Use("relay1 = one.test:7001\n");
  EXPECT_FALSE(m_names.AreKnown()) << "that was an address of another interface";
}

TEST_F(RelayNamesTest, AnswersThatAreNoAddressesAreLeftOut) {
  HostAddress other;
  other.address.ss_family = AF_UNIX;
  m_answer = At({"192.0.2.1"});
  m_answer->addresses.insert(m_answer->addresses.begin(), other);
  Use("relay1 = one.test:7001\n");
  Pass();
  EXPECT_EQ(RelayOf(0), "192.0.2.1:7001");
}

TEST_F(RelayNamesTest, WaitsForAllTogetherNoLongerThanAsked) {
  Use(kTwo);
  m_names.Wait(5s);
  EXPECT_THAT(m_waits, IsEmpty()) << "nothing was asked";
  m_names.Update(m_now);
  m_names.Wait(5s);
  ASSERT_EQ(m_waits.size(), 2u);
  EXPECT_LE(m_waits[0], 5s);
  EXPECT_GT(m_waits[0], 0s);
  EXPECT_LE(m_waits[1], m_waits[0]);
  m_waits.clear();
  m_names.Wait(0s);
  EXPECT_THAT(m_waits, IsEmpty());
}

}  // namespace
}  // namespace mdencoder::relay_names_test
