/* One section of the configuration: typed reading of its keys, with faults that say what would have been allowed. */
#ifndef MDENCODER_SECTION_H
#define MDENCODER_SECTION_H

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "ini_file.h"

namespace mdencoder {

class Section {
 public:
  /* Throws ConfigError for a key that is not among `known`. */
  Section(const IniSection& section, std::span<const std::string_view> known);

  const std::string& Name() const { return m_section.name; }
  /* The value, if the key is given; marks it as used. */
  const std::string* Find(std::string_view key);

  std::string Text(std::string_view key, size_t longest);
  int64_t Number(std::string_view key, int64_t lowest, int64_t highest, int64_t otherwise);
  double Real(std::string_view key, double lowest, double highest, double otherwise);
  bool Flag(std::string_view key, bool otherwise);
  /* The position of the value among `choices`. */
  int Choice(std::string_view key, std::span<const std::string_view> choices, int otherwise);

  [[noreturn]] void Fail(std::string_view key, std::string_view value, const std::string& allowed) const;
  /* The first key that nobody asked for, or nullptr. */
  const std::pair<std::string, std::string>* Unused() const;

 private:
  const IniSection& m_section;
  std::set<std::string, std::less<>> m_used;
};

}  // namespace mdencoder

#endif
