// SPDX-License-Identifier: Apache-2.0
// Netlink messages, whole and malformed, and the interface that every machine has.
#include "network_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace mdencoder {
namespace {

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

}  // namespace
}  // namespace mdencoder
