// SPDX-License-Identifier: Apache-2.0
// Whole runs with a fake library. Its functions deliver messages to the callback on a thread of their own, as the real
// library does, and record the encoder's calls.
#include "session.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace mdencoder::session_test {
namespace {

using Json = nlohmann::ordered_json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct OpenedSource {
  MDATA_SRC_CFG record;
  bool open = true;
  MDATA_SRC_STATS statistics{};
};

// State of the fake library. Only the main thread calls it; the deliveries run on their own thread.
struct FakeLibrary {
  std::vector<std::string> calls;
  std::deque<OpenedSource> sources;
  std::atomic<int> heldBuffers{0};
  int failOpenAt = -1;
  ULONG corrupt = 0;  // count that new sources report
  bool failInit = false;
  std::function<void()> onOpen;  // after each opening
  std::thread deliveries;
};
FakeLibrary* g_fake = nullptr;

OpenedSource* Opened(HMDATASRC handle) {
  return reinterpret_cast<OpenedSource*>(handle);
}

BOOL FakeInit(DWORD capabilities) {
  g_fake->calls.push_back("init " + std::to_string(capabilities));
  return g_fake->failInit ? FALSE : TRUE;
}
void FakeShutdown() {
  g_fake->calls.push_back("shutdown");
}
BOOL FakeOpen(const MDATA_SRC_CFG* record, HMDATASRC* handle) {
  g_fake->calls.push_back("open " + std::to_string(record->nIndex));
  if (static_cast<int>(g_fake->sources.size()) == g_fake->failOpenAt) return FALSE;
  g_fake->sources.push_back({*record});
  g_fake->sources.back().statistics.nRxCorruptMessages = g_fake->corrupt;
  *handle = reinterpret_cast<HMDATASRC>(&g_fake->sources.back());
  if (g_fake->onOpen) g_fake->onOpen();
  return TRUE;
}
BOOL FakeClose(HMDATASRC* handle) {
  if (g_fake->deliveries.joinable()) g_fake->deliveries.join();
  EXPECT_TRUE(Opened(*handle)->open) << "closed twice";
  Opened(*handle)->open = false;
  g_fake->calls.push_back("close " + std::to_string(Opened(*handle)->record.nIndex));
  return TRUE;
}
void FakeRelease(MDATA_BUFFER* buffer) {
  if (__atomic_sub_fetch(&buffer->nRefCount, 1, __ATOMIC_ACQ_REL) != 0) return;
  g_fake->heldBuffers.fetch_sub(1);
  delete[] static_cast<BYTE*>(buffer->pvAllocPtr);
  delete buffer;
}
BOOL FakeGet(HMDATASRC handle, MDATA_SRC_STATS* statistics) {
  *statistics = Opened(handle)->statistics;
  return TRUE;
}
BOOL FakeReset(HMDATASRC handle) {
  Opened(handle)->statistics = {};
  g_fake->calls.push_back("reset " + std::to_string(Opened(handle)->record.nIndex));
  return TRUE;
}
BOOL FakeSet(HMDATASRC handle, const MDATA_SRC_STATS* statistics) {
  Opened(handle)->statistics = *statistics;
  g_fake->calls.push_back("set " + std::to_string(statistics->nRxBytes));
  return TRUE;
}

// Delivers a message as the metadata thread does. Returns the callback's answer.
BOOL Deliver(size_t source, uint8_t sequence, const st0601::Bytes& message) {
  const MDATA_SRC_CFG& record = g_fake->sources[source].record;
  auto* data = new BYTE[message.size() + 5];
  const BYTE header[5] = {0, sequence, 0xDF, static_cast<BYTE>(message.size() >> 8), static_cast<BYTE>(message.size())};
  std::copy(header, header + 5, data);
  std::copy(message.begin(), message.end(), data + 5);
  auto* buffer = new MDATA_BUFFER{};
  buffer->nRefCount = 1;
  buffer->pvAllocPtr = buffer->pcData = data;
  buffer->nDataSize = static_cast<int32_t>(message.size() + 5);
  g_fake->heldBuffers.fetch_add(1);
  const BOOL taken = record.pfnCallback(buffer, record.pvUserParam1, record.pvUserParam1);
  FakeRelease(buffer);
  return taken;
}

st0601::Bytes MessageNumber(int number) {
  return st0601::Builder().AddWhole(2, number).AddText(3, "M" + std::to_string(number)).Finish();
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class SessionTest : public testing::Test {
 protected:
  SessionTest() {
    g_fake = &m_fake;
    std::filesystem::remove_all(m_folder);
    std::filesystem::create_directories(m_folder);
    m_library = {FakeInit, FakeShutdown, FakeOpen, FakeClose, FakeRelease, FakeGet, FakeReset, FakeSet};
    Session::BlockSignals();
  }
  ~SessionTest() override {
    EXPECT_EQ(m_fake.heldBuffers.load(), 0) << "every reference is given back";
    std::filesystem::remove_all(m_folder);
    if (m_savedInput >= 0) {
      dup2(m_savedInput, STDIN_FILENO);
      close(m_savedInput);
    }
  }

  // What the tests find outside: nothing stands in the way of any source.
  static Surroundings Outside() {
    Surroundings around;
    around.reach = {[](const SourceSettings&, const HostRuntimeConfig&) { return std::string(); },
                    [](const SourceSettings&, const HostRuntimeConfig&) { return Place(); },
                    [](const SourceSettings&, const HostRuntimeConfig&, const Place&) { return Health(); }};
    return around;
  }

  // Runs until the run ends by itself, and returns the printed text.
  std::string Run(const std::string& encoder, const std::string& sources = "[a]\ninput = udp\nport = 5000\n") {
    const Config config = MakeConfig(ParseIni("[encoder]\n" + encoder + sources), "-");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    {
      Console console;
      Session session(config, m_library, console, m_around);
      session.SetPairClock(m_pairClock);
      m_exitCode = session.Run();
    }
    m_complaints = testing::internal::GetCapturedStderr();
    return testing::internal::GetCapturedStdout();
  }

  // Delivers from a thread once `count` sources are open.
  void DeliverWhenOpen(size_t count, const std::function<void()>& deliveries) {
    m_fake.onOpen = [this, count, deliveries] {
      if (m_fake.sources.size() == count) m_fake.deliveries = std::thread(deliveries);
    };
  }

  // Makes the text the standard input of the run.
  void Type(const std::string& text) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(ends[1]);
    m_savedInput = dup(STDIN_FILENO);
    dup2(ends[0], STDIN_FILENO);
    close(ends[0]);
  }

  const std::string m_folder = testing::TempDir() + "mdencoder_session_" + std::to_string(getpid());
  FakeLibrary m_fake;
  Surroundings m_around = Outside();
  Library m_library;
  std::function<std::optional<int64_t>()> m_pairClock;
  std::string m_complaints;
  int m_exitCode = -1;
  int m_savedInput = -1;
};

TEST_F(SessionTest, CountsThePairsOfCotSourcesWhoseTimesDiffer) {
  int asked = 0;
  m_pairClock = [&asked]() -> std::optional<int64_t> {
    if (++asked == 2) return std::nullopt;
    return 10'000 * asked;
  };
  DeliverWhenOpen(2, [] {
    for (uint8_t i = 0; i < 3; ++i) EXPECT_EQ(Deliver(i == 1 ? 0 : 1, i, MessageNumber(i)), TRUE);
    EXPECT_EQ(Deliver(1, 3, MessageNumber(3)), TRUE);
  });
  Run("messages = 4\nformat = none\nsummary = " + m_folder + "/summary.json\n",
      "[klv]\ninput = udp\nport = 5000\n[cot]\ninput = udp\nport = 5001\ndata = cot\n");
  const Json sources = Json::parse(ReadFile(m_folder + "/summary.json"))["sources"];
  EXPECT_FALSE(sources[0].contains("pairs"));
  EXPECT_EQ(sources[1]["pairs"]["times_differ"], 2);
  EXPECT_EQ(sources[1]["pairs"]["largest_difference_ms"], 30);
  EXPECT_EQ(asked, 3) << "only for sources of Cursor-on-Target";
}

TEST_F(SessionTest, ShowsKeepsAndSumsUpWhatArrives) {
  st0601::Bytes expected;
  for (int i = 0; i < 20; ++i) {
    const auto message = MessageNumber(i);
    expected.insert(expected.end(), message.begin(), message.end());
  }
  m_fake.corrupt = 3;
  DeliverWhenOpen(1, [] {
    for (int i = 0; i < 20; ++i) EXPECT_EQ(Deliver(0, static_cast<uint8_t>(i), MessageNumber(i)), TRUE);
  });
  const std::string printed =
      Run("messages = 20\nformat = json\noutput_dir = " + m_folder + "\nsummary = " + m_folder + "/summary.json\n");
  EXPECT_EQ(m_exitCode, 0) << m_complaints;
  EXPECT_THAT(m_fake.calls, ElementsAre("init 6", "open 1", "close 1", "shutdown"));
  std::istringstream lines(printed);
  std::string line;
  int count = 0;
  while (std::getline(lines, line)) {
    const Json json = Json::parse(line);
    if (json["type"] != "message") continue;
    EXPECT_EQ(json["items"][1]["value"], "M" + std::to_string(count));
    EXPECT_EQ(json["sequence"], count);
    ++count;
  }
  EXPECT_EQ(count, 20);
  EXPECT_EQ(ReadFile(m_folder + "/a.klv"), std::string(expected.begin(), expected.end()));
  const Json summary = Json::parse(ReadFile(m_folder + "/summary.json"));
  EXPECT_EQ(summary["ended_by"], "messages");
  EXPECT_EQ(summary["sources"][0]["messages"], 20);
  EXPECT_EQ(summary["sources"][0]["bytes"], expected.size());
  EXPECT_EQ(summary["sources"][0]["corrupt"], 3);
  EXPECT_EQ(summary["sources"][0]["checksum"]["ok"], 20);
}

TEST_F(SessionTest, TheLimitIsExact) {
  DeliverWhenOpen(1, [] {
    for (int i = 0; i < 10; ++i) EXPECT_EQ(Deliver(0, static_cast<uint8_t>(i), MessageNumber(i)), i < 4 ? TRUE : FALSE);
  });
  const std::string printed = Run("messages = 4\nwide = yes\n");
  EXPECT_EQ(m_exitCode, 0);
  EXPECT_THAT(printed, HasSubstr("mission_id=M3 "));
  EXPECT_EQ(printed.find("mission_id=M4 "), std::string::npos);
  EXPECT_THAT(printed, HasSubstr("TIME "));
  EXPECT_THAT(printed, HasSubstr("SOURCE "));
}

TEST_F(SessionTest, WaitsForEverySource) {
  DeliverWhenOpen(2, [] {
    for (int i = 0; i < 5; ++i) Deliver(0, static_cast<uint8_t>(i), MessageNumber(i));
    for (int i = 0; i < 2; ++i) Deliver(1, static_cast<uint8_t>(i), MessageNumber(i));
  });
  Run("messages_each = 2\nformat = none\nsummary = " + m_folder + "/s.json\n",
      "[a]\ninput = udp\nport = 5000\n[b]\ninput = serial\n");
  const Json summary = Json::parse(ReadFile(m_folder + "/s.json"));
  EXPECT_EQ(summary["sources"][0]["messages"], 5);
  EXPECT_EQ(summary["sources"][1]["messages"], 2);
  EXPECT_THAT(m_fake.calls, ElementsAre("init 6", "open 1", "open 2", "close 1", "close 2", "shutdown"));
}

TEST_F(SessionTest, WritesTheStreamHeaderOnRequest) {
  DeliverWhenOpen(1, [] { Deliver(0, 7, MessageNumber(1)); });
  Run("messages = 1\nformat = none\nstream_header = yes\noutput_dir = " + m_folder + "\n");
  const std::string file = ReadFile(m_folder + "/a.klv");
  ASSERT_EQ(file.size(), MessageNumber(1).size() + 5);
  EXPECT_EQ(file.substr(0, 3), std::string("\0\x07\xDF", 3));
}

TEST_F(SessionTest, AStoppedReaderCostsRowsOnly) {
  // Nobody reads the standard output. Every message is accepted and recorded, and the run ends all the same.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  fcntl(ends[0], F_SETPIPE_SZ, 4096);
  DeliverWhenOpen(1, [&] {
    for (int i = 0; i < 2000; ++i) EXPECT_EQ(Deliver(0, static_cast<uint8_t>(i), MessageNumber(i)), TRUE);
    kill(getpid(), SIGTERM);
  });
  const int output = dup(STDOUT_FILENO);
  std::fflush(stdout);
  dup2(ends[1], STDOUT_FILENO);
  close(ends[1]);
  const Config config = MakeConfig(ParseIni("[encoder]\noutput_dir = " + m_folder + "\nsummary = " + m_folder +
                                            "/s.json\n[a]\ninput = udp\nport = 5000\n"),
                                   "-");
  testing::internal::CaptureStderr();
  {
    Console console;
    m_exitCode = Session(config, m_library, console, m_around).Run();
  }
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(" rows were not printed"));
  dup2(output, STDOUT_FILENO);
  close(output);
  close(ends[0]);
  EXPECT_EQ(m_exitCode, 0);
  const Json summary = Json::parse(ReadFile(m_folder + "/s.json"));
  EXPECT_EQ(summary["sources"][0]["messages"], 2000);
  EXPECT_EQ(summary["sources"][0]["dropped"], 0);
  EXPECT_GT(summary["rows_dropped"], 1000);
  size_t size = 0;
  for (int i = 0; i < 2000; ++i) size += MessageNumber(i).size();
  EXPECT_EQ(std::filesystem::file_size(m_folder + "/a.klv"), size);
}

