// The page's clock. It stands still while nothing arrives from gatewayctl, so that no age and no
// history runs on for values that nobody watches.

class Clock {
  #stoppedAt = null;
  #pausedAt = null;

  // The time of the values shown, as performance.now() has it, in milliseconds.
  now() {
    return this.#pausedAt ?? this.linkNow();
  }

  // The same, but for pauses.
  linkNow() {
    return this.#stoppedAt ?? performance.now();
  }

  get isStopped() {
    return this.#stoppedAt !== null;
  }

  get isPaused() {
    return this.#pausedAt !== null;
  }

  get isRunning() {
    return !this.isStopped && !this.isPaused;
  }

  // Somebody wants to look at the values as they are.
  pause() {
    this.#pausedAt = this.linkNow();
  }

  resume() {
    this.#pausedAt = null;
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
