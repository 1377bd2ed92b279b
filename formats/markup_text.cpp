// SPDX-License-Identifier: Apache-2.0
#include "markup_text.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace markup_text {

std::string Decimal(double value, int digits) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.*f", digits, value);
  return text.data();
}

std::string TimeText(uint64_t microseconds) {
  const auto seconds = static_cast<time_t>(microseconds / 1000000);
  tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 64> text{};
  const size_t used = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text.data() + used, text.size() - used, ".%03uZ", static_cast<unsigned>(microseconds / 1000 % 1000));
  return text.data();
}

std::string JsonText(std::string_view text) {
  std::string quoted = "\"";
  for (const char character : text) {
    if (character == '"' || character == '\\') quoted += '\\';
    quoted += character;
  }
  return quoted + '"';
}

std::string XmlText(std::string_view text) {
  std::string escaped;
  for (const char character : text) {
    switch (character) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        if (static_cast<unsigned char>(character) < ' ') {
          escaped += "&#" + std::to_string(static_cast<int>(character)) + ";";
        } else {
          escaped += character;
        }
        break;
    }
  }
  return escaped;
}

}  // namespace markup_text
