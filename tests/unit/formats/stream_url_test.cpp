// SPDX-License-Identifier: Apache-2.0
#include "stream_url.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

namespace stream_url {
namespace {

TEST(StreamUrl, ADatagramUrlNamesTheLocalEnd) {
  auto origin = ParseDatagramUrl("udp://239.1.2.3:5000");
  ASSERT_TRUE(origin);
  EXPECT_EQ(origin->family, AF_INET);
  EXPECT_EQ(origin->address, "239.1.2.3");
  EXPECT_EQ(origin->port, 5000);
  EXPECT_EQ(origin->interface, "");
  origin = ParseDatagramUrl("rtp://@[ff15::1]:5004/?interface=eth0");
  ASSERT_TRUE(origin);
  EXPECT_EQ(origin->family, AF_INET6);
  EXPECT_EQ(origin->address, "ff15::1");
  EXPECT_EQ(origin->interface, "eth0");
  for (const char* any : {"udp://:7", "udp://@:7"}) {
    origin = ParseDatagramUrl(any);
    ASSERT_TRUE(origin) << any;
    EXPECT_EQ(origin->address, "");
    EXPECT_EQ(origin->port, 7);
  }
}

TEST(StreamUrl, WhatIsNoDatagramUrlIsRefused) {
  for (const char* bad : {"", "udp://", "udp://239.1.2.3", "udp://239.1.2.3:0", "udp://239.1.2.3:65536",
                          "udp://camera:5000", "udp://ff15::1:5000", "udp://[239.1.2.3]:5000", "udp://[]:5000",
                          "udp://1.2.3.4:5?", "udp://1.2.3.4:5?interface=", "udp://1.2.3.4:5?fifo_size=9",
                          "udp://1.2.3.4:5?interface=a&b=c", "srt://1.2.3.4:5", "239.1.2.3:5"}) {
    EXPECT_FALSE(ParseDatagramUrl(bad)) << bad;
  }
}

TEST(StreamUrl, NothingSecretIsShown) {
  EXPECT_EQ(Shown("rtsp://user:p@ss@camera:554/live@2"), "rtsp://camera:554/live@2");
  EXPECT_EQ(Shown("srt://camera:9000?passphrase=secret"), "srt://camera:9000");
  EXPECT_EQ(Shown("/home/me@here/a?b.ts"), "/home/me@here/a?b.ts");
}

TEST(StreamUrl, HostAndPortAreTakenApart) {
  const auto place = ParseHostAndPort("[fe80::1]:7");
  ASSERT_TRUE(place);
  EXPECT_EQ(place->host, "fe80::1");
  EXPECT_EQ(place->port, 7);
  EXPECT_EQ(ParseHostAndPort("host.example:99")->host, "host.example");
  for (const char* bad : {"host", "host:", "host:x", "a:b:1", "[a]:1", ":0"})
    EXPECT_FALSE(ParseHostAndPort(bad)) << bad;
  EXPECT_EQ(Scheme("tcp://x"), "tcp");
  EXPECT_EQ(Scheme("file.ts"), "");
}

}  // namespace
}  // namespace stream_url
