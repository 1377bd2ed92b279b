// The name of the function that a log line stands in, also where it stands in a lambda: there __func__ is "operator()",
// which says nothing to who searches the source for it.
#ifndef FUNCTION_NAME_H
#define FUNCTION_NAME_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace host_runtime {

// FunctionName(__func__, __PRETTY_FUNCTION__).Text(): of a lambda the innermost named function around it, of anything
// else __func__. The compilers write a lambda as
//
//   g++    R space::{anonymous}::Name(arguments)::<lambda()>
//   clang  auto space::(anonymous namespace)::Name(arguments)::(anonymous class)::operator()() const
class FunctionName {
 public:
  constexpr FunctionName(std::string_view function, std::string_view pretty) {
    const std::string_view around = function == "operator()" ? Around(pretty) : std::string_view();
    const std::string_view name = around.empty() ? function : around;
    std::copy_n(name.data(), std::min(name.size(), kLongest), m_text.begin());
  }
  constexpr const char* Text() const { return m_text.data(); }

 private:
  static constexpr std::size_t kLongest = 95;

  static constexpr std::string_view Around(std::string_view pretty) {
    const std::size_t lambda = std::min(pretty.find("::<lambda"), pretty.find("::(anonymous class)"));
    if (lambda == std::string_view::npos) return {};
    pretty = pretty.substr(0, std::min(lambda, pretty.find(" [with ")));
    // Without what follows the arguments (const, noexcept), the arguments, and those of a template.
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
