// Nimb logs: the timeline, the lines of several devices' logs merged in time order
// (/api/timeline): all devices, a chosen set, or the lines a search finds; filtered by
// severity, text and time; paged earlier and later; following new lines live. Built on
// app.js (el, visible, stamp, api, the live-list helpers); device text goes into the page
// as text only.
"use strict";

const timeline = {
  params: null,     // the view's link parameters
  base: "",         // the request's parameters without a cursor
  earlier: null,    // cursors of the text before and after what is shown
  later: null,
  token: "",        // the live token: what arrived after it comes next
  timer: 0,
  run: 0,           // counts openings, so that answers to an older one are dropped
  busy: false,
  list: null,       // the live list (app.js)
  recent: [],       // keys of the newest lines, so that a line shown is not added twice
  recentKeys: new Set(),
};

// Lines per page, and how often the live view asks for new lines.
const timelinePage = 300;
const timelinePollMs = 1500;
const timelineRecentKeys = 4000;

// One of eight colours per device, so that a device's lines are told apart at a glance.
function deviceColour(key) {
  let h = 0;
  for (const c of key || "") h = (h * 31 + c.charCodeAt(0)) >>> 0;
  return "dev-" + (h % 8);
}

function timelineRow(line, logs, fresh) {
  const info = logs[line.file] || {};
  const row = el("div", "l tl" + (line.header ? " hdr" : severityClass(line.level)) + (fresh ? " new" : ""));
  const when = el("span", "when", stamp(line.t, true));
  when.dataset.t = line.t;
  when.title = stamp(line.t);
  const source = el("span", "src " + deviceColour(info.device));
  source.append(el("span", "dev", info.name || info.device || ""), el("span", "log", info.log || line.file));
  source.title = visible(line.file) + (info.device ? " \u00b7 " + visible(info.device) : "");
  const text = el("span", "msg");
  if (line.header) text.append(el("span", "badge", "announce"), " ");
  if (line.parts) {
    line.parts.forEach((part, i) => text.append(i % 2 ? el("mark", "", part) : document.createTextNode(visible(part))));
  } else {
    text.append(document.createTextNode(visible(line.text)));
  }
  const link = el("a", "perma", "\u00b6");
  link.href = "#/log?" + query({ file: line.file, generation: line.generation, at: line.offset });
  link.title = "Open the log at this line";
  link.setAttribute("aria-label", "Open the log at this line");
  row.append(when, source, text, link);
  return row;
}

function remember(key) {
  timeline.recent.push(key);
  timeline.recentKeys.add(key);
  while (timeline.recent.length > timelineRecentKeys) timeline.recentKeys.delete(timeline.recent.shift());
}

// Adds an answer's lines at the end (or the start), leaving out those already shown.
// Returns how many it added.
function addTimelineLines(data, where, fresh) {
  const rows = [];
  for (const line of data.lines) {
    if (timeline.recentKeys.has(line.key)) continue;
    remember(line.key);
    rows.push(timelineRow(line, data.logs || {}, fresh));
  }
  const lines = $("tl-lines");
  if (where === "start") lines.prepend(...rows);
  else lines.append(...rows);
  return rows.length;
}

// The request's parameters for the view's link parameters.
function timelineRequest(params) {
  const q = new URLSearchParams();
  for (const name of ["device", "file"]) for (const value of params.getAll(name)) q.append(name, value);
  for (const name of ["q", "regex", "level"]) if (params.get(name)) q.set(name, params.get(name));
  const range = timeRange(params);
  if (!isNaN(range.from)) q.set("from", isoUtc(range.from));
  if (!isNaN(range.to)) q.set("to", isoUtc(range.to));
  return q.toString();
}

function fillTimelineForm(params) {
  const chosen = new Set(params.getAll("device"));
  const picks = state.devices.map((d) => {
    const label = el("label", "pick " + deviceColour(d.key));
    const box = document.createElement("input");
    box.type = "checkbox";
    box.value = d.key;
    box.checked = chosen.has(d.key);
    label.append(box, el("span", "", d.name));
    label.title = visible(d.key);
    return label;
  });
  const files = params.getAll("file");
  for (const f of files) picks.push(el("span", "pick chosen-log", "log: " + f));
  if (!picks.length) picks.push(el("span", "muted", "no device yet"));
  $("tl-devices").replaceChildren(...picks);
  $("tl-q").value = params.get("q") || "";
  $("tl-regex").checked = params.get("regex") === "1";
  $("tl-level").value = params.get("level") || "";
  const range = timeRange(params);
  $("tl-from").value = isNaN(range.from) ? "" : fieldValue(range.from);
  $("tl-to").value = isNaN(range.to) ? "" : fieldValue(range.to);
  markRelative($("tl-form"), params.get("last"));
}

