// SPDX-License-Identifier: Apache-2.0
// Tests of relaying: creating the sockets, following TTL and TOS, sending and its errors.
#include "md_relay.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "builders.h"
#include "engine_test.h"

namespace {

const Bytes kUnicast = {10, 0, 0, 1};
const Bytes kMulticast = {239, 0, 0, 1};
const Bytes kUnicast6 = Hex("FE 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01");
const Bytes kMulticast6 = Hex("FF 02 00 00 00 00 00 00 00 00 00 00 00 00 00 01");
const Bytes kMessage = {1, 2, 3, 4, 5};

Bytes IntBytes(int value) {
  const auto* bytes = reinterpret_cast<const BYTE*>(&value);
  return {bytes, bytes + sizeof(value)};
}

// Tests relays with a bare record.
class RelayTest : public EngineTest {
 protected:
  RelayTest() {
    _InitRelayers(&m_record);
    m_record.bRelaysReady = TRUE;
  }
  void TearDown() override {
    for (const RELAYER& relayer : m_record.Relayers)
      if (relayer.iRelaySocket >= 0) close(relayer.iRelaySocket);
    EngineTest::TearDown();
  }

  // Creates the sockets of the relays added so far.
  BOOL Create() {
    int sockets[MDATA_MAX_RELAYS];
    const BOOL created = _CreateRelayingSockets(&m_record.Config, sockets, MDATA_MAX_RELAYS);
    for (int i = 0; i < MDATA_MAX_RELAYS; ++i) m_record.Relayers[i].iRelaySocket = sockets[i];
    return created;
  }
  void AddAndCreate(const Bytes& address, int ttl = 0, int tos = -1) {
    AddRelay(m_record.Config, address, ttl, tos);
    EXPECT_TRUE(Create());
    AllowOpeningLogs();
    ForgetCreation();
  }
  void ForgetCreation() {
    int sockets[MDATA_MAX_RELAYS];
    for (int i = 0; i < MDATA_MAX_RELAYS; ++i) sockets[i] = m_record.Relayers[i].iRelaySocket;
    _InitRelayers(&m_record);
    for (int i = 0; i < MDATA_MAX_RELAYS; ++i) m_record.Relayers[i].iRelaySocket = sockets[i];
  }
  const FakeFD& Socket(int relay = 0) const { return host().FD(m_record.Relayers[relay].iRelaySocket); }
  RELAYER& Relayer(int relay = 0) { return m_record.Relayers[relay]; }
  static std::string Name(int fd) { return std::to_string(fd); }
  std::string Number(int relay = 0) const { return Name(m_record.Relayers[relay].iRelaySocket); }

  BOOL Send(std::optional<BYTE> tos = {}, std::optional<BYTE> ttl = {}) {
    return _RelayMetaData(&m_record, kMessage.data(), kMessage.size(), tos ? &*tos : nullptr, ttl ? &*ttl : nullptr);
  }
  // Tells whether exactly this one option was set on the socket.
  static void ExpectOnlyOption(const FakeFD& fd, int level, int option, int value) {
    ASSERT_EQ(fd.options.size(), 1u);
    EXPECT_EQ(fd.options[0].level, level);
    EXPECT_EQ(fd.options[0].option, option);
    EXPECT_EQ(fd.options[0].value, IntBytes(value));
  }

