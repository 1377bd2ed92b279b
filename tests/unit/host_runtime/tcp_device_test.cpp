// SPDX-License-Identifier: Apache-2.0
// Serial lines behind a server, which is a socket of the test.
#include "tcp_device.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "owned_fd.h"
#include "runtime_test.h"

namespace host_runtime {
namespace {

using common::OwnedFD;
using testing::ElementsAre;

class TcpDeviceTest : public RuntimeTest {
 protected:
  TcpDeviceTest() {
    m_config.moduleLevels["HOST"] = 5;
    Apply();
    sockaddr_in address = Any();
    socklen_t size = sizeof(address);
    m_server.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(m_server.Get(), reinterpret_cast<const sockaddr*>(&address), size), 0);
    EXPECT_EQ(getsockname(m_server.Get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    m_name = "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }

  static sockaddr_in Any() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  void Listen() { EXPECT_EQ(listen(m_server.Get(), 1), 0); }
  OwnedFD Accept() {
    pollfd wait = {m_server.Get(), POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 10'000), 1);
    return OwnedFD(accept4(m_server.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  // Reads so many bytes within ten seconds, or to the end.
  static std::string Read(int fd, size_t count) {
    std::string text;
    pollfd wait = {fd, POLLIN, 0};
    while (text.size() < count && poll(&wait, 1, 10'000) == 1) {
      std::string piece(count - text.size(), 0);
      const ssize_t got = read(fd, piece.data(), piece.size());
      if (got <= 0) break;
      text.append(piece, 0, static_cast<size_t>(got));
    }
    return text;
  }

  // The lines of other tests' devices may still come.
  std::vector<std::string> OwnTexts() {
    std::vector<std::string> texts = Texts();
    std::erase_if(texts, [this](const std::string& text) { return text.find(m_name + "\"") == std::string::npos; });
    return texts;
  }

  OwnedFD m_server;
  std::string m_name;
};

TEST_F(TcpDeviceTest, ATerminalStandsForTheServerBothWays) {
  Listen();
  const OwnedFD device = OpenTcpDevice(m_name);
  ASSERT_TRUE(device.IsOpen());
  EXPECT_EQ(isatty(device.Get()), 1);
  const OwnedFD server = Accept();
  std::string all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
  ASSERT_EQ(write(server.Get(), all.data(), all.size()), 256);
  EXPECT_EQ(Read(device.Get(), 256), all) << "nothing is changed";
  ASSERT_EQ(write(device.Get(), all.data(), all.size()), 256);
  EXPECT_EQ(Read(server.Get(), 256), all);
}

TEST_F(TcpDeviceTest, MoreThanTheTerminalHoldsWaits) {
  Listen();
  const OwnedFD device = OpenTcpDevice(m_name);
  OwnedFD server = Accept();
  const std::string much(200'000, 'x');
  std::thread sender([&] {
    EXPECT_EQ(send(server.Get(), much.data(), much.size(), MSG_NOSIGNAL), static_cast<ssize_t>(much.size()));
    server.Reset();
  });
  EXPECT_TRUE(Read(device.Get(), much.size()) == much);
  sender.join();
  EXPECT_EQ(Read(device.Get(), 1), "") << "it has hung up";
}

TEST_F(TcpDeviceTest, ABrokenConnectionHangsUpAndTheNextOneIsOpenedAgain) {
  Listen();
  OwnedFD device = OpenTcpDevice(m_name);
  OwnedFD server = Accept();
  ASSERT_EQ(write(server.Get(), "last", 4), 4);
  server.Reset();
  EXPECT_EQ(Read(device.Get(), 5), "last");
  device.Reset();
  errno = 0;
  OwnedFD again = OpenTcpDevice(m_name);
  server = Accept();
  ASSERT_TRUE(Eventually([&] {
    if (!again.IsOpen()) again = OpenTcpDevice(m_name);
    return again.IsOpen();
  }));
  ASSERT_EQ(write(server.Get(), "new", 3), 3);
  EXPECT_EQ(Read(again.Get(), 3), "new");
}

TEST_F(TcpDeviceTest, AServerThatIsNotThereIsALineAndIsTriedAgain) {
  const OwnedFD device = OpenTcpDevice(m_name);
  ASSERT_TRUE(device.IsOpen());
  ASSERT_TRUE(Eventually([&] { return OwnTexts().size() == 1; }));
  Listen();
  const OwnedFD server = Accept();
  ASSERT_TRUE(Eventually([&] { return OwnTexts().size() == 2; }));
  EXPECT_THAT(OwnTexts(), ElementsAre("Serial device \"" + m_name +
                                          "\" cannot be reached: Connection refused; trying again every second.",
                                      "Serial device \"" + m_name + "\" is connected."));
}

TEST_F(TcpDeviceTest, OneOwnerAtATimeAndTheNextAtOnce) {
  Listen();
  OwnedFD device = OpenTcpDevice(m_name);
  errno = 0;
  EXPECT_FALSE(OpenTcpDevice(m_name).IsOpen());
  EXPECT_EQ(errno, EBUSY);
  const OwnedFD first = Accept();
  device.Reset();
  device = OpenTcpDevice(m_name);
  EXPECT_TRUE(device.IsOpen());
  const OwnedFD second = Accept();
  EXPECT_EQ(Read(first.Get(), 1), "") << "its connection is closed";
}

TEST_F(TcpDeviceTest, WhatIsNoServerIsRefused) {
  for (const char* bad : {"tcp://", "tcp://host", "tcp://:5", "tcp://host:0"}) {
    errno = 0;
    EXPECT_FALSE(OpenTcpDevice(bad).IsOpen()) << bad;
    EXPECT_EQ(errno, EINVAL) << bad;
    EXPECT_TRUE(IsTcpDevice(bad));
  }
  EXPECT_FALSE(IsTcpDevice("/dev/ttyUSB0"));
}

}  // namespace
}  // namespace host_runtime
