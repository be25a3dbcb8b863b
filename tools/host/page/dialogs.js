// The list of keys, and the question before something unusual is sent.
import { byId, isTyping } from "./browser.js";

const help = byId("help-dialog");
const question = byId("question-dialog");

byId("help").addEventListener("click", () => help.showModal());
document.addEventListener("keydown", (event) => {
  if (event.key !== "?" || isTyping(event.target) || document.querySelector("dialog[open]")) return;
  event.preventDefault();
  help.showModal();
});

// Asks whether to do it; returns a promise of the answer.
export function ask(text, action) {
  byId("question-text").textContent = text;
  byId("question-yes").textContent = action;
  question.returnValue = "";
  question.showModal();
  return new Promise((resolve) => {
    question.addEventListener("close", () => resolve(question.returnValue === "yes"), {
      once: true,
    });
  });
}
