// SPDX-License-Identifier: Apache-2.0
// Places on the map: the projection, the point a sensor looks at, the ground it sees. Pure.
//
// World coordinates are those of the Mercator projection of web maps: x and y from 0 to 1, west to east and north to south.

export const MOST_LATITUDE = 85.0511287798;
const METRES_PER_DEGREE = 111319.49;
const RADIANS = Math.PI / 180;

export function worldX(longitude) {
  return longitude / 360 + 0.5;
}

export function worldY(latitude) {
  const sine = Math.sin(Math.max(-MOST_LATITUDE, Math.min(MOST_LATITUDE, latitude)) * RADIANS);
  return 0.5 - Math.log((1 + sine) / (1 - sine)) / (4 * Math.PI);
}

export function latitudeOf(y) {
  return (2 * Math.atan(Math.exp((0.5 - y) * 2 * Math.PI)) - Math.PI / 2) / RADIANS;
}

export function longitudeOf(x) {
  return (x - 0.5) * 360;
}

export function isPlace(place) {
  return place !== undefined && place !== null && Number.isFinite(place.latitude) && Number.isFinite(place.longitude) &&
    Math.abs(place.latitude) <= 90;
}

// Metres between two places that are near to each other.
export function distance(from, to) {
  const east = turned(to.longitude - from.longitude) * Math.cos((from.latitude + to.latitude) / 2 * RADIANS);
  return Math.hypot(east, to.latitude - from.latitude) * METRES_PER_DEGREE;
}

// -180 to 180.
export function turned(angle) {
  return ((angle + 180) % 360 + 360) % 360 - 180;
}

// The place at this distance and direction, for distances that a sensor sees.
export function moved(place, metres, direction) {
  const north = metres * Math.cos(direction * RADIANS) / METRES_PER_DEGREE;
  const latitude = Math.max(-89.9, Math.min(89.9, place.latitude + north));
  const east = metres * Math.sin(direction * RADIANS) / METRES_PER_DEGREE / Math.cos(latitude * RADIANS);
  return { latitude, longitude: turned(place.longitude + east) };
}

const LONGEST_RAY = 60000;

// Where the line of sight ends: the centre of the frame, the target, the range that the sensor tells, or the ground below
// its angle. `isOpen`: it does not reach the ground.
export function sight(seen) {
  if (!isPlace(seen.platform)) return null;
  if (isPlace(seen.frame_center)) return { to: seen.frame_center, isOpen: false };
  if (isPlace(seen.target)) return { to: seen.target, isOpen: false };
  if (!Number.isFinite(seen.azimuth)) return null;
  const down = Number.isFinite(seen.elevation) ? -seen.elevation : NaN;
  let metres = NaN;
  if (Number.isFinite(seen.slant_range)) {
    metres = seen.slant_range * Math.cos((Number.isFinite(down) ? down : 0) * RADIANS);
  } else if (down > 0.5 && down < 90 && seen.platform.altitude > 0) {
    metres = seen.platform.altitude / Math.tan(down * RADIANS);
  }
  const isOpen = !(metres >= 0 && metres <= LONGEST_RAY);
  return { to: moved(seen.platform, isOpen ? 5000 : metres, seen.azimuth), isOpen };
}

// The ground in the picture: the four corners, or an estimate around the centre of the frame from its width.
export function footprint(seen, targetWidth) {
  if (Array.isArray(seen.corners) && seen.corners.length === 4 && seen.corners.every(isPlace)) {
    return { corners: seen.corners, isEstimate: false };
  }
  const width = Number.isFinite(targetWidth) ? targetWidth : widthOfView(seen);
  if (!isPlace(seen.frame_center) || !(width > 0) || !Number.isFinite(seen.azimuth)) return null;
  const ratio = seen.vertical_view > 0 && seen.horizontal_view > 0 && seen.horizontal_view < 180
    ? Math.tan(seen.vertical_view / 2 * RADIANS) / Math.tan(seen.horizontal_view / 2 * RADIANS) : 9 / 16;
  const down = Number.isFinite(seen.elevation) ? Math.max(8, Math.min(90, -seen.elevation)) : 90;
  const depth = width * ratio / Math.sin(down * RADIANS);
  const ends = [[1, -1], [1, 1], [-1, 1], [-1, -1]];
  const corners = ends.map(([ahead, right]) =>
    moved(moved(seen.frame_center, ahead * depth / 2, seen.azimuth), right * width / 2, seen.azimuth + 90));
  return { corners, isEstimate: true };
}

function widthOfView(seen) {
  if (!(seen.slant_range > 0) || !(seen.horizontal_view > 0) || seen.horizontal_view >= 170) return NaN;
  return 2 * seen.slant_range * Math.tan(seen.horizontal_view / 2 * RADIANS);
}

// Steps of the graticule in seconds of arc, from 60 degrees to half a second.
const STEPS = [216000, 108000, 54000, 36000, 18000, 7200, 3600, 1800, 1200, 600, 300, 120, 60, 30, 20, 10, 5, 2, 1, 0.5];

// Returns the smallest step whose lines are at least so far apart, for a world of this many pixels.
export function graticuleStep(worldPixels, leastPixels) {
  const fitting = STEPS.filter((step) => step / 1296000 * worldPixels >= leastPixels);
  return fitting.length > 0 ? fitting[fitting.length - 1] : STEPS[0];
}

// Cuts a ring of x, y, x, y, ... to a rectangle, so that no coordinate is too large for a canvas.
export function clipRing(ring, left, top, right, bottom) {
  let points = ring;
  const edges = [[0, left, 1], [0, right, -1], [1, top, 1], [1, bottom, -1]];
  for (const [axis, limit, sign] of edges) {
    const kept = [];
    for (let i = 0; i < points.length; i += 2) {
      const j = i === 0 ? points.length - 2 : i - 2;
      const inside = (points[i + axis] - limit) * sign >= 0;
      const wasInside = (points[j + axis] - limit) * sign >= 0;
      if (inside !== wasInside) {
        const part = (limit - points[j + axis]) / (points[i + axis] - points[j + axis]);
        kept.push(points[j] + part * (points[i] - points[j]), points[j + 1] + part * (points[i + 1] - points[j + 1]));
      }
      if (inside) kept.push(points[i], points[i + 1]);
    }
    points = kept;
    if (points.length === 0) break;
  }
  return points;
}
