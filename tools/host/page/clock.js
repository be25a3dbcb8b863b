// The page's clock. It stands still while nothing arrives from gatewayctl, so that no age and no
// history runs on for values that nobody watches.

class Clock {
  #stoppedAt = null;

  // As performance.now() has it, in milliseconds.
  now() {
    return this.#stoppedAt ?? performance.now();
  }

  get isStopped() {
    return this.#stoppedAt !== null;
  }

  // Stops at a time that may lie in the past: when something last arrived.
  stop(at) {
    this.#stoppedAt ??= at;
  }

  run() {
    this.#stoppedAt = null;
  }
}

export const clock = new Clock();
