// One slot: its value, the range of its scale, its peak hold, its history and its state.
// Times are those of the page's clock.
import { clock } from "./clock.js";
import { numberFrom, numberText, withMinus } from "./format.js";
import { History } from "./history.js";
import { placeOn, roundUp } from "./rules.js";

const staleAfter = 5000; // milliseconds without a change
const holdFor = 2000;

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
  #historyPeriod;

  // `description` as the server gives it: set, type, name, key, value, age, moved and changes.
  // `index` is its place among the server's slots.
  constructor(description, index, historyPeriod, now) {
    const { set, type, name, key } = description;
    Object.assign(this, { set, type, name, key, index });
    this.#historyPeriod = historyPeriod;
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
    this.watcher = null; // called with each number that the slot gets, and the time
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
    if (!this.isNumber) return;
    if (typeof value === "number") this.#include(value, value);
    if (this.hasChanged) this.#record(value, now);
  }

  #include(low, high) {
    if (low >= this.#low && high <= this.#high) return;
    this.#low = Math.min(this.#low, low);
    this.#high = Math.max(this.#high, high);
    this.#fitRange();
  }

  #record(value, now) {
    const number = numberFrom(value);
    this.history ??= this.#makeHistory(now);
    this.history.add(number, now);
    this.watcher?.(number, now);
    if (typeof value !== "number") return;
    this.maximum = Math.max(this.maximum, value);
    if (value < this.hold && now <= this.#holdUntil) return;
    this.hold = value;
    this.#holdUntil = now + holdFor;
  }

  #makeHistory(now) {
    return new History(now, this.#historyPeriod, this.isFloat);
  }

  // Takes what gatewayctl knows of the time before.
  takePast(past) {
    if (past.times.length === 0) return;
    this.history ??= this.#makeHistory(clock.now());
    this.history.fill(past);
    const values = [...past.low, ...past.high].filter(Number.isFinite);
    if (values.length > 0) this.#include(Math.min(...values), Math.max(...values));
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
    if (this.isFloat) return this.range;
    return [this.#low, this.#low < this.#high ? this.#high : this.#low + 1];
  }

  get historyScale() {
    return this.rule?.scale ?? "linear";
  }

  placeInHistory(value) {
    return placeOn(this.historyScale, this.historyRange, value);
  }

  // A number, also an infinite one; otherwise the text as it is.
  get sortValue() {
    const number = this.isNumber ? numberFrom(this.value) : NaN;
    return Number.isNaN(number) ? this.value : number;
  }

  get valueText() {
    return this.isNumber ? this.textOf(numberFrom(this.value)) : this.value;
  }

  // How a number of this slot is written.
  textOf(number) {
    if (Number.isNaN(number)) return "nan";
    if (!Number.isFinite(number)) return number > 0 ? "inf" : "−inf";
    return this.isFloat ? numberText(number, this.span) : withMinus(String(number));
  }
}
