// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "config.h"
#include "ini_file.h"
#include "reload.h"
#include "stream_clock.h"
#include "stream_loop.h"
#include "stream_report.h"
#include "stream_settings.h"
#include "streams.h"
#include "ts_output.h"
#include "values.h"

namespace mdencoder::stream_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int64_t kSecond = 1'000'000;

std::string Source() {
  return "[cam]\ninput = udp\nport = 5000\n[mast]\ninput = udp\nport = 5001\n";
}

Config Read(const std::string& stream) {
  return MakeConfig(ParseIni(Source() + stream), "/conf/demo.ini");
}

std::string Complaint(const std::string& stream) {
  try {
    Read(stream);
  } catch (const ConfigError& error) {
    return error.what();
  }
  return "accepted";
}

// --- settings ----------------------------------------------------------------------------------------

TEST(StreamSection, HasDefaults) {
  const Config config = Read("[stream flight]\nurl = flight.ts\n");
  EXPECT_EQ(config.sources.size(), 2u);
  ASSERT_EQ(config.streams.size(), 1u);
  const StreamSettings& stream = config.streams[0];
  EXPECT_EQ(stream.name, "flight");
  EXPECT_EQ(stream.kind, StreamSettings::Video::Scene);
  EXPECT_FALSE(stream.copies);
  EXPECT_EQ(stream.width, 640);
  EXPECT_EQ(stream.height, 360);
  EXPECT_EQ(stream.rate, 25);
  EXPECT_TRUE(stream.isSynchronous);
  EXPECT_FALSE(stream.isMerged);
  EXPECT_TRUE(stream.sources.empty());
  EXPECT_EQ(stream.timeBound, 2);
  ASSERT_EQ(stream.outputs.size(), 1u);
  EXPECT_EQ(stream.outputs[0].kind, StreamOutput::Kind::File);
  EXPECT_EQ(stream.outputs[0].text, "/conf/flight.ts");
}

TEST(StreamSection, HasEveryKey) {
  const Config config = Read(
      "[stream a-1]\nvideo = pictures.mp4\nsize = 1280x720\nrate = 29.97\nbitrate = 2000000\nencode = h264\n"
      "sources = cam, mast\nmetadata = asynchronous\ntracks = merged\nurl = udp://239.1.2.3:5000?ttl=3&interface=eth0\n"
      "url2 = srt://[::1]:5001?mode=listener\nurl3 = /tmp/out.ts\nurl4 = udp://[ff02::1]:7\nhls = pages\ntime_bound = 0.5\n");
  const StreamSettings& stream = config.streams.at(0);
  EXPECT_EQ(stream.kind, StreamSettings::Video::File);
  EXPECT_EQ(stream.video, "/conf/pictures.mp4");
  EXPECT_EQ(stream.width, 1280);
  EXPECT_EQ(stream.rate, 29.97);
  EXPECT_FALSE(stream.copies);
  EXPECT_THAT(stream.sources, ElementsAre("cam", "mast"));
  EXPECT_FALSE(stream.isSynchronous);
  EXPECT_TRUE(stream.isMerged);
  EXPECT_EQ(stream.hls, "/conf/pages");
  ASSERT_EQ(stream.outputs.size(), 4u);
  EXPECT_EQ(stream.outputs[0].host, "239.1.2.3");
  EXPECT_EQ(stream.outputs[0].port, 5000);
  EXPECT_EQ(stream.outputs[0].ttl, 3);
  EXPECT_TRUE(stream.outputs[0].hasTtl);
  EXPECT_EQ(stream.outputs[0].interface, "eth0");
  EXPECT_EQ(stream.outputs[1].kind, StreamOutput::Kind::Srt);
  EXPECT_EQ(stream.outputs[2].text, "/tmp/out.ts");
  EXPECT_EQ(stream.outputs[3].host, "ff02::1");
}

