#include "section.h"

#include <algorithm>
#include <sstream>

#include "values.h"

namespace mdencoder {
namespace {

std::string Join(std::span<const std::string_view> words) {
  std::string text;
  for (const auto word : words) text += (text.empty() ? "" : ", ") + std::string(word);
  return text;
}

std::string Plain(double value) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << value;
  return text.str();
}

}  // namespace

Section::Section(const IniSection& section, std::span<const std::string_view> known) : m_section(section) {
  for (const auto& [key, value] : m_section.values) {
    if (std::find(known.begin(), known.end(), key) != known.end()) continue;
    const std::string nearest = NearestName(key, known);
    std::string text = "[" + Name() + "] ";
    text.append(key).append(" = ").append(value).append(": unknown key");
    if (!nearest.empty()) text.append(", did you mean \"").append(nearest).append("\"?");
    throw ConfigError(text.append("; allowed are ").append(Join(known)));
  }
}

const std::string* Section::Find(std::string_view key) {
  for (const auto& [name, value] : m_section.values) {
    if (name == key) {
      m_used.insert(name);
      return &value;
    }
  }
  return nullptr;
}

std::string Section::Text(std::string_view key, size_t longest) {
  const std::string* value = Find(key);
  if (value == nullptr) return {};
  if (value->empty() || value->size() > longest) Fail(key, *value, "1 to " + std::to_string(longest) + " characters");
  return *value;
}

int64_t Section::Number(std::string_view key, int64_t lowest, int64_t highest, int64_t otherwise) {
  const std::string* value = Find(key);
  if (value == nullptr) return otherwise;
  const auto number = ParseNumber(*value, lowest, highest);
  if (!number) Fail(key, *value, "a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest));
  return *number;
}

double Section::Real(std::string_view key, double lowest, double highest, double otherwise) {
  const std::string* value = Find(key);
  if (value == nullptr) return otherwise;
  const auto number = ParseReal(*value, lowest, highest);
  if (!number) Fail(key, *value, "a number from " + Plain(lowest) + " to " + Plain(highest));
  return *number;
}

bool Section::Flag(std::string_view key, bool otherwise) {
  const std::string* value = Find(key);
  if (value == nullptr) return otherwise;
  const auto flag = ParseFlag(*value);
  if (!flag) Fail(key, *value, "yes or no");
  return *flag;
}

int Section::Choice(std::string_view key, std::span<const std::string_view> choices, int otherwise) {
  const std::string* value = Find(key);
  if (value == nullptr) return otherwise;
  const auto it = std::find(choices.begin(), choices.end(), *value);
  if (it == choices.end()) Fail(key, *value, Join(choices));
  return static_cast<int>(it - choices.begin());
}

void Section::Fail(std::string_view key, std::string_view value, const std::string& allowed) const {
  throw ConfigError("[" + Name() + "] " + std::string(key) + " = " + std::string(value) + ": allowed is " + allowed);
}

const std::pair<std::string, std::string>* Section::Unused() const {
  for (const auto& entry : m_section.values) {
    if (!m_used.contains(entry.first)) return &entry;
  }
  return nullptr;
}

}  // namespace mdencoder
