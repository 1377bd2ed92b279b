// SPDX-License-Identifier: Apache-2.0
// Land, coasts and borders of Natural Earth, drawn on tiles of the map.
import { clipRing, worldX, worldY } from "./geometry.js";
import { colour } from "./theme.js";

const EDGE = 8;  // pixels that are drawn beyond a tile, so that no line ends inside it

function arcPoints(flat, world) {
  const points = new Float64Array(flat.length);
  let x = 0;
  let y = 0;
  for (let i = 0; i < flat.length; i += 2) {
    x += flat[i];
    y += flat[i + 1];
    points[i] = worldX(x * world.scale[0] + world.origin[0]);
    points[i + 1] = worldY(y * world.scale[1] + world.origin[1]);
  }
  return points;
}

function reversed(points) {
  const turned = new Float64Array(points.length);
  for (let i = 0; i < points.length; i += 2) {
    turned[i] = points[points.length - 2 - i];
    turned[i + 1] = points[points.length - 1 - i];
  }
  return turned;
}

function withBox(points) {
  const box = { left: Infinity, top: Infinity, right: -Infinity, bottom: -Infinity };
  for (let i = 0; i < points.length; i += 2) {
    box.left = Math.min(box.left, points[i]);
    box.right = Math.max(box.right, points[i]);
    box.top = Math.min(box.top, points[i + 1]);
    box.bottom = Math.max(box.bottom, points[i + 1]);
  }
  return { points, ...box };
}

export class World {
  // `world` is the content of world.json: arcs of differences, rings of land as lists of arcs (~n: arc n backwards), the
  // arcs of coasts and of borders, and the names of countries with their places.
  constructor(world) {
    const arcs = world.arcs.map((flat) => arcPoints(flat, world));
    this.rings = world.land.map((ring) => {
      const parts = ring.map((index) => (index < 0 ? reversed(arcs[~index]) : arcs[index]));
      return withBox(Float64Array.from(parts.flatMap((part) => Array.from(part))));
    });
    this.coasts = world.coasts.map((index) => withBox(arcs[index]));
    this.borders = world.borders.map((index) => withBox(arcs[index]));
    this.names = world.names.map(([name, longitude, latitude, width]) =>
      ({ name, x: worldX(longitude), y: worldY(latitude), width: width / 360 }));
  }

  // Draws the part of the world from (left, top) with `span` of its width onto a canvas of `size` pixels.
  draw(context, size, left, top, span) {
    const scale = size / span;
    const edge = EDGE / scale;
    const view = { left: left - edge, top: top - edge, right: left + span + edge, bottom: top + span + edge };
    const touches = (shape) => shape.right >= view.left && shape.left <= view.right && shape.bottom >= view.top &&
      shape.top <= view.bottom;
    context.fillStyle = colour("--sea");
    context.fillRect(0, 0, size, size);
    context.beginPath();
    for (const ring of this.rings) {
      if (touches(ring)) traceRing(context, ring, view, left, top, scale);
    }
    context.fillStyle = colour("--land");
    context.fill("evenodd");
    context.lineJoin = "round";
    this.stroke(context, this.borders.filter(touches), { view, left, top, scale }, "--border-line", 1);
    this.stroke(context, this.coasts.filter(touches), { view, left, top, scale }, "--coast-line", 1.1);
  }

  stroke(context, lines, place, name, width) {
    context.beginPath();
    for (const line of lines) traceLine(context, line.points, place);
    context.strokeStyle = colour(name);
    context.lineWidth = width;
    context.stroke();
  }
}

function traceRing(context, ring, view, left, top, scale) {
  const isInside = ring.left >= view.left && ring.right <= view.right && ring.top >= view.top && ring.bottom <= view.bottom;
  const points = isInside ? ring.points : clipRing(ring.points, view.left, view.top, view.right, view.bottom);
  let lastX = Infinity;
  let lastY = Infinity;
  for (let i = 0; i < points.length; i += 2) {
    const x = (points[i] - left) * scale;
    const y = (points[i + 1] - top) * scale;
    if (i === 0) context.moveTo(x, y);
    else if (Math.abs(x - lastX) + Math.abs(y - lastY) < 0.6) continue;
    else context.lineTo(x, y);
    lastX = x;
    lastY = y;
  }
  context.closePath();
}

// Leaves out segments that are wholly on one side of the view, and those along the edge of the world, which are no coast.
function traceLine(context, points, { view, left, top, scale }) {
  let isDown = false;
  for (let i = 2; i < points.length; i += 2) {
    const [x0, y0, x1, y1] = [points[i - 2], points[i - 1], points[i], points[i + 1]];
    const isOutside = (x0 < view.left && x1 < view.left) || (x0 > view.right && x1 > view.right) ||
      (y0 < view.top && y1 < view.top) || (y0 > view.bottom && y1 > view.bottom) ||
      (Math.abs(x0 - x1) < 1e-7 && Math.abs(x0 - 0.5) > 0.499999);
    if (isOutside) {
      isDown = false;
      continue;
    }
    if (!isDown) context.moveTo((x0 - left) * scale, (y0 - top) * scale);
    context.lineTo((x1 - left) * scale, (y1 - top) * scale);
    isDown = true;
  }
}
