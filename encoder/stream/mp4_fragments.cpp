// SPDX-License-Identifier: Apache-2.0
#include "mp4_fragments.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace mdencoder {
namespace {

constexpr int kWriteBuffer = 65536;
constexpr AVRational kClock = {1, 90'000};
constexpr int64_t kUsualFrame = 3'600;
constexpr int64_t kLongestFrame = 90'000;

}  // namespace

Mp4Fragments::Mp4Fragments(video::Codec codec, int width, int height, std::shared_ptr<FragmentRing> ring)
    : m_codec(codec),
      m_width(width),
      m_height(height),
      m_ring(std::move(ring)),
      m_packet(av::Require(av_packet_alloc(), "packet")) {}

Mp4Fragments::~Mp4Fragments() {
  End();
}

int Mp4Fragments::Collect(void* self, uint8_t* bytes, int size) try {
  auto& collected = static_cast<Mp4Fragments*>(self)->m_collected;
  collected.insert(collected.end(), bytes, bytes + size);
  return size;
} catch (const std::bad_alloc&) {
  return AVERROR(ENOMEM);
}

// The fragments end where this object says so. Each has the time of its first frame, whatever was before it.
void Mp4Fragments::Begin(const std::vector<uint8_t>& sets) {
  End();
  m_sets = sets;
  m_lastDts = 0;
  av::Require(avformat_alloc_output_context2(&m_format, nullptr, "mp4", nullptr), "mp4");
  auto* const buffer = static_cast<unsigned char*>(av::Require(av_malloc(kWriteBuffer), "mp4"));
  m_format->pb = avio_alloc_context(buffer, kWriteBuffer, 1, this, nullptr, &Mp4Fragments::Collect, nullptr);
  if (m_format->pb == nullptr) av_free(buffer);
  av::Require(m_format->pb, "mp4");
  m_format->flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_BITEXACT;
  m_format->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;  // would begin at 0
  AVStream* const track = av::Require(avformat_new_stream(m_format, nullptr), "mp4");
  track->time_base = kClock;
  track->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
  track->codecpar->codec_id = m_codec == video::Codec::H264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC;
  track->codecpar->width = m_width;
  track->codecpar->height = m_height;
  auto* const extra = static_cast<uint8_t*>(av::Require(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE), "mp4"));
  std::memcpy(extra, sets.data(), sets.size());
  track->codecpar->extradata = extra;
  track->codecpar->extradata_size = static_cast<int>(sets.size());
  AVDictionary* options = nullptr;
  av_dict_set(&options, "movflags", "frag_custom+empty_moov+default_base_moof+frag_discont", 0);
  av_dict_set(&options, "use_editlist", "0", 0);
  const int result = avformat_write_header(m_format, &options);
  av_dict_free(&options);
  av::Require(result, "mp4");
  avio_flush(m_format->pb);
  m_ring->SetInit(std::exchange(m_collected, {}));
}

void Mp4Fragments::End() {
  if (m_format == nullptr) return;
  if (m_format->pb != nullptr) {
    av_freep(&m_format->pb->buffer);
    avio_context_free(&m_format->pb);
  }
  avformat_free_context(std::exchange(m_format, nullptr));
  m_collected.clear();
  m_isOpen = false;
}

void Mp4Fragments::Push(const EncodedFrame& frame) {
  if (frame.isKey) {
    EndFragment();
    std::vector<uint8_t> sets = video::ParameterSets(m_codec, frame.bytes);
    if (!sets.empty() && (m_format == nullptr || sets != m_sets)) Begin(sets);
  }
  if (m_format == nullptr) return;
  if (m_isOpen && frame.dtsUs - m_fragment.firstPtsUs >= kLongestUs) EndFragment();
  if (!m_isOpen) {
    m_fragment.firstPtsUs = frame.ptsUs;
    m_fragment.isKey = frame.isKey;
    m_isOpen = true;
  }
  AVPacket& packet = *m_packet;
  av::Require(av_new_packet(&packet, static_cast<int>(frame.bytes.size())), "mp4");
  std::memcpy(packet.data, frame.bytes.data(), frame.bytes.size());
  packet.pts = av_rescale_q(Ticks(frame.ptsUs), kClock, m_format->streams[0]->time_base);
  packet.dts = av_rescale_q(Ticks(frame.dtsUs), kClock, m_format->streams[0]->time_base);
  // The next frame tells how long one is; as long as it is not there, the one before does.
  const int64_t since = packet.dts - std::exchange(m_lastDts, packet.dts);
  packet.duration = since > 0 && since < kLongestFrame ? since : kUsualFrame;
  packet.flags = frame.isKey ? AV_PKT_FLAG_KEY : 0;
  const int result = av_write_frame(m_format, &packet);
  av_packet_unref(&packet);
  av::Require(result, "mp4");
}

// The muxer gives a fragment when it is told that no frame belongs to it any more.
void Mp4Fragments::EndFragment() {
  if (m_format == nullptr || !m_isOpen) return;
  m_isOpen = false;
  av::Require(av_write_frame(m_format, nullptr), "mp4");
  avio_flush(m_format->pb);
  if (m_collected.empty()) return;
  m_fragment.bytes = std::exchange(m_collected, {});
  m_ring->Push(std::exchange(m_fragment, {}));
}

void Mp4Fragments::Finish() {
  EndFragment();
  End();
}

}  // namespace mdencoder
