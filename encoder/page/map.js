// SPDX-License-Identifier: Apache-2.0
// The map: land and graticule, or the user's tiles, below one canvas with everything that moves.
/* global L */
import { byId, calmMotion, printable, remember, remembered, setHidden } from "./dom.js";
import { graticuleText } from "./format.js";
import { footprint, graticuleStep, isPlace, latitudeOf, longitudeOf, sight, worldX, worldY } from "./geometry.js";
import { placedSensors } from "./sensors.js";
import { drawNames as drawPlatformNames, drawSensor, drawSource } from "./symbols.js";
import { colour, onThemeChange } from "./theme.js";
import { World } from "./world.js";

const TILE = 256;
const MOST_ZOOM = 19;
const FIRST_ZOOM = 13;

const WorldLayer = L.GridLayer.extend({
  createTile(coords) {
    const size = this.getTileSize().x;
    const ratio = Math.min(2, devicePixelRatio || 1);
    const tile = L.DomUtil.create("canvas");
    tile.width = size * ratio;
    tile.height = size * ratio;
    const tiles = 2 ** coords.z * (TILE / size);
    const column = ((coords.x % tiles) + tiles) % tiles;
    const context = tile.getContext("2d");
    context.scale(ratio, ratio);
    this.options.world.draw(context, size, column / tiles, coords.y / tiles, 1 / tiles);
    return tile;
  },
});

// A canvas over the view that is drawn anew for each place of the map, and moves with it while that zooms.
const CanvasLayer = L.Renderer.extend({
  options: { padding: 0.1, draw: null },

  _initContainer() {
    this._container = L.DomUtil.create("canvas", "canvas-layer");
    this._container.setAttribute("aria-hidden", "true");
  },

  _destroyContainer() {
    L.DomUtil.remove(this._container);
    delete this._container;
  },

  // Places the canvas over the view and draws it. Nothing is drawn while the map is on its way to another zoom.
  _update() {
    if (this._map._animatingZoom && this._bounds) return;
    L.Renderer.prototype._update.call(this);
    const ratio = Math.min(2, devicePixelRatio || 1);
    const size = this._bounds.getSize();
    const canvas = this._container;
    L.DomUtil.setPosition(canvas, this._bounds.min);
    if (canvas.width !== Math.round(size.x * ratio) || canvas.height !== Math.round(size.y * ratio)) {
      canvas.width = Math.round(size.x * ratio);
      canvas.height = Math.round(size.y * ratio);
      canvas.style.width = `${size.x}px`;
      canvas.style.height = `${size.y}px`;
    }
    this._ratio = ratio;
    this.redraw();
  },

  redraw() {
    if (!this._bounds || this._map._animatingZoom) return;
    const size = this._bounds.getSize();
    const context = this._container.getContext("2d");
    context.setTransform(this._ratio, 0, 0, this._ratio, 0, 0);
    context.clearRect(0, 0, size.x, size.y);
    const origin = this._map.getPixelOrigin().add(this._bounds.min);
    const world = TILE * 2 ** this._zoom;
    this.options.draw(context, { size, world, left: origin.x / world, top: origin.y / world, padding: this.options.padding });
  },
});

// The columns and rows of the graticule in view, as fractions of the world.
function graticuleLines(view) {
  const step = graticuleStep(view.world, 110);
  const degrees = step / 3600;
  const first = Math.ceil(longitudeOf(view.left) / degrees);
  const last = Math.floor(longitudeOf(view.left + view.size.x / view.world) / degrees);
  const columns = [];
  for (let i = first; i <= last; ++i) columns.push(i * degrees);
  const north = Math.min(85, latitudeOf(Math.max(0, view.top)));
  const south = Math.max(-85, latitudeOf(Math.min(1, view.top + view.size.y / view.world)));
  const rows = [];
  for (let i = Math.ceil(south / degrees); i * degrees <= north; ++i) rows.push(i * degrees);
  return { step, columns, rows };
}

function label(context, text, x, y, ink, halo) {
  context.strokeStyle = halo;
  context.lineWidth = 3;
  context.strokeText(text, x, y);
  context.fillStyle = ink;
  context.fillText(text, x, y);
}

