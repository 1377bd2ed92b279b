// SPDX-License-Identifier: Apache-2.0
// One number of a short text against its plain form, over random texts.
#include "slow_forms.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "fake_host.h"
#include "md_number_reader.h"

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

class NumberSlowForms : public HostTest {
 protected:
  ~NumberSlowForms() override { fesetround(FE_TONEAREST); }

  unsigned Draw(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }

  std::string Digits(unsigned most) {
    std::string text;
    for (unsigned i = Draw(most + 1); i > 0; --i) text += static_cast<char>('0' + Draw(10));
    return text;
  }

  // Digits around a point, with or without a sign, sometimes too many of them.
  std::string Decimal() {
    const unsigned most = Draw(10) == 0 ? 30 : 9;
    std::string text = Draw(2) == 0 ? "-" : "";
    text += Digits(most);
    if (Draw(5) != 0) text += "." + Digits(most);
    return text;
  }

  // A decimal with a few characters changed, added or removed.
  std::string Damaged() {
    static const std::string kCharacters = "0123456789.-+eEpPxX ,\t\ninfINFNA(ak)\0\xB7"s;
    std::string text = Decimal();
    for (unsigned changes = Draw(4); changes > 0; --changes) {
      const size_t position = Draw(static_cast<unsigned>(text.size()) + 1);
      const char character = kCharacters[Draw(static_cast<unsigned>(kCharacters.size()))];
      if (Draw(3) == 0)
        text.erase(position, 1);
      else
        text.insert(position, 1, character);
    }
    return text;
  }

  // The number as the converter reads it.
  static double Read(const std::string& text) {
    double value = 0;
    return _ReadDecimal(text.c_str(), text.size(), &value) ? value : _TextToDouble(text.c_str());
  }

  static uint64_t Bits(double value) {
    uint64_t bits = 0;
    memcpy(&bits, &value, sizeof bits);
    return bits;
  }

  std::mt19937_64 m_random{1};
};

TEST_F(NumberSlowForms, NumbersAreTheSame) {
  for (int i = 0; i < kCases; ++i) {
    const std::string text = i % 2 == 0 ? Decimal() : Damaged();
    ASSERT_EQ(Bits(Read(text)), Bits(SlowTextToDouble(text.c_str()))) << text;
  }
}

TEST_F(NumberSlowForms, NumbersAreTheSameInEveryDirectionOfRounding) {
  for (const int direction : {FE_DOWNWARD, FE_UPWARD, FE_TOWARDZERO}) {
    fesetround(direction);
    for (int i = 0; i < kCases / 10; ++i) {
      const std::string text = Decimal();
      ASSERT_EQ(Bits(Read(text)), Bits(SlowTextToDouble(text.c_str()))) << text;
    }
  }
}

TEST_F(NumberSlowForms, NumbersOfEveryLengthAreTheSame) {
  for (const char* digit : {"0", "1", "9"}) {
    for (size_t count = 0; count < 40; ++count) {
      for (size_t point = 0; point <= count + 1; ++point) {
        std::string text;
        for (size_t i = 0; i < count; ++i) text += digit;
        if (point <= count) text.insert(point, ".");
        ASSERT_EQ(Bits(Read(text)), Bits(SlowTextToDouble(text.c_str()))) << text;
        text.insert(0, "-");
        ASSERT_EQ(Bits(Read(text)), Bits(SlowTextToDouble(text.c_str()))) << text;
      }
    }
  }
}

}  // namespace
