// The Health page's memory: the collector's counters over the last hour, day or week as
// small charts (hover or touch one for its values), the devices that went silent, and
// what the history keeps against its budget. Builds on app.js (el, api, query, stamp,
// bytes, plural, ago, $); device names go into the page as text only.
"use strict";

const health = { range: 3600, fetchedAt: 0, fetchedRange: 0 };

// Each chart: its lines, each the sum of some of the collector's counters.
const healthCharts = [
  { title: "Lines received", unit: "lines", lines: [
    { label: "bus", names: ["linesWritten"] },
    { label: "syslog", names: ["syslog.messages"] }] },
  { title: "Bytes received", unit: "bytes", format: bytes, lines: [
    { label: "bus", names: ["bytesWritten"] },
    { label: "syslog", names: ["syslog.bytes"] }] },
  { title: "Refused, busy, errors", unit: "requests", lines: [
    { label: "busy", names: ["errors.busy"] },
    { label: "errors", names: ["errors.invalid", "errors.write", "errors.unknown", "errors.other"] },
    { label: "refused", names: ["refused.identity", "refused.inbox"] },
    { label: "syslog dropped", names: ["syslog.dropped.rate", "syslog.dropped.senders", "syslog.dropped.file"] }] },
  { title: "Syslog messages", unit: "messages", lines: [
    { label: "written", names: ["syslog.messages"] },
    { label: "cut at the size limit", names: ["syslog.truncated"] }] },
];

function stepText(seconds) {
  if (seconds % 86400 === 0) return plural(seconds / 86400, "day");
  if (seconds % 3600 === 0) return seconds / 3600 + " h";
  return seconds / 60 + " min";
}

const svgNs = "http://www.w3.org/2000/svg";
function svgEl(tag, attributes) {
  const node = document.createElementNS(svgNs, tag);
  for (const [k, v] of Object.entries(attributes || {})) node.setAttribute(k, String(v));
  return node;
}

// One chart: a line per entry of `chart.lines` over the buckets of `data`, gaps where the
// collector wrote nothing; the pointer shows the bucket's time and values.
function seriesChart(chart, data) {
  const n = data.points;
  const W = 1000, H = 100;
  const values = chart.lines.map((line) => {
    const columns = line.names.map((name) => data.series[name]).filter(Boolean);
    return Array.from({ length: n }, (_, i) => columns.length && columns[0][i] !== null
      ? columns.reduce((sum, c) => sum + (c[i] || 0), 0) : null);
  });
  const format = chart.format || ((v) => v.toLocaleString());
  const highest = Math.max(0, ...values.flat().filter((v) => v !== null));
  const peak = Math.max(1, highest);
  const x = (i) => ((i + 0.5) * W) / n;
  const y = (v) => H - 3 - (v / peak) * (H - 8);

  const box = el("figure", "chart");
  const head = el("figcaption");
  head.append(el("strong", "", chart.title),
    el("span", "muted small", highest ? "peak " + format(highest) + " per " + stepText(data.step) : "none in this range"));
  const legend = el("div", "legend small");
  chart.lines.forEach((line, k) => {
    const item = el("span", "key");
    item.append(el("i", "swatch s" + k), document.createTextNode(line.label));
    legend.append(item);
  });
  const svg = svgEl("svg", { class: "series", viewBox: "0 0 " + W + " " + H, preserveAspectRatio: "none", role: "img" });
  svg.append(svgEl("line", { class: "base", x1: 0, x2: W, y1: H - 3, y2: H - 3 }));
  // Steps: each bucket a level across its width, so that a lone busy minute shows; a run
  // of buckets without readings is a gap. The first line has its area shaded.
  values.forEach((list, k) => {
    let d = "", area = "", start = -1;
    const close = (end) => {
      if (start >= 0) area += " L" + ((end * W) / n).toFixed(1) + " " + (H - 3) + " L" + ((start * W) / n).toFixed(1) + " " + (H - 3) + " Z";
      start = -1;
    };
    list.forEach((v, i) => {
      if (v === null) { close(i); return; }
      const x0 = ((i * W) / n).toFixed(1), x1 = (((i + 1) * W) / n).toFixed(1), yv = y(v).toFixed(2);
      d += (start < 0 ? " M" : " L") + x0 + " " + yv + " L" + x1 + " " + yv;
      area += (start < 0 ? " M" : " L") + x0 + " " + yv + " L" + x1 + " " + yv;
      if (start < 0) start = i;
    });
    close(n);
    if (k === 0 && area) svg.append(svgEl("path", { class: "area s0", d: area.trim() }));
    if (d) svg.append(svgEl("path", { class: "s" + k, d: d.trim() }));
  });
  const cursor = svgEl("line", { class: "cursor", y1: 0, y2: H, visibility: "hidden" });
  svg.append(cursor);
  const tip = el("div", "tip");
  tip.hidden = true;
  const plot = el("div", "seriesplot");
  plot.append(svg, tip);
  const point = (event) => {
    const rect = svg.getBoundingClientRect();
    const i = Math.min(n - 1, Math.max(0, Math.floor(((event.clientX - rect.left) / rect.width) * n)));
    cursor.setAttribute("x1", x(i).toFixed(1));
    cursor.setAttribute("x2", x(i).toFixed(1));
    cursor.setAttribute("visibility", "visible");
    const rows = [el("div", "when", stamp(data.since + i * data.step))];
    if (values.every((list) => list[i] === null)) rows.push(el("div", "muted", "no readings (collector not running)"));
    else chart.lines.forEach((line, k) => {
      const row = el("div");
      row.append(el("i", "swatch s" + k), document.createTextNode(line.label + ": " + format(values[k][i] || 0)));
      rows.push(row);
    });
    tip.replaceChildren(...rows);
    tip.hidden = false;
    const left = ((i + 0.5) / n) * rect.width;
    tip.style.left = Math.min(Math.max(0, left - tip.offsetWidth / 2), rect.width - tip.offsetWidth) + "px";
  };
  plot.addEventListener("pointermove", point);
  plot.addEventListener("pointerdown", point);
  plot.addEventListener("pointerleave", () => { tip.hidden = true; cursor.setAttribute("visibility", "hidden"); });
  const label = el("div", "plotlabel");
  label.append(el("span", "", stamp(data.since)), el("span", "", stamp(data.until)));
  box.append(head, legend, plot, label);
  return box;
}

