// The module's log: its latest lines, their counts by level, and the buttons above them.
import { byId, make, setText } from "./browser.js";
import { clockText, preciseClockText } from "./format.js";

const linesKept = 1000;
const linesPerFrame = 200; // so that a flood of lines does not hold up a frame
const levelNames = ["", "trace", "network", "fault", "error"];
const nearEnd = 24; // pixels

function lineElement({ time, level, text, file, line }) {
  const element = make("li");
  element.dataset.level = level;
  const source = make("span", "source", ` ${file.slice(file.lastIndexOf("/") + 1)}:${line}`);
  source.title = `${file}:${line}`;
  element.append(
    make("time", "", preciseClockText(time)),
    make("span", "badge", levelNames[level] ?? String(level)),
    make("span", "text", text),
    source,
  );
  return element;
}

export class Log {
  #list = byId("log");
  #counts = [0, 0, 0, 0, 0]; // by level
  #pending = []; // functions that make the elements of lines to be shown
  #isPaused = false;
  #follows = true;

  constructor(requestFrame) {
    byId("levels").addEventListener("click", (event) => this.#toggleLevel(event));
    byId("follow").addEventListener("click", () => this.#setFollow(!this.#follows));
    byId("pause").addEventListener("click", () => {
      this.#togglePause();
      requestFrame();
    });
    this.#list.addEventListener("scroll", () => this.#onScroll());
  }

  // Takes the lines of a snapshot. After a restart of gatewayctl, the former lines stay, above a
  // line that says when; otherwise `restartTime` is null.
  load(lines, restartTime) {
    this.#counts.fill(0);
    this.#pending = [];
    if (restartTime === null) this.#list.replaceChildren();
    else this.#addRestart(restartTime);
    this.add(lines);
  }

  #addRestart(time) {
    const text = `gatewayctl restarted at ${clockText(time)}.`;
    this.#pending.push(() => make("li", "restart", text));
  }

  add(lines) {
    for (const { level } of lines) ++this.#counts[Math.min(4, Math.max(1, level))];
    for (const line of lines) this.#pending.push(() => lineElement(line));
    if (this.#pending.length > linesKept) this.#pending = this.#pending.slice(-linesKept);
  }

  // Shows pending lines, as many as fit into a frame; true if there are more.
  show() {
    if (this.#isPaused) {
      const count = this.#pending.length;
      setText(byId("pause"), count > 0 ? `Resume (${count})` : "Resume");
      return false;
    }
    if (this.#pending.length === 0) return false;
    const lines = this.#pending.splice(0, linesPerFrame);
    this.#list.append(...lines.map((makeLine) => makeLine()));
    while (this.#list.childElementCount > linesKept) this.#list.firstElementChild.remove();
    this.#scrollToEnd();
    return this.#pending.length > 0;
  }

  showCounts() {
    for (const button of byId("levels").children) {
      setText(button.querySelector("b"), String(this.#counts[Number(button.dataset.level)]));
    }
  }

  #toggleLevel(event) {
    const button = event.target.closest("button");
    if (!button) return;
    const isShown = button.getAttribute("aria-pressed") !== "true";
    button.setAttribute("aria-pressed", String(isShown));
    this.#list.classList.toggle(`without${button.dataset.level}`, !isShown);
    this.#scrollToEnd();
  }

  #togglePause() {
    this.#isPaused = !this.#isPaused;
    byId("pause").setAttribute("aria-pressed", String(this.#isPaused));
    setText(byId("pause"), this.#isPaused ? "Resume" : "Pause");
  }

  #setFollow(follows) {
    this.#follows = follows;
    byId("follow").setAttribute("aria-pressed", String(follows));
    this.#scrollToEnd();
  }

  #scrollToEnd() {
    if (this.#follows) this.#list.scrollTop = this.#list.scrollHeight;
  }

  // Scrolling up stops following, and scrolling to the end resumes it.
  #onScroll() {
    const { scrollHeight, scrollTop, clientHeight } = this.#list;
    const isAtEnd = scrollHeight - scrollTop - clientHeight < nearEnd;
    if (isAtEnd !== this.#follows) this.#setFollow(isAtEnd);
  }
}