function drawGraticule(context, view) {
  const { step, columns, rows } = graticuleLines(view);
  context.beginPath();
  for (const longitude of columns) {
    const x = Math.round((worldX(longitude) - view.left) * view.world) + 0.5;
    context.moveTo(x, 0);
    context.lineTo(x, view.size.y);
  }
  for (const latitude of rows) {
    const y = Math.round((worldY(latitude) - view.top) * view.world) + 0.5;
    context.moveTo(0, y);
    context.lineTo(view.size.x, y);
  }
  context.strokeStyle = colour("--graticule");
  context.lineWidth = 1;
  context.stroke();
  const shown = 1 / (1 + 2 * view.padding);
  const top = view.size.y * (1 - shown) / 2;
  const left = view.size.x * (1 - shown) / 2;
  context.font = "11px system-ui, sans-serif";
  context.lineJoin = "round";
  const isNarrow = view.size.x * shown < 600;
  const labelTop = top + (isNarrow ? 66 : 14);
  for (const longitude of columns) {
    const x = (worldX(longitude) - view.left) * view.world;
    if (x < left + (isNarrow ? 70 : 290) || x > view.size.x - left - 100) continue;  // there are the buttons
    const shownLongitude = ((longitude + 180) % 360 + 360) % 360 - 180;
    label(context, graticuleText(shownLongitude, step, false), x + 4, labelTop, colour("--map-muted"), colour("--map-halo"));
  }
  for (const latitude of rows) {
    const y = (worldY(latitude) - view.top) * view.world;
    if (y < top + 90 || y > view.size.y - top - 40) continue;
    label(context, graticuleText(latitude, step, true), left + 8, y - 4, colour("--map-muted"), colour("--map-halo"));
  }
}

function drawNames(context, view, names) {
  context.font = "500 12px system-ui, sans-serif";
  context.textAlign = "center";
  for (const { name, x, y, width } of names) {
    const room = width * view.world;
    const turns = Math.ceil(view.left - x);
    const px = (x + turns - view.left) * view.world;
    const py = (y - view.top) * view.world;
    if (room < 70 || px < 0 || px > view.size.x || py < 0 || py > view.size.y) continue;
    if (context.measureText(name).width < room) label(context, name, px, py, colour("--map-muted"), colour("--land"));
  }
  context.textAlign = "start";
}

export class LiveMap {
  // `pick` is called with the name of a source that was chosen on the map.
  constructor(pick) {
    this.pick = pick;
    this.model = null;
    this.selected = "";
    this.world = null;
    this.names = [];
    this.hasView = false;
    this.placesShown = 0;  // how many platforms and sensors the view was made for
    this.isMoved = false;  // the user chose the view
    this.isFollowing = remembered("follow", "yes") === "yes";
    this.map = L.map("map", {
      center: [30, 10], zoom: 2, minZoom: 1, maxZoom: MOST_ZOOM, zoomSnap: 0.5, zoomDelta: 1, worldCopyJump: true,
      attributionControl: false, zoomControl: false, zoomAnimation: !calmMotion.matches, fadeAnimation: false,
      inertia: !calmMotion.matches, keyboardPanDelta: 80, preferCanvas: true,
    });
    L.control.zoom({ position: "topright" }).addTo(this.map);
    L.control.scale({ imperial: false, maxWidth: 140 }).addTo(this.map);
    this.attribution = L.control.attribution({ prefix: false }).addTo(this.map);
    this.map.createPane("ground").style.zIndex = 150;
    this.map.createPane("grid").style.zIndex = 350;
    this.addLayers();
    this.connect();
  }

  addLayers() {
    this.grid = new CanvasLayer({ pane: "grid", draw: (context, view) => this.drawGrid(context, view) }).addTo(this.map);
    this.moving = new CanvasLayer({ draw: (context, view) => this.drawMoving(context, view) }).addTo(this.map);
    this.map.on("move", () => {
      this.grid._update();
      this.moving._update();
    });
  }

  connect() {
    this.map.on("dragstart", () => {
      this.isMoved = true;
      this.setFollowing(false);
    });
    this.map.getContainer().addEventListener("wheel", () => {
      this.isMoved = true;
    }, { passive: true });
    this.map.on("click", (event) => this.pickAt(event.containerPoint));
    this.map.getContainer().addEventListener("keydown", (event) => {
      this.isMoved ||= event.key !== "Tab";
      if (event.key.startsWith("Arrow")) this.setFollowing(false);
    });
    byId("follow").addEventListener("click", () => this.setFollowing(!this.isFollowing));
    byId("fit").addEventListener("click", () => {
      this.setFollowing(false);
      this.showAll();
    });
    onThemeChange(() => this.redrawAll());
    new ResizeObserver(() => this.map.invalidateSize({ animate: false })).observe(this.map.getContainer());
    this.setFollowing(this.isFollowing);
  }

  async loadWorld() {
    const response = await fetch("world.json");
    if (!response.ok) throw new Error(`world.json: HTTP status ${response.status}`);
    const world = new World(await response.json());
    this.names = world.names;
    this.world = new WorldLayer({ pane: "ground", world, maxZoom: MOST_ZOOM, tileSize: 512, updateWhenZooming: false });
    this.world.addTo(this.map);
    this.attribution.addAttribution("Natural Earth");
    this.grid.redraw();
  }

