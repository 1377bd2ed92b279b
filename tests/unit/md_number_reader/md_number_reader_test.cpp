// SPDX-License-Identifier: Apache-2.0
// Compares the reading of numbers in text with the C library's functions in the "C" locale.
#include "md_number_reader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cfloat>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr float kUntouched = 4711.0f;

struct Closer {
  void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, Closer>;

File FileOf(const std::string& text) {
  File file(tmpfile());
  EXPECT_EQ(fwrite(text.data(), 1, text.size(), file.get()), text.size());
  rewind(file.get());
  return file;
}

struct Values {
  std::vector<float> values;
  bool atEnd = false;
};

// Reads a text with a loop of "%f" scans, up to the given number of values. A scan that reaches the end, before a
// number or inside it, ends the loop; text that is not a number leaves its value unchanged.
Values Scanned(const std::string& text, size_t most) {
  Values scanned;
  const File file = FileOf(text);
  while (scanned.values.size() < most) {
    float value = kUntouched;
    const int result = fscanf(file.get(), "%f", &value);
    scanned.atEnd = result == EOF || (result == 0 && feof(file.get()) != 0);
    if (scanned.atEnd) break;
    scanned.values.push_back(value);
  }
  return scanned;
}

// Reads the text with the reader, up to 'piece' values at a time. Memory and values are blocks of exactly their size,
// so that a sanitizer detects accesses beyond them.
Values ReadFrom(FILE* file, size_t most, size_t piece) {
  const std::unique_ptr<char[]> memory(new char[MdNumberReader::kMemorySize]);
  const std::unique_ptr<float[]> values(new float[most]);
  std::fill_n(values.get(), most, kUntouched);
  MdNumberReader reader(file, memory.get());
  size_t done = 0;
  while (done < most && !reader.IsAtEnd()) {
    const int asked = static_cast<int>(std::min(piece, most - done));
    const int read = reader.Read(values.get() + done, asked);
    EXPECT_GE(read, 0);
    EXPECT_LE(read, asked);
    EXPECT_TRUE(read > 0 || reader.IsAtEnd()) << "no progress";
    if (read == 0) break;
    done += static_cast<size_t>(read);
  }
  return {{values.get(), values.get() + done}, reader.IsAtEnd()};
}

bool IsSameFloat(float a, float b) {
  return (std::isnan(a) && std::isnan(b)) || memcmp(&a, &b, sizeof(a)) == 0;
}

void ExpectLikeAScan(const std::string& text, size_t most, size_t piece) {
  SCOPED_TRACE(text.substr(0, 300) + " in pieces of " + std::to_string(piece));
  const Values expected = Scanned(text, most);
  const File file = FileOf(text);
  const Values read = ReadFrom(file.get(), most, piece);
  EXPECT_EQ(read.atEnd, expected.atEnd);
  ASSERT_EQ(read.values.size(), expected.values.size());
  for (size_t i = 0; i < read.values.size(); ++i)
    ASSERT_TRUE(IsSameFloat(read.values[i], expected.values[i]))
        << "value " << i << " is " << read.values[i] << ", a scan reads " << expected.values[i];
}

std::string Repeat(const std::string& text, size_t count) {
  std::string repeated;
  for (size_t i = 0; i < count; ++i) repeated += text;
  return repeated;
}

// --- A file ----------------------------------------------------------------------------------------------

TEST(NumberReader, UsualNumbersAreRead) {
  const File file = FileOf("13.606 -2.25\n-0.5\t85 7. .25 -106.990997 0.000000 " + Repeat("1.5 ", 20));
  const Values read = ReadFrom(file.get(), 8, 8);
  EXPECT_EQ(read.values, (std::vector<float>{13.606f, -2.25f, -0.5f, 85.0f, 7.0f, 0.25f, -106.990997f, 0.0f}));
  EXPECT_FALSE(read.atEnd);
}

// A text as a file that counts how often it is positioned.
struct CountedText {
  std::string text;
  size_t position = 0;
  int seeks = 0;

