// SPDX-License-Identifier: Apache-2.0
// Searches of attributes against their plain forms, over random events, whole and damaged.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "converter.h"
#include "fake_host.h"
#include "random_events.h"
#include "slow_forms.h"

namespace {

// A million cases; fewer where every instruction costs ten.
#if defined(__aarch64__)
constexpr int kCases = 20000;
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__clang__)
constexpr int kCases = 100000;
#else
constexpr int kCases = 1000000;
#endif

class SlowSearches : public HostTest {
 protected:
  unsigned Draw(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }

  // Returns the text in a block of its exact size, so that a sanitizer sees a read behind it.
  const char* Exact(const std::string& text) {
    m_block.assign(text.c_str(), text.c_str() + text.size() + 1);
    m_block.shrink_to_fit();
    return m_block.data();
  }

  std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (const LogLine& line : host().Logs()) lines.push_back(std::to_string(line.level) + " " + line.text);
    host().ClearLogs();
    return lines;
  }

  std::mt19937_64 m_random{1};
  RandomEvents m_events{2};
  std::vector<char> m_block;
};

TEST_F(SlowSearches, AttributesAndTheirLinesAreTheSame) {
  constexpr const char* kNames[] = {"type", "time", "uid", "lat", "hae", "ce", "fov", "roll", "elevation", "x", ""};
  for (int i = 0; i < kCases; ++i) {
    const std::string event = m_events.Any();
    const char* text = Exact(event);
    cvtCotField fast = {};
    snprintf(fast.name, sizeof fast.name, "%s", kNames[Draw(std::size(kNames))]);
    cvtCotField slow = fast;
    const int length = static_cast<int>(Draw(static_cast<unsigned>(event.size()) + 20)) - 3;
    const int fastResult = xml_getCotFieldInTagSlice(text, length, &fast);
    const auto fastLines = Lines();
    ASSERT_EQ(fastResult, SlowGetCotField(text, length, &slow)) << event;
    ASSERT_EQ(memcmp(&fast, &slow, sizeof fast), 0) << event;
    ASSERT_EQ(fastLines, Lines()) << event;
  }
}

TEST_F(SlowSearches, FieldsOfSlicesAndTheirLinesAreTheSame) {
  for (int i = 0; i < kCases / 50; ++i) {
    const std::string event = m_events.Any();
    const CotSlice whole = {Exact(event), static_cast<uint32_t>(event.size())};
    for (const auto& [start, end] : {std::pair("<event", ">"), std::pair("<point", "/>"), std::pair("<sensor", "/>")}) {
      CotSlice slice;
      if (!_FindSlice(whole, start, end, &slice)) continue;
      host().ClearLogs();
      for (const cvtCotField& row : cot_spiSensorTable) {
        CotSlice fast;
        cvtCotField slow;
        const bool found = _FindField(slice, row, &fast);
        const auto fastLines = Lines();
        ASSERT_EQ(found, SlowFindField(slice, row, &slow)) << event;
        ASSERT_EQ(fastLines, Lines()) << event;
        if (!found) continue;
        ASSERT_EQ(std::string(CotText(fast).Get()), CotText(slow.valueStr).Get()) << event;
      }
    }
    host().ClearLogs();
  }
}

}  // namespace
