// SPDX-License-Identifier: Apache-2.0
// Reads the streams of a file or of a URL without the library: KLV in a file or in datagrams, and the tracks of a transport
// stream or another container through libavformat. Nothing is decoded.
#ifndef MDENCODER_STREAM_INPUT_H
#define MDENCODER_STREAM_INPUT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "st0601_items.h"

namespace mdencoder {

struct StreamInfo {
  int id = -1;           // PID of a transport stream; -1 without one
  std::string kind;      // "data", "video", "audio" and so on
  std::string codec;     // "klv", "h264" and so on
  std::string language;  // as printable text
  bool mayHoldKlv = false;
};

struct StreamInputSettings {
  std::string name;                                      // path of a file, "-" for the standard input, or a URL
  std::optional<std::chrono::duration<double>> longest;  // then a URL's end; a file is read whole
  bool onlyData = false;                                 // other tracks are not read
  std::string
      authorities;  // https: file (PEM) of those that may have signed the certificate; empty: those of the system
};

// What was read. Streams have numbers from 0 on, in the order in which they are found.
class StreamSink {
 public:
  virtual ~StreamSink() = default;
  virtual void OnStream(size_t stream, const StreamInfo& info) = 0;
  // `seconds` is the presentation time, if there is one.
  virtual void OnData(size_t stream, st0601::ByteView bytes, std::optional<double> seconds, bool isDamaged) = 0;
  // Packets of RTP that are missing before the next data.
  virtual void OnMissing(size_t stream, uint64_t packets) = 0;
  // Asked before every read.
  virtual bool IsEnough() const = 0;
};

// Reads to the end or to the limit, and returns the name of the container: "klv", "mpegts" and so on. Throws
// std::runtime_error with a line that names the input.
std::string ReadStreams(const StreamInputSettings& settings, StreamSink& sink);

}  // namespace mdencoder

#endif  // MDENCODER_STREAM_INPUT_H
