// One slot: its value, the range of its scale, its peak hold, its history and its state.
// Times are those of the page's clock.
import { clock } from "./clock.js";
import { numberText, withMinus } from "./format.js";
import { History } from "./history.js";
import { placeOn } from "./rules.js";

const staleAfter = 5000; // milliseconds without a change
const holdFor = 2000;

// The next of 1, 2, 5, 10, 20, 50 ... that is not smaller, but for the rounding of a float.
function roundUp(value) {
  const exponent = Math.floor(Math.log10(value));
  const mantissa = value / 10 ** exponent;
  return Number(`${[1, 2, 5, 10].find((step) => step >= mantissa * (1 - 1e-6))}e${exponent}`);
}

// A ratio ends at 1, unless it has been far below so far.
const endAbove = (high) => (high < 1e-3 ? roundUp(high) : Math.max(1, roundUp(high)));

// A scale that holds all values seen so far: decibels where they fit.
function rangeFor(low, high, isParameter) {
  if (isParameter && low >= -60 && high <= 12) return [-60, 12];
  if (low >= -60 && high <= 0) return [-60, 0];
  if (low >= 0) return [0, endAbove(high)];
  if (low >= -60 && high <= 12 && low < -1) return [-60, 12];
  const size = roundUp(Math.max(-low, high));
  return [-size, high <= 0 ? 0 : size];
}

export class Slot {
  #low = Infinity;
  #high = -Infinity;
  #holdUntil = 0;

  // `description` as the server gives it: set, type, name, key, value, age, moved and
  // changes.
  constructor(description, now) {
    const { set, type, name, key } = description;
    Object.assign(this, { set, type, name, key });
    this.isNumber = type !== "string";
    this.isFloat = type === "float";
    this.isParameter = set === "engine";
    this.id = `${set}/${name}`;
    this.isPinned = false;
    this.searched = `${name}\n${key}`.toLowerCase();
    this.range = null;
    this.rule = null; // how somebody wants it drawn; null: on a linear scale that fits the values
    this.maximum = -Infinity; // since maximumSince
    this.maximumSince = now;
    this.history = null; // of a number that has changed
    this.hold = -Infinity;
    this.#fitRange();
    this.refresh(description, now);
  }

  // Takes the state from a later description.
  refresh(description, now) {
    this.history?.skipTo(now);
    this.hasChanged = description.moved;
    this.changes = description.changes;
    this.changedAt = now - description.age * 1000;
    this.#take(description.value, now);
  }

  change(value, now) {
    // The initial value was no measurement.
    if (!this.hasChanged) this.hold = -Infinity;
    this.hasChanged = true;
    ++this.changes;
    this.changedAt = now;
    this.#take(value, now);
  }

  #take(value, now) {
    this.value = value;
    if (!this.isNumber || typeof value !== "number") return;
    if (value < this.#low || value > this.#high) {
      this.#low = Math.min(this.#low, value);
      this.#high = Math.max(this.#high, value);
      this.#fitRange();
    }
    if (this.hasChanged) this.#record(value, now);
  }

  #record(value, now) {
    this.history ??= new History(now);
    this.history.add(value, now);
    this.maximum = Math.max(this.maximum, value);
    if (value < this.hold && now <= this.#holdUntil) return;
    this.hold = value;
    this.#holdUntil = now + holdFor;
  }

  #fitRange() {
    const [low, high] = this.#low <= this.#high ? [this.#low, this.#high] : [0, 0];
    const { rule } = this;
    this.range = rule ? [rule.low, rule.high] : rangeFor(low, high, this.isParameter);
  }

  follow(rule) {
    this.rule = rule;
    this.#fitRange();
  }

  resetMaximum() {
    this.maximum = this.hasChanged && typeof this.value === "number" ? this.value : -Infinity;
    this.maximumSince = clock.now();
  }

  // Stays true until somebody resets the maximum.
  get isClipped() {
    return this.rule !== null && this.rule.clip !== null && this.maximum >= this.rule.clip;
  }

  // Drops the hold to the value when its time is over.
  releaseHold(now) {
    if (now > this.#holdUntil && typeof this.value === "number") this.hold = this.value;
  }

  state(now) {
    if (this.isParameter) return "parameter";
    if (!this.hasChanged) return "unchanged";
    return now - this.changedAt > staleAfter ? "stale" : "changing";
  }

  // Where a value lies in the range, from 0 to 1.
  place(value) {
    if (value === "inf") return 1;
    if (typeof value !== "number") return 0;
    return placeOn(this.rule?.scale, this.range, value);
  }

  get span() {
    return this.range[1] - this.range[0];
  }

  // Integers have no bar, so their history has a scale of its own.
  get historyRange() {
    return this.isFloat ? this.range : [this.#low, this.#high];
  }

  // A number, also an infinite one; otherwise the text as it is.
  get sortValue() {
    const infinities = { inf: Infinity, "-inf": -Infinity };
    return this.isNumber ? (infinities[this.value] ?? this.value) : this.value;
  }

  get valueText() {
    if (this.isFloat) return numberText(this.value, this.span);
    return this.isNumber ? withMinus(String(this.value)) : this.value;
  }
}
