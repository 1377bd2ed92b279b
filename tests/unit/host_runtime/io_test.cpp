// SPDX-License-Identifier: Apache-2.0
// Sockets on loopback and serial ports on pseudo-terminals.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "runtime_test.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : fd(number) {}
  Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
  int fd;
};

USHORT PortOf(int fd) {
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
  return address.ss_family == AF_INET ? ntohs(reinterpret_cast<sockaddr_in&>(address).sin_port)
                                      : ntohs(reinterpret_cast<sockaddr_in6&>(address).sin6_port);
}

sockaddr_in Address(const char* text, USHORT port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  EXPECT_EQ(inet_pton(AF_INET, text, &address.sin_addr), 1);
  return address;
}

// Returns the data that arrives within ten seconds, or "" if none arrives within `quick` milliseconds.
std::string Receive(int fd, int quick = 10'000) {
  pollfd wait = {fd, POLLIN, 0};
  if (poll(&wait, 1, quick) != 1) return {};
  char buffer[2048];
  const ssize_t size = read(fd, buffer, sizeof(buffer));
  return size < 0 ? "error" : std::string(buffer, static_cast<size_t>(size));
}

void SendTo(const char* to, USHORT port, const std::string& text) {
  const Descriptor sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  in_addr loopback{htonl(INADDR_LOOPBACK)};
  EXPECT_EQ(setsockopt(sender.fd, IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof(loopback)), 0);
  const sockaddr_in address = Address(to, port);
  EXPECT_EQ(
      sendto(sender.fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
      static_cast<ssize_t>(text.size()));
}

// --- sockets -----------------------------------------------------------------------------------------

class SocketTest : public RuntimeTest {
 protected:
  static Descriptor Open(USHORT port, std::vector<BYTE> address = {0, 0, 0, 0}) {
    int fd = 0;
    if (!CreateUDPRxSocket(port, address.data(), &fd)) {
      EXPECT_EQ(fd, -1);
    }
    return Descriptor(fd);
  }
};

TEST_F(SocketTest, ReceivesUnicastWithoutBlocking) {
  const Descriptor socket = Open(0);
  ASSERT_GE(socket.fd, 0);
  EXPECT_TRUE(fcntl(socket.fd, F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(fcntl(socket.fd, F_GETFD) & FD_CLOEXEC);
  SendTo("127.0.0.1", PortOf(socket.fd), "hello");
  EXPECT_EQ(Receive(socket.fd), "hello");
}

TEST_F(SocketTest, AUnicastPortIsNotShared) {
  const Descriptor first = Open(0);
  const Descriptor second = Open(PortOf(first.fd));
  EXPECT_EQ(second.fd, -1);
  EXPECT_THAT(Texts(),
              ElementsAre("UDP port " + std::to_string(PortOf(first.fd)) + ": cannot bind: Address already in use."));
}

TEST_F(SocketTest, AGroupIsJoinedAndItsPortShared) {
  m_config.multicastInterface = "lo";
  Apply();
  const Descriptor first = Open(0, {239, 255, 77, 1});
  ASSERT_GE(first.fd, 0);
  const USHORT port = PortOf(first.fd);
  const Descriptor second = Open(port, {239, 255, 77, 1});
  ASSERT_GE(second.fd, 0);
  SendTo("239.255.77.1", port, "group");
  EXPECT_EQ(Receive(first.fd), "group");
  EXPECT_EQ(Receive(second.fd), "group");
}

TEST_F(SocketTest, GroupsOfOtherSocketsDoNotArrive) {
  m_config.multicastInterface = "lo";
  Apply();
  const Descriptor first = Open(0, {239, 255, 77, 1});
  const USHORT port = PortOf(first.fd);
  const Descriptor second = Open(port, {239, 255, 77, 2});
  SendTo("239.255.77.2", port, "second");
  EXPECT_EQ(Receive(second.fd), "second");
  EXPECT_EQ(Receive(first.fd, 20), "");
}

HostReception::Group Group(const char* text, int family = AF_INET) {
  HostReception::Group group;
  group.family = family;
  EXPECT_EQ(inet_pton(family, text, group.address.data()), 1);
  return group;
}

TEST_F(SocketTest, TheGroupsOfAReceptionAreJoinedOnItsPortUntilTheNextOne) {
  const Descriptor taken = Open(0, {239, 255, 77, 1});
  const USHORT port = PortOf(taken.fd);
  HostReception reception;
  reception.groups = {Group("239.255.77.4"), Group("239.255.77.5")};
  reception.interface = "lo";
  reception.port = port;
  HostRuntime_SetReception(reception);
  const Descriptor socket = Open(7, {239, 255, 77, 6});
  ASSERT_GE(socket.fd, 0);
  EXPECT_EQ(PortOf(socket.fd), port) << "in place of the library's number";
  for (const char* const group : {"239.255.77.4", "239.255.77.6", "239.255.77.5"}) SendTo(group, port, group);
  EXPECT_EQ(Receive(socket.fd), "239.255.77.4");
  EXPECT_EQ(Receive(socket.fd), "239.255.77.5");
  HostRuntime_SetReception({});
  EXPECT_NE(PortOf(Open(0).fd), port);
}

TEST_F(SocketTest, OnlyTheSenderOfAReceptionIsReceived) {
  HostReception reception;
  reception.groups = {Group("232.255.77.1")};
  reception.sender = Group("127.0.0.2");
  reception.interface = "lo";
  HostRuntime_SetReception(reception);
  const Descriptor socket = Open(0);
  HostRuntime_SetReception({});
  ASSERT_GE(socket.fd, 0);
  for (const char* const from : {"127.0.0.1", "127.0.0.2"}) {
    const Descriptor sender(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in local = Address(from, 0);
    const sockaddr_in to = Address("232.255.77.1", PortOf(socket.fd));
    in_addr loopback{htonl(INADDR_LOOPBACK)};
    ASSERT_EQ(setsockopt(sender.fd, IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof(loopback)), 0);
    ASSERT_EQ(bind(sender.fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)), 0);
    ASSERT_EQ(sendto(sender.fd, from, 9, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)), 9);
  }
  EXPECT_EQ(Receive(socket.fd), "127.0.0.2");
}

TEST_F(SocketTest, AReceptionOfThisMachineOnlyIsBoundToTheLoopbackAddress) {
  HostReception reception;
  reception.onlyLoopback = true;
  HostRuntime_SetReception(reception);
  const Descriptor socket = Open(0);
  HostRuntime_SetReception({});
  sockaddr_in local{};
  socklen_t size = sizeof(local);
  ASSERT_EQ(getsockname(socket.fd, reinterpret_cast<sockaddr*>(&local), &size), 0);
  EXPECT_EQ(local.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST_F(SocketTest, AnInterfaceOfAReceptionThatDoesNotExistFails) {
  HostReception reception;
  reception.interface = "nosuch0";
  for (const bool isGroup : {false, true}) {
    if (isGroup) reception.groups = {Group("239.255.77.1"), Group("ff02::77", AF_INET6)};
    HostRuntime_SetReception(reception);
    int fd = 0;
    EXPECT_FALSE(CreateUDPv6RxSocket(0, 0, &fd));
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(Open(0).fd, -1);
  }
  HostRuntime_SetReception({});
}

TEST_F(SocketTest, WithoutAConfiguredInterfaceLocalSendersAreReceived) {
  const Descriptor socket = Open(0, {239, 255, 77, 3});
  ASSERT_GE(socket.fd, 0);
  SendTo("239.255.77.3", PortOf(socket.fd), "local");
  EXPECT_EQ(Receive(socket.fd), "local");
}

TEST_F(SocketTest, AnInterfaceThatDoesNotExistFails) {
  m_config.multicastInterface = "nosuch0";
  Apply();
  EXPECT_EQ(Open(0, {239, 255, 77, 1}).fd, -1);
  EXPECT_THAT(Texts()[0], HasSubstr("cannot join the group"));
}

TEST_F(SocketTest, IPv6SharesThePortNumberWithIPv4AndReportsHopLimitAndClass) {
  const Descriptor four = Open(0);
  int fd = -1;
  ASSERT_TRUE(CreateUDPv6RxSocket(PortOf(four.fd), HOST_UDPV6_RX_HOPLIMIT | HOST_UDPV6_RX_TRAFFIC_CLASS, &fd));
  const Descriptor six(fd);
  EXPECT_TRUE(fcntl(six.fd, F_GETFL) & O_NONBLOCK);
  const auto option = [&](int name) {
    int value = -1;
    socklen_t size = sizeof(value);
    EXPECT_EQ(getsockopt(six.fd, IPPROTO_IPV6, name, &value, &size), 0);
    return value;
  };
  EXPECT_EQ(option(IPV6_V6ONLY), 1);
  EXPECT_EQ(option(IPV6_RECVHOPLIMIT), 1);
  EXPECT_EQ(option(IPV6_RECVTCLASS), 1);
  const Descriptor sender(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(PortOf(six.fd));
  address.sin6_addr = in6addr_loopback;
  ASSERT_EQ(sendto(sender.fd, "six", 3, 0, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 3);
  EXPECT_EQ(Receive(six.fd), "six");
  EXPECT_FALSE(CreateUDPv6RxSocket(PortOf(six.fd), 0, &fd));
  EXPECT_EQ(fd, -1);
}

TEST_F(SocketTest, InterfacesHaveAScopeId) {
  UINT32 scope = 5;
  EXPECT_TRUE(GetInterfaceIPv6ScopeID("lo", &scope));
  EXPECT_EQ(scope, if_nametoindex("lo"));
  EXPECT_FALSE(GetInterfaceIPv6ScopeID("nosuch0", &scope));
  EXPECT_EQ(scope, 0u);
}

TEST_F(SocketTest, RelaysMayHaveAnotherInterfaceThanTheLibraryAsksFor) {
  HostReception reception;
  reception.relayInterface = "lo";
  HostRuntime_SetReception(reception);
  UINT32 scope = 0;
  EXPECT_TRUE(GetInterfaceIPv6ScopeID("eth0", &scope));
  EXPECT_EQ(scope, if_nametoindex("lo"));
  EXPECT_FALSE(GetInterfaceIPv6ScopeID("nosuch0", &scope)) << "only that of relays";
  HostRuntime_SetReception({});
  GetInterfaceIPv6ScopeID("eth0", &scope);
  EXPECT_EQ(scope, if_nametoindex("eth0"));
}

TEST_F(SocketTest, AddressesBecomeTexts) {
  char text[64];
  sockaddr_storage storage{};
  const sockaddr_in four = Address("10.0.0.1", 5000);
  memcpy(&storage, &four, sizeof(four));
  EXPECT_STREQ(GetSockAddressString(&storage, text, sizeof(text)), "10.0.0.1:5000");
  EXPECT_STREQ(GetIPAddressString(AF_INET, &four.sin_addr, text, sizeof(text)), "10.0.0.1");
  sockaddr_in6 six{};
  six.sin6_family = AF_INET6;
  six.sin6_port = htons(5000);
  inet_pton(AF_INET6, "fe80::1", &six.sin6_addr);
  memcpy(&storage, &six, sizeof(six));
  EXPECT_STREQ(GetSockAddressString(&storage, text, sizeof(text)), "[fe80::1]:5000");
  EXPECT_STREQ(GetSockAddressString(&storage, text, 6), "[fe80");
  EXPECT_STREQ(GetIPAddressString(99, &four, text, sizeof(text)), "?");
  EXPECT_STREQ(GetIPAddressString(AF_INET6, &six.sin6_addr, text, 3), "?");
  storage.ss_family = AF_UNSPEC;
  EXPECT_STREQ(GetSockAddressString(&storage, text, sizeof(text)), "?");
}

// --- serial ------------------------------------------------------------------------------------------

class SerialTest : public RuntimeTest {
 protected:
  SerialTest() : m_line(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_EQ(grantpt(m_line.fd), 0);
    EXPECT_EQ(unlockpt(m_line.fd), 0);
    char name[64] = "";
    EXPECT_EQ(ptsname_r(m_line.fd, name, sizeof(name)), 0);
    m_config.serialDevices["/dev/ttyPS0"] = name;
    Apply();
  }
  static Descriptor Open(const char* path = "/dev/ttyPS0") {
    int fd = 0;
    if (!OpenSerialPortDevice(path, &fd)) {
      EXPECT_EQ(fd, -1);
    }
    return Descriptor(fd);
  }

  Descriptor m_line;  // the far end
  const MDATA_SERIAL_SRC_CFG m_usual = {115200, 0, 0, 0, 8};
};

TEST_F(SerialTest, TheLibrarysPathIsMappedAndEveryByteArrivesUnchanged) {
  const Descriptor port = Open();
  ASSERT_GE(port.fd, 0);
  EXPECT_TRUE(fcntl(port.fd, F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(fcntl(port.fd, F_GETFD) & FD_CLOEXEC);
  termios before{};
  ASSERT_TRUE(ConfigureSerialPort(port.fd, &m_usual, &before));
  EXPECT_TRUE(before.c_lflag & ICANON);
  char byte;
  EXPECT_EQ(read(port.fd, &byte, 1), -1);
  EXPECT_EQ(errno, EAGAIN);
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  ASSERT_EQ(write(m_line.fd, all.data(), all.size()), 256);
  std::string got;
  while (got.size() < 256) {
    const std::string part = Receive(port.fd);
    ASSERT_FALSE(part.empty());
    got += part;
  }
  EXPECT_EQ(got, all);
}

TEST_F(SerialTest, ALineThatHungUpReadsAsEnded) {
  const Descriptor port = Open();
  ASSERT_TRUE(ConfigureSerialPort(port.fd, &m_usual, nullptr));
  close(std::exchange(m_line.fd, -1));
  char byte;
  errno = 0;
  EXPECT_LE(read(port.fd, &byte, 1), 0);
  EXPECT_NE(errno, EAGAIN);
}

TEST_F(SerialTest, SettingsReachTheDevice) {
  const Descriptor port = Open();
  termios settings{};
  const MDATA_SERIAL_SRC_CFG software = {9600, HOST_SERIAL_FLOW_SOFTWARE, HOST_SERIAL_PARITY_ODD, HOST_SERIAL_STOP_2,
                                         8};
  ASSERT_TRUE(ConfigureSerialPort(port.fd, &software, nullptr));
  ASSERT_EQ(tcgetattr(port.fd, &settings), 0);
  EXPECT_EQ(cfgetispeed(&settings), speed_t{B9600});
  EXPECT_TRUE(settings.c_iflag & IXON);
  EXPECT_TRUE(settings.c_cflag & CSTOPB);
  EXPECT_FALSE(settings.c_lflag & (ICANON | ECHO | ISIG));
  EXPECT_FALSE(settings.c_oflag & OPOST);
  const MDATA_SERIAL_SRC_CFG hardware = {4000000, HOST_SERIAL_FLOW_HARDWARE, 0, 0, 8};
  ASSERT_TRUE(ConfigureSerialPort(port.fd, &hardware, nullptr));
  ASSERT_EQ(tcgetattr(port.fd, &settings), 0);
  EXPECT_EQ(cfgetospeed(&settings), speed_t{B4000000});
  EXPECT_TRUE(settings.c_cflag & CRTSCTS);
  EXPECT_FALSE(settings.c_iflag & IXON);
}

TEST_F(SerialTest, SettingsWithoutMeaningAreNamedInOneLine) {
  const Descriptor port = Open();
  const MDATA_SERIAL_SRC_CFG bad[] = {
      {12345, 0, 0, 0, 8}, {9600, 3, 0, 0, 8}, {9600, 0, -1, 0, 8}, {9600, 0, 0, 2, 8}, {9600, 0, 0, 0, 9}};
  for (const MDATA_SERIAL_SRC_CFG& settings : bad) EXPECT_FALSE(ConfigureSerialPort(port.fd, &settings, nullptr));
  std::vector<std::string> texts = Texts();
  std::erase_if(texts, [](const std::string& text) { return text.find("allowed") == std::string::npos; });
  EXPECT_THAT(texts,
              ElementsAre("Serial port: baud rate 12345 is not supported; allowed: the standard rates from 50 to "
                          "4000000.",
                          "Serial port: flow control 3 is not supported; allowed: 0 none, 1 hardware, 2 software.",
                          "Serial port: parity -1 is not supported; allowed: 0 none, 1 odd, 2 even.",
                          "Serial port: stop bit setting 2 is not supported; allowed: 0 for one, 1 for two.",
                          "Serial port: number of data bits 9 is not supported; allowed: 5 to 8."));
}

TEST_F(SerialTest, OtherFilesThanSerialDevicesAreRefused) {
  EXPECT_EQ(Open("/dev/nosuch").fd, -1);
  EXPECT_EQ(Open("/dev/null").fd, -1);
  EXPECT_THAT(Texts(), ElementsAre("Cannot open serial device \"/dev/nosuch\": No such file or directory.",
                                   "\"/dev/null\" is not a serial device."));
  EXPECT_FALSE(ConfigureSerialPort(-1, &m_usual, nullptr));
}

}  // namespace
