// The large view of a slot's history: ten minutes with a time axis, the value at the pointer, zoom,
// and export. It shows the history that gatewayctl keeps, and adds each new value that the page
// receives. Once gatewayctl has gone, it shows what the page has seen.
import { address } from "./address.js";
import { byId, download, setText } from "./browser.js";
import { clock } from "./clock.js";
import { historyCsvText } from "./csv.js";
import { clockText, preciseClockText, scaleText } from "./format.js";
import { historySpan } from "./history.js";
import { fetchHistories } from "./past.js";
import { marksOn } from "./rules.js";
import { Trace } from "./trace.js";

const { uPlot } = window;
const shortestWindow = 500; // milliseconds
const windowAtFirst = 30000; // at least, even if the history has only begun
const labelWidth = 74; // pixels

// The library's time axis counts seconds since 1970.
const toSeconds = (time) => (performance.timeOrigin + time) / 1000;
const fromSeconds = (seconds) => seconds * 1000 - performance.timeOrigin;
const isoText = (time) => new Date(performance.timeOrigin + time).toISOString();

// The labels of an axis with a mark every `step` seconds.
const timeTexts = (times, step) => times.map(step < 1 ? preciseClockText : clockText);

export class Plot {
  #dialog = byId("history-dialog");
  #element = byId("plot");
  #slot = null;
  #trace = null;
  #picture = null; // the library's object
  #zoom = null; // from when to when; null for everything
  #mark = null; // a time that somebody chose by keyboard
  #theme;

