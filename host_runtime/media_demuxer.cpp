// SPDX-License-Identifier: Apache-2.0
#define HOST_MODULE "media_demuxer"
#define HOST_DEBUG_MODULE ::host_runtime::CaptureModule()

#include "media_demuxer.h"

#include <cerrno>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <algorithm>
#include <array>
#include <cstdarg>
#include <mutex>
#include <utility>

#include "anc_klv.h"
#include "capture.h"
#include "stream_url.h"

namespace host_runtime {
namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr AVRational kClock = {1, 90'000};
constexpr int64_t kLongestOpening = 10 * kSecond;
constexpr char kLongestSilence[] = "15000000";  // microseconds without a byte from a peer
constexpr int kMostTracks = 64;
constexpr size_t kLargestBlock = size_t{64} << 20;  // that libavformat may allocate at once
constexpr int kReadSize = 32768;
constexpr size_t kLargestUnit = size_t{1} << 20;

// Formats that can have a KLV track. Playlists are not among them: they name other files and hosts.
constexpr char kFormats[] = "mpegts,matroska,webm,mov,mp4,mxf,avi,flv,rtsp,rtp,sdp";

// The protocols of a URL, each with those that it may use itself. The first word is the one in the URL.
constexpr const char* kProtocols[] = {
    "srt", "tcp", "http,tcp", "https,http,tls,tcp", "rtsp,rtp,udp,tcp,http", "rtsps,rtsp,rtp,udp,tcp,tls"};

// Returns the protocols that a path or URL may use, or null.
const char* ProtocolsOf(const std::string& path) {
  if (!stream_url::IsUrl(path)) return path.ends_with(".sdp") ? "file,rtp,udp" : "file";
  const auto* const found = std::find_if(std::begin(kProtocols), std::end(kProtocols), [&](const std::string& each) {
    return each.substr(0, each.find(',')) == stream_url::Scheme(path);
  });
  return found == std::end(kProtocols) ? nullptr : *found;
}

std::string ErrorText(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  av_strerror(error, text, sizeof(text));
  return text;
}

// Sends libavformat's messages to the log, where they are limited, instead of to standard error. What matters of them
// is said in a line of ours.
void LogLibraryLine(void* context, int level, const char* format, va_list arguments) {
  level &= 0xFF;  // the higher bits are colours
  const int hostLevel = level <= AV_LOG_ERROR ? 6 : level <= AV_LOG_WARNING ? 7 : 8;
  const HDBG module = CaptureModule();
  if (module == nullptr || __atomic_load_n(&module->nMaxLevel, __ATOMIC_RELAXED) < hostLevel) return;
  char line[512];
  int prefix = 1;
  av_log_format_line2(context, level, format, arguments, line, sizeof(line), &prefix);
  _DoDbgPrintEx(module, hostLevel, __func__, "libavformat", level, "%s", line);
}

void PrepareLibrary() {
  static std::once_flag once;
  std::call_once(once, [] {
    av_log_set_callback(LogLibraryLine);
    av_max_alloc(kLargestBlock);
  });
}

}  // namespace

// --- Bytes -------------------------------------------------------------------------------------------

// The bytes of a stream that the program receives itself.
class MediaDemuxer::Bytes {
 public:
  explicit Bytes(Read read) : m_read(std::move(read)) {
    auto* const buffer = static_cast<unsigned char*>(av_malloc(kReadSize));
    if (buffer == nullptr) return;
    m_context = avio_alloc_context(buffer, kReadSize, 0, this, &Bytes::Fill, nullptr, nullptr);
    if (m_context == nullptr) av_free(buffer);
  }
  ~Bytes() {
    if (m_context != nullptr) av_freep(&m_context->buffer);
    avio_context_free(&m_context);
  }
  Bytes(const Bytes&) = delete;
  Bytes& operator=(const Bytes&) = delete;

  AVIOContext* Context() const { return m_context; }

 private:
  static int Fill(void* self, uint8_t* buffer, int size) {
    return NoThrow(AVERROR(ENOMEM), [&] {
      const size_t got = static_cast<Bytes*>(self)->m_read({buffer, static_cast<size_t>(size)});
      return got == 0 ? AVERROR_EOF : static_cast<int>(got);
    });
  }