  tagMDATA_SRC_HANDLE m_record = {};
};

class RelayInitTest : public RelayTest {};
class RelaySocketTest : public RelayTest {};
class RelayFollowTest : public RelayTest {};
class RelaySendTest : public RelayTest {};

// Tests messages that arrive between the hand-over to the thread and the end of the opening.
class RelayOpeningTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    AllowLogs(5, "Support of additionnal CoT items");
    AllowLogs(3, "invalid input, pvInputData");  // the test needs no event
    Start();
  }
  // Opens the source. The data that the function feeds is handled while the opener still holds the relay sockets.
  template <typename Feed>
  HMDATASRC OpenAndFeed(const MDATA_SRC_CFG& config, Feed feed) {
    host().AtLog("Wait successful.\n", [=] {
      feed();
      host().PassUntilIdle();
    });
    return Open(config);
  }
  static MDATA_SRC_CFG Following(MDATA_SRC_CFG config) {
    AddRelay(config, kUnicast, -1, -1);
    return config;
  }
  // Checks that the message was neither sent nor counted nor logged.
  static void ExpectNothingRelayed(HMDATASRC source) {
    EXPECT_EQ(host().Calls("send"), 0);
    EXPECT_EQ(source->Relayers[0].nRelayErrors, 0u);
    EXPECT_EQ(source->Relayers[0].iLastRelayError, 0);
    EXPECT_EQ(source->SourceTTL, -1);
    EXPECT_EQ(source->SourceTOS, -1);
    EXPECT_EQ(source->nSourceTTLUpdates, 0u);
    EXPECT_EQ(source->nSourceTOSUpdates, 0u);
    ExpectNoLog("Called for 1 relays.\n");
  }
  static void ExpectFollowed(HMDATASRC source, int ttl, int tos) {
    EXPECT_EQ(source->Relayers[0].CurrentRelayTTL, ttl);
    EXPECT_EQ(source->Relayers[0].CurrentRelayTOS, tos);
    const FakeFD& socket = host().FD(source->Relayers[0].iRelaySocket);
    ASSERT_EQ(socket.options.size(), 2u);
    EXPECT_EQ(socket.options[0].value, IntBytes(tos));
    EXPECT_EQ(socket.options[1].value, IntBytes(ttl));
    EXPECT_EQ(socket.sent.size(), 1u);
    EXPECT_EQ(source->nSourceTTLUpdates, 1u);
    EXPECT_EQ(source->nSourceTOSUpdates, 1u);
  }
};

// --- Initial state ---------------------------------------------------------------------------------------

TEST_F(RelayInitTest, NoValueIsKnownAtFirst) {
  m_record.SourceTTL = m_record.SourceTOS = 7;
  for (RELAYER& relayer : m_record.Relayers) relayer.iRelaySocket = relayer.CurrentRelayTTL = 7;
  _InitRelayers(&m_record);
  EXPECT_EQ(m_record.SourceTTL, -1);
  EXPECT_EQ(m_record.SourceTOS, -1);
  EXPECT_FALSE(m_record.bDetectTTL);
  EXPECT_FALSE(m_record.bDetectTOS);
  for (const RELAYER& relayer : m_record.Relayers) {
    EXPECT_EQ(relayer.iRelaySocket, -1);
    EXPECT_EQ(relayer.CurrentRelayTTL, -1);
  }
}

TEST_F(RelayInitTest, AnyNegativeValueInAnyOfTheEightSlotsDetects) {
  m_record.Config.nNumOfRelays = 1;
  m_record.Config.Relays[7].IpTTL = -5;
  _InitRelayers(&m_record);
  EXPECT_TRUE(m_record.bDetectTTL);
  EXPECT_FALSE(m_record.bDetectTOS);
  m_record.Config.Relays[6].IpTOS = -1;
  _InitRelayers(&m_record);
  EXPECT_TRUE(m_record.bDetectTOS);
}

// --- Sockets ---------------------------------------------------------------------------------------------

TEST_F(RelaySocketTest, OneConnectedNonBlockingSocketPerRelay) {
  host().scopeID = 3;
  AddRelay(m_record.Config, kUnicast, 0, -1);
  AddRelay(m_record.Config, kUnicast6, 0, -1);
  EXPECT_TRUE(Create());
  const FakeFD& first = Socket(0);
  const FakeFD& second = Socket(1);
  EXPECT_TRUE(first.nonBlocking);
  EXPECT_TRUE(second.nonBlocking);
  EXPECT_TRUE(first.closeOnExec);
  EXPECT_TRUE(second.closeOnExec);
  EXPECT_TRUE(first.options.empty());
  EXPECT_EQ(first.family, AF_INET);
  EXPECT_EQ(second.family, AF_INET6);
  const auto* four = reinterpret_cast<const sockaddr_in*>(&first.connectedTo);
  EXPECT_EQ(four->sin_family, AF_INET);
  EXPECT_EQ(four->sin_port, htons(6001));
  EXPECT_EQ(four->sin_addr.s_addr, inet_addr("10.0.0.1"));
  const auto* six = reinterpret_cast<const sockaddr_in6*>(&second.connectedTo);
  EXPECT_EQ(six->sin6_family, AF_INET6);
  EXPECT_EQ(six->sin6_port, htons(6002));
  EXPECT_EQ(six->sin6_scope_id, 3u);
  EXPECT_EQ(memcmp(&six->sin6_addr, kUnicast6.data(), 16), 0);
  for (int i = 2; i < MDATA_MAX_RELAYS; ++i) EXPECT_EQ(Relayer(i).iRelaySocket, -1);

  ExpectLog(6, "Called to create 2 relaying sockets.\n");
  ExpectLog(6, "Successfully created IPv4 socket " + Number(0) + " (1/2).\n");
  ExpectLog(5, "Successfully connected socket " + Number(0) + " (1/2) to [10.0.0.1]:6001.\n");
  ExpectLog(5, "Successfully initialized relaying socket " + Number(0) + " (1/2).\n");
  ExpectLog(6, "Successfully created IPv6 socket " + Number(1) + " (2/2).\n");
  ExpectLog(5, "Successfully connected socket " + Number(1) + " (2/2) to [fe80::1]:6002.\n");
  ExpectLog(5, "Successfully initialized relaying socket " + Number(1) + " (2/2).\n");
}

