// SPDX-License-Identifier: Apache-2.0
#include "camera.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "av_owned.h"

namespace mdencoder::camera_test {
namespace {

struct Picture {
  std::vector<uint8_t> bytes;
  int64_t us = 0;
  uint32_t flags = 0;
  uint32_t index = UINT32_MAX;  // of the buffer; any that is queued
};

// What a driver knows and was told.
struct Script {
  std::set<uint32_t> formats = {V4L2_PIX_FMT_YUYV};
  uint32_t capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
  uint32_t padding = 0;  // bytes behind a line
  unsigned long fails = 0;
  int error = EIO;
  std::deque<Picture> pictures;
  uint32_t rate = 0;
  std::vector<std::vector<uint8_t>> memory;
  std::vector<uint32_t> queued;
  bool isOn = false;
  int mapped = 0;
};

class FakeDriver : public CameraDriver {
 public:
  explicit FakeDriver(Script& script) : m_script(script) {}

  bool Open(const std::string& path) override {
    errno = ENOENT;
    return path == "/dev/video7";
  }
  void* Map(size_t length, off_t offset) override {
    ++m_script.mapped;
    return m_script.memory.at(static_cast<size_t>(offset) / length).data();
  }
  void Unmap(void*, size_t) override { --m_script.mapped; }
  bool Wait(std::chrono::milliseconds) override { return !m_script.pictures.empty(); }

  bool Control(unsigned long request, void* argument) override {
    if (request == m_script.fails) {
      errno = m_script.error;
      return false;
    }
    switch (request) {
      case VIDIOC_QUERYCAP:
        static_cast<v4l2_capability*>(argument)->capabilities = m_script.capabilities;
        return true;
      case VIDIOC_S_FMT:
        return SetFormat(static_cast<v4l2_format*>(argument)->fmt.pix);
      case VIDIOC_S_PARM:
        m_script.rate = static_cast<v4l2_streamparm*>(argument)->parm.capture.timeperframe.denominator;
        return true;
      case VIDIOC_REQBUFS:
        static_cast<v4l2_requestbuffers*>(argument)->count = 2;
        m_script.memory.assign(2, std::vector<uint8_t>(kLength));
        return true;
      case VIDIOC_QUERYBUF: {
        auto* const buffer = static_cast<v4l2_buffer*>(argument);
        buffer->length = kLength;
        buffer->m.offset = buffer->index * kLength;
        return true;
      }
      case VIDIOC_QBUF:
        m_script.queued.push_back(static_cast<v4l2_buffer*>(argument)->index);
        return true;
      case VIDIOC_DQBUF:
        return Give(*static_cast<v4l2_buffer*>(argument));
      case VIDIOC_STREAMON:
      case VIDIOC_STREAMOFF:
        m_script.isOn = request == VIDIOC_STREAMON;
        return true;
      default:
        ADD_FAILURE() << "request " << request;
        return false;
    }
  }

 private:
  static constexpr uint32_t kLength = 4096;

  bool SetFormat(v4l2_pix_format& format) const {
    if (!m_script.formats.contains(format.pixelformat)) format.pixelformat = *m_script.formats.begin();
    format.width = 32;
    format.height = 16;
    format.bytesperline = 64 + m_script.padding;
    return true;
  }
  bool Give(v4l2_buffer& buffer) {
    const Picture picture = m_script.pictures.front();
    m_script.pictures.pop_front();
    buffer.index = picture.index == UINT32_MAX ? m_script.queued.front() : picture.index;
    m_script.queued.erase(m_script.queued.begin());
    buffer.bytesused = static_cast<uint32_t>(picture.bytes.size());
    buffer.flags = picture.flags;
    buffer.timestamp.tv_sec = picture.us / 1'000'000;
    buffer.timestamp.tv_usec = picture.us % 1'000'000;
    if (buffer.index < 2 && picture.bytes.size() <= kLength) {
      std::copy(picture.bytes.begin(), picture.bytes.end(), m_script.memory[buffer.index].begin());
    }
    return true;
  }

