// SPDX-License-Identifier: Apache-2.0
// The capture back end that plays the KLV track of a media file or stream, through libavformat.
//
// A file is played in real time by its own presentation timestamps; a stream (a URL) is passed on as it arrives. Both
// keep their timestamps, in units of 90 kHz. In a looped file the timestamps continue, so that none occurs twice.
#define HOST_MODULE "capture_media"
#define HOST_DEBUG_MODULE ::host_runtime::CaptureModule()

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "anc_klv.h"
#include "capture.h"

namespace host_runtime {
namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr AVRational kClock = {1, 90'000};
constexpr int64_t kLongestPause = 60 * 90'000;  // a longer one is a jump of the clock
constexpr int64_t kLargestStepBack = 90'000;
constexpr int64_t kPreRoll = kSecond / 2;  // before a file begins, so that all sources of the input can be opened
constexpr int64_t kUsualStep = 3'600;      // from the last timestamp of a file to the first one of its repetition
constexpr size_t kAuHeaderSize = 5;        // MPEG-2 systems: header of a metadata access unit

std::string ErrorText(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  av_strerror(error, text, sizeof(text));
  return text;
}

// Sends libavformat's messages to the log, where they are limited, instead of to standard error.
void LogLibraryLine(void* context, int level, const char* format, va_list arguments) {
  level &= 0xFF;  // the higher bits are colours
  const int hostLevel = level <= AV_LOG_ERROR ? 5 : level <= AV_LOG_WARNING ? 6 : level <= AV_LOG_INFO ? 7 : 8;
  const HDBG module = CaptureModule();
  if (module == nullptr || __atomic_load_n(&module->nMaxLevel, __ATOMIC_RELAXED) < hostLevel) return;
  char line[512];
  int prefix = 1;
  av_log_format_line2(context, level, format, arguments, line, sizeof(line), &prefix);
  _DoDbgPrintEx(module, hostLevel, __func__, "libavformat", level, "%s", line);
}

bool IsUrl(const std::string& path) {
  return path.find("://") != std::string::npos;
}

void RouteLibraryLog() {
  static std::once_flag once;
  std::call_once(once, [] { av_log_set_callback(LogLibraryLine); });
}

struct CloseInput {
  void operator()(AVFormatContext* input) const { avformat_close_input(&input); }
};
using Input = std::unique_ptr<AVFormatContext, CloseInput>;

class MediaBackend : public CaptureBackend {
 public:
  explicit MediaBackend(HostCaptureConfig config) : m_config(std::move(config)), m_live(IsUrl(m_config.path)) {}

  bool Open(CaptureQueue& queue) override {
    RouteLibraryLog();
    if (m_live || access(m_config.path.c_str(), R_OK) == 0) return true;
    HOST_LOG(3, "Video input %d: cannot read \"%s\": %s.\n", queue.Input(), m_config.path.c_str(), strerror(errno));
    return false;
  }

  void Run(CaptureQueue& queue) override {
    while (!queue.IsStopping()) {
      const bool played = Play(queue);
      if (queue.IsStopping()) return;
      if (m_live) {
        queue.Wait(-1, kSecond);  // before the next attempt
      } else if (!played || !m_config.loop) {
        return;
      }
    }
  }

 private:
  struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  };

  static int IsInterrupted(void* queue) { return static_cast<CaptureQueue*>(queue)->IsStopping() ? 1 : 0; }

  Input OpenInput(CaptureQueue& queue) {
    AVFormatContext* context = avformat_alloc_context();
    if (context == nullptr) return nullptr;
    context->interrupt_callback = {&MediaBackend::IsInterrupted, &queue};
    if (m_live) context->max_analyze_duration = AV_TIME_BASE;
    const std::string name = m_live ? m_config.path : "file:" + m_config.path;
    int result = avformat_open_input(&context, name.c_str(), nullptr, nullptr);  // frees the context if it fails
    Input input(result == 0 ? context : nullptr);
    if (result == 0) result = avformat_find_stream_info(context, nullptr);
    if (result >= 0) return input;
    if (queue.IsStopping()) return nullptr;
    queue.Count(&HostCaptureStats::damaged);
    HOST_LOG(3, "Video input %d: cannot open \"%s\": %s.\n", queue.Input(), m_config.path.c_str(),
             ErrorText(result).c_str());
    return nullptr;
  }

  // Plays the file once, or a stream until it breaks. Returns true if there was KLV.
  bool Play(CaptureQueue& queue) {
    const Input input = OpenInput(queue);
    const std::unique_ptr<AVPacket, FreePacket> packet(av_packet_alloc());
    if (input == nullptr || packet == nullptr) return false;
    BeginPass();
    int result = 0;
    while (!queue.IsStopping() && (result = av_read_frame(input.get(), packet.get())) >= 0) {
      PushPacket(queue, *input->streams[packet->stream_index], *packet);
      av_packet_unref(packet.get());
    }
    if (queue.IsStopping()) return m_first.has_value();
    const auto packets = static_cast<unsigned long long>(m_packets);
    if (result != AVERROR_EOF) {
      queue.Count(&HostCaptureStats::damaged);
      HOST_LOG(3, "Video input %d: reading \"%s\" failed after %llu KLV packets: %s.\n", queue.Input(),
               m_config.path.c_str(), packets, ErrorText(result).c_str());
    } else if (!m_first) {
      HOST_LOG(4, "Video input %d: \"%s\" has no KLV.\n", queue.Input(), m_config.path.c_str());
    } else {
      HOST_LOG(5, "Video input %d: end of \"%s\" after %llu KLV packets%s.\n", queue.Input(), m_config.path.c_str(),
               packets, m_config.loop && !m_live ? ", beginning again" : "");
    }
    return m_first.has_value();
  }

  void BeginPass() {
    if (m_first && !m_live) m_shift += std::max<int64_t>(m_last - *m_first, 0) + m_step;
    m_first.reset();
    m_lastOfAny = 0;
    m_packets = 0;
  }

  static bool IsKlv(const AVStream& stream, const AVPacket& packet) {
    if (stream.codecpar->codec_id == AV_CODEC_ID_SMPTE_KLV) return true;
    if (stream.codecpar->codec_type != AVMEDIA_TYPE_DATA && stream.codecpar->codec_type != AVMEDIA_TYPE_UNKNOWN) {
      return false;
    }
    // The track has no label, but its packets begin as KLV.
    return anc_klv::SizeOfKlv({packet.data, static_cast<size_t>(packet.size)}).state == anc_klv::KlvSize::State::Known;
  }

  void PushPacket(CaptureQueue& queue, const AVStream& stream, const AVPacket& packet) {
    // KLV without a timestamp gets that of the packet before it.
    const int64_t stamp = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
    if (stamp != AV_NOPTS_VALUE) m_lastOfAny = av_rescale_q(stamp, stream.time_base, kClock);
    if (packet.size <= 0 || !IsKlv(stream, packet)) return;
    if (m_first && m_lastOfAny > m_last) m_step = std::min(m_lastOfAny - m_last, kLongestPause);
    if (!WaitForTime(queue, m_lastOfAny)) return;
    const int64_t time = m_lastOfAny - (m_first ? *m_first : m_lastOfAny) + m_begin + m_shift;
    Push(queue, static_cast<uint64_t>(std::max<int64_t>(time, 0)), {packet.data, static_cast<size_t>(packet.size)});
  }

  // Waits until the file's clock reaches `time`. Returns false if the capture is to stop.
  bool WaitForTime(CaptureQueue& queue, int64_t time) {
    const int64_t now = MonotonicNs();
    if (!m_first) {
      m_first = time;
      m_last = time;
      if (!m_started) {
        m_begin = time;
        m_start = now + (m_live ? 0 : kPreRoll);
        m_started = true;
      } else if (m_live) {
        m_begin = time;
      }
    }
    if (m_last - time > kLargestStepBack || time - m_last > kLongestPause) {
      HOST_LOG(5, "Video input %d: the clock of \"%s\" jumps.\n", queue.Input(), m_config.path.c_str());
      m_start = now - Elapsed(time);
      m_last = time;
    }
    m_last = std::max(m_last, time);
    if (m_live) return true;
    const int64_t due = m_start + Elapsed(time);
    if (due > now) queue.Wait(-1, due - now);
    return !queue.IsStopping();
  }

  // Returns the nanoseconds of playing time, including repetitions, at which the file's clock shows `time`.
  int64_t Elapsed(int64_t time) const { return av_rescale(time - *m_first + m_shift, kSecond, kClock.den); }

  // A packet may hold several messages, each of which may have the header of an access unit in front of it.
  void Push(CaptureQueue& queue, uint64_t timestamp, std::span<const uint8_t> data) {
    using State = anc_klv::KlvSize::State;
    while (!data.empty()) {
      anc_klv::KlvSize size = anc_klv::SizeOfKlv(data);
      if (size.state == State::Bad && data.size() > kAuHeaderSize) {
        const anc_klv::KlvSize behind = anc_klv::SizeOfKlv(data.subspan(kAuHeaderSize));
        if (behind.state == State::Known) {
          data = data.subspan(kAuHeaderSize);
          size = behind;
        }
      }
      if (size.state != State::Known || size.size > data.size()) {
        queue.Count(&HostCaptureStats::damaged);
        HOST_LOG(4, "Video input %d: %zu bytes of damaged KLV dropped.\n", queue.Input(), data.size());
        return;
      }
      queue.Push(timestamp, data.first(size.size));
      ++m_packets;
      data = data.subspan(size.size);
    }
  }

  const HostCaptureConfig m_config;
  const bool m_live;

  // State of the capture.
  bool m_started = false;
  int64_t m_start = 0;  // monotonic time of m_begin, ns
  int64_t m_begin = 0;  // first timestamp of the first pass
  int64_t m_shift = 0;  // length of the passes before this one
  int64_t m_step = kUsualStep;
  // State of the current pass; 90 kHz.
  std::optional<int64_t> m_first;
  int64_t m_last = 0;
  int64_t m_lastOfAny = 0;
  uint64_t m_packets = 0;
};

}  // namespace

