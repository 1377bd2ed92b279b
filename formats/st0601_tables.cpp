// SPDX-License-Identifier: Apache-2.0
// The tables of MISB ST 0601 and MISB ST 0102. Ranges and sizes are those of the standards. An item whose name differs
// between editions has its newest name.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "st0601_items.h"

namespace st0601 {
namespace {

constexpr auto kU = Kind::Unsigned;
constexpr auto kS = Kind::Signed;
constexpr auto kN = Kind::Integer;
constexpr auto kC = Kind::Code;
constexpr auto kM = Kind::Imap;
constexpr auto kT = Kind::Text;
constexpr auto kR = Kind::Raw;

constexpr Item kItems[] = {
    {1, "Checksum", "checksum", "", Kind::Checksum, 2, 0, 0},
    {2, "Precision Time Stamp", "time", "", Kind::Time, 8, 0, 0},
    {3, "Mission ID", "mission_id", "", kT, 0, 0, 0},
    {4, "Platform Tail Number", "tail_number", "", kT, 0, 0, 0},
    {5, "Platform Heading Angle", "heading", "deg", kU, 2, 0, 360},
    {6, "Platform Pitch Angle", "pitch", "deg", kS, 2, -20, 20},
    {7, "Platform Roll Angle", "roll", "deg", kS, 2, -50, 50},
    {8, "Platform True Airspeed", "true_airspeed", "m/s", kU, 1, 0, 255},
    {9, "Platform Indicated Airspeed", "indicated_airspeed", "m/s", kU, 1, 0, 255},
    {10, "Platform Designation", "platform", "", kT, 0, 0, 0},
    {11, "Image Source Sensor", "sensor", "", kT, 0, 0, 0},
    {12, "Image Coordinate System", "coordinate_system", "", kT, 0, 0, 0},
    {13, "Sensor Latitude", "sensor_lat", "deg", kS, 4, -90, 90},
    {14, "Sensor Longitude", "sensor_lon", "deg", kS, 4, -180, 180},
    {15, "Sensor True Altitude", "sensor_alt", "m", kU, 2, -900, 19000},
    {16, "Sensor Horizontal Field of View", "hfov", "deg", kU, 2, 0, 180},
    {17, "Sensor Vertical Field of View", "vfov", "deg", kU, 2, 0, 180},
    {18, "Sensor Relative Azimuth Angle", "sensor_azimuth", "deg", kU, 4, 0, 360},
    {19, "Sensor Relative Elevation Angle", "sensor_elevation", "deg", kS, 4, -180, 180},
    {20, "Sensor Relative Roll Angle", "sensor_roll", "deg", kU, 4, 0, 360},
    {21, "Slant Range", "slant_range", "m", kU, 4, 0, 5000000},
    {22, "Target Width", "target_width", "m", kU, 2, 0, 10000},
    {23, "Frame Center Latitude", "frame_center_lat", "deg", kS, 4, -90, 90},
    {24, "Frame Center Longitude", "frame_center_lon", "deg", kS, 4, -180, 180},
    {25, "Frame Center Elevation", "frame_center_elev", "m", kU, 2, -900, 19000},
    {26, "Offset Corner Latitude Point 1", "offset_corner_lat1", "deg", kS, 2, -0.075, 0.075},
    {27, "Offset Corner Longitude Point 1", "offset_corner_lon1", "deg", kS, 2, -0.075, 0.075},
    {28, "Offset Corner Latitude Point 2", "offset_corner_lat2", "deg", kS, 2, -0.075, 0.075},
    {29, "Offset Corner Longitude Point 2", "offset_corner_lon2", "deg", kS, 2, -0.075, 0.075},
    {30, "Offset Corner Latitude Point 3", "offset_corner_lat3", "deg", kS, 2, -0.075, 0.075},
    {31, "Offset Corner Longitude Point 3", "offset_corner_lon3", "deg", kS, 2, -0.075, 0.075},
    {32, "Offset Corner Latitude Point 4", "offset_corner_lat4", "deg", kS, 2, -0.075, 0.075},
    {33, "Offset Corner Longitude Point 4", "offset_corner_lon4", "deg", kS, 2, -0.075, 0.075},
    {34, "Icing Detected", "icing", "", kC, 1, 0, 0},
    {35, "Wind Direction", "wind_direction", "deg", kU, 2, 0, 360},
    {36, "Wind Speed", "wind_speed", "m/s", kU, 1, 0, 100},
    {37, "Static Pressure", "static_pressure", "mbar", kU, 2, 0, 5000},
    {38, "Density Altitude", "density_alt", "m", kU, 2, -900, 19000},
    {39, "Outside Air Temperature", "air_temperature", "degC", Kind::SignedWhole, 1, 0, 0},
    {40, "Target Location Latitude", "target_lat", "deg", kS, 4, -90, 90},
    {41, "Target Location Longitude", "target_lon", "deg", kS, 4, -180, 180},
    {42, "Target Location Elevation", "target_elev", "m", kU, 2, -900, 19000},
    {43, "Target Track Gate Width", "track_gate_width", "px", kU, 1, 0, 510},
    {44, "Target Track Gate Height", "track_gate_height", "px", kU, 1, 0, 510},
    {45, "Target Error Estimate - CE90", "target_ce90", "m", kU, 2, 0, 4095},
    {46, "Target Error Estimate - LE90", "target_le90", "m", kU, 2, 0, 4095},
    {47, "Generic Flag Data", "flags", "", kN, 1, 0, 0},
    {48, "Security Local Set", "security", "", Kind::SecuritySet, 0, 0, 0},
    {49, "Differential Pressure", "differential_pressure", "mbar", kU, 2, 0, 5000},
    {50, "Platform Angle of Attack", "angle_of_attack", "deg", kS, 2, -20, 20},
    {51, "Platform Vertical Speed", "vertical_speed", "m/s", kS, 2, -180, 180},
    {52, "Platform Sideslip Angle", "sideslip", "deg", kS, 2, -20, 20},
    {53, "Airfield Barometric Pressure", "airfield_pressure", "mbar", kU, 2, 0, 5000},
    {54, "Airfield Elevation", "airfield_elev", "m", kU, 2, -900, 19000},
    {55, "Relative Humidity", "humidity", "%", kU, 1, 0, 100},
    {56, "Platform Ground Speed", "ground_speed", "m/s", kU, 1, 0, 255},
    {57, "Ground Range", "ground_range", "m", kU, 4, 0, 5000000},
    {58, "Platform Fuel Remaining", "fuel", "kg", kU, 2, 0, 10000},
    {59, "Platform Call Sign", "call_sign", "", kT, 0, 0, 0},
    {60, "Weapon Load", "weapon_load", "", kN, 2, 0, 0},
    {61, "Weapon Fired", "weapon_fired", "", kN, 1, 0, 0},
    {62, "Laser PRF Code", "laser_prf", "", kN, 2, 0, 0},
    {63, "Sensor Field of View Name", "fov_name", "", kC, 1, 0, 0},
    {64, "Platform Magnetic Heading", "magnetic_heading", "deg", kU, 2, 0, 360},
    {65, "UAS Datalink LS Version Number", "ls_version", "", kN, 1, 0, 0},
    {66, "Deprecated (Target Location Covariance Matrix)", "target_covariance", "", kR, 0, 0, 0},
    {67, "Alternate Platform Latitude", "alt_platform_lat", "deg", kS, 4, -90, 90},
    {68, "Alternate Platform Longitude", "alt_platform_lon", "deg", kS, 4, -180, 180},
    {69, "Alternate Platform Altitude", "alt_platform_alt", "m", kU, 2, -900, 19000},
    {70, "Alternate Platform Name", "alt_platform_name", "", kT, 0, 0, 0},
    {71, "Alternate Platform Heading", "alt_platform_heading", "deg", kU, 2, 0, 360},
    {72, "Event Start Time - UTC", "event_start_time", "", Kind::Time, 8, 0, 0},
    {73, "RVT Local Set", "rvt", "", kR, 0, 0, 0},
    {74, "VMTI Local Set", "vmti", "", kR, 0, 0, 0},
    {75, "Sensor Ellipsoid Height", "sensor_hae", "m", kU, 2, -900, 19000},
    {76, "Alternate Platform Ellipsoid Height", "alt_platform_hae", "m", kU, 2, -900, 19000},
    {77, "Operational Mode", "operational_mode", "", kC, 1, 0, 0},
    {78, "Frame Center Height Above Ellipsoid", "frame_center_hae", "m", kU, 2, -900, 19000},
    {79, "Sensor North Velocity", "north_velocity", "m/s", kS, 2, -327, 327},
    {80, "Sensor East Velocity", "east_velocity", "m/s", kS, 2, -327, 327},
    {81, "Image Horizon Pixel Pack", "horizon", "", kR, 0, 0, 0},
    {82, "Corner Latitude Point 1 (Full)", "corner_lat1", "deg", kS, 4, -90, 90},
    {83, "Corner Longitude Point 1 (Full)", "corner_lon1", "deg", kS, 4, -180, 180},
    {84, "Corner Latitude Point 2 (Full)", "corner_lat2", "deg", kS, 4, -90, 90},
    {85, "Corner Longitude Point 2 (Full)", "corner_lon2", "deg", kS, 4, -180, 180},
    {86, "Corner Latitude Point 3 (Full)", "corner_lat3", "deg", kS, 4, -90, 90},
    {87, "Corner Longitude Point 3 (Full)", "corner_lon3", "deg", kS, 4, -180, 180},
    {88, "Corner Latitude Point 4 (Full)", "corner_lat4", "deg", kS, 4, -90, 90},
    {89, "Corner Longitude Point 4 (Full)", "corner_lon4", "deg", kS, 4, -180, 180},
    {90, "Platform Pitch Angle (Full)", "pitch_full", "deg", kS, 4, -90, 90},
    {91, "Platform Roll Angle (Full)", "roll_full", "deg", kS, 4, -90, 90},
    {92, "Platform Angle of Attack (Full)", "angle_of_attack_full", "deg", kS, 4, -90, 90},
    {93, "Platform Sideslip Angle (Full)", "sideslip_full", "deg", kS, 4, -180, 180},
    {94, "MIIS Core Identifier", "miis_id", "", kR, 0, 0, 0},
    {95, "SAR Motion Imagery Local Set", "sar", "", kR, 0, 0, 0},
    {96, "Target Width Extended", "target_width_extended", "m", kM, 0, 0, 1500000},
    {97, "Range Image Local Set", "range_image", "", kR, 0, 0, 0},
    {98, "Geo-Registration Local Set", "geo_registration", "", kR, 0, 0, 0},
    {99, "Composite Imaging Local Set", "composite_imaging", "", kR, 0, 0, 0},
    {100, "Segment Local Set", "segment", "", kR, 0, 0, 0},
    {101, "Amend Local Set", "amend", "", kR, 0, 0, 0},
    {102, "SDCC-FLP", "sdcc_flp", "", kR, 0, 0, 0},
    {103, "Density Altitude Extended", "density_alt_extended", "m", kM, 0, -900, 40000},
    {104, "Sensor Ellipsoid Height Extended", "sensor_hae_extended", "m", kM, 0, -900, 40000},
    {105, "Alternate Platform Ellipsoid Height Extended", "alt_platform_hae_extended", "m", kM, 0, -900, 40000},
    {106, "Stream Designator", "stream_designator", "", kT, 0, 0, 0},
    {107, "Operational Base", "operational_base", "", kT, 0, 0, 0},
    {108, "Broadcast Source", "broadcast_source", "", kT, 0, 0, 0},
    {109, "Range To Recovery Location", "recovery_range", "km", kM, 0, 0, 21000},
    {110, "Time Airborne", "time_airborne", "s", kN, 0, 0, 0},
    {111, "Propulsion Unit Speed", "propulsion_speed", "rpm", kN, 0, 0, 0},
    {112, "Platform Course Angle", "course", "deg", kM, 0, 0, 360},
    {113, "Altitude AGL", "alt_agl", "m", kM, 0, -900, 40000},
    {114, "Radar Altimeter", "radar_alt", "m", kM, 0, -900, 40000},
    {115, "Control Command", "control_command", "", kR, 0, 0, 0},
    {116, "Control Command Verification List", "control_verification", "", kR, 0, 0, 0},
    {117, "Sensor Azimuth Rate", "azimuth_rate", "deg/s", kM, 0, -1000, 1000},
    {118, "Sensor Elevation Rate", "elevation_rate", "deg/s", kM, 0, -1000, 1000},
    {119, "Sensor Roll Rate", "roll_rate", "deg/s", kM, 0, -1000, 1000},
    {120, "On-board MI Storage Percent Full", "storage_full", "%", kM, 0, 0, 100},
    {121, "Active Wavelength List", "active_wavelengths", "", kR, 0, 0, 0},
    {122, "Country Codes", "country_codes", "", kR, 0, 0, 0},
    {123, "Number of NAVSATs in View", "navsats", "", kN, 1, 0, 0},
    {124, "Positioning Method Source", "positioning_method", "", kN, 1, 0, 0},
    {125, "Platform Status", "platform_status", "", kC, 1, 0, 0},
    {126, "Sensor Control Mode", "sensor_control_mode", "", kC, 1, 0, 0},
    {127, "Sensor Frame Rate Pack", "frame_rate", "", kR, 0, 0, 0},
    {128, "Wavelengths List", "wavelengths", "", kR, 0, 0, 0},
    {129, "Target ID", "target_id", "", kT, 0, 0, 0},
    {130, "Airbase Locations", "airbases", "", kR, 0, 0, 0},
    {131, "Take-off Time", "takeoff_time", "us", kN, 0, 0, 0},
    {132, "Transmission Frequency", "transmission_frequency", "MHz", kM, 0, 1, 99999},
    {133, "On-board MI Storage Capacity", "storage_capacity", "GB", kN, 0, 0, 0},
    {134, "Zoom Percentage", "zoom", "%", kM, 0, 0, 100},
    {135, "Communications Method", "communications_method", "", kT, 0, 0, 0},
    {136, "Leap Seconds", "leap_seconds", "s", Kind::SignedWhole, 0, 0, 0},
    {137, "Correction Offset", "correction_offset", "us", Kind::SignedWhole, 0, 0, 0},
    {138, "Payload List", "payloads", "", kR, 0, 0, 0},
    {139, "Active Payloads", "active_payloads", "", kR, 0, 0, 0},
    {140, "Weapons Stores", "weapons_stores", "", kR, 0, 0, 0},
    {141, "Waypoint List", "waypoints", "", kR, 0, 0, 0},
    {142, "View Domain", "view_domain", "", kR, 0, 0, 0},
    {143, "Metadata Substream ID Pack", "substream_id", "", kR, 0, 0, 0},
};

constexpr Item kSecurityElements[] = {
    {1, "Security Classification", "classification", "", kC, 1, 0, 0},
    {2, "Classifying Country and Releasing Instructions Country Coding Method", "classifying_coding_method", "", kC, 1,
     0, 0},
    {3, "Classifying Country", "classifying_country", "", kT, 0, 0, 0},
    {4, "Security-SCI/SHI Information", "sci_shi", "", kT, 0, 0, 0},
    {5, "Caveats", "caveats", "", kT, 0, 0, 0},
    {6, "Releasing Instructions", "releasing_instructions", "", kT, 0, 0, 0},
    {7, "Classified By", "classified_by", "", kT, 0, 0, 0},
    {8, "Derived From", "derived_from", "", kT, 0, 0, 0},
    {9, "Classification Reason", "classification_reason", "", kT, 0, 0, 0},
    {10, "Declassification Date", "declassification_date", "", kT, 0, 0, 0},
    {11, "Classification and Marking System", "marking_system", "", kT, 0, 0, 0},
    {12, "Object Country Coding Method", "object_coding_method", "", kC, 1, 0, 0},
    {13, "Object Country Codes", "object_country", "", Kind::Text16, 0, 0, 0},
    {14, "Classification Comments", "comments", "", kT, 0, 0, 0},
    {15, "UMID", "umid", "", kR, 0, 0, 0},
    {16, "Stream ID", "stream_id", "", kN, 1, 0, 0},
    {17, "Transport Stream ID", "transport_stream_id", "", kN, 2, 0, 0},
    {18, "Item Designator ID", "item_designator_id", "", kR, 0, 0, 0},
    {22, "Version", "version", "", kN, 2, 0, 0},
    {23, "Classifying Country and Releasing Instructions Country Coding Method Version Date", "classifying_coding_date",
     "", kT, 0, 0, 0},
    {24, "Object Country Coding Method Version Date", "object_coding_date", "", kT, 0, 0, 0},
};

constexpr bool TagsAscend(std::span<const Item> items) {
  for (size_t i = 1; i < items.size(); ++i) {
    if (items[i - 1].tag >= items[i].tag) return false;
  }
  return true;
}
static_assert(TagsAscend(kItems) && TagsAscend(kSecurityElements));

const Item* Find(std::span<const Item> items, uint32_t tag) {
  const auto it = std::lower_bound(items.begin(), items.end(), tag,
                                   [](const Item& item, uint32_t wanted) { return item.tag < wanted; });
  return it != items.end() && it->tag == tag ? &*it : nullptr;
}

constexpr std::string_view kIcing[] = {"detector off", "no icing detected", "icing detected"};
constexpr std::string_view kFieldOfView[] = {"Ultranarrow",    "Narrow",         "Medium",
                                             "Wide",           "Ultrawide",      "Narrow Medium",
                                             "2x Ultranarrow", "4x Ultranarrow", "Continuous Zoom"};
constexpr std::string_view kOperationalMode[] = {"Other", "Operational", "Training", "Exercise", "Maintenance", "Test"};
constexpr std::string_view kPlatformStatus[] = {
    "Active",  "Pre-flight",       "Pre-flight-taxiing", "Run-up",        "Take-off",
    "Ingress", "Manual operation", "Automated-orbit",    "Transitioning", "Egress",
    "Landing", "Landed-taxiing",   "Landed-Parked"};
constexpr std::string_view kSensorControlMode[] = {
    "Off",         "Home Position",           "Uncontrolled",   "Manual Control",
    "Calibrating", "Auto - Holding Position", "Auto - Tracking"};
constexpr std::string_view kClassification[] = {"",       "UNCLASSIFIED", "RESTRICTED", "CONFIDENTIAL",
                                                "SECRET", "TOP SECRET"};
// Elements 2 and 12 of ST 0102.12 number their coding methods differently; only 1, 2, 6, 7 and 13 to 15 have the same
// meaning in both. The standard omits the values that have no text here.
constexpr std::string_view kClassifyingCodingMethod[] = {"",
                                                         "ISO-3166 Two Letter",
                                                         "ISO-3166 Three Letter",
                                                         "FIPS 10-4 Two Letter",
                                                         "FIPS 10-4 Four Letter",
                                                         "ISO-3166 Numeric",
                                                         "1059 Two Letter",
                                                         "1059 Three Letter",
                                                         "",
                                                         "",
                                                         "FIPS 10-4 Mixed",
                                                         "ISO 3166 Mixed",
                                                         "STANAG 1059 Mixed",
                                                         "GENC Two Letter",
                                                         "GENC Three Letter",
                                                         "GENC Numeric",
                                                         "GENC Mixed"};
constexpr auto kObjectCodingMethod = [] {
  std::array<std::string_view, 0x41> texts{};
  texts[0x01] = "ISO-3166 Two Letter";
  texts[0x02] = "ISO-3166 Three Letter";
  texts[0x03] = "ISO-3166 Numeric";
  texts[0x04] = "FIPS 10-4 Two Letter";
  texts[0x05] = "FIPS 10-4 Four Letter";
  texts[0x06] = "1059 Two Letter";
  texts[0x07] = "1059 Three Letter";
  texts[0x0D] = "GENC Two Letter";
  texts[0x0E] = "GENC Three Letter";
  texts[0x0F] = "GENC Numeric";
  texts[0x40] = "GENC AdminSub";
  return texts;
}();

std::span<const std::string_view> CodesOf(const Item& item) {
  const std::string_view key = item.key;
  if (key == "icing") return kIcing;
  if (key == "fov_name") return kFieldOfView;
  if (key == "operational_mode") return kOperationalMode;
  if (key == "platform_status") return kPlatformStatus;
  if (key == "sensor_control_mode") return kSensorControlMode;
  if (key == "classification") return kClassification;
  if (key == "classifying_coding_method") return kClassifyingCodingMethod;
  if (key == "object_coding_method") return kObjectCodingMethod;
  return {};
}

}  // namespace

std::span<const Item> Items() {
  return kItems;
}
std::span<const Item> SecurityElements() {
  return kSecurityElements;
}

const Item* FindItem(uint32_t tag) {
  return Find(kItems, tag);
}
const Item* FindSecurityElement(uint32_t tag) {
  return Find(kSecurityElements, tag);
}

const Item* FindItem(std::string_view key) {
  for (const Item& item : kItems) {
    if (key == item.key) return &item;
  }
  return nullptr;
}

std::string_view CodeText(const Item& item, int64_t code) {
  const auto codes = CodesOf(item);
  if (code < 0 || static_cast<size_t>(code) >= codes.size()) return {};
  return codes[static_cast<size_t>(code)];
}

}  // namespace st0601
