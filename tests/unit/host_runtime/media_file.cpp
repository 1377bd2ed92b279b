// SPDX-License-Identifier: Apache-2.0
#include "media_file.h"

#include <gtest/gtest.h>

#include <algorithm>

extern "C" {
#include <libavformat/avformat.h>
}

void WriteTransportStream(const std::string& path, const std::vector<MediaPacket>& packets) {
  AVFormatContext* output = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&output, nullptr, "mpegts", path.c_str()), 0);
  AVStream* const stream = avformat_new_stream(output, nullptr);
  stream->codecpar->codec_type = AVMEDIA_TYPE_DATA;
  stream->codecpar->codec_id = AV_CODEC_ID_SMPTE_KLV;
  stream->time_base = {1, 90'000};
  ASSERT_GE(avio_open(&output->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
  ASSERT_GE(avformat_write_header(output, nullptr), 0);
  AVPacket* packet = av_packet_alloc();
  for (const MediaPacket& wanted : packets) {
    ASSERT_EQ(av_new_packet(packet, static_cast<int>(wanted.data.size())), 0);
    std::copy(wanted.data.begin(), wanted.data.end(), packet->data);
    packet->pts = packet->dts = wanted.time;
    packet->stream_index = 0;
    ASSERT_EQ(av_write_frame(output, packet), 0);
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
  av_write_trailer(output);
  avio_closep(&output->pb);
  avformat_free_context(output);
}
