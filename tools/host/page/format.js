// How numbers, ages and times are written.

export const withMinus = (text) => text.replace(/^-/, "−");

const notFinite = { nan: NaN, inf: Infinity, "-inf": -Infinity };

// A value of a number as gatewayctl sends it: as a text where JSON has no number.
export const numberFrom = (value) => (typeof value === "number" ? value : notFinite[value]);

// With as many decimals as a scale of this span makes readable.
export function numberText(value, span) {
  const size = Math.abs(value);
  const isTiny = size > 0 && size < 1e-2 && span < 1e-2;
  if (size >= 1e7 || isTiny) return withMinus(value.toExponential(3));
  const decimals = span >= 20 ? 1 : span >= 2 ? 2 : span >= 0.2 ? 3 : 4;
  // Adding zero turns a value that rounds to "-0.0" into "0.0".
  return withMinus((Number(value.toFixed(decimals)) + 0).toFixed(decimals));
}

const scaleLabelLength = 5; // characters that fit beside a bar
const multiples = [[1e9, "G"], [1e6, "M"], [1e3, "k"]];

function scaledText(value, digits) {
  const rounded = Number(value.toPrecision(digits));
  const size = Math.abs(rounded);
  if (size >= 1e12 || (size > 0 && size < 1e-3)) {
    const [mantissa, exponent] = rounded.toExponential().split("e");
    return `${mantissa}e${Number(exponent)}`;
  }
  const [unit, letter] = multiples.find(([limit]) => size >= 10 * limit) ?? [1, ""];
  return `${Number((rounded / unit).toPrecision(digits))}${letter}`;
}

// The end of a scale, such as "−60", "50k" or "5e38": as precise as fits beside a bar.
export function scaleText(value) {
  const texts = [4, 3, 2, 1].map((digits) => withMinus(scaledText(value, digits)));
  return texts.find((text) => text.length <= scaleLabelLength) ?? texts.at(-1);
}

const counts = new Intl.NumberFormat("en");

export const countText = (count) => counts.format(count).replaceAll(",", " ");

export const rateText = (rate) => (rate < 10 ? rate.toFixed(1) : String(Math.round(rate)));

export function ageText(milliseconds) {
  const seconds = milliseconds / 1000;
  if (seconds < 10) return `${Math.max(0, seconds).toFixed(1)} s`;
  if (seconds < 120) return `${Math.round(seconds)} s`;
  if (seconds < 7200) return `${Math.round(seconds / 60)} min`;
  if (seconds < 172800) return `${Math.round(seconds / 3600)} h`;
  return `${Math.round(seconds / 86400)} d`;
}

const twoDigits = (number) => String(Math.floor(number)).padStart(2, "0");

const timeText = (hours, minutes, seconds) => [hours, minutes, seconds].map(twoDigits).join(":");

export function uptimeText(seconds) {
  const days = Math.floor(seconds / 86400);
  const time = timeText((seconds / 3600) % 24, (seconds / 60) % 60, seconds % 60);
  return days > 0 ? `${days} d ${time}` : time;
}

// The browser's local time, of seconds since 1970.
export function clockText(seconds) {
  const time = new Date(seconds * 1000);
  return timeText(time.getHours(), time.getMinutes(), time.getSeconds());
}

export function preciseClockText(seconds) {
  const milliseconds = new Date(seconds * 1000).getMilliseconds();
  return `${clockText(seconds)}.${String(milliseconds).padStart(3, "0")}`;
}
