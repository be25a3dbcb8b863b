// The live page: the link's events go to the parts of the page, and frames show what changed.
//
// Imports go one way only; tests/style/style_test.cpp has the order.
import { clock } from "./clock.js";
import "./tooltips.js";
import { Link } from "./link.js";
import { showLinks } from "./links.js";
import { Log } from "./log.js";
import { SentList, showDeliveries } from "./parameters.js";
import { Past } from "./past.js";
import { Plot } from "./plot.js";
import { Settings } from "./settings.js";
import { Status } from "./status.js";
import { Table } from "./table.js";
import { Theme } from "./theme.js";

const tickPeriod = 250; // milliseconds, of ages, histories and counts

class Page {
  #instance = ""; // which run of gatewayctl the page shows
  #isFrameRequested = false;
  #isTickDue = false;
  #status = new Status();
  #settings = new Settings();
  #theme = new Theme();
  #plot = new Plot(this.#theme);
  #table = new Table({
    settings: this.#settings,
    theme: this.#theme,
    plot: this.#plot,
    past: new Past(),
  });
  #sent = new SentList();
  #log = new Log(() => this.#requestFrame());

  constructor() {
    setInterval(() => {
      this.#isTickDue = true;
      this.#requestFrame();
    }, tickPeriod);
    new Link({
      snapshot: (snapshot) => this.#load(snapshot),
      update: (update) => this.#update(update),
    });
  }

  // Takes a whole snapshot. One comes at the start and after each reconnection.
  #load({ instance, status, slots, log, notifications }) {
    if (clock.isPaused) this.#table.resume();
    const now = clock.now();
    const isRestart = this.#instance !== "" && this.#instance !== instance;
    this.#instance = instance;
    this.#status.load(status, clock.linkNow());
    showLinks(status.links);
    this.#log.load(log, isRestart ? status.startTime : null);
    this.#sent.load(status.notifications, notifications);
    this.#settings.load(status.name);
    this.#table.load(slots, isRestart, now);
    this.#requestFrame();
  }

  // Takes an update, which has only those members that changed.
  #update({ slots = [], changes, log = [], notifications = [], deliveries = [], links }) {
    const now = clock.now();
    for (const [index, value] of slots) this.#table.change(index, value, now);
    if (changes !== undefined) this.#status.setChanges(changes);
    this.#log.add(log);
    this.#sent.add(notifications);
    showDeliveries(deliveries);
    if (links !== undefined) showLinks(links);
    this.#requestFrame();
  }

  #requestFrame() {
    if (this.#isFrameRequested) return;
    this.#isFrameRequested = true;
    requestAnimationFrame(() => this.#showFrame(clock.now()));
  }

  #showFrame(now) {
    this.#isFrameRequested = false;
    if (this.#table.showChanges(now)) this.#requestFrame();
    if (this.#isTickDue) this.#tick(now);
    if (this.#log.show()) this.#requestFrame();
  }

  #tick(now) {
    this.#isTickDue = false;
    this.#table.tick(now);
    this.#plot.tick(now);
    this.#log.showCounts();
    this.#status.tick(clock.linkNow());
  }
}

// The cookie holds the token by now. Keep it out of the address bar and the browser's history.
if (location.search.includes("token=")) history.replaceState(null, "", `/${location.hash}`);
new Page();
