// SPDX-License-Identifier: Apache-2.0
// A generated moving picture that shows what the newest message says: a stand-in for a camera.
#ifndef MDENCODER_SCENE_H
#define MDENCODER_SCENE_H

#include <array>
#include <cstdint>
#include <string>

#include "av_owned.h"
#include "observation.h"

namespace mdencoder {

struct SceneSettings {
  int width = 640;
  int height = 360;
  double rate = 25;
};

class Scene {
 public:
  static constexpr size_t kLines = 4;

  // Throws std::runtime_error.
  explicit Scene(const SceneSettings& settings);
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  // Without a font the picture has no text.
  bool HasText() const { return m_hasText; }
  // Returns the next picture in YUV 4:2:0, which is valid until the next call. Throws std::runtime_error.
  AVFrame* Next(const std::array<std::string, kLines>& lines);

 private:
  void MakeBackground(const SceneSettings& settings);
  void MakeText(const SceneSettings& settings);

  av::Graph m_background;
  av::Graph m_text;
  AVFilterContext* m_backgroundEnd = nullptr;  // the graphs own these
  AVFilterContext* m_textBegin = nullptr;
  AVFilterContext* m_textEnd = nullptr;
  av::Frame m_plain;
  av::Frame m_written;
  bool m_hasText = false;
};

// Returns what the picture says at a time in microseconds since 1970.
std::array<std::string, Scene::kLines> SceneLines(const std::string& stream, uint64_t timeUs,
                                                  const st0601::Observation& seen);

}  // namespace mdencoder

#endif  // MDENCODER_SCENE_H
