#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tracks as GDAL and GPSBabel read them: while the run goes on, after it was killed, on a full disk, with hostile
texts."""
import json
import pathlib
import signal
import struct
import subprocess
import tempfile
import xml.etree.ElementTree

import harness
from harness import EndToEndTest, send
from recipe import Recipe

FORMATS = ("geojson", "kml", "gpx")


def angle(degrees, full, size):
    return round(degrees / full * (2 ** (8 * size - 1) - 1)).to_bytes(size, "big", signed=True)


def sample(number, *more):
    """A message of a platform that flies east, with a footprint around its frame centre and a target."""
    longitude = 7 + number * 0.001
    corners = [(26, 300), (27, -300), (28, 300), (29, 300), (30, -300), (31, 300), (32, -300), (33, -300)]
    return harness.message(
        (2, (1700000000000000 + number * 1000000).to_bytes(8, "big")), (5, struct.pack(">H", 16384)),
        (13, angle(46, 90, 4)), (14, angle(longitude, 180, 4)), (15, struct.pack(">H", 9000)),
        (23, angle(46.1, 90, 4)), (24, angle(longitude, 180, 4)), (25, struct.pack(">H", 4000)),
        *[(tag, struct.pack(">h", value)) for tag, value in corners],
        (40, angle(46.2, 90, 4)), (41, angle(7.5, 180, 4)), *more)


class Track(EndToEndTest):
    def run_with(self, messages, folder=None, track="udp.{0}", wait=True):
        """Three sources get the same messages; each has a track of another format."""
        folder = folder or self.folder
        config = "[encoder]\ntrack_interval = 0\n" + "".join(
            f"[{name}]\ninput = udp\nport = {15811 + i}\ntrack = {folder}/{track.format(name)}\n"
            for i, name in enumerate(FORMATS))
        self.encoder(config, [15811, 15812, 15813])
        for message in messages:
            for port in (15811, 15812, 15813):
                send(port, message)
        if wait:
            for name in FORMATS:
                self.settle(name, len(messages))

    def features(self, path, layer=None):
        """The features that GDAL reads, as GeoJSON of its own."""
        out = self.folder / "read.json"
        out.unlink(missing_ok=True)
        done = subprocess.run(["ogr2ogr", "-f", "GeoJSONSeq", "-mapFieldType", "DateTime=String", out, path, *([layer] if layer else [])], capture_output=True,
                              text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""), path)
        return [json.loads(line) for line in out.read_text().splitlines()]

    def babel(self, path, form):
        """The track points that GPSBabel reads."""
        done = subprocess.run(["gpsbabel", "-t", "-i", form, "-f", path, "-o", "gpx", "-F", "-"], capture_output=True,
                              check=True)
        return [element for element in xml.etree.ElementTree.fromstring(done.stdout).iter()
                if element.tag.endswith("trkpt")]

    def kinds(self, features, key, name):
        return sum(feature["properties"].get(key) == name for feature in features)

    def check_all(self, count):
        """All three files hold so many samples."""
        features = self.features(self.folder / "udp.geojson")
        for kind in ("platform", "frame_center", "target", "footprint"):
            self.assertEqual(self.kinds(features, "kind", kind), count, kind)
        points = [feature for feature in features if feature["properties"]["kind"] == "platform"]
        for number, point in enumerate(points):
            self.assertAlmostEqual(point["geometry"]["coordinates"][0], 7 + number * 0.001, places=6)
            self.assertAlmostEqual(point["geometry"]["coordinates"][1], 46, places=6)
            self.assertAlmostEqual(point["properties"]["heading"], 90, delta=0.01)
        steps = sum(len(feature["geometry"]["coordinates"]) - 1 for feature in features
                    if feature["properties"]["kind"] == "path")
        self.assertEqual(steps, count - 1)
        placemarks = self.features(self.folder / "udp.kml")
        geometries = [feature["geometry"]["type"] for feature in placemarks]
        self.assertEqual((geometries.count("Point"), geometries.count("Polygon")), (3 * count, count))
        track = self.features(self.folder / "udp.gpx", "track_points")
        self.assertEqual(len(track), count)
        self.assertEqual(len(self.babel(self.folder / "udp.gpx", "gpx")), count)
        self.assertAlmostEqual(track[0]["properties"]["ele"], -900 + 9000 / 65535 * 19900, delta=0.1)
        self.assertTrue(track[1]["properties"]["time"].startswith("2023/11/14 22:13:21"), track[1]["properties"])

    def test_readers_of_maps_see_the_flight(self):
        self.run_with([sample(number) for number in range(50)])
        self.stop()
        self.check_all(50)

    def test_a_run_that_was_killed_leaves_whole_files(self):
        self.run_with([sample(number) for number in range(20)])
        sizes = {}

        def rested():
            seen = {name: (self.folder / f"udp.{name}").stat().st_size for name in FORMATS}
            same = seen == sizes and min(seen.values()) > 2000
            sizes.update(seen)
            return same and all("46." in (self.folder / f"udp.{name}").read_text() for name in FORMATS)

        self.wait_for(lambda: self.kinds(self.features(self.folder / "udp.geojson"), "kind", "platform") == 20, "the track")
        self.wait_for(rested, "files that have rested")
        self.wait_for(lambda: len(self.features(self.folder / "udp.gpx", "track_points")) == 20, "the track")
        self.wait_for(lambda: len(self.features(self.folder / "udp.kml")) >= 80, "the track")
        self.encoder_process.send_signal(signal.SIGKILL)
        self.encoder_process.wait()
        self.check_all(20)

    def test_a_full_disk_keeps_whole_files_and_other_sources_go_on(self):
        disk = pathlib.Path(tempfile.mkdtemp(prefix="metadata_disk_"))
        self.addCleanup(disk.rmdir)
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", disk], capture_output=True).returncode:
            self.fail("this test mounts a small disk: run it as root")
        self.addCleanup(subprocess.run, ["umount", "-l", disk])
        (disk / "ballast").write_bytes(bytes(200 << 10))
        self.run_with([sample(number) for number in range(100)], disk)
        errors = self.folder / "encoder.err"
        self.wait_for(lambda: errors.read_text().count("cannot be written further") >= 1, "the full disk")
        lines = errors.read_text().splitlines()
        for name in FORMATS:
            layer = "track_points" if name == "gpx" else None
            self.features(disk / f"udp.{name}", layer)
        (disk / "ballast").unlink()
        failed = [name for name in FORMATS if any(f"the track of {name} cannot" in line for line in lines)]
        self.wait_for(lambda: all(f"the track of {name} continues" in errors.read_text() for name in failed), "the room")
        self.stop()
        for name in FORMATS:
            self.assertEqual(len(self.delivered(name)), 100)
            self.assertLessEqual(errors.read_text().count(f"the track of {name} cannot"), 1)
        self.assertEqual(self.kinds(self.features(disk / "udp.geojson"), "kind", "platform"), 100)

    def test_a_flight_over_the_antimeridian_does_not_go_around_the_world(self):
        places = [178.5, 179.5, -179.5, -178.5]
        self.run_with([harness.message((2, (1700000000000000 + number * 1000000).to_bytes(8, "big")),
                                       (13, angle(46, 90, 4)), (14, angle(longitude, 180, 4)))
                       for number, longitude in enumerate(places)])
        self.stop()
        for name, key in (("geojson", "kind"), ("kml", "Name")):
            lines = [feature["geometry"]["coordinates"] for feature in self.features(self.folder / f"udp.{name}")
                     if feature["properties"].get(key) == "path"]
            for line in lines:
                for one, other in zip(line, line[1:]):
                    self.assertLess(abs(one[0] - other[0]), 2, name)
            edges = {point[0] for line in lines for point in line}
            self.assertLessEqual({180, -180}, edges, name)
        segments = self.features(self.folder / "udp.gpx", "track_points")
        self.assertEqual([point["properties"]["track_seg_id"] for point in segments], [0, 0, 1, 1])

    def test_hostile_texts_stay_texts(self):
        hostile = b"</name></Placemark>\x00\x1b\"'&<![CDATA[\xff]]>"
        self.run_with([sample(0, (3, hostile), (10, hostile), (11, hostile)), harness.message((13, b"\x80\0\0\0")), b"junk",
                       sample(1)])
        self.stop()
        shown = "</name></Placemark>\\x00\\x1B\"'&<![CDATA[\\xFF]]>"
        features = self.features(self.folder / "udp.geojson")
        self.assertEqual(features[0]["properties"]["name"], shown)
        self.assertEqual(self.kinds(self.features(self.folder / "udp.kml"), "Name", shown), 1)
        self.assertEqual(len(self.babel(self.folder / "udp.gpx", "gpx")), 2)
        for name in ("kml", "gpx"):
            subprocess.run(["xmllint", "--noout", self.folder / f"udp.{name}"], check=True)

    def test_the_recipe_of_the_page_makes_a_map(self):
        recipe = Recipe(self, "docs/outputs/track.md#1")
        self.encoder_process = recipe.start(0, stdout=subprocess.DEVNULL, stderr=self.output("encoder.err"))
        self.wait_for(lambda: harness.udp_port_open(15000), "the port")
        recipe.run(1)
        self.assertEqual(self.encoder_process.wait(timeout=30 * harness.SLOW), 0)
        features = self.features(self.folder / "flight.geojson")
        self.assertEqual(self.kinds(features, "kind", "platform"), 20)

    def test_each_source_has_a_file_in_the_folder(self):
        self.encoder("[a]\ninput = udp\nport = 15811\n[b]\ninput = udp\nport = 15812\n", [15811, 15812],
                     arguments=["--track-dir", self.folder / "maps", "--track-format", "gpx"])
        send(15811, sample(1))
        self.settle("a", 1)
        self.stop()
        self.assertEqual(len(self.features(self.folder / "maps/a.gpx", "track_points")), 1)
        self.assertEqual(len(self.features(self.folder / "maps/b.gpx", "track_points")), 0)


if __name__ == "__main__":
    harness.main()