  // Shows the tiles of the user's own server above the land.
  useTiles(template, attribution) {
    const button = byId("tiles");
    if (template === "" || this.tiles !== undefined) return;
    this.tiles = L.tileLayer(template, { maxZoom: MOST_ZOOM, className: "own-tiles" });
    const show = (isShown) => {
      button.setAttribute("aria-pressed", String(isShown));
      if (isShown) this.tiles.addTo(this.map);
      else this.tiles.remove();
      remember("tiles", isShown ? "yes" : "no");
    };
    if (attribution) {
      const text = document.createElement("span");
      text.textContent = attribution;
      this.tiles.options.attribution = text.innerHTML;
    }
    setHidden(button, false);
    button.addEventListener("click", () => show(!this.map.hasLayer(this.tiles)));
    show(remembered("tiles", "yes") === "yes");
  }

  setFollowing(isFollowing) {
    this.isFollowing = isFollowing;
    remember("follow", isFollowing ? "yes" : "no");
    byId("follow").setAttribute("aria-pressed", String(isFollowing));
    if (isFollowing) this.follow(true);
  }

  redrawAll() {
    this.world?.redraw();
    this.grid.redraw();
    this.moving.redraw();
  }

  show(model, selected) {
    if (this.model !== model) this.placesShown = 0;
    this.model = model;
    this.selected = selected;
  }

  // Draws what moved since the last call.
  update() {
    if (this.model === null) return;
    const places = this.places();
    setHidden(byId("map-empty"), places.length > 0);
    if (places.length > this.placesShown && !this.isMoved) {
      this.placesShown = places.length;
      this.hasView = true;
      this.showAll();
    }
    if (this.isFollowing) this.follow(false);
    this.moving.redraw();
  }

  places() {
    const platforms = [...this.model.sources.values()].map((source) => source.seen.platform).filter(isPlace);
    return [...platforms, ...placedSensors(this.model).map(({ place }) => place)];
  }

  showAll() {
    const points = [];
    for (const { seen } of this.model?.sources.values() ?? []) {
      for (const place of [seen.platform, seen.frame_center, seen.target]) {
        if (isPlace(place)) points.push([place.latitude, place.longitude]);
      }
    }
    for (const { place } of this.model === null ? [] : placedSensors(this.model)) points.push([place.latitude, place.longitude]);
    if (points.length === 0) return;
    this.map.fitBounds(L.latLngBounds(points), { padding: [70, 70], maxZoom: FIRST_ZOOM, animate: false });
  }

  // Moves the view to a place that the user has chosen.
  goTo(place) {
    this.isMoved = true;
    this.setFollowing(false);
    this.map.setView([place.latitude, place.longitude], Math.max(this.map.getZoom(), FIRST_ZOOM), { animate: !calmMotion.matches });
  }

  // Keeps the selected platform in the middle part of the view.
  follow(isNow) {
    const place = this.model?.sources.get(this.selected)?.seen.platform;
    if (!isPlace(place) || !this.hasView || this.map._animatingZoom) return;
    const size = this.map.getSize();
    const point = this.map.latLngToContainerPoint([place.latitude, place.longitude]);
    const isInside = Math.abs(point.x / size.x - 0.5) < 0.3 && Math.abs(point.y / size.y - 0.5) < 0.3;
    if (!isInside || isNow) this.map.panTo([place.latitude, place.longitude], { animate: !calmMotion.matches && isInside });
  }

  drawGrid(context, view) {
    drawGraticule(context, view);
    if (!this.tiles || !this.map.hasLayer(this.tiles)) drawNames(context, view, this.names);
  }

  drawMoving(context, view) {
    if (this.model === null) return;
    const sources = [...this.model.sources.values()];
    sources.sort((a, b) => Number(a.name === this.selected) - Number(b.name === this.selected));
    const names = [];
    for (const source of sources) {
      names.push(drawSource(context, view, {
        source,
        name: printable(source.name),
        isSelected: source.name === this.selected,
        line: sight(source.seen),
        ground: footprint(source.seen, source.message?.items?.[96] ?? source.message?.items?.[22]),
      }));
    }
    names.reverse();
    for (const { uid, place, source } of placedSensors(this.model)) names.push(drawSensor(context, view, source, place, printable(uid)));
    drawPlatformNames(context, names.filter((name) => name !== null));
  }

  pickAt(point) {
    let nearest = null;
    let least = 28;
    for (const source of this.model?.sources.values() ?? []) {
      if (!isPlace(source.seen.platform)) continue;
      const { latitude, longitude } = source.seen.platform;
      const away = this.map.latLngToContainerPoint([latitude, longitude]).distanceTo(point);
      if (away < least) {
        least = away;
        nearest = source.name;
      }
    }
    if (nearest !== null) this.pick(nearest);
  }
}