TEST_F(SessionTest, SignalsResetAndEnd) {
  DeliverWhenOpen(1, [] {
    kill(getpid(), SIGUSR1);
    kill(getpid(), SIGINT);
  });
  Run("format = none\nsummary = " + m_folder + "/s.json\n");
  EXPECT_EQ(m_exitCode, 0);
  EXPECT_THAT(m_fake.calls, testing::Contains("reset 1"));
  EXPECT_EQ(Json::parse(ReadFile(m_folder + "/s.json"))["ended_by"], "signal");
}

TEST_F(SessionTest, EndsAfterItsDuration) {
  Run("format = none\nduration = 0.01\nsummary = " + m_folder + "/s.json\n");
  EXPECT_EQ(m_exitCode, 0);
  EXPECT_EQ(Json::parse(ReadFile(m_folder + "/s.json"))["ended_by"], "duration");
}

TEST_F(SessionTest, CommandsAreObeyed) {
  Type("stats\nreset a\nreset nobody\nsave\nrestore\nnonsense\nhelp\nquit");
  const std::string kept = m_folder + "/kept.json";
  const std::string printed = Run("format = none\nstats_file = " + kept + "\n");
  EXPECT_EQ(m_exitCode, 0);
  EXPECT_THAT(printed, HasSubstr("SOURCE"));
  EXPECT_THAT(m_fake.calls, ElementsAre("init 6", "open 1", "reset 1", "set 0", "close 1", "shutdown"));
  EXPECT_THAT(m_complaints, HasSubstr("no source \"nobody\""));
  EXPECT_THAT(m_complaints, HasSubstr("statistics saved to " + kept));
  EXPECT_THAT(m_complaints, HasSubstr("statistics of a restored"));
  EXPECT_THAT(m_complaints, HasSubstr("unknown command \"nonsense\"; commands: stats"));
}