TEST_F(RelaySocketTest, NoRelaysNeedNoSocket) {
  EXPECT_TRUE(Create());
  ExpectLog(6, "Called to create 0 relaying sockets.\n");
  EXPECT_EQ(host().Calls("socket"), 0);
}

TEST_F(RelaySocketTest, UnicastTTLUsesTheUnicastOption) {
  AddAndCreate(kUnicast, 16);
  ExpectOnlyOption(Socket(), IPPROTO_IP, IP_TTL, 16);
  ExpectLog(6, "Successfully set unicast TTL on socket " + Number() + " (1/1) to 16.\n");
}

TEST_F(RelaySocketTest, MulticastTTLUsesTheMulticastOption) {
  AddAndCreate(kMulticast, 16);
  ExpectOnlyOption(Socket(), IPPROTO_IP, IP_MULTICAST_TTL, 16);
  ExpectLog(6, "Successfully set multcast TTL on socket " + Number() + " (1/1) to 16.\n");
}

TEST_F(RelaySocketTest, FirstByteFrom224IsMulticast) {
  AddAndCreate({224, 0, 0, 1}, 16);
  ExpectOnlyOption(Socket(0), IPPROTO_IP, IP_MULTICAST_TTL, 16);
  m_record.Config.nNumOfRelays = 0;
  close(Relayer(0).iRelaySocket);
  AddAndCreate({255, 255, 255, 255}, 16);
  ExpectOnlyOption(Socket(0), IPPROTO_IP, IP_MULTICAST_TTL, 16);
  m_record.Config.nNumOfRelays = 0;
  close(Relayer(0).iRelaySocket);
  AddAndCreate({223, 0, 0, 1}, 16);
  ExpectOnlyOption(Socket(0), IPPROTO_IP, IP_TTL, 16);
}

TEST_F(RelaySocketTest, IPv6UnicastHopsAreSet) {
  AddAndCreate(kUnicast6, 16);
  ExpectOnlyOption(Socket(), IPPROTO_IPV6, IPV6_UNICAST_HOPS, 16);
  ExpectLog(6, "Successfully set IPv6 unicast hopes on socket " + Number() + " (1/1) to 16.\n");
}

TEST_F(RelaySocketTest, IPv6MulticastHopsSucceedSilently) {
  AddAndCreate(kMulticast6, 16);
  ExpectOnlyOption(Socket(), IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 16);
  for (const LogLine& line : host().Logs()) EXPECT_EQ(line.text.find("hop"), std::string::npos) << line.text;
}

TEST_F(RelaySocketTest, TTLOfZeroKeepsTheDefaultAndTOSOfZeroIsSet) {
  AddAndCreate(kUnicast, 0, 0);
  ExpectOnlyOption(Socket(), IPPROTO_IP, IP_TOS, 0);
  ExpectLog(6, "Successfully set TOS socket " + Number() + " (1/1) to 0x0.\n");
}

TEST_F(RelaySocketTest, FollowingValuesAreNotSetYet) {
  AddAndCreate(kUnicast, -1, -1);
  EXPECT_TRUE(Socket().options.empty());
}

