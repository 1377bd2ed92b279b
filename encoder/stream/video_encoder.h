// SPDX-License-Identifier: Apache-2.0
// Encodes pictures as H.264 without delay: a picture that goes in comes out at once.
#ifndef MDENCODER_VIDEO_ENCODER_H
#define MDENCODER_VIDEO_ENCODER_H

#include <cstdint>
#include <optional>

#include "av_owned.h"
#include "encoded_frame.h"

namespace mdencoder {

struct VideoEncoderSettings {
  int width = 640;
  int height = 360;
  double rate = 25;
  int64_t bitrate = 1'000'000;
};

class VideoEncoder {
 public:
  // Throws std::runtime_error.
  explicit VideoEncoder(const VideoEncoderSettings& settings);

  // Encodes a picture of the settings' size in YUV 4:2:0. The parameter sets are in front of every key frame. Returns
  // nothing if the encoder left the picture out. Throws std::runtime_error.
  std::optional<EncodedFrame> Encode(AVFrame* picture, int64_t ptsUs);

 private:
  av::Codec m_codec;
  av::Packet m_packet;
};

}  // namespace mdencoder

#endif  // MDENCODER_VIDEO_ENCODER_H
