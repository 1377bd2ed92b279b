// SPDX-License-Identifier: Apache-2.0
// The geoid grid, which the library loads for Cursor-on-Target. Without it the library starts all the same and leaves the
// heights out.
#ifndef MDENCODER_GEOID_GRID_H
#define MDENCODER_GEOID_GRID_H

#include <string>

#include "config.h"

namespace mdencoder {

constexpr char kGeoidGrid[] = "/usr/share/vendor/data/ww15mgh.grd";

// Returns what is wrong with a grid file ("is missing"), or "" for one that the library can load.
std::string GeoidGridFault(const std::string& path);

// Throws ConfigError if a source needs a grid and there is none, unless heights are optional.
void RequireGeoidGrid(const Config& config, const std::string& path = kGeoidGrid);

}  // namespace mdencoder

#endif  // MDENCODER_GEOID_GRID_H
