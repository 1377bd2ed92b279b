// SPDX-License-Identifier: Apache-2.0
// What a new configuration changes in a run.
#ifndef MDENCODER_RELOAD_H
#define MDENCODER_RELOAD_H

#include <string>
#include <vector>

#include "config.h"
#include "host_runtime.h"

namespace mdencoder {

struct ConfigDifference {
  std::vector<std::string> removed;       // names of sources
  std::vector<SourceSettings> changed;    // must be closed and opened again
  std::vector<SourceSettings> unchanged;  // stay open; `retry` may be new
  std::vector<SourceSettings> added;
  std::vector<SourceSettings>
      redirected;                 // of the changed and unchanged ones: those with another track or other events
  bool isShownOtherwise = false;  // columns or items
};

// A configuration and the host's, each checked whole.
struct CheckedConfig {
  Config config;
  HostRuntimeConfig host;
};

// Compares two configurations. Throws ConfigError, in one line that names the key, for a setting that cannot change
// while the program runs.
//
// A source whose name, kind of input or data, or file differs is another one: it is removed and added. The number of a
// source in log lines (`index`) alone is no difference, because numbers shift when a source is added before others.
ConfigDifference Compare(const CheckedConfig& running, const CheckedConfig& fresh);

// Takes over the settings of [encoder] that may change while the program runs.
void TakeOver(EncoderSettings& running, const EncoderSettings& fresh);

// Tells whether both are the same source, so that one continues the other's counts and file.
bool IsSameSource(const SourceSettings& a, const SourceSettings& b);

}  // namespace mdencoder

#endif  // MDENCODER_RELOAD_H
