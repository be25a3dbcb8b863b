// The title of the browser's tab, for people who look at other tabs: what is wrong goes first.

// In the order shown.
const parts = { link: "", pause: "", servers: "", stale: "", name: "gateway" };
let shown = "";

export function setTitle(part, text) {
  parts[part] = text;
  const title = Object.values(parts).filter(Boolean).join(" · ");
  if (title !== shown) document.title = shown = title;
}
