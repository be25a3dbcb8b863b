// The table: the slots in a group for each set, and the rows that show them.
//
// Nothing here grows with the number of changes: a change only marks its slot, and the next frame
// writes the marked slots that have a row. Only slots near the view have a row in the document, so
// that the browser's work does not grow with the number of slots.
import { byId, setText } from "./browser.js";
import { clock } from "./clock.js";
import { Filter } from "./filter.js";
import { Row } from "./row.js";
import { Slot } from "./slot.js";

const titles = { fast: "Fast meters", slow: "Slow meters", engine: "Engine parameters" };
const overscan = 12; // rows above and below the view
const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: 15, PageUp: -15, Home: -1e9, End: 1e9 };

function makeGroup([set, title]) {
  const element = byId("group-template").content.firstElementChild.cloneNode(true);
  element.dataset.set = set;
  element.querySelector(".title").textContent = title;
  const rows = element.querySelector(".rows");
  rows.setAttribute("aria-label", title);
  return { set, element, rows, count: element.querySelector(".count"), shown: [], size: 0 };
}

export class Table {
  #slots = [];
  #identity = ""; // of these slots: sets, types, names and keys
  #groups = Object.entries(titles).map(makeGroup);
  #rows = new Map(); // by slot, as far as made
  #visible = new Set(); // rows that are in the document
  #marked = new Set(); // slots that changed since the last frame
  #rowHeight = 0; // pixels
  #isPlacingRequested = false;
  #ranges;
  #theme;
  #filter;

