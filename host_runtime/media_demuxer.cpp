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
#include <chrono>
#include <cstdarg>
#include <utility>

#include "anc_klv.h"
#include "capture.h"
#include "media_input.h"
#include "nanoseconds.h"
#include "stream_url.h"

namespace host_runtime {
namespace {

constexpr AVRational kClock = {1, 90'000};
constexpr int64_t kLongestOpening = std::chrono::seconds(media_input::kLongestOpening).count() * kSecond;
constexpr int kReadSize = 32768;
constexpr size_t kLargestUnit = size_t{1} << 20;

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
  media_input::Prepare(LogLibraryLine);
}

MediaDemuxer::~MediaDemuxer() {
  av_packet_free(&m_packet);
  avformat_close_input(&m_input);
}

int MediaDemuxer::IsInterrupted(void* self) {
  auto* const demuxer = static_cast<MediaDemuxer*>(self);
  if (demuxer->m_isStopping()) return 1;
  demuxer->m_isLate = demuxer->m_openDeadline != 0 && MonotonicNs() > demuxer->m_openDeadline;
  return demuxer->m_isLate ? 1 : 0;
}

bool MediaDemuxer::Fail(const std::string& fault) {
  m_fault = m_isLate ? "no stream within " + std::to_string(kLongestOpening / kSecond) + " s" : fault;
  return false;
}

// Returns whether a result is no error, and keeps the text of one that is.
bool MediaDemuxer::Finish(int result) {
  return result >= 0 || Fail(media_input::ErrorText(result));
}

bool MediaDemuxer::MakeInput() {
  m_input = media_input::MakeContext();
  if (m_input == nullptr || m_packet == nullptr) return Finish(AVERROR(ENOMEM));
  m_input->interrupt_callback = {&MediaDemuxer::IsInterrupted, this};
  m_input->max_probe_packets = 1;  // a track without a label is not held back to guess what it is
  return true;
}

bool MediaDemuxer::Open(const std::string& path, const std::string& authorities) {
  m_joinsPieces = stream_url::Scheme(path).starts_with("rtsp") || path.ends_with(".sdp");
  if (!MakeInput()) return false;
  if (stream_url::IsUrl(path)) m_openDeadline = MonotonicNs() + kLongestOpening;
  const std::string fault = media_input::Open(m_input, {media_input::Purpose::Klv, path, authorities});
  if (!fault.empty()) return Fail(fault);
  m_openDeadline = 0;
  SelectTracks();
  return true;
}

bool MediaDemuxer::OpenTransportStream(Read read) {
  m_bytes = std::make_unique<Bytes>(std::move(read));
  if (m_bytes->Context() == nullptr) return Finish(AVERROR(ENOMEM));
  if (!MakeInput()) return false;
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
