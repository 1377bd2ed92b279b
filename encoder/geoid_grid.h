// SPDX-License-Identifier: Apache-2.0
// The geoid grid, which the library loads for Cursor-on-Target. Without it the library starts all the same and leaves the
// heights out.
#ifndef MDENCODER_GEOID_GRID_H
#define MDENCODER_GEOID_GRID_H

#include <functional>
#include <optional>
#include <string>

#include "config.h"
#include "gtx_grid.h"
#include "observation.h"

namespace mdencoder {

constexpr char kGeoidGrid[] = "/usr/share/vendor/data/ww15mgh.grd";

// Returns what is wrong with a grid file ("is missing"), or "" for one that the library can load.
std::string GeoidGridFault(const std::string& path);

// Reads a grid file. Returns nothing if the library could not load it.
std::optional<gtx::Grid> LoadGeoidGrid(const std::string& path);

// Returns the height of the geoid above the ellipsoid in metres, or nothing without a grid.
using Undulation = std::function<std::optional<double>(double latitude, double longitude)>;
// That of kGeoidGrid, which the first call reads for the whole run; that takes a tenth of a second.
std::optional<double> SystemUndulation(double latitude, double longitude);
// Adds the heights above the ellipsoid that a message lacks to those above the sea.
void AddEllipsoidHeights(st0601::Observation& seen, const Undulation& undulation);

// Throws ConfigError if a source needs a grid and there is none, unless heights are optional.
void RequireGeoidGrid(const Config& config, const std::string& path = kGeoidGrid);

}  // namespace mdencoder

#endif  // MDENCODER_GEOID_GRID_H