  static ssize_t Read(void* cookie, char* buffer, size_t size) {
    auto* file = static_cast<CountedText*>(cookie);
    const size_t read = file->text.copy(buffer, size, file->position);
    file->position += read;
    return static_cast<ssize_t>(read);
  }
  static int Seek(void* cookie, off64_t* offset, int whence) {
    auto* file = static_cast<CountedText*>(cookie);
    ++file->seeks;
    if (whence == SEEK_CUR) *offset += static_cast<off64_t>(file->position);
    file->position = static_cast<size_t>(*offset);
    return 0;
  }
};

TEST(NumberReader, EndOfABlockIsNotScanned) {
  CountedText counted{Repeat("13.606 ", 100000)};
  const File file(fopencookie(&counted, "r", {CountedText::Read, nullptr, CountedText::Seek, nullptr}));
  const Values read = ReadFrom(file.get(), 99000, 1000);
  EXPECT_EQ(read.values, std::vector<float>(99000, 13.606f));
  EXPECT_LE(counted.seeks, 2) << "a scan positions the file back, and what follows is read again";
}

TEST(NumberReader, ReadsNothingAfterTheLastValue) {
  const File file = FileOf("1.5 2.5 x");
  EXPECT_EQ(ReadFrom(file.get(), 2, 2).values, (std::vector<float>{1.5f, 2.5f}));
  const File empty = FileOf("");
  const Values none = ReadFrom(empty.get(), 1, 1);
  EXPECT_TRUE(none.values.empty());
  EXPECT_TRUE(none.atEnd);
}

TEST(NumberReader, TextThatIsNotANumberLeavesAllFurtherValues) {
  const File file = FileOf("1.5 2.5 abc 3.5 " + Repeat("4.5 ", 100));
  const Values read = ReadFrom(file.get(), 90, 7);
  ASSERT_EQ(read.values.size(), 90u);
  EXPECT_EQ(read.values[1], 2.5f);
  for (size_t i = 2; i < 90; ++i) EXPECT_EQ(read.values[i], kUntouched) << i;
  EXPECT_FALSE(read.atEnd);
}

TEST(NumberReader, CutAtEveryByteReadsLikeAScan) {
  const std::string text =
      "13.606 -2.25\n-0.5 -.25 -106.990997 85.5 1e1 -3e-2 0x1.8p1 - 7 -inf nan infinity +4 -\t.5 . 0x 8\n";
  for (size_t cut = 0; cut <= text.size(); ++cut) {
    for (const size_t piece : {size_t{1}, size_t{3}, size_t{100}}) ExpectLikeAScan(text.substr(0, cut), 100, piece);
  }
}

TEST(NumberReader, CutAroundTheBordersOfBlocksReadsLikeAScan) {
  std::string text;
  for (int i = 0; text.size() < 140000; ++i) text += std::to_string(i % 211 - 107) + (i % 3 == 0 ? ".25\n" : ".5 ");
  for (const size_t border : {size_t{65536}, size_t{131072}}) {
    for (size_t cut = border - 40; cut < border + 40; ++cut) ExpectLikeAScan(text.substr(0, cut), 200000, 10390);
  }
}

TEST(NumberReader, OddTextsReadLikeAScan) {
  static const char* const kPieces[] = {"-",       "+",
                                        ".",       "0x",
                                        "0",       "1",
                                        "25",      "e",
                                        "E-3",     "p2",
                                        "inf",     "INITY",
                                        "nan",     "(",
                                        ")",       "x",
                                        "abc",     " ",
                                        "\n",      "\t",
                                        " ",       " ",
                                        "\v",      "-0.5",
                                        "7.5",     "i",
                                        "n",       "na",
                                        "1e99",    ",",
                                        "_",       "\x01",
                                        "0x1.8p1", "000000000000000000001.5",
                                        "8.5",     "999",
                                        "12.",     ".125",
                                        "4 ",      "5 ",
                                        "6\n"};
  std::mt19937 random(20240102);
  for (int round = 0; round < 5000; ++round) {
    std::string text;
    for (size_t pieces = random() % 24; pieces > 0; --pieces) text += kPieces[random() % std::size(kPieces)];
    ExpectLikeAScan(text, 60, 1 + random() % 60);
  }
}

// Returns the number halfway between the value and the next float above it.
double MidpointAbove(float value) {
  const double next = std::nextafter(value, FLT_MAX);
  return (static_cast<double>(value) + next) / 2;
}

constexpr const char* kOddNumbers[] = {"inf",
                                       "-INF",
                                       "nan",
                                       "-NaN",
                                       "Infinity",
                                       "0x1p",
                                       "1e",
                                       "1e+",
                                       "-5E-",
                                       "5.",
                                       ".5",
                                       "-.25",
                                       "+0",
                                       "-0",
                                       "-0.0",
                                       "1e400",
                                       "-1e400",
                                       "1e-400",
                                       "0x.8",
                                       "0X10.8P-3",
                                       "000000000000000000000000000000012.5",
                                       "123456789012345678901234567890",
                                       "0.0000000000000000000000000000000000000000000000000001e53",
                                       "-",
                                       "- 3",
                                       ".",
                                       "0x",
                                       "5.e-1",
                                       "1.5e-46",
                                       "1e39",
                                       "7.",
                                       "  \r\n 4"};

// Returns a text that a "%f" scan accepts, in one of many forms.
std::string RandomNumber(std::mt19937_64& random) {
  char text[80];
  const uint64_t bits = random();
  const auto digits = static_cast<int>(bits >> 60);
  float any = 0;
  const auto anyBits = static_cast<uint32_t>(bits);
  memcpy(&any, &anyBits, sizeof(any));
  switch (random() % 9) {
    case 0:
      snprintf(text, sizeof(text), "%.*f", digits % 9, static_cast<double>(bits % 2000000) / 8000 - 125);
      break;
    case 1:
      snprintf(text, sizeof(text), "%.*g", digits + 1, std::ldexp(static_cast<double>(bits % 99991), digits * 9 - 80));
      break;
    case 2:  // exactly midway between two floats, with few enough digits for the fast conversion
      snprintf(text, sizeof(text), "%.5f", 524288 + static_cast<double>(bits % 15000000 | 1) / 32);
      break;
    case 3:  // near such a midpoint
      snprintf(text, sizeof(text), "%.*f", digits % 8 + 4, (16777217 + 2 * static_cast<double>(bits % 99991)) / 131072);
      break;
    case 4:  // near the midpoint of two floats that are not whole numbers
      snprintf(text, sizeof(text), "%.*f", digits + 6, MidpointAbove(static_cast<float>(bits % 100000) / 997));
      break;
    case 5:  // any float, with up to 18 digits
      snprintf(text, sizeof(text), "%.*g", static_cast<int>(bits >> 40) % 18 + 1, static_cast<double>(any));
      break;
    case 6:
      snprintf(text, sizeof(text), "%a", static_cast<double>(any));
      break;
    case 7:
      snprintf(text, sizeof(text), "%s%llu.%llue%d", (bits & 1) != 0 ? "+" : "-",
               static_cast<unsigned long long>(random() >> bits % 60),
               static_cast<unsigned long long>(random() >> bits % 50), static_cast<int>(bits >> 8) % 60 - 30);
      break;
    default:
      snprintf(text, sizeof(text), "%s", kOddNumbers[bits % std::size(kOddNumbers)]);
      break;
  }
  return text;
}

TEST(NumberReader, NumbersOfEveryFormReadLikeAScan) {
  static constexpr const char* kBlanks[] = {" ", " ", " ", "\n", " \t\r\n \v\f ", "                        "};
  std::mt19937_64 random(961);
  std::string text;
  for (int i = 0; i < 100000; ++i) text += RandomNumber(random) + kBlanks[random() % std::size(kBlanks)];
  ExpectLikeAScan(text, 100000, 10390);
  ExpectLikeAScan(text, 100000, 1);
}

TEST(NumberReader, NumbersAreTheNearestFloats) {
  // These values are near or at the midpoint of two floats, in forms with and without the fast conversion.
  const char* const numbers[] = {"0.1",
                                 "16777217.0",
                                 "16777217",
                                 "16777219.0",
                                 "16777217.00000000000000000000000000000000000001",
                                 "13.6062453",
                                 "-106.990997",
                                 "0.000000000000000000000000000000000000000000001",
                                 "3.4028236e38",
                                 "1e39",
                                 "-1e-60",
                                 "8.5899345920000001e9",
                                 "123456789012345678901234567890",
                                 "999999.99999999",
                                 "893140928",
                                 "-893140928",
                                 "0.0123456789",
                                 "1.00000005960464477539062",
                                 "1.00000005960464477539063",
                                 "0x1.000001p0",
                                 "0x1.0000010000001p0"};
  for (const char* number : numbers) {
    const File file = FileOf(std::string(number) + " ");
    const Values read = ReadFrom(file.get(), 1, 1);
    const float expected = strtof(number, nullptr);
    ASSERT_EQ(read.values.size(), 1u) << number;
    EXPECT_EQ(memcmp(&expected, read.values.data(), sizeof(expected)), 0) << number << " became " << read.values[0];
  }
}

TEST(NumberReader, NumbersLongerThanABlockReadLikeAScan) {
  const std::string zeros(70000, '0');
  const std::string text =
      "1 " + zeros + "2.5 -." + zeros + "1 3 0." + zeros + "1e70001 4 1e" + zeros + "1 5" + Repeat(" 6", 1000);
  ExpectLikeAScan(text, 1000, 100);
}

TEST(NumberReader, PipeIsReadToo) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::thread writer([&ends] {
    const File pipe(fdopen(ends[1], "w"));
    fputs("-13.5 1e1 ", pipe.get());
    for (int i = 0; i < 50000; ++i) fputs("7.25 ", pipe.get());
  });
  const File file(fdopen(ends[0], "r"));
  const Values read = ReadFrom(file.get(), 60000, 999);
  writer.join();
  ASSERT_EQ(read.values.size(), 50002u);
  EXPECT_EQ(read.values[0], -13.5f);
  EXPECT_EQ(read.values[1], 10.0f);
  EXPECT_EQ(read.values[50001], 7.25f);
  EXPECT_TRUE(read.atEnd);
}