  constructor(theme) {
    this.#theme = theme;
    this.#dialog.addEventListener("close", () => this.#leave());
    this.#element.addEventListener("keydown", (event) => this.#onKey(event));
    byId("history-all").addEventListener("click", () => this.#zoomTo(null));
    byId("history-csv").addEventListener("click", () => this.#export());
    new ResizeObserver(() => this.#picture?.setSize(this.#size)).observe(this.#element);
  }

  // Which slot is shown; empty for none.
  get id() {
    return this.#slot?.id ?? "";
  }

  // Shows a slot; closes the view if there is none, or if it holds texts.
  open(slot) {
    this.#release();
    if (!slot?.isNumber) return this.#dialog.close();
    this.#slot = slot;
    this.#trace = Trace.fromHistory(slot.history, clock.now());
    slot.watcher = (value, now) => this.#trace.add(now, value);
    setText(byId("history-title"), slot.name);
    this.#say("");
    address.set("view", slot.id);
    if (!this.#dialog.open) this.#dialog.showModal();
    this.#picture = this.#makePicture();
    this.#zoomTo(null);
    this.refresh();
  }

  // Takes what gatewayctl has kept.
  async refresh() {
    const slot = this.#slot;
    if (!slot) return;
    this.#element.ariaBusy = "true";
    const past = await fetchHistories([slot], historySpan / 1000).then(([one]) => one, () => null);
    if (slot !== this.#slot) return;
    if (past) this.#take(past);
    else this.#say("gatewayctl does not answer: this is what the page has seen.");
    this.#element.ariaBusy = "false";
  }

  #take(past) {
    const live = this.#trace;
    this.#trace = Trace.fromPast(past);
    this.#trace.addAfter(past.askedAt, live);
    const isKnown = this.#slot.hasChanged;
    this.#say(isKnown ? "" : "There is no history: it has not changed since the start.");
    this.#show(clock.now());
  }

  tick(now) {
    if (!this.#slot || !clock.isRunning) return;
    this.#trace.trim(now - historySpan);
    this.#show(now);
  }

  #say(text) {
    setText(byId("history-note"), text);
  }

  #leave() {
    this.#release();
    address.set("view", "");
  }

  #release() {
    if (!this.#slot) return;
    this.#picture.destroy();
    this.#slot.watcher = null;
    [this.#slot, this.#picture, this.#zoom, this.#mark] = [null, null, null, null];
  }

  #export() {
    const name = `history-${this.#slot.name}-${isoText(clock.now()).replace(/[:.]/g, "-")}.csv`;
    download(name, historyCsvText(this.#part(clock.now()), isoText), "text/csv");
  }

  // ---- The picture ------------------------------------------------------------------------------

  #makePicture() {
    const colour = (name) => () => this.#theme.colours[name];
    const paths = uPlot.paths.stepped({ align: 1 });
    const line = { stroke: colour("live"), points: { show: false }, paths };
    const options = {
      ...this.#size,
      scales: { y: { range: [0, 1] } },
      series: [{}, { ...line, width: 0 }, { ...line, width: 0 }, { ...line, width: 1.4 }],
      bands: [{ series: [2, 1], fill: colour("band") }],
      axes: this.#axes(colour),
      legend: { show: false },
      cursor: {
        y: false,
        points: { show: false },
        drag: { setScale: false },
        bind: { dblclick: () => () => this.#zoomTo(null) },
      },
      hooks: {
        setSelect: [(picture) => this.#onDrag(picture)],
        setCursor: [() => this.#showReading()],
      },
    };
    const picture = new uPlot(options, [[], [], [], []], this.#element);
    picture.over.addEventListener("pointermove", () => (this.#mark = null));
    return picture;
  }

  #axes(colour) {
    const marks = () => marksOn(this.#slot.historyScale, this.#slot.historyRange);
    const axis = {
      stroke: colour("text"),
      grid: { stroke: colour("grid"), width: 1 },
      ticks: { show: false },
      font: `11px ${getComputedStyle(document.body).fontFamily}`,
    };
    return [
      {
        ...axis,
        size: 28,
        space: labelWidth,
        values: (_, times, ...[, , step]) => timeTexts(times, step),
      },
      {
        ...axis,
        size: 44,
        splits: () => marks().map((value) => this.#slot.placeInHistory(value)),
        values: () => marks().map(scaleText),
      },
    ];
  }

  get #size() {
    return { width: this.#element.clientWidth, height: this.#element.clientHeight };
  }

  // From when to when the picture shows the history.
  #window(now) {
    if (this.#zoom) return this.#zoom;
    const first = this.#trace.times[0] ?? now;
    return [Math.max(now - historySpan, Math.min(first, now - windowAtFirst)), now];
  }

  #part(now) {
    const [from, to] = this.#window(now);
    return this.#trace.part(from, Math.min(to, now));
  }

  #show(now) {
    const [min, max] = this.#window(now).map(toSeconds);
    const { times, low, high, last } = this.#part(now);
    const isKnown = (value) => value !== null && !Number.isNaN(value);
    const place = (value) => (isKnown(value) ? this.#slot.placeInHistory(value) : null);
    const places = [low, high, last].map((values) => values.map(place));
    this.#picture.batch(() => {
      this.#picture.setData([times.map(toSeconds), ...places], false);
      this.#picture.setScale("x", { min, max });
    });
    byId("history-all").disabled = this.#zoom === null;
    this.#showMark();
    this.#showReading();
  }

  // ---- Pointer and keyboard ---------------------------------------------------------------------

  // The time at the pointer or at the mark; null for neither.
  get #chosenTime() {
    const { left } = this.#picture.cursor;
    if (this.#mark !== null) return this.#mark;
    return left >= 0 ? fromSeconds(this.#picture.posToVal(left, "x")) : null;
  }

  #showReading() {
    const time = this.#chosenTime;
    const isKnown = time !== null && time <= clock.now();
    setText(byId("history-reading"), isKnown ? this.#readingAt(time) : "");
  }

  #readingAt(time) {
    const [slot, index] = [this.#slot, this.#trace.indexAt(time)];
    const when = preciseClockText(toSeconds(time));
    const [last, low, high] = ["last", "low", "high"].map((each) => this.#trace[each][index]);
    if ((last ?? null) === null) return `${when}: not known`;
    const range = low < high ? `, between ${slot.textOf(low)} and ${slot.textOf(high)}` : "";
    return `${when}: ${slot.textOf(last)}${range}`;
  }

  #showMark() {
    if (this.#mark === null) return;
    this.#picture.setCursor({ left: this.#picture.valToPos(toSeconds(this.#mark), "x"), top: 0 });
  }

  #onDrag(picture) {
    const { left, width } = picture.select;
    if (width === 0) return;
    picture.setSelect({ left: 0, width: 0 }, false);
    this.#zoomTo([left, left + width].map((place) => fromSeconds(picture.posToVal(place, "x"))));
  }

  // Shows the time from one moment to another; everything that is known for null.
  #zoomTo(zoom) {
    this.#zoom = zoom;
    this.#show(clock.now());
  }

  #zoomBy(factor) {
    const now = clock.now();
    const [from, to] = this.#window(now);
    const middle = this.#mark ?? (from + to) / 2;
    const length = Math.max(shortestWindow, (to - from) * factor);
    if (length >= historySpan) return this.#zoomTo(null);
    const begin = Math.min(middle - ((middle - from) / (to - from)) * length, now - length);
    this.#zoomTo([begin, begin + length]);
  }

  // The mark stays in the window. It begins at its end, where the latest value is.
  #moveMark(steps) {
    const [from, to] = this.#window(clock.now());
    const moved = (this.#mark ?? to) + (steps * (to - from)) / 100;
    this.#mark = Math.min(to, Math.max(from, moved));
    this.#show(clock.now());
  }

  #onKey(event) {
    const { key, shiftKey } = event;
    const stride = shiftKey ? 10 : 1;
    if (key === "ArrowLeft") this.#moveMark(-stride);
    else if (key === "ArrowRight") this.#moveMark(stride);
    else if (key === "+" || key === "=") this.#zoomBy(1 / 2);
    else if (key === "-") this.#zoomBy(2);
    else if (key === "0") this.#zoomTo(null);
    else return;
    event.preventDefault();
  }
}
