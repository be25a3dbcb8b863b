// The live page. The stream of events fills a table of slots; frames show what of it can be seen.
//
// Nothing here grows with the number of changes: an event only marks slots, a frame writes the
// marked ones that are in view, and lists are bounded.

const staleAfter = 5000; // milliseconds without a change
const tickPeriod = 250; // of ages, histories and counts
const bucketPeriod = 200; // of a history's points
const buckets = 150;
const holdFor = 2000;
const lostAfter = 7000; // the tool says something every two seconds
const retryAfter = 1000;
const linesKept = 1000;
const linesPerFrame = 200;
const sentKept = 100;

const byId = (id) => document.getElementById(id);
const levelNames = ["", "trace", "network", "fault", "error"];
const setTitles = { fast: "Fast meters", slow: "Slow meters", engine: "Engine parameters" };

// ---- Texts --------------------------------------------------------------------------------------

const withMinus = (text) => text.replace(/^-/, "−");

function numberText(value, span) {
  if (typeof value !== "number") return withMinus(String(value)); // nan, inf, -inf
  const size = Math.abs(value);
  if (size >= 1e7 || (size > 0 && size < 1e-4 && span < 1e-2)) {
    return withMinus(value.toExponential(3));
  }
  const decimals = span >= 20 ? 1 : span >= 2 ? 2 : span >= 0.2 ? 3 : 4;
  return withMinus(value.toFixed(decimals));
}

const shortNumber = (value) => withMinus(String(Number(value.toPrecision(4))));

function ageText(milliseconds) {
  const seconds = milliseconds / 1000;
  if (seconds < 10) return `${Math.max(0, seconds).toFixed(1)} s`;
  if (seconds < 120) return `${Math.round(seconds)} s`;
  if (seconds < 7200) return `${Math.round(seconds / 60)} min`;
  if (seconds < 172800) return `${Math.round(seconds / 3600)} h`;
  return `${Math.round(seconds / 86400)} d`;
}

function uptimeText(seconds) {
  const two = (number) => String(Math.floor(number)).padStart(2, "0");
  const days = Math.floor(seconds / 86400);
  const time = `${two((seconds / 3600) % 24)}:${two((seconds / 60) % 60)}:${two(seconds % 60)}`;
  return days > 0 ? `${days} d ${time}` : time;
}

function clockText(seconds, withMilliseconds) {
  const time = new Date(seconds * 1000);
  const two = (number) => String(number).padStart(2, "0");
  const text = `${two(time.getHours())}:${two(time.getMinutes())}:${two(time.getSeconds())}`;
  return withMilliseconds ? `${text}.${String(time.getMilliseconds()).padStart(3, "0")}` : text;
}

function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

function make(tag, className, text = "") {
  const element = document.createElement(tag);
  if (className) element.className = className;
  if (text) element.textContent = text;
  return element;
}

// ---- What is remembered by the browser ----------------------------------------------------------

// Some browsers forbid it; then nothing is remembered.
const memory = {
  get(name) {
    try {
      return JSON.parse(localStorage.getItem(`gateway.${name}`));
    } catch {
      return null;
    }
  },
  set(name, value) {
    try {
      if (value === null) localStorage.removeItem(`gateway.${name}`);
      else localStorage.setItem(`gateway.${name}`, JSON.stringify(value));
    } catch {
      return;
    }
  },
};

// ---- Slots --------------------------------------------------------------------------------------

// The next of 1, 2, 5, 10, 20, 50 ... that is not smaller.
function roundUp(value) {
  const power = 10 ** Math.floor(Math.log10(value));
  return power * [1, 2, 5, 10].find((step) => step * power >= value * (1 - 1e-9));
}

// A scale that holds all values seen so far: decibels where they fit.
function rangeFor(low, high, isParameter) {
  if (isParameter && low >= -60 && high <= 12) return [-60, 12];
  if (low >= -60 && high <= 0) return [-60, 0];
  if (low >= 0) return [0, Math.max(1, roundUp(high))];
  if (low >= -60 && high <= 12 && low < -1) return [-60, 12];
  const size = roundUp(Math.max(-low, high));
  return [-size, high <= 0 ? 0 : size];
}