// --- One number ------------------------------------------------------------------------------------------

TEST(TextToDouble, ReadsTheNumberAtTheStartOfTheText) {
  EXPECT_EQ(_TextToDouble("-73.75"), -73.75);
  EXPECT_EQ(_TextToDouble(" 1e3 metres"), 1000.0);
  EXPECT_EQ(_TextToDouble("2,9"), 2.0);
  EXPECT_EQ(_TextToDouble("0x10"), 16.0);
  EXPECT_EQ(_TextToDouble("1e400"), HUGE_VAL);
  EXPECT_TRUE(std::isnan(_TextToDouble("nan")));
}

TEST(TextToDouble, ReadsTextThatIsNotANumberAsZero) {
  for (const char* text : {"", " ", "abc", "-", ".", "+e5", "\"1\""}) EXPECT_EQ(_TextToDouble(text), 0.0) << text;
}

TEST(ReadDecimal, ReadsOnlyDecimalsOfUpToFifteenDigits) {
  double value = 0;
  EXPECT_TRUE(_ReadDecimal("-73.75", 6, &value));
  EXPECT_EQ(value, -73.75);
  EXPECT_TRUE(_ReadDecimal("123456789012345", 15, &value));
  EXPECT_EQ(value, 123456789012345.0);
  EXPECT_TRUE(_ReadDecimal(".123456789012345\"", 16, &value)) << "the text goes on behind the number";
  EXPECT_EQ(value, .123456789012345);
  EXPECT_TRUE(_ReadDecimal("7.", 2, &value));
  EXPECT_EQ(value, 7.0);
  value = 1;
  EXPECT_FALSE(_ReadDecimal("1234567890123456", 16, &value));
  EXPECT_FALSE(_ReadDecimal("7.5", 2, &value)) << "the number goes on behind the text";
  for (const char* text : {"", "-", ".", "-.", "+1", " 1", "1 ", "1e3", "0x1", "1,5", "1.5.", "--1"})
    EXPECT_FALSE(_ReadDecimal(text, strlen(text), &value)) << text;
  EXPECT_EQ(value, 1.0);
}