TEST_F(RelaySocketTest, TOSAndTrafficClassAreSet) {
  AddAndCreate(kUnicast, 0, 0xB8);
  ExpectOnlyOption(Socket(), IPPROTO_IP, IP_TOS, 0xB8);
  ExpectLog(6, "Successfully set TOS socket " + Number() + " (1/1) to 0xB8.\n");
  m_record.Config.nNumOfRelays = 0;
  close(Relayer().iRelaySocket);
  AddAndCreate(kUnicast6, 0, 0xB8);
  ExpectOnlyOption(Socket(), IPPROTO_IPV6, IPV6_TCLASS, 0xB8);
  ExpectLog(6, "Successfully set traffic class on socket " + Number() + " (1/1) to 0xB8.\n");
}

// A failing step of the set-up and its log line.
struct FailedStep {
  const char* call;
  Bytes address;
  int ttl;
  int tos;
  const char* before;  // the line before the socket's number
  const char* after;   // the line after it
};

class RelaySetUpFailureTest : public RelayTest, public ::testing::WithParamInterface<FailedStep> {};

TEST_P(RelaySetUpFailureTest, FailsTheOpeningAndClosesEverySocket) {
  const FailedStep& step = GetParam();
  AddRelay(m_record.Config, kUnicast, 0, -1);
  AddRelay(m_record.Config, step.address, step.ttl, step.tos);
  AddRelay(m_record.Config, kUnicast, 0, -1);
  const bool afterFirst = std::string(step.call) != "setsockopt";  // the first relay sets no option
  host().FailNext(step.call, {.skip = afterFirst ? 1 : 0, .error = EACCES});
  EXPECT_FALSE(Create());
  AllowOpeningLogs();
  const std::string socket = Name(kFirstFakeFD + 1);
  ExpectLog(3, step.before + socket + step.after + ", errno (13): \"Permission denied\".\n");
  ExpectLog(5, "Closing any sockets created.\n");
  ASSERT_EQ(host().FDsOfKind("socket").size(), 2u) << "the third is not begun";
  for (const int fd : host().FDsOfKind("socket")) EXPECT_TRUE(host().FD(fd).closed);
  for (const RELAYER& relayer : m_record.Relayers) EXPECT_EQ(relayer.iRelaySocket, -1);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, RelaySetUpFailureTest,
    ::testing::Values(
        FailedStep{"ioctl", kUnicast, 0, -1, "Failed to make socket ", " (2/3) non-blocking"},
        FailedStep{"setsockopt", kMulticast, 9, -1, "Failed to set multicast TTL to 9 on socket ", " (2/3)"},
        FailedStep{"setsockopt", kUnicast, 9, -1, "Failed to set unicast TTL to 9 on socket ", " (2/3)"},
        FailedStep{"setsockopt", kMulticast6, 9, -1, "Failed to set IPv6 multicast hops to 9 on socket ", " (2/3)"},
        FailedStep{"setsockopt", kUnicast6, 9, -1, "Failed to set IPv6 unicast hops to 9 on socket ", " (2/3)"},
        FailedStep{"setsockopt", kUnicast, 0, 0x28, "Failed to set TOS to 0x28 on socket ", " (2/3)"},
        FailedStep{"setsockopt", kUnicast6, 0, 0x28, "Failed to set traffic class to 0x28 on socket ", " (2/3)"},
        FailedStep{"connect", kUnicast, 0, -1, "Failed to connect socket ", " (2/3) to [10.0.0.1]:6002"},
        FailedStep{"connect", kUnicast6, 0, -1, "Failed to connect socket ", " (2/3) to [fe80::1]:6002"}));

TEST_F(RelaySocketTest, RelayWithoutASocketIsSkipped) {
  for (int i = 0; i < 3; ++i) AddRelay(m_record.Config, kUnicast, 0, -1);
  host().FailNext("socket", {.skip = 1, .error = EMFILE});
  EXPECT_TRUE(Create());
  AllowOpeningLogs();
  ExpectLog(3, "Failed to create relaying socket 2/3, errno (24): \"Too many open files\".\n");
  EXPECT_GE(Relayer(0).iRelaySocket, 0);
  EXPECT_EQ(Relayer(1).iRelaySocket, -1);
  EXPECT_GE(Relayer(2).iRelaySocket, 0);
}

