// SPDX-License-Identifier: Apache-2.0
// Writes small media files with a KLV track.
#ifndef MEDIA_FILE_H
#define MEDIA_FILE_H

#include <cstdint>
#include <string>
#include <vector>

struct MediaPacket {
  int64_t time;  // 90 kHz
  std::vector<uint8_t> data;
};

// Writes an MPEG transport stream with only a KLV track.
void WriteTransportStream(const std::string& path, const std::vector<MediaPacket>& packets);

#endif  // MEDIA_FILE_H
