// SPDX-License-Identifier: Apache-2.0
// Compares heights that pass from PROJ's grid through the tool's file and the library's loader with PROJ's own.
#include <gtest/gtest.h>
#include <proj.h>

#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include "converter.h"
#include "fake_host.h"
#include "geoid_grid.h"

namespace {

class ProjReference : public HostTest {
 protected:
  void TearDown() override { free_ww15mgh_grd(); }
};

// Random positions, and the poles, the date line and Greenwich from both sides.
std::vector<std::pair<double, double>> Positions() {
  std::vector<std::pair<double, double>> positions;
  std::mt19937 random(7);
  std::uniform_real_distribution<double> latitude(-90, 90);
  std::uniform_real_distribution<double> longitude(-180, 180);
  for (int i = 0; i < 10000; ++i) positions.emplace_back(latitude(random), longitude(random));
  for (const double edge : {-90.0, -89.9, 0.0, 89.9, 90.0}) {
    for (const double meridian : {-180.0, -179.95, -0.1, 0.0, 0.1, 179.95, 180.0})
      positions.emplace_back(edge, meridian);
  }
  return positions;
}

TEST_F(ProjReference, UndulationAgreesWithinACentimetre) {
  AllowLogs(5, "Support of additionnal CoT items enabled.\n");
  host().WriteFile(kGridPath,
                   geoid::FormatGrid(geoid::ParseGrid(geoid::ReadWholeFile("/usr/share/proj/egm96_15.gtx"))));
  ASSERT_EQ(init_ww15mgh_grd(), 0);
  PJ* shift = proj_create(nullptr,
                          "+proj=pipeline +step +proj=unitconvert +xy_in=deg +xy_out=rad "
                          "+step +proj=vgridshift +grids=egm96_15.gtx +multiplier=1");
  ASSERT_NE(shift, nullptr);
  for (const auto& [latitude, longitude] : Positions()) {
    float height = 0;
    const double east = longitude < 0 ? longitude + 360 : longitude;
    ASSERT_EQ(calcul_undulation(static_cast<float>(latitude), static_cast<float>(east), &height), 0);
    const PJ_COORD reference = proj_trans(shift, PJ_FWD, proj_coord(longitude, latitude, 0, 0));
    ASSERT_NEAR(static_cast<double>(height), reference.xyz.z, 0.01) << latitude << ", " << longitude;
  }
  proj_destroy(shift);
}

}  // namespace
