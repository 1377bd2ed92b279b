// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   File        is written in whole chunks, also on a disk that is full
//   Datagrams   hold seven packets, the usual number
//   SRT         is a peer that may come and go
//   Segments    are files with a playlist, for HTTP
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "address_list.h"
#include "av_owned.h"
#include "growing_file.h"
#include "owned_fd.h"
#include "statistics.h"
#include "stream_url.h"
#include "ts_mux.h"
#include "ts_output.h"

namespace mdencoder {
namespace {

constexpr size_t kDatagram = 7 * ts::kPacketSize;

// --- File --------------------------------------------------------------------------------------------

// Appends a chunk to a file, or nothing of it.
bool Append(GrowingFile& file, const TsChunk& chunk, std::string& reason) {
  errno = 0;
  const size_t written = file.Append(chunk.bytes.data(), chunk.bytes.size());
  if (written == chunk.bytes.size()) {
    file.size += written;
    return true;
  }
  reason = std::strerror(errno);
  file.Keep(0);
  return false;
}

class FileSink : public TsSink {
 public:
  explicit FileSink(const std::string& path) : m_file(MakeGrowingFile(path, true)) {}

  bool Open(std::string&) override { return true; }
  bool IsOpen() const override { return true; }

  bool Write(const TsChunk& chunk, std::string& reason) override { return Append(m_file, chunk, reason); }

 private:
  GrowingFile m_file;
};

// --- Datagrams ---------------------------------------------------------------------------------------

class DatagramSink : public TsSink {
 public:
  explicit DatagramSink(StreamOutput output) : m_output(std::move(output)) {}

  bool IsOpen() const override { return m_fd.IsOpen(); }

  bool Open(std::string& reason) override {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(m_output.host.c_str(), std::to_string(m_output.port).c_str(), &hints, &found);
    if (result != 0) {
      reason = gai_strerror(result);
      return false;
    }
    const common::AddressList list(found);
    std::memcpy(&m_address, list->ai_addr, list->ai_addrlen);
    m_addressSize = list->ai_addrlen;
    common::OwnedFD fd(socket(list->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.IsOpen() || !Prepare(fd.Get(), list->ai_family)) {
      reason = std::strerror(errno);
      return false;
    }
    m_fd = std::move(fd);
    return true;
  }

  // The socket is not connected: that nobody listens is no error.
  bool Write(const TsChunk& chunk, std::string& reason) override {
    for (size_t at = 0; at < chunk.bytes.size(); at += kDatagram) {
      const size_t size = std::min(kDatagram, chunk.bytes.size() - at);
      const auto* const address = reinterpret_cast<const sockaddr*>(&m_address);
      if (sendto(m_fd.Get(), chunk.bytes.data() + at, size, MSG_NOSIGNAL, address, m_addressSize) >= 0) continue;
      reason = std::strerror(errno);
      return false;
    }
    return true;
  }

 private:
  bool Prepare(int fd, int family) const {
    const int yes = 1;
    const timeval longest = {0, 200000};
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &yes, sizeof(yes));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof(longest));
    const bool isV4 = family == AF_INET;
    const int level = isV4 ? IPPROTO_IP : IPPROTO_IPV6;
    const int ttl = m_output.ttl;
    if (setsockopt(fd, level, isV4 ? IP_MULTICAST_TTL : IPV6_MULTICAST_HOPS, &ttl, sizeof(ttl)) != 0) return false;
    if (m_output.hasTtl && setsockopt(fd, level, isV4 ? IP_TTL : IPV6_UNICAST_HOPS, &ttl, sizeof(ttl)) != 0)
      return false;
    if (m_output.interface.empty()) return true;
    const unsigned index = if_nametoindex(m_output.interface.c_str());
    if (index == 0) return false;
    if (!isV4) return setsockopt(fd, level, IPV6_MULTICAST_IF, &index, sizeof(index)) == 0;
    ip_mreqn interface {};
    interface.imr_ifindex = static_cast<int>(index);
    return setsockopt(fd, level, IP_MULTICAST_IF, &interface, sizeof(interface)) == 0;
  }

  const StreamOutput m_output;
  common::OwnedFD m_fd;
  sockaddr_storage m_address{};
  socklen_t m_addressSize = 0;
};

// --- SRT ---------------------------------------------------------------------------------------------

class SrtSink : public TsSink {
 public:
  SrtSink(StreamOutput output, std::function<bool()> isStopping)
      : m_output(std::move(output)), m_isStopping(std::move(isStopping)) {}
  ~SrtSink() override { SrtSink::Close(); }
  SrtSink(const SrtSink&) = delete;
  SrtSink& operator=(const SrtSink&) = delete;

  bool IsOpen() const override { return m_io != nullptr; }

  bool Open(std::string& reason) override {
    const AVIOInterruptCB interrupt = {&SrtSink::IsInterrupted, this};
    AVDictionary* options = nullptr;
    av_dict_set(&options, "rw_timeout", "3000000", 0);
    av_dict_set(&options, "protocol_whitelist", "srt", 0);
    const int result = avio_open2(&m_io, m_output.text.c_str(), AVIO_FLAG_WRITE, &interrupt, &options);
    av_dict_free(&options);
    if (result >= 0) return true;
    m_io = nullptr;
    reason = av::ErrorText(result);
    return false;
  }