TEST_F(SessionTest, SaveAndRestoreNeedAFile) {
  Type("save\nrestore\nquit\n");
  Run("format = none\n");
  EXPECT_THAT(m_complaints, HasSubstr("nowhere to save to"));
  EXPECT_THAT(m_complaints, HasSubstr("nothing to restore from"));
}

TEST_F(SessionTest, StatisticsLiveOnOverARestart) {
  const std::string encoder = "format = none\nduration = 0.01\nstats_file = " + m_folder + "/kept.json\n";
  m_fake.onOpen = [this] { m_fake.sources.back().statistics.nRxBytes = 1234; };
  Run(encoder);
  m_fake.calls.clear();
  m_fake.onOpen = nullptr;
  Run(encoder);
  EXPECT_THAT(m_fake.calls, ElementsAre("init 6", "open 1", "set 1234", "close 1", "shutdown"));
}

TEST_F(SessionTest, StatisticsAtAnInterval) {
  Run("format = none\nduration = 0.05\nstats_interval = 0.01\nstats_json = " + m_folder + "/s.jsonl\n");
  std::istringstream lines(ReadFile(m_folder + "/s.jsonl"));
  std::string line;
  int count = 0;
  for (; std::getline(lines, line); ++count) EXPECT_EQ(Json::parse(line)["type"], "statistics");
  EXPECT_GE(count, 2);
}

