// Nimb logs: the Alerts view. Rules and channels are edited here and kept by the server;
// a channel's secret is only ever sent, never shown (the server says whether one is
// stored). Fired alerts show device text through el() (textContent), like every view.
"use strict";

const alerts = { data: null };

async function post(path, body) {
  const response = await fetch(path, {
    method: "POST",
    headers: { "Content-Type": "application/json", Accept: "application/json" },
    body: JSON.stringify(body),
  });
  const answer = await response.json().catch(() => ({ error: response.statusText }));
  if (!response.ok) throw new Error(answer.error || response.statusText);
  return answer;
}

function showError(id, message) {
  const note = $(id);
  note.textContent = message || "";
  note.hidden = !message;
}

function levelText(level) {
  return { emerg: "emergency", alert: "alert", crit: "critical", error: "error", warning: "warning", notice: "notice", info: "info", debug: "debug" }[level] || level;
}

function ruleSummary(rule) {
  if (rule.kind === "silent") {
    return (rule.device ? rule.device : "any device") + " silent for " + rule.silentMinutes + " min";
  }
  const parts = [];
  parts.push(rule.text ? (rule.regex ? "/" + rule.text + "/" : "\u201c" + rule.text + "\u201d") : "any line");
  if (rule.level) parts.push(levelText(rule.level) + " and worse");
  parts.push(rule.device ? "on " + rule.device : "on any device");
  if (rule.log) parts.push("in " + rule.log);
  if (rule.count > 1) parts.push(rule.count + " within " + rule.minutes + " min");
  return parts.join(", ");
}

function ruleRow(rule, status, channels) {
  const row = el("div", "row" + (rule.enabled ? "" : " off"));
  const main = el("div", "grow");
  main.append(el("strong", "", rule.name), el("div", "muted small", ruleSummary(rule)));
  const names = rule.channels.map((id) => (channels.find((c) => c.id === id) || { name: id }).name);
  const side = el("div", "small muted");
  side.append(el("div", "", names.length ? "\u2192 " + names.join(", ") : "no channel: listed here only"));
  const quietUntil = status && status.quietUntil * 1000 > Date.now();
  side.append(el("div", "", !rule.enabled ? "disabled"
    : quietUntil ? "quiet until " + stamp(status.quietUntil) + (status.pending ? ", " + plural(status.pending, "match") + " waiting" : "")
    : status && status.lastFired ? "last fired " + ago(status.lastFired) : "quiet period " + rule.quietMinutes + " min"));
  const edit = el("button", "ghost small", "Edit");
  edit.type = "button";
  edit.addEventListener("click", () => editRule(rule));
  const remove = el("button", "ghost small", "Delete");
  remove.type = "button";
  remove.addEventListener("click", async () => {
    if (!confirm("Delete the rule \u201c" + rule.name + "\u201d?")) return;
    try { await post("/api/alerts/rule/delete", { id: rule.id }); loadAlerts(); }
    catch (e) { alert(e.message); }
  });
  row.append(main, side, edit, remove);
  return row;
}

function channelRow(channel) {
  const row = el("div", "row");
  const main = el("div", "grow");
  const kinds = { webhook: "web hook", ntfy: "push topic", email: "mail" };
  main.append(el("strong", "", channel.name),
    el("div", "muted small", kinds[channel.kind] + " \u00b7 " + channel.url +
      (channel.kind === "email" ? " \u00b7 to " + channel.to.join(", ") : "") +
      (channel.hasSecret ? " \u00b7 secret stored" : "")));
  const result = el("span", "small");
  const test = el("button", "ghost small", "Send a test");
  test.type = "button";
  test.addEventListener("click", async () => {
    test.disabled = true;
    result.textContent = "sending\u2026";
    result.className = "small muted";
    try {
      const answer = await post("/api/alerts/test", { channel: channel.id });
      result.textContent = answer.ok ? "sent" : "failed: " + answer.error;
      result.className = "small " + (answer.ok ? "ok" : "bad");
    } catch (e) {
      result.textContent = "failed: " + e.message;
      result.className = "small bad";
    }
    test.disabled = false;
  });
  const edit = el("button", "ghost small", "Edit");
  edit.type = "button";
  edit.addEventListener("click", () => editChannel(channel));
  const remove = el("button", "ghost small", "Delete");
  remove.type = "button";
  remove.addEventListener("click", async () => {
    if (!confirm("Delete the channel \u201c" + channel.name + "\u201d?")) return;
    try { await post("/api/alerts/channel/delete", { id: channel.id }); loadAlerts(); }
    catch (e) { alert(e.message); }
  });
  row.append(main, result, test, edit, remove);
  return row;
}

