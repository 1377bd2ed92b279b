// SPDX-License-Identifier: Apache-2.0
#include "loopback.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "owned_fd.h"

namespace mdencoder::loopback_test {
namespace {

TEST(Loopback, NoMorePassesThanTheSocketAndAPartOfTheRoomTake) {
  const uint16_t port = FreePort();
  const common::OwnedFD receiver(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const common::OwnedFD sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in to = Loopback(port);
  ASSERT_EQ(bind(receiver.Get(), reinterpret_cast<const sockaddr*>(&to), sizeof(to)), 0);
  size_t room = 80;
  Turns turns([&room] { return room; });
  const auto take = [&] {
    size_t count = 0;
    while (count < 1'000 && turns.Take(port)) {
      ++count;
      EXPECT_EQ(sendto(sender.Get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)), 1);
    }
    std::array<char, 16> buffer{};
    for (size_t i = 0; i < count; ++i) EXPECT_EQ(recv(receiver.Get(), buffer.data(), buffer.size(), 0), 1);
    return count;
  };
  EXPECT_FALSE(turns.Take(0)) << "nobody has told it the port";
  EXPECT_EQ(take(), 10U);
  room = 3;
  EXPECT_EQ(take(), 1U);
  room = 4'000;
  EXPECT_EQ(take(), 64U);
  room = 0;
  EXPECT_EQ(take(), 0U);
}

TEST(Loopback, CountsWhatIsUnreadOfAPort) {
  const std::string table =
      "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
      "  305: 0100007F:1388 00000000:0000 07 00000000:00000300 00:00000000 00000000     0        0 1 2 0 0\n"
      "  306: 00000000:1388 00000000:0000 07 00000001:00000010 00:00000000 00000000     0        0 1 2 0 0\n"
      "  307: 0100007F:1389 00000000:0000 07 00000000:00FF0000 00:00000000 00000000     0        0 1 2 0 0\n";
  EXPECT_EQ(UnreadBytes(table, 0x1388), 0x310U);
  EXPECT_EQ(UnreadBytes(table, 0x1387), 0U);
  EXPECT_EQ(UnreadBytes("nonsense", 0x1388), 0U);
}

}  // namespace
}  // namespace mdencoder::loopback_test