function timelineMeta(note) {
  const count = $("tl-lines").querySelectorAll(".l.tl").length;
  const devices = timeline.params.getAll("device").length;
  const files = timeline.params.getAll("file").length;
  const scope = files ? plural(files, "log") : devices ? plural(devices, "device") : "every device";
  $("tl-meta").textContent = plural(count, "line") + " of " + scope + " \u00b7 times in " + zoneLabel() + (note ? " \u00b7 " + note : "");
}

function setTimelineLabel(text) { $("tl-live-label").textContent = text; }

function stopTimeline() {
  clearTimeout(timeline.timer);
  timeline.timer = 0;
}

// Asks for the lines that arrived since the token, appends them in time order, again and again.
async function pollTimeline(run) {
  if (run !== timeline.run || !$("tl-live").checked || !timeline.token) return;
  let delay = timelinePollMs;
  try {
    const data = await api("/api/timeline?" + timeline.base + "&live=" + encodeURIComponent(timeline.token));
    if (run !== timeline.run) return;
    timeline.token = data.live;
    const lines = $("tl-lines");
    const atBottom = atLinesBottom(lines);
    const added = addTimelineLines(data, "end", true);
    if (added) {
      arrived(timeline.list, added, atBottom);
      timelineMeta();
    }
    setTimelineLabel("Live");
    if (data.cut) delay = 100;  // more is waiting
  } catch (e) {
    if (run !== timeline.run) return;
    setTimelineLabel("Reconnecting\u2026");
    delay = 3000;
  }
  if ($("tl-live").checked) timeline.timer = setTimeout(() => pollTimeline(run), delay);
}

// Live follows from the present: a view that did not start there takes a token now.
async function startTimelineLive() {
  stopTimeline();
  const run = timeline.run;
  if (timeline.later || !isNaN(timeRange(timeline.params).to)) {
    setTimelineLabel(timeline.later ? "Paused (load later first)" : "Paused (the range ends)");
    return;
  }
  if (!timeline.token) {
    try {
      const data = await api("/api/timeline?" + timeline.base + "&limit=50");
      if (run !== timeline.run) return;
      timeline.token = data.live;
      const atBottom = atLinesBottom($("tl-lines"));
      const added = addTimelineLines(data, "end", true);
      if (added) arrived(timeline.list, added, atBottom);
    } catch (e) {
      setTimelineLabel("Paused");
      return;
    }
  }
  setTimelineLabel("Live");
  pollTimeline(run);
}

async function openTimeline(params) {
  stopTimeline();
  state.leave = stopTimeline;
  const run = ++timeline.run;
  timeline.params = params;
  try { state.devices = (await api("/api/devices")).devices; } catch (e) { /* the list stays as it was */ }
  if (run !== timeline.run) return;
  fillTimelineForm(params);
  const lines = $("tl-lines");
  lines.replaceChildren();
  timeline.recent = [];
  timeline.recentKeys.clear();
  timeline.token = "";
  resetLive(timelineList());
  timeline.base = timelineRequest(params);
  // An exact range starts at its beginning; otherwise the view starts at the newest lines.
  const from = params.get("last") ? NaN : paramSeconds(params.get("from"));
  const start = isNaN(from) ? "" : "&after=" + Math.floor(from);
  $("tl-earlier").hidden = true;
  $("tl-later").hidden = true;
  $("tl-meta").textContent = "Loading\u2026";
  try {
    const data = await api("/api/timeline?" + timeline.base + "&limit=" + timelinePage + start);
    if (run !== timeline.run) return;
    addTimelineLines(data, "end", false);
    timeline.earlier = start ? null : data.earlier || null;
    timeline.later = data.later || null;
    timeline.token = data.live || "";
    $("tl-earlier").hidden = !timeline.earlier;
    $("tl-later").hidden = !timeline.later;
    timelineMeta(data.cut ? "reading stopped at its limit; \u201cLoad " + (start ? "later" : "earlier") + "\u201d goes on" : "");
    if (start) lines.scrollTop = 0;
    else lines.scrollTop = lines.scrollHeight;
    if ($("tl-live").checked) startTimelineLive();
    else setTimelineLabel("Paused");
  } catch (e) {
    if (run !== timeline.run) return;
    $("tl-meta").textContent = "cannot show the timeline: " + e.message;
  }
}

