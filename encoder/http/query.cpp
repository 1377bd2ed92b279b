// SPDX-License-Identifier: Apache-2.0
#include "http/query.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <system_error>
#include <utility>

#include "section.h"
#include "values.h"

namespace mdencoder::http {
namespace {

constexpr size_t kMostParameters = 64;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const char lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::string Decode(std::string_view text, bool plusIsSpace) {
  std::string decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+' && plusIsSpace) {
      decoded += ' ';
    } else if (text[i] != '%') {
      decoded += text[i];
    } else {
      const int high = i + 2 < text.size() ? HexValue(text[i + 1]) : -1;
      const int low = i + 2 < text.size() ? HexValue(text[i + 2]) : -1;
      if (high < 0 || low < 0) throw Refusal{400, "a percent sign must begin two hexadecimal digits"};
      decoded += static_cast<char>(high << 4 | low);
      i += 2;
    }
  }
  return decoded;
}

[[noreturn]] void Refuse(std::string_view key, const std::string& allowed) {
  throw Refusal{400, std::string(key) + " must be " + allowed};
}

std::string Plain(double number) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g", number);
  return text;
}

}  // namespace

std::string ParseTarget(std::string_view target, Parameters& query) {
  const size_t mark = std::min(target.find('?'), target.size());
  std::string path = Decode(target.substr(0, mark), false);
  std::string_view rest = target.substr(std::min(mark + 1, target.size()));
  while (!rest.empty()) {
    const size_t end = std::min(rest.find('&'), rest.size());
    const std::string_view pair = rest.substr(0, end);
    const size_t equals = std::min(pair.find('='), pair.size());
    if (!pair.empty()) {
      if (query.size() == kMostParameters) throw Refusal{400, "there are too many parameters"};
      query.emplace(Decode(pair.substr(0, equals), true), Decode(pair.substr(std::min(equals + 1, pair.size())), true));
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return path;
}

const std::string* Query::Find(std::string_view key) {
  m_used.emplace(key);
  const auto [begin, end] = m_parameters.equal_range(key);
  if (begin == end) return nullptr;
  if (std::next(begin) != end) throw Refusal{400, std::string(key) + " is given twice"};
  return &begin->second;
}

std::optional<int64_t> Query::Number(std::string_view key, int64_t lowest, int64_t highest) {
  const std::string* const text = Find(key);
  if (text == nullptr) return std::nullopt;
  int64_t number = 0;
  const char* const end = text->data() + text->size();
  const auto [stop, error] = std::from_chars(text->data(), end, number);
  if (error != std::errc() || stop != end || number < lowest || number > highest) {
    Refuse(key, "a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest));
  }
  return number;
}

int64_t Query::Number(std::string_view key, int64_t lowest, int64_t highest, int64_t otherwise) {
  return Number(key, lowest, highest).value_or(otherwise);
}

double Query::Real(std::string_view key, double lowest, double highest, double otherwise) {
  const std::string* const text = Find(key);
  if (text == nullptr) return otherwise;
  double number = 0;
  const char* const end = text->data() + text->size();
  const auto [stop, error] = std::from_chars(text->data(), end, number);
  if (error != std::errc() || stop != end || !std::isfinite(number) || number < lowest || number > highest) {
    Refuse(key, "a number from " + Plain(lowest) + " to " + Plain(highest));
  }
  return number;
}

bool Query::Switch(std::string_view key) {
  const std::string* const text = Find(key);
  if (text == nullptr || *text == "0" || *text == "no") return false;
  if (!text->empty() && *text != "1" && *text != "yes") Refuse(key, "0 or 1");
  return true;
}

size_t Query::Choice(std::string_view key, std::span<const std::string_view> choices, size_t otherwise) {
  const std::string* const text = Find(key);
  if (text == nullptr) return otherwise;
  const auto chosen = std::find(choices.begin(), choices.end(), *text);
  if (chosen == choices.end()) Refuse(key, "one of " + Join(choices));
  return static_cast<size_t>(chosen - choices.begin());
}

std::string Query::Text(std::string_view key) {
  const std::string* const text = Find(key);
  return text == nullptr ? "" : *text;
}

std::vector<std::string> Query::Texts(std::string_view key, size_t most) {
  m_used.emplace(key);
  std::vector<std::string> texts;
  const auto [begin, end] = m_parameters.equal_range(key);
  for (auto it = begin; it != end; ++it) {
    for (std::string& part : SplitList(it->second)) texts.push_back(std::move(part));
    if (texts.size() > most)
      throw Refusal{400, std::string(key) + " is given more than " + std::to_string(most) + " times"};
  }
  return texts;
}

void Query::Finish() const {
  for (const auto& [key, value] : m_parameters) {
    if (!m_used.contains(key)) throw Refusal{400, "the parameter \"" + key + "\" is not known"};
  }
}

}  // namespace mdencoder::http
