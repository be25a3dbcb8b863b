// Runs once for all tabs of a browser that show this page, and keeps one event stream for them: a
// browser opens at most six connections to one address, and each stream takes one for good.
//
// A tab sends "open" or "close". It gets {name, data} for each event, as the stream has it, and
// {name: "error", isClosed} when the stream breaks. A tab that comes later gets a snapshot that is
// made here, of the first one and all updates since.

const trustFor = 5000; // milliseconds without an event, until a new tab asks for a new stream
const restartAfter = 1000; // so that several tabs that ask at once get one new stream
const [linesKept, notificationsKept] = [1000, 100];

const ports = new Set();
let source = null;
let picture = null; // the latest snapshot with the updates since; null for none
let changedAt = []; // by slot, in milliseconds
let [openedAt, heardAt] = [-Infinity, -Infinity];

// ---- What the stream says -----------------------------------------------------------------------

function takeSnapshot(snapshot) {
  picture = snapshot;
  const now = performance.now();
  changedAt = snapshot.slots.map(({ age }) => now - age * 1000);
  picture.startedAt = now - snapshot.status.uptime * 1000;
}

function takeUpdate(update) {
  const { slots = [], changes, log = [], notifications = [], deliveries = [], links } = update;
  const now = performance.now();
  for (const [index, value] of slots) {
    const slot = picture.slots[index];
    Object.assign(slot, { value, moved: true, changes: slot.changes + 1 });
    changedAt[index] = now;
  }
  if (changes !== undefined) picture.status.changes = changes;
  if (notifications.length > 0) picture.status.notifications = notifications.at(-1).number;
  if (links !== undefined) picture.status.links = links;
  picture.time = update.time;
  picture.log = [...picture.log, ...log].slice(-linesKept);
  picture.notifications = [...picture.notifications, ...notifications].slice(-notificationsKept);
  for (const { number, ...delivery } of deliveries) {
    const notification = picture.notifications.find((each) => each.number === number);
    if (notification) notification.delivery = delivery;
  }
}

function currentSnapshot() {
  const now = performance.now();
  picture.slots.forEach((slot, i) => (slot.age = (now - changedAt[i]) / 1000));
  picture.status.uptime = (now - picture.startedAt) / 1000;
  return JSON.stringify(picture);
}

const send = (message) => ports.forEach((port) => port.postMessage(message));

function receive(name, data) {
  heardAt = performance.now();
  send({ name, data });
  if (name === "snapshot") takeSnapshot(JSON.parse(data));
  if (name === "update" && picture) takeUpdate(JSON.parse(data));
  if (name === "stopped") picture = null;
}

function openSource() {
  source?.close();
  picture = null;
  openedAt = performance.now();
  const opened = (source = new EventSource("/api/events"));
  for (const name of ["snapshot", "update", "stopped"]) {
    opened.addEventListener(name, (event) => opened === source && receive(name, event.data));
  }
  opened.addEventListener("error", () => {
    if (opened !== source) return;
    picture = null;
    send({ name: "error", isClosed: source.readyState === EventSource.CLOSED });
  });
}

// ---- Tabs ---------------------------------------------------------------------------------------

function open(port) {
  ports.add(port);
  const now = performance.now();
  const isLive = picture !== null && now - heardAt < trustFor;
  if (isLive) port.postMessage({ name: "snapshot", data: currentSnapshot() });
  else if (now - openedAt > restartAfter) openSource();
}

function close(port) {
  ports.delete(port);
  if (ports.size > 0) return;
  source?.close();
  [source, picture, openedAt] = [null, null, -Infinity];
}

self.addEventListener("connect", ({ ports: [port] }) => {
  port.addEventListener("message", ({ data }) => (data === "open" ? open : close)(port));
  port.start();
});
