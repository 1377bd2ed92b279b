// SPDX-License-Identifier: Apache-2.0
// Makes world.json from the topology of the npm package world-atlas (Natural Earth, public domain):
//
//   node make_world.mjs COUNTRIES.json > world.json
//
// It has arcs as differences of whole numbers, rings of land as lists of arcs (~n: arc n backwards), the arcs that are coasts
// (part of one country) and borders (part of two), and the names of countries where they have room.
import { readFileSync } from "node:fs";

const topology = JSON.parse(readFileSync(process.argv[2], "utf8"));
const { scale, translate } = topology.transform;

function polygonsOf(geometry) {
  if (geometry.type === "Polygon") return [geometry.arcs];
  return geometry.type === "MultiPolygon" ? geometry.arcs : [];
}

const places = topology.arcs.map((arc) => {
  let [x, y] = [0, 0];
  return arc.map(([dx, dy]) => {
    x += dx;
    y += dy;
    return [x * scale[0] + translate[0], y * scale[1] + translate[1]];
  });
});

function ringPlaces(ring) {
  return ring.flatMap((index) => (index < 0 ? [...places[~index]].reverse() : places[index]));
}

// Twice the area, the middle and the width of a ring, in degrees.
function measure(ring) {
  const points = ringPlaces(ring);
  let [area, x, y] = [0, 0, 0];
  points.forEach(([x0, y0], index) => {
    const [x1, y1] = points[(index + 1) % points.length];
    const part = x0 * y1 - x1 * y0;
    area += part;
    x += (x0 + x1) * part;
    y += (y0 + y1) * part;
  });
  const xs = points.map(([longitude]) => longitude);
  return { area: Math.abs(area), x: x / (3 * area), y: y / (3 * area), width: Math.max(...xs) - Math.min(...xs) };
}

const countries = topology.objects.countries.geometries;
const uses = new Map();
for (const country of countries) {
  const own = new Set(polygonsOf(country).flat(2).map((index) => (index < 0 ? ~index : index)));
  for (const index of own) uses.set(index, (uses.get(index) ?? 0) + 1);
}

const names = countries.flatMap((country) => {
  const largest = polygonsOf(country).map(([ring]) => measure(ring)).sort((a, b) => b.area - a.area)[0];
  if (largest === undefined || !(largest.area > 0.05)) return [];
  return [[country.properties.name, Number(largest.x.toFixed(2)), Number(largest.y.toFixed(2)), Number(largest.width.toFixed(2))]];
});
names.sort((a, b) => b[3] - a[3] || (a[0] < b[0] ? -1 : 1));

const of = (times) => [...uses].filter(([, count]) => (count > 1) === (times > 1)).map(([index]) => index).sort((a, b) => a - b);
const world = {
  scale: scale.map((step) => Number(step.toPrecision(12))),
  origin: translate.map((step) => Number(step.toPrecision(12))),
  arcs: topology.arcs.map((arc) => arc.flat()),
  land: topology.objects.land.geometries.flatMap((geometry) => polygonsOf(geometry).flat()),
  coasts: of(1),
  borders: of(2),
  names,
};
process.stdout.write(`${JSON.stringify(world)}\n`);
