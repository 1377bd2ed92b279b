// SPDX-License-Identifier: Apache-2.0
// Numbers and switches in text that a person wrote: the values of INI files and of command lines. No I/O.
//
// Each Parse function reads the whole text, without blanks around it, and returns nothing for text that is not allowed.
#ifndef VALUE_TEXT_H
#define VALUE_TEXT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace value_text {

// Decimal, or hexadecimal behind "0x"; a minus sign only in front of a decimal number.
std::optional<int64_t> ParseWholeNumber(std::string_view text, int64_t lowest, int64_t highest);
// Decimal, with a point in every locale.
std::optional<double> ParseReal(std::string_view text, double lowest, double highest);
// "yes", "on", "true", "1" and "no", "off", "false", "0", in upper or lower case.
std::optional<bool> ParseSwitch(std::string_view text);

// "a whole number from 1 to 65535": says what ParseWholeNumber takes.
std::string WholeNumberRange(int64_t lowest, int64_t highest);
// "a number from 0 to 0.5": says what ParseReal takes.
std::string RealRange(double lowest, double highest);
// Says what ParseSwitch takes.
constexpr char kSwitchValues[] = "yes or no";

// `port must be a whole number from 1 to 65535, not "70000"`: the complaint about a value.
std::string Refusal(std::string_view key, std::string_view value, std::string_view allowed);

}  // namespace value_text

#endif  // VALUE_TEXT_H
