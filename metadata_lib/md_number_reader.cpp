// SPDX-License-Identifier: Apache-2.0
// Numbers in text. See the header for the contract.
//
// Contents
//   1. The "C" locale
//   2. One number of a short text
//   3. Eight characters at a time
//   4. The file's numbers in the usual form
//   5. The file
#include "md_number_reader.h"

#include <locale.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <bit>

// =====================================================================================================
// 1. The "C" locale, in which the decimal point is ".". If it cannot be allocated, the thread's own locale is used.
// =====================================================================================================

static pthread_once_t _g_LocaleOnce = PTHREAD_ONCE_INIT;
static locale_t _g_CLocale = nullptr;  // written once, under _g_LocaleOnce

static void _MakeLocale() {
  _g_CLocale = newlocale(LC_ALL_MASK, "C", nullptr);
}

static locale_t _CLocale() {
  pthread_once(&_g_LocaleOnce, _MakeLocale);
  return _g_CLocale;
}

namespace {

// Sets the "C" locale on this thread for a scope.
class CLocaleScope {
 public:
  CLocaleScope() : m_locale(_CLocale()), m_before(m_locale != nullptr ? uselocale(m_locale) : nullptr) {}
  ~CLocaleScope() {
    if (m_locale != nullptr) uselocale(m_before);
  }
  CLocaleScope(const CLocaleScope&) = delete;
  CLocaleScope& operator=(const CLocaleScope&) = delete;

 private:
  const locale_t m_locale;
  const locale_t m_before;
};

}  // namespace

// =====================================================================================================
// 2. One number of a short text
// =====================================================================================================

static constexpr int kMostDigits = 15;  // such a number is below 2^53
static constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                          1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

static bool _IsDigit(int character) {
  return character >= '0' && character <= '9';
}

// Both numbers of the quotient are exact, so that it is rounded once, as the C library rounds it.
bool _ReadDecimal(const char* text, size_t length, double* value) {
  const char* const end = text + length;
  const bool negative = *text == '-';
  text += negative;
  uint64_t digits = 0;
  const char* first = text;
  for (; _IsDigit(*text); ++text) digits = digits * 10 + static_cast<unsigned>(*text - '0');
  ptrdiff_t count = text - first;
  ptrdiff_t places = 0;
  if (*text == '.') {
    first = ++text;
    for (; _IsDigit(*text); ++text) digits = digits * 10 + static_cast<unsigned>(*text - '0');
    places = text - first;
    count += places;
  }
  if (text != end || count == 0 || count > kMostDigits) return false;
  const double whole = static_cast<double>(static_cast<int64_t>(digits));
  *value = (negative ? -whole : whole) / kPowersOfTen[places];
  return true;
}

double _TextToDouble(const char* text) {
  const locale_t locale = _CLocale();
  return locale != nullptr ? strtod_l(text, nullptr, locale) : strtod(text, nullptr);
}

// =====================================================================================================
// 3. Eight characters at a time, as the bytes of a word
// =====================================================================================================

static_assert(std::endian::native == std::endian::little, "the first character is the lowest byte of a word");

static constexpr uint64_t kEveryByte = 0x0101010101010101;
// Masks of the last bytes of a word in memory, by their number.
static constexpr uint64_t kLastBytes[] = {0,           ~0ull << 56, ~0ull << 48, ~0ull << 40, ~0ull << 32,
                                          ~0ull << 24, ~0ull << 16, ~0ull << 8,  ~0ull};

static uint64_t _LoadWord(const char* text) {
  uint64_t word;
  memcpy(&word, text, sizeof(word));
  return word;
}

// Returns the offset of the lowest byte with a bit set, 8 if there is none.
static int _FirstByte(uint64_t marks) {
  return marks == 0 ? 8 : __builtin_ctzll(marks) / 8;
}

// Marks the bytes that are zero; exact for the lowest one.
static uint64_t _ZeroBytes(uint64_t word) {
  return (word - kEveryByte) & ~word & kEveryByte * 0x80;
}

