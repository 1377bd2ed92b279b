// SPDX-License-Identifier: Apache-2.0
#include "geoid.h"

#include <memory>
#include <optional>
#include <utility>

#include "error.h"
#include "gtx_grid.h"
#include "traffic.h"

namespace mdfeed {

Undulation LoadGeoid(const std::string& path) {
  const Bytes data = ReadFile(path);
  std::optional<gtx::Grid> grid = gtx::Parse({reinterpret_cast<const char*>(data.data()), data.size()});
  if (!grid || !grid->IsWorldWide()) throw RunError(path + " is not a world-wide geoid grid in GTX format");
  const auto shared = std::make_shared<const gtx::Grid>(std::move(*grid));
  return [shared](double latitude, double longitude) { return shared->Interpolate(latitude, longitude); };
}

}  // namespace mdfeed
