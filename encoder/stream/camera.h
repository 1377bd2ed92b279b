// SPDX-License-Identifier: Apache-2.0
// Takes pictures from a camera of Video4Linux: H.264, JPEG or plain pixels, as packets for libavcodec.
#ifndef MDENCODER_CAMERA_H
#define MDENCODER_CAMERA_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "av_owned.h"

namespace mdencoder {

// What the system does for a camera. The functions fail as the system's do, with errno.
class CameraDriver {
 public:
  virtual ~CameraDriver() = default;
  virtual bool Open(const std::string& path) = 0;
  virtual bool Control(unsigned long request, void* argument) = 0;  // VIDIOC_...
  virtual void* Map(size_t length, off_t offset) = 0;               // nullptr for a failure
  virtual void Unmap(void* memory, size_t length) = 0;
  virtual bool Wait(std::chrono::milliseconds longest) = 0;  // for a picture
};
std::unique_ptr<CameraDriver> SystemCamera();

struct CameraSettings {
  std::string path;
  int width = 640;
  int height = 360;
  double rate = 25;
  bool takesH264 = false;  // if the camera has it
};

class Camera {
 public:
  static constexpr std::chrono::milliseconds kLongestSilence{5000};

  // Starts the camera, which may choose another size. Throws std::runtime_error.
  Camera(const CameraSettings& settings, std::unique_ptr<CameraDriver> driver);
  ~Camera();
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  const AVCodecParameters& Codec() const { return *m_codec; }

  // Waits for the next picture, whose time is in microseconds on the camera's clock. Returns false if `isStopping`. Throws
  // std::runtime_error if the camera is gone or silent.
  bool Next(AVPacket* packet, const std::function<bool()>& isStopping);

 private:
  struct Buffer {
    void* memory = nullptr;
    size_t length = 0;
  };
  struct FreeParameters {
    void operator()(AVCodecParameters* codec) const { avcodec_parameters_free(&codec); }
  };

  void Require(bool isGood, const char* what) const;
  void ChooseFormat(const CameraSettings& settings);
  bool TryFormat(const CameraSettings& settings, uint32_t format);
  void MapBuffers();
  void Release();

  const std::unique_ptr<CameraDriver> m_driver;
  const std::unique_ptr<AVCodecParameters, FreeParameters> m_codec;
  std::vector<Buffer> m_buffers;
};

}  // namespace mdencoder

#endif  // MDENCODER_CAMERA_H
