// Writes small media files with a KLV track.
#ifndef MEDIA_FILE_H
#define MEDIA_FILE_H

#include <cstdint>
#include <string>
#include <vector>

struct MediaPacket {
  std::int64_t time;  // 90 kHz
  std::vector<std::uint8_t> data;
};

// An MPEG transport stream with nothing but the KLV track.
void WriteTransportStream(const std::string& path, const std::vector<MediaPacket>& packets);

#endif  // MEDIA_FILE_H