TEST_F(SessionTest, ASourceThatCannotBeOpenedEndsTheRunAndClosesTheOthers) {
  m_fake.failOpenAt = 1;
  Run("format = none\nretry = no\n", "[a]\ninput = udp\nport = 5000\n[b]\ninput = udp\nport = 5001\n");
  EXPECT_EQ(m_exitCode, 1);
  EXPECT_THAT(m_fake.calls, ElementsAre("init 6", "open 1", "open 2", "close 1", "shutdown"));
  EXPECT_THAT(m_complaints, HasSubstr("mdencoder: source b cannot be opened"));
}

TEST_F(SessionTest, FilesThatCannotBeWrittenFail) {
  EXPECT_THROW(Run("stats_json = /nonexistent/x\n"), std::runtime_error);
  testing::internal::GetCapturedStdout();
  testing::internal::GetCapturedStderr();
  EXPECT_THAT(m_fake.calls, IsEmpty());
  Run("format = none\nduration = 0.01\nsummary = /nonexistent/x\n");
  EXPECT_EQ(m_exitCode, 1);
  EXPECT_THAT(m_complaints, HasSubstr("cannot write /nonexistent/x: No such file or directory"));
  DeliverWhenOpen(m_fake.sources.size() + 1, [] { Deliver(g_fake->sources.size() - 1, 0, MessageNumber(0)); });
  Run("format = none\nmessages = 1\n", "[a]\ninput = udp\nport = 5000\noutput = /dev/full\n");
  EXPECT_EQ(m_exitCode, 1);
  EXPECT_THAT(m_complaints, HasSubstr("the received stream of a lacks 1 messages: 0 dropped with the queue full, 1 "
                                      "that could not be written"));
}

