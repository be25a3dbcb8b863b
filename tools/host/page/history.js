// The last half minute of a number: its points, and the line drawn through them.
import { make } from "./browser.js";

const period = 200; // milliseconds between two points
const pointCount = 150;
const [width, height] = [110, 20]; // in CSS pixels, as in the style sheet

// A ring of points, each numbered by its time divided by `period`.
export class History {
  #points = new Float32Array(pointCount).fill(NaN);

  constructor(now) {
    this.latest = Math.floor(now / period); // number of the latest point
  }

  add(value, now) {
    this.advance(now);
    this.#points[this.latest % pointCount] = value;
  }

  // Adds the points up to now: without a change, the value stayed the same.
  advance(now) {
    const latest = Math.floor(now / period);
    const value = this.#points[this.latest % pointCount];
    const first = Math.max(this.latest + 1, latest - pointCount + 1);
    for (let i = first; i <= latest; ++i) this.#points[i % pointCount] = value;
    this.latest = Math.max(this.latest, latest);
  }

  // Leaves a gap up to now: nobody watched the value.
  skipTo(now) {
    const latest = this.latest;
    this.advance(now);
    const first = Math.max(latest + 1, this.latest - pointCount + 1);
    for (let i = first; i <= this.latest; ++i) this.#points[i % pointCount] = NaN;
  }

  // Calls use(place, value) for each point, oldest first; places run from 0 to 1. A gap's values
  // are NaN.
  forEach(use) {
    for (let i = 1; i <= pointCount; ++i) {
      use(i / pointCount, this.#points[(this.latest + i) % pointCount]);
    }
  }
}

// Canvases that no row is using: making one is expensive.
const spares = [];

// Draws a history into a parent element, until released.
export class Sparkline {
  #canvas = spares.pop() ?? make("canvas");
  #scale = Math.min(2, window.devicePixelRatio || 1);
  #pen;
  #drawn = "";

  constructor(parent) {
    const canvas = this.#canvas;
    if (canvas.width !== width * this.#scale) {
      canvas.width = width * this.#scale;
      canvas.height = height * this.#scale;
    }
    this.#pen = canvas.getContext("2d");
    this.#pen.lineWidth = 1.2 * this.#scale;
    this.#pen.lineJoin = "round";
    parent.append(canvas);
  }

  draw(history, [low, high], colour) {
    const picture = [history.latest, low, high, colour].join();
    if (picture === this.#drawn) return;
    this.#drawn = picture;
    const pen = this.#pen;
    pen.clearRect(0, 0, this.#canvas.width, this.#canvas.height);
    pen.strokeStyle = colour;
    pen.beginPath();
    this.#trace(history, low, high - low || 1);
    pen.stroke();
  }

  #trace(history, low, span) {
    const { width, height } = this.#canvas;
    const margin = this.#scale;
    // The pen ignores a place that is not a number.
    let isInGap = true;
    history.forEach((place, value) => {
      const part = Math.min(1, Math.max(0, (value - low) / span));
      const [x, y] = [place * width, height - margin - part * (height - 2 * margin)];
      if (isInGap) this.#pen.moveTo(x, y);
      else this.#pen.lineTo(x, y);
      isInGap = Number.isNaN(value);
    });
  }

  release() {
    this.#canvas.remove();
    spares.push(this.#canvas);
  }
}
