// Shows a text in full when the pointer is on it and its column cuts it off.

const texts = ".row :is(.name, .type, .key, .value, .value input), .facts dd:not(#config)";

document.addEventListener("pointerover", ({ target }) => {
  if (!target.matches(texts)) return;
  const isCut = target.scrollWidth > target.clientWidth;
  target.title = isCut ? (target.value ?? target.textContent) : "";
});
