// SPDX-License-Identifier: Apache-2.0
// Recordings on files that take everything, nothing, or a part. A limit on the size of files stands for a full disk.
#include "recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "recording_name.h"

namespace mdencoder::recording_test {
namespace {

using Json = nlohmann::ordered_json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint64_t kNow = 1714558830123456;  // 2024-05-01T10:20:30.123456Z

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class RecordingTest : public testing::Test {
 protected:
  RecordingTest() {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &m_before);
    std::filesystem::remove_all(m_folder);
    std::filesystem::create_directories(m_folder);
  }
  ~RecordingTest() override {
    setrlimit(RLIMIT_FSIZE, &m_before);
    std::filesystem::remove_all(m_folder);
  }
  void LimitFiles(rlim_t bytes) const {
    const rlimit limit = {bytes, m_before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  RecordingSettings Settings(const std::string& name) const { return {m_folder + name, "a", false, 0, 0}; }
  Recording::Say Complain() {
    return [this](bool, const std::string& line) { m_lines.push_back(line); };
  }
  // Adds a message of so many bytes, which are the lowest digit of its number.
  void Add(Recording& recording, int number, size_t size, uint64_t timeUs = kNow, uint64_t timeStamp = 0) const {
    std::vector<uint8_t> buffer(5 + size, static_cast<uint8_t>('0' + number % 10));
    Received received;
    received.timeUs = timeUs;
    received.timeStamp = timeStamp;
    received.buffer = buffer;
    recording.Add(received);
  }
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  const std::string m_folder = testing::TempDir() + "mdencoder_recording_" + std::to_string(getpid()) + "/";
  std::vector<std::string> m_lines;
  rlimit m_before{};
};

TEST_F(RecordingTest, KeepsMessagesAndTheirIndex) {
  Recording recording(Settings("a.klv"), Complain());
  recording.Open(kNow);
  Add(recording, 1, 3);
  Add(recording, 2, 2, kNow + 40000, 90000);
  recording.Flush();
  EXPECT_EQ(ReadFile(m_folder + "a.klv"), "11122");
  Add(recording, 3, 1);
  recording.Close();
  EXPECT_EQ(ReadFile(m_folder + "a.klv"), "111223");
  EXPECT_EQ(ReadFile(m_folder + "a.klv.json"),
            R"({"type":"recording index","version":1,"recording":"a.klv","source":"a","stream_header":false}
{"offset":0,"length":3,"time":1714558830123456}
{"offset":3,"length":2,"time":1714558830163456,"timestamp":90000}
{"offset":5,"length":1,"time":1714558830123456}
)");
  EXPECT_EQ(recording.Stored(), 3u);
  EXPECT_EQ(recording.Lost(), 0u);
  EXPECT_THAT(m_lines, IsEmpty());
}

TEST_F(RecordingTest, AFullDiskHasWholeMessagesAndTakesMoreWhenThereIsRoom) {
  Recording recording(Settings("a.klv"), Complain());
  recording.Open(kNow);
  LimitFiles(25000);
  for (int i = 0; i < 30; ++i) Add(recording, i, 1000);
  recording.Flush();
  recording.Flush();
  EXPECT_EQ(std::filesystem::file_size(m_folder + "a.klv"), 25000u);
  LimitFiles(25999);
  recording.Flush();
  EXPECT_EQ(std::filesystem::file_size(m_folder + "a.klv"), 25000u) << "a message that was cut must go";
  EXPECT_THAT(m_lines, ElementsAre("the received stream of a cannot be written further to " + m_folder +
                                   "a.klv: File too large"));
  // What fits into the memory is not lost.
  for (int i = 30; i < 400; ++i) Add(recording, i, 1000);
  EXPECT_EQ(recording.Lost(), 400u - 25 - Recording::kMostWaiting / 1000);
  LimitFiles(m_before.rlim_cur);
  recording.Flush();
  Add(recording, 9, 500);
  recording.Close();
  EXPECT_THAT(m_lines.back(), "the received stream of a continues in " + m_folder + "a.klv; " +
                                  std::to_string(recording.Lost()) + " messages in between were lost");
  EXPECT_EQ(m_lines.size(), 2u);
  const std::string file = ReadFile(m_folder + "a.klv");
  EXPECT_EQ(file.size(), (25 + Recording::kMostWaiting / 1000) * 1000 + 500);
  std::istringstream index(ReadFile(m_folder + "a.klv.json"));
  std::string line;
  std::getline(index, line);
  size_t end = 0;
  for (size_t i = 0; std::getline(index, line); ++i) {
    const Json json = Json::parse(line);
    EXPECT_EQ(json["offset"], end);
    end += json["length"].get<size_t>();
    EXPECT_EQ(file[end - 1], file[json["offset"].get<size_t>()]);
  }
  EXPECT_EQ(end, file.size());
}

TEST_F(RecordingTest, ADiskThatStaysFullLosesTheRestInOneLine) {
  Recording recording(Settings("a.klv"), Complain());
  recording.Open(kNow);
  LimitFiles(1500);
  for (int i = 0; i < 3; ++i) Add(recording, i, 1000);
  recording.Close();
  EXPECT_EQ(ReadFile(m_folder + "a.klv"), std::string(1000, '0'));
  EXPECT_EQ(recording.Stored(), 1u);
  EXPECT_EQ(recording.Lost(), 2u);
  EXPECT_EQ(m_lines.size(), 1u);
}

TEST_F(RecordingTest, AnIndexThatIsFullHasWholeLines) {
  Recording recording(Settings("a.klv"), Complain());
  recording.Open(kNow);
  LimitFiles(300);
  for (int i = 0; i < 20; ++i) Add(recording, i, 1);
  recording.Close();
  EXPECT_EQ(ReadFile(m_folder + "a.klv").size(), 20u);
  const std::string index = ReadFile(m_folder + "a.klv.json");
  EXPECT_EQ(index.back(), '\n');
  EXPECT_GT(index.size(), 150u);
  EXPECT_THAT(m_lines, ElementsAre("the index " + m_folder + "a.klv.json cannot be written further: File too large"));
  EXPECT_EQ(recording.Lost(), 0u);
}

TEST_F(RecordingTest, BeginsANewFileBySize) {
  RecordingSettings settings = Settings("a_%n.klv");
  settings.rotateSize = 2048;
  Recording recording(settings, Complain());
  recording.Open(kNow);
  for (int i = 1; i <= 5; ++i) Add(recording, i, 1000);
  Add(recording, 6, 3000);
  Add(recording, 7, 1);
  recording.Close();
  EXPECT_THAT(Names(),
              ElementsAre("a_0001.klv", "a_0001.klv.json", "a_0002.klv", "a_0002.klv.json", "a_0003.klv",
                          "a_0003.klv.json", "a_0004.klv", "a_0004.klv.json", "a_0005.klv", "a_0005.klv.json"));
  EXPECT_EQ(ReadFile(m_folder + "a_0001.klv"), std::string(1000, '1') + std::string(1000, '2'));
  EXPECT_EQ(ReadFile(m_folder + "a_0004.klv"), std::string(3000, '6')) << "a message is never cut";
  EXPECT_EQ(recording.Files(), 5u);
}

TEST_F(RecordingTest, BeginsANewFileByTimeAndTakesNoPlaceOfAnother) {
  RecordingSettings settings = Settings("%Y%m%dT%H%M%SZ_%n.klv");
  settings.rotateTime = 60;
  std::ofstream(m_folder + "20240501T102030Z_0001.klv") << "kept";
  Recording recording(settings, Complain());
  recording.Open(kNow);
  Add(recording, 1, 1);
  Add(recording, 2, 1, kNow + 29000000);
  Add(recording, 3, 1, kNow + 30000000);
  recording.Close();
  EXPECT_EQ(ReadFile(m_folder + "20240501T102030Z_0001.klv"), "kept");
  EXPECT_EQ(ReadFile(m_folder + "20240501T102030Z_0002.klv"), "12");
  EXPECT_EQ(ReadFile(m_folder + "20240501T102100Z_0003.klv"), "3");
}

TEST_F(RecordingTest, WithoutANextFileTheOldOneGoesOn) {
  RecordingSettings settings = Settings("in/a_%n.klv");
  settings.rotateSize = 1024;
  std::filesystem::create_directory(m_folder + "in");
  Recording recording(settings, Complain());
  recording.Open(kNow);
  std::filesystem::rename(m_folder + "in", m_folder + "moved");
  for (int i = 1; i <= 5; ++i) {
    Add(recording, i, 1000);
    if (i > 3) recording.Flush();
  }
  EXPECT_THAT(m_lines, ElementsAre(HasSubstr("the recording of a goes on in " + m_folder + "in/a_0001.klv: ")))
      << "one line, not one for each try";
  std::filesystem::rename(m_folder + "moved", m_folder + "in");
  Add(recording, 6, 1000);
  EXPECT_EQ(m_lines.back(), "the recording of a has a new file again: " + m_folder + "in/a_0002.klv")
      << "tries use up no numbers";
  recording.Close();
  EXPECT_EQ(ReadFile(m_folder + "in/a_0001.klv").size(), 5000u);
  EXPECT_EQ(recording.Stored(), 6u);
  EXPECT_EQ(recording.Files(), 2u);
}

TEST_F(RecordingTest, SymbolicLinksFoldersAndPipesAreRefused) {
  std::ofstream(m_folder + "target") << "kept";
  std::filesystem::create_symlink(m_folder + "target", m_folder + "link");
  ASSERT_EQ(mkfifo((m_folder + "fifo").c_str(), 0600), 0);
  const auto refusal = [&](const std::string& name) -> std::string {
    try {
      Recording(Settings(name), Complain()).Open(kNow);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_EQ(refusal("link"), "cannot write " + m_folder + "link: it is a symbolic link, which is not followed");
  EXPECT_THAT(refusal("fifo"), HasSubstr("No such device"));
  EXPECT_THAT(refusal("none/x"), HasSubstr("No such file or directory"));
  EXPECT_THAT(refusal("."), HasSubstr("Is a directory"));
  EXPECT_EQ(ReadFile(m_folder + "target"), "kept");
  std::filesystem::create_symlink(m_folder + "target", m_folder + "b.klv.json");
  EXPECT_EQ(refusal("b.klv"), "");
  EXPECT_THAT(m_lines, ElementsAre(HasSubstr("the recording of a has no index: cannot write ")));
}

TEST(RecordingName, PatternsAreThoseOfTheTimeAndANumber) {
  EXPECT_EQ(ExpandPattern("/x%/a_%Y%m%dT%H%M%SZ_%n%%.klv", kNow, 12), "/x%/a_20240501T102030Z_0012%.klv");
  EXPECT_EQ(PatternFault("/%q/a_%Y%m%dT%H%M%S_%n%%.klv", true), nullptr);
  EXPECT_STREQ(PatternFault("a_%Y", true), "a name with %n in it, because the recording is rotated");
  EXPECT_EQ(PatternFault("a_%Y", false), nullptr);
  for (const char* wrong : {"%", "a%", "%q", "%-d", "%s"}) EXPECT_NE(PatternFault(wrong, false), nullptr) << wrong;
  EXPECT_FALSE(IsPattern("a%%"));
  EXPECT_FALSE(IsPattern("%Y/a"));
  EXPECT_TRUE(IsPattern("a%S"));
  EXPECT_FALSE(HasNumber("a%%n"));
}

TEST(RecordingName, SizesHaveUnits) {
  EXPECT_EQ(ParseSize("1024"), 1024u);
  EXPECT_EQ(ParseSize("1k"), 1024u);
  EXPECT_EQ(ParseSize("64M"), uint64_t{64} << 20);
  EXPECT_EQ(ParseSize("2G"), uint64_t{2} << 30);
  for (const char* wrong : {"", "k", "1023", "0k", "1T", "-1M", "9999999G", "1 M", "1.5M"}) {
    EXPECT_FALSE(ParseSize(wrong)) << wrong;
  }
}

}  // namespace
}  // namespace mdencoder::recording_test