// Marks the bytes that are not above a space; exact for the lowest one.
static uint64_t _BlankBytes(uint64_t word) {
  return (word - kEveryByte * (' ' + 1)) & ~word & kEveryByte * 0x80;
}

// Returns the offset of the first of 16 bytes that is not above a space, 16 if there is none.
static int _BlankOffset(uint64_t first, uint64_t second) {
  const uint64_t marks = _BlankBytes(first);
  return marks != 0 ? _FirstByte(marks) : 8 + _FirstByte(_BlankBytes(second));
}

// Returns the number whose eight digits, 0 to 9 each, are the bytes of a word. Joins them to pairs, fours and eight.
static uint64_t _Combine(uint64_t digits) {
  digits = (digits * 10 + (digits >> 8)) & 0x00FF00FF00FF00FF;
  digits = (digits * 100 + (digits >> 16)) & 0x0000FFFF0000FFFF;
  return (digits * 10000 + (digits >> 32)) & 0xFFFFFFFF;
}

// =====================================================================================================
// 4. The file's numbers in the usual form: an optional minus sign, digits, a point, digits, a blank
// =====================================================================================================

static constexpr int kLookAhead = 32;  // characters from a number's start that the conversions may read
static constexpr double kNegativePowersOfTen[] = {1e0,  1e-1, 1e-2,  1e-3,  1e-4,  1e-5,  1e-6,  1e-7,
                                                  1e-8, 1e-9, 1e-10, 1e-11, 1e-12, 1e-13, 1e-14, 1e-15};
static constexpr uint64_t kWholePowers[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};

