// SPDX-License-Identifier: Apache-2.0
// track_text.h - a track as GeoJSON (RFC 7946), KML 2.2 or GPX 1.1: where the platform was, what its sensor saw, and the
// target. No I/O.
//
// A file is Begin, any number of chunks, and End. Whoever overwrites End by the next chunk and End has a whole file at any
// time.
#ifndef TRACK_TEXT_H
#define TRACK_TEXT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "observation.h"

namespace track_text {

enum class Format : uint8_t { GeoJson, Kml, Gpx };

// Returns the format that the end of a file's name stands for.
std::optional<Format> FormatOf(std::string_view path);
// ".geojson", ".kml", ".gpx"
const char* Suffix(Format format);

class Writer {
 public:
  // `name` is that of the track; it needs no escapes.
  Writer(Format format, std::string_view name) : m_format(format), m_name(name) {}

  std::string Begin() const;
  std::string End() const;
  // Adds a sample, unless it has no position of the platform. Its time is that of the message, or else `arrivalUs`.
  // Returns true if it was added.
  bool Add(const st0601::Observation& seen, uint64_t arrivalUs);
  // Returns what was added since the last call. The path from sample to sample is a line for each chunk.
  std::string TakeChunk();
  size_t Waiting() const { return m_chunk.size() + m_path.size(); }  // bytes

 private:
  void AddGeoJson(const st0601::Observation& seen, const std::string& time);
  void AddKml(const st0601::Observation& seen, const std::string& time);
  void AddGpx(const st0601::Observation& seen, const std::string& time);
  void AddFeature(const std::string& geometry, const std::string& kind, const std::string& more);
  void AddPlacemark(const char* style, const std::string& title, const std::string& time, const std::string& body);
  std::string PathPoint(const st0601::Position& position) const;
  void AddToPath(const st0601::Position& position);
  void AddPathPoint(const st0601::Position& position);
  void CutPath(const st0601::Position& position);
  void EndPath();

  const Format m_format;
  const std::string m_name;
  std::string m_chunk;
  std::string m_path;       // points of the line that is being made
  size_t m_pathPoints = 0;  // of m_path
  // The last sample's place, with which the next line begins.
  std::optional<st0601::Position> m_last;
  bool m_hasFeature = false;  // one was written before
};

}  // namespace track_text

#endif  // TRACK_TEXT_H