TEST_F(RelaySocketTest, ConnectInProgressIsASuccess) {
  host().FailNext("connect", {.error = EINPROGRESS});
  AddAndCreate(kUnicast);
  ExpectLog(4, "Connect in progress for socket " + Number() + " (1/1) to [10.0.0.1]:6001.\n");
  ExpectLog(5, "Successfully initialized relaying socket " + Number() + " (1/1).\n");
}

TEST_F(RelaySocketTest, UnknownFamilyAssertsAndGetsNoSocket) {
  AddRelay(m_record.Config, kUnicast, 0, -1);
  m_record.Config.Relays[0].iDestAddressFamily = AF_UNIX;
  EXPECT_TRUE(Create());
  ExpectAssertion(
      "(pCfg->Relays[i].iDestAddressFamily == AF_INET) || (pCfg->Relays[i].iDestAddressFamily == AF_INET6)");
  EXPECT_EQ(Relayer().iRelaySocket, -1);
}

TEST_F(RelaySocketTest, MoreRelaysThanSlotsAssertAndFail) {
  m_record.Config.nNumOfRelays = MDATA_MAX_RELAYS + 1;
  EXPECT_FALSE(Create());
  ExpectAssertion("pCfg->nNumOfRelays <= nNumOfSockets");
  ExpectLog(5, "Closing any sockets created.\n");
  EXPECT_EQ(host().Calls("socket"), 0);
}

TEST_F(RelaySocketTest, SourceWithOneMissingSocketOpensAndSevenRelaysWork) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  for (int i = 0; i < MDATA_MAX_RELAYS; ++i) AddRelay(config);
  host().FailNext("socket", {.skip = 1, .error = EMFILE});
  const HMDATASRC source = Open(config);
  ASSERT_NE(source, nullptr);
  ExpectLogContaining(3, "Failed to create relaying socket 2/8");
  host().FeedDatagram(source->iFD, kMessage);
  host().PassUntilIdle();
  ExpectLog(
      3, "Failed to relay 5 bytes of metadata on socket -1 of relay#2/8, rc=-1, errno (9): \"Bad file descriptor\".\n");
  for (int i = 0; i < MDATA_MAX_RELAYS; ++i) {
    const RELAYER& relayer = source->Relayers[i];
    EXPECT_EQ(relayer.nRelayedMessages, i == 1 ? 0u : 1u) << i;
    EXPECT_EQ(relayer.nRelayErrors, i == 1 ? 1u : 0u) << i;
    if (i == 1) continue;
    EXPECT_EQ(host().FD(relayer.iRelaySocket).sent, std::vector<Bytes>{kMessage});
  }
  // The message is too short for a local set, but rewriting is not configured.
  EXPECT_EQ(m_encoder.messages.size(), 1u);
}

// --- Following -------------------------------------------------------------------------------------------

TEST_F(RelayFollowTest, FirstDatagramAlwaysCountsAsAChange) {
  AddAndCreate(kUnicast, -1, -1);
  host().Advance(5000);
  EXPECT_TRUE(Send(BYTE{0}, BYTE{0}));
  EXPECT_EQ(m_record.SourceTOS, 0);
  EXPECT_EQ(m_record.SourceTTL, 0);
  EXPECT_EQ(m_record.nSourceTOSUpdates, 1u);
  EXPECT_EQ(m_record.nSourceTTLUpdates, 1u);
  EXPECT_EQ(m_record.nLastSourceTOSUpdateUpTimeInSecs, 1005u);
  EXPECT_EQ(m_record.nLastSourceTTLUpdateUpTimeInSecs, 1005u);
}