function firedRow(fired) {
  const levels = { emerg: 0, alert: 1, crit: 2, error: 3, warning: 4 };
  const row = el("div", "row fired" + severityClass(levels[fired.severity]));
  const main = el("div", "grow");
  const head = el("div");
  head.append(el("span", "muted", stamp(fired.time) + " "), el("strong", "", fired.title));
  main.append(head);
  if (fired.lines.length) {
    const lines = el("div", "lines compact");
    for (const line of fired.lines) lines.append(el("div", "l", line));
    main.append(lines);
  }
  const side = el("div", "small");
  for (const d of fired.deliveries) {
    side.append(el("div", d.status === "sent" ? "ok" : d.status === "failed" ? "bad" : "muted",
      d.channelName + ": " + (d.status === "sent" ? "sent " + stamp(d.sent)
        : d.status === "failed" ? "failed: " + d.error
        : d.attempts ? "retrying (" + d.error + ")" : "sending")));
  }
  if (!fired.deliveries.length) side.append(el("div", "muted", "no channel"));
  if (fired.file) {
    const link = el("a", "", "Show the lines");
    link.href = "#/log?" + query({ file: fired.file, generation: fired.generation, at: fired.offset });
    side.append(link);
  }
  row.append(main, side);
  return row;
}

async function loadAlerts() {
  let data;
  try {
    data = await api("/api/alerts");
  } catch (e) {
    showError("alerts-problem", "cannot read the alerts: " + e.message);
    return;
  }
  alerts.data = data;
  const pill = $("alerts-state");
  const ok = data.status.running && data.status.indexAvailable;
  pill.textContent = !data.status.running ? "not running" : data.status.indexAvailable ? "watching" : "waiting for the index";
  pill.className = "pill " + (ok ? "ok" : "bad");
  showError("alerts-problem", data.status.problem);
  $("rules").replaceChildren(...(data.rules.length
    ? data.rules.map((r) => ruleRow(r, data.status.rules[r.id], data.channels))
    : [el("p", "muted", "No rules yet.")]));
  $("channels").replaceChildren(...(data.channels.length
    ? data.channels.map(channelRow)
    : [el("p", "muted", "No channels yet: fired alerts are only listed below.")]));
  $("fired").replaceChildren(...(data.fired.length
    ? data.fired.map(firedRow)
    : [el("p", "muted", "Nothing has fired.")]));
}

// ---- the rule editor ----

function showRuleKind() {
  const silent = $("rule-kind").value === "silent";
  for (const node of document.querySelectorAll("#rule-form .match-only")) node.hidden = silent;
  for (const node of document.querySelectorAll("#rule-form .silent-only")) node.hidden = !silent;
}

function editRule(rule) {
  const r = rule || { name: "", kind: "match", text: "", regex: false, level: "error", device: "", log: "", count: 1, minutes: 5, silentMinutes: 30, quietMinutes: 1, enabled: true, channels: [] };
  $("rule-id").value = r.id || "";
  $("rule-name").value = r.name;
  $("rule-kind").value = r.kind;
  $("rule-text").value = r.text;
  $("rule-regex").checked = r.regex;
  $("rule-level").value = r.level || "";
  $("rule-device").value = r.device;
  $("rule-log").value = r.log;
  $("rule-count").value = r.count;
  $("rule-minutes").value = r.minutes;
  $("rule-silent").value = r.silentMinutes;
  $("rule-quiet").value = r.quietMinutes;
  $("rule-enabled").checked = r.enabled;
  const channels = (alerts.data && alerts.data.channels) || [];
  $("rule-channels").replaceChildren(...(channels.length ? channels.map((c) => {
    const label = el("label", "check");
    const box = el("input");
    box.type = "checkbox";
    box.value = c.id;
    box.checked = r.channels.includes(c.id);
    label.append(box, document.createTextNode(" " + visible(c.name)));
    return label;
  }) : [el("span", "muted small", "No channel yet: add one below; the rule's alerts are listed here meanwhile.")]));
  showError("rule-error", "");
  showRuleKind();
  $("rule-form").hidden = false;
  $("rule-name").focus();
}

