// SPDX-License-Identifier: Apache-2.0
// Reading of small text files.
#ifndef HOST_TEXT_FILE_H
#define HOST_TEXT_FILE_H

#include <string>

namespace host_runtime {

// Appends the file's text to *text, as far as it can be read. Returns "" when that is all of it, or one line that says
// why it is not.
std::string ReadTextFile(const std::string& path, std::string* text);

}  // namespace host_runtime

#endif  // HOST_TEXT_FILE_H
