// SPDX-License-Identifier: Apache-2.0
#include "value_text.h"

#include <strings.h>

#include <charconv>
#include <locale>
#include <sstream>
#include <system_error>

namespace value_text {
namespace {

template <typename Number, typename... Format>
std::optional<Number> ParseAll(std::string_view text, Format... format) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, format...);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

bool IsSameWord(std::string_view text, std::string_view word) {
  return text.size() == word.size() && strncasecmp(text.data(), word.data(), word.size()) == 0;
}

std::string Plain(double value) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << value;
  return text.str();
}

}  // namespace

std::optional<int64_t> ParseWholeNumber(std::string_view text, int64_t lowest, int64_t highest) {
  const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (isHexadecimal) text.remove_prefix(2);
  if (isHexadecimal && text.starts_with('-')) return std::nullopt;
  const auto number = ParseAll<int64_t>(text, isHexadecimal ? 16 : 10);
  return number && *number >= lowest && *number <= highest ? number : std::nullopt;
}

std::optional<double> ParseReal(std::string_view text, double lowest, double highest) {
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  const auto number = ParseAll<double>(text);
  return number && *number >= lowest && *number <= highest ? number : std::nullopt;
}

std::optional<bool> ParseSwitch(std::string_view text) {
  for (const std::string_view yes : {"yes", "on", "true", "1"}) {
    if (IsSameWord(text, yes)) return true;
  }
  for (const std::string_view no : {"no", "off", "false", "0"}) {
    if (IsSameWord(text, no)) return false;
  }
  return std::nullopt;
}

std::string WholeNumberRange(int64_t lowest, int64_t highest) {
  return "a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest);
}

std::string RealRange(double lowest, double highest) {
  return "a number from " + Plain(lowest) + " to " + Plain(highest);
}

std::string Refusal(std::string_view key, std::string_view value, std::string_view allowed) {
  std::string text(key);
  text.append(" must be ").append(allowed).append(", not \"").append(value).append("\"");
  return text;
}

}  // namespace value_text