TEST_F(RelayFollowTest, ChangedValuesAreSetOnTheSocket) {
  AddAndCreate(kUnicast, -1, -1);
  EXPECT_TRUE(Send(BYTE{0xB8}, BYTE{64}));
  ExpectLog(7, "Called for 1 relays.\n");
  ExpectLog(6, "TOS needs to change from 0x0 to 0xB8 for relayer #1/1.\n");
  ExpectLog(6, "Successfully set TOS to 0xB8.\n");
  ExpectLog(6, "TTL needs to change from 0xFFFFFFFF to 0x40.\n");
  ExpectLog(6, "Successfully set TTL to 64.\n");
  EXPECT_EQ(Relayer().CurrentRelayTOS, 0xB8);
  EXPECT_EQ(Relayer().CurrentRelayTTL, 64);
  ASSERT_EQ(Socket().options.size(), 2u);
  EXPECT_EQ(Socket().options[0].option, IP_TOS);
  EXPECT_EQ(Socket().options[0].value, IntBytes(0xB8));
  EXPECT_EQ(Socket().options[1].option, IP_TTL);
  EXPECT_EQ(Socket().options[1].value, IntBytes(64));
  EXPECT_TRUE(Send(BYTE{0xB8}, BYTE{63}));
  ExpectLog(7, "Not checking TOS.\n");
  ExpectLog(6, "TTL needs to change from 0x40 to 0x3F.\n");
  EXPECT_EQ(Socket().options.size(), 3u);
  EXPECT_EQ(m_record.nSourceTOSUpdates, 1u);
  EXPECT_EQ(m_record.nSourceTTLUpdates, 2u);
}

TEST_F(RelayFollowTest, MulticastDestinationFollowsWithTheMulticastOption) {
  AddAndCreate(kMulticast, -1, 0);
  EXPECT_TRUE(Send(BYTE{0}, BYTE{12}));
  ExpectLog(6, "Successfully set multcast TTL on socket to 12.\n");
  EXPECT_EQ(Socket().options.back().option, IP_MULTICAST_TTL);
  EXPECT_EQ(Relayer().CurrentRelayTTL, 12);
}

TEST_F(RelayFollowTest, FixedValuesStay) {
  AddAndCreate(kUnicast, 9, 0x28);
  EXPECT_TRUE(Send(BYTE{0xB8}, BYTE{64}));
  ExpectLog(7, "TOS already OK at 0xB8.\n");
  ExpectLog(7, "TTL already OK at 64.\n");
  EXPECT_EQ(Socket().options.size(), 2u) << "those of the set-up";
}

TEST_F(RelayFollowTest, AnyNegativeValueFollows) {
  AddAndCreate(kUnicast, -3, -2);
  EXPECT_TRUE(Send(BYTE{1}, BYTE{2}));
  EXPECT_EQ(Socket().options.size(), 2u);
}

TEST_F(RelayFollowTest, IPv6RelaysNeverFollow) {
  AddAndCreate(kUnicast6, -1, -1);
  EXPECT_TRUE(Send(BYTE{0xB8}, BYTE{64}));
  EXPECT_TRUE(Socket().options.empty());
  EXPECT_EQ(m_record.nSourceTTLUpdates, 1u) << "the source's own value is noted";
  for (const char* text : {"TOS already OK at 0xB8.\n", "Not checking TOS.\n", "Not checking TTL.\n"})
    ExpectNoLog(text);
}

TEST_F(RelayFollowTest, NothingIsCheckedWithoutValues) {
  AddAndCreate(kUnicast, -1, -1);
  EXPECT_TRUE(Send());
  ExpectLog(7, "Not checking TOS.\n");
  ExpectLog(7, "Not checking TTL.\n");
  EXPECT_EQ(m_record.SourceTTL, -1);
  EXPECT_TRUE(Socket().options.empty());
}

TEST_F(RelayFollowTest, FailedChangeIsTriedAgainWithTheNextValueOnly) {
  AddAndCreate(kUnicast, -1, -1);
  host().FailNext("setsockopt", {.times = 2, .error = EPERM});
  EXPECT_TRUE(Send(BYTE{0xB8}, BYTE{64}));
  ExpectLog(3, "Failed to set TOS to 0xB8 on socket " + Number() + ", errno (1): \"Operation not permitted\".\n");
  ExpectLog(3, "Failed to set TTL to 64 on socket, errno (1): \"Operation not permitted\".\n");
  EXPECT_EQ(Relayer().CurrentRelayTOS, 0);
  EXPECT_EQ(Relayer().CurrentRelayTTL, -1);
  EXPECT_TRUE(Send(BYTE{0xB8}, BYTE{64}));
  EXPECT_TRUE(Socket().options.empty());
  EXPECT_TRUE(Send(BYTE{0xB9}, BYTE{65}));
  EXPECT_EQ(Socket().options.size(), 2u);
}