std::unique_ptr<CaptureBackend> MakeMediaBackend(const HostCaptureConfig& config) {
  return std::make_unique<MediaBackend>(config);
}

}  // namespace host_runtime

std::string HostRuntime_MediaFault(const std::string& path) {
  using namespace host_runtime;
  return NoThrow(std::string(), [&]() -> std::string {
    RouteLibraryLog();
    if (IsUrl(path)) return avio_find_protocol_name(path.c_str()) == nullptr ? "unknown protocol" : "";
    if (access(path.c_str(), R_OK) != 0) return strerror(errno);
    AVFormatContext* context = nullptr;
    int result = avformat_open_input(&context, ("file:" + path).c_str(), nullptr, nullptr);
    const Input input(result == 0 ? context : nullptr);
    if (result == 0) result = avformat_find_stream_info(context, nullptr);
    if (result < 0) return ErrorText(result);
    for (unsigned i = 0; i < input->nb_streams; ++i) {
      const AVCodecParameters& track = *input->streams[i]->codecpar;
      // A track without a label may carry KLV; its packets tell.
      if (track.codec_id == AV_CODEC_ID_SMPTE_KLV || track.codec_type == AVMEDIA_TYPE_DATA ||
          track.codec_type == AVMEDIA_TYPE_UNKNOWN) {
        return {};
      }
    }
    return "it has no KLV track";
  });
}