// --- Locales ---------------------------------------------------------------------------------------------

// Returns a locale with a decimal comma. It is copied from the process's locale, which is changed for a moment, because
// newlocale leaks the text of LOCPATH.
locale_t CommaLocale() {
  setenv("LOCPATH", METADATA_TEST_LOCALES, 1);
  const char* name = setlocale(LC_ALL, "de_DE.UTF-8");
  EXPECT_NE(name, nullptr) << "no locale in " << METADATA_TEST_LOCALES;
  const locale_t comma = duplocale(LC_GLOBAL_LOCALE);
  setlocale(LC_ALL, "C");
  unsetenv("LOCPATH");
  return comma;
}

// Sets a locale with a decimal comma for the thread.
class DecimalComma : public testing::Test {
 protected:
  void SetUp() override {
    m_comma = CommaLocale();
    m_before = uselocale(m_comma);
    ASSERT_EQ(strtod("1,5", nullptr), 1.5);
  }
  void TearDown() override {
    uselocale(m_before);
    freelocale(m_comma);
  }
  locale_t m_comma = nullptr;
  locale_t m_before = nullptr;
};

TEST_F(DecimalComma, DoesNotChangeTheNumbersOfAFile) {
  const File file = FileOf("1.5 -2.25 1.5e0 0.000000000000000000001 2,5 ");
  EXPECT_EQ(ReadFrom(file.get(), 6, 6).values, (std::vector<float>{1.5f, -2.25f, 1.5f, 1e-21f, 2.0f, kUntouched}));
  EXPECT_EQ(uselocale(nullptr), m_comma) << "the thread's locale is left as it was";
}

TEST_F(DecimalComma, DoesNotChangeOneNumber) {
  EXPECT_EQ(_TextToDouble("90.5"), 90.5);
  EXPECT_EQ(_TextToDouble("2,9"), 2.0);
}

}  // namespace
