#include "schedule.h"

#include <charconv>
#include <cmath>
#include <sstream>
#include <stdexcept>

namespace mdfeed {
namespace {

int ParseNumber(const std::string& text, int min, int max) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  const char* begin = text.data() + (hex ? 2 : 0);
  const char* end = text.data() + text.size();
  int value = 0;
  const auto [rest, error] = std::from_chars(begin, end, value, hex ? 16 : 10);
  if (error != std::errc() || rest != end || value < min || value > max) {
    throw std::invalid_argument("'" + text + "' is not a number from " + std::to_string(min) + " to " +
                                std::to_string(max));
  }
  return value;
}

std::chrono::milliseconds ParseSeconds(std::string text) {
  const std::string asWritten = text;
  if (text.ends_with('s')) text.pop_back();
  double seconds = 0;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || rest != text.data() + text.size() || !(seconds >= 0 && seconds <= 1e6)) {
    throw std::invalid_argument("'" + asWritten + "' is not a time in seconds");
  }
  return std::chrono::milliseconds(std::llround(seconds * 1000.0));
}

}  // namespace

Schedule Schedule::Parse(const std::string& text, int min, int max) {
  Schedule schedule;
  std::istringstream parts(text);
  std::string part;
  while (std::getline(parts, part, ',')) {
    const std::size_t at = part.find('@');
    Entry entry{std::chrono::milliseconds(0), ParseNumber(part.substr(0, at), min, max)};
    if (at != std::string::npos) entry.after = ParseSeconds(part.substr(at + 1));
    if (!schedule.m_entries.empty() && entry.after <= schedule.m_entries.back().after) {
      throw std::invalid_argument("'" + part + "' needs a later time than the value before it, as in 32,64@2");
    }
    schedule.m_entries.push_back(entry);
  }
  if (schedule.m_entries.empty()) throw std::invalid_argument("no value");
  return schedule;
}

std::optional<int> Schedule::TakeDue(std::chrono::milliseconds elapsed) {
  std::optional<int> due;
  while (m_taken < m_entries.size() && m_entries[m_taken].after <= elapsed) due = m_entries[m_taken++].value;
  return due;
}

}  // namespace mdfeed
