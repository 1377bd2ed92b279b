// SPDX-License-Identifier: Apache-2.0
#include "ts_file.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "error.h"
#include "klv_flight.h"

namespace mdfeed {
namespace {

constexpr int kWidth = 160;
constexpr int kHeight = 90;
constexpr AVRational kFrameTime = {1, kTsFrameRate};
constexpr AVRational kStreamTime = {1, 90'000};

void Check(int result, const std::string& what) {
  if (result >= 0) return;
  std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
  av_strerror(result, text.data(), text.size());
  throw RunError(what + ": " + text.data());
}

struct Free {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVFormatContext* context) const {
    if (context->pb != nullptr) avio_closep(&context->pb);
    avformat_free_context(context);
  }
};

template <typename T>
std::unique_ptr<T, Free> Own(T* object) {
  if (object == nullptr) throw RunError("out of memory");
  return std::unique_ptr<T, Free>(object);
}

// The picture: an encoder and its only frame.
class Picture {
 public:
  Picture() : m_frame(Own(av_frame_alloc())) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MPEG2VIDEO);
    if (codec == nullptr) throw RunError("this libavcodec has no MPEG-2 video encoder");
    m_encoder = Own(avcodec_alloc_context3(codec));
    m_encoder->width = m_frame->width = kWidth;
    m_encoder->height = m_frame->height = kHeight;
    m_encoder->pix_fmt = AV_PIX_FMT_YUV420P;
    m_frame->format = AV_PIX_FMT_YUV420P;
    m_encoder->time_base = kFrameTime;
    m_encoder->framerate = {kTsFrameRate, 1};
    m_encoder->gop_size = kTsFrameRate;
    m_encoder->max_b_frames = 0;
    m_encoder->bit_rate = 200'000;
    m_encoder->thread_count = 1;
    Check(avcodec_open2(m_encoder.get(), codec, nullptr), "cannot open the video encoder");
    Check(av_frame_get_buffer(m_frame.get(), 0), "cannot make a picture");
  }

  const AVCodecContext* Encoder() const { return m_encoder.get(); }

  // Encodes frame 'number', or flushes the encoder if it is negative, and calls 'sink' with each packet.
  template <typename Sink>
  void Encode(int64_t number, Sink sink) {
    if (number >= 0) Draw(number);
    Check(avcodec_send_frame(m_encoder.get(), number >= 0 ? m_frame.get() : nullptr), "cannot encode a picture");
    const auto packet = Own(av_packet_alloc());
    for (;;) {
      const int result = avcodec_receive_packet(m_encoder.get(), packet.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
      Check(result, "cannot encode a picture");
      sink(packet.get());
    }
  }

 private:
  void Draw(int64_t number) {
    Check(av_frame_make_writable(m_frame.get()), "cannot draw a picture");
    const auto bar = static_cast<int>(number % kWidth);
    for (int y = 0; y < kHeight; ++y) {
      uint8_t* line = m_frame->data[0] + y * m_frame->linesize[0];
      for (int x = 0; x < kWidth; ++x) line[x] = std::abs(x - bar) < 4 ? 230 : static_cast<uint8_t>(60 + y / 2);
    }
    for (int plane = 1; plane <= 2; ++plane) {
      std::memset(m_frame->data[plane], 128, static_cast<size_t>(m_frame->linesize[plane]) * (kHeight / 2));
    }
    m_frame->pts = number;
  }

  std::unique_ptr<AVCodecContext, Free> m_encoder;
  std::unique_ptr<AVFrame, Free> m_frame;
};

// The file, with a video stream and a KLV stream.
class Muxer {
 public:
  Muxer(const std::string& path, const AVCodecContext* encoder) {
    AVFormatContext* context = nullptr;
    Check(avformat_alloc_output_context2(&context, nullptr, "mpegts", path.c_str()), "cannot make a transport stream");
    m_context = Own(context);
    m_video = AddStream();
    Check(avcodec_parameters_from_context(m_video->codecpar, encoder), "cannot describe the video");
    m_klv = AddStream();
    m_klv->codecpar->codec_type = AVMEDIA_TYPE_DATA;
    m_klv->codecpar->codec_id = AV_CODEC_ID_SMPTE_KLV;
    Check(avio_open(&m_context->pb, path.c_str(), AVIO_FLAG_WRITE), "cannot write " + path);
    Check(avformat_write_header(m_context.get(), nullptr), "cannot write " + path);
  }

