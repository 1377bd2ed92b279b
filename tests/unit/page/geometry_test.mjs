// SPDX-License-Identifier: Apache-2.0
// Places on the map: the projection, the point a sensor looks at, the ground it sees.
import assert from "node:assert/strict";
import { test } from "node:test";
import { part } from "./fake_browser.mjs";

const geometry = await part("geometry");
const near = (found, wanted, most = 1e-6) => assert.ok(Math.abs(found - wanted) <= most, `${found} is not ${wanted}`);
const METRES = 111319.49;  // of a degree

test("the projection is that of web maps, and goes back", () => {
  near(geometry.worldX(-180), 0);
  near(geometry.worldX(180), 1);
  near(geometry.worldY(0), 0.5);
  near(geometry.worldY(85.0511287798), 0);
  near(geometry.worldY(-90), 1);
  near(geometry.worldY(90), 0);
  near(geometry.worldY(45), 0.359725, 1e-6);
  for (const latitude of [-85, -61.5, 0, 12.25, 80]) near(geometry.latitudeOf(geometry.worldY(latitude)), latitude, 1e-9);
  for (const longitude of [-180, -61.5, 0, 179]) near(geometry.longitudeOf(geometry.worldX(longitude)), longitude, 1e-9);
});

test("a place has two numbers, of which the latitude is on the globe", () => {
  assert.ok(geometry.isPlace({ latitude: -90, longitude: 500 }));
  const others = [undefined, null, {}, { latitude: 1 }, { longitude: 1 }, { latitude: NaN, longitude: 1 }, { latitude: 1, longitude: null },
    { latitude: 90.1, longitude: 1 }, { latitude: -90.1, longitude: 1 }];
  for (const other of others) assert.ok(!geometry.isPlace(other), JSON.stringify(other));
});

test("angles are turned to half a turn", () => {
  for (const [angle, wanted] of [[0, 0], [180, -180], [-180, -180], [190, -170], [-190, 170], [720, 0], [-541, 179]]) {
    near(geometry.turned(angle), wanted);
  }
});

test("distances cross the antimeridian, and shrink towards the poles", () => {
  near(geometry.distance({ latitude: 0, longitude: 0 }, { latitude: 1, longitude: 0 }), METRES, 0.01);
  near(geometry.distance({ latitude: 0, longitude: 179.5 }, { latitude: 0, longitude: -179.5 }), METRES, 0.01);
  near(geometry.distance({ latitude: 60, longitude: 0 }, { latitude: 60, longitude: 1 }), METRES / 2, 1);
  near(geometry.distance({ latitude: 59, longitude: 0 }, { latitude: 61, longitude: 1 }), Math.hypot(2, 0.5) * METRES, 1);
});

test("a way leads to the place at its end", () => {
  const north = geometry.moved({ latitude: 10, longitude: 20 }, METRES, 0);
  near(north.latitude, 11);
  near(north.longitude, 20);
  const west = geometry.moved({ latitude: 60, longitude: -179.5 }, METRES / 2, 270);
  near(west.latitude, 60);
  near(west.longitude, 179.5, 1e-3);
  near(geometry.moved({ latitude: 89.5, longitude: 0 }, METRES, 0).latitude, 89.9);
  near(geometry.moved({ latitude: -89.5, longitude: 0 }, METRES, 180).latitude, -89.9);
});

const AT = { latitude: 0, longitude: 0, altitude: 1113.1949 };

test("the line of sight ends where the message says so", () => {
  const centre = { latitude: 1, longitude: 2 };
  const target = { latitude: 3, longitude: 4 };
  assert.deepEqual(geometry.sight({ platform: AT, frame_center: centre, target, azimuth: 1 }), { to: centre, isOpen: false });
  assert.deepEqual(geometry.sight({ platform: AT, target, azimuth: 1 }), { to: target, isOpen: false });
  assert.equal(geometry.sight({ frame_center: centre, azimuth: 90 }), null);
  assert.equal(geometry.sight({ platform: AT }), null);
});

test("the line of sight ends at its range, or at the ground", () => {
  const far = (seen) => geometry.sight({ platform: AT, azimuth: 90, ...seen });
  near(far({ slant_range: METRES / 100 }).to.longitude, 0.01);
  near(far({ slant_range: METRES / 100, elevation: -60 }).to.longitude, 0.005);
  near(far({ elevation: -45 }).to.longitude, 0.01);
  assert.equal(far({ elevation: -45 }).isOpen, false);
  assert.equal(far({ slant_range: 59999 }).isOpen, false);
  for (const open of [{}, { elevation: 3 }, { elevation: -0.5 }, { elevation: -0.6 }, { slant_range: 60001 }, { elevation: -90 }]) {
    const { to, isOpen } = far(open);
    assert.ok(isOpen, JSON.stringify(open));
    near(to.longitude, 5000 / METRES);
  }
  assert.ok(far({ platform: { latitude: 0, longitude: 0 }, elevation: -45 }).isOpen, "no height");
  const low = { latitude: 0, longitude: 0, altitude: 10 };
  assert.ok(far({ platform: low, elevation: -0.4 }).isOpen, "so flat a sight is no better than its angle");
  assert.ok(!far({ platform: low, elevation: -0.6 }).isOpen);
  assert.ok(far({ slant_range: -5 }).isOpen, "no range");
  assert.ok(far({ platform: { ...low, altitude: 0 }, elevation: -45 }).isOpen, "on the ground");
  assert.ok(far({ platform: { latitude: 0, longitude: 0, altitude: -5 }, elevation: -45 }).isOpen, "below the sea");
});

