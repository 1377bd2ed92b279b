// Private side of the host runtime.
#ifndef RUNTIME_H
#define RUNTIME_H

#include <optional>
#include <string>

#include "host.h"
#include "host_runtime.h"

namespace runtime {

// The configuration in force; a copy, taken under its lock.
HostRuntimeConfig Config();

// One line of the runtime's own, module "HOST".
void Log(int level, const char* function, const char* format, ...) HOST_PRINTF(3, 4);
// "text (errno)" of an error number.
std::string ErrorText(int error);

// Sets non-blocking and close-on-exec; FALSE closes the descriptor.
bool MakeNonBlocking(int fd);

// Reads one value of an INI file; nothing when file, section or key is missing.
std::optional<std::string> IniValue(const std::string& file, const std::string& section, const std::string& key);

}  // namespace runtime

#define HOST_LOG(level, ...) runtime::Log((level), __func__, __VA_ARGS__)

#endif  // RUNTIME_H
