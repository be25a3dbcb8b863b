// Engine parameters: the controls that change them, and the list of notifications sent.
import { byId, make, setText } from "./browser.js";
import { ask } from "./dialogs.js";
import { clockText, scaleText, withMinus } from "./format.js";

const sentKept = 100;
const textLimit = 99; // bytes that a slot's text can have
const deliveriesKept = 500;

const isTooLong = (text) => new TextEncoder().encode(text).length > textLimit;

// The host takes these as numbers, but no level has such a value.
const isNoLevel = (text) => /^\s*[+-]?(nan|inf|infinity)\s*$/i.test(text);

// What became of notifications, by their numbers.
const deliveries = new Map();

const deliveryTexts = {
  unknown: () => "sent, outcome unknown",
  waiting: () => "waiting",
  answered: () => "answered",
  failed: (reason) => `failed: ${reason}`,
};

// Says in an element what became of a notification, followed by a note. showDeliveries keeps it up
// to date.
function showDelivery(element, number, note = element.dataset.note ?? "") {
  const { state, reason } = deliveries.get(number) ?? { state: "unknown" };
  element.dataset.delivery = number;
  element.dataset.note = note;
  element.classList.toggle("bad", state === "failed");
  setText(element, `#${number} ${deliveryTexts[state](reason)}${note}`);
  element.title = element.textContent;
}

// Takes what has become of notifications: their number, state and reason.
export function showDeliveries(changed) {
  for (const { number, ...delivery } of changed) {
    deliveries.set(number, delivery);
    if (deliveries.size > deliveriesKept) deliveries.delete(deliveries.keys().next().value);
    for (const element of document.querySelectorAll(`[data-delivery="${number}"]`)) {
      showDelivery(element, number);
    }
  }
}

async function postChange(name, value) {
  let response;
  try {
    response = await fetch("/api/set", {
      method: "POST",
      headers: { "Content-Type": "application/json" },
      body: JSON.stringify({ changes: [{ name, value }] }),
    });
  } catch {
    throw new Error("not sent: gatewayctl does not respond");
  }
  const answer = await response.json();
  if (!response.ok) throw new Error(answer.error);
  return answer.notification;
}

// A field for an engine slot's value, a slider for a float, and the outcome of the last change.
export class Control {
  #slot;
  #field = make("input");
  #slider = null;
  #ends = []; // buttons with the slider's lowest and highest value
  #outcome = make("span", "outcome");
  #isEdited = false; // typed into, but not sent yet
  #isSending = false;
  #waiting = null; // text to send after the current request
  #shownValue;
  #shownRange = null;

