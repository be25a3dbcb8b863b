// What the page shows, kept in the address after its "#": a bookmark, a reload or somebody else's
// browser shows the same. The server never sees this part of an address.

const writeAfter = 200; // milliseconds; browsers limit how often an address may change

class Address {
  #parameters = new URLSearchParams(location.hash.slice(1));
  #isWriting = false;
  #known = location.hash; // as last written or read

  constructor() {
    window.addEventListener("hashchange", () => {
      this.#known = location.hash;
      this.#parameters = new URLSearchParams(location.hash.slice(1));
    });
  }

  get(name) {
    return this.#parameters.get(name) ?? "";
  }

  getAll(name) {
    return this.#parameters.getAll(name);
  }

  // Takes a text or an array of texts. An empty one leaves the address.
  set(name, value) {
    this.#parameters.delete(name);
    for (const each of [value].flat().filter(Boolean)) this.#parameters.append(name, each);
    if (this.#isWriting) return;
    this.#isWriting = true;
    setTimeout(() => this.#write(), writeAfter);
  }

  // Calls `use` when somebody edits the address.
  onChange(use) {
    window.addEventListener("hashchange", use);
  }

  #write() {
    this.#isWriting = false;
    // Somebody has edited the address, and the event that says so is on its way.
    if (location.hash !== this.#known) return;
    const text = this.#parameters.toString().replaceAll("%2F", "/").replaceAll("%3A", ":");
    history.replaceState(null, "", text ? `#${text}` : location.pathname);
    this.#known = location.hash;
  }
}

export const address = new Address();
