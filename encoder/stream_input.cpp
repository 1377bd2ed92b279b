// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Files       of KLV
//   Tracks      of containers, through libavformat
//   Datagrams   are KLV or carry a transport stream
#include "stream_input.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "av_owned.h"
#include "datagram_input.h"
#include "media_input.h"
#include "owned_fd.h"
#include "printable_text.h"
#include "stream_url.h"

namespace mdencoder {
namespace {

using st0601::ByteView;
using Clock = DatagramInput::Clock;

constexpr size_t kPiece = 65536;
constexpr size_t kProbed = 4096;  // bytes of a file in which KLV begins

// --- Files -------------------------------------------------------------------------------------------

bool HoldsKlv(ByteView bytes) {
  constexpr std::array<uint8_t, 4> kLabel = {0x06, 0x0E, 0x2B, 0x34};
  return std::search(bytes.begin(), bytes.end(), kLabel.begin(), kLabel.end()) != bytes.end();
}

size_t ReadSome(int fd, const std::string& name, std::vector<uint8_t>& buffer, size_t at) {
  for (;;) {
    const ssize_t got = read(fd, buffer.data() + at, buffer.size() - at);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw std::runtime_error(name + ": " + std::strerror(errno));
    return static_cast<size_t>(got);
  }
}

StreamInfo KlvStream() {
  StreamInfo info;
  info.kind = "data";
  info.codec = "klv";
  info.mayHoldKlv = true;
  return info;
}

// Returns false if the file does not begin as KLV; then nothing was passed on.
bool ReadKlvFile(const StreamInputSettings& settings, StreamSink& sink) {
  common::OwnedFD opened;
  const bool isInput = settings.name == "-";
  if (!isInput) opened.Reset(open(settings.name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  const int fd = isInput ? STDIN_FILENO : opened.Get();
  if (fd < 0) throw std::runtime_error(settings.name + ": " + std::strerror(errno));
  std::vector<uint8_t> buffer(kPiece);
  size_t size = ReadSome(fd, settings.name, buffer, 0);
  while (size != 0 && size < kProbed) {
    const size_t more = ReadSome(fd, settings.name, buffer, size);
    if (more == 0) break;
    size += more;
  }
  const ByteView start = ByteView(buffer).first(size);
  const bool isTransportStream = size != 0 && buffer[0] == 0x47;
  if (!isInput && size != 0 && (isTransportStream || !HoldsKlv(start.first(std::min(size, kProbed))))) return false;
  sink.OnStream(0, KlvStream());
  for (; size != 0 && !sink.IsEnough(); size = ReadSome(fd, settings.name, buffer, 0)) {
    sink.OnData(0, ByteView(buffer).first(size), std::nullopt, false);
  }
  return true;
}

// --- Tracks ------------------------------------------------------------------------------------------

struct Deadline {
  const StreamSink& sink;
  std::optional<Clock::time_point> end;
  bool IsOver() const { return sink.IsEnough() || (end && Clock::now() >= *end); }
};

int IsOver(void* deadline) {
  return static_cast<const Deadline*>(deadline)->IsOver() ? 1 : 0;
}

struct FreeIo {
  void operator()(AVIOContext* io) const {
    av_freep(&io->buffer);
    avio_context_free(&io);
  }
};

StreamInfo InfoOf(const AVStream& track) {
  const AVCodecParameters& codec = *track.codecpar;
  StreamInfo info;
  info.id = track.id;
  const char* const kind = av_get_media_type_string(codec.codec_type);
  info.kind = kind == nullptr ? "unknown" : kind;
  info.codec = avcodec_get_name(codec.codec_id);
  const AVDictionaryEntry* const language = av_dict_get(track.metadata, "language", nullptr, 0);
  if (language != nullptr) info.language = PrintableText(language->value);
  info.mayHoldKlv = codec.codec_id == AV_CODEC_ID_SMPTE_KLV || codec.codec_type == AVMEDIA_TYPE_DATA ||
                    codec.codec_type == AVMEDIA_TYPE_UNKNOWN;
  return info;
}

// Tracks appear while a transport stream is read.
class Tracks {
 public:
  Tracks(AVFormatContext& input, StreamSink& sink, bool onlyData)
      : m_input(input), m_sink(sink), m_onlyData(onlyData) {}

  void Look() {
    for (; m_known < m_input.nb_streams; ++m_known) {
      AVStream& track = *m_input.streams[m_known];
      const StreamInfo info = InfoOf(track);
      m_sink.OnStream(m_known, info);
      if (m_onlyData && !info.mayHoldKlv) track.discard = AVDISCARD_ALL;
    }
  }

  void Push(const AVPacket& packet) {
    Look();
    const AVStream& track = *m_input.streams[packet.stream_index];
    const int64_t stamp = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
    std::optional<double> seconds;
    if (stamp != AV_NOPTS_VALUE) seconds = static_cast<double>(stamp) * av_q2d(track.time_base);
    m_sink.OnData(static_cast<size_t>(packet.stream_index), {packet.data, static_cast<size_t>(packet.size)}, seconds,
                  (packet.flags & AV_PKT_FLAG_CORRUPT) != 0);
  }

 private:
  AVFormatContext& m_input;
  StreamSink& m_sink;
  const bool m_onlyData;
  unsigned m_known = 0;
};

av::Input MakeInput(Deadline& deadline) {
  media_input::Prepare();
  av::Input input(media_input::MakeContext());
  if (input == nullptr) throw std::runtime_error("out of memory");
  input->interrupt_callback = {&IsOver, &deadline};
  return input;
}

// A peer that calls may do so when it likes.
bool WaitsForPeer(const std::string& url) {
  return url.find("listen", std::min(url.find('?'), url.size())) != std::string::npos;
}

// Opens a file or a URL. Without an end that the caller has set, a peer has as long as that of a source.
av::Input OpenTracks(const StreamInputSettings& settings, Deadline& deadline) {
  AVFormatContext* context = MakeInput(deadline).release();
  const bool hasEnd = deadline.end.has_value();
  if (!hasEnd && stream_url::IsUrl(settings.name) && !WaitsForPeer(settings.name)) {
    deadline.end = Clock::now() + media_input::kLongestOpening;
  }
  const std::string fault =
      media_input::Open(context, {media_input::Purpose::Look, settings.name, settings.authorities, !hasEnd});
  const bool isLate = deadline.IsOver();
  if (!hasEnd) deadline.end.reset();
  if (fault.empty()) return av::Input(context);
  throw std::runtime_error(settings.name + ": " + (isLate ? "nothing was received in time" : fault));
}

// Reads what an opened context has. A break after the deadline is the end.
std::string ReadTracks(const StreamInputSettings& settings, StreamSink& sink, const Deadline& deadline,
                       const av::Input& input) {
  const av::Packet packet(av_packet_alloc());
  if (packet == nullptr) throw std::runtime_error(settings.name + ": out of memory");
  Tracks tracks(*input, sink, settings.onlyData);
  tracks.Look();
  int result = 0;
  while (!deadline.IsOver() && (result = av_read_frame(input.get(), packet.get())) >= 0) {
    tracks.Push(*packet);
    av_packet_unref(packet.get());
  }
  tracks.Look();
  if (result < 0 && result != AVERROR_EOF && !deadline.IsOver()) {
    throw std::runtime_error(settings.name + ": " + media_input::ErrorText(result));
  }
  return input->iformat->name;
}

// --- Datagrams ---------------------------------------------------------------------------------------

// Gives libavformat what arrives.
struct Feed {
  DatagramInput& input;
  StreamSink& sink;
  ByteView rest;

  static int Read(void* opaque, uint8_t* buffer, int size) {
    auto& feed = *static_cast<Feed*>(opaque);
    if (feed.rest.empty()) {
      const auto payload = feed.input.Next();
      if (!payload) return AVERROR_EOF;
      if (const uint64_t missing = feed.input.TakeMissing()) feed.sink.OnMissing(0, missing);
      feed.rest = *payload;
    }
    const size_t count = std::min(feed.rest.size(), static_cast<size_t>(size));
    std::memcpy(buffer, feed.rest.data(), count);
    feed.rest = feed.rest.subspan(count);
    return count == 0 ? AVERROR(EAGAIN) : static_cast<int>(count);
  }
};

std::string ReadTransportStream(const StreamInputSettings& settings, StreamSink& sink, Deadline& deadline,
                                DatagramInput& datagrams) {
  Feed feed{datagrams, sink, {}};
  auto* const buffer = static_cast<unsigned char*>(av_malloc(kPiece));
  const std::unique_ptr<AVIOContext, FreeIo> io(
      buffer == nullptr
          ? nullptr
          : avio_alloc_context(buffer, static_cast<int>(kPiece), 0, &feed, &Feed::Read, nullptr, nullptr));
  if (io == nullptr) {
    av_free(buffer);
    throw std::runtime_error("out of memory");
  }
  AVFormatContext* context = MakeInput(deadline).release();
  context->pb = io.get();
  context->flags |= AVFMT_FLAG_CUSTOM_IO;
  // Frees the context if it fails.
  const int opened = avformat_open_input(&context, nullptr, av_find_input_format("mpegts"), nullptr);
  const av::Input input(context);
  if (opened >= 0) return ReadTracks(settings, sink, deadline, input);
  throw std::runtime_error(settings.name + ": " +
                           (deadline.IsOver() ? "nothing was received in time" : media_input::ErrorText(opened)));
}

std::string ReadDatagrams(const StreamInputSettings& settings, StreamSink& sink, Deadline& deadline) {
  DatagramInput datagrams(settings.name, deadline.end);
  const auto first = datagrams.Next();
  if (!first) throw std::runtime_error(settings.name + ": nothing was received in time");
  datagrams.Repeat();
  if (datagrams.Looks() == live_datagrams::Content::TransportStream) {
    return ReadTransportStream(settings, sink, deadline, datagrams);
  }
  sink.OnStream(0, KlvStream());
  while (!deadline.IsOver()) {
    const auto payload = datagrams.Next();
    if (!payload) break;
    if (const uint64_t missing = datagrams.TakeMissing()) sink.OnMissing(0, missing);
    sink.OnData(0, *payload, std::nullopt, false);
  }
  return "klv datagrams";
}

}  // namespace

std::string ReadStreams(const StreamInputSettings& settings, StreamSink& sink) {
  Deadline deadline{sink, std::nullopt};
  if (!stream_url::IsUrl(settings.name)) {
    if (ReadKlvFile(settings, sink)) return "klv";
    return ReadTracks(settings, sink, deadline, OpenTracks(settings, deadline));
  }
  std::signal(SIGPIPE, SIG_IGN);  // of a peer that goes
  if (settings.longest) deadline.end = Clock::now() + std::chrono::duration_cast<Clock::duration>(*settings.longest);
  if (settings.name.starts_with("udp://")) return ReadDatagrams(settings, sink, deadline);
  return ReadTracks(settings, sink, deadline, OpenTracks(settings, deadline));
}

}  // namespace mdencoder
