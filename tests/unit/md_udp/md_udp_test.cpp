// SPDX-License-Identifier: Apache-2.0
// Tests of receiving datagrams: the bytes, the sender, TTL and TOS, and the sender filter.
#include "md_udp.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "builders.h"
#include "engine_test.h"

namespace {

// --- _RecvUDPPacket ------------------------------------------------------------------------------------

class ReceiveTest : public HostTest {
 protected:
  void SetUp() override {
    const BYTE any[4] = {};
    ASSERT_TRUE(CreateUDPRxSocket(5000, any, &m_fd));
  }
  void TearDown() override { close(m_fd); }

  int Receive(bool wantTOS, bool wantTTL) {
    return _RecvUDPPacket(m_fd, m_buffer, sizeof(m_buffer), &m_from, wantTOS ? &m_tos : nullptr,
                          wantTTL ? &m_ttl : nullptr);
  }

  // Returns one raw control message; 'claimed' is the length of the value in its header.
  static Bytes Control(int level, int type, const Bytes& value, size_t claimed) {
    Bytes area(CMSG_SPACE(value.size()));
    cmsghdr header = {};
    header.cmsg_len = CMSG_LEN(claimed);
    header.cmsg_level = level;
    header.cmsg_type = type;
    memcpy(area.data(), &header, sizeof(header));
    if (!value.empty()) memcpy(area.data() + CMSG_LEN(0), value.data(), value.size());
    return area;
  }
  static Bytes Control(int level, int type, const Bytes& value) { return Control(level, type, value, value.size()); }

  void ExpectReceived(const DatagramInfo& info, bool wantTOS, bool wantTTL) {
    host().FeedDatagram(m_fd, {1, 2, 3}, info);
    EXPECT_EQ(Receive(wantTOS, wantTTL), 3);
  }