class Slot {
  constructor(index, told, now) {
    this.index = index;
    this.set = told.set;
    this.type = told.type;
    this.name = told.name;
    this.key = told.key;
    this.isNumber = told.type !== "string";
    this.isFloat = told.type === "float";
    this.isParameter = told.set === "engine";
    this.searched = `${told.name}\n${told.key}`.toLowerCase();
    this.low = Infinity;
    this.high = -Infinity;
    this.range = null;
    this.keptRange = null;
    this.points = null; // of a number that has moved
    this.bucket = 0;
    this.holdValue = -Infinity;
    this.holdUntil = 0;
    this.row = null;
    this.adapt();
    this.refresh(told, now);
  }

  // What a picture tells of it.
  refresh(told, now) {
    this.moved = told.moved;
    this.changedAt = now - told.age * 1000;
    this.take(told.value, now);
  }

  change(value, now) {
    // What the slot began with was no measurement.
    if (!this.moved) this.holdValue = -Infinity;
    this.moved = true;
    this.changedAt = now;
    this.take(value, now);
  }

  take(value, now) {
    this.value = value;
    if (!this.isNumber || typeof value !== "number") return;
    if (value < this.low || value > this.high) {
      this.low = Math.min(this.low, value);
      this.high = Math.max(this.high, value);
      this.adapt();
    }
    if (!this.moved) return;
    this.advance(now);
    this.points[this.bucket % buckets] = value;
    if (value >= this.holdValue || now > this.holdUntil) {
      this.holdValue = value;
      this.holdUntil = now + holdFor;
    }
  }

  adapt() {
    const { low, high } = this.low <= this.high ? this : { low: 0, high: 0 };
    this.range = this.keptRange ?? rangeFor(low, high, this.isParameter);
  }

  keepRange(range) {
    this.keptRange = range;
    this.adapt();
  }

  // Brings the history to the present: what did not change went on.
  advance(now) {
    const bucket = Math.floor(now / bucketPeriod);
    if (!this.points) {
      this.points = new Float32Array(buckets).fill(NaN);
      this.bucket = bucket;
    }
    const last = this.points[this.bucket % buckets];
    const first = Math.max(this.bucket + 1, bucket - buckets + 1);
    for (let i = first; i <= bucket; ++i) this.points[i % buckets] = last;
    this.bucket = Math.max(this.bucket, bucket);
  }

  fresh(now) {
    if (this.isParameter) return "parameter";
    if (!this.moved) return "unmoved";
    return now - this.changedAt > staleAfter ? "stale" : "live";
  }

  // Where a value lies on the scale, from 0 to 1.
  place(value) {
    if (value === "inf") return 1;
    if (typeof value !== "number") return 0;
    const [low, high] = this.range;
    return Math.min(1, Math.max(0, (value - low) / (high - low)));
  }

  get span() {
    return this.range[1] - this.range[0];
  }

  get valueText() {
    if (this.isFloat) return numberText(this.value, this.span);
    return this.isNumber ? withMinus(String(this.value)) : this.value;
  }
}

// ---- Rows ---------------------------------------------------------------------------------------

const rowTemplate = byId("row-template").content.firstElementChild;
const visible = new Set(); // rows that are in the document
const spareCanvases = []; // canvases are costly to make
const marked = new Set(); // slots that changed since the last frame
let colours = {};

function readColours() {
  const style = getComputedStyle(document.documentElement);
  const probe = make("i");
  document.body.append(probe);
  const read = (name) => {
    probe.style.color = style.getPropertyValue(name);
    return getComputedStyle(probe).color;
  };
  colours = { live: read("--bar"), dim: read("--edge") };
  probe.remove();
}

class Row {
  constructor(slot) {
    this.slot = slot;
    this.element = rowTemplate.cloneNode(true);
    this.element.slotRow = this;
    this.element.dataset.type = slot.type;
    this.element.dataset.set = slot.set;
    this.element.dataset.name = slot.name;
    for (const part of this.element.children) this[part.className.split(" ")[0]] = part;
    this.name.textContent = slot.name;
    this.type.textContent = slot.type;
    this.key.textContent = slot.key;
    this.valueNode = document.createTextNode("");
    if (slot.isParameter) new Control(this);
    else this.value.append(this.valueNode);
    if (slot.isFloat && !slot.isParameter) this.addBar();
    this.shownFill = -1;
    this.shownRange = null;
  }

