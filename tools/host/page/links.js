// The module's links to its servers: for each, the state in words and as a colour.
import { byId, setText } from "./browser.js";
import { setTitle } from "./title.js";

// States in which the title of the tab says that something is wrong.
const bad = {
  "no-server": "no server",
  waiting: "stream over",
  silent: "silent",
  failing: "calls failing",
};

// `links` as /api/status gives them.
export function showLinks(links) {
  for (const { link, state, words, attempts, messages, succeeded, failed } of links) {
    const element = byId(`link-${link}`);
    if (element.dataset.state !== state) element.dataset.state = state;
    setText(element.querySelector(".words"), words);
    element.title =
      `${attempts} calls started, ${succeeded} succeeded, ${failed} failed; ` +
      `${messages} messages received`;
  }
  const worst = Object.keys(bad).find((state) => links.some((link) => link.state === state));
  setTitle("servers", worst ? bad[worst] : "");
}
