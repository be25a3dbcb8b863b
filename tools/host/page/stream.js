// The event stream that all tabs of a browser share, with the part of EventSource that the page
// needs. A browser without shared workers gets a stream of its own.

let port = null; // to the worker; once made, for as long as the tab lives

function connectToWorker() {
  port = new SharedWorker("/worker.js").port;
  port.start();
  // The worker can't notice that a tab has gone.
  window.addEventListener("pagehide", () => port.postMessage("close"));
}

class SharedStream extends EventTarget {
  readyState = EventSource.CONNECTING;
  #listener = ({ data }) => this.#receive(data);

  constructor() {
    super();
    if (!port) connectToWorker();
    port.addEventListener("message", this.#listener);
    port.postMessage("open");
  }

  close() {
    this.readyState = EventSource.CLOSED;
    port.removeEventListener("message", this.#listener);
    port.postMessage("close");
  }

  #receive({ name, data, isClosed }) {
    if (name !== "error") this.readyState = EventSource.OPEN;
    else this.readyState = isClosed ? EventSource.CLOSED : EventSource.CONNECTING;
    if (isClosed) port.removeEventListener("message", this.#listener);
    this.dispatchEvent(new MessageEvent(name, { data }));
  }
}

export function openStream() {
  return "SharedWorker" in window ? new SharedStream() : new EventSource("/api/events");
}