  addBar() {
    this.button = make("button");
    this.button.type = "button";
    this.button.tabIndex = -1;
    this.button.title = "Set the range of this bar";
    this.lowText = make("span");
    this.highText = make("span");
    const track = make("span", "track");
    this.fill = make("span", "fill");
    this.hold = make("span", "hold");
    track.append(this.fill, this.hold);
    track.setAttribute("role", "meter");
    track.setAttribute("aria-label", this.slot.name);
    this.track = track;
    this.button.append(this.lowText, track, this.highText);
    this.button.addEventListener("click", () => editRange(this));
    this.level.append(this.button);
  }

  showAll(now) {
    this.showValue(now);
    this.tick(now);
  }

  showValue(now) {
    this.showFresh(now);
    const text = this.slot.valueText;
    if (this.control) this.control.show();
    else if (this.valueNode.data !== text) this.valueNode.data = text;
    if (this.fill) this.showBar(now);
  }

  showBar(now) {
    const slot = this.slot;
    const place = slot.moved ? slot.place(slot.value) : 0;
    if (place !== this.shownFill) {
      this.fill.style.transform = `scaleX(${place.toFixed(4)})`;
      this.shownFill = place;
    }
    const hold = slot.moved ? slot.place(slot.holdValue) : 0;
    if (hold !== this.shownHold) {
      this.hold.style.transform = `translateX(${(hold * 100).toFixed(2)}%)`;
      this.shownHold = hold;
    }
    this.showRange();
  }

  showRange() {
    const { range, keptRange } = this.slot;
    if (range === this.shownRange) return;
    this.shownRange = range;
    setText(this.lowText, shortNumber(range[0]));
    setText(this.highText, shortNumber(range[1]));
    this.button.classList.toggle("kept", keptRange !== null);
    this.button.setAttribute(
      "aria-label",
      `${this.slot.name}: range ${range[0]} to ${range[1]}, change it`,
    );
    this.track.setAttribute("aria-valuemin", range[0]);
    this.track.setAttribute("aria-valuemax", range[1]);
  }

  showFresh(now) {
    const fresh = this.slot.fresh(now);
    if (fresh === this.shownFresh) return;
    this.shownFresh = fresh;
    this.element.dataset.fresh = fresh;
  }

  // What goes on without a change.
  tick(now) {
    const slot = this.slot;
    this.showFresh(now);
    setText(this.age, slot.moved ? ageText(now - slot.changedAt) : "not moved");
    if (slot.isParameter) return;
    if (slot.points) this.draw(now);
    if (!this.fill) return;
    if (now > slot.holdUntil && typeof slot.value === "number") slot.holdValue = slot.value;
    this.showBar(now);
    if (typeof slot.value === "number") this.track.setAttribute("aria-valuenow", slot.value);
  }

  draw(now) {
    const slot = this.slot;
    slot.advance(now);
    if (this.canvas && this.drawn === slot.bucket && this.drawnRange === slot.range) return;
    this.drawn = slot.bucket;
    this.drawnRange = slot.range;
    if (!this.canvas) this.addCanvas();
    const { width, height } = this.canvas;
    const pen = this.pen;
    // Integers have no bar, and so no scale but their own.
    const [low, high] = slot.isFloat ? slot.range : [slot.low, slot.high];
    const span = high - low || 1;
    pen.clearRect(0, 0, width, height);
    pen.strokeStyle = slot.fresh(now) === "live" ? colours.live : colours.dim;
    pen.beginPath();
    let down = false;
    for (let i = 0; i < buckets; ++i) {
      const value = slot.points[(slot.bucket + 1 + i) % buckets];
      if (Number.isNaN(value)) continue;
      const x = ((i + 1) / buckets) * width;
      const part = Math.min(1, Math.max(0, (value - low) / span));
      const y = height - this.scale - part * (height - 2 * this.scale);
      if (down) pen.lineTo(x, y);
      else pen.moveTo(x, y);
      down = true;
    }
    pen.stroke();
  }

  addCanvas() {
    this.canvas = spareCanvases.pop() ?? make("canvas");
    this.scale = Math.min(2, window.devicePixelRatio || 1);
    const width = 110 * this.scale;
    if (this.canvas.width !== width) {
      this.canvas.width = width;
      this.canvas.height = 20 * this.scale;
    }
    this.pen = this.canvas.getContext("2d");
    this.pen.lineWidth = 1.2 * this.scale;
    this.pen.lineJoin = "round";
    this.history.append(this.canvas);
  }

