// SPDX-License-Identifier: Apache-2.0
// What libavformat may open, and for whom. Servers and their certificates are those of an end-to-end test.
#include "media_input.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace media_input {
namespace {

namespace fs = std::filesystem;

constexpr Purpose kPurposes[] = {Purpose::Klv, Purpose::Video, Purpose::Look};
constexpr char kRefused[] = "its format is not among those that are read";

class MediaInputTest : public testing::Test {
 protected:
  MediaInputTest() {
    Prepare();
    fs::create_directory(m_folder);
  }
  ~MediaInputTest() override { fs::remove_all(m_folder); }

  std::string Write(const std::string& name, std::string_view bytes) {
    const std::string path = m_folder / name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  // Returns the fault, and closes what was opened.
  static std::string Try(Purpose purpose, const std::string& name, const std::string& authorities = "") {
    AVFormatContext* context = MakeContext();
    std::string fault = Open(context, {purpose, name, authorities});
    EXPECT_EQ(context == nullptr, !fault.empty()) << fault;
    avformat_close_input(&context);
    return fault;
  }

  const fs::path m_folder = fs::temp_directory_path() / ("media_input." + std::to_string(getpid()));
};

// Packets without a payload.
std::string TransportStream() {
  std::string packet(188, '\xFF');
  packet.replace(0, 4, "\x47\x1F\xFF\x10");
  std::string stream;
  for (int i = 0; i < 100; ++i) stream += packet;
  return stream;
}

// The beginnings of parameter sets and of a key frame.
std::string H264() {
  using std::string_view_literals::operator""sv;
  std::string stream;
  for (int i = 0; i < 5; ++i) {
    stream += "\0\0\0\1\x67\x42\xC0\x1E\xD9\x01\x41\xFB\0\0\0\1\x68\xCE\x38\x80\0\0\0\1\x65\x88\x84\x40\x40\x40"sv;
  }
  return stream;
}

TEST_F(MediaInputTest, AnUnknownProtocolIsNotTried) {
  for (const Purpose purpose : kPurposes) {
    for (const char* url :
         {"ftp://h/x", "hls+http://h/x", "concat://x", "subfile://x", "file:///etc/passwd", "HTTP://h/x"}) {
      EXPECT_FALSE(KnowsProtocol(purpose, url)) << url;
      EXPECT_EQ(Try(purpose, url), "unknown protocol") << url;
    }
    for (const char* url :
         {"srt://h:1", "tcp://h:1", "http://h/x", "https://h/x", "rtsp://h/x", "rtsps://h/x", "a.ts"}) {
      EXPECT_TRUE(KnowsProtocol(purpose, url)) << url;
    }
  }
}

TEST_F(MediaInputTest, DatagramsOfKlvAreNotLibavformatsToReceive) {
  for (const char* url : {"udp://127.0.0.1:1", "rtp://127.0.0.1:1"}) {
    EXPECT_FALSE(KnowsProtocol(Purpose::Klv, url)) << url;
    EXPECT_TRUE(KnowsProtocol(Purpose::Video, url)) << url;
    EXPECT_TRUE(KnowsProtocol(Purpose::Look, url)) << url;
  }
}

TEST_F(MediaInputTest, PlaylistsAreRefusedAndOtherFilesAreNot) {
  const std::string stream = Write("a.ts", TransportStream());
  const std::string list = Write("a.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:2,\na.ts\n#EXT-X-ENDLIST\n");
  const std::string script = Write("a.ffconcat", "ffconcat version 1.0\nfile a.ts\n");
  for (const Purpose purpose : kPurposes) {
    EXPECT_EQ(Try(purpose, stream), "");
    EXPECT_EQ(Try(purpose, list), kRefused);
    EXPECT_EQ(Try(purpose, script), kRefused);
  }
}

TEST_F(MediaInputTest, BareVideoIsForThoseWhoWantPictures) {
  const std::string video = Write("a.h264", H264());
  EXPECT_EQ(Try(Purpose::Klv, video), kRefused);
  EXPECT_EQ(Try(Purpose::Video, video), "");
  EXPECT_EQ(Try(Purpose::Look, video), "");
}

TEST_F(MediaInputTest, OtherContainersAreOnlyLookedInto) {
  const std::string other = Write("a.ogg", "OggS");
  EXPECT_EQ(Try(Purpose::Klv, other), kRefused);
  EXPECT_EQ(Try(Purpose::Video, other), kRefused);
  EXPECT_NE(Try(Purpose::Look, other), kRefused);
}

TEST_F(MediaInputTest, ASessionDescriptionIsNoFileOfVideo) {
  const std::string description =
      Write("a.sdp", "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=a\nc=IN IP4 127.0.0.1\nt=0 0\nm=video 0 RTP/AVP 96\n");
  EXPECT_EQ(Try(Purpose::Video, description), "Invalid data found when processing input");
  EXPECT_EQ(Try(Purpose::Klv, description), "");
}

TEST_F(MediaInputTest, AFileThatIsNotThereIsSaid) {
  EXPECT_EQ(Try(Purpose::Klv, m_folder / "none.ts"), "No such file or directory");
  const std::string none = m_folder / "none.pem";
  EXPECT_EQ(Try(Purpose::Klv, "https://127.0.0.1:1/x", none),
            "the authorities in " + none + " cannot be read: No such file or directory");
}

TEST_F(MediaInputTest, TracksAndBlocksAreLimited) {
  AVFormatContext* const context = MakeContext();
  EXPECT_EQ(context->max_streams, 64);
  avformat_free_context(context);
  EXPECT_EQ(av_malloc((size_t{64} << 20) + 1), nullptr);
  void* const block = av_malloc(size_t{63} << 20);
  EXPECT_NE(block, nullptr);
  av_free(block);
}

std::string g_logged;
void KeepLine(void*, int, const char* format, va_list) {
  g_logged += format;
}

TEST_F(MediaInputTest, MessagesGoToTheLogOfWhoeverGaveOne) {
  av_log(nullptr, AV_LOG_ERROR, "before");
  Prepare(KeepLine);
  Prepare();
  av_log(nullptr, AV_LOG_ERROR, "after");
  EXPECT_EQ(g_logged, "after");
}

}  // namespace
}  // namespace media_input
