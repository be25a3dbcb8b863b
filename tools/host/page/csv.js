// The slots shown, or the history of one, as comma-separated values after RFC 4180.

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

// The points of a history. `timeText` writes their times. A value that nobody knows is empty.
export function historyCsvText({ times, last, low, high }, timeText) {
  const lines = times.map((time, i) =>
    lineOf([timeText(time), ...[last[i], low[i], high[i]].map((value) => value ?? "")]),
  );
  return lineOf(["time", "value", "lowest", "highest"]) + lines.join("");
}