  // Shows the row as the nth of its group.
  enter(group, place, now) {
    this.element.style.top = `${place * rowHeight}px`;
    this.element.setAttribute("aria-posinset", place + 1);
    this.element.setAttribute("aria-setsize", group.shown.length);
    if (visible.has(this)) return;
    visible.add(this);
    group.rows.append(this.element);
    this.showAll(now);
  }

  leave() {
    visible.delete(this);
    this.element.remove();
    if (!this.canvas) return;
    this.canvas.remove();
    spareCanvases.push(this.canvas);
    this.canvas = null;
  }
}

// ---- Parameters ---------------------------------------------------------------------------------

// The value of an engine slot, to be changed in place.
class Control {
  constructor(row) {
    this.row = row;
    this.slot = row.slot;
    row.control = this;
    this.addField();
    if (this.slot.isFloat) this.addSlider();
    this.told = make("span", "told");
    this.told.setAttribute("role", "status");
    row.history.append(this.told);
    this.waiting = null; // text to send as soon as the one before has arrived
    this.isSending = false;
    this.shown = undefined;
  }

  addField() {
    this.field = make("input");
    this.field.type = "text";
    this.field.spellcheck = false;
    this.field.autocomplete = "off";
    if (this.slot.isNumber) this.field.inputMode = "decimal";
    this.field.setAttribute("aria-label", `${this.slot.name}, value`);
    this.field.addEventListener("keydown", (event) => {
      if (event.key === "Enter") this.commit();
      if (event.key === "Escape") this.showNow();
      event.stopPropagation();
    });
    this.field.addEventListener("input", () => (this.isEdited = true));
    this.field.addEventListener("change", () => this.isEdited && this.commit());
    this.row.value.append(this.field);
  }

  addSlider() {
    const box = make("span", "slide");
    this.slider = make("input");
    this.slider.type = "range";
    this.slider.setAttribute("aria-label", this.slot.name);
    this.slider.addEventListener("input", () => {
      this.isEdited = false;
      this.field.value = this.slider.value;
      this.send(this.slider.value);
    });
    this.slider.addEventListener("keydown", (event) => event.stopPropagation());
    this.ends = ["lowest", "highest"].map((which) => {
      const end = make("button");
      end.type = "button";
      end.title = "Set the range of this slider";
      end.setAttribute("aria-label", `${this.slot.name}: ${which} of the slider, change it`);
      end.addEventListener("click", () => editRange(this.row));
      return end;
    });
    box.append(this.ends[0], this.slider, this.ends[1]);
    this.row.level.append(box);
  }

  // Not over what somebody is typing.
  show() {
    if (this.slider) this.showSlider();
    if (this.isEdited || this.isSending || this.shown === this.slot.value) return;
    this.showNow();
  }

  showNow() {
    this.isEdited = false;
    this.shown = this.slot.value;
    this.field.value = String(this.slot.value);
    if (this.slider) this.slider.value = String(this.slot.value);
  }

  showSlider() {
    const { range, keptRange } = this.slot;
    if (range === this.shownRange) return;
    this.shownRange = range;
    const step = 10 ** Math.floor(Math.log10(this.slot.span / 100));
    Object.assign(this.slider, { min: range[0], max: range[1], step });
    this.slider.value = String(this.slot.value);
    this.ends.forEach((end, i) => {
      setText(end, shortNumber(range[i]));
      end.classList.toggle("kept", keptRange !== null);
    });
  }

  commit() {
    this.isEdited = false;
    this.send(this.field.value);
  }

  // One request at a time; of what is wanted meanwhile the latest counts.
  async send(text) {
    this.waiting = text;
    if (this.isSending) return;
    this.isSending = true;
    while (this.waiting !== null) {
      const value = this.waiting;
      this.waiting = null;
      await this.sendOne(value);
    }
    this.isSending = false;
    this.show(); // what changed meanwhile
  }

  async sendOne(value) {
    try {
      const number = await postChange(this.slot.name, value);
      this.say(`sent #${number}`, false);
    } catch (error) {
      this.isEdited = true;
      this.say(error.message, true);
    }
  }

  say(text, isBad) {
    setText(this.told, text);
    this.told.title = text;
    this.told.classList.toggle("bad", isBad);
    this.field.setAttribute("aria-invalid", String(isBad));
  }
}

