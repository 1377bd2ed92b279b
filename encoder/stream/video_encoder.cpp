// SPDX-License-Identifier: Apache-2.0
#include "video_encoder.h"

#include <algorithm>
#include <cerrno>

extern "C" {
#include <libavutil/opt.h>
}

#include <cmath>

namespace mdencoder {
namespace {

constexpr double kKeyInterval = 1;  // seconds: a player that joins has a picture soon

}  // namespace

VideoEncoder::VideoEncoder(const VideoEncoderSettings& settings)
    : m_codec(av::Require(avcodec_alloc_context3(av::Require(avcodec_find_encoder_by_name("libx264"), "libx264")),
                          "libx264")),
      m_packet(av::Require(av_packet_alloc(), "packet")) {
  m_codec->width = settings.width;
  m_codec->height = settings.height;
  m_codec->pix_fmt = AV_PIX_FMT_YUV420P;
  m_codec->time_base = {1, 1'000'000};
  m_codec->framerate = {static_cast<int>(std::lround(settings.rate * 1000)), 1000};
  m_codec->bit_rate = settings.bitrate;
  m_codec->rc_max_rate = settings.bitrate;
  m_codec->rc_buffer_size = static_cast<int>(settings.bitrate);
  m_codec->gop_size = static_cast<int>(std::max(1L, std::lround(settings.rate * kKeyInterval)));
  m_codec->max_b_frames = 0;
  m_codec->thread_count = 1;
  const auto set = [this](const char* key, const char* value) {
    av::Require(av_opt_set(m_codec->priv_data, key, value, 0), key);
  };
  set("preset", "ultrafast");
  set("tune", "zerolatency");
  set("profile", "baseline");
  set("x264-params", "aud=1:repeat-headers=1:scenecut=0");
  av::Require(avcodec_open2(m_codec.get(), nullptr, nullptr), "libx264");
}

std::optional<EncodedFrame> VideoEncoder::Encode(AVFrame* picture, int64_t ptsUs) {
  picture->pts = ptsUs;
  picture->pict_type = AV_PICTURE_TYPE_NONE;
  av::Require(avcodec_send_frame(m_codec.get(), picture), "libx264");
  const int result = avcodec_receive_packet(m_codec.get(), m_packet.get());
  if (result == AVERROR(EAGAIN)) return std::nullopt;
  av::Require(result, "libx264");
  EncodedFrame frame;
  frame.bytes.assign(m_packet->data, m_packet->data + m_packet->size);
  frame.ptsUs = m_packet->pts;
  frame.dtsUs = m_packet->dts;
  frame.isKey = (m_packet->flags & AV_PKT_FLAG_KEY) != 0;
  av_packet_unref(m_packet.get());
  return frame;
}

}  // namespace mdencoder
