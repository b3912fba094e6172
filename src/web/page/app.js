// Nimb logs: the page. Device text is never parsed as markup: every piece of it goes
// into the document through textContent or text nodes, and control characters are
// shown as visible symbols.
"use strict";

const $ = (id) => document.getElementById(id);
const state = { view: "", sort: "title:asc", devices: [], timer: 0, log: null, source: null, retry: 0,
  zone: localStorage.getItem("zone") || "server", serverZone: null, leave: null };

// ---- small helpers ----

function el(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined && text !== null) node.textContent = visible(String(text));
  return node;
}

// Invisible format characters by their short names: bidirectional embeddings,
// overrides, isolates and marks (which can make text read backwards, "exe.txt" for
// "txt.exe"), zero-width characters, the byte order mark, the soft hyphen.
const formatNames = {
  "\u202a": "LRE", "\u202b": "RLE", "\u202c": "PDF", "\u202d": "LRO", "\u202e": "RLO",
  "\u2066": "LRI", "\u2067": "RLI", "\u2068": "FSI", "\u2069": "PDI",
  "\u200e": "LRM", "\u200f": "RLM", "\u061c": "ALM",
  "\u200b": "ZWSP", "\u200c": "ZWNJ", "\u200d": "ZWJ", "\u2060": "WJ",
  "\u2061": "FA", "\u2062": "IT", "\u2063": "IS", "\u2064": "IP", "\ufeff": "BOM", "\u00ad": "SHY",
};

// Control characters (escape sequences, NUL, ...) as their visible symbols, invisible
// format characters as their names in angle brackets.
function visible(text) {
  return text
    .replace(/[\u0000-\u0008\u000b-\u001f\u007f]/g,
      (c) => String.fromCharCode(c === "\u007f" ? 0x2421 : 0x2400 + c.charCodeAt(0)))
    .replace(/[\u202a-\u202e\u2066-\u2069\u200b-\u200f\u061c\u2060-\u2064\ufeff\u00ad]/g,
      (c) => "\u27e8" + formatNames[c] + "\u27e9");
}

function bytes(n) {
  if (n < 1024) return n + " B";
  const units = ["KiB", "MiB", "GiB", "TiB"];
  let v = n, u = -1;
  do { v /= 1024; u++; } while (v >= 1024 && u < units.length - 1);
  return v.toFixed(v < 10 ? 1 : 0) + " " + units[u];
}

// "1 log", "2 logs".
function plural(n, word) {
  return n + " " + word + (n === 1 ? "" : "s");
}

function ago(seconds) {
  const d = Math.max(0, Date.now() / 1000 - seconds);
  if (d < 60) return "just now";
  if (d < 3600) return Math.floor(d / 60) + " min ago";
  if (d < 86400) return Math.floor(d / 3600) + " h ago";
  return Math.floor(d / 86400) + " d ago";
}

// ---- times: every time shown goes through stamp(), in the zone chosen (server, browser
// or UTC) and naming it ----

const formatters = new Map();

// The IANA zone to format in; undefined for the browser's own; null when the server's zone
// is not one the browser knows (its fixed offset is used then).
function zoneId() {
  if (state.zone === "utc") return "UTC";
  if (state.zone === "browser" || !state.serverZone) return undefined;
  return state.serverZone.known ? state.serverZone.id : null;
}

function formatter(id) {
  const key = id === undefined ? "" : id;
  if (!formatters.has(key)) {
    formatters.set(key, new Intl.DateTimeFormat("en-GB", { timeZone: id, hourCycle: "h23", year: "numeric", month: "2-digit",
      day: "2-digit", hour: "2-digit", minute: "2-digit", second: "2-digit", timeZoneName: "short" }));
  }
  return formatters.get(key);
}

// The wall clock of the chosen zone at `seconds`: {year, month, day, hour, minute, second, zone}.
function wallClock(seconds) {
  const id = zoneId();
  if (id === null) {
    const z = state.serverZone;
    const d = new Date((seconds + z.offset) * 1000);
    return { year: d.getUTCFullYear(), month: d.getUTCMonth() + 1, day: d.getUTCDate(), hour: d.getUTCHours(),
      minute: d.getUTCMinutes(), second: d.getUTCSeconds(), zone: z.abbreviation || z.id };
  }
  const parts = {};
  for (const p of formatter(id).formatToParts(new Date(seconds * 1000))) parts[p.type] = p.value;
  return { year: Number(parts.year), month: Number(parts.month), day: Number(parts.day), hour: Number(parts.hour) % 24,
    minute: Number(parts.minute), second: Number(parts.second), zone: id === "UTC" ? "UTC" : parts.timeZoneName };
}

const pad2 = (n) => String(n).padStart(2, "0");

// "2026-11-24 12:00:05 CET"; `bare`: without the zone (where the view states it once).
function stamp(seconds, bare) {
  const w = wallClock(seconds);
  const text = w.year + "-" + pad2(w.month) + "-" + pad2(w.day) + " " + pad2(w.hour) + ":" + pad2(w.minute) + ":" + pad2(w.second);
  return bare ? text : text + " " + w.zone;
}

// The zone's name now, e.g. "CET", "UTC".
function zoneLabel() { return wallClock(Date.now() / 1000).zone; }

// A time as a datetime-local field shows it, in the chosen zone.
function fieldValue(seconds) {
  return stamp(seconds, true).replace(" ", "T");
}

