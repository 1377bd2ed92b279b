// SPDX-License-Identifier: Apache-2.0
// The track of a source in a file for maps, beside its recording.
//
// The file is whole after each flush, once a second: what is new takes the place of the closing part, which follows it
// again in the same write. On a full disk the file stays as it was; samples wait in memory, and are lost and counted when
// that is full. docs/outputs/track.md describes the file.
#ifndef MDENCODER_TRACK_FILE_H
#define MDENCODER_TRACK_FILE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "growing_file.h"
#include "receiver.h"
#include "st0601_items.h"
#include "track_text.h"

namespace mdencoder {

struct TrackSettings {
  std::string path;
  std::string source;
  track_text::Format format = track_text::Format::GeoJson;
  double interval = 1;  // least seconds between two samples
};

class TrackFile {
 public:
  static constexpr size_t kMostWaiting = size_t{1} << 18;      // bytes of samples
  static constexpr uint64_t kMostBytes = uint64_t{256} << 20;  // of the file

  // Says a line: a warning, or a notice that all is well again.
  using Say = std::function<void(bool isWarning, const std::string& line)>;

  TrackFile(TrackSettings settings, Say say);
  TrackFile(const TrackFile&) = delete;
  TrackFile& operator=(const TrackFile&) = delete;

  // Makes the file. Throws std::runtime_error.
  void Open();
  const std::string& Path() const { return m_settings.path; }

  // One thread at a time calls these.
  void SetInterval(double seconds) { m_settings.interval = seconds; }
  void Add(const Received& received, const st0601::Message& message);
  bool Flush();  // returns false if something is left
  void Close();

 private:
  bool IsDue(uint64_t arrivalUs) const;
  bool Write();
  void Report(bool isFailing, int error);

  TrackSettings m_settings;
  const Say m_say;
  track_text::Writer m_writer;
  GrowingFile m_file;   // its size is without the closing part
  std::string m_chunk;  // waits for the file
  uint64_t m_lastUs = 0;
  uint64_t m_lost = 0;  // samples, since the failure began
  bool m_isFailing = false;
  bool m_isFull = false;  // at its limit
};

}  // namespace mdencoder

#endif  // MDENCODER_TRACK_FILE_H