TEST(StreamSection, FilesAndUrlsAreCopiedUnlessTheKeySaysOtherwise) {
  EXPECT_TRUE(Read("[stream a]\nvideo = pictures.mp4\n").streams[0].copies);
  const StreamSettings live = Read("[stream a]\nvideo = rtsp://camera/1\n").streams[0];
  EXPECT_EQ(live.kind, StreamSettings::Video::Live);
  EXPECT_TRUE(live.copies);
  const StreamSettings camera = Read("[stream a]\nvideo = v4l2:/dev/video0\n").streams[0];
  EXPECT_EQ(camera.kind, StreamSettings::Video::Camera);
  EXPECT_EQ(camera.video, "/dev/video0");
  EXPECT_THAT(Complaint("[stream a]\nvideo = v4l2:video0\n"), HasSubstr("must be v4l2: and the path of a camera"));
}

TEST(StreamSection, AVideoOfHttpsMayHaveAuthoritiesOfItsOwn) {
  const std::string https = "[stream a]\nvideo = https://camera/v.ts\n";
  EXPECT_EQ(Read(https + "tls_ca = ca.pem\n").streams[0].authorities, "/conf/ca.pem");
  EXPECT_EQ(Read(https).streams[0].authorities, "");
  EXPECT_NE(Read(https + "tls_ca = ca.pem\n").streams[0], Read(https).streams[0]);
  for (const char* video : {"", "video = v.mp4\n", "video = http://camera/v.ts\n", "video = rtsps://camera/v\n"}) {
    EXPECT_THAT(Complaint(std::string("[stream a]\ntls_ca = ca.pem\n") + video),
                HasSubstr("[stream a] tls_ca is allowed only with video = https://"));
  }
}

TEST(StreamSection, FaultsAreNamed) {
  EXPECT_THAT(Complaint("[stream a]\nurl = ftp://x/y\n"), HasSubstr("[stream a] url must be a file, udp://HOST:PORT"));
  EXPECT_THAT(Complaint("[stream a]\nurl = udp://239.1.2.3\n"), HasSubstr("[stream a] url must be"));
  EXPECT_THAT(Complaint("[stream a]\nurl = udp://239.1.2.3:5?ttl=300\n"), HasSubstr("[stream a] url must be"));
  EXPECT_THAT(Complaint("[stream a]\nurl = udp://239.1.2.3:5?hops=3\n"), HasSubstr("[stream a] url must be"));
  EXPECT_THAT(Complaint("[stream a]\nsize = 640\n"), HasSubstr("[stream a] size must be WIDTHxHEIGHT"));
  EXPECT_THAT(Complaint("[stream a]\nsize = 641x360\n"), HasSubstr("even numbers"));
  EXPECT_THAT(Complaint("[stream a]\nencode = copy\n"), HasSubstr("encode must be h264 with video = scene"));
  EXPECT_THAT(Complaint("[stream a]\nvideo = ftp://x\n"),
              HasSubstr("[stream a] video must be scene, a file, v4l2:/dev/videoN, or a URL"));
  EXPECT_THAT(Complaint("[stream a]\nsources = cam, tail\n"),
              HasSubstr("[stream a] sources must be a list of sources of"));
  EXPECT_THAT(Complaint("[stream a]\nrate = 5\n[stream  a]\nrate = 5\n"), HasSubstr("[stream a] is there twice"));
  EXPECT_THAT(Complaint("[stream a b]\nrate = 5\n"), HasSubstr("must be \"stream \" and a name"));
  EXPECT_THAT(Complaint("[stream a]\nrates = 3\n"), HasSubstr("unknown key, did you mean \"rate\"?"));
  EXPECT_THAT(Complaint("[stream a]\nurl = x.ts\n[stream b]\nurl = x.ts\n"),
              HasSubstr("[stream b] url must be a place"));
}

TEST(StreamSection, CannotChangeByAReload) {
  const CheckedConfig running = {Read("[stream a]\nurl = a.ts\n"), {}};
  EXPECT_NO_THROW(Compare(running, running));
  for (const char* const text : {"", "[stream a]\nurl = b.ts\n", "[stream a]\nurl = a.ts\n[stream b]\nrate = 5\n"}) {
    const CheckedConfig fresh = {Read(text), {}};
    try {
      Compare(running, fresh);
      ADD_FAILURE() << text;
    } catch (const ConfigError& error) {
      EXPECT_THAT(error.what(), HasSubstr("cannot change while the program runs; restart it"));
    }
  }
}

