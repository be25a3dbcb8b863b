// The stream of events from gatewayctl, and the state of the connection at the top of the page.
import { byId, setText } from "./browser.js";
import { clock } from "./clock.js";
import { clockText } from "./format.js";
import { openStream } from "./stream.js";
import { setTitle } from "./title.js";

const silenceLimit = 3000; // milliseconds; gatewayctl sends something every second
const checkPeriod = 250;
const retryAfter = 1000;

// Why the server refuses the stream; empty if it doesn't, or does not answer.
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

export class Link {
  #stream = null;
  #heardAt = performance.now(); // when something last arrived
  #triedAt = 0; // when the stream was last opened
  #isLost = false;
  #end = ""; // what gatewayctl said when it stopped
  #handlers;

  // `handlers` take the data of events, by the events' names.
  constructor(handlers) {
    this.#handlers = handlers;
    this.#connect();
    setInterval(() => this.#checkSilence(), checkPeriod);
  }

  #connect() {
    this.#stream?.close();
    this.#triedAt = performance.now();
    this.#stream = openStream();
    for (const [name, handle] of Object.entries(this.#handlers)) {
      this.#stream.addEventListener(name, (event) => this.#receive(event, handle));
    }
    this.#stream.addEventListener("stopped", (event) => this.#onStopped(JSON.parse(event.data)));
    this.#stream.addEventListener("error", () => this.#onError());
  }

  #receive(event, handle) {
    this.#heardAt = performance.now();
    this.#end = "";
    this.#isLost = false;
    clock.run();
    this.#show("live", "page connected");
    handle(JSON.parse(event.data));
  }

  #checkSilence() {
    const now = performance.now();
    if (!this.#stream || (!this.#isLost && now - this.#heardAt <= silenceLimit)) return;
    this.#showSilence();
    if (now - this.#triedAt > silenceLimit) this.#connect();
  }

  #onStopped({ time }) {
    this.#end = `stopped at ${clockText(time)}`;
    this.#showLost("");
  }

  // The browser reconnects by itself, except after an answer that refuses the stream.
  async #onError() {
    this.#showSilence();
    if (this.#stream.readyState !== EventSource.CLOSED) {
      this.#triedAt = performance.now();
      return;
    }
    this.#stream = null;
    const reason = await refusal();
    if (reason) this.#showLost(`refused: ${reason}`);
    setTimeout(() => this.#connect(), retryAfter);
  }

  #showSilence() {
    const seconds = Math.floor((performance.now() - this.#heardAt) / 1000);
    this.#showLost(`page lost: nothing from gatewayctl for ${seconds} s`);
  }

  #showLost(text) {
    this.#isLost = true;
    clock.stop(this.#heardAt);
    this.#show(this.#end ? "stopped" : "lost", this.#end || text);
  }

  #show(state, text) {
    byId("connection").dataset.state = state;
    document.body.dataset.page = state;
    setText(byId("connection"), text);
    setTitle("link", state === "live" ? "" : text);
  }
}