async function postChange(name, value) {
  let response;
  try {
    response = await fetch("/api/set", {
      method: "POST",
      headers: { "Content-Type": "application/json" },
      body: JSON.stringify({ changes: [{ name, value }] }),
    });
  } catch {
    throw new Error("not sent: the tool does not answer");
  }
  const answer = await response.json();
  if (!response.ok) throw new Error(answer.error);
  return answer.notification;
}

// ---- Ranges -------------------------------------------------------------------------------------

const rangeDialog = byId("range-dialog");
let rangeRow = null;

// The ranges that people gave, by set and name; of each module its own.
let keptRanges = {};
const rangesName = () => `ranges.${status.name}`;
const rangeName = (slot) => `${slot.set} ${slot.name}`;

function editRange(row) {
  rangeRow = row;
  byId("range-title").textContent = row.slot.name;
  byId("range-low").value = row.slot.range[0];
  byId("range-high").value = row.slot.range[1];
  byId("range-problem").textContent = "";
  rangeDialog.showModal();
  byId("range-low").select();
}

function keepRange(range) {
  const { slot } = rangeRow;
  if (range === null) delete keptRanges[rangeName(slot)];
  else keptRanges[rangeName(slot)] = range;
  memory.set(rangesName(), keptRanges);
  slot.keepRange(range);
  rangeRow.showAll(performance.now());
  rangeDialog.close();
}

rangeDialog.querySelector("form").addEventListener("submit", (event) => {
  event.preventDefault();
  const low = Number(byId("range-low").value);
  const high = Number(byId("range-high").value);
  if (low < high) keepRange([low, high]);
  else byId("range-problem").textContent = "The first has to be smaller than the second.";
});
byId("range-auto").addEventListener("click", () => keepRange(null));
byId("range-cancel").addEventListener("click", () => rangeDialog.close());

// ---- The table ----------------------------------------------------------------------------------

// Only the rows near the view are in the document, so that the browser's work does not grow with
// the number of slots.

const overscan = 12; // rows above and below the view

let slots = [];
let rowHeight = 28;
const groups = new Map();
const wanted = { text: "", set: "all", fresh: "all" };

function addGroups() {
  for (const [set, title] of Object.entries(setTitles)) {
    const element = byId("group-template").content.firstElementChild.cloneNode(true);
    element.dataset.set = set;
    element.querySelector(".title").textContent = title;
    const rows = element.querySelector(".rows");
    rows.setAttribute("aria-label", title);
    groups.set(set, { element, rows, count: element.querySelector(".count"), shown: [], all: 0 });
    byId("groups").append(element);
  }
}

function build(told, now) {
  for (const row of visible) row.leave();
  marked.clear();
  keptRanges = memory.get(rangesName()) ?? {};
  slots = told.map((each, index) => new Slot(index, each, now));
  for (const group of groups.values()) group.all = 0;
  for (const slot of slots) {
    ++groups.get(slot.set).all;
    if (slot.isFloat) slot.keepRange(keptRanges[rangeName(slot)] ?? null);
  }
  countSlots();
  filter();
}

function isWanted(slot, now) {
  return (
    (wanted.set === "all" || wanted.set === slot.set) &&
    (wanted.text === "" || slot.searched.includes(wanted.text)) &&
    (wanted.fresh === "all" || wanted.fresh === slot.fresh(now))
  );
}

function filter() {
  const now = performance.now();
  for (const group of groups.values()) group.shown = [];
  for (const slot of slots) {
    if (isWanted(slot, now)) groups.get(slot.set).shown.push(slot);
  }
  for (const group of groups.values()) {
    const shown = group.shown.length;
    group.element.hidden = shown === 0;
    setText(group.count, shown === group.all ? `${shown}` : `${shown} of ${group.all}`);
  }
  const isEmpty = [...groups.values()].every((group) => group.shown.length === 0);
  byId("nothing").hidden = !isEmpty;
  setText(byId("nothing"), slots.length > 0 ? "No slot fits." : "The configuration has no slots.");
  placeRows();
}

