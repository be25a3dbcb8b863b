// Which slots the table shows: the search field, and the choices of set and state.
import { byId, setText } from "./browser.js";
import { setTitle } from "./title.js";

// Puts `counts`, by the buttons' values, on those buttons that show one.
function showCounts(group, counts) {
  for (const button of group.children) {
    const count = button.querySelector("b");
    if (count) setText(count, String(counts[button.dataset.value]));
  }
}

// One of a group's buttons is chosen.
function onChoice(group, use) {
  group.addEventListener("click", (event) => {
    const chosen = event.target.closest("button");
    if (!chosen) return;
    for (const button of group.children) {
      button.setAttribute("aria-pressed", String(button === chosen));
    }
    use(chosen.dataset.value);
  });
}

const isTyping = (target) => target.matches("input, textarea, select");

export class Filter {
  #field = byId("filter");
  #text = "";
  #set = "all";
  #state = "all";

  // `onLeave` is called when the keyboard goes from the search field to the rows.
  constructor({ onChange, onLeave }) {
    onChoice(byId("sets"), (set) => {
      this.#set = set;
      onChange();
    });
    onChoice(byId("states"), (state) => {
      this.#state = state;
      onChange();
    });
    this.#field.addEventListener("input", () => {
      this.#text = this.#field.value.trim().toLowerCase();
      onChange();
    });
    this.#field.addEventListener("keydown", (event) => this.#onKey(event, onLeave));
    document.addEventListener("keydown", (event) => this.#onAnyKey(event));
  }

  matches(slot, now) {
    return (
      (this.#set === "all" || this.#set === slot.set) &&
      (this.#text === "" || slot.searched.includes(this.#text)) &&
      (this.#state === "all" || this.#state === slot.state(now))
    );
  }

  // Whether a slot can start or stop matching as time passes.
  get dependsOnTime() {
    return this.#state !== "all";
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
