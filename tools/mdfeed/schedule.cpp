// SPDX-License-Identifier: Apache-2.0
#include "schedule.h"

#include <cmath>
#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "value_text.h"

namespace mdfeed {
namespace {

int ParseValue(const std::string& text, int lowest, int highest) {
  const auto value = value_text::ParseWholeNumber(text, lowest, highest);
  if (!value) {
    throw std::invalid_argument("'" + text + "' is not a number from " + std::to_string(lowest) + " to " +
                                std::to_string(highest));
  }
  return static_cast<int>(*value);
}

std::chrono::milliseconds ParseSeconds(std::string_view text) {
  const std::string_view number = text.ends_with('s') ? text.substr(0, text.size() - 1) : text;
  const auto seconds = value_text::ParseReal(number, 0, 1e6);
  if (!seconds) throw std::invalid_argument("'" + std::string(text) + "' is not a time in seconds");
  return std::chrono::milliseconds(std::llround(*seconds * 1000.0));
}

}  // namespace

Schedule Schedule::Parse(const std::string& text, int lowest, int highest) {
  Schedule schedule;
  std::istringstream parts(text);
  std::string part;
  while (std::getline(parts, part, ',')) {
    const size_t at = part.find('@');
    Entry entry{std::chrono::milliseconds(0), ParseValue(part.substr(0, at), lowest, highest)};
    if (at != std::string::npos) entry.after = ParseSeconds(part.substr(at + 1));
    if (!schedule.m_entries.empty() && entry.after <= schedule.m_entries.back().after) {
      throw std::invalid_argument("'" + part + "' needs a later time than the value before it, as in 32,64@2");
    }
    schedule.m_entries.push_back(entry);
  }
  if (schedule.m_entries.empty()) throw std::invalid_argument("no value");
  return schedule;
}

std::optional<int> Schedule::PopDue(std::chrono::milliseconds elapsed) {
  std::optional<int> due;
  while (m_taken < m_entries.size() && m_entries[m_taken].after <= elapsed) due = m_entries[m_taken++].value;
  return due;
}

}  // namespace mdfeed
