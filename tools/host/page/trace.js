// The points of one slot in its large view. From each time on, the slot held the values of that
// point until the next one. A value is null where nobody knows it, and NaN where the slot held NaN.

export class Trace {
  times = []; // milliseconds of the page's clock, rising
  last = [];
  low = [];
  high = [];

  // Makes a trace from a history of past.js.
  static fromPast({ times, last, low, high, period, gaps, askedAt }) {
    let points = [];
    times.forEach((time, i) => {
      points.push([time, last[i], low[i], high[i]]);
      // The extremes belong to the period only, which may still run.
      const end = Math.max(time, Math.min(time + period, askedAt));
      if (low[i] !== high[i] && !(end >= times[i + 1])) points.push([end, last[i]]);
    });
    for (const [from, to] of gaps) {
      const held = points.findLast(([time]) => time <= to);
      if (!held) continue;
      points = points.filter(([time]) => time <= from || time >= to);
      points.push([from, null], [to, held[1]]);
    }
    return Trace.#of(points.sort(([a], [b]) => a - b));
  }

  // Of a history as history.js has it; null for none.
  static fromHistory(history, now) {
    const points = [];
    let before = NaN;
    history?.forEach((value, age) => {
      const isSame = value === before || (Number.isNaN(value) && Number.isNaN(before));
      if (!isSame) points.push([now - age, Number.isNaN(value) ? null : value]);
      before = value;
    });
    return Trace.#of(points);
  }

  static #of(points) {
    const trace = new Trace();
    for (const point of points) trace.add(...point);
    return trace;
  }

  add(time, last, low = last, high = last) {
    this.times.push(time);
    this.last.push(last);
    this.low.push(low);
    this.high.push(high);
  }

  // Adds another trace's points after a time.
  addAfter(time, { times, last, low, high }) {
    times.forEach((each, i) => each > time && this.add(each, last[i], low[i], high[i]));
  }

  // The index of the point that says what the slot held at a time; −1 if it is before all points.
  indexAt(time) {
    let [first, end] = [0, this.times.length];
    while (first < end) {
      const middle = (first + end) >> 1;
      if (this.times[middle] <= time) first = middle + 1;
      else end = middle;
    }
    return first - 1;
  }

  // Drops the points that ended before `time`.
  trim(time) {
    const count = this.indexAt(time);
    if (count <= 0) return;
    for (const column of [this.times, this.last, this.low, this.high]) column.splice(0, count);
  }

  // The part from one time to another, which begins and ends with the values held then.
  part(from, to) {
    const part = new Trace();
    const first = this.indexAt(from);
    const end = this.indexAt(to) + 1;
    const addHeld = (time, i) => part.add(time, this.last[i], this.low[i], this.high[i]);
    if (first >= 0) addHeld(from, first);
    for (let i = first + 1; i < end; ++i) addHeld(this.times[i], i);
    if (end > 0) addHeld(to, end - 1);
    return part;
  }
}