// Puts the rows near the view into the document and takes the others out.
function placeRows() {
  const style = getComputedStyle(document.documentElement);
  rowHeight = parseFloat(style.getPropertyValue("--row"));
  for (const { rows, shown } of groups.values()) {
    rows.style.height = `${shown.length * rowHeight}px`;
  }
  const now = performance.now();
  const near = [];
  for (const group of groups.values()) {
    const top = group.rows.getBoundingClientRect().top;
    const first = Math.max(0, Math.floor(-top / rowHeight) - overscan);
    const end = Math.min(
      group.shown.length,
      Math.ceil((window.innerHeight - top) / rowHeight) + overscan,
    );
    for (let i = first; i < end; ++i) near.push([group, group.shown[i], i]);
  }
  const staying = new Set(near.map(([, slot]) => slot.row));
  for (const row of visible) {
    if (!staying.has(row) && !row.element.contains(document.activeElement)) row.leave();
  }
  for (const [group, slot, place] of near) {
    slot.row ??= new Row(slot);
    slot.row.enter(group, place, now);
  }
}

let isPlacingRequested = false;

function requestPlacing() {
  if (isPlacingRequested) return;
  isPlacingRequested = true;
  requestAnimationFrame(() => {
    isPlacingRequested = false;
    placeRows();
  });
}

document.addEventListener("scroll", requestPlacing, { capture: true, passive: true });
window.addEventListener("resize", requestPlacing);

function countSlots() {
  const counts = { all: slots.length, fast: 0, slow: 0, engine: 0 };
  for (const slot of slots) ++counts[slot.set];
  for (const button of byId("sets").children) {
    setText(button.querySelector("b"), String(counts[button.dataset.value]));
  }
}

function countFresh(now) {
  const counts = { live: 0, stale: 0, unmoved: 0, parameter: 0 };
  for (const slot of slots) ++counts[slot.fresh(now)];
  for (const button of byId("freshness").children) {
    const count = button.querySelector("b");
    if (count) setText(count, String(counts[button.dataset.value]));
  }
}

function onChoice(group, use) {
  group.addEventListener("click", (event) => {
    const chosen = event.target.closest("button");
    if (!chosen) return;
    for (const button of group.children) {
      button.setAttribute("aria-pressed", String(button === chosen));
    }
    use(chosen.dataset.value);
    filter();
  });
}

onChoice(byId("sets"), (value) => (wanted.set = value));
onChoice(byId("freshness"), (value) => (wanted.fresh = value));
byId("filter").addEventListener("input", (event) => {
  wanted.text = event.target.value.trim().toLowerCase();
  filter();
});

// ---- Keys ---------------------------------------------------------------------------------------

const isTyping = (target) => target.matches("input, textarea, select");

document.addEventListener("keydown", (event) => {
  if (event.ctrlKey || event.altKey || event.metaKey || rangeDialog.open) return;
  if (event.key === "/" && !isTyping(event.target)) {
    event.preventDefault();
    byId("filter").select();
    byId("filter").focus();
  }
});

byId("filter").addEventListener("keydown", (event) => {
  if (event.key === "ArrowDown" || event.key === "Enter") {
    event.preventDefault();
    focusSlot(slotsShown()[0]);
  }
  if (event.key !== "Escape") return;
  event.target.value = "";
  event.target.dispatchEvent(new Event("input"));
  event.target.blur();
});

const slotsShown = () => [...groups.values()].flatMap((group) => group.shown);

function focusSlot(slot) {
  if (!slot) return;
  const group = groups.get(slot.set);
  slot.row ??= new Row(slot);
  slot.row.enter(group, group.shown.indexOf(slot), performance.now());
  slot.row.element.focus();
}

// One row is in the order of the Tab key; the arrows go from there.
byId("groups").addEventListener("focusin", (event) => {
  const element = event.target.closest(".row");
  for (const former of byId("groups").querySelectorAll('.row[tabindex="0"]')) former.tabIndex = -1;
  if (element) element.tabIndex = 0;
});

byId("groups").addEventListener("keydown", (event) => {
  const row = event.target.slotRow;
  if (!row) return;
  const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: 15, PageUp: -15, Home: -1e9, End: 1e9 };
  if (event.key in steps) {
    event.preventDefault();
    const shown = slotsShown();
    const place = shown.indexOf(row.slot) + steps[event.key];
    focusSlot(shown[Math.min(shown.length - 1, Math.max(0, place))]);
  }
  if (event.key !== "Enter") return;
  event.preventDefault();
  if (row.control) row.control.field.focus();
  else if (row.button) editRange(row);
});

byId("pane").addEventListener("pointerover", (event) => {
  const row = event.target.closest?.(".row")?.slotRow;
  if (!row) return;
  row.name.title = row.slot.name;
  row.key.title = row.slot.key;
  row.value.title = String(row.slot.value);
});

// ---- Log and notifications ----------------------------------------------------------------------