  int m_fd = -1;
  BYTE m_buffer[8] = {};
  sockaddr_storage m_from = {};
  BYTE m_tos = 0xA5;
  BYTE m_ttl = 0x5A;
};

TEST_F(ReceiveTest, AsksForTheDatagramTheSenderAndTheWantedControlMessages) {
  ExpectReceived({}, true, false);
  ASSERT_EQ(host().receives.size(), 1u);
  EXPECT_EQ(host().receives[0].flags, MSG_DONTWAIT);
  EXPECT_EQ(host().receives[0].size, sizeof(m_buffer));
  EXPECT_EQ(host().receives[0].nameSize, sizeof(m_from));
  EXPECT_EQ(host().receives[0].controlSize, 2 * CMSG_SPACE(sizeof(int)));
}

TEST_F(ReceiveTest, AsksForTheDatagramAloneIfNothingElseIsWanted) {
  host().FeedDatagram(m_fd, {1, 2, 3});
  EXPECT_EQ(_RecvUDPPacket(m_fd, m_buffer, sizeof(m_buffer), nullptr, nullptr, nullptr), 3);
  ASSERT_EQ(host().receives.size(), 1u);
  EXPECT_EQ(host().receives[0].nameSize, 0u);
  EXPECT_EQ(host().receives[0].controlSize, 0u);
}

TEST_F(ReceiveTest, ReturnsBytesAndSender) {
  memset(&m_from, 0xEE, sizeof(m_from));
  host().FeedDatagram(m_fd, {1, 2, 3}, {.from = "10.1.2.3", .port = 4711});
  EXPECT_EQ(Receive(false, false), 3);
  EXPECT_EQ(Bytes(m_buffer, m_buffer + 3), (Bytes{1, 2, 3}));
  const auto* from = reinterpret_cast<const sockaddr_in*>(&m_from);
  EXPECT_EQ(from->sin_family, AF_INET);
  EXPECT_EQ(from->sin_port, htons(4711));
  EXPECT_EQ(from->sin_addr.s_addr, inet_addr("10.1.2.3"));
  const auto* record = reinterpret_cast<const BYTE*>(&m_from);
  EXPECT_EQ(Bytes(record + sizeof(*from), record + 128), Bytes(128 - sizeof(*from), 0))
      << "cleared over all its 128 bytes";
}

TEST_F(ReceiveTest, SenderIsOptional) {
  host().FeedDatagram(m_fd, {1, 2, 3});
  EXPECT_EQ(_RecvUDPPacket(m_fd, m_buffer, sizeof(m_buffer), nullptr, nullptr, nullptr), 3);
}

TEST_F(ReceiveTest, LongDatagramIsTruncatedToTheBuffer) {
  host().FeedDatagram(m_fd, Bytes(20, 7));
  EXPECT_EQ(Receive(false, false), 8);
}

TEST_F(ReceiveTest, BothTOSAndTTLFillBothValues) {
  ExpectReceived({.ttl = 64, .tos = 0xB8}, true, true);
  EXPECT_EQ(m_tos, 0xB8);
  EXPECT_EQ(m_ttl, 64);
  EXPECT_EQ(CountLogs(7, "IPPROTO_IP.\n"), 2);
}

TEST_F(ReceiveTest, IPv6TrafficClassAndHopLimitFillBothValues) {
  ExpectReceived({.from = "fe80::1", .ttl = 255, .tos = 0x20}, true, true);
  EXPECT_EQ(m_tos, 0x20);
  EXPECT_EQ(m_ttl, 255);
  EXPECT_EQ(CountLogs(7, "IPPROTO_IPV6.\n"), 2);
  ExpectLog(7, "Got traffic class (32) information.\n");
  ExpectLog(7, "Got hop limit (255) information.\n");
}

TEST_F(ReceiveTest, ControlMessagesAreIgnoredIfNoneIsWanted) {
  ExpectReceived({.ttl = 64, .tos = 0xB8}, false, false);
  ExpectNoLog("IPPROTO_IP.\n");
}

TEST_F(ReceiveTest, MissingValueStaysUnchanged) {
  ExpectReceived({}, true, true);
  EXPECT_EQ(m_tos, 0xA5);
  EXPECT_EQ(m_ttl, 0x5A);
}

TEST_F(ReceiveTest, UnwantedIPv4MessageIsUnknown) {
  ExpectReceived({.ttl = 64, .tos = 0xB8}, false, true);
  EXPECT_EQ(m_ttl, 64);
  ExpectLog(4, "ANC#1 Unknown (" + std::to_string(IP_TOS) + ") information.\n");
  ExpectReceived({.ttl = 63, .tos = 0xB0}, true, false);
  EXPECT_EQ(m_tos, 0xB0);
  EXPECT_EQ(m_ttl, 64);
  ExpectLog(4, "ANC#2 Unknown (" + std::to_string(IP_TTL) + ") information.\n");
}

TEST_F(ReceiveTest, UnwantedIPv6MessageIsUnknown) {
  ExpectReceived({.from = "fe80::1", .ttl = 7, .tos = 8}, true, false);
  ExpectLog(4, "ANC#2 Unknown IPv6 (" + std::to_string(IPV6_HOPLIMIT) + ") information.\n");
  ExpectReceived({.from = "fe80::1", .ttl = 7, .tos = 8}, false, true);
  ExpectLog(4, "ANC#1 Unknown IPv6 (" + std::to_string(IPV6_TCLASS) + ") information.\n");
}

TEST_F(ReceiveTest, OtherLevelIsUnknown) {
  ExpectReceived({.control = Control(SOL_SOCKET, 29, Bytes(16))}, true, true);
  ExpectLog(4, "ANC#1 Unknown level (1) ancilliary data found.\n");
}

TEST_F(ReceiveTest, TTLOutOfRangeAssertsAndReturnsTheLowByte) {
  ExpectReceived({.ttl = -2}, false, true);
  ExpectAssertion("iTTL >= 0");
  EXPECT_EQ(m_ttl, 0xFE);
  ExpectReceived({.ttl = 257}, false, true);
  ExpectAssertion("iTTL < 256");
  EXPECT_EQ(m_ttl, 1);
  ExpectReceived({.from = "fe80::1", .ttl = 256}, false, true);
  ExpectAssertion("iTTL < 256");
  EXPECT_EQ(m_ttl, 0);
}

TEST_F(ReceiveTest, ControlMessageOfTheOtherFamilyAsserts) {
  ExpectReceived({.from = "fe80::1", .control = Control(IPPROTO_IP, IP_TTL, {9, 0, 0, 0})}, false, true);
  ExpectAssertion("((struct sockaddr *)pFromAddr)->sa_family == AF_INET");
  EXPECT_EQ(m_ttl, 9);
  ExpectReceived({.control = Control(IPPROTO_IPV6, IPV6_HOPLIMIT, {8, 0, 0, 0})}, false, true);
  ExpectAssertion("((struct sockaddr *)pFromAddr)->sa_family == AF_INET6");
  EXPECT_EQ(m_ttl, 8);
}

TEST_F(ReceiveTest, ControlMessageShorterThanItsValueIsNotRead) {
  ExpectReceived({.control = Control(IPPROTO_IP, IP_TTL, {9, 9, 9}, 3)}, true, true);
  ExpectReceived({.control = Control(IPPROTO_IP, IP_TOS, Bytes(8), 0)}, true, true);
  ExpectReceived({.from = "::1", .control = Control(IPPROTO_IPV6, IPV6_HOPLIMIT, {9, 9, 9}, 3)}, true, true);
  ExpectReceived({.from = "::1", .control = Control(IPPROTO_IPV6, IPV6_TCLASS, Bytes(8), 0)}, true, true);
  EXPECT_EQ(m_tos, 0xA5);
  EXPECT_EQ(m_ttl, 0x5A);
}

TEST_F(ReceiveTest, TruncatedControlAreaIsNotRead) {
  ExpectReceived({.control = Bytes(15, 0xFF)}, true, true);
  EXPECT_EQ(m_tos, 0xA5);
  EXPECT_EQ(m_ttl, 0x5A);
}

TEST_F(ReceiveTest, ErrorIsLoggedAndLeftInErrno) {
  host().FailNext("recvmsg", {.error = ECONNREFUSED});
  EXPECT_EQ(Receive(true, true), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  ExpectLog(3, "recvmsg returned -1, errno=111, \"Connection refused\".\n");
}

TEST_F(ReceiveTest, ResultOfZeroIsLoggedAsAnError) {
  host().FailNext("recvmsg", {.error = EAGAIN, .result = 0});
  EXPECT_EQ(Receive(true, true), 0);
  ExpectLog(3, "recvmsg returned 0, errno=11, \"Resource temporarily unavailable\".\n");
}

// --- Detection switch ----------------------------------------------------------------------------------

class DetectionTest : public EngineTest {
 protected:
  // Returns a bare record with one relay that has these values.
  MDATA_SRC_HANDLE Record(int ttl, int tos) {
    m_record = {};
    m_record.iFD = m_record.iFDv6 = -1;
    AddRelay(m_record.Config, {10, 0, 0, 1}, 5, 5);
    AddRelay(m_record.Config, {10, 0, 0, 2}, ttl, tos);
    return &m_record;
  }
  void OpenIPv4Socket() {
    const BYTE any[4] = {};
    ASSERT_TRUE(CreateUDPRxSocket(5000, any, &m_record.iFD));
  }
  tagMDATA_SRC_HANDLE m_record = {};
};

TEST_F(DetectionTest, OnlyMinusOneInAConfiguredRelayEnablesIt) {
  EXPECT_TRUE(_IsTTLDetectionNeeded(Record(-1, 0)));
  EXPECT_FALSE(_IsTOSDetectionNeeded(Record(-1, 0)));
  EXPECT_TRUE(_IsTOSDetectionNeeded(Record(0, -1)));
  EXPECT_FALSE(_IsTTLDetectionNeeded(Record(0, -1)));
  EXPECT_FALSE(_IsTTLDetectionNeeded(Record(-2, -2)));
  EXPECT_FALSE(_IsTOSDetectionNeeded(Record(-2, -2)));
  Record(-1, -1)->Config.nNumOfRelays = 1;
  EXPECT_FALSE(_IsTTLDetectionNeeded(&m_record));
  EXPECT_FALSE(_IsTOSDetectionNeeded(&m_record));
}

TEST_F(DetectionTest, EnablesBothWithAOneByteValue) {
  Record(-1, -1);
  OpenIPv4Socket();
  EXPECT_TRUE(_EnableTTLTOSDetectionIfNeeded(&m_record));
  ExpectLog(5, "Successfully set IP_RECVTTL socket option.\n");
  ExpectLog(5, "Successfully set IP_RECVTOS socket option.\n");
  const std::vector<SocketOption>& options = host().FD(m_record.iFD).options;
  ASSERT_EQ(options.size(), 2u);
  EXPECT_EQ(options[0].level, IPPROTO_IP);
  EXPECT_EQ(options[0].option, IP_RECVTTL);
  EXPECT_EQ(options[0].value, Bytes{1});
  EXPECT_EQ(options[1].level, IPPROTO_IP);
  EXPECT_EQ(options[1].option, IP_RECVTOS);
  EXPECT_EQ(options[1].value, Bytes{1});
  close(m_record.iFD);
}

TEST_F(DetectionTest, FailureIsLoggedAndTheOtherStillSwitched) {
  Record(-1, -1);
  OpenIPv4Socket();
  host().FailNext("setsockopt", {.error = EPERM});
  EXPECT_FALSE(_EnableTTLTOSDetectionIfNeeded(&m_record));
  ExpectLog(3, "Unable to set IP_RECVTTL socket option, errno (1): \"Operation not permitted\".\n");
  ExpectLog(5, "Successfully set IP_RECVTOS socket option.\n");
  host().FailNext("setsockopt", {.skip = 1, .error = EPERM});
  EXPECT_FALSE(_EnableTTLTOSDetectionIfNeeded(&m_record));
  ExpectLog(5, "Successfully set IP_RECVTTL socket option.\n");
  ExpectLog(3, "Unable to set IP_RECVTOS socket option, errno (1): \"Operation not permitted\".\n");
  close(m_record.iFD);
}

TEST_F(DetectionTest, OnlyTheIPv4SocketIsSwitched) {
  EXPECT_TRUE(_EnableTTLTOSDetectionIfNeeded(Record(-1, -1)));
  EXPECT_EQ(host().Calls("setsockopt"), 0);
  Start();
  MDATA_SRC_CFG config = NetworkConfig(MDATA_DATA_KLV, 5000, 0);
  AddRelay(config, {10, 0, 0, 1}, -1, -1);
  const HMDATASRC source = Open(config);
  EXPECT_EQ(host().FD(source->iFD).options.size(), 2u);
  EXPECT_TRUE(host().FD(source->iFDv6).options.empty());
}

TEST_F(DetectionTest, MinusTwoDetectsWithoutTheSocketOption) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config, {10, 0, 0, 1}, -2, 0);
  const HMDATASRC source = Open(config);
  EXPECT_TRUE(source->bDetectTTL);
  EXPECT_TRUE(host().FD(source->iFD).options.empty());
  host().FeedDatagram(source->iFD, WellFormedMessage());
  host().PassUntilIdle();
  MDATA_SRC_STATS stats = {};
  EXPECT_TRUE(MetaData_GetSourceStats(source, &stats));
  EXPECT_EQ(stats.iSrcTTL, 0) << "no TTL ever arrives";
  EXPECT_EQ(stats.nTTLUpdates, 1u);
}