std::string LoopComplaint(const std::string& text) {
  const Config config = MakeConfig(ParseIni(text), "/conf/demo.ini");
  Address own;
  own.family = AF_INET;
  own.bytes = {192, 0, 2, 7};
  try {
    CheckStreamLoops(config, {own});
  } catch (const ConfigError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(StreamLoop, AnOutputThatLeadsBackIsRefused) {
  const std::string back = "[back]\nurl = udp://239.1.2.3:5004\n";
  EXPECT_EQ(
      LoopComplaint(back + "[stream a]\nurl = a.ts\nurl2 = udp://239.1.2.3:5004?ttl=3\n"),
      "[stream a] url2 must be a place that does not lead back into the stream, not \"udp://239.1.2.3:5004?ttl=3\": "
      "[back] receives it, and the stream carries that");
  for (const char* const host : {"127.0.0.1", "192.0.2.7", "localhost", "[::1]", "0.0.0.0"}) {
    const std::string stream = std::string("[stream a]\nurl = udp://") + host + ":5000\n";
    EXPECT_THAT(LoopComplaint(Source() + stream), HasSubstr("[cam] receives it"));
    EXPECT_EQ(LoopComplaint(Source() + stream + "sources = mast\n"), "accepted");
  }
}

TEST(StreamLoop, OtherPlacesAreNot) {
  const std::string back = "[back]\nurl = udp://239.1.2.3:5004\n[cam]\nurl = flight.klv\n";
  for (const char* const url :
       {"udp://239.1.2.4:5004", "udp://239.1.2.3:5005", "udp://198.51.100.1:5004", "srt://127.0.0.1:5004"}) {
    EXPECT_EQ(LoopComplaint(back + "[stream a]\nurl = " + url + "\n"), "accepted") << url;
  }
}

TEST(StreamLoop, ASourceOfAGroupHearsThatGroupOnly) {
  const auto complaint = [](const std::string& source, const std::string& url) {
    return LoopComplaint("[cam]\ninput = udp\nport = 5000\n" + source + "[stream a]\nurl = " + url + "\n");
  };
  EXPECT_THAT(complaint("address = 239.1.2.3\n", "udp://239.1.2.3:5000"), HasSubstr("[cam] receives it"));
  EXPECT_EQ(complaint("address = 239.1.2.3\n", "udp://239.1.2.4:5000"), "accepted");
  EXPECT_THAT(complaint("", "udp://239.1.2.4:5000"), HasSubstr("[cam] receives it")) << "any group may reach the port";
  EXPECT_THAT(complaint("address = 239.1.2.3\n", "udp://127.0.0.1:5000"), HasSubstr("[cam] receives it"));
}

TEST(StreamLoop, ASourceWithAUrlHearsItsPlace) {
  std::string sources;
  for (int i = 0; i < 5; ++i) {
    sources +=
        "[v" + std::to_string(i) + "]\nurl = udp://239.1.2." + std::to_string(i) + ":500" + std::to_string(i) + "\n";
  }
  EXPECT_THAT(LoopComplaint(sources + "[stream a]\nurl = udp://239.1.2.0:5000\n"), HasSubstr("[v0] receives it"));
  EXPECT_THAT(LoopComplaint(sources + "[stream a]\nurl = udp://239.1.2.4:5004\n"), HasSubstr("[v4] receives it"))
      << "it has no video input of the library";
  EXPECT_THAT(LoopComplaint("[a]\nurl = udp://:5000\n[stream a]\nurl = udp://239.1.2.9:5000\n"),
              HasSubstr("[a] receives it"));
}

TEST(StreamLoop, AddressesOfThisMachineAreKnown) {
  const auto complaint = [](const std::string& host) {
    return LoopComplaint(Source() + "[stream a]\nurl = udp://" + host + ":5001\n");
  };
  for (const char* const host : {"127.255.0.9", "[::]"}) EXPECT_THAT(complaint(host), HasSubstr("[mast] receives it"));
  for (const char* const host : {"0.0.0.1", "128.0.0.1", "192.0.2.8", "[7f00::1]", "[::2]", "[1::1]", "host.example"}) {
    EXPECT_EQ(complaint(host), "accepted") << host;
  }
}

TEST(StreamLoop, IsLookedForInEveryStreamAndSource) {
  const std::string streams = "[stream a]\nsources = cam\nurl = udp://127.0.0.1:5001\n[stream b]\nurl = b.ts\nurl2 = ";
  EXPECT_THAT(LoopComplaint(Source() + streams + "udp://127.0.0.2:5001\n"),
              HasSubstr("[stream b] url2 must be a place that does not lead back into the stream"));
  EXPECT_EQ(LoopComplaint(Source() + streams + "udp://127.0.0.2:5002\n"), "accepted");
  EXPECT_EQ(LoopComplaint("[played]\nurl = a.pcap\n[stream a]\nurl = udp://127.0.0.1:5001\n"), "accepted")
      << "nothing reaches what is played";
}

// --- clock -------------------------------------------------------------------------------------------

TEST(StreamClock, ATimeNearItsArrivalIsUsed) {
  StreamClock clock;
  for (int64_t i = 0; i < 1000; ++i) {
    const int64_t arrival = i * kSecond / 10;
    EXPECT_EQ(clock.Push(arrival - 50'000 - i % 7 * 20'000, arrival), arrival - 50'000 - i % 7 * 20'000);
  }
  EXPECT_EQ(clock.Snapshot().offsetUs, 0);
  EXPECT_EQ(clock.Snapshot().differenceUs, 50'000);
  EXPECT_EQ(clock.Snapshot().mapped, 1000u);
}

TEST(StreamClock, WithoutATimeThatFitsTheArrivalIsUsed) {
  StreamClock clock;
  EXPECT_EQ(clock.Push(std::nullopt, 5), 5);
  EXPECT_EQ(clock.Push(100 * kSecond, 5), 5);
  EXPECT_EQ(clock.Push(-3 * kSecond, 5), 5);
  EXPECT_EQ(clock.Push(INT64_MAX / 4, 5), 5);
  EXPECT_EQ(clock.Snapshot().replaced, 3u);
  EXPECT_EQ(clock.Snapshot().mapped, 0u);
}

TEST(StreamClock, AClockThatIsAheadOrBehindIsCorrectedAtOnce) {
  StreamClock ahead;
  EXPECT_EQ(ahead.Push(11 * kSecond, 10 * kSecond), 10 * kSecond + StreamClock::kMostAheadUs);
  StreamClock behind;
  EXPECT_EQ(behind.Push(85 * kSecond / 10, 10 * kSecond), 10 * kSecond - StreamClock::kMostLateUs);
}

TEST(StreamClock, ADriftIsFollowedSlowlyAndShown) {
  StreamClock clock;
  int64_t last = 0;
  // The clock of the messages goes 200 ppm too fast for an hour.
  for (int64_t i = 0; i < 36000; ++i) {
    const int64_t arrival = 10 * kSecond + i * kSecond / 10;
    const int64_t mapped = clock.Push(arrival + i * 20, arrival);
    if (i != 0) {
      EXPECT_NEAR(static_cast<double>(mapped - last), 100'000, 120) << i;
    }
    EXPECT_LE(mapped - arrival, StreamClock::kMostAheadUs + 6'000) << i;
    last = mapped;
  }
  EXPECT_NEAR(clock.Snapshot().driftPpm, -200, 2);
  EXPECT_NEAR(static_cast<double>(clock.Snapshot().differenceUs), -720'000, 2'000);
}

TEST(StreamClock, LateMessagesDoNotMoveTheOffset) {
  StreamClock clock;
  for (int64_t i = 0; i < 600; ++i) {
    const int64_t arrival = i * kSecond / 10;
    clock.Push(arrival - (i % 10 == 0 ? 100'000 : 1'500'000), arrival);
  }
  EXPECT_EQ(clock.Snapshot().offsetUs, 0);
}

TEST(StreamClock, TheQuestionTeachesNothing) {
  StreamClock clock;
  clock.Push(85 * kSecond / 10, 10 * kSecond);
  const auto before = clock.Snapshot();
  EXPECT_EQ(clock.Map(10 * kSecond, 10 * kSecond), 10 * kSecond + before.offsetUs);
  EXPECT_EQ(clock.Map(std::nullopt, 7), 7);
  EXPECT_EQ(clock.Snapshot().mapped, before.mapped);
}

// Gives a clock messages each tenth of a second from one time of arrival to another.
void Feed(StreamClock& clock, int64_t fromUs, int64_t toUs, int64_t differenceUs) {
  for (int64_t arrival = fromUs; arrival <= toUs; arrival += kSecond / 10) clock.Push(arrival - differenceUs, arrival);
}

TEST(StreamClock, TheQuestionKeepsToTheBound) {
  const StreamClock clock;
  EXPECT_EQ(clock.Map(100 * kSecond, 5), 5);
  EXPECT_EQ(clock.Map(-3 * kSecond, 5), 5);
}

TEST(StreamClock, ALongerWayIsSeenAfterAWhile) {
  StreamClock clock;
  Feed(clock, 0, 6 * kSecond, 50'000);
  Feed(clock, 7 * kSecond, 20 * kSecond, 100'000);
  EXPECT_EQ(clock.Snapshot().differenceUs, 100'000);
}

TEST(StreamClock, AMachineWhoseClockIsSetBackLearnsOn) {
  StreamClock clock;
  Feed(clock, 1000 * kSecond, 1011 * kSecond, 50'000);
  Feed(clock, 10 * kSecond, 21 * kSecond, 100'000);
  EXPECT_EQ(clock.Snapshot().differenceUs, 100'000);
  EXPECT_EQ(clock.Snapshot().driftPpm, 0) << "there is no time between that could be divided by";
}

TEST(StreamClock, ASilenceIsNoReasonToJump) {
  StreamClock clock;
  clock.Push(0, 15 * kSecond / 10);
  EXPECT_EQ(clock.Snapshot().offsetUs, 600'000);
  clock.Push(1000 * kSecond, 1000 * kSecond);
  EXPECT_EQ(clock.Snapshot().offsetUs, 600'000 - 5'000);
}

TEST(StreamClock, FastMessagesAreFollowedAsWell) {
  StreamClock clock;
  clock.Push(0, 15 * kSecond / 10);
  for (int64_t arrival = 2 * kSecond; arrival < 22 * kSecond; arrival += 500) clock.Push(arrival, arrival);
  EXPECT_NEAR(static_cast<double>(clock.Snapshot().offsetUs), 600'000 - 15'500, 600);
}

// --- report ------------------------------------------------------------------------------------------

TEST(StreamReport, IsShownInLinesAndAsJson) {
  StreamReport report;
  report.name = "flight";
  report.video = "scene";
  report.frames = 1;
  report.framesLate = 2;
  report.messages = 3;
  report.lost = 4;
  report.clockUs = 5'500'000;
  report.wallOffsetUs = -6'500;
  report.tracks.push_back({"cam", 0x101, 7, 8, 9, 10'500, -11'500, -12.4});
  report.outputs.push_back({"a.ts", true, 13, 14});
  report.outputs.push_back({"b.ts", false, 15, 16});
  std::vector<std::string> lines = {"before"};
  AddStreamLines({report}, lines);
  EXPECT_THAT(lines, ElementsAre("before", "stream flight: 1 frames, 2 left out; 3 messages, 4 lost",
                                 "    cam in PID 0x101: 7 messages, 8 late, 9 by arrival; clock -11.5 ms off, followed "
                                 "by +10.5 ms, drift -12 ppm",
                                 "    a.ts: 13 bytes, 14 lost", "    b.ts: 15 bytes, 16 lost; cannot be written"));
  EXPECT_EQ(StreamsJson({report}).dump(),
            R"([{"name":"flight","video":"scene","has_video":false,"frames":1,"frames_late":2,"messages":3,"lost":4,)"
            R"("clock":5.5,"wall_offset_ms":-6.5,"tracks":[{"source":"cam","pid":257,"messages":7,"late":8,)"
            R"("by_arrival":9,"offset_ms":10.5,"difference_ms":-11.5,"drift_ppm":-12.4}],"outputs":[)"
            R"({"name":"a.ts","good":true,"bytes":13,"lost":14},{"name":"b.ts","good":false,"bytes":15,"lost":16}]}])");
}

// --- outputs -----------------------------------------------------------------------------------------

class FakeSink : public TsSink {
 public:
  struct Script {
    std::vector<std::string> failures;  // of the next writes; "" for success
    std::vector<uint8_t> written;
    std::function<void(size_t number)> onWrite;  // called before each
    size_t writes = 0;
  };
  explicit FakeSink(Script& script) : m_script(script) {}
  bool Open(std::string&) override { return true; }
  bool IsOpen() const override { return true; }
  bool Write(const TsChunk& chunk, std::string& reason) override {
    if (m_script.onWrite) m_script.onWrite(m_script.writes++);
    if (!m_script.failures.empty()) {
      reason = m_script.failures.front();
      m_script.failures.erase(m_script.failures.begin());
      if (!reason.empty()) return false;
    }
    m_script.written.insert(m_script.written.end(), chunk.bytes.begin(), chunk.bytes.end());
    return true;
  }

 private:
  Script& m_script;
};

std::shared_ptr<const TsChunk> Chunk(uint8_t byte, int64_t timeUs = 0, bool isKey = false, size_t size = 188) {
  return std::make_shared<const TsChunk>(TsChunk{std::vector<uint8_t>(size, byte), timeUs, isKey});
}

TEST(TsOutput, AFailureAndItsEndAreOneLineEach) {
  FakeSink::Script script;
  script.failures = {"", "No space left on device", "No space left on device", ""};
  std::vector<std::string> lines;
  TsOutput output(
      "stream a: a.ts", [&](const std::function<bool()>&) { return std::make_unique<FakeSink>(script); },
      [&](bool isWarning, const std::string& line) { lines.push_back((isWarning ? "! " : "") + line); });
  for (uint8_t i = 0; i < 5; ++i) output.Push(Chunk(i));
  output.Finish();
  EXPECT_THAT(lines, ElementsAre("! stream a: a.ts cannot be written: No space left on device",
                                 "stream a: a.ts is written again; 376 bytes in between were lost"));
  EXPECT_EQ(script.written.size(), 3u * 188);
  const TsOutput::Counts counts = output.Snapshot();
  EXPECT_EQ(counts.bytes, 3u * 188);
  EXPECT_EQ(counts.lost, 2u * 188);
  EXPECT_TRUE(counts.isGood);
}

TEST(TsOutput, EachLineTellsOfItsOwnLosses) {
  FakeSink::Script script;
  script.failures = {"full", "", "gone", "", ""};
  std::vector<std::string> lines;
  TsOutput output(
      "a", [&](const std::function<bool()>&) { return std::make_unique<FakeSink>(script); },
      [&](bool, const std::string& line) { lines.push_back(line); });
  for (uint8_t i = 0; i < 5; ++i) output.Push(Chunk(i));
  output.Finish();
  EXPECT_THAT(lines, ElementsAre("a cannot be written: full", "a is written again; 188 bytes in between were lost",
                                 "a cannot be written: gone", "a is written again; 188 bytes in between were lost"));
}

TEST(TsOutput, ThatIsTooSlowLosesWhatDoesNotFit) {
  constexpr size_t kPiece = size_t{1} << 20;
  constexpr size_t kFitting = TsOutput::kMostWaiting / kPiece;
  std::promise<void> begun;
  std::promise<void> allowed;
  std::promise<void> emptied;
  std::promise<void> done;
  FakeSink::Script script;
  script.onWrite = [&, may = allowed.get_future().share()](size_t number) {
    if (number == 0) {
      begun.set_value();
      may.wait();
    }
    if (number == kFitting) emptied.set_value();
    if (number == 2 * kFitting) done.set_value();
  };
  std::vector<std::string> lines;
  TsOutput output(
      "a", [&](const std::function<bool()>&) { return std::make_unique<FakeSink>(script); },
      [&](bool, const std::string& line) { lines.push_back(line); });
  const auto push = [&](size_t count) {
    for (size_t i = 0; i < count; ++i) output.Push(Chunk(0, 0, false, kPiece));
  };
  push(1);
  begun.get_future().wait();
  push(kFitting);
  const uint64_t lostOfFitting = output.Snapshot().lost;
  push(1);
  allowed.set_value();  // whatever follows, the thread must come to its end
  ASSERT_EQ(lostOfFitting, 0u);
  ASSERT_EQ(output.Snapshot().lost, kPiece);
  emptied.get_future().wait();
  push(kFitting);
  ASSERT_EQ(output.Snapshot().lost, kPiece) << "there is room again";
  done.get_future().wait();
  output.Finish();
  push(2 * kFitting);
  EXPECT_EQ(output.Snapshot().lost, kPiece) << "nothing is taken after the end";
  EXPECT_EQ(output.Snapshot().bytes, (1 + 2 * kFitting) * kPiece);
  EXPECT_THAT(lines, ElementsAre("a cannot be written: it is too slow",
                                 "a is written again; 1048576 bytes in between were lost"));
}

class Folder : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = testing::TempDir() + "streamXXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    m_path = name;
  }
  void TearDown() override { std::filesystem::remove_all(m_path); }
  std::string Text(const std::string& name) const {
    std::ifstream file(m_path + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::string m_path;
};

class StreamSegments : public Folder {};

TEST_F(StreamSegments, BeginWithKeyFramesAndAreListedWhenTheyAreComplete) {
  const auto sink = MakeSegmentSink(m_path + "/pages", "a");
  EXPECT_EQ(Text("pages/a.m3u8"), "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:0\n");
  std::string reason;
  // A key frame each second, and another frame between two of them.
  for (int64_t half = -1; half < 50; ++half) {
    ASSERT_TRUE(
        sink->Write(*Chunk(static_cast<uint8_t>(half), half * kSecond / 2, half >= 0 && half % 2 == 0), reason));
  }
  EXPECT_EQ(Text("pages/a-000011.ts").substr(0, 188), std::string(188, '\x2C'));  // 44 half seconds
  EXPECT_EQ(Text("pages/a-000011.ts").size(), 4u * 188);
  EXPECT_THAT(Text("pages/a.m3u8"),
              HasSubstr("#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:6\n#EXTINF:2.000,\na-000006.ts\n"));
  EXPECT_THAT(Text("pages/a.m3u8"), testing::EndsWith("a-000011.ts\n"));
  EXPECT_TRUE(std::filesystem::exists(m_path + "/pages/a-000003.ts"));
  EXPECT_FALSE(std::filesystem::exists(m_path + "/pages/a-000002.ts"));
  sink->Close();
  EXPECT_THAT(Text("pages/a.m3u8"), testing::EndsWith("#EXTINF:0.500,\na-000012.ts\n#EXT-X-ENDLIST\n"));
}

TEST_F(StreamSegments, AreNeverLongerThanThePlaylistSays) {
  const auto sink = MakeSegmentSink(m_path, "a");
  std::string reason;
  for (const int64_t time : {int64_t{0}, int64_t{2'200'000}}) ASSERT_TRUE(sink->Write(*Chunk(0, time, true), reason));
  EXPECT_THAT(Text("a.m3u8"), HasSubstr("#EXT-X-TARGETDURATION:3\n#EXT-X-MEDIA-SEQUENCE:0\n#EXTINF:2.200,\n"));
}

class StreamFile : public Folder {};

TEST_F(StreamFile, HasWholeChunksOnAFullDisk) {
  StreamOutput output;
  output.text = m_path + "/a.ts";
  const auto sink = MakeSink(output, [] { return false; });
  std::string reason;
  EXPECT_TRUE(sink->Write(*Chunk(1), reason));
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit full = {188 + 100, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
  EXPECT_FALSE(sink->Write(*Chunk(2), reason));
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(reason, "File too large");
  EXPECT_EQ(Text("a.ts"), std::string(188, '\1'));
  EXPECT_TRUE(sink->Write(*Chunk(3), reason));
  EXPECT_EQ(Text("a.ts"), std::string(188, '\1') + std::string(188, '\3'));
}

TEST_F(StreamFile, ThatCannotBeMadeIsAnErrorAtOnce) {
  StreamOutput output;
  output.text = m_path + "/no/such/folder.ts";
  EXPECT_THROW(MakeSink(output, [] { return false; }), std::runtime_error);
}

}  // namespace
}  // namespace mdencoder::stream_test