const logList = byId("log");
const logCounts = [0, 0, 0, 0, 0];
let newLines = []; // elements to be made
let isPaused = false;
let follows = true;

function takeLines(lines) {
  for (const line of lines) ++logCounts[Math.min(4, Math.max(1, line.level))];
  newLines.push(...lines);
  if (newLines.length > linesKept) newLines = newLines.slice(-linesKept);
}

function lineElement(line) {
  if (line.again) return make("li", "again", line.again);
  const element = make("li");
  element.dataset.level = line.level;
  const time = make("time", "", clockText(line.time, true));
  const badge = make("span", "badge", levelNames[line.level] ?? String(line.level));
  const text = make("span", "text", line.text);
  const file = line.file.slice(line.file.lastIndexOf("/") + 1);
  const source = make("span", "source", ` ${file}:${line.line}`);
  source.title = `${line.file}:${line.line}`;
  element.append(time, badge, text, source);
  return element;
}

// True if there are more to be shown.
function showLines() {
  if (isPaused) {
    setText(byId("pause"), newLines.length > 0 ? `Resume (${newLines.length})` : "Resume");
    return false;
  }
  if (newLines.length === 0) return false;
  logList.append(...newLines.splice(0, linesPerFrame).map(lineElement));
  while (logList.childElementCount > linesKept) logList.firstElementChild.remove();
  if (follows) logList.scrollTop = logList.scrollHeight;
  return newLines.length > 0;
}

function showLogCounts() {
  for (const button of byId("levels").children) {
    setText(button.querySelector("b"), String(logCounts[Number(button.dataset.level)]));
  }
}

byId("levels").addEventListener("click", (event) => {
  const button = event.target.closest("button");
  if (!button) return;
  const isShown = button.getAttribute("aria-pressed") !== "true";
  button.setAttribute("aria-pressed", String(isShown));
  logList.classList.toggle(`without${button.dataset.level}`, !isShown);
  if (follows) logList.scrollTop = logList.scrollHeight;
});

byId("pause").addEventListener("click", () => {
  isPaused = !isPaused;
  byId("pause").setAttribute("aria-pressed", String(isPaused));
  setText(byId("pause"), isPaused ? "Resume" : "Pause");
  requestFrame();
});

function setFollow(on) {
  follows = on;
  byId("follow").setAttribute("aria-pressed", String(on));
  if (on) logList.scrollTop = logList.scrollHeight;
}

byId("follow").addEventListener("click", () => setFollow(!follows));
logList.addEventListener("scroll", () => {
  const isAtEnd = logList.scrollHeight - logList.scrollTop - logList.clientHeight < 24;
  if (isAtEnd !== follows) setFollow(isAtEnd);
});

function takeNotifications(notifications) {
  for (const notification of notifications) {
    const element = make("li");
    const changes = notification.changes.map(({ name, value }) => `${name} ${withMinus(value)}`);
    element.append(
      make("time", "", clockText(notification.time, false)),
      make("span", "what", `sent #${notification.number} ${changes.join(", ")}`),
    );
    byId("sent").prepend(element);
    setText(byId("notification-count"), String(notification.number));
  }
  while (byId("sent").childElementCount > sentKept) byId("sent").lastElementChild.remove();
}

// ---- Frames -------------------------------------------------------------------------------------

let isFrameRequested = false;
let isTickDue = false;
let changes = 0;
let changesBefore = { count: 0, time: 0 };
let uptimeStart = performance.now();
let status = { name: "" };

function requestFrame() {
  if (isFrameRequested) return;
  isFrameRequested = true;
  requestAnimationFrame(frame);
}

function frame() {
  isFrameRequested = false;
  const now = performance.now();
  for (const slot of marked) {
    if (slot.row && visible.has(slot.row)) slot.row.showValue(now);
  }
  marked.clear();
  if (isTickDue) tick(now);
  if (showLines()) requestFrame();
}

function tick(now) {
  isTickDue = false;
  for (const row of visible) row.tick(now);
  countFresh(now);
  showLogCounts();
  if (wanted.fresh !== "all") filter();
  setText(byId("changes"), changes.toLocaleString("en").replaceAll(",", " "));
  setText(byId("uptime"), uptimeText((now - uptimeStart) / 1000));
  if (now - changesBefore.time < 1000) return;
  const rate = ((changes - changesBefore.count) * 1000) / (now - changesBefore.time);
  setText(byId("change-rate"), rate < 10 ? rate.toFixed(1) : String(Math.round(rate)));
  changesBefore = { count: changes, time: now };
}

