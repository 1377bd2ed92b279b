// SPDX-License-Identifier: Apache-2.0
// Numbers, times and places as text. Pure.

const grouped = new Intl.NumberFormat("en", { maximumFractionDigits: 0 });

export function count(number) {
  return Number.isFinite(number) ? grouped.format(number) : "–";
}

export function fixed(number, digits) {
  return Number.isFinite(number) ? number.toFixed(digits).replace("-", "−") : "–";
}

// At most so many digits behind the point, without zeros at the end.
export function short(number, digits = 3) {
  if (!Number.isFinite(number)) return "–";
  return String(Number(number.toFixed(digits))).replace("-", "−");
}

const UNITS = new Map([["deg", "°"], ["degC", "°C"], ["deg/s", "°/s"]]);

export function unitText(unit) {
  return UNITS.get(unit) ?? unit ?? "";
}

// A number with its unit; degrees stand without a space.
export function withUnit(text, unit) {
  const shown = unitText(unit);
  if (shown === "") return text;
  return shown === "°" ? `${text}°` : `${text}\u202f${shown}`;
}

export function rate(perSecond) {
  return Number.isFinite(perSecond) ? `${perSecond.toFixed(1)}\u202f/s` : "–";
}

export function age(seconds) {
  if (!Number.isFinite(seconds)) return "never";
  if (seconds < 1) return "now";
  if (seconds < 90) return `${Math.floor(seconds)}\u202fs ago`;
  if (seconds < 5400) return `${Math.floor(seconds / 60)}\u202fmin ago`;
  if (seconds < 172800) return `${Math.floor(seconds / 3600)}\u202fh ago`;
  return `${Math.floor(seconds / 86400)} days ago`;
}

// "12:30:11.240" of microseconds since 1970, UTC.
export function clock(us, digits = 3) {
  const date = new Date(us / 1000);
  if (Number.isNaN(date.getTime())) return "–";
  return date.toISOString().slice(11, digits === 0 ? 19 : 20 + digits);
}

// "2026-05-01 12:30:11.240"
export function dateAndClock(us, digits = 3) {
  const date = new Date(us / 1000);
  if (Number.isNaN(date.getTime())) return "–";
  return `${date.toISOString().slice(0, 10)} ${clock(us, digits)}`;
}

function degrees(value, digits, positive, negative) {
  return `${Math.abs(value).toFixed(digits)}°\u202f${value < 0 ? negative : positive}`;
}

export function latitude(value, digits = 5) {
  return Number.isFinite(value) ? degrees(value, digits, "N", "S") : "–";
}

export function longitude(value, digits = 5) {
  return Number.isFinite(value) ? degrees(value, digits, "E", "W") : "–";
}

// A line of the graticule: whole degrees, minutes or seconds, as the step between lines needs them.
export function graticuleText(value, stepSeconds, isLatitude) {
  const seconds = Math.round(Math.abs(value) * 3600 * 2) / 2;
  const whole = Math.floor(seconds / 3600);
  const isWhole = stepSeconds % 1 === 0;
  let text = `${whole}°`;
  if (stepSeconds % 3600 !== 0) text += `${String(Math.floor(seconds / 60) % 60).padStart(2, "0")}′`;
  if (stepSeconds % 60 !== 0) text += `${(seconds % 60).toFixed(isWhole ? 0 : 1).padStart(isWhole ? 2 : 4, "0")}″`;
  if (seconds === 0 || (!isLatitude && seconds === 648000)) return text;
  return text + (isLatitude ? (value < 0 ? "S" : "N") : value < 0 ? "W" : "E");
}

// "06 0E 2B 34" of "060E2B34".
export function hexPairs(hex) {
  return hex.replace(/(..)(?=.)/g, "$1 ");
}
