// SPDX-License-Identifier: Apache-2.0
// Owners of what libav gives, and its errors as text.
#ifndef MDENCODER_AV_OWNED_H
#define MDENCODER_AV_OWNED_H

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

#include <memory>
#include <stdexcept>
#include <string>

namespace mdencoder::av {

struct Free {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVCodecContext* codec) const { avcodec_free_context(&codec); }
  void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
  void operator()(AVFilterGraph* graph) const { avfilter_graph_free(&graph); }
};
struct CloseInput {
  void operator()(AVFormatContext* input) const { avformat_close_input(&input); }
};
using Input = std::unique_ptr<AVFormatContext, CloseInput>;
using Frame = std::unique_ptr<AVFrame, Free>;
using Packet = std::unique_ptr<AVPacket, Free>;
using Codec = std::unique_ptr<AVCodecContext, Free>;
using BitstreamFilter = std::unique_ptr<AVBSFContext, Free>;
using Graph = std::unique_ptr<AVFilterGraph, Free>;

inline std::string ErrorText(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  av_strerror(error, text, sizeof(text));
  return text;
}

// Throws std::runtime_error for a result that is an error.
inline int Require(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + ErrorText(result));
  return result;
}
// Throws std::runtime_error for a pointer to nothing.
template <typename T>
T* Require(T* pointer, const char* what) {
  if (pointer == nullptr) throw std::runtime_error(std::string(what) + ": not available");
  return pointer;
}

}  // namespace mdencoder::av

#endif  // MDENCODER_AV_OWNED_H
