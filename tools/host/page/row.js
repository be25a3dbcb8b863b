// One row of the table: a slot's value, level, history and age. It touches only those parts of the
// document that have changed.
import { byId, make, setText } from "./browser.js";
import { ageText, clockText, countText, numberText, scaleText } from "./format.js";
import { Sparkline } from "./history.js";
import { Control } from "./parameters.js";

// A float's level in its range, with a mark for the peak hold. A click opens the range's dialog.
// Its button covers the bar, because screen readers don't see a meter within a button.
class Bar {
  #slot;
  #button = make("button");
  #low = make("span", "end");
  #high = make("span", "end");
  #track = make("span", "track");
  #fill = make("span", "fill");
  #hold = make("span", "hold");
  #shown = {};
  #level = -Infinity; // as last shown, at this time
  #levelTime = 0;

  constructor(slot, parent, editRange) {
    this.#slot = slot;
    this.#button.type = "button";
    this.#button.tabIndex = -1;
    this.#button.title = "Set the range of this bar";
    this.#button.addEventListener("click", editRange);
    this.#track.append(this.#fill, this.#hold);
    this.#track.setAttribute("role", "meter");
    this.#track.setAttribute("aria-label", slot.name);
    this.#track.setAttribute("aria-valuemin", 0);
    this.#track.setAttribute("aria-valuemax", 100);
    for (const end of [this.#low, this.#high]) end.setAttribute("aria-hidden", "true");
    const scale = make("span", "scale");
    scale.append(this.#low, this.#track, this.#high, this.#button);
    parent.append(scale);
  }

  // Returns whether the bar is still falling.
  show(now) {
    const { hasChanged, value, hold } = this.#slot;
    this.#showRange();
    const level = hasChanged ? this.#levelAt(now) : value;
    this.#showLevel(hasChanged ? this.#slot.place(level) : 0);
    this.#showHold(hasChanged ? this.#slot.place(hold) : 0);
    return level !== value;
  }

  // The value, or above it while the bar is still falling at the chosen rate.
  #levelAt(now) {
    const { value, rule } = this.#slot;
    if (typeof value !== "number" || !rule?.fall) return value;
    const fallen = this.#level - (rule.fall * (now - this.#levelTime)) / 1000;
    this.#level = Math.max(value, Math.min(fallen, rule.high));
    this.#levelTime = now;
    return this.#level;
  }

  #showLevel(place) {
    if (place === this.#shown.level) return;
    this.#shown.level = place;
    // With zones, the fill covers what the level does not reach of the coloured track.
    const part = this.#hasZones ? 1 - place : place;
    this.#fill.style.transform = `scaleX(${part.toFixed(4)})`;
  }

  #showHold(place) {
    if (place === this.#shown.hold) return;
    this.#shown.hold = place;
    this.#hold.style.transform = `translateX(${(place * 100).toFixed(2)}%)`;
  }

  #showRange() {
    const { name, range, rule } = this.#slot;
    if (range === this.#shown.range) return;
    this.#shown = { range };
    this.#showZones();
    const [low, high] = range;
    setText(this.#low, scaleText(low));
    setText(this.#high, scaleText(high));
    this.#button.parentNode.classList.toggle("chosen", rule !== null);
    this.#button.setAttribute("aria-label", `${name}: range ${low} to ${high}`);
  }

  get #hasZones() {
    const { rule } = this.#slot;
    return rule !== null && (rule.warn !== null || rule.bad !== null);
  }

  #showZones() {
    this.#track.classList.toggle("zones", this.#hasZones);
    if (!this.#hasZones) return;
    const { warn, bad } = this.#slot.rule;
    const red = bad === null ? 1 : this.#slot.place(bad);
    const amber = warn === null ? red : Math.min(red, this.#slot.place(warn));
    this.#track.style.setProperty("--amber", `${amber * 100}%`);
    this.#track.style.setProperty("--red", `${red * 100}%`);
  }

  // Sets the meter's value here only, so that screen readers need not follow every change. It is in
  // percent, because the standard knows no exponents; the text says what is measured.
  tick(now) {
    this.#slot.releaseHold(now);
    this.show(now);
    const { value, valueText } = this.#slot;
    this.#track.setAttribute("aria-valuenow", Math.round(this.#slot.place(value) * 100));
    this.#track.setAttribute("aria-valuetext", valueText);
  }
}

// The highest value, red once it has clipped. A click resets it.
class Maximum {
  #slot;
  #button = make("button");

  constructor(slot, parent) {
    this.#slot = slot;
    this.#button.type = "button";
    this.#button.tabIndex = -1;
    this.#button.addEventListener("click", () => {
      slot.resetMaximum();
      this.show();
    });
    parent.append(this.#button);
  }

  show() {
    const { maximum, maximumSince, isClipped, span } = this.#slot;
    const text = maximum === -Infinity ? "" : numberText(maximum, span);
    setText(this.#button, text);
    this.#button.hidden = text === "";
    this.#button.classList.toggle("clipped", isClipped);
    const since = clockText((performance.timeOrigin + maximumSince) / 1000);
    const title = `${isClipped ? "Clipped. " : ""}Highest sample since ${since}. Click to reset.`;
    if (this.#button.title !== title) this.#button.title = title;
  }
}

export class Row {
  #parts = {}; // child elements by their class
  #text = document.createTextNode("");
  #bar = null;
  #maximum = null;
  #control = null;
  #sparkline = null;
  #theme;
  #past;
  #editRange;

  // `pin` pins the slot, or undoes it; `plot` and `past` show more of its history.
  constructor(slot, { settings, theme, pin, plot, past }) {
    this.slot = slot;
    this.element = byId("row-template").content.firstElementChild.cloneNode(true);
    this.#theme = theme;
    this.#past = past;
    this.#editRange = () => settings.edit(slot);
    Object.assign(this.element.dataset, { set: slot.set, type: slot.type, name: slot.name });
    for (const part of this.element.children) this.#parts[part.className] = part;
    for (const part of ["name", "type", "key"]) setText(this.#parts[part], slot[part]);
    this.#parts.pin.addEventListener("click", pin);
    this.#addValue();
    if (!slot.isParameter && slot.isNumber) this.#addHistoryButton(plot);
  }

  #addHistoryButton(plot) {
    const button = make("button");
    button.type = "button";
    button.tabIndex = -1;
    button.title = "Show ten minutes";
    button.setAttribute("aria-label", `${this.slot.name}: history`);
    button.addEventListener("click", () => plot.open(this.slot));
    this.#parts.history.append(button);
  }

  #addValue() {
    const { slot } = this;
    if (slot.isParameter) this.#control = new Control(slot, this.#parts, this.#editRange);
    else this.#parts.value.append(this.#text);
    if (!slot.isParameter && slot.isFloat) {
      this.#bar = new Bar(slot, this.#parts.level, this.#editRange);
      this.#maximum = new Maximum(slot, this.#parts.max);
    }
  }

  show(now) {
    this.#showPin();
    this.showValue(now);
    this.tick(now);
  }

  #showPin() {
    const { pin } = this.#parts;
    const { isPinned, name } = this.slot;
    pin.setAttribute("aria-pressed", String(isPinned));
    pin.setAttribute("aria-label", `Pin ${name}`);
    pin.title = isPinned ? "Unpin" : "Pin to the top";
  }

  // Returns whether the row has something to show in the next frame, too.
  showValue(now) {
    this.#showState(now);
    const text = this.slot.valueText;
    if (this.#control) this.#control.show();
    else if (this.#text.data !== text) this.#text.data = text;
    return this.#bar?.show(now) ?? false;
  }

  #showState(now) {
    const state = this.slot.state(now);
    if (this.element.dataset.state !== state) this.element.dataset.state = state;
  }

  // Shows what time alone changes.
  tick(now) {
    const { slot } = this;
    this.#showState(now);
    setText(this.#parts.age, this.#ageText(now));
    setText(this.#parts.changes, countText(slot.changes));
    if (slot.isParameter) return;
    if (slot.history) this.#drawHistory(now);
    this.#bar?.tick(now);
    this.#maximum?.show();
  }

  // Nobody measures a parameter, so one that has not changed has only not been set.
  #ageText(now) {
    const { hasChanged, changedAt, isParameter } = this.slot;
    if (hasChanged) return ageText(now - changedAt);
    return isParameter ? "not set" : "unchanged";
  }

  #drawHistory(now) {
    const { slot } = this;
    const { live, dim } = this.#theme.colours;
    this.#past.want(slot);
    slot.history.advance(now);
    this.#sparkline ??= new Sparkline(this.#parts.history);
    this.#sparkline.draw(
      slot.history,
      (value) => slot.placeInHistory(value),
      `${slot.historyScale} ${slot.historyRange}`,
      slot.state(now) === "changing" ? live : dim,
    );
  }

  // What the Enter key does.
  edit() {
    if (this.#control) this.#control.focus();
    else if (this.#bar) this.#editRange();
  }

  // Takes the row out of the document, to be put back later.
  remove() {
    this.element.remove();
    this.#sparkline?.release();
    this.#sparkline = null;
  }
}
