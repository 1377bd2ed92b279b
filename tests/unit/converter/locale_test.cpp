// Numbers in a process whose locale has a decimal comma, and the grid's text against the C library's own scan.
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "converter_fixture.h"

namespace {

class DecimalComma : public ConverterTest {
 protected:
  void SetUp() override {
    ConverterTest::SetUp();
    setenv("LOCPATH", METADATA_TEST_LOCALES, 1);
    ASSERT_NE(setlocale(LC_ALL, "de_DE.UTF-8"), nullptr) << "no locale in " << METADATA_TEST_LOCALES;
    ASSERT_STREQ(localeconv()->decimal_point, ",");
  }
  void TearDown() override {
    setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
    ConverterTest::TearDown();
  }
};

TEST_F(DecimalComma, DoesNotChangeTheNumbersOfAnEvent) {
  ASSERT_TRUE(ConvertPair(Spi(), Aircraft(kTime,
                                          "<track course=\"90.5\" speed=\"2,9\"/>"
                                          "<attitude pitch=\"1.5\" roll=\"2.5\"/>"
                                          "<point lat=\"45.25\" lon=\"-73.75\" hae=\"1000.5\"/>")));
  EXPECT_EQ(Number(5), 16475u);
  EXPECT_EQ(Number(9), 2u) << "the comma ends the number";
  EXPECT_EQ(Number(6), 2458u);
  EXPECT_EQ(Signed32(13), 1079707056);
  EXPECT_EQ(Number(15), 6259u);
}

TEST_F(DecimalComma, DoesNotChangeTheGrid) {
  std::string text = "1.5 -2.25 1.5e0 0.000000000000000000001 ";
  for (int i = 4; i < kGridValues; i++) text += "0 ";
  host().WriteFile(kGridPath, text);
  ASSERT_EQ(init_ww15mgh_grd(), 0);
  EXPECT_EQ(_g_pGrid[0], 1.5f);
  EXPECT_EQ(_g_pGrid[1], -2.25f);
  EXPECT_EQ(_g_pGrid[2], 1.5f);
  EXPECT_EQ(_g_pGrid[3], 1e-21f);
  ExpectLog(5, "Support of additionnal CoT items enabled.\n");
}

// Texts that a "%f" scan accepts, in as many forms as there are.
class NumberTexts {
 public:
  std::string Next() {
    char text[80];
    const uint64_t bits = m_random();
    float any;
    const uint32_t anyBits = static_cast<uint32_t>(bits);
    memcpy(&any, &anyBits, sizeof any);
    switch (m_random() % 7) {
      case 0:
        snprintf(text, sizeof text, "%.*f", static_cast<int>(bits >> 40) % 9,
                 static_cast<double>(bits % 2000000) / 8000 - 125);
        break;
      case 1:
        snprintf(text, sizeof text, "%.*g", static_cast<int>(bits >> 40) % 18 + 1, static_cast<double>(any));
        break;
      case 2:  // near the middle between two floats
        snprintf(text, sizeof text, "%.*f", static_cast<int>(bits >> 60) + 6, Middle(bits));
        break;
      case 3:
        snprintf(text, sizeof text, "%s%llu.%llue%d", (bits & 1) != 0 ? "+" : "-",
                 static_cast<unsigned long long>(m_random() >> bits % 60),
                 static_cast<unsigned long long>(m_random() >> bits % 50), static_cast<int>(bits >> 8) % 60 - 30);
        break;
      case 4:
        snprintf(text, sizeof text, "%a", static_cast<double>(any));
        break;
      case 5:  // in the very middle, in few enough digits for the quick way
        snprintf(text, sizeof text, "%.5f", 524288 + static_cast<double>(bits % 15000000 | 1) / 32);
        break;
      default:
        snprintf(text, sizeof text, "%s", kOdd[bits % std::size(kOdd)]);
        break;
    }
    return text;
  }
  const char* Blank() {
    static constexpr const char* kBlanks[] = {" ", " ", " ", "\n", " \t\r\n \v\f ", "                        "};
    return kBlanks[m_random() % std::size(kBlanks)];
  }

 private:
  static double Middle(uint64_t bits) {
    const float value = static_cast<float>(static_cast<int>(bits % 100000)) / 997;
    float next = value;
    uint32_t word;
    memcpy(&word, &next, sizeof word);
    word++;
    memcpy(&next, &word, sizeof word);
    return (static_cast<double>(value) + static_cast<double>(next)) / 2;
  }

  static constexpr const char* kOdd[] = {"inf",
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
                                         "0.0000000000000000000000000000000000000000000000000001e53"};
  std::mt19937_64 m_random{961};
};

TEST_F(ConverterTest, GridReadsEveryTextAsAScanDoes) {
  NumberTexts texts;
  std::string file;
  for (int i = 0; i < kGridValues; i++) file += texts.Next() + texts.Blank();
  host().WriteFile(kGridPath, file);
  ASSERT_EQ(init_ww15mgh_grd(), 0);
  ExpectLog(5, "Support of additionnal CoT items enabled.\n");
  FILE* fp = fmemopen(file.data(), file.size(), "r");
  int different = 0;
  for (int i = 0; i < kGridValues && different < 10; i++) {
    float expected = 0;
    ASSERT_EQ(fscanf(fp, "%f", &expected), 1) << i;
    const bool bothNaN = expected != expected && _g_pGrid[i] != _g_pGrid[i];
    if (bothNaN || memcmp(&expected, &_g_pGrid[i], sizeof expected) == 0) continue;
    different++;
    ADD_FAILURE() << "value " << i << " is " << _g_pGrid[i] << ", a scan reads " << expected;
  }
  fclose(fp);
}

}  // namespace
