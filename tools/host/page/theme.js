// The colour theme: dark, light or the system's. The browser remembers the choice.
import { byId, make, setText, storage } from "./browser.js";

const themes = ["system", "dark", "light"];
const root = document.documentElement;

export class Theme {
  // What canvases are drawn with, since they can't refer to the style sheet's variables.
  colours = {};

  constructor() {
    byId("theme").addEventListener("click", () => this.#advance());
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => this.#read());
    this.#choose(themes.find((theme) => theme === storage.get("theme")) ?? "system");
  }

  #advance() {
    this.#choose(themes[(themes.indexOf(root.dataset.theme) + 1) % themes.length]);
  }

  #choose(theme) {
    storage.set("theme", theme === "system" ? null : theme);
    root.dataset.theme = theme;
    setText(byId("theme"), `Theme: ${theme}`);
    this.#read();
  }

  // A variable holds the colours of both schemes; only an element's style has the one in use.
  #read() {
    const style = getComputedStyle(root);
    const probe = make("i");
    document.body.append(probe);
    const read = (name) => {
      probe.style.color = style.getPropertyValue(name);
      return getComputedStyle(probe).color;
    };
    this.colours = {
      live: read("--bar"),
      dim: read("--edge"),
      text: read("--dim"),
      grid: read("--line"),
      band: read("--band"),
    };
    probe.remove();
  }
}
