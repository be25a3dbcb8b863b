// The histories that gatewayctl keeps: what happened before this page was opened, or while it did
// not listen.
import { clock } from "./clock.js";
import { numberFrom } from "./format.js";

const slotsPerRequest = 100;
const rowSeconds = 30; // as much as a row shows
const collectFor = 100; // milliseconds, in which rows that appear together share a request

// Returns a promise of the histories of slots for the last `seconds`, in the same order. Times are
// those of the page's clock: {times, last, low, high, period, gaps, askedAt}.
export async function fetchHistories(slots, seconds) {
  const places = slots.map((slot) => slot.index).join();
  const response = await fetch(`/api/history?slots=${places}&seconds=${seconds}`);
  const askedAt = clock.linkNow();
  const answer = await response.json();
  if (!response.ok) throw new Error(answer.error);
  const onPage = (time) => askedAt - (answer.time - time) * 1000;
  const gaps = answer.gaps.map((gap) => gap.map(onPage));
  return answer.slots.map(({ set, name, times, last, low, high, period }, i) => {
    // By now the module may have other slots; a new snapshot is on its way then.
    if (`${set}/${name}` !== slots[i].id) throw new Error("the slots have changed");
    const numbers = [last, low, high].map((values) => values.map(numberFrom));
    return {
      times: times.map(onPage),
      last: numbers[0], low: numbers[1], high: numbers[2],
      period: period * 1000, gaps, askedAt,
    };
  });
}

// Fills the histories of the rows that people see, each once until `forget`.
export class Past {
  #known = new WeakSet();
  #wanted = [];

  want(slot) {
    if (this.#known.has(slot) || clock.isStopped) return;
    this.#known.add(slot);
    this.#wanted.push(slot);
    if (this.#wanted.length === 1) setTimeout(() => this.#ask(), collectFor);
  }

  // Call this when the page has missed something.
  forget() {
    this.#known = new WeakSet();
  }

  async #ask() {
    const wanted = this.#wanted.splice(0);
    for (let i = 0; i < wanted.length; i += slotsPerRequest) {
      const slots = wanted.slice(i, i + slotsPerRequest);
      try {
        const histories = await fetchHistories(slots, rowSeconds);
        slots.forEach((slot, place) => slot.takePast(histories[place]));
      } catch {
        return; // gatewayctl has gone: the rows show what the page has seen
      }
    }
  }
}
