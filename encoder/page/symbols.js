// SPDX-License-Identifier: Apache-2.0
// One source on the canvas of the map: path, ground in the picture, line of sight, centre, target and platform.
import { isPlace, worldX, worldY } from "./geometry.js";
import { colour, sourceColour } from "./theme.js";

const AIRCRAFT = new Path2D("M0-13 1.9-4.5 12 1.5V4.2L1.9 1.8 1.3 8.3 4.6 10.7V12.6L0 11.3-4.6 12.6V10.7L-1.3 8.3-1.9 1.8-12 4.2V1.5L-1.9-4.5Z");

// Turns world coordinates into pixels of the view: in the copy of the world that is nearest to the view's middle.
function projector(view) {
  const middle = view.left + view.size.x / view.world / 2;
  const shift = (x) => Math.round(middle - x);
  const point = (place, turns) => {
    const x = worldX(place.longitude);
    return [(x + (turns ?? shift(x)) - view.left) * view.world, (worldY(place.latitude) - view.top) * view.world];
  };
  return { point, shift };
}

// The pixels of places that belong together: each one is on the nearer side of the one before it.
function chain(places, view, { shift }) {
  const points = [];
  let before = null;
  for (const place of places) {
    let x = worldX(place.longitude);
    x += before === null ? shift(x) : Math.round(before - x);
    before = x;
    points.push([(x - view.left) * view.world, (worldY(place.latitude) - view.top) * view.world]);
  }
  return points;
}

function trace(context, points) {
  context.beginPath();
  points.forEach(([x, y], index) => (index === 0 ? context.moveTo(x, y) : context.lineTo(x, y)));
}

function drawTrack(context, view, track, shift, ink, width) {
  const { xs, ys } = track;
  if (xs.length < 2) return;
  const turns = shift(xs[xs.length - 1]);
  let lastX = Infinity;
  let lastY = Infinity;
  context.beginPath();
  for (let i = 0; i < xs.length; ++i) {
    const x = (xs[i] + turns - view.left) * view.world;
    const y = (ys[i] - view.top) * view.world;
    if (i > 0 && i < xs.length - 1 && Math.abs(x - lastX) + Math.abs(y - lastY) < 1.5) continue;
    if (i === 0) context.moveTo(x, y);
    else context.lineTo(x, y);
    lastX = x;
    lastY = y;
  }
  context.lineJoin = "round";
  context.lineCap = "round";
  context.strokeStyle = colour("--map-halo");
  context.lineWidth = width + 2.5;
  context.stroke();
  context.strokeStyle = ink;
  context.lineWidth = width;
  context.stroke();
}

function drawGround(context, view, ground, project, ink) {
  const points = chain(ground.corners, view, project);
  trace(context, points);
  context.closePath();
  context.globalAlpha = 0.16;
  context.fillStyle = ink;
  context.fill();
  context.globalAlpha = 1;
  context.setLineDash(ground.isEstimate ? [4, 4] : []);
  context.strokeStyle = ink;
  context.lineWidth = 1.25;
  context.stroke();
  context.setLineDash([]);
  // The upper edge of the picture.
  trace(context, points.slice(0, 2));
  context.lineWidth = 3;
  context.stroke();
}

function drawSight(context, from, to, isOpen, ink) {
  trace(context, [from, to]);
  context.setLineDash([7, 5]);
  context.lineWidth = 1.5;
  context.strokeStyle = ink;
  if (isOpen) {
    const fading = context.createLinearGradient(from[0], from[1], to[0], to[1]);
    fading.addColorStop(0, ink);
    fading.addColorStop(1, "transparent");
    context.strokeStyle = fading;
  }
  context.stroke();
  context.setLineDash([]);
}

function withHalo(context, ink, width, draw) {
  context.beginPath();
  draw();
  context.strokeStyle = colour("--map-halo");
  context.lineWidth = width + 2.5;
  context.stroke();
  context.strokeStyle = ink;
  context.lineWidth = width;
  context.stroke();
}

