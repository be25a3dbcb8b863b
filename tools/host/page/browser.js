// Short forms of what every part of the page needs from the browser: elements and storage.

export const byId = (id) => document.getElementById(id);

export function make(tag, className, text = "") {
  const element = document.createElement(tag);
  if (className) element.className = className;
  if (text) element.textContent = text;
  return element;
}

// Writes only what differs, so that the browser has nothing to redraw where nothing changed.
export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

export const isTyping = (target) => target.matches("input, textarea, select");

// Has the browser save a text as a file.
export function download(name, text, type) {
  const link = make("a");
  link.href = URL.createObjectURL(new Blob([text], { type }));
  link.download = name;
  link.click();
  URL.revokeObjectURL(link.href);
}

// JSON values that survive a reload. Some browsers forbid storage; then nothing is remembered.
export const storage = {
  get(name) {
    try {
      return JSON.parse(localStorage.getItem(`gateway.${name}`));
    } catch {
      return null;
    }
  },
  set(name, value) {
    try {
      if (value === null) localStorage.removeItem(`gateway.${name}`);
      else localStorage.setItem(`gateway.${name}`, JSON.stringify(value));
    } catch {
      return;
    }
  },
};
