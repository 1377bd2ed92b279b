// SPDX-License-Identifier: Apache-2.0
// URLs of live streams. No I/O.
#ifndef STREAM_URL_H
#define STREAM_URL_H

#include <cstdint>
#include <optional>
#include <string>

namespace stream_url {

bool IsUrl(const std::string& text);   // has a scheme: "srt://..."
bool IsLive(const std::string& path);  // a URL, or an SDP file, which describes a stream; else a file that is played
std::string Scheme(const std::string& text);  // "srt", or "" if it is no URL

// The local end of a udp:// or rtp:// URL.
struct DatagramOrigin {
  int family = 0;       // AF_INET or AF_INET6
  std::string address;  // a group to join, or this machine's own address; empty for any
  uint16_t port = 0;
  std::string interface;  // on which the group is joined; empty: as the host decides
};
constexpr char kDatagramAllowed[] =
    "udp://ADDRESS:PORT or rtp://ADDRESS:PORT with a numeric address, and ?interface=NAME at most";

bool IsDatagramUrl(const std::string& url);
// Returns nothing if the URL is not what kDatagramAllowed says. "udp://:PORT" and "udp://@ADDRESS:PORT" are allowed too.
std::optional<DatagramOrigin> ParseDatagramUrl(const std::string& url);

// Returns a URL for a line of a log: without user, password and query.
std::string Shown(const std::string& url);

struct HostAndPort {
  std::string host;  // without the brackets of an IPv6 address
  uint16_t port = 0;
};
// Takes "HOST:PORT" or "[ADDRESS]:PORT" apart. The host may be empty.
std::optional<HostAndPort> ParseHostAndPort(const std::string& text);

}  // namespace stream_url

#endif  // STREAM_URL_H