// A datetime-local field's value, read in the chosen zone, as seconds since 1970; NaN when empty.
function fieldSeconds(value) {
  const m = /^(\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d)(?::(\d\d))?/.exec(value || "");
  if (!m) return NaN;
  const asUtc = Date.UTC(+m[1], +m[2] - 1, +m[3], +m[4], +m[5], +(m[6] || 0)) / 1000;
  // The zone's offset at the guess, then at the result (which differs across a change of
  // daylight saving time).
  const offsetAt = (t) => {
    const w = wallClock(t);
    return Date.UTC(w.year, w.month - 1, w.day, w.hour, w.minute, w.second) / 1000 - Math.floor(t);
  };
  let t = asUtc - offsetAt(asUtc);
  t = asUtc - offsetAt(t);
  return t;
}

// Seconds as the API takes a time: ISO 8601 in UTC.
function isoUtc(seconds) { return new Date(seconds * 1000).toISOString().replace(/\.\d{3}Z$/, "Z"); }

// A time parameter of a link: ISO 8601 with its zone ("Z"), or (older links) server local time.
function paramSeconds(value) {
  if (!value) return NaN;
  if (/(Z|[+-]\d\d:?\d\d)$/.test(value)) return Date.parse(value) / 1000;
  const keep = state.zone;
  state.zone = "server";
  try { return fieldSeconds(value); } finally { state.zone = keep; }
}

// Relative ranges: "15m", "1h", "24h", "7d" as seconds.
const relativeRanges = { "15m": 900, "1h": 3600, "24h": 86400, "7d": 604800 };

async function initZone() {
  const select = $("zone");
  select.value = state.zone;
  select.addEventListener("change", () => {
    state.zone = select.value;
    localStorage.setItem("zone", state.zone);
    labelZones();
    document.dispatchEvent(new Event("zonechange"));
  });
  try {
    const data = await api("/api/time");
    const zone = data.zone;
    try { new Intl.DateTimeFormat("en", { timeZone: zone.id }); zone.known = true; } catch (e) { zone.known = false; }
    state.serverZone = zone;
  } catch (e) { /* the browser's zone stands in */ }
  labelZones();
  document.dispatchEvent(new Event("zonechange"));
}

// The switch's options name their zones.
function labelZones() {
  const keep = state.zone;
  for (const option of $("zone").options) {
    state.zone = option.value;
    const name = option.value === "utc" ? "UTC" : zoneLabel();
    option.textContent = (option.value === "server" ? "Server" : option.value === "browser" ? "Browser" : "UTC") +
      (option.value === "utc" ? "" : " (" + name + ")");
  }
  state.zone = keep;
  for (const node of document.querySelectorAll(".zone-now")) node.textContent = zoneLabel();
}

async function api(path) {
  const response = await fetch(path, { headers: { Accept: "application/json" } });
  const body = await response.json().catch(() => ({ error: response.statusText }));
  if (!response.ok) throw new Error(body.error || response.statusText);
  return body;
}

function query(params) {
  const q = new URLSearchParams();
  for (const [k, v] of Object.entries(params)) if (v !== undefined && v !== null && v !== "") q.set(k, v);
  return q.toString();
}

// ---- theme ----

function applyTheme(theme) {
  if (theme) document.documentElement.dataset.theme = theme;
  else delete document.documentElement.dataset.theme;
}

function initTheme() {
  applyTheme(localStorage.getItem("theme"));
  $("theme").addEventListener("click", () => {
    const dark = document.documentElement.dataset.theme
      ? document.documentElement.dataset.theme === "dark"
      : matchMedia("(prefers-color-scheme: dark)").matches;
    const next = dark ? "light" : "dark";
    localStorage.setItem("theme", next);
    applyTheme(next);
  });
}

// ---- routing: #/devices, #/log?file=NAME, #/search?q=..., #/health ----