  bool Write(const TsChunk& chunk, std::string& reason) override {
    for (size_t at = 0; at < chunk.bytes.size() && m_io->error >= 0; at += kDatagram) {
      avio_write(m_io, chunk.bytes.data() + at, static_cast<int>(std::min(kDatagram, chunk.bytes.size() - at)));
      avio_flush(m_io);
    }
    if (m_io->error >= 0) return true;
    reason = av::ErrorText(m_io->error);
    Close();
    return false;
  }

  void Close() override {
    if (m_io != nullptr) avio_closep(&m_io);
  }

 private:
  static int IsInterrupted(void* self) { return static_cast<SrtSink*>(self)->m_isStopping() ? 1 : 0; }

  const StreamOutput m_output;
  const std::function<bool()> m_isStopping;
  AVIOContext* m_io = nullptr;
};

// --- Segments ----------------------------------------------------------------------------------------

constexpr int64_t kLeastSegmentUs = 2'000'000;
constexpr size_t kListed = 6;  // segments in the playlist
constexpr size_t kKept = 3;    // and those before them, for players that have an older playlist

// A segment is in the playlist when it is complete.
class SegmentSink : public TsSink {
 public:
  SegmentSink(std::string folder, std::string stream) : m_folder(std::move(folder)), m_stream(std::move(stream)) {
    std::error_code error;
    std::filesystem::create_directories(m_folder, error);
    if (error) throw std::runtime_error("cannot make " + m_folder + ": " + error.message());
    std::string reason;
    if (!WriteList(false, reason)) throw std::runtime_error(reason);
  }

  bool Open(std::string&) override { return true; }
  bool IsOpen() const override { return true; }

  bool Write(const TsChunk& chunk, std::string& reason) override {
    const bool isDue = chunk.isKey && (!m_file.fd.IsOpen() || chunk.timeUs - m_beginUs >= kLeastSegmentUs);
    if (isDue && (!EndSegment(chunk.timeUs, reason) || !BeginSegment(chunk.timeUs, reason))) return false;
    m_endUs = chunk.timeUs;
    if (!m_file.fd.IsOpen()) return true;  // before the first key frame
    return Append(m_file, chunk, reason);
  }

  void Close() override {
    std::string reason;
    if (EndSegment(m_endUs, reason)) WriteList(true, reason);
  }

 private:
  struct Segment {
    uint64_t number = 0;
    double seconds = 0;
  };

  std::string NameOf(uint64_t number) const {
    char text[32];
    std::snprintf(text, sizeof(text), "-%06llu.ts", static_cast<unsigned long long>(number));
    return m_stream + text;
  }
  std::string PathOf(uint64_t number) const { return m_folder + "/" + NameOf(number); }

  bool BeginSegment(int64_t timeUs, std::string& reason) try {
    m_file = MakeGrowingFile(PathOf(m_next), true);
    m_beginUs = timeUs;
    ++m_next;
    return true;
  } catch (const std::runtime_error& error) {
    reason = error.what();
    return false;
  }

  bool EndSegment(int64_t timeUs, std::string& reason) {
    if (!m_file.fd.IsOpen()) return true;
    m_file = {};
    m_segments.push_back({m_next - 1, static_cast<double>(timeUs - m_beginUs) / 1e6});
    while (m_segments.size() > kListed + kKept) {
      unlink(PathOf(m_segments.front().number).c_str());
      m_segments.pop_front();
    }
    return WriteList(false, reason);
  }

  bool WriteList(bool isEnd, std::string& reason) try {
    const size_t first = m_segments.size() - std::min(m_segments.size(), kListed);
    double longest = 1;
    for (const Segment& segment : m_segments) longest = std::max(longest, segment.seconds);
    const uint64_t number = m_segments.empty() ? 0 : m_segments[first].number;
    std::string list =
        "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:" + std::to_string(std::lround(std::ceil(longest))) +
        "\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(number) + "\n";
    for (size_t i = first; i < m_segments.size(); ++i) {
      char text[32];
      std::snprintf(text, sizeof(text), "#EXTINF:%.3f,\n", m_segments[i].seconds);
      list += text + NameOf(m_segments[i].number) + "\n";
    }
    if (isEnd) list += "#EXT-X-ENDLIST\n";
    ReplaceFile(m_folder + "/" + m_stream + ".m3u8", list);
    return true;
  } catch (const std::runtime_error& error) {
    reason = error.what();
    return false;
  }

  const std::string m_folder;
  const std::string m_stream;
  GrowingFile m_file;  // of the segment that grows
  uint64_t m_next = 0;
  int64_t m_beginUs = 0;
  int64_t m_endUs = 0;
  std::deque<Segment> m_segments;
};

}  // namespace

std::unique_ptr<TsSink> MakeSink(const StreamOutput& output, std::function<bool()> isStopping) {
  switch (output.kind) {
    case StreamOutput::Kind::Datagrams:
      return std::make_unique<DatagramSink>(output);
    case StreamOutput::Kind::Srt:
      return std::make_unique<SrtSink>(output, std::move(isStopping));
    default:
      return std::make_unique<FileSink>(output.text);
  }
}

std::unique_ptr<TsSink> MakeSegmentSink(const std::string& folder, const std::string& stream) {
  return std::make_unique<SegmentSink>(folder, stream);
}

}  // namespace mdencoder
