// SPDX-License-Identifier: Apache-2.0
// What a message says of places and directions, and tracks of it: whole at every chunk, whatever the texts are.
#include "track_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "observation.h"
#include "st0601_items.h"

namespace {

using Json = nlohmann::json;
using st0601::Builder;
using st0601::Observation;
using st0601::Observe;
using st0601::Parse;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using track_text::Format;
using track_text::Writer;

constexpr uint64_t kArrival = 1714558830123456;  // 2024-05-01T10:20:30.123456Z

Builder ShortFlight() {
  Builder builder;
  builder.AddWhole(2, 1224807209913000).AddText(3, "M12").AddText(10, "UAV").Add(5, 90.0).Add(6, 10.0);
  builder.Add(13, 60.0).Add(14, 10.0).Add(15, 1500.0).Add(18, 300.0).Add(19, -30.0).Add(21, 4000.0);
  return builder.Add(23, 60.5).Add(24, 10.5).Add(25, 100.0);
}
Observation SampleOf(const Builder& builder) {
  return Observe(Parse(builder.Finish()));
}

std::string Whole(Format format, const std::vector<Observation>& samples, size_t chunk = 1) {
  Writer writer(format, "udp");
  std::string text = writer.Begin();
  for (size_t i = 0; i < samples.size(); ++i) {
    writer.Add(samples[i], kArrival + i * 1000000);
    if ((i + 1) % chunk == 0) text += writer.TakeChunk();
  }
  return text + writer.TakeChunk() + writer.End();
}

// --- observations ------------------------------------------------------------------------------------

TEST(Observation, HasWhatTheMessageSays) {
  const Observation seen = SampleOf(ShortFlight());
  EXPECT_EQ(seen.timeUs, 1224807209913000u);
  EXPECT_EQ(seen.platformName, "UAV");
  EXPECT_NEAR(seen.platform->latitude, 60.0, 1e-6);
  EXPECT_NEAR(*seen.platform->altitude, 1500.0, 0.2);
  EXPECT_FALSE(seen.platform->ellipsoidHeight);
  EXPECT_NEAR(seen.frameCenter->longitude, 10.5, 1e-6);
  EXPECT_FALSE(seen.target);
  EXPECT_NEAR(*seen.TrueAzimuth(), 30.0, 0.01);
  EXPECT_NEAR(*seen.TrueElevation(), -20.0, 0.01);
}

TEST(Observation, OfNothingIsNothing) {
  for (const Observation& seen : {SampleOf(Builder()), Observe(Parse(st0601::Bytes{1, 2})),
                                  SampleOf(Builder().Add(13, 1000.0).Add(14, 10.0)),  // out of range
                                  SampleOf(Builder().Add(13, 10.0)), SampleOf(Builder().AddWhole(2, INT64_MAX))}) {
    EXPECT_FALSE(seen.platform);
    EXPECT_FALSE(seen.timeUs);
    EXPECT_FALSE(seen.TrueAzimuth());
    EXPECT_FALSE(seen.TrueElevation());
    EXPECT_THAT(seen.corners, SizeIs(0));
  }
}

TEST(Observation, CornersAreFullOnesOrOffsets) {
  Builder offsets = ShortFlight();
  for (uint32_t tag = 26; tag <= 33; ++tag) offsets.Add(tag, tag % 2 == 0 ? 0.01 : 0.02);
  ASSERT_THAT(SampleOf(offsets).corners, SizeIs(4));
  EXPECT_NEAR(SampleOf(offsets).corners[0].latitude, 60.51, 1e-5);
  EXPECT_NEAR(SampleOf(offsets).corners[3].longitude, 10.52, 1e-5);
  for (uint32_t tag = 82; tag <= 89; ++tag) offsets.Add(tag, static_cast<double>(tag));
  EXPECT_NEAR(SampleOf(offsets).corners[1].latitude, 84.0, 1e-5);
  Builder three = ShortFlight();
  for (uint32_t tag = 26; tag <= 31; ++tag) three.Add(tag, 0.01);
  EXPECT_THAT(SampleOf(three).corners, SizeIs(0));
}

TEST(Observation, OffsetsLeadOverTheAntimeridian) {
  Builder builder;
  builder.Add(13, 0.0).Add(14, 179.9).Add(23, 0.0).Add(24, 179.99);
  for (uint32_t tag = 26; tag <= 33; ++tag) builder.Add(tag, tag % 2 == 0 ? 0.01 : 0.05);
  const Observation seen = SampleOf(builder);
  ASSERT_THAT(seen.corners, SizeIs(4));
  EXPECT_NEAR(seen.corners[0].longitude, -179.96, 1e-3);
}

// --- tracks ------------------------------------------------------------------------------------------

TEST(Track, FormatsAreNamedByTheirFiles) {
  EXPECT_EQ(track_text::FormatOf("a/b.geojson"), Format::GeoJson);
  EXPECT_EQ(track_text::FormatOf("b.kml"), Format::Kml);
  EXPECT_EQ(track_text::FormatOf("b.gpx"), Format::Gpx);
  EXPECT_FALSE(track_text::FormatOf("b.json"));
}

TEST(Track, GeoJsonIsWholeAtEveryChunk) {
  for (const size_t chunk : std::vector<size_t>{1, 2, 3, 10}) {
    const Json json = Json::parse(Whole(Format::GeoJson, std::vector<Observation>(7, SampleOf(ShortFlight())), chunk));
    size_t points = 0;
    size_t steps = 0;
    for (const Json& feature : json["features"]) {
      const std::string kind = feature["properties"]["kind"];
      if (kind == "platform") ++points;
      if (kind == "path") steps += feature["geometry"]["coordinates"].size() - 1;
    }
    EXPECT_EQ(points, 7u);
    EXPECT_EQ(steps, 6u) << "lines of chunks of " << chunk << " join";
  }
  EXPECT_TRUE(Json::parse(Whole(Format::GeoJson, {}))["features"].empty());
}

TEST(Track, GeoJsonHasPlatformFrameTargetAndFootprint) {
  Builder builder = ShortFlight();
  builder.Add(40, 60.6).Add(41, 10.6).Add(42, 90.0).Add(75, 1540.0);
  for (uint32_t tag = 82; tag <= 89; ++tag) builder.Add(tag, tag % 2 == 0 ? 60.0 + tag * 0.001 : 10.0 + tag * 0.001);
  const Json features = Json::parse(Whole(Format::GeoJson, {SampleOf(builder)}))["features"];
  ASSERT_EQ(features.size(), 4u);
  EXPECT_EQ(features[0]["geometry"]["coordinates"].size(), 3u) << "the height above the ellipsoid";
  EXPECT_EQ(features[0]["properties"]["time"], "2008-10-24T00:13:29.913Z");
  EXPECT_EQ(features[0]["properties"]["altitude"], 1500.1);
  EXPECT_EQ(features[0]["properties"]["sensor_azimuth"], 30.001);
  EXPECT_EQ(features[1]["properties"]["kind"], "frame_center");
  EXPECT_EQ(features[2]["properties"]["kind"], "target");
  EXPECT_EQ(features[3]["geometry"]["type"], "Polygon");
  EXPECT_EQ(features[3]["geometry"]["coordinates"][0].size(), 5u);
}

// A flight of three samples over the antimeridian, at a speed at which it is crossed a third of the way.
std::vector<Observation> OverTheAntimeridian(double from, double to) {
  std::vector<Observation> samples(3);
  const double longitudes[] = {from - (to < 0 ? 1 : -1), from, to};
  for (size_t i = 0; i < samples.size(); ++i) {
    samples[i].platform.emplace();
    samples[i].platform->longitude = longitudes[i];
    samples[i].platform->latitude = 10.0 + 3.0 * static_cast<double>(i);
    samples[i].platform->altitude = 100.0 * static_cast<double>(i);
    samples[i].platform->ellipsoidHeight = 1000.0;
  }
  return samples;
}

std::vector<Json> Lines(const std::vector<Observation>& samples, size_t chunk) {
  std::vector<Json> lines;
  const Json json = Json::parse(Whole(Format::GeoJson, samples, chunk));
  for (const Json& feature : json["features"]) {
    if (feature["properties"]["kind"] == "path") lines.push_back(feature["geometry"]["coordinates"]);
  }
  return lines;
}

TEST(Track, ALineOverTheAntimeridianIsCutThere) {
  for (const double sign : {1.0, -1.0}) {
    const auto samples = OverTheAntimeridian(sign * 179, sign * -178);
    const auto lines = Lines(samples, 10);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], Json::parse(sign > 0 ? "[[178,10,1000],[179,13,1000],[180,14,1000]]"
                                             : "[[-178,10,1000],[-179,13,1000],[-180,14,1000]]"));
    EXPECT_EQ(lines[1], Json::parse(sign > 0 ? "[[-180,14,1000],[-178,16,1000]]" : "[[180,14,1000],[178,16,1000]]"));
    EXPECT_EQ(Lines(samples, 1).size(), 3u) << "written after each sample";
  }
}

