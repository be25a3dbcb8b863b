// The table: the pinned slots, the other slots in a group for each set, and the rows of both.
//
// Nothing here grows with the number of changes: a change only marks its slot, and the next frame
// writes the marked slots that have a row.
import { address } from "./address.js";
import { byId, download, isTyping, setText } from "./browser.js";
import { clock } from "./clock.js";
import { csvText } from "./csv.js";
import { Filter } from "./filter.js";
import { historyPeriod } from "./history.js";
import { Row } from "./row.js";
import { Rows } from "./rows.js";
import { Slot } from "./slot.js";
import { Sorting } from "./sorting.js";
import { setTitle } from "./title.js";

const titles = {
  pinned: "Pinned",
  fast: "Fast meters",
  slow: "Slow meters",
  engine: "Engine parameters",
};
const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: 15, PageUp: -15, Home: -1e9, End: 1e9 };
const sortPeriod = 1000; // milliseconds between two sortings by what changes with time

function makeGroup([id, title]) {
  const element = byId("group-template").content.firstElementChild.cloneNode(true);
  element.dataset.set = id;
  element.querySelector(".title").textContent = title;
  const rows = element.querySelector(".rows");
  rows.setAttribute("aria-label", title);
  return { id, element, rows, count: element.querySelector(".count"), shown: [], size: 0 };
}

export class Table {
  #slots = [];
  #identity = ""; // of these slots: sets, types, names and keys
  #groups = Object.entries(titles).map(makeGroup);
  #rows;
  #marked = new Set(); // slots that changed since the last frame
  #held = new Map(); // by index: the latest value that came during a pause, and how many did
  #isPlacingRequested = false;
  #arrangedAt = 0;
  #settings;
  #plot;
  #past;
  #filter;
  #sorting = new Sorting(() => this.#arrange());

  constructor({ settings, theme, plot, past }) {
    this.#settings = settings;
    this.#plot = plot;
    this.#past = past;
    settings.onChange = () => this.#applySettings();
    this.#rows = new Rows(
      (slot) => new Row(slot, { settings, theme, plot, past, pin: () => this.#togglePin(slot) }),
    );
    this.#filter = new Filter({
      onChange: () => this.#arrange(),
      onLeave: () => this.#focusSlot(this.#shown[0]),
    });
    byId("groups").append(...this.#groups.map((group) => group.element));
    this.#listen();
  }