TEST_F(DetectionTest, ReceivedValuesReachTheStatistics) {
  Start();
  MDATA_SRC_CFG config = NetworkConfig();
  AddRelay(config, {10, 0, 0, 1}, -1, -1);
  const HMDATASRC source = Open(config);
  host().FeedDatagram(source->iFD, WellFormedMessage(), {.ttl = 17, .tos = 0x28});
  host().PassUntilIdle();
  MDATA_SRC_STATS stats = {};
  EXPECT_TRUE(MetaData_GetSourceStats(source, &stats));
  EXPECT_EQ(stats.iSrcTTL, 17);
  EXPECT_EQ(stats.iSrcTOS, 0x28);
}

// --- Sender filter -------------------------------------------------------------------------------------

class SenderFilterTest : public HostTest {
 protected:
  BOOL Accepts(int family, const std::string& configured, const std::string& sender) {
    m_record = {};
    m_record.Config.in.Network.iSrcAddressFamily = family;
    inet_pton(configured.find(':') == std::string::npos ? AF_INET : AF_INET6, configured.c_str(),
              m_record.Config.in.Network.acSrcAddress);
    sockaddr_storage from = {};
    if (inet_pton(AF_INET, sender.c_str(), &reinterpret_cast<sockaddr_in*>(&from)->sin_addr) == 1) {
      from.ss_family = AF_INET;
    } else {
      from.ss_family = AF_INET6;
      inet_pton(AF_INET6, sender.c_str(), &reinterpret_cast<sockaddr_in6*>(&from)->sin6_addr);
    }
    return _IsUDPDataForSource(&m_record, &from);
  }
  tagMDATA_SRC_HANDLE m_record = {};
};

