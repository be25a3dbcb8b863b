// The slots shown, as a table of comma-separated values after RFC 4180.

const columns = {
  set: (slot) => slot.set,
  name: (slot) => slot.name,
  key: (slot) => slot.key,
  type: (slot) => slot.type,
  value: (slot) => slot.value,
  maximum: (slot) => (slot.maximum === -Infinity ? "" : slot.maximum),
  state: (slot, now) => slot.state(now),
  age_seconds: (slot, now) => ((now - slot.changedAt) / 1000).toFixed(3),
  changes: (slot) => slot.changes,
};

const quoted = (text) => (/[",\r\n]/.test(text) ? `"${text.replaceAll('"', '""')}"` : text);

const lineOf = (values) => `${values.map((value) => quoted(String(value))).join(",")}\r\n`;

// `time` is the moment of the values, for readers of several files; `now` is the page's time.
export function csvText(slots, time, now) {
  const lines = slots.map((slot) =>
    lineOf([time, ...Object.values(columns).map((column) => column(slot, now))]),
  );
  return lineOf(["time", ...Object.keys(columns)]) + lines.join("");
}
