// SPDX-License-Identifier: Apache-2.0
#include "section.h"

#include <algorithm>
#include <utility>

#include "value_text.h"
#include "values.h"

namespace mdencoder {

std::string Join(std::span<const std::string_view> words) {
  std::string text;
  for (const auto word : words) text += (text.empty() ? "" : ", ") + std::string(word);
  return text;
}

Section::Section(const IniSection& section, std::span<const std::string_view> known, std::string iniPath)
    : m_section(section), m_iniPath(std::move(iniPath)) {
  for (const ini::Entry& entry : m_section.entries) {
    if (std::find(known.begin(), known.end(), entry.key) != known.end()) continue;
    const std::string nearest = NearestName(entry.key, known);
    std::string text = "[" + Name() + "] ";
    text.append(entry.key).append(" = ").append(entry.value).append(": unknown key");
    if (!nearest.empty()) text.append(", did you mean \"").append(nearest).append("\"?");
    throw ConfigError(text.append("; allowed are ").append(Join(known)));
  }
}

const ini::Entry* Section::FindEntry(std::string_view key) {
  for (const ini::Entry& entry : m_section.entries) {
    if (entry.key == key) {
      m_used.insert(entry.key);
      return &entry;
    }
  }
  return nullptr;
}

const std::string* Section::Find(std::string_view key) {
  const ini::Entry* entry = FindEntry(key);
  return entry == nullptr ? nullptr : &entry->value;
}

std::string Section::Text(std::string_view key, size_t longest) {
  const std::string* value = Find(key);
  if (value == nullptr) return {};
  if (value->empty() || value->size() > longest) {
    Fail(key, *value, "1 to " + std::to_string(longest) + " characters long");
  }
  return *value;
}

std::string Section::Path(std::string_view key) {
  constexpr size_t kLongestPath = 4095;
  const std::string name = Text(key, kLongestPath);
  const ini::Entry* entry = FindEntry(key);
  return entry == nullptr || entry->line == kCommandLine ? name : ini::Beside(m_iniPath, name);
}

int64_t Section::Number(std::string_view key, int64_t lowest, int64_t highest, int64_t otherwise) {
  const std::string* value = Find(key);
  if (value == nullptr) return otherwise;
  const auto number = value_text::ParseWholeNumber(*value, lowest, highest);
  if (!number) Fail(key, *value, value_text::WholeNumberRange(lowest, highest));
  return *number;
}

double Section::Real(std::string_view key, double lowest, double highest, double otherwise) {
  const std::string* value = Find(key);
  if (value == nullptr) return otherwise;
  const auto number = value_text::ParseReal(*value, lowest, highest);
  if (!number) Fail(key, *value, value_text::RealRange(lowest, highest));
  return *number;
}

bool Section::Switch(std::string_view key, bool otherwise) {
  const std::string* value = Find(key);
  if (value == nullptr) return otherwise;
  const auto isOn = value_text::ParseSwitch(*value);
  if (!isOn) Fail(key, *value, value_text::kSwitchValues);
  return *isOn;
}

int Section::Choice(std::string_view key, std::span<const std::string_view> choices, int otherwise) {
  const std::string* value = Find(key);
  if (value == nullptr) return otherwise;
  const auto it = std::find(choices.begin(), choices.end(), *value);
  if (it == choices.end()) Fail(key, *value, "one of " + Join(choices));
  return static_cast<int>(it - choices.begin());
}

void Section::Fail(std::string_view key, std::string_view value, std::string_view allowed) const {
  throw ConfigError("[" + Name() + "] " + value_text::Refusal(key, value, allowed));
}

const std::string* Section::UnusedKey() const {
  for (const ini::Entry& entry : m_section.entries) {
    if (!m_used.contains(entry.key)) return &entry.key;
  }
  return nullptr;
}

}  // namespace mdencoder
