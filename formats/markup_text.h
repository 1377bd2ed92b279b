// SPDX-License-Identifier: Apache-2.0
// markup_text.h - numbers, times and texts as XML and JSON have them. The texts that come in are printable
// (printable_text.h): they have no control characters.
#ifndef MARKUP_TEXT_H
#define MARKUP_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

namespace markup_text {

// With a point, in every locale of this program, and so many digits behind it.
std::string Decimal(double value, int digits);
// "2024-05-01T10:20:30.123Z" for microseconds since 1970, of a year up to 9999.
std::string TimeText(uint64_t microseconds);
// With its quotation marks.
std::string JsonText(std::string_view text);
// For content and for attributes in double quotation marks, which would turn the end of a line into a blank.
std::string XmlText(std::string_view text);

}  // namespace markup_text

#endif  // MARKUP_TEXT_H
