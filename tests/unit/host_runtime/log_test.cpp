// SPDX-License-Identifier: Apache-2.0
// Debug log, limiter and configuration.
#define HOST_MODULE "log_test"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "function_name.h"
#include "log_limiter.h"
#include "runtime_state.h"
#include "runtime_test.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int64_t kSecond = 1'000'000'000;

std::string ReadAll(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

class LogTest : public RuntimeTest {
 protected:
  LogTest() { EXPECT_TRUE(_DoDbgInit("LOGTEST", &m_module)); }
  ~LogTest() override { _DoDbgUninitEx(&m_module); }

  HDBG m_module = nullptr;
};

TEST_F(LogTest, ALineCarriesModuleLevelFunctionAndPlace) {
  _DoDbgPrintEx(m_module, 3, "_Some", "utils", 12, "Got %d of %s.\n", 5, "these");
  ASSERT_THAT(Lines(), SizeIs(1));
  const HostLogLine line = Lines()[0];
  EXPECT_EQ(line.module, "LOGTEST");
  EXPECT_EQ(line.level, 3);
  EXPECT_EQ(line.function, "_Some");
  EXPECT_EQ(line.file, "utils");
  EXPECT_EQ(line.text, "Got 5 of these.");
}

// Places of log lines: a function, a lambda, a lambda in a lambda, a member, a template.
struct Places {
  bool Member(int (*)(int), const std::vector<int>&) const noexcept {
    return [] {
      HOST_LOG(3, "In a member.\n");
      return true;
    }();
  }
  template <typename Value>
  static Value* OfTemplate(Value* value) {
    [&] { HOST_LOG(3, "In a template.\n"); }();
    return value;
  }
};
void PlainPlace() {
  HOST_LOG(3, "In a function.\n");
}
std::string NestedPlace(void (*)(int), const std::string& text) {
  const auto outer = [&](int) {
    const auto inner = [&]() -> std::string {
      HOST_LOG(3, "In a lambda in a lambda.\n");
      return text;
    };
    return inner();
  };
  return outer(1);
}

TEST_F(LogTest, ALineInALambdaNamesTheFunctionAroundIt) {
  PlainPlace();
  NestedPlace(nullptr, "");
  Places().Member(nullptr, {});
  int value = 0;
  Places::OfTemplate(&value);
  std::vector<std::string> functions;
  for (const HostLogLine& line : Lines()) functions.push_back(line.function);
  EXPECT_THAT(functions, ElementsAre("PlainPlace", "NestedPlace", "Member", "OfTemplate"));
}

TEST_F(LogTest, AServiceNamesItself) {
  MBOX_CONFIG mailbox{};
  mailbox.nSize = sizeof(mailbox);
  mailbox.szName = "LogTest";
  HMBOX first = nullptr;
  HMBOX second = nullptr;
  ASSERT_TRUE(MBOX_CreateMailBox(&mailbox, &first));
  EXPECT_FALSE(MBOX_CreateMailBox(&mailbox, &second));
  MBOX_CloseMailBox(&first);
  ASSERT_THAT(Lines(), SizeIs(1));
  EXPECT_EQ(Lines()[0].function, "MBOX_CreateMailBox");
}

TEST(FunctionNameTest, ReadsWhatTheCompilersWrite) {
  const auto name = [](const std::string& pretty) { return std::string(host_runtime::FunctionName(pretty).Text()); };
  for (const std::string lambda : {"", "::<lambda()>", "::<lambda(int)>::<lambda(auto:12)> [with auto:12 = int]",
                                   "::(anonymous class)::operator()() const"}) {
    EXPECT_EQ(name("BOOL Open(const char*, int)" + lambda), "Open");
    EXPECT_EQ(name("host_runtime::{anonymous}::Reader::Next(void (*)(int)) const" + lambda), "Next");
    EXPECT_EQ(name("auto (anonymous namespace)::Reader::Next(void (*)(int)) const" + lambda), "Next");
    EXPECT_EQ(name("const T* Get(T*) [with T = int(int)]" + lambda), "Get");
    EXPECT_EQ(name("static T *Places::Get(T *) [T = int]" + lambda), "Get");
    EXPECT_EQ(name("static T* Places::Get<std::vector<int> >(T*)" + lambda), "Get");
    EXPECT_EQ(name("space::Reader::~Reader()" + lambda), "~Reader");
    EXPECT_EQ(name("void Places::operator()() const" + lambda), "operator()");
  }
  EXPECT_EQ(name(""), "");
  EXPECT_EQ(name(std::string(200, 'x') + "()"), std::string(95, 'x'));
}

TEST_F(LogTest, TheFileGetsTimeModuleLevelFunctionAndPlace) {
  m_config.logFile = Folder() + "/host.log";
  Apply();
  _DoDbgPrintEx(m_module, 3, "_Some", "utils", 12, "Got it.\n");
  const std::string text = ReadAll(m_config.logFile);
  EXPECT_THAT(text, testing::ContainsRegex("^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                                           "LOGTEST 3/error _Some \\(utils:12\\): Got it\\.\n$"));
}

TEST_F(LogTest, TheFileIsClosedInProgramsThatTheProcessStartsAlsoAfterItWasRotated) {
  m_config.logFile = Folder() + "/host.log";
  m_config.logRate = 0;
  Apply();
  const auto childHasIt = [&] {
    // The child of a child lists its descriptors, as any tool that the process starts would see them.
    const std::string list = "ls -l /proc/self/fd | grep -q '" + m_config.logFile + "'";
    return system(list.c_str()) == 0;
  };
  EXPECT_FALSE(childHasIt());
  const std::string text(65'536, 'x');
  while (!std::filesystem::exists(Folder() + "/host.1.log"))
    _DoDbgPrintEx(m_module, 4, "f", "file", 1, "%s", text.c_str());
  EXPECT_FALSE(childHasIt());
}

TEST_F(LogTest, ALogFileThatCannotBeWrittenIsAnErrorAndTheRestApplies) {
  m_config.logFile = WriteFile("plain", "") + "/host.log";
  m_config.logLevel = 1;
  std::string error;
  EXPECT_FALSE(HostRuntime_Apply(m_config, &error));
  EXPECT_THAT(error, HasSubstr("cannot write the log file \"" + m_config.logFile + "\""));
  EXPECT_EQ(m_module->nMaxLevel, 1);
}

TEST_F(LogTest, LevelsChangeWhileRunningAlsoForModulesToCome) {
  HostRuntime_SetLevel("LOGTEST", 2);
  EXPECT_EQ(m_module->nMaxLevel, 2);
  HostRuntime_SetLevel("LOGTEST_LATER", 6);
  HDBG later = nullptr;
  ASSERT_TRUE(_DoDbgInit("LOGTEST_LATER", &later));
  EXPECT_EQ(later->nMaxLevel, 6);
  _DoDbgUninitEx(&later);
  EXPECT_EQ(later, nullptr);
  HostRuntime_SetLevel("", 3);
  EXPECT_EQ(m_module->nMaxLevel, 3);
  m_config.logLevel = 5;
  m_config.moduleLevels["LOGTEST"] = 7;
  Apply();
  EXPECT_EQ(m_module->nMaxLevel, 7);
}

TEST_F(LogTest, TextFromOutsideNeitherForgesLinesNorControlsTheTerminalNorHides) {
  _DoDbgPrintEx(m_module, 3, "f", "m", 1, "Name \"%s\".\n", "a\nFAKE 0\x1B[2J\tb\x7F");
  _DoDbgPrintEx(m_module, 3, "f", "m", 2, "Name \"%s\".\n",
                "\u009B2J \xFF \xED\xA0\x80 \u202Ecod\u2028\\n gr\u00FC\u00DFe");
  _DoTextAssert("f", "m", 3, "Name %s", "\xC2\x9B\\");
  _DoDbgPrintBuffer(m_module, 8, "f", "m", 4, "Title\u2029", nullptr, 0);
  EXPECT_THAT(
      Texts("LOGTEST"),
      ElementsAre("Name \"a\\nFAKE 0\\x1B[2J\\tb\\x7F\".",
                  "Name \"\\xC2\\x9B2J \\xFF \\xED\\xA0\\x80 \\xE2\\x80\\xAEcod\\xE2\\x80\\xA8\\\\n gr\u00FC\u00DFe\".",
                  "Title\\xE2\\x80\\xA9 (0 bytes)"));
  EXPECT_THAT(Texts("ASSERT"), ElementsAre("ASSERTION failed: Name \\xC2\\x9B\\\\"));
}

TEST_F(LogTest, OnlyTheLineEndOfTheFormatIsRemoved) {
  _DoDbgPrintEx(m_module, 3, "f", "m", 1, "Name %s\n", "a\r\n");
  _DoDbgPrintEx(m_module, 3, "f", "m", 2, "Name %s", "a");
  EXPECT_THAT(Texts("LOGTEST"), ElementsAre("Name a\\r\\n", "Name a"));
}

TEST_F(LogTest, ALongLineIsNotCut) {
  const std::string text(5000, 'x');
  _DoDbgPrintEx(m_module, 3, "f", "m", 1, "%s.\n", text.c_str());
  EXPECT_THAT(Texts("LOGTEST"), ElementsAre(text + "."));
}

TEST_F(LogTest, ALineLeavesErrnoAlone) {
  errno = ETIMEDOUT;
  _DoDbgPrintEx(m_module, 3, "f", "m", 1, "x.\n");
  _DoAssert("x", "f", "m", 1);
  EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(LogTest, ADumpHasSixteenBytesALine) {
  std::vector<BYTE> data;
  for (int i = 0; i < 18; ++i) data.push_back(static_cast<BYTE>(0x3B + i));
  _DoDbgPrintBuffer(m_module, 8, "f", "m", 1, "Sync Pattern", data.data(), 18);
  EXPECT_THAT(Texts("LOGTEST"), ElementsAre("Sync Pattern (18 bytes)",
                                            "0000  3B 3C 3D 3E 3F 40 41 42 43 44 45 46 47 48 49 4A  ;<=>?@ABCDEFGHIJ",
                                            "0010  4B 4C                                            KL"));
}

TEST_F(LogTest, AnEmptyOrMissingBufferDumpsItsTitle) {
  _DoDbgPrintBuffer(m_module, 8, "f", "m", 1, "Nothing", nullptr, 5);
  _DoDbgPrintBuffer(m_module, 8, "f", "m", 1, "Negative", "x", -1);
  EXPECT_THAT(Texts("LOGTEST"), ElementsAre("Nothing (0 bytes)", "Negative (0 bytes)"));
}

TEST_F(LogTest, AFloodFromOneSiteIsLimitedAndOthersAreStillWritten) {
  m_config.logBurst = 20;
  m_config.logRate = 1;
  Apply();
  for (int i = 0; i < 1000; ++i) _DoDbgPrintEx(m_module, 4, "f", "flood", 77, "Bad message %d.\n", i);
  _DoDbgPrintEx(m_module, 4, "f", "flood", 78, "Another.\n");
  EXPECT_THAT(Lines(), SizeIs(testing::AllOf(testing::Ge(21u), testing::Le(30u))));
  EXPECT_EQ(Lines().back().text, "Another.");
  _DoDbgUninitEx(&m_module);
  EXPECT_THAT(Lines().back().text, testing::MatchesRegex("9[0-9][0-9] more lines from this place were left out"));
}

TEST_F(LogTest, Level0IsNeverLeftOut) {
  m_config.logRate = 1;
  Apply();
  for (int i = 0; i < 100; ++i) _DoDbgPrintEx(m_module, 0, "f", "flood", 79, "Line.\n");
  EXPECT_THAT(Lines(), SizeIs(100));
}

TEST_F(LogTest, AssertionsAreWrittenAndCountedEvenWhenTheLogLeavesThemOut) {
  const uint64_t before = HostRuntime_AssertionCount();
  m_config.logRate = 1;
  Apply();
  _DoAssert("pCfg != NULL", "MetaData_OpenSource", "metadata_api", 5);
  _DoTextAssert("f", "metadata_api", 6, "Invalid iSrcAddressFamily (%d) detected.\n", 3);
  for (int i = 0; i < 100; ++i) _DoAssert("0", "f", "metadata_api", 7);
  EXPECT_EQ(HostRuntime_AssertionCount() - before, 102u);
  EXPECT_EQ(Lines()[0].text, "ASSERTION failed: pCfg != NULL");
  EXPECT_EQ(Lines()[0].level, 0);
  EXPECT_TRUE(Lines()[0].assertion);
  EXPECT_EQ(Lines()[0].function, "MetaData_OpenSource");
  EXPECT_EQ(Lines()[1].text, "ASSERTION failed: Invalid iSrcAddressFamily (3) detected.");
  EXPECT_LT(Lines().size(), 40u);
}

TEST_F(LogTest, AnAssertionCanEndATestProgram) {
  EXPECT_DEATH(
      {
        m_config.abortOnAssert = true;
        HostRuntime_Apply(m_config);
        _DoAssert("0", "f", "m", 1);
      },
      "");
}

TEST_F(LogTest, AClosedOrMissingModuleLogsNothing) {
  _DoDbgPrintEx(nullptr, 0, "f", "m", 1, "x\n");
  HDBG none = nullptr;
  _DoDbgUninitEx(&none);
  EXPECT_FALSE(_DoDbgInit("", &none));
  EXPECT_FALSE(_DoDbgInit(nullptr, &none));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(LogTest, ManyThreadsLogWhileLevelsSinksAndObserverChange) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; !stop; ++i) {
        if (__atomic_load_n(&m_module->nMaxLevel, __ATOMIC_RELAXED) >= 4) {
          _DoDbgPrintEx(m_module, 4, "f", "m", t, "Line %d.\n", i);
        }
      }
    });
  }
  for (int i = 0; i < 50; ++i) {
    HostRuntime_SetLevel("LOGTEST", i % 8);
    m_config.logFile = i % 2 == 0 ? Folder() + "/a.log" : "";
    m_config.logRate = i % 3 == 0 ? 0 : 10;
    Apply();
    HostRuntime_OnLog([](const HostLogLine&) {});
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(m_module->nMaxLevel, 8);
}

// --- limiter -----------------------------------------------------------------------------------------

struct Asking {
  host_runtime::LogLimiter limiter;
  uint64_t left = 0;
  bool Ask(int64_t now, int line = 1) { return limiter.Allow("M", "file", line, "f", 4, now, &left); }
  int AskOften(int times, int64_t now) {
    int allowed = 0;
    for (int i = 0; i < times; ++i) allowed += Ask(now) ? 1 : 0;
    return allowed;
  }
};

TEST(LogLimiter, LetsABurstThroughAndThenItsRate) {
  Asking asking;
  asking.limiter.SetLimit(20, 10);
  EXPECT_EQ(asking.AskOften(1000, kSecond), 20);
  EXPECT_EQ(asking.AskOften(1000, 2 * kSecond), 10);
  EXPECT_EQ(asking.AskOften(1000, 100 * kSecond), 20);
}

TEST(LogLimiter, TheNextLineReportsHowManyWereLeftOut) {
  Asking asking;
  asking.limiter.SetLimit(2, 1);
  EXPECT_EQ(asking.AskOften(7, kSecond), 2);
  EXPECT_TRUE(asking.Ask(2 * kSecond));
  EXPECT_EQ(asking.left, 5u);
  EXPECT_TRUE(asking.Ask(3 * kSecond));
  EXPECT_EQ(asking.left, 0u);
}

TEST(LogLimiter, ASiteThatFellSilentIsReportedOnce) {
  Asking asking;
  asking.limiter.SetLimit(1, 1);
  EXPECT_EQ(asking.AskOften(4, kSecond), 1);
  EXPECT_THAT(asking.limiter.PopSilent(2 * kSecond), IsEmpty());
  const auto taken = asking.limiter.PopSilent(4 * kSecond);
  ASSERT_THAT(taken, SizeIs(1));
  EXPECT_EQ(taken[0].count, 3u);
  EXPECT_EQ(taken[0].site.line, 1);
  EXPECT_THAT(asking.limiter.PopSilent(6 * kSecond), IsEmpty());
}

TEST(LogLimiter, Rate0IsNoLimit) {
  Asking asking;
  asking.limiter.SetLimit(1, 0);
  EXPECT_EQ(asking.AskOften(1000, kSecond), 1000);
}

// --- the INI file ------------------------------------------------------------------------------------

class ConfigTest : public RuntimeTest {
 protected:
  std::string Refused(const std::string& text) {
    HostRuntimeConfig unchanged;
    unchanged.logLevel = 3;
    std::string error;
    EXPECT_FALSE(HostRuntime_Load(WriteFile("bad.ini", text), unchanged, error)) << text;
    EXPECT_EQ(unchanged.logLevel, 3);
    EXPECT_TRUE(error.starts_with(Folder() + "/bad.ini:")) << error;
    return error.substr(Folder().size() + 8);
  }
};

TEST_F(ConfigTest, EveryKeyIsReadAndNamesAreRelativeToTheFile) {
  const std::string path = WriteFile("host.ini", R"([log]
level = 6
file = logs/host.log
console = no
burst = 0x10
rate = 0
level.METADATALIB = 8
[threads]
realtime = off
states = TRUE
[network]
multicast interface = eth7
[serial]
/dev/ttyPS0 = /dev/pts/4   ; a comment
[files]
/etc/hostos.ini = my.ini
[capture0]
kind = media
path = flight.ts
loop = yes
[capture1]
kind = anc
address = 239.1.2.3
port = 5004
[capture2]
kind = socket
path = /run/klv
[capture3]
kind = media
path = udp://239.1.1.1:5000
)");
  HostRuntimeConfig loaded;
  std::string error;
  ASSERT_TRUE(HostRuntime_Load(path, loaded, error)) << error;
  EXPECT_EQ(loaded.logLevel, 6);
  EXPECT_EQ(loaded.logFile, Folder() + "/logs/host.log");
  EXPECT_FALSE(loaded.console);
  EXPECT_EQ(loaded.logBurst, 16u);
  EXPECT_EQ(loaded.logRate, 0u);
  EXPECT_EQ(loaded.moduleLevels.at("METADATALIB"), 8);
  EXPECT_FALSE(loaded.realtimeThreads);
  EXPECT_TRUE(loaded.threadStates);
  EXPECT_EQ(loaded.multicastInterface, "eth7");
  EXPECT_EQ(loaded.serialDevices.at("/dev/ttyPS0"), "/dev/pts/4");
  EXPECT_EQ(loaded.configFiles.at("/etc/hostos.ini"), Folder() + "/my.ini");
  using Kind = HostCaptureConfig::Kind;
  EXPECT_EQ(loaded.captures[0].kind, Kind::Media);
  EXPECT_EQ(loaded.captures[0].path, Folder() + "/flight.ts");
  EXPECT_TRUE(loaded.captures[0].loop);
  EXPECT_EQ(loaded.captures[1].kind, Kind::Anc);
  EXPECT_EQ(loaded.captures[1].address, "239.1.2.3");
  EXPECT_EQ(loaded.captures[1].port, 5004);
  EXPECT_EQ(loaded.captures[2].kind, Kind::Socket);
  EXPECT_EQ(loaded.captures[2].path, "/run/klv");
  EXPECT_EQ(loaded.captures[3].path, "udp://239.1.1.1:5000");
}

TEST_F(ConfigTest, AnErrorNamesTheLineTheKeyTheValueAndWhatIsAllowed) {
  EXPECT_EQ(Refused("[log]\nlevel = 9\n"), ":2: level must be a whole number from 0 to 8, not \"9\"");
  EXPECT_EQ(Refused("[log]\nlevel = 4x\n"), ":2: level must be a whole number from 0 to 8, not \"4x\"");
  EXPECT_EQ(Refused("[log]\nlevel.X = -1\n"), ":2: level.X must be a whole number from 0 to 8, not \"-1\"");
  EXPECT_EQ(Refused("[log]\n\nconsole = maybe\n"), ":3: console must be yes or no, not \"maybe\"");
  EXPECT_EQ(Refused("[log]\nlevle = 4\n"),
            ":2: [log] has no key levle; allowed: level, level.MODULE, file, console, burst, rate");
  EXPECT_EQ(Refused("[lgo]\nlevel = 4\n"),
            ":2: unknown section [lgo]; allowed: log, threads, network, serial, files, capture0 to capture3");
  EXPECT_EQ(Refused("[capture1]\nkind = sdi\n"), ":2: kind must be one of none, media, anc, socket, not \"sdi\"");
  EXPECT_EQ(Refused("[capture1]\nport = 65536\n"), ":2: port must be a whole number from 1 to 65535, not \"65536\"");
  EXPECT_EQ(Refused("[capture1]\naddress = 1.2.3\n"), ":2: address must be an IPv4 address, not \"1.2.3\"");
  EXPECT_EQ(Refused("[capture1]\nkind = anc\n"), ": [capture1] kind = anc needs the key port");
  EXPECT_EQ(Refused("[log]\nnonsense\n"), ":2: neither [section] nor key = value");
  EXPECT_EQ(Refused("[log]\nfile = " + std::string(300, 'x') + "\n"),
            ":2: line too long, at most 197 characters are allowed");
  EXPECT_EQ(Refused(std::string("[log]\nlevel = 1\0\n", 17)), ":2: contains a zero byte; a text file is expected");
  EXPECT_THAT(Refused("[capture4]\nport = 1\n"), HasSubstr("unknown section [capture4]"));
}

TEST_F(ConfigTest, AFileThatDoesNotExistIsAnError) {
  std::string error;
  EXPECT_FALSE(HostRuntime_Load(Folder() + "/none.ini", m_config, error));
  EXPECT_EQ(error, "cannot read \"" + Folder() + "/none.ini\": No such file or directory");
  EXPECT_FALSE(HostRuntime_Load(Folder(), m_config, error));
}

TEST_F(ConfigTest, TheLibraryReadsItsKeyFromAMappedFile) {
  m_config.configFiles["/etc/hostos.ini"] =
      WriteFile("other.ini", "[CursorOnTarget]\nAllItemsSupport = No\n[X]\nA=1\n");
  Apply();
  char text[40] = "old";
  int size = sizeof(text);
  EXPECT_TRUE(CfgFile_GetStringValue("/etc/hostos.ini", "CursorOnTarget", "AllItemsSupport", text, &size, "Yes"));
  EXPECT_STREQ(text, "No");
  EXPECT_EQ(size, 2);
  size = sizeof(text);
  EXPECT_FALSE(CfgFile_GetStringValue("/etc/hostos.ini", "CursorOnTarget", "Missing", text, &size, "Yes"));
  EXPECT_STREQ(text, "Yes");
  EXPECT_EQ(size, 3);
  size = 2;
  EXPECT_FALSE(CfgFile_GetStringValue("/none/at/all.ini", "X", "A", text, &size, "Yes"));
  EXPECT_STREQ(text, "Y");
  EXPECT_EQ(size, 1);
}

TEST_F(ConfigTest, ADefaultIsUsedIfTheFileHasNoSuchKey) {
  const auto value = [](const char* key, BOOL found) {
    char text[40] = "old";
    int size = sizeof(text);
    EXPECT_EQ(CfgFile_GetStringValue("/etc/hostos.ini", "UASLocalSet", key, text, &size, "No"), found) << key;
    return std::string(text);
  };
  m_config.configFiles["/etc/hostos.ini"] = Folder() + "/none.ini";
  m_config.configDefaults[{"/etc/hostos.ini", "UASLocalSet", "ExtendedTags"}] = "Yes";
  Apply();
  EXPECT_EQ(value("ExtendedTags", TRUE), "Yes") << "no file";
  EXPECT_EQ(value("Other", FALSE), "No");
  m_config.configFiles["/etc/hostos.ini"] = WriteFile("other.ini", "[Other]\nExtendedTags = No\n");
  Apply();
  EXPECT_EQ(value("ExtendedTags", TRUE), "Yes") << "another section";
  m_config.configFiles["/etc/hostos.ini"] = WriteFile("other.ini", "[UASLocalSet]\nExtendedTags = Never\n");
  Apply();
  EXPECT_EQ(value("ExtendedTags", TRUE), "Never") << "the file wins";
}

TEST_F(ConfigTest, TheLibraryGetsTheReadableLinesOfADamagedFile) {
  const std::string path =
      WriteFile("half.ini", "[X]\nA = 1\nbroken line\nB = 2\n" + std::string(300, 'x') + "\nC = 3\n");
  const auto value = [&path](const char* key) {
    char text[8];
    int size = sizeof(text);
    CfgFile_GetStringValue(path.c_str(), "X", key, text, &size, "none");
    return std::string(text);
  };
  EXPECT_EQ(value("A"), "1");
  EXPECT_EQ(value("B"), "2");
  EXPECT_EQ(value("C"), "none") << "reading ends at a line that is too long";
  const std::string line = path + ":3: neither [section] nor key = value.";
  EXPECT_THAT(Texts(), ElementsAre(line, line, line));
}

}  // namespace