  const Read m_read;
  AVIOContext* m_context = nullptr;
};

// --- Opening -----------------------------------------------------------------------------------------

MediaDemuxer::MediaDemuxer(std::function<bool()> isStopping)
    : m_isStopping(std::move(isStopping)), m_packet(av_packet_alloc()) {
  PrepareLibrary();
}

MediaDemuxer::~MediaDemuxer() {
  av_packet_free(&m_packet);
  avformat_close_input(&m_input);
}

bool MediaDemuxer::KnowsProtocol(const std::string& url) {
  return ProtocolsOf(url) != nullptr &&
         (stream_url::Scheme(url).starts_with("rtsp") || avio_find_protocol_name(url.c_str()) != nullptr);
}

int MediaDemuxer::IsInterrupted(void* self) {
  auto* const demuxer = static_cast<MediaDemuxer*>(self);
  if (demuxer->m_isStopping()) return 1;
  demuxer->m_isLate = demuxer->m_openDeadline != 0 && MonotonicNs() > demuxer->m_openDeadline;
  return demuxer->m_isLate ? 1 : 0;
}

// Keeps the text of a result that is an error. Returns whether it is none.
bool MediaDemuxer::Finish(int result) {
  if (result >= 0) return true;
  m_fault = m_isLate ? "no stream within " + std::to_string(kLongestOpening / kSecond) + " s" : ErrorText(result);
  return false;
}

bool MediaDemuxer::Open(const std::string& path, const std::string& authorities) {
  const bool isUrl = stream_url::IsUrl(path);
  const char* const protocols = ProtocolsOf(path);
  m_joinsPieces = stream_url::Scheme(path).starts_with("rtsp") || path.ends_with(".sdp");
  if (protocols == nullptr) {
    m_fault = "unknown protocol";
    return false;
  }
  m_input = avformat_alloc_context();
  if (m_input == nullptr || m_packet == nullptr) return Finish(AVERROR(ENOMEM));
  m_input->interrupt_callback = {&MediaDemuxer::IsInterrupted, this};
  m_input->max_streams = kMostTracks;
  m_input->max_probe_packets = 1;  // a track without a label is not held back to guess what it is
  AVDictionary* settings = nullptr;
  av_dict_set(&settings, "protocol_whitelist", protocols, 0);
  av_dict_set(&settings, "format_whitelist", kFormats, 0);
  if (isUrl) {
    m_openDeadline = MonotonicNs() + kLongestOpening;
    av_dict_set(&settings, stream_url::Scheme(path).starts_with("rtsp") ? "timeout" : "rw_timeout", kLongestSilence, 0);
  }
  if (stream_url::Scheme(path) == "https") {
    av_dict_set(&settings, "tls_verify", "1", 0);
    if (!authorities.empty()) av_dict_set(&settings, "ca_file", authorities.c_str(), 0);
  }
  // Frees the context if it fails.
  const int result = avformat_open_input(&m_input, (isUrl ? path : "file:" + path).c_str(), nullptr, &settings);
  av_dict_free(&settings);
  if (!Finish(result)) return false;
  m_openDeadline = 0;
  SelectTracks();
  return true;
}

bool MediaDemuxer::OpenTransportStream(Read read) {
  m_bytes = std::make_unique<Bytes>(std::move(read));
  m_input = avformat_alloc_context();
  if (m_input == nullptr || m_packet == nullptr || m_bytes->Context() == nullptr) return Finish(AVERROR(ENOMEM));
  m_input->interrupt_callback = {&MediaDemuxer::IsInterrupted, this};
  m_input->max_streams = kMostTracks;
  m_input->max_probe_packets = 1;
  m_input->pb = m_bytes->Context();
  m_input->flags |= AVFMT_FLAG_CUSTOM_IO;
  if (!Finish(avformat_open_input(&m_input, nullptr, av_find_input_format("mpegts"), nullptr))) return false;
  SelectTracks();
  return true;
}

// --- Tracks ------------------------------------------------------------------------------------------

namespace {

bool IsData(const AVStream& stream) {
  const AVCodecParameters& track = *stream.codecpar;
  return track.codec_id == AV_CODEC_ID_SMPTE_KLV || track.codec_type == AVMEDIA_TYPE_DATA ||
         track.codec_type == AVMEDIA_TYPE_UNKNOWN;
}

}  // namespace

// Tracks can appear at any time.
void MediaDemuxer::SelectTracks() {
  for (; m_selected < m_input->nb_streams; ++m_selected) {
    AVStream* const stream = m_input->streams[m_selected];
    if (!IsData(*stream)) stream->discard = AVDISCARD_ALL;
  }
}

bool MediaDemuxer::MayHaveKlv() const {
  return std::any_of(m_input->streams, m_input->streams + m_input->nb_streams,
                     [](const AVStream* stream) { return IsData(*stream); });
}

bool MediaDemuxer::IsKlv(const AVStream& stream) const {
  if (stream.codecpar->codec_id == AV_CODEC_ID_SMPTE_KLV) return true;
  if (!IsData(stream)) return false;
  // The track has no label, but its packets begin as KLV.
  const std::span<const uint8_t> data(m_packet->data, static_cast<size_t>(m_packet->size));
  return anc_klv::SizeOfKlv(data).state == anc_klv::KlvSize::State::Known;
}

namespace {

bool BeginsAsKlv(std::span<const uint8_t> data) {
  constexpr std::array<uint8_t, 4> kLabel = {0x06, 0x0E, 0x2B, 0x34};
  return data.size() >= kLabel.size() && std::equal(kLabel.begin(), kLabel.end(), data.begin());
}

// Returns whether nothing more can belong to these messages.
bool IsWhole(std::span<const uint8_t> messages) {
  using State = anc_klv::KlvSize::State;
  while (!messages.empty()) {
    const anc_klv::KlvSize size = anc_klv::SizeOfKlv(messages);
    if (size.state == State::Bad) return true;
    if (size.state != State::Known || size.size > messages.size()) return false;
    messages = messages.subspan(size.size);
  }
  return true;
}

}  // namespace

// RTP cuts a unit of KLV into packets (RFC 6597), which libavformat passes on as they come. A unit that lacks a piece is
// passed on as it is, and counted as damaged.
void MediaDemuxer::Join(int track, std::span<const uint8_t> piece) {
  std::vector<uint8_t>& unit = m_pieces[track];
  if (!unit.empty() && (BeginsAsKlv(piece) || unit.size() + piece.size() > kLargestUnit)) {
    m_units.push_back(std::exchange(unit, {}));
  }
  unit.insert(unit.end(), piece.begin(), piece.end());
  if (IsWhole(unit)) m_units.push_back(std::exchange(unit, {}));
}

bool MediaDemuxer::TakeUnit(Packet* packet) {
  if (m_units.empty()) return false;
  m_unit = std::move(m_units.front());
  m_units.pop_front();
  *packet = {m_time, m_unit};
  return true;
}

bool MediaDemuxer::Next(Packet* packet) {
  for (;;) {
    if (TakeUnit(packet)) return true;
    av_packet_unref(m_packet);
    if (m_isStopping()) return false;
    const int result = av_read_frame(m_input, m_packet);
    if (result == AVERROR_EOF && (m_input->pb == nullptr || m_input->pb->error >= 0)) return false;
    if (result < 0) return Finish(m_input->pb != nullptr && m_input->pb->error < 0 ? m_input->pb->error : result);
    SelectTracks();
    const AVStream& stream = *m_input->streams[m_packet->stream_index];
    const int64_t stamp = m_packet->pts != AV_NOPTS_VALUE ? m_packet->pts : m_packet->dts;
    if (stamp != AV_NOPTS_VALUE) m_time = av_rescale_q(stamp, stream.time_base, kClock);
    if (m_packet->size <= 0) continue;
    const std::span<const uint8_t> data(m_packet->data, static_cast<size_t>(m_packet->size));
    const auto begun = m_pieces.find(m_packet->stream_index);
    const bool isPiece = begun != m_pieces.end() && !begun->second.empty();
    if (!isPiece && !IsKlv(stream)) continue;
    if (m_joinsPieces) {
      Join(m_packet->stream_index, data);
      continue;
    }
    *packet = {m_time, data};
    return true;
  }
}

}  // namespace host_runtime
