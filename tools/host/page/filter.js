// Which slots the table shows: the search field, and the choices of set and state.
import { address } from "./address.js";
import { byId, isTyping, setText } from "./browser.js";
import { setTitle } from "./title.js";

// Puts `counts`, by the buttons' values, on those buttons that show one.
function showCounts(group, counts) {
  for (const button of group.children) {
    const count = button.querySelector("b");
    if (count) setText(count, String(counts[button.dataset.value]));
  }
}

// A group of buttons, of which one is chosen: in the address, and at first "all".
class Choice {
  value = "all";
  #name;
  #buttons;

  constructor(group, name, onChange) {
    this.#name = name;
    this.#buttons = [...group.children];
    group.addEventListener("click", (event) => {
      const chosen = event.target.closest("button");
      if (!chosen) return;
      address.set(name, chosen.dataset.value === "all" ? "" : chosen.dataset.value);
      this.read();
      onChange();
    });
  }

  read() {
    const isWanted = (button) => button.dataset.value === address.get(this.#name);
    const chosen = this.#buttons.find(isWanted) ?? this.#buttons[0];
    this.value = chosen.dataset.value;
    for (const button of this.#buttons) {
      button.setAttribute("aria-pressed", String(button === chosen));
    }
  }
}

const wordsOf = (text) => text.toLowerCase().split(/\s+/).filter(Boolean);

export class Filter {
  #field = byId("filter");
  #words = []; // a slot must match all of them
  #set;
  #state;

  // `onLeave` is called when the keyboard goes from the search field to the rows.
  constructor({ onChange, onLeave }) {
    this.#set = new Choice(byId("sets"), "set", onChange);
    this.#state = new Choice(byId("states"), "state", onChange);
    this.#field.addEventListener("input", () => {
      this.#words = wordsOf(this.#field.value);
      address.set("q", this.#field.value.trim());
      onChange();
    });
    address.onChange(() => this.#read());
    this.#read();
    this.#field.addEventListener("keydown", (event) => this.#onKey(event, onLeave));
    document.addEventListener("keydown", (event) => this.#onAnyKey(event));
  }

  #read() {
    this.#field.value = address.get("q");
    this.#words = wordsOf(this.#field.value);
    this.#set.read();
    this.#state.read();
  }

  matches(slot, now) {
    const [set, state] = [this.#set.value, this.#state.value];
    return (
      (set === "all" || set === slot.set) &&
      this.#words.every((word) => slot.searched.includes(word)) &&
      (state === "all" || state === slot.state(now))
    );
  }

  // Whether a slot can start or stop matching as time passes.
  get dependsOnTime() {
    return this.#state.value !== "all";
  }

  showSetCounts(slots) {
    const counts = { all: slots.length, fast: 0, slow: 0, engine: 0 };
    for (const slot of slots) ++counts[slot.set];
    showCounts(byId("sets"), counts);
  }

  showStateCounts(slots, now) {
    const counts = { changing: 0, stale: 0, unchanged: 0, parameter: 0 };
    for (const slot of slots) ++counts[slot.state(now)];
    setTitle("stale", counts.stale > 0 ? `${counts.stale} stale` : "");
    showCounts(byId("states"), counts);
  }

  #onAnyKey(event) {
    if (event.key !== "/" || event.ctrlKey || event.altKey || event.metaKey) return;
    if (isTyping(event.target) || document.querySelector("dialog[open]")) return;
    event.preventDefault();
    this.#field.select();
    this.#field.focus();
  }

  #onKey(event, onLeave) {
    if (event.key === "ArrowDown" || event.key === "Enter") {
      event.preventDefault();
      onLeave();
    }
    if (event.key !== "Escape") return;
    this.#field.value = "";
    this.#field.dispatchEvent(new Event("input"));
    this.#field.blur();
  }
}
