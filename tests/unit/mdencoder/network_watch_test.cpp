// SPDX-License-Identifier: Apache-2.0
// Netlink messages, whole and malformed, and interfaces in networks that the tests make.
#include "network_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace mdencoder::network_watch_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

void AddLinkMessage(std::vector<std::byte>& data, uint16_t type, int index) {
  struct {
    nlmsghdr header;
    ifinfomsg link;
  } message{};
  message.header.nlmsg_len = sizeof(message);
  message.header.nlmsg_type = type;
  message.link.ifi_index = index;
  const auto* const bytes = reinterpret_cast<const std::byte*>(&message);
  data.insert(data.end(), bytes, bytes + sizeof(message));
}

TEST(Netlink, RemovedLinksAreNamed) {
  std::vector<std::byte> data;
  AddLinkMessage(data, RTM_NEWLINK, 3);
  AddLinkMessage(data, RTM_DELLINK, 4);
  AddLinkMessage(data, RTM_DELLINK, 5);
  NetworkChanges changes;
  ReadNetworkChanges(data, changes);
  EXPECT_TRUE(changes.any);
  EXPECT_THAT(changes.removedLinks, ElementsAre(4, 5));
}

TEST(Netlink, IncompleteAndMalformedMessagesAreIgnored) {
  std::vector<std::byte> whole;
  AddLinkMessage(whole, RTM_DELLINK, 4);
  for (size_t size = 0; size < whole.size(); ++size) {
    NetworkChanges changes;
    ReadNetworkChanges(std::span(whole).first(size), changes);
    EXPECT_FALSE(changes.any) << size;
  }
  for (const uint32_t length : {0U, 1U, 15U, 17U, 0xFFFFFFFFU, 0xFFFFFFFDU}) {
    auto data = whole;
    std::memcpy(data.data(), &length, sizeof(length));
    NetworkChanges changes;
    ReadNetworkChanges(data, changes);
    EXPECT_THAT(changes.removedLinks, IsEmpty()) << length;
  }
}

TEST(Netlink, TheLoopbackInterfaceIsKnown) {
  in_addr loopback{};
  loopback.s_addr = htonl(INADDR_LOOPBACK);
  const int index = RouteInterface(loopback);
  EXPECT_EQ(InterfaceName(index), "lo");
  EXPECT_EQ(InterfaceFault(index, "lo"), "");
  EXPECT_EQ(InterfaceFault(0, "eth9"), "eth9 is gone");
}

// Runs a test on a thread with a network of its own, of which only this thread knows.
void InNetworkOfItsOwn(const std::function<void()>& test) {
  std::thread thread([&] {
    if (unshare(CLONE_NEWNET) == 0) {
      test();
    } else {
      std::cerr << "ABSENT: a network of its own - the checks in one are left out\n";
    }
  });
  thread.join();
}

void Ip(const std::string& command) {
  EXPECT_EQ(std::system(("ip " + command).c_str()), 0) << command;
}

TEST(Netlink, AnInterfaceThatIsDownIsNoWay) {
  InNetworkOfItsOwn([] {
    in_addr loopback{};
    loopback.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(InterfaceFault(1, "lo"), "lo is down");
    EXPECT_EQ(RouteInterface(loopback), 0);
    Ip("link set lo up");
    EXPECT_EQ(InterfaceFault(1, "lo"), "");
    EXPECT_EQ(RouteInterface(loopback), 1);
    in_addr elsewhere{};
    elsewhere.s_addr = htonl(0xC0000201);
    EXPECT_EQ(RouteInterface(elsewhere), 0);
    Ip("route add default dev lo");
    EXPECT_EQ(RouteInterface(elsewhere), 1);
  });
}

TEST(Netlink, ALinkWhosePeerIsDownHasNoCarrier) {
  InNetworkOfItsOwn([] {
    Ip("link add one type veth peer name two");
    Ip("link set one up");
    const int index = static_cast<int>(if_nametoindex("one"));
    // The kernel notices a carrier a moment later.
    const auto faultBecomes = [index](const std::string& fault) {
      const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
      while (InterfaceFault(index, "one") != fault && std::chrono::steady_clock::now() < end) std::this_thread::yield();
      return InterfaceFault(index, "one") == fault;
    };
    EXPECT_TRUE(faultBecomes("one has no carrier"));
    Ip("link set two up");
    EXPECT_TRUE(faultBecomes(""));
    NetworkWatch watch;
    Ip("link del one");
    EXPECT_THAT(watch.Read().removedLinks, Contains(index));
    EXPECT_EQ(InterfaceFault(index, "one"), "one is gone");
  });
}

// Each command is a change of one kind.
TEST(Netlink, LinksAddressesAndRoutesAreWatched) {
  InNetworkOfItsOwn([] {
    NetworkWatch watch;
    EXPECT_FALSE(watch.Read().any);
    for (const char* command : {"link set lo mtu 1400", "addr add 10.9.9.9/24 dev lo", "-6 addr add fd00::9/64 dev lo",
                                "link set lo up", "route add 10.8.0.0/16 dev lo", "-6 route add fd01::/64 dev lo",
                                "route del 10.8.0.0/16", "link set lo down"}) {
      Ip(command);
      const NetworkChanges changes = watch.Read();
      EXPECT_TRUE(changes.any) << command;
      EXPECT_THAT(changes.removedLinks, IsEmpty()) << command;
    }
  });
}

}  // namespace
}  // namespace mdencoder::network_watch_test