async function loadSeries(force) {
  const now = Date.now() / 1000;
  // The rows are per minute: fetched again on a change of range, else twice a minute.
  if (!force && health.fetchedRange === health.range && now - health.fetchedAt < 30) return;
  health.fetchedAt = now;
  health.fetchedRange = health.range;
  const target = $("charts");
  try {
    const names = [...new Set(healthCharts.flatMap((c) => c.lines.flatMap((l) => l.names)))];
    const until = Math.ceil(now / 60) * 60;
    const data = await api("/api/health/series?" + query({ since: until - health.range, until, step: 60, names: names.join(",") }));
    $("charts-step").textContent = "per " + stepText(data.step);
    if (!data.indexed) {
      target.replaceChildren(el("p", "muted", "The collector keeps its counters over time in its index, which this logs folder does not have (IndexEnabled)."));
      return;
    }
    target.replaceChildren(...healthCharts.map((chart) => seriesChart(chart, data)));
  } catch (e) {
    target.replaceChildren(el("p", "note bad", "cannot read the counters over time: " + e.message));
  }
}

async function loadSilent() {
  const list = $("silent");
  try {
    const data = await api("/api/health/silent");
    $("silent-rule").textContent = "quiet for " + stepText(data.silentAfter) + " or more";
    const rows = data.devices.map((d) => {
      const row = el("div", "silentrow");
      const when = el("span", "muted", stamp(d.lastWrite));
      row.append(el("strong", "truncate", d.name), el("span", "", "last heard " + ago(d.lastWrite)), when);
      return row;
    });
    if (!rows.length) rows.push(el("p", "muted", "Every device that sent in the last week was heard from lately."));
    if (data.quietLonger) rows.push(el("p", "muted small", plural(data.quietLonger, "device") + " quiet for more than a week not listed."));
    list.replaceChildren(...rows);
  } catch (e) {
    list.replaceChildren(el("p", "note bad", "cannot list the devices: " + e.message));
  }
}

// A bar of `part` out of `whole` under its label and figures; every bar's track is the
// panel's width, so that bars compare.
function useBar(label, part, whole, text, cls) {
  const row = el("div", "userow" + (cls ? " " + cls : ""));
  const head = el("div", "usehead");
  head.append(label, el("span", "small muted", text));
  const track = el("div", "track");
  const fill = el("div", "fill" + (part > whole * 0.9 ? " full" : ""));
  fill.style.width = Math.min(100, (part / Math.max(1, whole)) * 100).toFixed(1) + "%";
  track.append(fill);
  row.append(head, track);
  return row;
}

const historyRows = 12;
async function loadHistoryUse() {
  const box = $("history-use");
  try {
    const h = await api("/api/health/history");
    const share = h.budget ? Math.round((h.bytes / h.budget) * 100) : 0;
    $("history-rule").textContent = (h.budgetSet ? "budget " : "default budget ") + bytes(h.budget) +
      (h.maxAgeDays ? ", up to " + plural(h.maxAgeDays, "day") : "");
    const rows = [useBar(el("strong", "", "All devices"), h.bytes, h.budget,
      bytes(h.bytes) + " of " + bytes(h.budget) + " (" + share + " %), " + plural(h.generations, "generation"), "total")];
    for (const d of h.devices.slice(0, historyRows)) {
      const name = el("span", "truncate", d.name);
      name.title = visible(d.key) + " \u00b7 " + plural(d.logs, "log");
      rows.push(useBar(name, d.bytes, h.budget, bytes(d.bytes) + " \u00b7 " + plural(d.generations, "generation")));
    }
    if (h.devices.length > historyRows) rows.push(el("p", "muted small", plural(h.devices.length - historyRows, "more device") + " with less."));
    if (!h.devices.length) rows.push(el("p", "muted", "No rotated generations kept yet."));
    box.replaceChildren(...rows);
  } catch (e) {
    box.replaceChildren(el("p", "note bad", "cannot measure the history: " + e.message));
  }
}

// Called by loadHealth on each refresh of the page.
function loadHealthMemory() {
  loadSeries(false);
  loadSilent();
  loadHistoryUse();
}

document.addEventListener("DOMContentLoaded", () => {
  for (const button of document.querySelectorAll("#range button")) {
    button.addEventListener("click", () => {
      health.range = Number(button.dataset.range);
      for (const b of document.querySelectorAll("#range button")) b.setAttribute("aria-pressed", String(b === button));
      loadSeries(true);
    });
  }
});
