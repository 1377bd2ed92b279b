// SPDX-License-Identifier: Apache-2.0
#include "output.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "error.h"
#include "traffic.h"

namespace mdfeed {
namespace {

class Receiver {
 public:
  Receiver() {
    m_fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    EXPECT_EQ(bind(m_fd, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
    m_port = ntohs(address.sin_port);
    const int on = 1;
    setsockopt(m_fd, IPPROTO_IP, IP_RECVTTL, &on, sizeof(on));
    setsockopt(m_fd, IPPROTO_IP, IP_RECVTOS, &on, sizeof(on));
  }
  ~Receiver() { close(m_fd); }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  UdpAddress Address() const { return {"127.0.0.1", std::to_string(m_port)}; }
  // Returns the next datagram; loopback delivers before send() returns.
  Bytes Receive(int* ttl, int* tos) {
    Bytes data(2000);
    alignas(cmsghdr) char control[256];
    iovec io = {data.data(), data.size()};
    msghdr header{};
    header.msg_iov = &io;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
    const ssize_t size = recvmsg(m_fd, &header, MSG_DONTWAIT);
    if (size < 0) return {};
    data.resize(static_cast<size_t>(size));
    for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
      if (c->cmsg_type == IP_TTL) std::memcpy(ttl, CMSG_DATA(c), sizeof(int));
      if (c->cmsg_type == IP_TOS) *tos = *CMSG_DATA(c);
    }
    return data;
  }

 private:
  int m_fd = -1;
  int m_port = 0;
};

TEST(UdpOutput, SendsWithTheTtlAndTosOfTheMoment) {
  Receiver receiver;
  const auto output = OpenUdp(receiver.Address(), "");
  int ttl = 0;
  int tos = 0;
  const Bytes message = {1, 2, 3};
  output->SetTtl(7);
  output->SetTos(0x28);
  output->Send(message);
  EXPECT_EQ(receiver.Receive(&ttl, &tos), message);
  EXPECT_EQ(ttl, 7);
  EXPECT_EQ(tos, 0x28);
  output->SetTtl(99);
  output->SetTos(0);
  output->Send(message);
  EXPECT_EQ(receiver.Receive(&ttl, &tos), message);
  EXPECT_EQ(ttl, 99);
  EXPECT_EQ(tos, 0);
}

TEST(UdpOutput, GoesOnWithoutAReceiver) {
  UdpAddress nobody;
  {
    Receiver gone;
    nobody = gone.Address();
  }
  const auto output = OpenUdp(nobody, "");
  for (int i = 0; i < 3; ++i) EXPECT_NO_THROW(output->Send(Bytes{1}));
}

TEST(UdpOutput, FailsClearly) {
  EXPECT_THROW(OpenUdp({"no.such.host.invalid", "1"}, ""), RunError);
  EXPECT_THROW(OpenUdp({"127.0.0.1", "1"}, "no-such-if"), RunError);
  EXPECT_THROW(OpenUdp({"127.0.0.1", "1"}, "")->Send(Bytes(70'000)), RunError);
}

TEST(SerialOutput, FailsClearly) {
  EXPECT_THROW(OpenSerial("/no/such/line", 9600), RunError);
  EXPECT_THROW(OpenSerial("/dev/null", 9600), RunError);
  EXPECT_THROW(OpenSerial("/dev/null", 9601), UsageError);
}

TEST(PtyOutput, WaitsForAReaderAndDeliversEveryByte) {
  const std::string link = testing::TempDir() + "mdfeed_pty_" + std::to_string(getpid());
  Bytes sent;
  for (int i = 0; i < 20'000; ++i) sent.push_back(static_cast<uint8_t>(i * 7));
  Bytes received;
  {
    const auto output = OpenPty(link);
    std::thread reader([&] {
      const int fd = open(link.c_str(), O_RDONLY | O_NOCTTY);
      Bytes piece(48);
      while (received.size() < sent.size()) {
        const ssize_t size = read(fd, piece.data(), piece.size());
        if (size <= 0) break;
        received.insert(received.end(), piece.begin(), piece.begin() + size);
      }
      close(fd);
    });
    EXPECT_TRUE(output->WaitForReader());
    output->Send(sent);
    output->Finish();
    reader.join();
  }
  EXPECT_EQ(received, sent);
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link)));
}

TEST(PtyOutput, ReplacesAnOldLinkButNoFile) {
  const std::string link = testing::TempDir() + "mdfeed_old_" + std::to_string(getpid());
  std::filesystem::create_symlink("/nowhere", link);
  EXPECT_NO_THROW(OpenPty(link));
  std::filesystem::create_directory(link);
  EXPECT_THROW(OpenPty(link), RunError);
  std::filesystem::remove(link);
}

}  // namespace
}  // namespace mdfeed