  // `parts` are the row's elements; `editRange` opens the dialog for the slider's range.
  constructor(slot, parts, editRange) {
    this.#slot = slot;
    this.#addField(parts.value);
    if (slot.isFloat) this.#addSlider(parts.level, editRange);
    this.#outcome.setAttribute("role", "status");
    parts.history.append(this.#outcome);
  }

  #addField(parent) {
    const field = this.#field;
    Object.assign(field, { type: "text", spellcheck: false, autocomplete: "off" });
    if (this.#slot.isNumber) field.inputMode = "decimal";
    field.setAttribute("aria-label", `${this.#slot.name}, value`);
    field.addEventListener("keydown", (event) => {
      if (event.key === "Escape") this.#showValue();
      event.stopPropagation();
      if (event.key !== "Enter") return;
      event.preventDefault(); // or it would answer the question that it may raise
      this.#commit();
    });
    field.addEventListener("input", () => this.#onInput());
    field.addEventListener("change", () => this.#isEdited && this.#commit());
    parent.append(field);
  }

  #addSlider(parent, editRange) {
    const slider = (this.#slider = make("input"));
    slider.type = "range";
    slider.setAttribute("aria-label", this.#slot.name);
    slider.addEventListener("input", () => {
      this.#isEdited = false;
      this.#field.value = slider.value;
      this.#send(slider.value);
    });
    slider.addEventListener("keydown", (event) => event.stopPropagation());
    this.#ends = [this.#makeEnd(editRange), this.#makeEnd(editRange)];
    const box = make("span", "slide");
    box.append(this.#ends[0], slider, this.#ends[1]);
    parent.append(box);
  }

  #makeEnd(editRange) {
    const end = make("button");
    end.type = "button";
    end.title = "Set the range of this slider";
    end.addEventListener("click", editRange);
    return end;
  }

  focus() {
    this.#field.focus();
  }

  // Shows the slot's value, but never over what somebody is typing.
  show() {
    if (this.#slider) this.#showRange();
    const { delivery } = this.#outcome.dataset;
    if (delivery) showDelivery(this.#outcome, Number(delivery));
    if (this.#isEdited || this.#isSending || this.#shownValue === this.#slot.value) return;
    this.#showValue();
  }

  #showValue() {
    this.#isEdited = false;
    this.#shownValue = this.#slot.value;
    this.#field.value = String(this.#slot.value);
    if (this.#slider) this.#slider.value = String(this.#slot.value);
  }

  #showRange() {
    const { range, rule, span, value } = this.#slot;
    if (range === this.#shownRange) return;
    this.#shownRange = range;
    const step = 10 ** Math.floor(Math.log10(span / 100));
    Object.assign(this.#slider, { min: range[0], max: range[1], step });
    this.#slider.value = String(value);
    this.#ends.forEach((end, i) => {
      const which = ["minimum", "maximum"][i];
      setText(end, scaleText(range[i]));
      end.setAttribute("aria-label", `${end.textContent}: ${which} of ${this.#slot.name}'s slider`);
      end.classList.toggle("chosen", rule !== null);
    });
  }

  #onInput() {
    this.#isEdited = true;
    const cuts = this.#cuts(this.#field.value);
    if (cuts) this.#showProblem(`only ${textLimit} bytes of this will be sent`);
  }

  #cuts(text) {
    return !this.#slot.isNumber && isTooLong(text);
  }

  async #commit() {
    const text = this.#field.value;
    this.#isEdited = false;
    if (this.#slot.isFloat && isNoLevel(text) && !(await this.#isSure(text))) {
      this.#showValue();
      return;
    }
    this.#send(text);
  }

  #isSure(text) {
    const question = `${text.trim()} is not a level. Send it as ${this.#slot.name} all the same?`;
    return ask(question, `Send ${text.trim()}`);
  }

  // One request at a time; of the values that arrive in the meantime only the latest is sent.
  async #send(text) {
    this.#waiting = text;
    if (this.#isSending) return;
    this.#isSending = true;
    while (this.#waiting !== null) {
      const value = this.#waiting;
      this.#waiting = null;
      await this.#sendOne(value);
    }
    this.#isSending = false;
    this.show(); // what changed in the meantime
  }

  async #sendOne(value) {
    try {
      const number = await postChange(this.#slot.name, value);
      const cut = this.#cuts(value) ? `, ${textLimit} bytes of it` : "";
      this.#field.setAttribute("aria-invalid", "false");
      showDelivery(this.#outcome, number, cut);
    } catch (error) {
      this.#isEdited = true;
      this.#showProblem(error.message);
    }
  }

  #showProblem(text) {
    setText(this.#outcome, text);
    this.#outcome.title = text;
    delete this.#outcome.dataset.delivery;
    this.#outcome.classList.add("bad");
    this.#field.setAttribute("aria-invalid", "true");
  }
}

function sentElement({ number, time, changes }) {
  const element = make("li");
  const texts = changes.map(({ name, value }) => `${name} ${withMinus(value)}`);
  const outcome = make("span", "outcome");
  showDelivery(outcome, number);
  element.append(
    make("time", "", clockText(time)),
    make("span", "what", texts.join(", ")),
    outcome,
  );
  return element;
}

// The notifications, newest first, and their number at the top of the page.
export class SentList {
  #list = byId("sent");

  load(count, notifications) {
    deliveries.clear();
    this.#list.replaceChildren();
    setText(byId("notification-count"), String(count));
    this.add(notifications);
  }

  add(notifications) {
    for (const notification of notifications) {
      const { number, delivery } = notification;
      showDeliveries([{ number, ...delivery }]);
      this.#list.prepend(sentElement(notification));
      setText(byId("notification-count"), String(notification.number));
    }
    while (this.#list.childElementCount > sentKept) this.#list.lastElementChild.remove();
  }
}