setInterval(() => {
  isTickDue = true;
  requestFrame();
  if (stream && performance.now() - heardAt > lostAfter) connect();
}, tickPeriod);

// ---- The stream ---------------------------------------------------------------------------------

let stream = null;
let heardAt = 0;
let instance = "";
let labels = "";

function setConnection(state, text) {
  byId("connection").dataset.state = state;
  setText(byId("connection"), text);
}

function takeSnapshot(told) {
  const now = performance.now();
  showStatus(told.status, now);
  logCounts.fill(0);
  newLines = [];
  const isAgain = instance !== "" && instance !== told.instance;
  if (isAgain) {
    const time = clockText(status.startTime, false);
    newLines.push({ again: `The tool was started again at ${time}.` });
  } else {
    logList.replaceChildren();
  }
  takeLines(told.log);
  byId("sent").replaceChildren();
  takeNotifications(told.notifications);
  const labelsNow = JSON.stringify(told.slots.map((s) => [s.set, s.type, s.name, s.key]));
  if (labelsNow !== labels || isAgain) build(told.slots, now);
  else told.slots.forEach((each, i) => slots[i].refresh(each, now));
  for (const slot of slots) marked.add(slot);
  labels = labelsNow;
  instance = told.instance;
}

function showStatus(told, now) {
  status = told;
  uptimeStart = now - told.uptime * 1000;
  changes = told.changes;
  changesBefore = { count: changes, time: now };
  document.title = `${told.name} – gateway`;
  setText(byId("module-name"), told.name);
  // The end of a path tells most; the mark keeps its first slash at the left.
  setText(byId("config"), `\u200e${told.config}`);
  byId("config").title = `${told.config}\nModule: ${told.module}\nVersion ${told.version}`;
  setText(byId("meters-target"), told.targets.meters || "off");
  setText(byId("engine-target"), told.targets.engine || "off");
  setText(byId("notification-count"), String(told.notifications));
}

function takeUpdate(told) {
  const now = performance.now();
  for (const [index, value] of told.slots ?? []) {
    slots[index].change(value, now);
    marked.add(slots[index]);
  }
  changes = told.changes ?? changes;
  if (told.log) takeLines(told.log);
  if (told.notifications) takeNotifications(told.notifications);
}

function connect() {
  stream?.close();
  heardAt = performance.now();
  stream = new EventSource("/api/events");
  const listen = (name, use) => {
    stream.addEventListener(name, (event) => {
      heardAt = performance.now();
      setConnection("live", "live");
      use(JSON.parse(event.data));
      requestFrame();
    });
  };
  listen("snapshot", takeSnapshot);
  listen("update", takeUpdate);
  listen("quiet", () => {});
  stream.addEventListener("error", onLost);
}

// The browser comes back by itself, but not after an answer that refuses the stream.
async function onLost() {
  setConnection("lost", "reconnecting…");
  if (stream.readyState !== EventSource.CLOSED) {
    heardAt = performance.now();
    return;
  }
  stream = null;
  const reason = await refusal();
  if (reason) setConnection("lost", `refused: ${reason}`);
  setTimeout(connect, retryAfter);
}

async function refusal() {
  const control = new AbortController();
  try {
    const response = await fetch("/api/events", { signal: control.signal });
    return response.ok ? "" : (await response.json()).error;
  } catch {
    return "";
  } finally {
    control.abort();
  }
}

// ---- Colours and the beginning ------------------------------------------------------------------

const themes = ["system", "dark", "light"];

function setTheme(theme) {
  memory.set("theme", theme === "system" ? null : theme);
  document.documentElement.dataset.theme = theme;
  setText(byId("theme"), `Theme: ${theme}`);
  readColours();
  for (const row of visible) row.drawn = -1;
}

byId("theme").addEventListener("click", () => {
  const now = themes.indexOf(document.documentElement.dataset.theme);
  setTheme(themes[(now + 1) % themes.length]);
});
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
  setTheme(document.documentElement.dataset.theme);
});

// The cookie knows the token by now; it need not be seen, or be kept in the browser's history.
if (location.search.includes("token=")) history.replaceState(null, "", "/");
addGroups();
setTheme(themes.find((theme) => theme === memory.get("theme")) ?? "system");
connect();
