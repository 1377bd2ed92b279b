// SPDX-License-Identifier: Apache-2.0
// The video of a stream: encoded frames on the stream's clock, as their time comes.
#ifndef MDENCODER_VIDEO_FEED_H
#define MDENCODER_VIDEO_FEED_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "encoded_frame.h"
#include "observation.h"
#include "stream_settings.h"
#include "video_units.h"

namespace mdencoder {

class VideoFeed {
 public:
  using Say = std::function<void(bool isWarning, const std::string& line)>;

  struct Shape {
    bool operator==(const Shape&) const = default;

    video::Codec codec = video::Codec::H264;
    int width = 0;
    int height = 0;
  };

  virtual ~VideoFeed() = default;
  // All of it belongs to the stream's thread.

  // Returns when Take is to be called next, on the stream's clock.
  virtual int64_t DueUs() const = 0;
  // Adds the frames whose time has come. `wallUs` is the time of day on the same moment, and `seen` the newest message.
  // Throws std::runtime_error if there will be no more frames.
  virtual void Take(int64_t nowUs, uint64_t wallUs, const st0601::Observation& seen,
                    std::vector<EncodedFrame>& frames) = 0;
  // Describes the last frames.
  virtual Shape Describe() const = 0;
  // Returns how many frames were left out because this machine was too slow.
  virtual uint64_t Late() const = 0;
};

// Throws std::runtime_error for a scene that this machine cannot make. Files and URLs that are not there are tried again.
std::unique_ptr<VideoFeed> MakeVideoFeed(const StreamSettings& settings, const VideoFeed::Say& say);

}  // namespace mdencoder

#endif  // MDENCODER_VIDEO_FEED_H