TEST_F(RelayFollowTest, FailedMulticastChangeHasItsOwnText) {
  AddAndCreate(kMulticast, -1, 0);
  host().FailNext("setsockopt", {.error = EPERM});
  EXPECT_TRUE(Send({}, BYTE{64}));
  ExpectLog(3, "Failed to set multicast TTL on socket, errno (1): \"Operation not permitted\".\n");
  EXPECT_EQ(Relayer().CurrentRelayTTL, -1);
}

TEST_F(RelayFollowTest, UnknownUpTimeKeepsTheTime) {
  AddAndCreate(kUnicast, -1, 0);
  m_record.nLastSourceTTLUpdateUpTimeInSecs = 55;
  host().FailNext("GetSystemUPTime");
  EXPECT_TRUE(Send({}, BYTE{64}));
  EXPECT_EQ(m_record.nLastSourceTTLUpdateUpTimeInSecs, 55u);
}

// --- Sending ---------------------------------------------------------------------------------------------

TEST_F(RelaySendTest, EveryRelayGetsTheMessageOnce) {
  for (int i = 0; i < MDATA_MAX_RELAYS; ++i) AddRelay(m_record.Config, i % 2 == 0 ? kUnicast : kUnicast6, 0, -1);
  EXPECT_TRUE(Create());
  AllowOpeningLogs();
  EXPECT_TRUE(Send());
  for (int i = 0; i < MDATA_MAX_RELAYS; ++i) {
    EXPECT_EQ(Socket(i).sent, std::vector<Bytes>{kMessage});
    EXPECT_EQ(Relayer(i).nRelayedMessages, 1u);
    EXPECT_EQ(Relayer(i).nRelayedBytes, kMessage.size());
    EXPECT_EQ(Relayer(i).nRelayErrors, 0u);
    ExpectLog(
        7, "Successfully transmitted 5 bytes on socket " + Number(i) + " of relay#" + std::to_string(i + 1) + "/8.\n");
  }
}

TEST_F(RelaySendTest, NothingIsSentWithoutRelays) {
  EXPECT_FALSE(Send());
}

TEST_F(RelaySendTest, RefusalsAreAllCountedAndLoggedAtLevel6OncePerPause) {
  AddAndCreate(kUnicast);
  const std::string line = "Failed to relay 5 bytes of metadata on socket " + Number() +
                           " of relay#1/1, rc=-1, errno (111): \"Connection refused\".\n";
  for (int i = 0; i < 6; ++i) {
    host().FailNext("send", {.error = ECONNREFUSED});
    EXPECT_FALSE(Send());
    EXPECT_EQ(CountLogs(6, line), i < 5 ? 1 : 2) << "after " << i << " s";
    EXPECT_EQ(Relayer().nRelayErrors, static_cast<ULONG>(i + 1));
    EXPECT_EQ(Relayer().iLastRelayErrorTime, host().NowSeconds());
    host().Advance(1000);
  }
  EXPECT_EQ(Relayer().iLastRelayError, ECONNREFUSED);
  EXPECT_EQ(Relayer().nRelayedMessages, 0u);
}

TEST_F(RelaySendTest, OtherErrorsAreLoggedAtLevel3) {
  AddAndCreate(kUnicast);
  host().FailNext("send", {.error = ENETUNREACH});
  EXPECT_FALSE(Send());
  ExpectLog(3, "Failed to relay 5 bytes of metadata on socket " + Number() +
                   " of relay#1/1, rc=-1, errno (101): \"Network is unreachable\".\n");
  host().FailNext("send", {.error = EAGAIN});
  EXPECT_FALSE(Send());
  EXPECT_EQ(Relayer().nRelayErrors, 2u);
  EXPECT_EQ(Relayer().iLastRelayError, EAGAIN);
}

TEST_F(RelaySendTest, ShortSendIsAnError) {
  AddAndCreate(kUnicast);
  host().FailNext("send", {.error = ENOBUFS, .result = 3});
  EXPECT_FALSE(Send());
  ExpectLog(3, "Failed to relay 5 bytes of metadata on socket " + Number() +
                   " of relay#1/1, rc=3, errno (105): \"No buffer space available\".\n");
  EXPECT_EQ(Relayer().nRelayedBytes, 0u);
  EXPECT_EQ(Relayer().nRelayErrors, 1u);
}