TEST_F(SenderFilterTest, UnicastAddressMustBeTheSenders) {
  EXPECT_TRUE(Accepts(AF_INET, "10.0.0.5", "10.0.0.5"));
  ExpectLog(7, "IPv4 packet is for us.\n");
  EXPECT_FALSE(Accepts(AF_INET, "10.0.0.5", "10.0.0.6"));
  ExpectLog(7, "It's NOT for us.\n");
  EXPECT_FALSE(Accepts(AF_INET, "223.255.255.255", "10.0.0.6"));
  EXPECT_FALSE(Accepts(AF_INET, "1.0.0.0", "10.0.0.6"));
}

TEST_F(SenderFilterTest, GroupAndReservedAddressesAcceptEverySender) {
  EXPECT_TRUE(Accepts(AF_INET, "239.1.1.1", "10.0.0.6"));
  EXPECT_TRUE(Accepts(AF_INET, "224.0.0.0", "10.0.0.6"));
  EXPECT_TRUE(Accepts(AF_INET, "255.255.255.255", "10.0.0.6"));
}

TEST_F(SenderFilterTest, FirstByteZeroAcceptsEverySender) {
  EXPECT_TRUE(Accepts(AF_INET, "0.0.0.0", "10.0.0.6"));
  EXPECT_TRUE(Accepts(AF_INET, "0.1.2.3", "10.0.0.6"));
}

