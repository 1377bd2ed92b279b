// SPDX-License-Identifier: Apache-2.0
// Heights of mean sea level from a geoid grid in GTX format, which PROJ's data packages contain.
#ifndef MDFEED_GEOID_H
#define MDFEED_GEOID_H

#include <string>

#include "flight.h"

namespace mdfeed {

// Path of the EGM96 grid of Debian's proj-data package.
inline constexpr const char* kDefaultGeoidGrid = "/usr/share/proj/egm96_15.gtx";

// Loads a grid and returns its undulation, interpolated between four points; longitudes wrap. Throws RunError.
Undulation LoadGeoid(const std::string& path);

}  // namespace mdfeed

#endif  // MDFEED_GEOID_H
