// SPDX-License-Identifier: Apache-2.0
// The name of the function that contains a log line. Inside a lambda __func__ is only "operator()", which nobody can
// find in the source.
#ifndef FUNCTION_NAME_H
#define FUNCTION_NAME_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace host_runtime {

// FunctionName(__PRETTY_FUNCTION__).Text() is the plain name of the function, or of the named function around a lambda.
// The compilers write a function, and a lambda in it, as
//
//   g++    R space::{anonymous}::Name(arguments)      R space::{anonymous}::Name(arguments)::<lambda()>
//   clang  R space::(anonymous namespace)::Name(arguments)
//          auto space::(anonymous namespace)::Name(arguments)::(anonymous class)::operator()() const
class FunctionName {
 public:
  constexpr explicit FunctionName(std::string_view pretty) {
    const std::string_view name = Read(pretty);
    std::copy_n(name.data(), std::min(name.size(), kLongest), m_text.begin());
  }
  constexpr const char* Text() const { return m_text.data(); }

 private:
  static constexpr size_t kLongest = 95;

  static constexpr std::string_view Read(std::string_view pretty) {
    pretty =
        pretty.substr(0, std::min({pretty.find("::<lambda"), pretty.find("::(anonymous class)"), pretty.find(" [")}));
    // Removes the text after the arguments (const, noexcept), the arguments, and those of a template.
    pretty = pretty.substr(0, pretty.rfind(')') + 1);
    pretty = WithoutBrackets(WithoutBrackets(pretty, '(', ')'), '<', '>');
    return pretty.substr(pretty.find_last_of(" :*&") + 1);
  }

  static constexpr std::string_view WithoutBrackets(std::string_view text, char opening, char closing) {
    if (!text.ends_with(closing)) return text;
    int open = 0;
    while (!text.empty()) {
      open += text.back() == closing ? 1 : text.back() == opening ? -1 : 0;
      text.remove_suffix(1);
      if (open == 0) break;
    }
    return text;
  }

  std::array<char, kLongest + 1> m_text{};
};

}  // namespace host_runtime

#endif  // FUNCTION_NAME_H
