// The undulation against PROJ's own, on the same EGM96 grid: 10,000 random positions, the poles and the date line.
#include <gtest/gtest.h>
#include <proj.h>

#include <cmath>
#include <random>

#include "converter.h"
#include "host_runtime.h"

namespace {

class Proj {
 public:
  Proj() {
    m_context = proj_context_create();
    m_shift = proj_create(m_context, "+proj=vgridshift +grids=egm96_15.gtx +multiplier=1");
  }
  ~Proj() {
    if (m_shift != nullptr) proj_destroy(m_shift);
    proj_context_destroy(m_context);
  }
  bool Works() const { return m_shift != nullptr; }
  // Metres; ellipsoidal height 0 comes back as the height above the geoid, which is minus the undulation.
  double Undulation(double latitude, double longitude) const {
    const PJ_COORD at = proj_coord(proj_torad(longitude), proj_torad(latitude), 0, 0);
    return std::fabs(proj_trans(m_shift, PJ_FWD, at).xyz.z);
  }

 private:
  PJ_CONTEXT* m_context;
  PJ* m_shift;
};

class GeoidVsProj : public ::testing::Test {
 protected:
  void SetUp() override {
    HostRuntimeConfig config;
    config.console = false;
    HostRuntime_Apply(config);
    ASSERT_EQ(init_ww15mgh_grd(), 0) << "the geoid grid is not installed";
    ASSERT_TRUE(m_proj.Works()) << "PROJ has no egm96_15.gtx";
  }
  void TearDown() override { free_ww15mgh_grd(); }

  void Compare(float latitude, float longitude) {
    float undulation = 0;
    ASSERT_EQ(calcul_undulation(latitude, longitude, &undulation), 0) << latitude << " " << longitude;
    const double wrapped = longitude > 180 ? static_cast<double>(longitude) - 360 : static_cast<double>(longitude);
    EXPECT_NEAR(std::fabs(undulation), m_proj.Undulation(latitude, wrapped), 0.01) << latitude << " " << longitude;
  }

  Proj m_proj;
};

TEST_F(GeoidVsProj, AgreesAtTenThousandRandomPositions) {
  std::mt19937 random(96);
  std::uniform_real_distribution<float> latitude(-90, 90);
  std::uniform_real_distribution<float> longitude(0, 360);
  for (int i = 0; i < 10000; ++i) Compare(latitude(random), longitude(random));
}

TEST_F(GeoidVsProj, AgreesAtThePolesAndTheDateLine) {
  for (const float longitude : {0.0f, 90.0f, 179.875f, 180.0f, 180.125f, 359.875f, 360.0f})
    for (const float latitude : {-90.0f, -89.9f, -45.0f, 0.0f, 45.0f, 89.9f, 90.0f}) Compare(latitude, longitude);
}

}  // namespace
