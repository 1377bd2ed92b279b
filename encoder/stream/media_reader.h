// SPDX-License-Identifier: Apache-2.0
// Reads the video of a file, a live stream or a camera, on a thread of its own. H.264 and H.265 can be passed on as they are; anything
// else is decoded and encoded again.
//
// A file begins again at its end. An input that is not there, or goes, is tried again after 1, 2, 4 ... 30 seconds; one line
// tells that it cannot be read, and one that it is read again. Whatever the input sends, memory and time are limited.
#ifndef MDENCODER_MEDIA_READER_H
#define MDENCODER_MEDIA_READER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>

#include "encoded_frame.h"
#include "stream_settings.h"
#include "video_feed.h"

namespace mdencoder {

// A frame with times on the input's own clock.
struct MediaFrame {
  EncodedFrame frame;
  VideoFeed::Shape shape;
  bool isFirst = false;  // the clock has nothing to do with that of the frame before
  std::chrono::steady_clock::time_point arrival;
};

class MediaReader {
 public:
  static constexpr size_t kMostFrames = 128;  // that wait: a file waits for room, a live stream loses its newest ones

  MediaReader(const StreamSettings& settings, VideoFeed::Say say);
  ~MediaReader();
  MediaReader(const MediaReader&) = delete;
  MediaReader& operator=(const MediaReader&) = delete;

  // Never wait. Front is valid until Pop.
  const MediaFrame* Front();
  void Pop();
  uint64_t Lost() const;  // frames

 private:
  class Core;
  const std::unique_ptr<Core> m_core;
  std::thread m_thread;
};

}  // namespace mdencoder

#endif  // MDENCODER_MEDIA_READER_H
