// The top of the page: what runs, for how long, and how much changes.
import { byId, setText } from "./browser.js";
import { clock } from "./clock.js";
import { countText, rateText, uptimeText } from "./format.js";
import { setTitle } from "./title.js";

const ratePeriod = 1000; // milliseconds

export class Status {
  #startedAt = 0; // by the page's clock
  #changes = 0;
  #counted = { changes: 0, at: 0 }; // when the rate was last shown

  // Takes the status of a snapshot.
  load(status, now) {
    this.#startedAt = now - status.uptime * 1000;
    this.#changes = status.changes;
    this.#counted = { changes: status.changes, at: now };
    setTitle("name", status.name);
    setText(byId("module-name"), status.name);
    // The style sheet cuts a long path off on its left, where it says least. The mark keeps a
    // leading slash in its place.
    setText(byId("config"), `\u200e${status.config}`);
    byId("config").title = `${status.config}\nModule: ${status.module}\nVersion ${status.version}`;
    setText(byId("meters-target"), status.targets.meters || "off");
    setText(byId("engine-target"), status.targets.engine || "off");
  }

  // The number of changes since the start.
  setChanges(changes) {
    this.#changes = changes;
  }

  tick(now) {
    setText(byId("changes"), countText(this.#changes));
    setText(byId("uptime"), uptimeText((now - this.#startedAt) / 1000));
    if (clock.isStopped) setText(byId("change-rate"), "–");
    const elapsed = now - this.#counted.at;
    if (elapsed < ratePeriod) return;
    const rate = ((this.#changes - this.#counted.changes) * 1000) / elapsed;
    setText(byId("change-rate"), rateText(rate));
    this.#counted = { changes: this.#changes, at: now };
  }
}