TEST_F(SessionTest, AnOutputThatCannotBeWrittenEndsTheRun) {
  DeliverWhenOpen(1, [] { Deliver(0, 0, MessageNumber(0)); });
  const Config config = MakeConfig(ParseIni("[a]\ninput = udp\nport = 5000\n"), "-");
  std::fflush(stdout);
  const int output = dup(STDOUT_FILENO);
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  dup2(full, STDOUT_FILENO);
  close(full);
  testing::internal::CaptureStderr();
  {
    Console console;
    EXPECT_EQ(Session(config, m_library, console, m_around).Run(), 1);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "mdencoder: cannot write to standard output\n");
  dup2(output, STDOUT_FILENO);
  close(output);
  std::clearerr(stdout);
}

TEST_F(SessionTest, ALibraryThatDoesNotStartEndsTheRun) {
  m_fake.failInit = true;
  try {
    Run("format = none\n");
    ADD_FAILURE();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "METADATALIB_Init failed");
  }
  testing::internal::GetCapturedStdout();
  testing::internal::GetCapturedStderr();
  EXPECT_THAT(m_fake.calls, ElementsAre("init 6"));
}

TEST(Loader, SaysWhatIsMissing) {
  try {
    LoadLibrary("/nonexistent/libmetadata_lib.so.1");
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("cannot load the library: /nonexistent/libmetadata_lib.so.1:"));
  }
  Dl_info other{};
  ASSERT_NE(dladdr(dlsym(RTLD_DEFAULT, "strtod"), &other), 0);
  try {
    LoadLibrary(other.dli_fname);
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "the library does not export METADATALIB_Init");
  }
}

}  // namespace
}  // namespace mdencoder::session_test