  constructor(ranges, theme) {
    this.#ranges = ranges;
    this.#theme = theme;
    this.#filter = new Filter({
      onChange: () => this.#applyFilter(),
      onLeave: () => this.#focusSlot(this.#shown[0]),
    });
    byId("groups").append(...this.#groups.map((group) => group.element));
    this.#listen();
  }

  #listen() {
    const place = () => this.#requestPlacing();
    document.addEventListener("scroll", place, { capture: true, passive: true });
    window.addEventListener("resize", place);
    byId("groups").addEventListener("focusin", (event) => this.#moveTabStop(event.target));
    byId("groups").addEventListener("keydown", (event) => this.#onKey(event));
    byId("pane").addEventListener("pointerover", (event) => {
      this.#rowOf(event.target.closest?.(".row"))?.showTitles();
    });
  }

  // ---- Slots ------------------------------------------------------------------------------------

  // Takes the slots of a snapshot. Histories survive, except after a restart of gatewayctl or when
  // the slots differ.
  load(descriptions, isRestart, now) {
    const identity = JSON.stringify(descriptions.map((d) => [d.set, d.type, d.name, d.key]));
    if (identity !== this.#identity || isRestart) this.#build(descriptions, now);
    else descriptions.forEach((each, i) => this.#slots[i].refresh(each, now));
    for (const slot of this.#slots) this.#marked.add(slot);
    this.#identity = identity;
  }

  #build(descriptions, now) {
    for (const row of this.#visible) this.#removeRow(row);
    this.#rows.clear();
    this.#marked.clear();
    this.#slots = descriptions.map((each) => new Slot(each, now));
    for (const group of this.#groups) {
      group.size = this.#slots.filter((slot) => slot.set === group.set).length;
    }
    for (const slot of this.#slots) if (slot.isFloat) slot.chooseRange(this.#ranges.of(slot));
    this.#filter.showSetCounts(this.#slots);
    this.#applyFilter();
  }

  change(index, value, now) {
    this.#slots[index].change(value, now);
    this.#marked.add(this.#slots[index]);
  }

  showChanges(now) {
    for (const slot of this.#marked) {
      const row = this.#rows.get(slot);
      if (this.#visible.has(row)) row.showValue(now);
    }
    this.#marked.clear();
  }

  // Shows what time alone changes.
  tick(now) {
    for (const row of this.#visible) row.tick(now);
    this.#filter.showStateCounts(this.#slots, now);
    if (this.#filter.dependsOnTime) this.#applyFilter();
  }

  #applyFilter() {
    const now = clock.now();
    for (const group of this.#groups) group.shown = [];
    const shown = Object.fromEntries(this.#groups.map((group) => [group.set, group.shown]));
    for (const slot of this.#slots) {
      if (this.#filter.matches(slot, now)) shown[slot.set].push(slot);
    }
    this.#showGroups();
    this.#placeRows();
  }

  #showGroups() {
    for (const { element, count, shown, size } of this.#groups) {
      element.hidden = shown.length === 0;
      setText(count, shown.length === size ? `${size}` : `${shown.length} of ${size}`);
    }
    byId("nothing").hidden = this.#shown.length > 0;
    const isEmpty = this.#slots.length === 0;
    setText(byId("nothing"), isEmpty ? "The configuration has no slots." : "No slots match.");
  }

  get #shown() {
    return this.#groups.flatMap((group) => group.shown);
  }

  // ---- Rows near the view -----------------------------------------------------------------------

  #requestPlacing() {
    if (this.#isPlacingRequested) return;
    this.#isPlacingRequested = true;
    requestAnimationFrame(() => {
      this.#isPlacingRequested = false;
      this.#placeRows();
    });
  }

  #placeRows() {
    const style = getComputedStyle(document.documentElement);
    this.#rowHeight = parseFloat(style.getPropertyValue("--row"));
    for (const { rows, shown } of this.#groups) {
      rows.style.height = `${shown.length * this.#rowHeight}px`;
    }
    const now = clock.now();
    const near = this.#groups.map((group) => [group, ...this.#rangeNear(group)]);
    this.#removeRowsOutside(near);
    for (const [group, first, end] of near) {
      for (let i = first; i < end; ++i) this.#insertRow(group, i, now);
    }
  }

  // The first place in a group that needs a row, and the one after the last.
  #rangeNear({ rows, shown }) {
    const { top } = rows.getBoundingClientRect();
    const first = Math.floor(-top / this.#rowHeight) - overscan;
    const end = Math.ceil((window.innerHeight - top) / this.#rowHeight) + overscan;
    return [Math.max(0, first), Math.min(shown.length, end)];
  }

  #removeRowsOutside(near) {
    const staying = new Set(near.flatMap(([group, first, end]) => group.shown.slice(first, end)));
    for (const row of this.#visible) {
      const isFocused = row.element.contains(document.activeElement);
      if (!staying.has(row.slot) && !isFocused) this.#removeRow(row);
    }
  }

  #insertRow(group, place, now) {
    const slot = group.shown[place];
    if (!this.#rows.has(slot)) this.#rows.set(slot, new Row(slot, this.#ranges, this.#theme));
    const row = this.#rows.get(slot);
    row.element.style.top = `${place * this.#rowHeight}px`;
    row.element.setAttribute("aria-posinset", place + 1);
    row.element.setAttribute("aria-setsize", group.shown.length);
    if (this.#visible.has(row)) return;
    this.#visible.add(row);
    group.rows.append(row.element);
    row.show(now);
  }

  #removeRow(row) {
    this.#visible.delete(row);
    row.remove();
  }

  #rowOf(element) {
    return [...this.#visible].find((row) => row.element === element);
  }

  // ---- Keyboard ---------------------------------------------------------------------------------

  // The Tab key stops at one row only; the arrow keys move from there.
  #moveTabStop(target) {
    const element = target.closest(".row");
    for (const row of this.#visible) row.element.tabIndex = row.element === element ? 0 : -1;
  }

  #onKey(event) {
    const row = this.#rowOf(event.target);
    if (!row || !(event.key in steps || event.key === "Enter")) return;
    event.preventDefault();
    if (event.key === "Enter") row.edit();
    else this.#moveFocus(row.slot, steps[event.key]);
  }

  #moveFocus(slot, step) {
    const shown = this.#shown;
    const place = shown.indexOf(slot) + step;
    this.#focusSlot(shown[Math.min(shown.length - 1, Math.max(0, place))]);
  }

  #focusSlot(slot) {
    if (!slot) return;
    const group = this.#groups.find((each) => each.set === slot.set);
    this.#insertRow(group, group.shown.indexOf(slot), clock.now());
    this.#rows.get(slot).element.focus();
  }
}
