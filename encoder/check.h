// SPDX-License-Identifier: Apache-2.0
// The check of a configuration against the machine: everything that can be tried without a side effect. Nothing is opened
// for writing, sent or made.
#ifndef MDENCODER_CHECK_H
#define MDENCODER_CHECK_H

#include <functional>
#include <string>

#include "config.h"
#include "host_runtime.h"

namespace mdencoder {

struct CheckSubject {
  const Config& config;
  const std::string& configPath;  // "-" for the standard input
  const HostRuntimeConfig& host;  // complete, with what the configuration adds to it
  // Returns "", or why a media file or URL cannot be played.
  std::function<std::string(const std::string& path)> mediaFault;
};

// Throws ConfigError for the first fault, in one line that names section, key, value and what is allowed. Loads the
// library and does not start it.
void CheckEverything(const CheckSubject& subject);

// The parts of it.
void CheckSense(const CheckSubject& subject);    // combinations of keys that cannot do what they say
void CheckFiles(const CheckSubject& subject);    // what is read and written, and that nothing is written twice
void CheckLibrary(const CheckSubject& subject);  // loads, and has this program's major version
void CheckDevices(const CheckSubject& subject);  // the serial device and the video inputs
void CheckNetwork(const CheckSubject& subject);  // ports, groups, senders and relays

// The place of a key, for complaints.
struct KeyPlace {
  std::string file;
  std::string section;
  std::string key;
};
// Throws ConfigError: `FILE: [SECTION] KEY must be ALLOWED, not "VALUE": REASON`.
[[noreturn]] void Refuse(const KeyPlace& place, const std::string& value, const std::string& allowed,
                         const std::string& reason = "");

}  // namespace mdencoder

#endif  // MDENCODER_CHECK_H