  void WriteVideo(AVPacket* packet) {
    av_packet_rescale_ts(packet, kFrameTime, m_video->time_base);
    packet->stream_index = m_video->index;
    Check(av_interleaved_write_frame(m_context.get(), packet), "cannot write the video");
  }

  void WriteKlv(const Bytes& message, int64_t frame) {
    const auto packet = Own(av_packet_alloc());
    Check(av_new_packet(packet.get(), static_cast<int>(message.size())), "cannot make a packet");
    std::copy(message.begin(), message.end(), packet->data);
    packet->pts = packet->dts = av_rescale_q(frame, kFrameTime, m_klv->time_base);
    packet->stream_index = m_klv->index;
    Check(av_interleaved_write_frame(m_context.get(), packet.get()), "cannot write the KLV track");
  }

  void Finish() {
    Check(av_write_trailer(m_context.get()), "cannot finish the transport stream");
    Check(avio_closep(&m_context->pb), "cannot finish the transport stream");
  }

 private:
  AVStream* AddStream() {
    AVStream* stream = avformat_new_stream(m_context.get(), nullptr);
    if (stream == nullptr) throw RunError("out of memory");
    stream->time_base = kStreamTime;
    return stream;
  }

  std::unique_ptr<AVFormatContext, Free> m_context;
  AVStream* m_video = nullptr;
  AVStream* m_klv = nullptr;
};

// Returns the messages of one timestamp. They have states from the time up to the next one, so that no two are equal.
void WriteTimestamp(Muxer& muxer, Flight& flight, const TsOptions& options, int64_t frame, SendResult& result) {
  for (int i = 0; i < options.messagesPerTime; ++i) {
    flight.AdvanceTo(frame * 1'000'000 / kTsFrameRate + i * 10'000);
    const Bytes message = MakeKlvMessage(flight.State());
    muxer.WriteKlv(message, frame);
    ++result.messages;
    result.bytes += message.size();
  }
  ++result.ticks;
}

}  // namespace

SendResult WriteTsFile(const FlightOptions& flightOptions, const TsOptions& options, Progress& progress) {
  av_log_set_level(AV_LOG_ERROR);
  const std::string unfinished = options.output + ".part";
  SendResult result;
  Picture picture;
  Muxer muxer(unfinished, picture.Encoder());
  Flight flight(flightOptions);
  const auto frames = static_cast<int64_t>(std::ceil(options.duration * kTsFrameRate));
  const auto writeVideo = [&](AVPacket* packet) { muxer.WriteVideo(packet); };
  try {
    for (int64_t frame = 0; frame < frames && !StopRequested(); ++frame) {
      picture.Encode(frame, writeVideo);
      const auto due = static_cast<uint64_t>(static_cast<double>(frame) * options.rate / kTsFrameRate + 1e-9) + 1;
      if (result.ticks < due) WriteTimestamp(muxer, flight, options, frame, result);
      progress.Update(result);
    }
    picture.Encode(-1, writeVideo);
    muxer.Finish();
  } catch (...) {
    std::remove(unfinished.c_str());
    throw;
  }
  if (std::rename(unfinished.c_str(), options.output.c_str()) != 0) {
    const int reason = errno;
    std::remove(unfinished.c_str());
    errno = reason;
    ThrowErrno("cannot write " + options.output);
  }
  return result;
}

}  // namespace mdfeed
