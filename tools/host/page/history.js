// The last ten minutes of a number as this page knows them, and the line that shows the last half
// minute in a row. What happened before the page was opened comes from gatewayctl.
import { make } from "./browser.js";

export const historySpan = 600000; // milliseconds
const sparklineSpan = 30000;
const shortestPeriod = 200; // milliseconds between two points
const budget = 64e6; // bytes, of the points of all slots
const [width, height] = [110, 20]; // in CSS pixels, as in the style sheet

// The time between two points, in milliseconds, on a page with this many slots.
export const historyPeriod = (slotCount) =>
  Math.max(shortestPeriod, (4 * historySpan * slotCount) / budget);

// A ring of points, each numbered by its time divided by the period. A NaN marks a point
// whose value is unknown.
export class History {
  #points;
  #period;
  #fillings = 0;

  // A float needs half the memory of other numbers to be kept exactly.
  constructor(now, period, isFloat) {
    const count = Math.ceil(historySpan / period);
    this.#points = (isFloat ? new Float32Array(count) : new Float64Array(count)).fill(NaN);
    this.#period = period;
    this.latest = this.#numberOf(now); // number of the latest point
  }

  // Changes whenever the points change.
  get version() {
    return `${this.latest} ${this.#fillings}`;
  }

  #numberOf(time) {
    return Math.floor(time / this.#period);
  }

  // Times before the page was opened are negative.
  #indexOf(number) {
    const count = this.#points.length;
    return ((number % count) + count) % count;
  }

  #firstAfter(number) {
    return Math.max(number + 1, this.latest - this.#points.length + 1);
  }

  add(value, now) {
    this.advance(now);
    this.#points[this.#indexOf(this.latest)] = value;
  }

  // Adds the points up to now: without a change, the value stayed the same.
  advance(now) {
    this.#extend(now, this.#points[this.#indexOf(this.latest)]);
  }

  // Leaves a gap up to now: nobody watched the value.
  skipTo(now) {
    this.#extend(now, NaN);
  }

  #extend(now, value) {
    const before = this.latest;
    this.latest = Math.max(before, this.#numberOf(now));
    for (let i = this.#firstAfter(before); i <= this.latest; ++i) {
      this.#points[this.#indexOf(i)] = value;
    }
  }

  // Fills in what gatewayctl knows of points that this page does not know. Each value held from its
  // time until the next one, except during gaps.
  fill({ times, last, gaps }) {
    ++this.#fillings;
    times.forEach((time, i) => {
      const end = i + 1 < times.length ? this.#numberOf(times[i + 1]) : this.latest + 1;
      const begin = this.#firstAfter(this.#numberOf(time) - 1);
      for (let number = begin; number < Math.min(end, this.latest + 1); ++number) {
        this.#fillPoint(number, last[i], gaps);
      }
    });
  }

  #fillPoint(number, value, gaps) {
    const index = this.#indexOf(number);
    const time = number * this.#period;
    const isInGap = gaps.some(([from, to]) => time > from && time < to);
    if (Number.isNaN(this.#points[index]) && !isInGap) this.#points[index] = value;
  }

  // Calls use(value, age) for the points of the last `span` milliseconds, oldest first. The age is
  // that of the point relative to the latest one, in milliseconds.
  forEach(use, span = historySpan) {
    const count = Math.min(this.#points.length, Math.round(span / this.#period));
    for (let before = count - 1; before >= 0; --before) {
      use(this.#points[this.#indexOf(this.latest - before)], before * this.#period);
    }
  }
}

// Canvases that no row is using: making one is expensive.
const spares = [];

// Draws the last half minute into a parent element, until released.
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

  // `scale` places a value, from 0 at the bottom to 1 at the top; `scaleName` is different for
  // different scales.
  draw(history, scale, scaleName, colour) {
    const picture = `${history.version} ${scaleName} ${colour}`;
    if (picture === this.#drawn) return;
    this.#drawn = picture;
    const pen = this.#pen;
    pen.clearRect(0, 0, this.#canvas.width, this.#canvas.height);
    pen.strokeStyle = colour;
    pen.beginPath();
    this.#trace(history, scale);
    pen.stroke();
  }

  #trace(history, scale) {
    const { width, height } = this.#canvas;
    const margin = this.#scale;
    // The pen ignores a place that is not a number.
    let isInGap = true;
    history.forEach((value, age) => {
      const y = height - margin - scale(value) * (height - 2 * margin);
      const x = width * (1 - age / sparklineSpan);
      if (isInGap) this.#pen.moveTo(x, y);
      else this.#pen.lineTo(x, y);
      isInGap = Number.isNaN(value);
    }, sparklineSpan);
  }

  release() {
    this.#canvas.remove();
    spares.push(this.#canvas);
  }
}
