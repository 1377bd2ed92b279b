// SPDX-License-Identifier: Apache-2.0
// Reads the transport stream back with libavformat.
#include "ts_file.h"

#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "error.h"
#include "klv_flight.h"

namespace mdfeed {
namespace {

class TsFile : public testing::Test {
 protected:
  void SetUp() override { m_path = testing::TempDir() + "mdfeed_" + std::to_string(getpid()) + ".ts"; }
  void TearDown() override { std::filesystem::remove(m_path); }

  // Collects the KLV messages by their presentation time, and counts the packets of the video.
  std::map<int64_t, std::vector<Bytes>> ReadKlv(int* videoPackets) {
    std::map<int64_t, std::vector<Bytes>> messages;
    AVFormatContext* context = nullptr;
    EXPECT_EQ(avformat_open_input(&context, m_path.c_str(), nullptr, nullptr), 0);
    if (context == nullptr) return messages;
    EXPECT_GE(avformat_find_stream_info(context, nullptr), 0);
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(context, packet) >= 0) {
      const AVCodecParameters* codec = context->streams[packet->stream_index]->codecpar;
      if (codec->codec_id == AV_CODEC_ID_SMPTE_KLV) {
        messages[packet->pts].emplace_back(packet->data, packet->data + packet->size);
      } else {
        EXPECT_EQ(codec->codec_id, AV_CODEC_ID_MPEG2VIDEO);
        ++*videoPackets;
      }
      av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    return messages;
  }

  std::string m_path;
};

TEST_F(TsFile, CarriesTheFlightWithItsTimestamps) {
  FlightOptions flight;
  flight.startUs = 1'714'564'800'000'000;
  Progress progress("test");
  const SendResult result = WriteTsFile(flight, {m_path, 4.0, 5.0, 2}, progress);
  EXPECT_EQ(result.ticks, 20u);
  EXPECT_EQ(result.messages, 40u);
  int videoPackets = 0;
  const auto messages = ReadKlv(&videoPackets);
  EXPECT_EQ(videoPackets, 100);
  ASSERT_EQ(messages.size(), 20u);
  Flight expected(flight);
  int64_t tick = 0;
  for (const auto& [pts, packets] : messages) {
    EXPECT_EQ(pts - messages.begin()->first, tick * 18'000);
    ASSERT_EQ(packets.size(), 2u);
    for (int i = 0; i < 2; ++i) {
      expected.AdvanceTo(tick * 200'000 + i * 10'000);
      EXPECT_EQ(packets[static_cast<size_t>(i)], MakeKlvMessage(expected.State()));
    }
    tick++;
  }
}

TEST_F(TsFile, FailsClearlyAndLeavesNothingBehind) {
  Progress progress("test");
  EXPECT_THROW(WriteTsFile({}, {"/no/such/folder/x.ts", 1, 5, 1}, progress), RunError);
  std::filesystem::create_directory(m_path);
  EXPECT_THROW(WriteTsFile({}, {m_path, 1, 5, 1}, progress), RunError);
  EXPECT_FALSE(std::filesystem::exists(m_path + ".part"));
}

}  // namespace
}  // namespace mdfeed