async function saveRule(event) {
  event.preventDefault();
  const rule = {
    name: $("rule-name").value, kind: $("rule-kind").value, text: $("rule-text").value,
    regex: $("rule-regex").checked, level: $("rule-level").value, device: $("rule-device").value,
    log: $("rule-log").value, count: Number($("rule-count").value), minutes: Number($("rule-minutes").value),
    silentMinutes: Number($("rule-silent").value), quietMinutes: Number($("rule-quiet").value),
    enabled: $("rule-enabled").checked,
    channels: [...document.querySelectorAll("#rule-channels input:checked")].map((b) => b.value),
  };
  if ($("rule-id").value) rule.id = $("rule-id").value;
  try {
    await post("/api/alerts/rule", rule);
    $("rule-form").hidden = true;
    loadAlerts();
  } catch (e) {
    showError("rule-error", e.message);
  }
}

// ---- the channel editor ----

function showChannelKind() {
  const kind = $("channel-kind").value;
  for (const node of document.querySelectorAll("#channel-form .email-only")) node.hidden = kind !== "email";
  for (const node of document.querySelectorAll("#channel-form .ntfy-only")) node.hidden = kind !== "ntfy";
  $("channel-secret-label").textContent = kind === "email" ? "Password" : "Bearer token";
  $("channel-url").placeholder = kind === "email" ? "smtp://mail.example.org:587" : kind === "ntfy" ? "https://ntfy.example.org/home-alerts" : "https://hooks.example.org/alerts";
}

function editChannel(channel) {
  const c = channel || { name: "", kind: "webhook", url: "", user: "", from: "", to: [], priority: 3, caFile: "", hasSecret: false };
  $("channel-id").value = c.id || "";
  $("channel-name").value = c.name;
  $("channel-kind").value = c.kind;
  $("channel-url").value = c.url;
  $("channel-user").value = c.user;
  $("channel-from").value = c.from;
  $("channel-to").value = c.to.join(", ");
  $("channel-priority").value = String(c.priority);
  $("channel-ca").value = c.caFile;
  $("channel-secret").value = "";
  $("channel-secret").placeholder = c.hasSecret ? "stored \u2014 leave empty to keep it" : "none";
  showError("channel-error", "");
  showChannelKind();
  $("channel-form").hidden = false;
  $("channel-name").focus();
}

async function saveChannel(event) {
  event.preventDefault();
  const channel = {
    name: $("channel-name").value, kind: $("channel-kind").value, url: $("channel-url").value,
    user: $("channel-user").value, from: $("channel-from").value,
    to: $("channel-to").value.split(",").map((s) => s.trim()).filter(Boolean),
    priority: Number($("channel-priority").value), caFile: $("channel-ca").value,
  };
  if ($("channel-id").value) channel.id = $("channel-id").value;
  if ($("channel-secret").value) channel.secret = $("channel-secret").value;
  try {
    await post("/api/alerts/channel", channel);
    $("channel-secret").value = "";
    $("channel-form").hidden = true;
    loadAlerts();
  } catch (e) {
    showError("channel-error", e.message);
  }
}

document.addEventListener("DOMContentLoaded", () => {
  $("rule-new").addEventListener("click", () => editRule(null));
  $("rule-cancel").addEventListener("click", () => { $("rule-form").hidden = true; });
  $("rule-kind").addEventListener("change", showRuleKind);
  $("rule-form").addEventListener("submit", saveRule);
  $("channel-new").addEventListener("click", () => editChannel(null));
  $("channel-cancel").addEventListener("click", () => { $("channel-form").hidden = true; });
  $("channel-kind").addEventListener("change", showChannelKind);
  $("channel-form").addEventListener("submit", saveChannel);
});
