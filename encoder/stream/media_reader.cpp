// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   VideoInput  is a file, a live stream or a camera, and gives packets of one video track
//   Passing     puts them into Annex B form
//   Encoding    decodes them and encodes the pictures
//   Core        is what the thread does
#include "media_reader.h"

#include <cerrno>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "annotated_mutex.h"
#include "av_owned.h"
#include "camera.h"
#include "media_input.h"
#include "stream_url.h"
#include "video_encoder.h"

namespace mdencoder {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kFirstVideoPause = std::chrono::seconds(1);
constexpr auto kLongestVideoPause = std::chrono::seconds(30);
constexpr auto kLongestOpening = std::chrono::seconds(15);
constexpr AVRational kMicroseconds = {1, 1'000'000};
constexpr int kMostPixels = 4096 * 2304;
constexpr int64_t kUsualFrameUs = 40'000;
constexpr int64_t kUnknown = INT64_MIN;
constexpr size_t kMostHeld = 16;  // frames that wait for a decode time

// --- Video input -------------------------------------------------------------------------------------

// What the packets of an input are.
struct Track {
  const AVCodecParameters& codec;
  AVRational base;
  AVRational rate;  // on the average
};

class VideoInput {
 public:
  virtual ~VideoInput() = default;
  virtual Track Describe() const = 0;
  // Returns false at the end. Throws std::runtime_error.
  virtual bool Next(AVPacket* packet) = 0;
};

class MediaInput : public VideoInput {
 public:
  // Throws std::runtime_error.
  MediaInput(const StreamSettings& settings, std::function<bool()> isStopping) : m_isStopping(std::move(isStopping)) {
    AVFormatContext* context = av::Require(media_input::MakeContext(), "input");
    context->interrupt_callback = {&MediaInput::IsInterrupted, this};
    context->max_analyze_duration = 2'000'000;
    context->probesize = 4'000'000;
    m_deadline = Clock::now() + kLongestOpening;
    const std::string fault =
        media_input::Open(context, {media_input::Purpose::Video, settings.video, settings.authorities});
    m_context.reset(context);
    if (!fault.empty()) throw std::runtime_error("cannot be opened: " + fault);
    av::Require(avformat_find_stream_info(context, nullptr), "cannot be read");
    m_track = av::Require(av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0), "has no video");
    for (unsigned i = 0; i < context->nb_streams; ++i) {
      if (static_cast<int>(i) != m_track) context->streams[i]->discard = AVDISCARD_ALL;
    }
    const AVCodecParameters& codec = *Chosen().codecpar;
    if (codec.width <= 0 || codec.height <= 0 || int64_t{codec.width} * codec.height > kMostPixels) {
      throw std::runtime_error("has a picture of no usable size");
    }
  }
  MediaInput(const MediaInput&) = delete;
  MediaInput& operator=(const MediaInput&) = delete;

  Track Describe() const override { return {*Chosen().codecpar, Chosen().time_base, Chosen().avg_frame_rate}; }

  bool Next(AVPacket* packet) override {
    for (;;) {
      av_packet_unref(packet);
      m_deadline = Clock::now() + media_input::kLongestSilence;
      const int result = av_read_frame(m_context.get(), packet);
      if (result == AVERROR_EOF) return false;
      av::Require(result, "cannot be read further");
      if (packet->stream_index == m_track && packet->size > 0) return true;
    }
  }

 private:
  const AVStream& Chosen() const { return *m_context->streams[m_track]; }
  static int IsInterrupted(void* self) {
    const auto* const input = static_cast<const MediaInput*>(self);
    return input->m_isStopping() || Clock::now() > input->m_deadline ? 1 : 0;
  }

  const std::function<bool()> m_isStopping;
  Clock::time_point m_deadline;
  av::Input m_context;
  int m_track = 0;
};

class CameraInput : public VideoInput {
 public:
  // Throws std::runtime_error.
  CameraInput(const StreamSettings& settings, std::function<bool()> isStopping)
      : m_isStopping(std::move(isStopping)),
        m_camera({settings.video, settings.width, settings.height, settings.rate, settings.copies}, SystemCamera()) {}

  Track Describe() const override { return {m_camera.Codec(), kMicroseconds, {0, 1}}; }
  bool Next(AVPacket* packet) override { return m_camera.Next(packet, m_isStopping); }

 private:
  const std::function<bool()> m_isStopping;
  Camera m_camera;
};