  #listen() {
    const place = () => this.#requestPlacing();
    document.addEventListener("scroll", place, { capture: true, passive: true });
    window.addEventListener("resize", place);
    byId("groups").addEventListener("focusin", (event) => this.#choose(event.target));
    byId("groups").addEventListener("keydown", (event) => this.#onKey(event));
    byId("hold").addEventListener("click", () => this.#togglePause());
    byId("csv").addEventListener("click", () => this.#export());
    document.addEventListener("keydown", (event) => this.#onAnyKey(event));
    address.onChange(() => {
      this.#readPins();
      this.#arrange();
      this.#goToChosen();
      if (address.get("view") !== this.#plot.id) this.#openPlot();
    });
  }

  // ---- Slots ------------------------------------------------------------------------------------

  // Takes the slots of a snapshot. Histories survive, except after a restart of gatewayctl or when
  // the slots differ.
  load(descriptions, isRestart, now) {
    this.#held.clear();
    const identity = JSON.stringify(descriptions.map((d) => [d.set, d.type, d.name, d.key]));
    if (identity !== this.#identity || isRestart) this.#build(descriptions, now);
    else descriptions.forEach((each, i) => this.#slots[i].refresh(each, now));
    for (const slot of this.#slots) this.#marked.add(slot);
    this.#identity = identity;
    this.#takePast();
  }

  // Takes the part of histories that the page has missed.
  #takePast() {
    this.#past.forget();
    this.#plot.refresh();
  }

  #build(descriptions, now) {
    this.#rows.clear();
    this.#marked.clear();
    const period = historyPeriod(descriptions.length);
    this.#slots = descriptions.map((each, index) => new Slot(each, index, period, now));
    this.#applySettings();
    this.#readPins();
    this.#filter.showSetCounts(this.#slots);
    this.#arrange();
    this.#goToChosen();
    this.#openPlot();
  }

  // Shows the slot that the address names in the large view.
  #openPlot() {
    const id = address.get("view");
    this.#plot.open(this.#slots.find((slot) => slot.id === id));
  }

  #applySettings() {
    for (const slot of this.#slots) if (slot.isFloat) slot.follow(this.#settings.of(slot));
    for (const row of this.#rows.visible) row.show(clock.now());
  }

  change(index, value, now) {
    if (clock.isPaused) {
      this.#held.set(index, { value, count: (this.#held.get(index)?.count ?? 0) + 1 });
      return;
    }
    this.#slots[index].change(value, now);
    this.#marked.add(this.#slots[index]);
  }

  // Returns whether a bar is still falling, so that the next frame has something to show.
  showChanges(now) {
    const isFalling = (slot) => this.#rows.shown(slot)?.showValue(now);
    this.#marked = new Set([...this.#marked].filter(isFalling));
    return this.#marked.size > 0 && clock.isRunning;
  }

  // Shows what time alone changes.
  tick(now) {
    for (const row of this.#rows.visible) row.tick(now);
    this.#filter.showStateCounts(this.#slots, now);
    const isSortDue = this.#sorting.dependsOnTime && now - this.#arrangedAt >= sortPeriod;
    if (this.#filter.dependsOnTime || isSortDue) this.#arrange();
  }

  // ---- Pause and export -------------------------------------------------------------------------

  // Values that come during a pause wait; of each slot's, the page then takes the latest.
  #togglePause() {
    if (clock.isPaused) return this.resume();
    clock.pause();
    this.showChanges(clock.now());
    this.tick(clock.now());
    this.#showPause();
  }

  resume() {
    clock.resume();
    const now = clock.now();
    for (const slot of this.#slots) slot.history?.skipTo(now);
    for (const [index, { value, count }] of this.#held) {
      this.change(index, value, now);
      this.#slots[index].changes += count - 1;
    }
    this.#held.clear();
    this.#takePast();
    this.#showPause();
  }

  #showPause() {
    byId("hold").setAttribute("aria-pressed", String(clock.isPaused));
    setText(byId("hold"), clock.isPaused ? "Resume values" : "Pause values");
    setTitle("pause", clock.isPaused ? "paused" : "");
  }

  #onAnyKey(event) {
    const isFree = !event.target.matches("input, textarea, select, button, label");
    if (event.key !== " " || !isFree || document.querySelector("dialog[open]")) return;
    event.preventDefault();
    this.#togglePause();
  }

  #export() {
    const time = new Date(performance.timeOrigin + clock.now()).toISOString();
    const name = `slots-${time.replace(/[:.]/g, "-")}.csv`;
    download(name, csvText(this.#shown, time, clock.now()), "text/csv");
  }

  // ---- Groups -----------------------------------------------------------------------------------

  // Finds out which slots are shown, and in what order.
  #arrange() {
    const now = (this.#arrangedAt = clock.now());
    for (const group of this.#groups) Object.assign(group, { shown: [], size: 0 });
    const groups = Object.fromEntries(this.#groups.map((group) => [group.id, group]));
    for (const slot of this.#sorting.sorted(this.#slots, now)) {
      const group = groups[slot.isPinned ? "pinned" : slot.set];
      ++group.size;
      if (slot.isPinned || this.#filter.matches(slot, now)) group.shown.push(slot);
    }
    this.#showGroups();
    this.#rows.place(this.#groups);
  }

  #showGroups() {
    for (const { element, count, shown, size } of this.#groups) {
      element.hidden = shown.length === 0;
      setText(count, shown.length === size ? `${size}` : `${shown.length} of ${size}`);
    }
    byId("nothing").hidden = this.#groups.some(({ id, shown }) => id !== "pinned" && shown.length);
    const isEmpty = this.#slots.length === 0;
    setText(byId("nothing"), isEmpty ? "The configuration has no slots." : "No slots match.");
  }

  get #shown() {
    return this.#groups.flatMap((group) => group.shown);
  }

  #requestPlacing() {
    if (this.#isPlacingRequested) return;
    this.#isPlacingRequested = true;
    requestAnimationFrame(() => {
      this.#isPlacingRequested = false;
      this.#rows.place(this.#groups);
    });
  }

  // ---- Pinned slots -----------------------------------------------------------------------------

  #readPins() {
    const pins = new Set(address.getAll("pin"));
    for (const slot of this.#slots) slot.isPinned = pins.has(slot.id);
  }

  // The focus stays where it is on the screen, for another pin.
  #togglePin(slot) {
    const neighbour = this.#neighbour(slot, 1);
    const hadFocus = this.#rows.shown(slot)?.element.contains(document.activeElement);
    slot.isPinned = !slot.isPinned;
    address.set("pin", this.#slots.filter((each) => each.isPinned).map((each) => each.id));
    this.#arrange();
    this.#rows.shown(slot)?.show(clock.now());
    if (hadFocus) this.#focusSlot(neighbour);
  }

  // ---- Keyboard and choice ----------------------------------------------------------------------

  #choose(target) {
    const slot = this.#rows.rowAt(target)?.slot;
    if (!slot) return;
    this.#rows.setTabStop(slot);
    address.set("slot", slot.id);
  }

  #goToChosen() {
    const id = address.get("slot");
    if (!id || document.activeElement !== document.body) return;
    this.#focusSlot(this.#shown.find((slot) => slot.id === id));
  }

  #onKey(event) {
    const row = this.#rows.rowAt(event.target);
    if (!row || isTyping(event.target) || event.ctrlKey || event.altKey || event.metaKey) return;
    if (event.key in steps) this.#focusSlot(this.#neighbour(row.slot, steps[event.key]));
    else if (event.key === "Enter" && event.target === row.element) row.edit();
    else if (event.key === "h") this.#plot.open(row.slot);
    else if (event.key === "p") this.#togglePin(row.slot);
    else if (event.key === "r") this.#resetMaxima([row.slot]);
    else if (event.key === "R") this.#resetMaxima(this.#slots);
    else return;
    event.preventDefault();
  }

  #resetMaxima(slots) {
    for (const slot of slots) slot.resetMaximum();
    for (const row of this.#rows.visible) row.show(clock.now());
  }

  #neighbour(slot, step) {
    const shown = this.#shown;
    const place = shown.indexOf(slot) + step;
    return shown[Math.min(shown.length - 1, Math.max(0, place))];
  }

  #focusSlot(slot) {
    if (!slot) return;
    this.#rows.place(this.#groups, slot);
    this.#rows.shown(slot)?.element.focus();
  }
}
