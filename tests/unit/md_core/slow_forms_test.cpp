// SPDX-License-Identifier: Apache-2.0
// The core's sums and bits against their plain forms, over random data.
#include "slow_forms.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "md_core.h"

namespace {

// A million cases of each function; fewer where every instruction costs ten.
#if defined(__aarch64__)
constexpr int kCases = 20000;
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__clang__)
constexpr int kCases = 100000;
#else
constexpr int kCases = 1000000;
#endif
constexpr size_t kMost = 72;  // words, their groups of four, and a rest

// Data that ends where its block ends, at every alignment, so that a sanitizer sees a read behind it.
class Field {
 public:
  explicit Field(std::mt19937_64& random) : m_random(random) {
    std::generate(m_data.begin(), m_data.end(), [this] { return static_cast<uint8_t>(m_random()); });
  }
  // A random piece at the end of the block. Some bytes change from one piece to the next.
  const uint8_t* Piece(size_t size) {
    for (int i = 0; i < 4; ++i) m_data[m_random() % m_data.size()] = static_cast<uint8_t>(m_random());
    return m_data.data() + m_data.size() - size;
  }

 private:
  std::mt19937_64& m_random;
  std::vector<uint8_t> m_data = std::vector<uint8_t>(kMost + 1);
};

TEST(MdCoreSlowForms, SumsAreTheSame) {
  std::mt19937_64 random(1);
  Field field(random);
  for (int i = 0; i < kCases; ++i) {
    const size_t size = random() % (kMost + 1);
    const size_t position = random() % (kMost + 8);
    const uint8_t* piece = field.Piece(size);
    ASSERT_EQ(_MdRunningSum(piece, size), SlowRunningSum(piece, size)) << size;
    ASSERT_EQ(_MdRunningSumWithout(piece, size, position), SlowRunningSumWithout(piece, size, position))
        << size << " without " << position;
  }
}

TEST(MdCoreSlowForms, SumsOfLongDataAreTheSame) {
  std::mt19937_64 random(2);
  std::vector<uint8_t> data(70000, 0xFF);
  for (int i = 0; i < 200; ++i) {
    const size_t size = random() % data.size();
    for (int change = 0; change < 40; ++change) data[random() % data.size()] = static_cast<uint8_t>(random());
    ASSERT_EQ(_MdRunningSum(data.data(), size), SlowRunningSum(data.data(), size)) << size;
    ASSERT_EQ(_MdCrc16(data.data(), size), SlowCrc16(data.data(), size)) << size;
  }
}

TEST(MdCoreSlowForms, CrcsAreTheSame) {
  std::mt19937_64 random(3);
  Field field(random);
  for (int i = 0; i < kCases; ++i) {
    const size_t size = random() % (kMost + 1);
    const uint8_t* piece = field.Piece(size);
    ASSERT_EQ(_MdCrc16(piece, size), SlowCrc16(piece, size)) << size;
  }
}

TEST(MdCoreSlowForms, BitsAreTheSame) {
  std::mt19937_64 random(4);
  Field field(random);
  for (int i = 0; i < kCases; ++i) {
    const size_t count = random() % 260;
    const size_t inputBit = random() % 16;
    const size_t outputBit = random() % 16;
    const uint8_t* input = field.Piece((inputBit + count + 7) / 8);
    std::array<uint8_t, 40> fast = {};
    std::generate(fast.begin(), fast.end(), [&] { return static_cast<uint8_t>(random() % 3 == 0 ? random() : 0); });
    std::array<uint8_t, 40> slow = fast;
    ASSERT_EQ(_MdCopyBits(input, inputBit, fast.data(), outputBit, count),
              SlowCopyBits(input, inputBit, slow.data(), outputBit, count))
        << inputBit << " " << outputBit << " " << count;
    ASSERT_EQ(fast, slow) << inputBit << " " << outputBit << " " << count;
  }
}

}  // namespace