function route() {
  const hash = location.hash.replace(/^#\/?/, "") || "devices";
  const [name, search] = hash.split("?");
  const params = new URLSearchParams(search || "");
  const view = ["devices", "log", "search", "timeline", "alerts", "health"].includes(name) ? name : "devices";
  stopLive();
  if (state.leave) { state.leave(); state.leave = null; }
  clearInterval(state.timer);
  state.view = view;
  for (const section of document.querySelectorAll(".view")) section.hidden = section.id !== "view-" + view;
  for (const tab of document.querySelectorAll(".tabs a")) tab.classList.toggle("active", tab.dataset.view === view);
  if (view === "devices") { loadDevices(); state.timer = setInterval(loadDevices, 10000); }
  if (view === "log") openLog(params.get("file") || "", params.get("at"), params.get("generation"));
  if (view === "search") openSearch(params);
  if (view === "timeline") openTimeline(params);
  if (view === "alerts") { loadAlerts(); state.timer = setInterval(loadAlerts, 5000); }
  if (view === "health") { loadHealth(); state.timer = setInterval(loadHealth, 5000); }
}

// ---- devices ----

function activityPlot(counts, binMinutes) {
  const ns = "http://www.w3.org/2000/svg";
  const svg = document.createElementNS(ns, "svg");
  svg.setAttribute("class", "plot");
  svg.setAttribute("viewBox", "0 0 " + counts.length + " 30");
  svg.setAttribute("preserveAspectRatio", "none");
  const peak = Math.max(1, ...counts);
  let d = "M0 30";
  counts.forEach((c, i) => { const y = 30 - (c / peak) * 27; d += " L" + i + " " + y.toFixed(2) + " L" + (i + 1) + " " + y.toFixed(2); });
  const area = document.createElementNS(ns, "path");
  area.setAttribute("class", "area");
  area.setAttribute("d", d + " L" + counts.length + " 30 Z");
  const edge = document.createElementNS(ns, "path");
  edge.setAttribute("class", "edge");
  edge.setAttribute("d", d.replace(/^M0 30 L/, "M"));
  const base = document.createElementNS(ns, "line");
  base.setAttribute("class", "base");
  base.setAttribute("x1", "0"); base.setAttribute("x2", String(counts.length));
  base.setAttribute("y1", "30"); base.setAttribute("y2", "30");
  const total = counts.reduce((a, b) => a + b, 0);
  const title = document.createElementNS(ns, "title");
  title.textContent = plural(total, "line") + " in the last 24 h; busiest: " + (Math.max(...counts) / binMinutes).toFixed(1) + " lines/min";
  svg.append(title, area, edge, base);
  return svg;
}

// The same, stacked: errors at the bottom, then warnings, then the other lines.
function severityPlot(severity, binMinutes, span = "in the last 24 h", unit = "line") {
  const ns = "http://www.w3.org/2000/svg";
  const n = severity.others.length;
  const svg = document.createElementNS(ns, "svg");
  svg.setAttribute("class", "plot");
  svg.setAttribute("viewBox", "0 0 " + n + " 30");
  svg.setAttribute("preserveAspectRatio", "none");
  const totals = severity.others.map((c, i) => c + severity.warnings[i] + severity.errors[i]);
  const peak = Math.max(1, ...totals);
  const paths = { "bar-err": "", "bar-warn": "", "bar-other": "" };
  for (let i = 0; i < n; i++) {
    let y = 30;
    for (const [cls, count] of [["bar-err", severity.errors[i]], ["bar-warn", severity.warnings[i]], ["bar-other", severity.others[i]]]) {
      if (!count) continue;
      const h = Math.max(0.8, (count / peak) * 27);
      paths[cls] += "M" + i + " " + (y - h).toFixed(2) + "h1v" + h.toFixed(2) + "h-1z";
      y -= h;
    }
  }
  const title = document.createElementNS(ns, "title");
  const sum = (a) => a.reduce((x, y) => x + y, 0);
  title.textContent = plural(sum(totals), unit) + " " + span + ": " + plural(sum(severity.errors), "error") + ", " +
    plural(sum(severity.warnings), "warning") + "; busiest: " + (peak / binMinutes).toFixed(1) + " " + unit + "s/min";
  svg.append(title);
  for (const [cls, d] of Object.entries(paths)) {
    if (!d) continue;
    const path = document.createElementNS(ns, "path");
    path.setAttribute("class", cls);
    path.setAttribute("d", d);
    svg.append(path);
  }
  const base = document.createElementNS(ns, "line");
  base.setAttribute("class", "base");
  base.setAttribute("x1", "0"); base.setAttribute("x2", String(n));
  base.setAttribute("y1", "30"); base.setAttribute("y2", "30");
  svg.append(base);
  return svg;
}

function deviceCard(device, binMinutes) {
  const card = el("article", "device");
  card.dataset.key = device.key;
  const info = el("div", "info");
  info.append(el("div", "name", device.name));
  info.append(el("div", "ids", [device.deviceId, device.mac].filter(Boolean).join(" \u00b7 ")));
  if (device.tie) {
    const tie = el("div", "tie", "device " + stamp(device.tie.device, true) + " \u2194 server " + stamp(device.tie.server));
    tie.title = "Clock tie of the newest announcement" + (device.satellite ? " (via " + visible(device.satellite) + ")" : "") +
      ": the device's clock said " + device.deviceTime + " UTC when the server's said " + device.serverTime;
    info.append(tie);
  } else if (device.serverTime) {
    const tie = el("div", "tie", "device " + device.deviceTime + " UTC \u2194 server " + device.serverTime);
    tie.title = "Clock tie of the newest announcement" + (device.satellite ? " (via " + visible(device.satellite) + ")" : "");
    info.append(tie);
  }
  const logs = el("div", "logs");
  for (const log of device.logs) {
    const chip = el("a", "chip");
    chip.href = "#/log?" + query({ file: log.file });
    chip.append(el("span", "", log.log || log.file), el("span", "size", bytes(log.size)));
    chip.title = visible(log.file) + " \u00b7 last write " + stamp(log.lastWrite);
    logs.append(chip);
  }
  const numbers = el("div", "numbers");
  const last = el("strong", "", ago(device.lastWrite));
  last.title = stamp(device.lastWrite);
  numbers.append(last, el("span", "muted", bytes(device.size)));
  const activity = el("div", "activity");
  activity.append(device.severity ? severityPlot(device.severity, binMinutes) : activityPlot(device.activity, binMinutes));
  const label = el("div", "plotlabel");
  label.append(el("span", "", "24 h ago"), el("span", "", "now"));
  activity.append(label);
  card.append(info, logs, numbers, activity);
  return card;
}

async function loadDevices() {
  try {
    const data = await api("/api/devices?" + query({ sort: state.sort }));
    state.devices = data.devices;
    const list = $("devices");
    list.replaceChildren(...data.devices.map((d) => deviceCard(d, data.binMinutes)));
    $("devices-empty").hidden = data.devices.length > 0;
    const logs = data.devices.reduce((n, d) => n + d.logs.length, 0);
    $("devices-summary").textContent = plural(data.devices.length, "device") + " \u00b7 " + plural(logs, "log");
  } catch (e) {
    $("devices-summary").textContent = "cannot list devices: " + e.message;
  }
}

function initSort() {
  $("sort").addEventListener("change", () => { state.sort = $("sort").value; loadDevices(); });
  $("sort-dir").addEventListener("click", () => {
    const [key, dir] = state.sort.split(":");
    state.sort = key + ":" + (dir === "asc" ? "desc" : "asc");
    loadDevices();
  });
}

// ---- one log ----

const headerLine = /^===== .* === .* <-> .* =====$/;

// Levels 0-3 (emergency to error) and 4 (warning) are coloured; 8 states none.
function severityClass(level) {
  if (level === undefined || level === null || level > 4) return "";
  return level <= 3 ? " sev-err" : " sev-warn";
}

// `header`: true or false when the index told whether this is a header line the
// collector wrote; undefined without an index, where the line's shape decides.
function lineDiv(text, fresh, level, header) {
  const isHeader = header === undefined ? headerLine.test(text) : header;
  const div = el("div", "l" + (isHeader ? " hdr" : severityClass(level)) + (fresh ? " new" : ""), text);
  div.dataset.raw = text.length > 4096 ? "" : text;
  return div;
}

// Appends text to the view; a first piece continues an unfinished last line.
// Returns the lines it added whole (not the one it continued).
function appendText(container, text, fresh, info) {
  const log = state.log;
  const pieces = text.split("\n");
  const levels = (info && info.levels) || [];
  const headers = info && info.headers ? new Set(info.headers) : null;
  const headerOf = (i) => (headers ? headers.has(i) : undefined);
  const endsOpen = pieces[pieces.length - 1] !== "";
  if (!endsOpen) pieces.pop();
  const fragment = document.createDocumentFragment();
  let i = 0;
  if (log && log.open && container.lastChild && pieces.length) {
    const last = container.lastChild;
    const joined = (last.dataset.raw || last.textContent) + pieces.shift();
    container.replaceChild(lineDiv(joined, fresh, levels[0], headerOf(0)), last);
    i = 1;
  }
  const added = [];
  for (const piece of pieces) { added.push(lineDiv(piece, fresh, levels[i], headerOf(i))); i++; }
  fragment.append(...added);
  container.append(fragment);
  if (log) log.open = endsOpen;
  return added;
}

function prependText(container, text, info) {
  const pieces = text.split("\n");
  if (pieces[pieces.length - 1] === "") pieces.pop();
  const levels = (info && info.levels) || [];
  const headers = info && info.headers ? new Set(info.headers) : null;
  const fragment = document.createDocumentFragment();
  pieces.forEach((piece, i) => fragment.append(lineDiv(piece, false, levels[i], headers ? headers.has(i) : undefined)));
  container.prepend(fragment);
}

// The log's title: its device's display name and the log's name, the file name beside.
function setLogTitle(file) {
  const base = file.replace(/\.back$/, "");
  const device = state.devices.find((d) => d.logs.some((l) => l.file === base));
  const log = device && device.logs.find((l) => l.file === base);
  const title = $("log-title");
  title.replaceChildren();
  if (device) title.append(el("span", "", device.name + " \u00b7 " + (log.log || base)), " ", el("span", "muted small", file));
  else title.textContent = visible(file);
}

async function openLog(file, at, generation) {
  if (!state.devices.length) {
    try { state.devices = (await api("/api/devices")).devices; } catch (e) { /* the file name stands alone */ }
  }
  const lines = $("log-lines");
  lines.replaceChildren();
  setLogTitle(file);
  $("log-download").href = "/api/download?" + query({ file });
  $("log-download-history").href = "/api/download?" + query({ file, history: 1 });
  const device = state.devices.find((d) => d.logs.some((l) => l.file === file));
  $("log-archive").hidden = !device;
  if (device) $("log-archive").href = "/api/archive?" + query({ device: device.key });
  state.log = { file, end: 0, inode: "", earlier: null, later: null, open: false };
  resetLive(state.logLive);
  $("load-later").hidden = true;
  try {
    const around = at !== null && at !== undefined && at !== "";
    const chunk = await api("/api/log?" + query({ file, at: around ? at : "", generation: generation || "" }));
    state.log.end = chunk.end;
    state.log.inode = chunk.inode;
    state.log.earlier = chunk.earlier || null;
    state.log.later = chunk.later || null;
    state.log.open = false;
    state.log.indexed = Array.isArray(chunk.headers);
    appendText(lines, chunk.text, false, chunk);
    $("load-earlier").hidden = !state.log.earlier;
    $("load-later").hidden = !state.log.later;
    applyLevelFilter();
    if (around || state.log.later) {
      // The hit's line: the one whose bytes hold the offset.
      const before = new TextEncoder().encode(chunk.text).subarray(0, Math.max(0, Number(at) - chunk.start));
      const index = new TextDecoder().decode(before).split("\n").length - 1;
      const line = lines.children[index];
      const where = around ? "showing the text around the hit at byte " + at + (chunk.generation !== undefined ? " of an earlier generation" : "")
        : "showing an earlier part of the log";
      $("log-meta").textContent = where + (state.log.later ? "; \u201cLoad later\u201d continues towards the live end" : "");
      $("live").checked = false;
      state.pausedAtHit = true;
      setLiveLabel("Paused");
      if (around && line) { line.classList.add("at"); line.scrollIntoView({ block: "center" }); }
      return;
    }
    $("log-meta").textContent = "showing the last " + bytes(chunk.end - chunk.start) + (chunk.start > 0 || chunk.earlier ? "; earlier text is kept" : "");
    lines.scrollTop = lines.scrollHeight;
    // A pause that came with a hit ends with it; one the user chose stays.
    if (state.pausedAtHit) { $("live").checked = true; state.pausedAtHit = false; }
    if ($("live").checked) startLive();
  } catch (e) {
    $("log-meta").textContent = "cannot open " + visible(file) + ": " + e.message;
    $("load-earlier").hidden = true;
    $("load-later").hidden = true;
  }
}

async function loadEarlier() {
  const log = state.log;
  if (!log || !log.earlier || log.busy) return;
  log.busy = true;
  try {
    const chunk = await api("/api/log?" + query({ file: log.earlier.file, before: log.earlier.before, generation: log.earlier.generation }));
    const lines = $("log-lines");
    const height = lines.scrollHeight;
    prependText(lines, chunk.text, chunk);
    lines.scrollTop += lines.scrollHeight - height;
    log.earlier = chunk.earlier || null;
    $("load-earlier").hidden = !log.earlier;
  } catch (e) {
    $("log-meta").textContent = "cannot load earlier text: " + e.message;
  } finally {
    log.busy = false;
  }
}

// The text after what is shown, one piece at a time, through the generations to the
// current file. At its end (the live end) the view takes the current file's place and,
// unless the user paused it, goes live from there.
async function loadLater() {
  const log = state.log;
  if (!log || !log.later || log.busy) return;
  log.busy = true;
  try {
    const later = log.later;
    const chunk = await api("/api/log?" + query({ file: later.file, after: later.after, generation: later.generation }));
    if (state.log !== log) return;
    // A generation or file starts a line of its own.
    if (chunk.start === 0) log.open = false;
    appendText($("log-lines"), chunk.text, false, chunk);
    applyLevelFilter();
    log.later = chunk.later || null;
    $("load-later").hidden = !log.later;
    if (log.later) return;
    log.file = chunk.file;
    log.end = chunk.end;
    log.inode = chunk.inode;
    setLogTitle(log.file);
    $("log-download").href = "/api/download?" + query({ file: log.file });
    $("log-download-history").href = "/api/download?" + query({ file: log.file, history: 1 });
    $("log-meta").textContent = "showing the text up to the live end";
    if (state.pausedAtHit) {
      $("live").checked = true;
      state.pausedAtHit = false;
      startLive();
    }
  } catch (e) {
    $("log-meta").textContent = "cannot load later text: " + e.message;
  } finally {
    log.busy = false;
  }
}

// Live shows the log's end: a view in the middle of it opens the end again.
function toggleLive() {
  state.pausedAtHit = false;
  const log = state.log;
  if ($("live").checked && log && log.later) {
    const target = "#/log?" + query({ file: log.file.replace(/\.back$/, "") });
    if (location.hash === target) route(); else location.hash = target;
    return;
  }
  if ($("live").checked) startLive(); else { stopLive(); setLiveLabel("Paused"); }
}

// Hides the lines below the chosen severity (the page keeps them).
function applyLevelFilter() {
  const value = $("log-level").value;
  const lines = $("log-lines");
  // Lines shown again would replay their arrival flash: they are not new.
  for (const line of lines.querySelectorAll(".l.new")) line.classList.remove("new");
  lines.classList.toggle("only-error", value === "error");
  lines.classList.toggle("only-warning", value === "warning");
}

function setLiveLabel(text) { $("live-label").textContent = text; }

// Lines a live view takes in before the oldest ones leave it from the top.
const maxLiveLines = 5000;

function atLinesBottom(lines) { return lines.scrollHeight - lines.scrollTop - lines.clientHeight < 40; }

// A list of lines that grows live (the log view's, the timeline's): its container, its
// "N new lines" button, the note shown once the oldest lines left it, and what else
// happens then (`onTrim`).
function liveList(lines, button, note, onTrim) {
  const list = { lines, button, note, onTrim, unseen: 0, live: 0 };
  button.addEventListener("click", () => {
    lines.scrollTop = lines.scrollHeight;
    showUnseen(list, 0);
  });
  lines.addEventListener("scroll", () => { if (list.unseen && atLinesBottom(lines)) showUnseen(list, 0); });
  return list;
}

// A new start: nothing counted, nothing arrived live yet.
function resetLive(list) {
  list.live = 0;
  showUnseen(list, 0);
}

// Lines that arrived while the reader was scrolled up: counted, not scrolled to.
function showUnseen(list, count) {
  list.unseen = count;
  list.button.hidden = count === 0;
  list.button.textContent = plural(count, "new line") + " \u2193";
}

// `added` lines were appended live; `atBottom`: the reader was at the newest line before.
// The view follows them there, else counts them and stays put; either way it stays bounded.
function arrived(list, added, atBottom) {
  trimLive(list, added);
  if (atBottom) list.lines.scrollTop = list.lines.scrollHeight;
  else showUnseen(list, list.unseen + added);
}

// Once more than maxLiveLines lines have arrived live, drops as many of the oldest lines
// as arrived past that (so the view holds at most what the reader loaded plus
// maxLiveLines), keeping what the reader sees where it is; "Load earlier" then no
// longer joins up, so the owner's onTrim takes it away, and a note says why.
function trimLive(list, added) {
  const lines = list.lines;
  list.live += added;
  const excess = list.live - maxLiveLines;
  if (excess <= 0) return;
  list.live = maxLiveLines;
  const before = lines.scrollHeight;
  let first = lines.firstElementChild;
  if (first && first.classList.contains("trimmed")) first = first.nextElementSibling;
  for (let i = 0; i < excess && first; i++) {
    const next = first.nextElementSibling;
    first.remove();
    first = next;
  }
  if (!lines.firstElementChild || !lines.firstElementChild.classList.contains("trimmed")) {
    lines.prepend(el("div", "l sep trimmed", list.note));
  }
  if (list.onTrim) list.onTrim();
  lines.scrollTop -= before - lines.scrollHeight;
}

function startLive() {
  stopLive();
  const log = state.log;
  if (!log) return;
  const source = new EventSource("/api/tail?" + query({ file: log.file, from: log.end, inode: log.inode }));
  state.source = source;
  setLiveLabel("Live");
  source.addEventListener("text", (event) => {
    const data = JSON.parse(event.data);
    const lines = $("log-lines");
    const atBottom = atLinesBottom(lines);
    // With the index, a line is a header only once the index says the collector wrote it.
    const added = appendText(lines, data.text, true, log.indexed ? { headers: [] } : undefined);
    levelLive(log, added, log.end, data.end, data.inode, 0);
    log.end = data.end;
    log.inode = data.inode;
    state.retry = 0;
    arrived(state.logLive, added.length, atBottom);
  });
  source.addEventListener("rotated", (event) => {
    const data = JSON.parse(event.data);
    log.end = 0;
    log.inode = data.inode;
    log.open = false;
    $("log-lines").append(el("div", "l sep", "file rotated: earlier text moved to " + log.file + ".back"));
  });
  source.onerror = () => {
    // Reconnect from what was shown, not from where the stream started.
    stopLive();
    setLiveLabel("Reconnecting\u2026");
    state.retry = Math.min(state.retry + 1, 10);
    setTimeout(() => { if (state.log === log && $("live").checked) startLive(); }, 1000 * state.retry);
  };
}

// Text arriving live comes without levels: they (and, with the index, which lines are
// the collector's header lines) are asked of /api/log for the bytes that arrived, and
// matched to the lines from the end. The index takes up to a second to hold new text,
// so while a header-shaped line is not known as a header yet it is asked again.
async function levelLive(log, added, from, end, inode, tries) {
  if (!added.length || end <= from) return;
  let chunk;
  try {
    // One byte more: the reply begins after its first newline, the one ending the line before.
    chunk = await api("/api/log?" + query({ file: log.file, before: end, limit: end - from + (from > 0 ? 1 : 0) }));
  } catch (e) {
    return;
  }
  if (state.log !== log || chunk.inode !== inode || chunk.end !== end) return;
  const headers = Array.isArray(chunk.headers) ? new Set(chunk.headers) : null;
  const count = Math.min(added.length, chunk.levels.length);
  let unsure = false;
  for (let k = 1; k <= count; k++) {
    const div = added[added.length - k], i = chunk.levels.length - k;
    const isHeader = headers ? headers.has(i) : headerLine.test(div.dataset.raw);
    if (headers && !isHeader && headerLine.test(div.dataset.raw)) unsure = true;
    div.classList.remove("hdr", "sev-err", "sev-warn");
    const cls = isHeader ? "hdr" : severityClass(chunk.levels[i]).trim();
    if (cls) div.classList.add(cls);
  }
  if (unsure && tries < 4) setTimeout(() => levelLive(log, added, from, end, inode, tries + 1), 600);
}

function stopLive() {
  if (state.source) { state.source.close(); state.source = null; }
}

// ---- search ----

function fillScope(selected) {
  const scope = $("scope");
  const options = [new Option("every log", "")];
  for (const d of state.devices) {
    options.push(new Option("device: " + visible(d.name) + " (" + visible(d.key) + ")", "device:" + d.key));
    for (const l of d.logs) options.push(new Option("\u00a0\u00a0log: " + visible(l.file), "file:" + l.file));
  }
  scope.replaceChildren(...options);
  scope.value = selected;
  if (scope.value !== selected && selected) {
    scope.append(new Option(visible(selected), selected));
    scope.value = selected;
  }
}

function markedLine(parts) {
  const div = el("div", "l hitline");
  parts.forEach((part, i) => {
    if (i % 2 === 1) div.append(el("mark", "", part));
    else div.append(document.createTextNode(visible(part)));
  });
  return div;
}

async function openSearch(params) {
  if (!state.devices.length) {
    try { state.devices = (await api("/api/devices")).devices; } catch (e) { /* the list stays short */ }
  }
  $("q").value = params.get("q") || "";
  $("regex").checked = params.get("regex") === "1";
  const range = timeRange(params);
  $("from").value = isNaN(range.from) ? "" : fieldValue(range.from);
  $("to").value = isNaN(range.to) ? "" : fieldValue(range.to);
  markRelative($("search-form"), params.get("last"));
  $("level").value = params.get("level") || "";
  const scope = params.get("file") ? "file:" + params.get("file") : params.get("device") ? "device:" + params.get("device") : "";
  fillScope(scope);
  if (!$("q").value) { $("results").replaceChildren(); $("search-status").textContent = ""; return; }
  $("search-status").textContent = "Searching\u2026";
  const started = performance.now();
  try {
    const asked = new URLSearchParams(params);
    asked.delete("last");
    asked.delete("from");
    asked.delete("to");
    if (!isNaN(range.from)) asked.set("from", isoUtc(range.from));
    if (!isNaN(range.to)) asked.set("to", isoUtc(range.to));
    const data = await api("/api/search?" + asked.toString());
    const seconds = ((performance.now() - started) / 1000).toFixed(2);
    $("search-status").textContent = plural(data.hitCount, "hit") + " in " + plural(data.files.length, "file") + " \u00b7 " +
      bytes(data.bytesScanned) + " of " + plural(data.filesScanned, "file") + " searched in " + seconds + " s";
    const blocks = [];
    if (data.histogram) blocks.push(matchHistogram(data));
    if (data.more) {
      const of = data.countComplete ? " of " + data.matchCount : " of at least " + data.matchCount;
      blocks.push(el("p", "note", "More results exist: only the first " + data.hitCount + of + " matching lines are shown. Narrow the search to a device, a log or a time range."));
    }
    if (data.timedOut) blocks.push(el("p", "note", "The search stopped after its limit of " + data.budgetMs / 1000 + " s; the results are incomplete."));
    if (data.files.length) {
      const merged = new URLSearchParams(params);
      const toTimeline = el("a", "button ghost small", "Show these lines in one timeline");
      toTimeline.id = "search-timeline";
      toTimeline.href = "#/timeline?" + merged.toString();
      blocks.push(toTimeline);
    }
    // By device (its display name first, the file names as secondary text).
    const groups = new Map();
    for (const f of data.files) {
      const key = f.device || "";
      if (!groups.has(key)) groups.set(key, { name: f.name || "", files: [] });
      groups.get(key).files.push(f);
    }
    for (const [key, group] of groups) {
      const head = el("section", "devicehits");
      const title = el("h2", "", group.name || key || "other logs");
      if (key && group.name && group.name !== key) title.append(el("span", "muted", key));
      head.append(title);
      blocks.push(head);
    for (const f of group.files) {
      const box = el("section", "filehits");
      const title = el("h3");
      const link = el("a", "", f.logName || f.file);
      link.href = "#/log?" + query({ file: f.log || f.file.replace(/\.back$/, "") });
      title.append(link);
      if (f.logName) title.append(el("span", "muted file", f.file));
      title.append(el("span", "muted", plural(f.hits.length, "hit")));
      const lines = el("div", "lines");
      for (const hit of f.hits) {
        const item = el("div", "hit");
        if (hit.before) item.append(el("div", "l ctx", hit.before));
        const line = markedLine(hit.parts);
        line.className += severityClass(hit.level);
        const open = el("a", "open", "open at this line");
        open.href = "#/log?" + query(f.generation !== undefined ? { file: f.log, generation: f.generation, at: hit.offset } : { file: f.file, at: hit.offset });
        line.append(" ", open);
        item.append(line);
        if (hit.after) item.append(el("div", "l ctx", hit.after));
        lines.append(item);
      }
      box.append(title, lines);
      head.append(box);
    }
    }
    if (!data.files.length) blocks.push(el("p", "empty", "Nothing found."));
    $("results").replaceChildren(...blocks);
  } catch (e) {
    $("search-status").textContent = "";
    $("results").replaceChildren(el("p", "note bad", e.message));
  }
}

// Where the matching lines lie over time, by severity, with the span's ends below.
function matchHistogram(data) {
  const h = data.histogram;
  const bins = h.others.length;
  const from = h.from, to = h.from + bins * h.binSeconds;
  const box = el("div", "activity matches");
  box.append(severityPlot(h, h.binSeconds / 60, "from " + stamp(from) + " to " + stamp(to), "matching line"));
  const label = el("div", "plotlabel");
  label.append(el("span", "", stamp(from)), el("span", "", plural(data.matchCount, "matching line") + (data.countComplete ? "" : " (counted in the time allowed)")), el("span", "", stamp(to)));
  box.append(label);
  return box;
}

// The time range a view's parameters give: `last` (relative to now), else `from`/`to`.
function timeRange(params) {
  const last = relativeRanges[params.get("last")];
  if (last) return { from: Date.now() / 1000 - last, to: NaN };
  return { from: paramSeconds(params.get("from")), to: paramSeconds(params.get("to")) };
}

// The range a form's fields and relative buttons state, as link parameters.
function rangeParams(form) {
  const active = form.querySelector(".relative button.active");
  if (active) return { last: active.dataset.last };
  const from = fieldSeconds(form.querySelector("input.from").value), to = fieldSeconds(form.querySelector("input.to").value);
  return { from: isNaN(from) ? "" : isoUtc(from), to: isNaN(to) ? "" : isoUtc(to) };
}

function markRelative(form, last) {
  for (const b of form.querySelectorAll(".relative button")) b.classList.toggle("active", b.dataset.last === last);
}

// The relative buttons beside a form's From/To: one press fills From and empties To;
// editing the fields ends the relative range.
function initRange(form, submit) {
  for (const b of form.querySelectorAll(".relative button")) {
    b.addEventListener("click", () => {
      markRelative(form, b.dataset.last);
      form.querySelector("input.from").value = fieldValue(Date.now() / 1000 - relativeRanges[b.dataset.last]);
      form.querySelector("input.to").value = "";
      submit();
    });
  }
  for (const input of form.querySelectorAll("input.from, input.to")) input.addEventListener("input", () => markRelative(form, null));
}

function initSearch() {
  initRange($("search-form"), () => $("search-form").requestSubmit());
  $("search-form").addEventListener("submit", (event) => {
    event.preventDefault();
    const [kind, value] = ($("scope").value || ":").split(/:(.*)/s);
    const params = { q: $("q").value, regex: $("regex").checked ? "1" : "", level: $("level").value, ...rangeParams($("search-form")) };
    if (kind === "file") params.file = value;
    if (kind === "device") params.device = value;
    const target = "#/search?" + query(params);
    if (location.hash === target) route(); else location.hash = target;
  });
}

// ---- health ----

function card(label, value, bad) {
  const box = el("div", "card");
  box.append(el("div", "k", label), el("div", "v" + (bad ? " bad" : ""), value));
  return box;
}

async function fillTail(id, file) {
  const target = $(id);
  try {
    const chunk = await api("/api/log?" + query({ file, limit: 32768 }));
    const atBottom = target.scrollHeight - target.scrollTop - target.clientHeight < 40 || !target.childElementCount;
    state.log = null;
    target.replaceChildren();
    appendText(target, chunk.text, false);
    if (atBottom) target.scrollTop = target.scrollHeight;
  } catch (e) {
    target.replaceChildren(el("div", "l muted", file + ": " + e.message));
  }
}

async function loadCrashes() {
  const list = $("crashes");
  try {
    const data = await api("/api/crashes");
    if (!data.crashes.length) { list.replaceChildren(el("p", "muted", "No crash reports.")); return; }
    const open = new Set([...list.querySelectorAll("details[open]")].map((d) => d.dataset.id));
    list.replaceChildren(...data.crashes.map((c) => {
      const details = el("details", "crash");
      details.dataset.id = c.id;
      const summary = el("summary");
      summary.append(el("strong", "", stamp(c.time)), el("span", "ids muted", c.id),
        el("span", "muted", c.hasDump ? "dump " + bytes(c.dumpSize) : "no dump"));
      if (c.frames && c.frames.length) {
        const frames = el("ol", "frames");
        frames.start = 0;
        frames.append(...c.frames.map((f) => el("li", "", f)));
        summary.append(frames);
      }
      const body = el("pre", "", c.hasReport ? "Loading\u2026" : "No readable report yet.");
      details.append(summary, body);
      details.addEventListener("toggle", async () => {
        if (!details.open || !c.hasReport || details.dataset.loaded) return;
        details.dataset.loaded = "1";
        try { body.textContent = visible((await api("/api/crash?" + query({ id: c.id }))).text); }
        catch (e) { body.textContent = "cannot read the report: " + e.message; }
      });
      if (open.has(c.id)) details.open = true;
      return details;
    }));
  } catch (e) {
    list.replaceChildren(el("p", "note bad", "cannot list crash reports: " + e.message));
  }
}

async function loadHealth() {
  try {
    const s = await api("/api/stats");
    const c = s.counters;
    const pill = $("stats-state");
    pill.textContent = s.reachable ? (c.connected ? "collector connected" : "collector reconnecting") : "collector not answering";
    pill.className = "pill " + (s.reachable && c.connected ? "ok" : "bad");
    pill.title = s.error || "";
    const cards = [];
    if (s.reachable) {
      cards.push(card("Requests served", (c.requests || 0).toLocaleString()));
      cards.push(card("Lines written", (c.linesWritten || 0).toLocaleString()));
      cards.push(card("Bytes written", bytes(c.bytesWritten || 0)));
      cards.push(card("Queue depth", (c.queueDepth || 0).toLocaleString()));
      for (const [k, v] of Object.entries(c)) {
        if (k.startsWith("errors.")) cards.push(card("Errors: " + k.slice(7), v.toLocaleString(), v > 0));
        if (k.startsWith("refused.")) cards.push(card("Refused: " + k.slice(8), v.toLocaleString(), v > 0));
      }
    } else {
      cards.push(card("Collector", "no answer", true));
    }
    cards.push(card("Live tails open", String(s.tailClients)));
    $("counters").replaceChildren(...cards);
    // Device text: el() sets textContent only.
    const refusals = (s.refusals || []).slice().reverse();
    $("refusals").replaceChildren(...(refusals.length ? refusals.map((r) => {
      const row = el("div", "l");
      row.append(el("span", "muted", stamp(r.time / 1000) + " "), el("strong", "", r.request + " "),
        el("span", "", (r.account || "(no account)") + (r.source ? " \u2192 " + r.source : "") + ": "),
        el("span", "muted", r.reason));
      return row;
    }) : [el("p", "muted", "No refused requests.")]));
  } catch (e) {
    $("counters").replaceChildren(card("Counters", e.message, true));
  }
  fillTail("own-log", "NimbRemoteLogger.log");
  fillTail("errors-log", "errors.log");
  loadCrashes();
  loadHealthMemory();
}

// ---- start ----

document.addEventListener("DOMContentLoaded", () => {
  initTheme();
  initZone();
  initSort();
  initSearch();
  $("load-earlier").addEventListener("click", loadEarlier);
  state.logLive = liveList($("log-lines"), $("new-lines"), "older lines left this view to keep it light; open the log again to read them",
    () => {
      if (state.log) state.log.earlier = null;
      $("load-earlier").hidden = true;
    });
  $("load-later").addEventListener("click", loadLater);
  $("log-level").addEventListener("change", applyLevelFilter);
  $("live").addEventListener("change", toggleLive);
  // Times shown again in the zone chosen.
  document.addEventListener("zonechange", () => {
    if (state.view === "devices") loadDevices();
    if (state.view === "search") route();
    if (state.view === "health") loadHealth();
  });
  window.addEventListener("hashchange", route);
  route();
});
