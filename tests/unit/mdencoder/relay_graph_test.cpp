// SPDX-License-Identifier: Apache-2.0
#include "relay_graph.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <optional>
#include <string>

#include "ini_file.h"

namespace mdencoder::relay_graph_test {
namespace {

// A machine with the addresses 10.0.0.5 (broadcast 10.0.0.255) and fd00::5. It sends to itself from the address it sends
// to, and to everything else but 192.0.2.0/24 from 10.0.0.5 or fd00::5.
Machine TestMachine() {
  Machine machine;
  for (const char* text : {"10.0.0.5", "10.0.0.255", "fd00::5"}) machine.own.push_back(*ParseAddress(text));
  machine.senderTo = [](const Address& to) -> std::optional<Address> {
    if (to.family == AF_INET6) return ParseAddress("fd00::5");
    if (to.bytes[0] == 192) return std::nullopt;
    return to.bytes[0] == 127 ? to : *ParseAddress("10.0.0.5");
  };
  return machine;
}

// Returns the complaint, which is one line.
std::string Complaint(const std::string& text) {
  try {
    CheckRelays(MakeConfig(ParseIni(text), "/conf/demo.ini"), TestMachine());
  } catch (const ConfigError& error) {
    EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
    return error.what();
  }
  return "accepted";
}

std::string Source(const std::string& name, int port, const std::string& more) {
  return "[" + name + "]\ninput = udp\nport = " + std::to_string(port) + "\n" + more + "\n";
}

// Returns whether a source with these keys on port 5000 gets what it relays to the destination.
bool ComesBack(const std::string& destination, const std::string& keys = "") {
  return Complaint(Source("a", 5000, keys + "\nrelay1 = " + destination)) != "accepted";
}

TEST(RelayGraph, ARelayToTheSourcesOwnPortIsRefused) {
  EXPECT_EQ(Complaint(Source("a", 5000, "relay1 = 10.1.1.1:5000\nrelay3 = 127.0.0.1:5000")),
            "[a] relay3 must be a destination that does not lead back to its source, not \"127.0.0.1:5000\": "
            "[a] -> 127.0.0.1:5000 -> [a]");
}

TEST(RelayGraph, ALoopThroughOtherSourcesIsNamedWhole) {
  EXPECT_EQ(Complaint(Source("x", 5003, "relay1 = 127.0.0.1:5000") + Source("a", 5000, "relay1 = 10.0.0.5:5001") +
                      Source("b", 5001, "relay1 = 127.0.0.1:5009\nrelay2 = [::1]:5002") +
                      Source("c", 5002, "data = cot\nrelay1 = 127.0.0.1:5000")),
            "[a] relay1 must be a destination that does not lead back to its source, not \"10.0.0.5:5001\": "
            "[a] -> 10.0.0.5:5001 -> [b] -> [::1]:5002 -> [c] -> 127.0.0.1:5000 -> [a]");
}

TEST(RelayGraph, EventsThatComeBackAreRefused) {
  const std::string mesh = "[t]\ndata = cot\nurl = tak://239.2.3.1:6969\ncot_out = udp://239.2.3.1:6969\n";
  EXPECT_EQ(Complaint(mesh),
            "[t] cot_out must be a destination that does not lead back to its source, not \"udp://239.2.3.1:6969\": "
            "[t] -> udp://239.2.3.1:6969 -> [t]");
  EXPECT_EQ(Complaint(Source("a", 5000, "data = cot\ncot_out = udp://10.0.0.5:5001") +
                      Source("b", 5001, "relay1 = 127.0.0.1:5000")),
            "[a] cot_out must be a destination that does not lead back to its source, not \"udp://10.0.0.5:5001\": "
            "[a] -> udp://10.0.0.5:5001 -> [b] -> 127.0.0.1:5000 -> [a]");
}

TEST(RelayGraph, EventsThatEndAreAccepted) {
  const std::string mesh = "[t]\ndata = cot\nurl = tak://239.2.3.1:6969\n";
  const std::string out = "cot_out = udp://239.2.3.1:6969\ncot_out_uid = ME\n";
  EXPECT_EQ(Complaint(mesh + Source("a", 5000, out)), "accepted") << "the events of a are not those of t";
  EXPECT_EQ(Complaint(mesh + out + "cot_aircraft = HAWK\n"), "accepted") << "only the events of others are taken";
  EXPECT_NE(Complaint(mesh + out + "cot_aircraft = ME\n"), "accepted");
  EXPECT_EQ(Complaint(mesh + "cot_out = udp://239.2.3.2:6969\n"), "accepted");
  EXPECT_EQ(Complaint(mesh + "cot_out = tcp://127.0.0.1:6969\n"), "accepted");
  EXPECT_EQ(Complaint(Source("a", 5000, "cot_out = udp://127.0.0.1:5000")), "accepted") << "it takes no events";
}

TEST(RelayGraph, ANameWithoutAnAddressLeadsNowhereYet) {
  EXPECT_EQ(Complaint(Source("a", 5000, "relay1 = name.test:5000")), "accepted");
}

TEST(RelayGraph, ChainsThatEndAreAccepted) {
  EXPECT_EQ(Complaint(Source("a", 5000, "relay1 = 127.0.0.1:5001\nrelay2 = 127.0.0.1:5002") +
                      Source("b", 5001, "relay1 = 127.0.0.1:5002") + Source("c", 5002, "relay1 = 10.0.0.9:5000")),
            "accepted");
  EXPECT_EQ(Complaint("[s]\ninput = serial\nrelay1 = 127.0.0.1:5000\n" + Source("a", 5000, "")), "accepted");
}

TEST(RelayGraph, EveryAddressOfThisMachineComesBack) {
  for (const char* address : {"127.0.0.1", "127.9.9.9", "0.0.0.0", "255.255.255.255", "10.0.0.5", "10.0.0.255", "[::1]",
                              "[::]", "[fd00::5]", "[::ffff:127.0.0.1]", "[::ffff:10.0.0.5]"}) {
    EXPECT_TRUE(ComesBack(std::string(address) + ":5000")) << address;
    EXPECT_FALSE(ComesBack(std::string(address) + ":5001")) << address;
  }
  for (const char* address : {"10.0.0.6", "192.0.2.1", "[fd00::6]", "[::2]", "[::ffff:10.0.0.6]", "0.0.0.1"}) {
    EXPECT_FALSE(ComesBack(std::string(address) + ":5000")) << address;
  }
}

TEST(RelayGraph, AGroupComesBackUnlessTheSourceJoinedAnotherOne) {
  EXPECT_TRUE(ComesBack("239.1.1.1:5000"));
  EXPECT_TRUE(ComesBack("239.1.1.1:5000", "address = 239.1.1.1"));
  EXPECT_FALSE(ComesBack("239.1.1.1:5000", "address = 239.1.1.2"));
  EXPECT_TRUE(ComesBack("127.0.0.1:5000", "address = 239.1.1.2")) << "its socket receives unicast too";
  EXPECT_TRUE(ComesBack("[ff02::1]:5000"));
}

TEST(RelayGraph, TheFamilyOfTheSourceCounts) {
  EXPECT_FALSE(ComesBack("[::1]:5000", "family = ipv4"));
  EXPECT_FALSE(ComesBack("127.0.0.1:5000", "family = ipv6"));
  EXPECT_TRUE(ComesBack("[::ffff:127.0.0.1]:5000", "family = ipv4")) << "sent over IPv4";
  EXPECT_EQ(Complaint("[encoder]\ncapabilities = ipv4\n" + Source("a", 5000, "relay1 = [::1]:5000")), "accepted");
}

TEST(RelayGraph, OnlyWhatTheSendersFilterAcceptsComesBack) {
  EXPECT_TRUE(ComesBack("127.0.0.1:5000", "address = 127.0.0.1"));
  EXPECT_FALSE(ComesBack("127.0.0.1:5000", "address = 10.0.0.5")) << "sent from 127.0.0.1";
  EXPECT_FALSE(ComesBack("127.0.0.1:5000", "address = 10.0.0.6"));
  EXPECT_TRUE(ComesBack("239.1.1.1:5000", "address = 10.0.0.5"));
  EXPECT_TRUE(ComesBack("[::1]:5000", "address = fd00::5"));
  EXPECT_FALSE(ComesBack("[::1]:5000", "address = fd00::6"));
  EXPECT_TRUE(ComesBack("127.0.0.1:5000", "address = 0.0.0.7")) << "the library does not filter by this one";
  EXPECT_TRUE(ComesBack("127.0.0.1:5000", "address = 250.0.0.1")) << "nor by this one";
}

TEST(RelayGraph, ThisMachineHasItsLoopback) {
  const Machine machine = ThisMachine();
  const auto sender = machine.senderTo(*ParseAddress("127.0.0.1"));
  ASSERT_TRUE(sender);
  EXPECT_EQ(AddressText(sender->family, sender->bytes.data()), "127.0.0.1");
  EXPECT_FALSE(machine.own.empty());
}

}  // namespace
}  // namespace mdencoder::relay_graph_test