TEST_F(RelaySendTest, OneFailingRelayDisturbsNoOther) {
  for (int i = 0; i < 3; ++i) AddRelay(m_record.Config, kUnicast, 0, -1);
  EXPECT_TRUE(Create());
  AllowOpeningLogs();
  host().FailNext("send", {.skip = 1, .error = ECONNREFUSED});
  EXPECT_TRUE(Send());
  EXPECT_EQ(Socket(0).sent.size(), 1u);
  EXPECT_EQ(Socket(1).sent.size(), 0u);
  EXPECT_EQ(Socket(2).sent.size(), 1u);
  EXPECT_TRUE(Send());
  EXPECT_EQ(Socket(1).sent.size(), 1u) << "the network came back";
}

TEST_F(RelaySendTest, EachRelayHasItsOwnPause) {
  for (int i = 0; i < 2; ++i) AddRelay(m_record.Config, kUnicast, 0, -1);
  EXPECT_TRUE(Create());
  AllowOpeningLogs();
  host().FailNext("send", {.times = 2, .error = ENETDOWN});
  EXPECT_FALSE(Send());
  ExpectLogContaining(3, "of relay#1/2, rc=-1");
  ExpectLogContaining(3, "of relay#2/2, rc=-1");
}

// --- While a source opens --------------------------------------------------------------------------------

class RelayOpeningUDPTest : public RelayOpeningTest, public ::testing::WithParamInterface<int> {};

TEST_P(RelayOpeningUDPTest, DatagramIsNeitherRelayedNorCountsAsTheChange) {
  const HMDATASRC source = OpenAndFeed(Following(NetworkConfig(GetParam())), [] {
    for (int i = 0; i < 3; ++i) host().FeedDatagram(host().LastFD("udp4"), kMessage, {.ttl = 33, .tos = 0x48});
  });
  ASSERT_NE(source, nullptr);
  ExpectNothingRelayed(source);
  MDATA_SRC_STATS stats = {};
  EXPECT_TRUE(MetaData_GetSourceStats(source, &stats));
  EXPECT_EQ(stats.nRxOkMessages, 3u) << "received all the same";
  EXPECT_EQ(stats.iSrcTTL, -1);
  host().FeedDatagram(source->iFD, kMessage, {.ttl = 33, .tos = 0x48});
  host().PassUntilIdle();
  ExpectFollowed(source, 33, 0x48);
}

INSTANTIATE_TEST_SUITE_P(DataTypes, RelayOpeningUDPTest, ::testing::Values(MDATA_DATA_KLV, MDATA_DATA_COT));

TEST_F(RelayOpeningTest, CapturedPacketIsNotRelayed) {
  const HMDATASRC source = OpenAndFeed(Following(VideoConfig(0)), [] { host().FeedCapture(0, kMessage, 1); });
  ASSERT_NE(source, nullptr);
  ExpectNothingRelayed(source);
  EXPECT_EQ(m_encoder.messages.size(), 1u);
  host().FeedCapture(0, kMessage, 2);
  host().PassUntilIdle();
  EXPECT_EQ(source->Relayers[0].nRelayedMessages, 1u);
}

TEST_F(RelayOpeningTest, SourceWithoutRelaysLogsTheUsualLine) {
  OpenAndFeed(NetworkConfig(MDATA_DATA_COT), [] { host().FeedDatagram(host().LastFD("udp4"), kMessage); });
  ExpectLog(7, "No relays configured (0).\n");
}

TEST_F(RelayOpeningTest, OpenerThatGaveUpWaitingStartsTheRelaysToo) {
  MDATA_SRC_CFG config = Following(NetworkConfig());
  const HMDATASRC source = OpenWhileStuck(config);
  m_open.push_back(source);
  host().HoldThread(false);
  host().PassUntilIdle();
  host().FeedDatagram(source->iFD, kMessage, {.ttl = 33, .tos = 0x48});
  host().PassUntilIdle();
  ExpectFollowed(source, 33, 0x48);
}

}  // namespace