const VIEW = { frame_center: { latitude: 0, longitude: 180 }, azimuth: 0, elevation: -90, horizontal_view: 60, vertical_view: 60 };
const sizeOf = ({ corners: [first, second, third] }) =>
  [geometry.distance(first, second), geometry.distance(second, third)].map(Math.round);

test("the ground is that of the corners", () => {
  const corners = [1, 2, 3, 4].map((i) => ({ latitude: i, longitude: i }));
  assert.deepEqual(geometry.footprint({ ...VIEW, corners }, 100), { corners, isEstimate: false });
  assert.ok(geometry.footprint({ ...VIEW, corners: corners.slice(1) }, 100).isEstimate);
  assert.ok(geometry.footprint({ ...VIEW, corners: [...corners.slice(1), { latitude: 1 }] }, 100).isEstimate);
  assert.equal(geometry.footprint({ corners: corners.slice(1) }), null);
});

test("without corners the ground is guessed from its width", () => {
  const { corners, isEstimate } = geometry.footprint(VIEW, 2226.39);
  assert.ok(isEstimate);
  [[0.01, 179.99], [0.01, -179.99], [-0.01, -179.99], [-0.01, 179.99]].forEach(([latitude, longitude], i) => {
    near(corners[i].latitude, latitude, 1e-4);
    near(corners[i].longitude, longitude, 1e-4);
  });
  near(geometry.footprint({ ...VIEW, azimuth: 90 }, 2226.39).corners[0].longitude, -179.99, 1e-4);
  near(geometry.footprint({ ...VIEW, azimuth: 90 }, 2226.39).corners[0].latitude, 0.01, 1e-4);
});

test("the depth of the guessed ground has the shape of the view", () => {
  assert.deepEqual(sizeOf(geometry.footprint(VIEW, 1000)), [1000, 1000]);
  assert.deepEqual(sizeOf(geometry.footprint({ ...VIEW, vertical_view: undefined }, 1600)), [1600, 900]);
  assert.deepEqual(sizeOf(geometry.footprint({ ...VIEW, horizontal_view: 180 }, 1600)), [1600, 900]);
  assert.deepEqual(sizeOf(geometry.footprint({ ...VIEW, elevation: -30 }, 1000)), [1000, 2000]);
  assert.deepEqual(sizeOf(geometry.footprint({ ...VIEW, elevation: undefined }, 1000)), [1000, 1000]);
  const flat = Math.round(1000 / Math.sin(8 * Math.PI / 180));
  assert.deepEqual(sizeOf(geometry.footprint({ ...VIEW, elevation: -1 }, 1000)), [1000, flat]);
  assert.deepEqual(sizeOf(geometry.footprint({ ...VIEW, elevation: -100 }, 1000)), [1000, 1000]);
  const narrow = { ...VIEW, vertical_view: 30 };
  assert.deepEqual(sizeOf(geometry.footprint(narrow, 1000)), [1000, Math.round(1000 * Math.tan(Math.PI / 12) / Math.tan(Math.PI / 6))]);
});

test("the width of the ground can be that of the view at its range", () => {
  const wide = Math.round(2 * 1000 * Math.tan(Math.PI / 6));
  assert.deepEqual(sizeOf(geometry.footprint({ ...VIEW, slant_range: 1000 })), [wide, wide]);
  for (const none of [{}, { slant_range: 0 }, { slant_range: 1000, horizontal_view: 0 }, { slant_range: 1000, horizontal_view: 170 },
    { slant_range: 1000, azimuth: undefined }, { slant_range: 1000, frame_center: undefined }]) {
    assert.equal(geometry.footprint({ ...VIEW, ...none }), null, JSON.stringify(none));
  }
  assert.equal(geometry.footprint(VIEW, 0), null);
});

test("the graticule has lines at every zoom", () => {
  const steps = Array.from({ length: 20 }, (_, zoom) => geometry.graticuleStep(256 * 2 ** zoom, 110));
  assert.deepEqual(steps, [...steps].sort((a, b) => b - a));
  assert.ok(new Set(steps).size > 12);
  steps.slice(2).forEach((step, i) => {
    const pixels = step / 1296000 * 256 * 2 ** (i + 2);
    assert.ok(pixels >= 110 && pixels < 400, `${step} at ${i + 2}`);
  });
  assert.equal(geometry.graticuleStep(1, 110), 216000);
  assert.equal(geometry.graticuleStep(1296000, 3600), 3600);
});

test("rings are cut to the view", () => {
  const square = [0, 0, 4, 0, 4, 4, 0, 4];
  assert.deepEqual(geometry.clipRing(square, -1, -1, 5, 5), square);
  assert.deepEqual(geometry.clipRing(square, 5, 5, 6, 6), []);
  const box = (ring) => {
    const xs = ring.filter((_, i) => i % 2 === 0);
    const ys = ring.filter((_, i) => i % 2 === 1);
    return [Math.min(...xs), Math.min(...ys), Math.max(...xs), Math.max(...ys)];
  };
  assert.deepEqual(box(geometry.clipRing(square, 1, 2, 3, 5)), [1, 2, 3, 4]);
  assert.deepEqual(box(geometry.clipRing(square, -1, -1, 2, 3)), [0, 0, 2, 3]);
  assert.deepEqual(geometry.clipRing([0, 0, 4, 4, 0, 4], 0, 0, 4, 2), [0, 2, 0, 0, 2, 2]);
});
