// The title of the browser's tab, for people who look at other tabs: what is wrong goes first.

const parts = { link: "", pause: "", servers: "", stale: "", name: "gateway" }; // in the order shown
let shown = "";

export function setTitle(part, text) {
  parts[part] = text;
  const title = Object.values(parts).filter(Boolean).join(" · ");
  if (title !== shown) document.title = shown = title;
}