TEST(Track, ASampleOnTheAntimeridianIsNoSecondPoint) {
  const auto from = Lines(OverTheAntimeridian(180, -179), 10);
  ASSERT_EQ(from.size(), 2u);
  EXPECT_EQ(from[0], Json::parse("[[179,10,1000],[180,13,1000]]"));
  EXPECT_EQ(from[1], Json::parse("[[-180,13,1000],[-179,16,1000]]"));
  const auto to = Lines(OverTheAntimeridian(179, -180), 10);
  ASSERT_EQ(to.size(), 1u) << "the second line has one point so far";
  EXPECT_EQ(to[0], Json::parse("[[178,10,1000],[179,13,1000],[180,16,1000]]"));
}

TEST(Track, KmlAndGpxAreCutToo) {
  const auto samples = OverTheAntimeridian(179, -178);
  const std::string kml = Whole(Format::Kml, samples, 10);
  EXPECT_THAT(kml, HasSubstr("<coordinates>178.0000000,10.0000000,0.0 179.0000000,13.0000000,100.0 "
                             "180.0000000,14.0000000,133.3</coordinates>"));
  EXPECT_THAT(kml, HasSubstr("<coordinates>-180.0000000,14.0000000,133.3 -178.0000000,16.0000000,200.0</coordinates>"));
  const std::string gpx = Whole(Format::Gpx, samples, 10);
  const size_t cut = gpx.find("</trkseg>\n<trkseg>");
  EXPECT_LT(gpx.find("lon=\"179.0"), cut);
  EXPECT_GT(gpx.find("lon=\"-178.0"), cut);
  EXPECT_EQ(gpx.find("</trkseg>\n<trkseg>", cut + 1), std::string::npos);
}

