// Rules on how a meter is drawn, and their texts in the address and in exported files:
// "-60..6 db fall:20 warn:-18 bad:-6 clip:0 for out_*". All numbers are in the slot's unit.

const options = ["fall", "warn", "bad", "clip"]; // each a number, or null for none
const form = /^(\S+?)\.\.(\S+) (linear|db) ((?:[a-z]+:\S+ )*)for (.+)$/;

export function ruleText(rule) {
  const chosen = options.filter((option) => rule[option] !== null);
  const words = chosen.map((option) => `${option}:${rule[option]}`);
  return [`${rule.low}..${rule.high}`, rule.scale, ...words, "for", rule.pattern].join(" ");
}

// Null if the text is not a rule.
export function ruleFrom(text) {
  const match = form.exec(text.trim());
  if (!match) return null;
  const [, low, high, scale, words, pattern] = match;
  const rule = { low: Number(low), high: Number(high), scale, pattern };
  for (const option of options) rule[option] = null;
  for (const word of words.split(" ").filter(Boolean)) {
    const [option, value] = word.split(":");
    if (!options.includes(option)) return null;
    rule[option] = Number(value);
  }
  const numbers = [rule.low, rule.high, ...options.map((option) => rule[option] ?? 0)];
  return numbers.every(Number.isFinite) && rule.low < rule.high ? rule : null;
}

// Whether a name fits a pattern, in which "*" stands for any text.
export function fits(name, pattern) {
  const parts = pattern.split("*").map((part) => part.replace(/[^\w]/g, "\\$&"));
  return new RegExp(`^${parts.join(".*")}$`, "s").test(name);
}

// The deflection of the usual level meter, in percent at 0 dB: from each of these levels on, a
// decibel moves it by so much.
const segments = [[-20, 2.5, 50], [-30, 2, 30], [-40, 1.5, 15], [-50, 0.75, 7.5], [-60, 0.5, 2.5]];
const lowest = [-70, 0.25, 0];

function deflection(level) {
  const [from, slope, start] = segments.find(([limit]) => level >= limit) ?? lowest;
  return start + (level - from) * slope;
}

// The next of 1, 2, 5, 10, 20, 50 ... that is not smaller, apart from the rounding of a float.
export function roundUp(value) {
  const exponent = Math.floor(Math.log10(value));
  const mantissa = value / 10 ** exponent;
  return Number(`${[1, 2, 5, 10].find((step) => step >= mantissa * (1 - 1e-6))}e${exponent}`);
}

const decibels = [-60, -50, -40, -30, -20, -15, -10, -5, 0, 5, 10];

// The values that an axis of this scale marks.
export function marksOn(scale, [low, high]) {
  if (scale === "db") return decibels.filter((level) => level >= low && level <= high);
  const step = roundUp((high - low) / 6);
  const first = Math.ceil(low / step - 1e-6);
  const count = Math.floor(high / step + 1e-6) - first + 1;
  return Array.from({ length: count }, (_, i) => Number(((first + i) * step).toPrecision(12)));
}

// Where a value lies on a scale from `low` to `high`, from 0 to 1.
export function placeOn(scale, [low, high], value) {
  const along = scale === "db" ? deflection : (level) => level;
  const place = (along(value) - along(low)) / (along(high) - along(low));
  return Math.min(1, Math.max(0, place));
}
