// SPDX-License-Identifier: Apache-2.0
// Puts encoded frames into fragmented MP4 for a ring. The decode times of the fragments are those of the stream's clock.
#ifndef MDENCODER_MP4_FRAGMENTS_H
#define MDENCODER_MP4_FRAGMENTS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "av_owned.h"
#include "encoded_frame.h"
#include "fragment_ring.h"
#include "video_units.h"

namespace mdencoder {

class Mp4Fragments {
 public:
  static constexpr int64_t kLongestUs = 200'000;  // of a fragment: what a page is behind at least

  Mp4Fragments(video::Codec codec, int width, int height, std::shared_ptr<FragmentRing> ring);
  ~Mp4Fragments();
  Mp4Fragments(const Mp4Fragments&) = delete;
  Mp4Fragments& operator=(const Mp4Fragments&) = delete;

  // Adds a frame; those before the first key frame are left out. Throws std::runtime_error.
  void Push(const EncodedFrame& frame);
  // Writes what is left.
  void Finish();

 private:
  struct Close;

  static int Collect(void* self, uint8_t* bytes, int size);
  void Begin(const std::vector<uint8_t>& sets);
  void End();
  void EndFragment();

  const video::Codec m_codec;
  const int m_width;
  const int m_height;
  const std::shared_ptr<FragmentRing> m_ring;
  AVFormatContext* m_format = nullptr;
  av::Packet m_packet;
  std::vector<uint8_t> m_sets;       // parameter sets of the current beginning
  std::vector<uint8_t> m_collected;  // what the muxer has written
  Fragment m_fragment;               // its times
  int64_t m_lastDts = 0;             // in the track's units
  bool m_isOpen = false;             // a fragment has frames
};

}  // namespace mdencoder

#endif  // MDENCODER_MP4_FRAGMENTS_H
