// Reading INI files through libinih.
#ifndef HOST_INI_FILE_H
#define HOST_INI_FILE_H

#include <functional>
#include <string>

namespace host_runtime {

// Called with every key; a text that is not empty is an error of that line and ends the reading.
using IniHandler =
    std::function<std::string(const std::string& section, const std::string& key, const std::string& value)>;

// False and one line in *error (the file, the line, the reason) when the file cannot be read, has a line that is no
// INI line or is longer than libinih takes, or the handler objects.
bool ReadIniFile(const std::string& path, const IniHandler& handler, std::string* error);

}  // namespace host_runtime

#endif  // HOST_INI_FILE_H