function drawCentre(context, [x, y], ink) {
  withHalo(context, ink, 1.75, () => {
    for (const [dx, dy] of [[1, 0], [-1, 0], [0, 1], [0, -1]]) {
      context.moveTo(x + dx * 3, y + dy * 3);
      context.lineTo(x + dx * 9, y + dy * 9);
    }
  });
}

function drawTarget(context, [x, y], ink) {
  withHalo(context, ink, 1.75, () => {
    context.moveTo(x, y - 8);
    context.lineTo(x + 8, y);
    context.lineTo(x, y + 8);
    context.lineTo(x - 8, y);
    context.closePath();
  });
}

function drawPlatform(context, [x, y], seen, isSelected, ink) {
  context.save();
  context.translate(x, y);
  context.strokeStyle = colour("--map-halo");
  context.fillStyle = ink;
  context.lineJoin = "round";
  if (Number.isFinite(seen.heading ?? seen.course)) {
    context.rotate((seen.heading ?? seen.course) * Math.PI / 180);
    context.scale(isSelected ? 1.25 : 1, isSelected ? 1.25 : 1);
    context.lineWidth = 3;
    context.stroke(AIRCRAFT);
    context.fill(AIRCRAFT);
  } else {
    context.beginPath();
    context.arc(0, 0, isSelected ? 8 : 6.5, 0, 2 * Math.PI);
    context.lineWidth = 3;
    context.stroke();
    context.fill();
  }
  context.restore();
}

const NAME_HEIGHT = 15;

// Draws names beside their platforms; those that would cover another one move up or down, or are left out in a crowd.
export function drawNames(context, names) {
  const taken = [];
  context.lineJoin = "round";
  for (const { x, y, text, isSelected, ink } of names) {
    const shown = text.length > 32 ? `${text.slice(0, 31)}…` : text;
    context.font = `${isSelected ? 600 : 500} 12px system-ui, sans-serif`;
    const left = x + 19;
    const right = left + context.measureText(shown).width;
    const isFree = (line) => taken.every((box) => box.right < left || box.left > right || Math.abs(box.line - line) >= NAME_HEIGHT);
    const line = [0, 1, -1, 2, -2, 3].map((step) => y + 4 + step * NAME_HEIGHT).find(isFree);
    if (line === undefined) continue;
    taken.push({ left, right, line });
    context.strokeStyle = colour("--map-halo");
    context.lineWidth = 4;
    context.strokeText(shown, left, line);
    context.fillStyle = ink;
    context.fillText(shown, left, line);
  }
}

// The point that a sensor of Cursor-on-Target looks at. Returns where its name belongs.
export function drawSensor(context, view, source, place, name) {
  const ink = sourceColour(source.slot);
  const [x, y] = projector(view).point(place);
  withHalo(context, ink, 1.75, () => {
    context.rect(x - 6, y - 6, 12, 12);
    context.moveTo(x + 2, y);
    context.arc(x, y, 2, 0, 2 * Math.PI);
  });
  return { x, y, text: name, isSelected: false, ink };
}

// Returns where the source's name belongs, or null if it has no place.
export function drawSource(context, view, { source, name, isSelected, line, ground }) {
  const { seen } = source;
  const ink = sourceColour(source.slot);
  const project = projector(view);
  drawTrack(context, view, source.track, project.shift, ink, isSelected ? 2.5 : 1.75);
  if (ground !== null) drawGround(context, view, ground, project, ink);
  const places = [seen.platform, line?.to].filter(isPlace);
  const points = chain(places, view, project);
  if (line !== null && points.length === 2) drawSight(context, points[0], points[1], line.isOpen, ink);
  if (isPlace(seen.target)) drawTarget(context, project.point(seen.target), ink);
  if (isPlace(seen.frame_center)) drawCentre(context, project.point(seen.frame_center), ink);
  if (!isPlace(seen.platform)) return null;
  const [x, y] = points[0];
  drawPlatform(context, [x, y], seen, isSelected, ink);
  return { x, y, text: name, isSelected, ink };
}