  Script& m_script;
};

CameraSettings Settings(bool takesH264 = false) {
  return {"/dev/video7", 640, 360, 12.5, takesH264};
}

std::string Fault(Script& script, const std::function<void(Camera&)>& use = {}) {
  try {
    Camera camera(Settings(), std::make_unique<FakeDriver>(script));
    if (use) use(camera);
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(script.mapped, 0);
    EXPECT_FALSE(script.isOn);
    return error.what();
  }
  return "";
}

bool Runs() {
  return false;
}

TEST(Camera, GivesPicturesWithTheirTimes) {
  Script script;
  {
    Camera camera(Settings(), std::make_unique<FakeDriver>(script));
    EXPECT_TRUE(script.isOn);
    EXPECT_EQ(script.rate, 12500u);
    EXPECT_EQ(camera.Codec().codec_id, AV_CODEC_ID_RAWVIDEO);
    EXPECT_EQ(camera.Codec().format, AV_PIX_FMT_YUYV422);
    EXPECT_EQ(camera.Codec().width, 32);
    const av::Packet packet(av_packet_alloc());
    for (uint8_t i = 0; i < 10; ++i) {
      script.pictures.push_back({std::vector<uint8_t>(1024, i), 7'000'000 + i * 80'000});
      ASSERT_TRUE(camera.Next(packet.get(), Runs));
      EXPECT_EQ(packet->size, 1024);
      EXPECT_EQ(packet->data[1023], i);
      EXPECT_EQ(packet->pts, 7'000'000 + i * 80'000);
      EXPECT_EQ(script.queued.size(), 2u);
    }
  }
  EXPECT_EQ(script.mapped, 0);
  EXPECT_FALSE(script.isOn);
}

TEST(Camera, TakesH264OnlyIfItMayBePassedOn) {
  Script script;
  script.formats = {V4L2_PIX_FMT_H264, V4L2_PIX_FMT_MJPEG};
  EXPECT_EQ(Camera(Settings(true), std::make_unique<FakeDriver>(script)).Codec().codec_id, AV_CODEC_ID_H264);
  EXPECT_EQ(Camera(Settings(false), std::make_unique<FakeDriver>(script)).Codec().codec_id, AV_CODEC_ID_MJPEG);
}

TEST(Camera, DamagedAndEmptyPicturesAreLeftOut) {
  Script script;
  Camera camera(Settings(), std::make_unique<FakeDriver>(script));
  script.pictures = {{{1}, 0, V4L2_BUF_FLAG_ERROR}, {{}, 1}, {{2}, 2}};
  const av::Packet packet(av_packet_alloc());
  ASSERT_TRUE(camera.Next(packet.get(), Runs));
  EXPECT_EQ(packet->pts, 2);
  EXPECT_EQ(script.queued.size(), 2u);
}

TEST(Camera, APictureIsNeverLongerThanItsMemory) {
  Script script;
  Camera camera(Settings(), std::make_unique<FakeDriver>(script));
  script.pictures.push_back({std::vector<uint8_t>(5000), 0});
  const av::Packet packet(av_packet_alloc());
  ASSERT_TRUE(camera.Next(packet.get(), Runs));
  EXPECT_EQ(packet->size, 4096);
}

TEST(Camera, FaultsAreSaidAndLeaveNothing) {
  Script other;
  EXPECT_THROW(Camera({"/dev/nothing"}, std::make_unique<FakeDriver>(other)), std::runtime_error);
  Script output;
  output.capabilities = V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING;
  EXPECT_EQ(Fault(output), "is no camera that gives pictures");
  Script strange;
  strange.formats = {V4L2_PIX_FMT_SBGGR8};
  EXPECT_EQ(Fault(strange), "has no format that is known here");
  Script padded;
  padded.padding = 16;
  EXPECT_EQ(Fault(padded), "has no format that is known here");
  for (const unsigned long request : {VIDIOC_QUERYCAP, VIDIOC_REQBUFS, VIDIOC_QUERYBUF, VIDIOC_QBUF, VIDIOC_STREAMON}) {
    Script script;
    script.fails = request;
    EXPECT_NE(Fault(script).find("Input/output error"), std::string::npos) << request;
  }
}

TEST(Camera, ThatIsGoneOrSilentIsSaid) {
  const auto next = [](Camera& camera) {
    const av::Packet packet(av_packet_alloc());
    camera.Next(packet.get(), Runs);
  };
  Script silent;
  EXPECT_EQ(Fault(silent, next), "gives no pictures");
  Script gone;
  gone.fails = VIDIOC_DQBUF;
  gone.error = ENODEV;
  gone.pictures.push_back({{1}, 0});
  EXPECT_EQ(Fault(gone, next), "cannot be read further: No such device");
  Script wild;
  wild.pictures.push_back({{1}, 0, 0, 99});
  EXPECT_EQ(Fault(wild, next), "gives a picture that is nowhere");
  Script stopping;
  Camera camera(Settings(), std::make_unique<FakeDriver>(stopping));
  EXPECT_FALSE(camera.Next(nullptr, [] { return true; }));
}

}  // namespace
}  // namespace mdencoder::camera_test