// "Load earlier" and "Load later": the page before the first line shown, after the last.
async function loadTimeline(direction) {
  const cursor = direction === "earlier" ? timeline.earlier : timeline.later;
  if (!cursor || timeline.busy) return;
  const run = timeline.run;
  timeline.busy = true;
  try {
    const data = await api("/api/timeline?" + timeline.base + "&limit=" + timelinePage + "&" +
      (direction === "earlier" ? "before=" : "after=") + encodeURIComponent(cursor));
    if (run !== timeline.run) return;
    const lines = $("tl-lines");
    if (direction === "earlier") {
      const height = lines.scrollHeight;
      addTimelineLines(data, "start", false);
      lines.scrollTop += lines.scrollHeight - height;
      timeline.earlier = data.earlier || null;
    } else {
      addTimelineLines(data, "end", false);
      timeline.later = data.later || null;
      if (!timeline.later && $("tl-live").checked) startTimelineLive();
    }
    $("tl-earlier").hidden = !timeline.earlier;
    $("tl-later").hidden = !timeline.later;
    timelineMeta(data.cut ? "reading stopped at its limit; press again to go on" : "");
  } catch (e) {
    $("tl-meta").textContent = "cannot load " + direction + " lines: " + e.message;
  } finally {
    timeline.busy = false;
  }
}

function submitTimeline() {
  const params = new URLSearchParams();
  for (const box of $("tl-devices").querySelectorAll("input:checked")) params.append("device", box.value);
  if (timeline.params) for (const f of timeline.params.getAll("file")) params.append("file", f);
  const fields = { q: $("tl-q").value, regex: $("tl-regex").checked ? "1" : "", level: $("tl-level").value, ...rangeParams($("tl-form")) };
  for (const [k, v] of Object.entries(fields)) if (v) params.set(k, v);
  const target = "#/timeline?" + params.toString();
  if (location.hash === target) route(); else location.hash = target;
}

// The view's live list, made on first use (app.js may open the view before this file's
// start-up ran).
function timelineList() {
  if (!timeline.list) {
    timeline.list = liveList($("tl-lines"), $("tl-new-lines"), "older lines left this view to keep it light; show the timeline again to read them",
      () => {
        timeline.earlier = null;
        $("tl-earlier").hidden = true;
      });
  }
  return timeline.list;
}

document.addEventListener("DOMContentLoaded", () => {
  timelineList();
  $("tl-form").addEventListener("submit", (event) => {
    event.preventDefault();
    submitTimeline();
  });
  $("tl-devices").addEventListener("change", submitTimeline);
  $("tl-level").addEventListener("change", submitTimeline);
  initRange($("tl-form"), submitTimeline);
  $("tl-earlier").addEventListener("click", () => loadTimeline("earlier"));
  $("tl-later").addEventListener("click", () => loadTimeline("later"));
  $("tl-live").addEventListener("change", () => {
    if ($("tl-live").checked) startTimelineLive();
    else { stopTimeline(); setTimelineLabel("Paused"); }
  });
  // Every time shown again in the zone chosen, the fields too.
  document.addEventListener("zonechange", () => {
    if (state.view !== "timeline" || !timeline.params) return;
    for (const when of $("tl-lines").querySelectorAll(".when")) {
      when.textContent = stamp(Number(when.dataset.t), true);
      when.title = stamp(Number(when.dataset.t));
    }
    const range = timeRange(timeline.params);
    $("tl-from").value = isNaN(range.from) ? "" : fieldValue(range.from);
    $("tl-to").value = isNaN(range.to) ? "" : fieldValue(range.to);
    timelineMeta();
  });
});