TEST_F(SenderFilterTest, IPv6AddressMustBeAnyOrTheSenders) {
  EXPECT_TRUE(Accepts(AF_INET6, "::", "fe80::1"));
  ExpectLog(7, "IPv6 packet is for us.\n");
  EXPECT_TRUE(Accepts(AF_INET6, "fe80::1", "fe80::1"));
  EXPECT_FALSE(Accepts(AF_INET6, "fe80::1", "fe80::2"));
  EXPECT_FALSE(Accepts(AF_INET6, "ff02::1", "fe80::2")) << "no exception for groups";
  ExpectLog(7, "It's NOT for us.\n");
}

TEST_F(SenderFilterTest, FamilyMustMatch) {
  EXPECT_FALSE(Accepts(AF_INET, "0.0.0.0", "fe80::1"));
  EXPECT_FALSE(Accepts(AF_INET6, "::", "10.0.0.1"));
  EXPECT_FALSE(Accepts(AF_UNIX, "::", "10.0.0.1"));
}

TEST_F(SenderFilterTest, FamilyZeroAcceptsBothAndStillComparesTheAddress) {
  EXPECT_TRUE(Accepts(0, "0.0.0.0", "10.0.0.1"));
  EXPECT_TRUE(Accepts(0, "::", "fe80::1"));
  EXPECT_TRUE(Accepts(0, "10.0.0.1", "10.0.0.1"));
  EXPECT_FALSE(Accepts(0, "10.0.0.2", "10.0.0.1"));
  EXPECT_FALSE(Accepts(0, "10.0.0.1", "fe80::1")) << "4 bytes of IPv4 are no zero IPv6 address";
}

TEST_F(SenderFilterTest, AcceptedSenderIsRecorded) {
  EXPECT_TRUE(Accepts(AF_INET, "0.0.0.0", "10.0.0.6"));
  EXPECT_EQ(m_record.iSourceAddressFamily, AF_INET);
  EXPECT_EQ(Bytes(m_record.acSourceAddress, m_record.acSourceAddress + 16), (Bytes{10, 0, 0, 6} + Bytes(12)));
  EXPECT_TRUE(Accepts(AF_INET6, "::", "102:304:506:708:90a:b0c:d0e:f10"));
  EXPECT_EQ(m_record.iSourceAddressFamily, AF_INET6);
  EXPECT_EQ(Bytes(m_record.acSourceAddress, m_record.acSourceAddress + 16),
            Hex("01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10"));
  EXPECT_FALSE(Accepts(AF_INET, "10.0.0.5", "10.0.0.6"));
  EXPECT_EQ(m_record.iSourceAddressFamily, 0);
}

}  // namespace