static bool _IsBlank(int character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

// Stores digits / 10^places as the nearest float. For fewer than 2^53 the product is within two units of the right
// double. Returns false if it is too close to the midpoint of two floats to round safely.
static bool _Scale(uint64_t digits, unsigned places, uint32_t negative, float* value) {
  constexpr uint64_t kHalfway = 0x10000000;  // of the bits that a float lacks
  constexpr uint64_t kClose = 8;
  const double wide = static_cast<double>(static_cast<int64_t>(digits)) * kNegativePowersOfTen[places];
  uint64_t wideBits;
  memcpy(&wideBits, &wide, sizeof(wideBits));
  if (((wideBits - kHalfway + kClose) & (2 * kHalfway - 1)) <= 2 * kClose) return false;
  const float narrow = static_cast<float>(wide);
  uint32_t bits;
  memcpy(&bits, &narrow, sizeof(bits));
  bits |= negative << 31;
  memcpy(value, &bits, sizeof(bits));
  return true;
}

// Converts a number of 'total' characters with up to six digits before the point and up to eight after it; 'first'
// holds its first eight characters as a word. Returns false for other text. Reads up to 8 bytes in front of the number
// and masks them out.
static bool _Convert(const char* text, uint64_t first, int total, float* value) {
  constexpr uint64_t kAboveNine = kEveryByte * (0x80 - 10);
  const uint32_t negative = *text == '-';
  const int point = _FirstByte(_ZeroBytes(first ^ kEveryByte * '.'));
  const unsigned wholeDigits = static_cast<unsigned>(point) - negative;
  const unsigned places = static_cast<unsigned>(total - point - 1);
  if (wholeDigits - 1 > 5 || places - 1 > 7 || !_IsBlank(text[total])) return false;
  const uint64_t whole = (_LoadWord(text + point - 8) ^ kEveryByte * '0') & kLastBytes[wholeDigits];
  const uint64_t fraction = (_LoadWord(text + total - 8) ^ kEveryByte * '0') & kLastBytes[places];
  const uint64_t noDigits = (whole + kAboveNine) | whole | (fraction + kAboveNine) | fraction;
  if ((noDigits & kEveryByte * 0x80) != 0) return false;
  return _Scale(_Combine(whole) * kWholePowers[places] + _Combine(fraction), places, negative, value);
}

// Converts a number of up to 15 digits, with or without a point, digit by digit. Returns the position after its blank,
// or NULL.
static const char* _ConvertPlain(const char* text, float* value) {
  const uint32_t negative = *text == '-';
  text += negative;
  const char* limit = text + 16;
  const char* point = nullptr;
  uint64_t digits = 0;
  int count = 0;
  unsigned places = 0;
  for (; text < limit; ++text) {
    if (*text == '.' && point == nullptr) {
      point = text;
      continue;
    }
    if (!_IsDigit(*text)) break;
    digits = digits * 10 + static_cast<unsigned>(*text - '0');
    ++count;
  }
  if (point != nullptr) places = static_cast<unsigned>(text - point - 1);
  if (count == 0 || count > kMostDigits || !_IsBlank(*text)) return nullptr;
  return _Scale(digits, places, negative, value) ? text + 1 : nullptr;
}

// Makes sure that the block holds a number's look-ahead. Returns false if the file has no more.
bool MdNumberReader::HasLookAhead() {
  if (m_end - m_next < kLookAhead && !m_fileEnded) Refill();
  return m_end - m_next >= kLookAhead;
}

// Reads numbers of the form above. It handles eight bytes at a time, and no branch depends on a digit or the sign.
// Stops before the first other text, and close to the end of the file. Returns how many numbers it read.
int MdNumberReader::ReadUsual(float* values, int most) {
  if (!m_seekable) return 0;
  int done = 0;
  const char* next = m_next;
  const char* last = next - 1;  // where a number may begin at the latest
  for (; done < most; ++done) {
    if (next > last) {
      m_next = next;
      const bool more = HasLookAhead();
      next = m_next;
      if (!more) break;
      last = m_end - kLookAhead;
    }
    const char* number = next;
    while (_IsBlank(*number) && number - next < 4) ++number;
    const uint64_t first = _LoadWord(number);
    const int total = _BlankOffset(first, _LoadWord(number + 8));
    if (_Convert(number, first, total, &values[done]))
      next = number + total + 1;
    else if (const char* end = _ConvertPlain(number, &values[done]))
      next = end;
    else
      break;
  }
  m_next = next;
  return done;
}

// =====================================================================================================
// 5. The file. Before the C library scans, the file is positioned back to the first unread character of the block.
// =====================================================================================================

// Numbers scanned in a row: enough that reading the block again after them does not cost much.
static constexpr int kScanBatch = 64;

MdNumberReader::MdNumberReader(FILE* file, char* memory)
    : m_file(file), m_block(memory + kMargin), m_next(m_block), m_end(m_block), m_seekable(SeekBy(0)) {
  memset(memory, 0, kMargin);
}

void MdNumberReader::Refill() {
  const size_t kept = static_cast<size_t>(m_end - m_next);
  memmove(m_block, m_next, kept);
  const size_t read = fread(m_block + kept, 1, kBlockSize - kept, m_file);
  if (read == 0) m_fileEnded = true;
  m_next = m_block;
  m_end = m_block + kept + read;
}

// Positions the file where the next number starts. Returns false if that fails.
bool MdNumberReader::GiveBack() {
  const long ahead = static_cast<long>(m_end - m_next);
  m_next = m_end = m_block;
  m_fileEnded = false;
  return ahead == 0 || SeekBy(-ahead);
}

// A scan may consume the beginning of a number ("-", ".", "0x") without finding one. If the file ends inside a number,
// the scan's result is 0 instead of EOF: only the stream's end indicator reports the end.
int MdNumberReader::Scan(float* values, int most) {
  const CLocaleScope cLocale;
  m_atEnd = !GiveBack();
  int done = 0;
  while (done < most && done < kScanBatch && !m_atEnd) {
    const int result = fscanf(m_file, "%f", &values[done]);
    m_atEnd = result == EOF || (result == 0 && feof(m_file));
    if (!m_atEnd) ++done;
  }
  return done;
}

int MdNumberReader::Read(float* values, int most) {
  const int done = ReadUsual(values, most);
  return done < most ? done + Scan(values + done, most - done) : done;
}
