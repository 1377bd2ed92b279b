// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   System    opens, maps and waits
//   Camera    agrees with the driver on a format and takes pictures
#include "camera.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "owned_fd.h"

namespace mdencoder {
namespace {

// --- System ------------------------------------------------------------------------------------------

class System : public CameraDriver {
 public:
  bool Open(const std::string& path) override {
    m_fd.Reset(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    return m_fd.IsOpen();
  }
  bool Control(unsigned long request, void* argument) override {
    int result = 0;
    do {
      result = ioctl(m_fd.Get(), request, argument);
    } while (result < 0 && errno == EINTR);
    return result >= 0;
  }
  void* Map(size_t length, off_t offset) override {
    void* const memory = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd.Get(), offset);
    return memory == MAP_FAILED ? nullptr : memory;
  }
  void Unmap(void* memory, size_t length) override { munmap(memory, length); }
  bool Wait(std::chrono::milliseconds longest) override {
    pollfd set = {m_fd.Get(), POLLIN, 0};
    return poll(&set, 1, static_cast<int>(longest.count())) > 0;
  }

 private:
  common::OwnedFD m_fd;
};

// --- Camera ------------------------------------------------------------------------------------------

constexpr uint32_t kBuffers = 4;
constexpr std::chrono::milliseconds kLook{100};  // between two questions whether to stop

struct CameraFormat {
  uint32_t camera;
  AVCodecID codec;
  AVPixelFormat pixels;
  unsigned bytesPerPixel;  // of a line's first plane; 0 for compressed ones
};

// In the order in which they are tried.
constexpr CameraFormat kCameraFormats[] = {
    {V4L2_PIX_FMT_H264, AV_CODEC_ID_H264, AV_PIX_FMT_YUV420P, 0},
    {V4L2_PIX_FMT_YUYV, AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_YUYV422, 2},
    {V4L2_PIX_FMT_UYVY, AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_UYVY422, 2},
    {V4L2_PIX_FMT_NV12, AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_NV12, 1},
    {V4L2_PIX_FMT_YUV420, AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_YUV420P, 1},
    {V4L2_PIX_FMT_MJPEG, AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ422P, 0},
    {V4L2_PIX_FMT_JPEG, AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ422P, 0},
};

}  // namespace

std::unique_ptr<CameraDriver> SystemCamera() {
  return std::make_unique<System>();
}

Camera::Camera(const CameraSettings& settings, std::unique_ptr<CameraDriver> driver)
    : m_driver(std::move(driver)), m_codec(av::Require(avcodec_parameters_alloc(), "camera")) {
  Require(m_driver->Open(settings.path), "cannot be opened");
  v4l2_capability capability{};
  Require(m_driver->Control(VIDIOC_QUERYCAP, &capability), "is no camera");
  const uint32_t able =
      (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? capability.device_caps : capability.capabilities;
  if ((able & V4L2_CAP_VIDEO_CAPTURE) == 0 || (able & V4L2_CAP_STREAMING) == 0) {
    throw std::runtime_error("is no camera that gives pictures");
  }
  try {
    ChooseFormat(settings);
    MapBuffers();
  } catch (const std::exception&) {
    Release();
    throw;
  }
}

Camera::~Camera() {
  Release();
}

void Camera::Require(bool isGood, const char* what) const {
  if (!isGood) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

bool Camera::TryFormat(const CameraSettings& settings, uint32_t format) {
  v4l2_format wanted{};
  wanted.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  wanted.fmt.pix.width = static_cast<uint32_t>(settings.width);
  wanted.fmt.pix.height = static_cast<uint32_t>(settings.height);
  wanted.fmt.pix.pixelformat = format;
  wanted.fmt.pix.field = V4L2_FIELD_NONE;
  if (!m_driver->Control(VIDIOC_S_FMT, &wanted)) return false;
  const v4l2_pix_format& got = wanted.fmt.pix;
  const auto known = std::find_if(std::begin(kCameraFormats), std::end(kCameraFormats),
                                  [&](const CameraFormat& each) { return each.camera == got.pixelformat; });
  if (got.pixelformat != format || known == std::end(kCameraFormats) || got.width == 0 || got.height == 0) return false;
  // libavcodec takes plain pixels without gaps between the lines.
  if (known->bytesPerPixel != 0 && got.bytesperline != got.width * known->bytesPerPixel) return false;
  m_codec->codec_type = AVMEDIA_TYPE_VIDEO;
  m_codec->codec_id = known->codec;
  m_codec->format = known->pixels;
  m_codec->width = static_cast<int>(got.width);
  m_codec->height = static_cast<int>(got.height);
  return true;
}

// The rate is a wish: not every camera knows it.
void Camera::ChooseFormat(const CameraSettings& settings) {
  const bool isChosen =
      std::any_of(std::begin(kCameraFormats), std::end(kCameraFormats), [&](const CameraFormat& format) {
        return (settings.takesH264 || format.codec != AV_CODEC_ID_H264) && TryFormat(settings, format.camera);
      });
  if (!isChosen) throw std::runtime_error("has no format that is known here");
  v4l2_streamparm rate{};
  rate.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  rate.parm.capture.timeperframe = {1000, static_cast<uint32_t>(std::lround(settings.rate * 1000))};
  m_driver->Control(VIDIOC_S_PARM, &rate);
}

void Camera::MapBuffers() {
  v4l2_requestbuffers request{};
  request.count = kBuffers;
  request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  request.memory = V4L2_MEMORY_MMAP;
  Require(m_driver->Control(VIDIOC_REQBUFS, &request) && request.count != 0, "has no memory for pictures");
  for (uint32_t index = 0; index < std::min(request.count, kBuffers); ++index) {
    v4l2_buffer buffer{};
    buffer.index = index;
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    Require(m_driver->Control(VIDIOC_QUERYBUF, &buffer), "has no memory for pictures");
    void* const memory = m_driver->Map(buffer.length, static_cast<off_t>(buffer.m.offset));
    Require(memory != nullptr, "has no memory for pictures");
    m_buffers.push_back({memory, buffer.length});
    Require(m_driver->Control(VIDIOC_QBUF, &buffer), "takes no memory for pictures");
  }
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  Require(m_driver->Control(VIDIOC_STREAMON, &type), "does not start");
}

void Camera::Release() {
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  if (!m_buffers.empty()) m_driver->Control(VIDIOC_STREAMOFF, &type);
  for (const Buffer& buffer : m_buffers) m_driver->Unmap(buffer.memory, buffer.length);
  m_buffers.clear();
}

bool Camera::Next(AVPacket* packet, const std::function<bool()>& isStopping) {
  auto waited = std::chrono::milliseconds(0);
  for (;;) {
    if (isStopping()) return false;
    if (waited >= kLongestSilence) throw std::runtime_error("gives no pictures");
    if (!m_driver->Wait(kLook)) {
      waited += kLook;
      continue;
    }
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    if (!m_driver->Control(VIDIOC_DQBUF, &buffer)) {
      Require(errno == EAGAIN, "cannot be read further");
      waited += kLook;
      continue;
    }
    if (buffer.index >= m_buffers.size()) throw std::runtime_error("gives a picture that is nowhere");
    const Buffer& picture = m_buffers[buffer.index];
    const size_t size = std::min<size_t>(buffer.bytesused, picture.length);
    const bool isGood = size != 0 && (buffer.flags & V4L2_BUF_FLAG_ERROR) == 0;
    if (isGood) {
      av_packet_unref(packet);
      av::Require(av_new_packet(packet, static_cast<int>(size)), "camera");
      std::memcpy(packet->data, picture.memory, size);
      packet->pts = packet->dts = int64_t{buffer.timestamp.tv_sec} * 1'000'000 + buffer.timestamp.tv_usec;
      const bool isKey = m_codec->codec_id != AV_CODEC_ID_H264 || (buffer.flags & V4L2_BUF_FLAG_KEYFRAME) != 0;
      packet->flags = isKey ? AV_PKT_FLAG_KEY : 0;
    }
    Require(m_driver->Control(VIDIOC_QBUF, &buffer), "takes no memory for pictures");
    if (isGood) return true;
  }
}

}  // namespace mdencoder