std::unique_ptr<VideoInput> OpenInput(const StreamSettings& settings, std::function<bool()> isStopping) {
  if (settings.kind == StreamSettings::Video::Camera) {
    return std::make_unique<CameraInput>(settings, std::move(isStopping));
  }
  return std::make_unique<MediaInput>(settings, std::move(isStopping));
}

// Takes packets and gives frames on the input's clock.
class Stage {
 public:
  using Give = std::function<void(EncodedFrame frame, const VideoFeed::Shape& shape)>;
  virtual ~Stage() = default;
  virtual void Push(AVPacket* packet, const Give& give) = 0;
};

// Returns the time from frame to frame, on the average.
int64_t FrameUs(const Track& track) {
  const AVRational rate = track.rate;
  if (rate.num <= 0 || rate.den <= 0) return kUsualFrameUs;
  return std::clamp<int64_t>(av_rescale(1'000'000, rate.den, rate.num), 1'000, 1'000'000);
}

// --- Passing -----------------------------------------------------------------------------------------

class Passing : public Stage {
 public:
  explicit Passing(const Track& track)
      : m_codec(track.codec.codec_id == AV_CODEC_ID_H264 ? video::Codec::H264 : video::Codec::H265),
        m_out(av::Require(av_packet_alloc(), "packet")),
        m_frameUs(FrameUs(track)) {
    const char* const name = m_codec == video::Codec::H264 ? "h264_mp4toannexb" : "hevc_mp4toannexb";
    AVBSFContext* filter = nullptr;
    av::Require(av_bsf_alloc(av::Require(av_bsf_get_by_name(name), name), &filter), name);
    m_filter.reset(filter);
    av::Require(avcodec_parameters_copy(filter->par_in, &track.codec), name);
    filter->time_base_in = track.base;
    av::Require(av_bsf_init(filter), name);
  }

  void Push(AVPacket* packet, const Give& give) override {
    av::Require(av_bsf_send_packet(m_filter.get(), packet), "video");
    for (;;) {
      const int result = av_bsf_receive_packet(m_filter.get(), m_out.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
      av::Require(result, "video");
      PassOn(give);
      av_packet_unref(m_out.get());
    }
  }

 private:
  // Every key frame has its parameter sets, wherever the input keeps them.
  void PassOn(const Give& give) {
    const AVPacket& packet = *m_out;
    EncodedFrame frame;
    frame.isKey = (packet.flags & AV_PKT_FLAG_KEY) != 0;
    const video::ByteView bytes(packet.data, static_cast<size_t>(packet.size));
    const AVCodecParameters& codec = *m_filter->par_out;
    if (frame.isKey && codec.extradata_size > 0 && video::ParameterSets(m_codec, bytes).empty()) {
      frame.bytes.assign(codec.extradata, codec.extradata + codec.extradata_size);
    }
    frame.bytes.insert(frame.bytes.end(), bytes.begin(), bytes.end());
    const AVRational base = m_filter->time_base_out;
    const bool hasDts = packet.dts != AV_NOPTS_VALUE;
    if (hasDts) frame.dtsUs = av_rescale_q(packet.dts, base, kMicroseconds);
    frame.ptsUs = packet.pts != AV_NOPTS_VALUE ? av_rescale_q(packet.pts, base, kMicroseconds) : kUnknown;
    m_held.push_back(std::move(frame));
    if (hasDts || m_held.size() > kMostHeld) GiveHeld(hasDts ? m_held.back().dtsUs : m_lastUs + m_frameUs, give);
  }

  // Some containers do not tell the first decode times: they are those before the first one that is told.
  void GiveHeld(int64_t lastDtsUs, const Give& give) {
    const AVCodecParameters& codec = *m_filter->par_out;
    auto before = static_cast<int64_t>(m_held.size());
    for (EncodedFrame& frame : m_held) {
      --before;
      frame.dtsUs = lastDtsUs - before * m_frameUs;
      if (frame.ptsUs == kUnknown) frame.ptsUs = frame.dtsUs;
      m_lastUs = frame.dtsUs;
      give(std::move(frame), {m_codec, codec.width, codec.height});
    }
    m_held.clear();
  }

  const video::Codec m_codec;
  av::BitstreamFilter m_filter;
  av::Packet m_out;
  const int64_t m_frameUs;           // from frame to frame, on the average
  std::vector<EncodedFrame> m_held;  // without a decode time
  int64_t m_lastUs = 0;
};

// --- Encoding ----------------------------------------------------------------------------------------

class Encoding : public Stage {
 public:
  Encoding(const Track& track, const StreamSettings& settings)
      : m_shape{video::Codec::H264, settings.width, settings.height},
        m_base(track.base),
        m_encoder({settings.width, settings.height, settings.rate, settings.bitrate}),
        m_picture(av::Require(av_frame_alloc(), "picture")),
        m_scaled(av::Require(av_frame_alloc(), "picture")) {
    const AVCodec* const codec = av::Require(avcodec_find_decoder(track.codec.codec_id), "decoder of the video");
    m_decoder.reset(av::Require(avcodec_alloc_context3(codec), "decoder"));
    av::Require(avcodec_parameters_to_context(m_decoder.get(), &track.codec), "decoder");
    m_decoder->pkt_timebase = track.base;
    m_decoder->thread_count = 1;
    m_decoder->max_pixels = kMostPixels;
    av::Require(avcodec_open2(m_decoder.get(), codec, nullptr), "decoder");
  }

  // A packet that cannot be decoded has no picture.
  void Push(AVPacket* packet, const Give& give) override {
    if (avcodec_send_packet(m_decoder.get(), packet) < 0) return;
    while (avcodec_receive_frame(m_decoder.get(), m_picture.get()) >= 0) {
      Scale();
      const int64_t time = m_picture->best_effort_timestamp;
      const int64_t us = time != AV_NOPTS_VALUE ? av_rescale_q(time, m_base, kMicroseconds) : m_lastUs + kUsualFrameUs;
      m_lastUs = std::max(us, m_lastUs + 1);
      auto frame = m_encoder.Encode(m_scaled.get(), m_lastUs);
      if (frame) give(std::move(*frame), m_shape);
      av_frame_unref(m_picture.get());
    }
  }

 private:
  void Scale() {
    if (m_graph == nullptr || m_picture->width != m_width || m_picture->height != m_height ||
        m_picture->format != m_format) {
      MakeGraph();
    }
    av_frame_unref(m_scaled.get());
    av::Require(av_buffersrc_add_frame_flags(m_begin, m_picture.get(), AV_BUFFERSRC_FLAG_KEEP_REF), "scaling");
    av::Require(av_buffersink_get_frame(m_end, m_scaled.get()), "scaling");
  }

  void MakeGraph() {
    m_width = m_picture->width;
    m_height = m_picture->height;
    m_format = m_picture->format;
    m_graph.reset(av::Require(avfilter_graph_alloc(), "scaling"));
    m_graph->nb_threads = 1;
    const auto add = [this](const char* filter, const std::string& arguments) {
      AVFilterContext* made = nullptr;
      av::Require(avfilter_graph_create_filter(&made, av::Require(avfilter_get_by_name(filter), filter), filter,
                                               arguments.empty() ? nullptr : arguments.c_str(), nullptr, m_graph.get()),
                  filter);
      return made;
    };
    const auto size = [](int width, int height) { return std::to_string(width) + ":" + std::to_string(height); };
    m_begin = add("buffer", "width=" + std::to_string(m_width) + ":height=" + std::to_string(m_height) +
                                ":pix_fmt=" + std::to_string(m_format) + ":time_base=1/90000");
    AVFilterContext* const scale = add("scale", size(m_shape.width, m_shape.height));
    AVFilterContext* const format = add("format", "pix_fmts=yuv420p");
    m_end = add("buffersink", "");
    av::Require(avfilter_link(m_begin, 0, scale, 0), "scaling");
    av::Require(avfilter_link(scale, 0, format, 0), "scaling");
    av::Require(avfilter_link(format, 0, m_end, 0), "scaling");
    av::Require(avfilter_graph_config(m_graph.get(), nullptr), "scaling");
  }

  const VideoFeed::Shape m_shape;
  const AVRational m_base;
  VideoEncoder m_encoder;
  av::Frame m_picture;
  av::Frame m_scaled;
  av::Codec m_decoder;
  av::Graph m_graph;
  AVFilterContext* m_begin = nullptr;  // the graph owns these
  AVFilterContext* m_end = nullptr;
  int m_width = 0;  // of the pictures that the graph takes
  int m_height = 0;
  int m_format = -1;
  int64_t m_lastUs = INT64_MIN / 2;
};

std::unique_ptr<Stage> MakeStage(const Track& track, const StreamSettings& settings) {
  const AVCodecID codec = track.codec.codec_id;
  const bool passes = settings.copies && (codec == AV_CODEC_ID_H264 || codec == AV_CODEC_ID_HEVC);
  if (passes) return std::make_unique<Passing>(track);
  return std::make_unique<Encoding>(track, settings);
}

}  // namespace

// --- Core --------------------------------------------------------------------------------------------

class MediaReader::Core {
 public:
  Core(const StreamSettings& settings, VideoFeed::Say say)
      : m_settings(settings), m_isFile(settings.kind == StreamSettings::Video::File), m_say(std::move(say)) {}

  void Run() {
    pthread_setname_np(pthread_self(), "StreamVideo");
    while (!m_isStopped.load()) {
      std::string reason;
      const bool isEnd = ReadOnce(reason);
      if (isEnd && m_isFile && m_hadFrames) continue;  // from its beginning
      if (m_isStopped.load()) return;
      Fail(reason.empty() ? "has ended" : reason);
      Pause();
    }
  }

  const MediaFrame* Front() {
    const common::Lock lock(m_mutex);
    return m_queue.empty() ? nullptr : &m_queue.front();
  }

  void Pop() {
    const common::Lock lock(m_mutex);
    m_queue.pop_front();
    m_changed.NotifyAll();
  }

  uint64_t Lost() const { return m_lost.load(); }

  void Stop() {
    m_isStopped.store(true);
    const common::Lock lock(m_mutex);
    m_changed.NotifyAll();
  }

 private:
  // Reads to the end, and returns whether it was one without a fault.
  bool ReadOnce(std::string& reason) try {
    m_hadFrames = false;
    const std::unique_ptr<VideoInput> input = OpenInput(m_settings, [this] { return m_isStopped.load(); });
    const std::unique_ptr<Stage> stage = MakeStage(input->Describe(), m_settings);
    const av::Packet packet(av::Require(av_packet_alloc(), "packet"));
    while (!m_isStopped.load() && input->Next(packet.get())) {
      stage->Push(packet.get(), [this](EncodedFrame frame, const VideoFeed::Shape& shape) {
        Give({std::move(frame), shape, !m_hadFrames, Clock::now()});
      });
    }
    return true;
  } catch (const std::exception& error) {
    reason = error.what();
    return false;
  }

  void Give(MediaFrame frame) {
    m_hadFrames = true;
    m_pause = kFirstVideoPause;
    if (m_isFailing) {
      m_isFailing = false;
      m_say(false, Name() + " is read again");
    }
    const common::Lock lock(m_mutex);
    while (m_isFile && m_queue.size() >= kMostFrames && !m_isStopped.load()) m_changed.Wait(m_mutex);
    if (m_queue.size() >= kMostFrames) {  // the newest ones are left out: the oldest may be in use
      m_lost.fetch_add(1);
      return;
    }
    m_queue.push_back(std::move(frame));
  }

  void Fail(const std::string& reason) {
    if (std::exchange(m_isFailing, true)) return;
    m_say(true, Name() + " " + reason + "; messages go on without pictures");
  }

  void Pause() {
    const auto end = Clock::now() + m_pause;
    m_pause = std::min<std::chrono::seconds>(m_pause * 2, kLongestVideoPause);
    const common::Lock lock(m_mutex);
    while (!m_isStopped.load() && Clock::now() < end) m_changed.WaitUntil(m_mutex, end);
  }

  std::string Name() const {
    return "stream " + m_settings.name + ": the video " + stream_url::Shown(m_settings.video);
  }

  const StreamSettings m_settings;
  const bool m_isFile;
  const VideoFeed::Say m_say;
  std::atomic<bool> m_isStopped{false};
  std::atomic<uint64_t> m_lost{0};

  // Thread.
  bool m_hadFrames = false;  // of this opening
  bool m_isFailing = false;
  std::chrono::seconds m_pause = kFirstVideoPause;

  common::Mutex m_mutex;  // leaf
  common::Condition m_changed;
  std::deque<MediaFrame> m_queue GUARDED_BY(m_mutex);
};

MediaReader::MediaReader(const StreamSettings& settings, VideoFeed::Say say)
    : m_core(std::make_unique<Core>(settings, std::move(say))), m_thread([this] { m_core->Run(); }) {}

MediaReader::~MediaReader() {
  m_core->Stop();
  m_thread.join();
}

const MediaFrame* MediaReader::Front() {
  return m_core->Front();
}

void MediaReader::Pop() {
  m_core->Pop();
}

uint64_t MediaReader::Lost() const {
  return m_core->Lost();
}

}  // namespace mdencoder
