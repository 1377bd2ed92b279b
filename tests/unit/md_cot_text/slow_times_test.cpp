// SPDX-License-Identifier: Apache-2.0
// Times against their plain forms, over random texts in zones of all kinds.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "fake_host.h"
#include "slow_forms.h"

namespace {

using std::string_literals::operator""s;

// A million cases; fewer where every instruction costs ten.
#if defined(__aarch64__)
constexpr int kCases = 20000;
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__clang__)
constexpr int kCases = 100000;
#else
constexpr int kCases = 1000000;
#endif

// No zone, zones with summer time in both hemispheres, with offsets of odd seconds in their past, with a skipped day,
// with leap seconds, and without any file.
const char* const kZones[] = {
    "UTC",          "Europe/Berlin", "America/St_Johns",          "Australia/Lord_Howe", "Pacific/Apia",
    "Asia/Kolkata", "right/UTC",     "Africa/Monrovia",           "Europe/Amsterdam",    "EST5EDT",
    "XXX-1:23:45",  "NOWHERE",       "AAA3BBB,M3.2.0/2,M11.1.0/2"};

class SlowTimes : public HostTest {
 protected:
  ~SlowTimes() override { SetZone("UTC"); }

  void SetZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
    host().Advance(500);  // what is remembered of the zone before
  }

  unsigned Draw(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }

  std::string Text(time_t time) {
    struct tm fields = {};
    gmtime_r(&time, &fields);
    char text[40];
    snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d", fields.tm_year + 1900, fields.tm_mon + 1,
             fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
    std::string ended = text;
    if (Draw(4) != 0) ended += "." + std::to_string(Draw(1000));
    return ended + "Z";
  }

  // A few minutes around a time that changes now and then, as a source has them. Often they are those in which Europe
  // changes its clocks, or in which Monrovia and Amsterdam changed theirs by odd seconds.
  std::string Plain() {
    constexpr time_t kChanges[] = {1711846800, 1729987200, 63592980, -1025740860};
    if (Draw(200) == 0) m_time = static_cast<time_t>(m_random() % 6000000000) - 2208988800;  // 1900 to 2090
    if (Draw(200) == 0) m_time = kChanges[Draw(std::size(kChanges))] + Draw(4) * 3600;
    return Text(m_time + Draw(180));
  }

  std::string Damaged() {
    static const std::string kCharacters = "0123456789--::TTZ.. +\t\0x"s;
    std::string text = Plain();
    for (unsigned changes = 1 + Draw(3); changes > 0; --changes) {
      const size_t position = Draw(static_cast<unsigned>(text.size()) + 1);
      const char character = kCharacters[Draw(static_cast<unsigned>(kCharacters.size()))];
      switch (Draw(4)) {
        case 0:
          text.erase(position, 1);
          break;
        case 1:
          text.insert(position, 1, character);
          break;
        case 2:
          text.resize(position);
          break;
        default:
          if (position < text.size()) text[position] = character;
          break;
      }
    }
    return text;
  }

  std::string Any() { return Draw(3) == 0 ? Damaged() : Plain(); }

  // Runs one case in each zone, the zones one after the other.
  template <typename Case>
  void InEveryZone(int cases, Case one) {
    for (const char* zone : kZones) {
      SetZone(zone);
      for (int i = 0; i < cases / static_cast<int>(std::size(kZones)); ++i) {
        one(zone, Any());
        if (HasFatalFailure()) return;
      }
    }
  }

  std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (const LogLine& line : host().Logs()) lines.push_back(std::to_string(line.level) + " " + line.text);
    host().ClearLogs();
    return lines;
  }

  std::mt19937_64 m_random{1};
  time_t m_time = 1704164645;
};

TEST_F(SlowTimes, FieldsAreTheSame) {
  for (int i = 0; i < kCases; ++i) {
    const std::string text = i % 2 == 0 ? Damaged() : Plain();
    struct tm fast = {};
    struct tm slow = {};
    ASSERT_EQ(cvt_strptime(text.c_str(), &fast), SlowStrptime(text.c_str(), &slow)) << text;
    ASSERT_EQ(memcmp(&fast, &slow, sizeof fast), 0) << text;
  }
}

TEST_F(SlowTimes, MicrosecondsAndTheirLinesAreTheSame) {
  InEveryZone(kCases, [this](const char* zone, const std::string& text) {
    uint64_t fast = 1;
    uint64_t slow = 1;
    const int fastResult = cvt_getUSecsFromTimeStr(text.c_str(), &fast);
    const auto fastLines = Lines();
    ASSERT_EQ(fastResult, SlowGetUSecs(text.c_str(), &slow)) << zone << " " << text;
    ASSERT_EQ(be64toh(fast), be64toh(slow)) << zone << " " << text;
    ASSERT_EQ(fastLines, Lines()) << zone << " " << text;
  });
}

TEST_F(SlowTimes, OrderedTimesAreTheSame) {
  host().SetLevel("COTCONVERTER", 6);
  InEveryZone(kCases, [](const char* zone, const std::string& text) {
    timeval fast = {1, 1};
    timeval slow = {2, 2};
    kMetadataThread.Assume();
    _OrderTime(text.c_str(), &fast);
    SlowConvertTimeString(text.c_str(), &slow);
    ASSERT_EQ(fast.tv_sec, slow.tv_sec) << zone << " " << text;
    ASSERT_EQ(fast.tv_usec, slow.tv_usec) << zone << " " << text;
  });
}

TEST_F(SlowTimes, OrderedTimesAndTheirLinesAreTheSame) {
  InEveryZone(kCases / 10, [this](const char* zone, const std::string& text) {
    timeval fast = {1, 1};
    timeval slow = {2, 2};
    kMetadataThread.Assume();
    Draw(2) == 0 ? _OrderTime(text.c_str(), &fast) : ConvertTimeString(text.c_str(), &fast);
    const auto fastLines = Lines();
    SlowConvertTimeString(text.c_str(), &slow);
    ASSERT_EQ(fast.tv_sec, slow.tv_sec) << zone << " " << text;
    ASSERT_EQ(fast.tv_usec, slow.tv_usec) << zone << " " << text;
    ASSERT_EQ(fastLines, Lines()) << zone << " " << text;
  });
}

}  // namespace