TEST(Track, GpxHasNoLongitudeOf180) {
  EXPECT_THAT(Whole(Format::Gpx, OverTheAntimeridian(180, -179), 10), Not(HasSubstr("lon=\"180.0")));
}

// A footprint of two degrees by four around a longitude, its corners in order around it.
Observation WithFootprint(double longitude) {
  Observation seen;
  seen.platform.emplace();
  constexpr double kCorners[][2] = {{2, -2}, {2, 2}, {0, 2}, {0, -2}};
  for (const auto& [latitude, offset] : kCorners) {
    seen.corners.emplace_back();
    seen.corners.back().latitude = latitude;
    seen.corners.back().longitude = std::remainder(longitude + offset, 360);
  }
  return seen;
}

Json Footprint(const Observation& seen) {
  const Json json = Json::parse(Whole(Format::GeoJson, {seen}));
  for (const Json& feature : json["features"]) {
    if (feature["properties"]["kind"] == "footprint") return feature["geometry"];
  }
  return {};
}

TEST(Track, AFootprintOverTheAntimeridianIsTwo) {
  const Json east = Footprint(WithFootprint(179));
  EXPECT_EQ(east["type"], "MultiPolygon");
  EXPECT_EQ(east["coordinates"], Json::parse("[[[[177,2],[180,2],[180,0],[177,0],[177,2]]],"
                                             "[[[-180,2],[-179,2],[-179,0],[-180,0],[-180,2]]]]"));
  const Json west = Footprint(WithFootprint(-179));
  EXPECT_EQ(west["coordinates"], Json::parse("[[[[179,2],[180,2],[180,0],[179,0],[179,2]]],"
                                             "[[[-180,2],[-177,2],[-177,0],[-180,0],[-180,2]]]]"));
  EXPECT_THAT(Whole(Format::Kml, {WithFootprint(179)}),
              HasSubstr("<MultiGeometry><Polygon><outerBoundaryIs><LinearRing><coordinates>177.0000000,2.0000000,0.0 "
                        "180.0000000,2.0000000,0.0 "));
}

TEST(Track, AFootprintBesideTheAntimeridianIsOne) {
  for (const double longitude : {-178.0, 178.0, 0.0}) {
    EXPECT_EQ(Footprint(WithFootprint(longitude))["type"], "Polygon") << longitude;
  }
  EXPECT_THAT(Whole(Format::Kml, {WithFootprint(0)}), Not(HasSubstr("MultiGeometry")));
}

TEST(Track, AFootprintAroundAPoleIsNone) {
  Observation seen = WithFootprint(0);
  for (size_t i = 0; i < seen.corners.size(); ++i) seen.corners[i].longitude = -135 + 90.0 * static_cast<double>(i);
  EXPECT_EQ(Footprint(seen), Json());
  EXPECT_THAT(Whole(Format::Kml, {seen}), Not(HasSubstr("Polygon")));
}

TEST(Track, SamplesWithoutAPlaceAreNone) {
  for (const Format format : {Format::GeoJson, Format::Kml, Format::Gpx}) {
    Writer writer(format, "udp");
    EXPECT_FALSE(writer.Add(SampleOf(Builder().AddText(3, "M")), kArrival));
    EXPECT_EQ(writer.TakeChunk(), "");
  }
}

TEST(Track, TimeOfArrivalStandsInForAnAbsentOne) {
  const Observation seen = SampleOf(Builder().Add(13, 1.0).Add(14, 2.0));
  EXPECT_THAT(Whole(Format::Gpx, {seen}), HasSubstr("<time>2024-05-01T10:20:30.123Z</time>"));
}

TEST(Track, HostileTextsAreText) {
  const std::string hostile = "</name><script>\"&'\\\n\x1B\xFF\xC3]]>";
  const Observation seen = SampleOf(Builder().AddText(10, hostile).AddText(3, hostile).Add(13, 1.0).Add(14, 2.0));
  const Json features = Json::parse(Whole(Format::GeoJson, {seen}))["features"];
  EXPECT_EQ(features[0]["properties"]["name"], "</name><script>\"&'\\\\\\n\\x1B\\xFF\\xC3]]>");
  const std::string kml = Whole(Format::Kml, {seen});
  EXPECT_THAT(kml, HasSubstr("<name>&lt;/name&gt;&lt;script&gt;&quot;&amp;'\\\\\\n\\x1B\\xFF\\xC3]]&gt;</name>"));
  EXPECT_THAT(kml, Not(HasSubstr("script>\"")));
}

}  // namespace
