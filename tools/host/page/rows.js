// The rows in the document. Only slots near the view have one there, so that the browser's work is
// the same for any number of slots. The order in the document is that on the screen, so that the
// Tab key goes where the eye expects.
import { byId } from "./browser.js";
import { clock } from "./clock.js";

const overscan = 12; // rows above and below the view

export class Rows {
  #make; // makes the row of a slot
  #rows = new Map(); // by slot, as far as made
  #visible = new Set(); // rows that are in the document
  #height = 0; // of a row, in pixels
  #tabStop = null; // the slot whose row had the focus last

  constructor(make) {
    this.#make = make;
  }

  clear() {
    for (const row of this.#visible) this.#remove(row);
    this.#rows.clear();
  }

  get visible() {
    return this.#visible;
  }

  // The slot's row, if it is in the document.
  shown(slot) {
    const row = this.#rows.get(slot);
    return this.#visible.has(row) ? row : null;
  }

  rowAt(element) {
    const found = element.closest?.(".row");
    return [...this.#visible].find((row) => row.element === found) ?? null;
  }

  // Shows the rows near the view, and `alsoSlot`'s. A group has the element `rows` and, in the
  // order on the screen, the slots `shown`.
  place(groups, alsoSlot = null) {
    const style = getComputedStyle(document.documentElement);
    this.#height = parseFloat(style.getPropertyValue("--row"));
    for (const { rows, shown } of groups) rows.style.height = `${shown.length * this.#height}px`;
    const kept = [alsoSlot, this.rowAt(document.activeElement)?.slot];
    const near = groups.map((group) => [group, this.#placesNear(group, kept)]);
    const staying = new Set(near.flatMap(([{ shown }, places]) => places.map((i) => shown[i])));
    for (const row of this.#visible) if (!staying.has(row.slot)) this.#remove(row);
    for (const [group, places] of near) this.#arrange(group, places);
    this.#moveTabStop();
  }

  // The places in a group that need a row, in order: those near the view, and those of kept slots.
  #placesNear({ rows, shown }, kept) {
    const { top } = rows.getBoundingClientRect();
    const first = Math.max(0, Math.floor(-top / this.#height) - overscan);
    const end = Math.ceil((window.innerHeight - top) / this.#height) + overscan;
    const places = [];
    for (let i = first; i < Math.min(shown.length, end); ++i) places.push(i);
    for (const slot of new Set(kept)) {
      const place = slot ? shown.indexOf(slot) : -1;
      if (place >= 0 && (place < first || place >= end)) places.push(place);
    }
    return places.sort((a, b) => a - b);
  }

  // Moves rows around the one with the focus, which would lose it by being moved.
  #arrange({ rows, shown }, places) {
    const now = clock.now();
    const elements = places.map((place) => this.#prepare(shown[place], place, shown.length));
    const focused = elements.findIndex(
      (each) => each.parentNode === rows && each.contains(document.activeElement),
    );
    const anchor = focused < 0 ? elements.length : focused;
    for (let i = anchor - 1; i >= 0; --i) {
      const next = elements[i + 1] ?? null;
      const isInPlace = elements[i].parentNode === rows && elements[i].nextElementSibling === next;
      if (!isInPlace) rows.insertBefore(elements[i], next);
    }
    for (let i = anchor + 1; i < elements.length; ++i) {
      if (elements[i - 1].nextElementSibling !== elements[i]) elements[i - 1].after(elements[i]);
    }
    for (const place of places) this.#show(this.#rows.get(shown[place]), now);
  }

  #prepare(slot, place, count) {
    if (!this.#rows.has(slot)) this.#rows.set(slot, this.#make(slot));
    const { element } = this.#rows.get(slot);
    element.style.top = `${place * this.#height}px`;
    element.setAttribute("aria-posinset", place + 1);
    element.setAttribute("aria-setsize", count);
    return element;
  }

  #show(row, now) {
    if (this.#visible.has(row)) return;
    this.#visible.add(row);
    row.show(now);
  }

  #remove(row) {
    this.#visible.delete(row);
    row.remove();
  }

  // The Tab key stops at one row only; the arrow keys move from there.
  setTabStop(slot) {
    this.#tabStop = slot;
    this.#moveTabStop();
  }

  // The first row takes the place of one that is not in the document.
  #moveTabStop() {
    const stop = this.shown(this.#tabStop)?.element ?? byId("groups").querySelector(".row");
    for (const { element } of this.#visible) element.tabIndex = element === stop ? 0 : -1;
  }
}
