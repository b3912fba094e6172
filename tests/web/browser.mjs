// The page in a real headless Chromium (puppeteer-core over the DevTools protocol).
// Run by Browser_test.cpp, which starts nats-server, the collector and nimb-web and
// passes: WEB_URL, LOGPUSH (the program), BUS (host:port), LOGS, SCREENSHOTS (folder),
// CHROMIUM (the browser), NODE_MODULES, and LIVE_ROUNDS (how many live lines to time).
// Prints one JSON line of figures; exits non-zero with the reason on any failure.
import { createRequire } from "node:module";
import { execFileSync } from "node:child_process";
import { appendFileSync, mkdtempSync, mkdirSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { alertSteps } from "./browser-alerts.mjs";
import healthMemory from "./browser-health.mjs";
import { timelineSteps } from "./browser-timeline.mjs";

const require = createRequire(process.env.NODE_MODULES + "/");
const puppeteer = require("puppeteer-core");

const url = process.env.WEB_URL;
const shots = process.env.SCREENSHOTS;
const rounds = Number(process.env.LIVE_ROUNDS || "5");
const device = ["--host", process.env.BUS, "--mac", "00:11:22:33:44:55", "--device-id", "puck-7",
  "--name", "Living room", "--log", "system.log", "--no-time", "--retry-for", "5000"];
mkdirSync(shots, { recursive: true });

function fail(message) { throw new Error(message); }

// Back to the device list by its link, once the list was loaded again.
async function backToDevices(page) {
  const old = await page.$("#devices .device");
  await page.click(".back");
  await page.waitForFunction((card) => !$("view-devices").hidden && (!card || !card.isConnected) && $("devices").querySelector(".device"),
    { timeout: 5000 }, old);
}

// Waits (at most `ms`) for `expression` to hold in the page; fails saying what was awaited.
async function until(page, expression, ms, what) {
  try { await page.waitForFunction(expression, { timeout: ms }); } catch (e) { fail("waited " + ms + " ms in vain for " + what); }
}

// Pushes text as the device, like a device would (to its log `log`, system.log unless
// said); returns when the collector replied.
function push(text, log) {
  const dir = mkdtempSync(join(tmpdir(), "push-"));
  const file = join(dir, "piece.log");
  writeFileSync(file, text);
  const args = device.map((a) => (a === "system.log" && log ? log : a));
  execFileSync(process.env.LOGPUSH, [...args, file], { stdio: ["ignore", "ignore", "inherit"], timeout: 30000 });
}

const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

async function shoot(page, name, width, height, theme) {
  await page.setViewport({ width, height, deviceScaleFactor: 1 });
  await page.evaluate((t) => { localStorage.setItem("theme", t); document.documentElement.dataset.theme = t; }, theme);
  await new Promise((r) => setTimeout(r, 150));
  await page.screenshot({ path: join(shots, name + "-" + (width < 600 ? "phone" : "laptop") + "-" + theme + ".png") });
}

async function allShots(page, name) {
  for (const theme of ["light", "dark"]) {
    await shoot(page, name, 1280, 800, theme);
    await shoot(page, name, 390, 844, theme);
  }
  await page.setViewport({ width: 1280, height: 800 });
}

const now = new Date();
const pad = (n) => String(n).padStart(2, "0");
const stamp = (d) => `${d.getFullYear()}/${pad(d.getMonth() + 1)}/${pad(d.getDate())} ${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`;
const hostile = [
  "<script>window.__pwned = 1</script>",
  "</textarea><img src=x onerror=\"window.__pwned = 2\">",
  "<a href=\"javascript:window.__pwned = 3\">click</a>",
  "\u001b[31mred text\u001b[0m after an escape",
  "invoice_\u202egnp.exe and a\u200bhidden\u2066 isolate\u2069",
].join("\n");
let seed = "";
for (let i = 40; i > 0; i--) seed += stamp(new Date(now - i * 60000)) + " service heartbeat " + i + "\n";
push(seed + stamp(now) + " disk needle found on /dev/sda1\n" + hostile + "\n");

const browser = await puppeteer.launch({
  executablePath: process.env.CHROMIUM,
  headless: true,
  userDataDir: mkdtempSync(join(tmpdir(), "chromium-")),
  args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
    "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage"],
});
const figures = {};
try {
  const page = await browser.newPage();
  const problems = [];
  page.on("pageerror", (e) => problems.push("page error: " + e.message));
  page.on("console", (m) => { if (m.type() === "error") problems.push("console: " + m.text()); });
  await page.setViewport({ width: 1280, height: 800 });

  // The device list appears.
  await page.goto(url, { waitUntil: "domcontentloaded" });
  await page.waitForSelector(".device", { timeout: 5000 });
  const name = await page.$eval(".device .name", (e) => e.textContent);
  if (name !== "Living room") fail("device name shown as " + JSON.stringify(name));
  await allShots(page, "devices");

  // A log opens, header lines marked, the hostile lines inert.
  const opened = Date.now();
  await page.click(".device .chip");
  await page.waitForFunction(() => [...document.querySelectorAll("#log-lines .l")].some((l) => l.textContent.includes("needle")), { timeout: 5000 });
  figures.openLogMs = Date.now() - opened;
  const check = await page.evaluate(() => ({
    pwned: window.__pwned,
    headers: document.querySelectorAll("#log-lines .l.hdr").length,
    markup: document.querySelectorAll("#log-lines script, #log-lines img, #log-lines a, #log-lines textarea").length,
    script: [...document.querySelectorAll("#log-lines .l")].some((l) => l.textContent === "<script>window.__pwned = 1</script>"),
    escape: [...document.querySelectorAll("#log-lines .l")].some((l) => l.textContent.startsWith("\u241b[31mred")),
    bidi: [...document.querySelectorAll("#log-lines .l")].map((l) => l.textContent).filter((t) => t.startsWith("invoice_")),
  }));
  if (check.pwned !== undefined) fail("device text ran as script: " + check.pwned);
  if (check.markup !== 0) fail("device text became markup");
  if (!check.script) fail("the <script> line is not shown as text");
  if (!check.escape) fail("the escape character is not shown as a visible symbol");
  // Bidirectional controls and zero-width characters show by name; none reaches the page raw.
  if (check.bidi.length !== 1 ||
      check.bidi[0] !== "invoice_\u27e8RLO\u27e9gnp.exe and a\u27e8ZWSP\u27e9hidden\u27e8LRI\u27e9 isolate\u27e8PDI\u27e9")
    fail("format characters shown as " + JSON.stringify(check.bidi));
  if (check.headers < 1) fail("no header line is marked");

  // Lines pushed now appear live, each within 2 s of the collector's reply.
  const latencies = [];
  for (let i = 0; i < rounds; i++) {
    const marker = "live line " + i + " " + Math.random().toString(36).slice(2);
    push(stamp(new Date()) + " " + marker + "\n");
    const replied = Date.now();
    await page.waitForFunction((m) => [...document.querySelectorAll("#log-lines .l")].some((l) => l.textContent.endsWith(m)), { timeout: 2000 }, marker);
    latencies.push(Date.now() - replied);
  }
  latencies.sort((a, b) => a - b);
  figures.liveP50Ms = latencies[Math.floor(latencies.length / 2)];
  figures.liveMaxMs = latencies[latencies.length - 1];
  await allShots(page, "log");

  // Lines of three levels arrive while the log is open and live: errors and warnings
  // carry their level, the rest none, and "Show" hides the lower levels.
  const lineWith = (text) => `[...document.querySelectorAll("#log-lines .l")].find((l) => l.textContent.endsWith(${JSON.stringify(text)}))`;
  const levelOf = (text) => page.evaluate(`(() => { const l = ${lineWith(text)}; return l ? { cls: l.className, shown: getComputedStyle(l).display !== "none" } : null; })()`);
  const t = stamp(new Date());
  push(`${t} app: ERROR: disk failing\n${t} app: WARN: disk slow\n${t} app: INFO: disk checked\n`);
  await until(page, `(${lineWith("ERROR: disk failing")} || {}).className?.includes("sev-err")`, 5000, "the live error line to carry its level");
  const levels = async () => ({
    err: await levelOf("ERROR: disk failing"), warn: await levelOf("WARN: disk slow"), info: await levelOf("INFO: disk checked"),
  });
  const expectLevels = (seen, where) => {
    if (!/\bsev-err\b/.test(seen.err.cls)) fail(where + ": the error line is classed " + JSON.stringify(seen.err.cls));
    if (!/\bsev-warn\b/.test(seen.warn.cls)) fail(where + ": the warning line is classed " + JSON.stringify(seen.warn.cls));
    if (/\bsev-/.test(seen.info.cls)) fail(where + ": the info line is classed " + JSON.stringify(seen.info.cls));
  };
  expectLevels(await levels(), "live");
  const showing = async (value) => {
    await page.select("#log-level", value);
    const seen = await levels();
    return [seen.err.shown, seen.warn.shown, seen.info.shown].join(" ");
  };
  if ((await showing("error")) !== "true false false") fail("errors and worse shows " + await showing("error"));
  if ((await showing("warning")) !== "true true false") fail("warnings and worse shows " + await showing("warning"));
  await page.evaluate(() => new Promise((r) => setTimeout(r, 1300)));  // the arrival flash fades
  await shoot(page, "levels-filtered", 1280, 800, "light");
  if ((await showing("")) !== "true true true") fail("all lines shows " + await showing(""));
  await page.evaluate(() => { const l = $("log-lines"); l.scrollTop = l.scrollHeight; });
  await shoot(page, "levels", 1280, 800, "light");
  await shoot(page, "levels", 1280, 800, "dark");
  await page.setViewport({ width: 1280, height: 800 });

  // A device sends a header-shaped line as its text: it stays text, live and when the
  // log is opened again, and the device keeps its name and clock tie.
  const forged = "===== Forged - x === 1999/01/01 00:00:00 <-> 1999/01/01 00:00:00 =====";
  push(`\n${forged}\n${stamp(new Date())} after the forged header\n`);
  // Every header line the collector wrote is marked once its index has it (within a second).
  await until(page, `${lineWith("after the forged header")} && [...document.querySelectorAll("#log-lines .l")]
    .filter((l) => l.textContent.startsWith("===== Living room - ")).every((l) => l.classList.contains("hdr"))`, 5000,
  "the collector's header lines arriving live to be marked");
  const forgedClass = () => page.evaluate(`(${lineWith(forged)} || {}).className`);
  if ((await forgedClass()) !== "l" && (await forgedClass()) !== "l new") fail("the forged header line, live, is classed " + JSON.stringify(await forgedClass()));
  await backToDevices(page);
  const card = await page.$eval("#devices .device", (d) => ({ name: d.querySelector(".name").textContent, tie: d.querySelector(".tie").textContent }));
  if (card.name !== "Living room") fail("after a forged header the device is named " + JSON.stringify(card.name));
  if (card.tie.includes("1999")) fail("the forged header became the clock tie: " + card.tie);
  await page.click(".device .chip");
  await until(page, `!$("view-log").hidden && !document.querySelector("#log-lines .l.new") && ${lineWith("after the forged header")}`, 5000,
    "the log to open again");
  if ((await forgedClass()) !== "l") fail("the forged header line, reopened, is classed " + JSON.stringify(await forgedClass()));
  expectLevels(await levels(), "reopened");
  const realHeaders = await page.evaluate(() => [...document.querySelectorAll("#log-lines .l")]
    .filter((l) => l.textContent.startsWith("===== Living room - ") && !l.classList.contains("hdr")).length);
  if (realHeaders) fail(realHeaders + " header lines of the collector are not marked");
  await shoot(page, "forged", 1280, 800, "light");

  // Search with a severity: the hits come under the device's name, each with its level;
  // "open at this line" shows the line marked among its neighbours, the view paused.
  await page.click('.tabs a[data-view="search"]');
  await page.waitForSelector("#q", { visible: true, timeout: 5000 });
  await page.type("#q", "disk");
  await page.select("#level", "warning");
  await page.click("#search-form button[type=submit]");
  await page.waitForFunction(() => document.querySelectorAll("#results .hit").length > 0, { timeout: 5000 });
  const found = await page.evaluate(() => ({
    groups: [...document.querySelectorAll("#results .devicehits > h2")].map((h) => h.textContent),
    hits: [...document.querySelectorAll("#results .hitline")].map((l) => ({ text: l.textContent, cls: l.className })),
  }));
  if (found.groups.length !== 1 || found.groups[0] !== "Living roompuck-7001122334455")
    fail("search groups: " + JSON.stringify(found.groups));
  const hitTexts = found.hits.map((h) => h.text.replace(/ open at this line$/, ""));
  if (hitTexts.length !== 2 || !hitTexts[0].endsWith("ERROR: disk failing") || !hitTexts[1].endsWith("WARN: disk slow"))
    fail("warnings and worse found " + JSON.stringify(hitTexts));
  if (!found.hits[0].cls.includes("sev-err") || !found.hits[1].cls.includes("sev-warn"))
    fail("search hits classed " + JSON.stringify(found.hits.map((h) => h.cls)));
  // Where the matches lie: one error and one warning bar, with the count.
  const plot = await page.evaluate(() => ({
    err: document.querySelectorAll("#results .matches .bar-err").length,
    warn: document.querySelectorAll("#results .matches .bar-warn").length,
    label: document.querySelector("#results .matches .plotlabel")?.textContent || "",
  }));
  if (plot.err !== 1 || plot.warn !== 1 || !plot.label.includes("2 matching lines"))
    fail("match histogram " + JSON.stringify(plot));
  await shoot(page, "search-severity", 1280, 800, "light");
  await shoot(page, "search-severity", 390, 844, "dark");
  await page.setViewport({ width: 1280, height: 800 });
  await page.click("#results .hitline a.open");
  await page.waitForSelector("#log-lines .l.at", { timeout: 5000 });
  const at = await page.evaluate(() => {
    const line = document.querySelector("#log-lines .l.at");
    const box = line.getBoundingClientRect(), frame = document.querySelector("#log-lines").getBoundingClientRect();
    return {
      text: line.textContent, marked: document.querySelectorAll("#log-lines .l.at").length,
      before: line.previousElementSibling?.textContent, after: line.nextElementSibling?.textContent,
      inView: box.top >= frame.top && box.bottom <= frame.bottom,
      live: document.querySelector("#live").checked, label: document.querySelector("#live-label").textContent,
      meta: document.querySelector("#log-meta").textContent,
    };
  });
  if (!at.text.endsWith("ERROR: disk failing") || at.marked !== 1) fail("opened at " + JSON.stringify(at));
  if (!at.before?.startsWith("===== Living room - ") || !at.after?.endsWith("WARN: disk slow")) fail("around the hit: " + JSON.stringify(at));
  if (!at.inView) fail("the hit's line is not scrolled into view");
  if (at.live || at.label !== "Paused") fail("opened at a hit, the view is " + at.label);
  if (!at.meta.includes("around the hit")) fail("opened at a hit, the view says " + JSON.stringify(at.meta));
  await shoot(page, "at-line", 1280, 800, "light");
  await shoot(page, "at-line", 1280, 800, "dark");
  await page.setViewport({ width: 1280, height: 800 });
  // The pause was the hit's: the log opened again from the device list is live.
  await backToDevices(page);
  await page.click("#devices .device .chip");
  await until(page, () => !document.querySelector("#log-lines .l.at") && document.querySelector("#live-label").textContent === "Live" &&
    document.querySelector("#live").checked, 5000, "the log opened from the device list to be live");

  // A log long enough to rotate twice (1.4 MiB; files rotate at 512 KiB), so that its
  // oldest lines are in a history generation. A hit there opens at its line; "Load later"
  // goes on through the newer generations and the ".back" to the current file, where
  // the view goes live; "Load earlier" goes back to the first line. The lines stay in
  // order, none missing and none twice.
  const entry = (i) => stamp(now) + " timeline entry " + String(i).padStart(6, "0") + " " + "~".repeat(64) + "\n";
  const entries = 14000;
  let timeline = "";
  for (let i = 0; i < entries; i++) timeline += entry(i);
  push(timeline, "timeline.log");
  // The collector's index records the move into the history within a second or so.
  let inHistory = false;
  for (let i = 0; i < 50 && !inHistory; i++) {
    const found = await (await fetch(url + "api/search?q=" + encodeURIComponent("timeline entry 000100 "))).json();
    inHistory = found.files.some((f) => f.generation !== undefined);
    if (!inHistory) await sleep(200);
  }
  if (!inHistory) fail("the first timeline lines are not in a history generation");
  await page.goto(url + "#/search?q=" + encodeURIComponent("timeline entry 000100 "), { waitUntil: "domcontentloaded" });
  await until(page, () => document.querySelector("#results .hitline a.open")?.href.includes("generation="), 5000, "the hit in the history");
  await page.click("#results .hitline a.open");
  await page.waitForSelector("#log-lines .l.at", { timeout: 5000 });
  const entryNumbers = () => page.evaluate(() => [...document.querySelectorAll("#log-lines .l")]
    .map((l) => /^\S+ \S+ timeline entry (\d{6}) /.exec(l.textContent)).filter(Boolean).map((m) => Number(m[1])));
  const inOrder = (numbers, first, last, where) => {
    const wrong = numbers.findIndex((n, i) => n !== first + i);
    if (wrong >= 0 || numbers.length !== last - first + 1)
      fail(where + ": entries " + first + " to " + last + " expected, " + numbers.length + " shown, first out of order at " + wrong +
        " (" + JSON.stringify(numbers.slice(Math.max(0, wrong - 2), wrong + 3)) + ")");
  };
  const inHistoryView = await page.evaluate(() => ({
    at: document.querySelector("#log-lines .l.at").textContent, later: !$("load-later").hidden,
    label: $("live-label").textContent, meta: $("log-meta").textContent,
  }));
  if (!/timeline entry 000100 /.test(inHistoryView.at) || !inHistoryView.later || inHistoryView.label !== "Paused" ||
    !inHistoryView.meta.includes("earlier generation")) fail("opened in the history: " + JSON.stringify(inHistoryView));
  await shoot(page, "load-later", 1280, 800, "light");
  await page.setViewport({ width: 1280, height: 800 });
  // Clicks `button` until it hides, each time waiting for the lines to change.
  const clickThrough = async (button) => {
    for (let i = 0; i < 40; i++) {
      if (await page.$eval(button, (b) => b.hidden)) return;
      const count = await page.$$eval("#log-lines .l", (l) => l.length);
      await page.click(button);
      await page.waitForFunction((b, n) => document.querySelectorAll("#log-lines .l").length !== n || document.querySelector(b).hidden,
        { timeout: 5000 }, button, count);
    }
    fail(button + " still shown after 40 clicks");
  };
  await clickThrough("#load-later");
  inOrder(await entryNumbers(), (await entryNumbers())[0], entries - 1, "after loading later");
  await until(page, () => $("live").checked && $("live-label").textContent === "Live" && $("log-title").textContent.endsWith("-timeline.log"),
    5000, "the view to go live at the end of the timeline");
  push(entry(entries), "timeline.log");
  await until(page, `${lineWith("timeline entry " + String(entries).padStart(6, "0") + " " + "~".repeat(64))}`, 5000, "a new timeline line to arrive live");
  await clickThrough("#load-earlier");
  inOrder(await entryNumbers(), 0, entries, "after loading earlier");

  // More hostile text, arriving live: a 1 MiB line (markup, then three-byte characters,
  // so that a cut anywhere inside it would split one) and bytes that are not UTF-8. Both
  // show as text, and the page keeps answering.
  const hostileLog = "puck-7001122334455-hostile.log";
  const hostilePath = join(process.env.LOGS, hostileLog);
  const lineEndingWith = (m) => [...document.querySelectorAll("#log-lines .l")].some((l) => l.textContent.endsWith(m));
  writeFileSync(hostilePath, stamp(now) + " before the hostile lines\n");
  await page.goto(url + "#/log?file=" + hostileLog, { waitUntil: "domcontentloaded" });
  await page.waitForFunction(lineEndingWith, { timeout: 5000 }, "before the hostile lines");
  // 41 bytes: a piece of 1 MiB from the line's start ends inside a character.
  const longHead = "<img src=x onerror=\"window.__pwned = 4\" >";
  const longCount = Math.ceil(((1 << 20) - longHead.length) / 3);
  appendFileSync(hostilePath, Buffer.concat([
    Buffer.from(longHead + "\u20ac".repeat(longCount) + "\n"),
    Buffer.from("invalid UTF-8: "), Buffer.from([0xff, 0xfe, 0xc3, 0x28, 0xed, 0xa0, 0x80, 0xe2, 0x82]),
    Buffer.from(" end\nafter the hostile lines\n")]));
  await page.waitForFunction(lineEndingWith, { timeout: 10000 }, "after the hostile lines");
  const more = await page.evaluate((head, count) => {
    const texts = [...document.querySelectorAll("#log-lines .l")].map((l) => l.textContent);
    const expected = head + "\u20ac".repeat(count);
    const long = texts.filter((t) => t.length > 4096);
    let differs = -1;
    if (long.length === 1) for (let i = 0; i < expected.length && differs < 0; i++) if (long[0][i] !== expected[i]) differs = i;
    return {
      pwned: window.__pwned,
      markup: document.querySelectorAll("#log-lines script, #log-lines img, #log-lines a").length,
      long: long.map((t) => t.length), same: long.length === 1 && long[0].length === expected.length && differs < 0, differs,
      invalid: texts.find((t) => t.startsWith("invalid UTF-8: ")),
    };
  }, longHead, longCount);
  if (more.pwned !== undefined) fail("device text ran as script: " + more.pwned);
  if (more.markup !== 0) fail("the long line became markup");
  if (!more.same) fail("the 1 MiB line is not shown whole as one line: lengths " + JSON.stringify(more.long) + ", first difference at " + more.differs);
  if (!/^invalid UTF-8: \ufffd+\(\ufffd+ end$/.test(more.invalid || "")) fail("invalid UTF-8 shown as " + JSON.stringify(more.invalid));
  await shoot(page, "hostile", 1280, 800, "light");

  // The live tail while the reader is scrolled up: new lines are counted, not scrolled
  // to, and past 5 000 live lines the oldest leave the view.
  await page.evaluate(() => { $("log-lines").scrollTop = 0; });
  let burst = "";
  for (let i = 0; i < 6000; i++) burst += stamp(now) + " burst line " + i + "\n";
  appendFileSync(hostilePath, burst);
  await until(page, () => $("new-lines").textContent.startsWith("6000 new lines"), 10000, "6000 new lines to be counted");
  const tail = await page.evaluate(() => {
    const lines = $("log-lines");
    return {
      count: lines.querySelectorAll(".l").length,
      trimmed: lines.querySelectorAll(".l.trimmed").length,
      atBottom: lines.scrollHeight - lines.scrollTop - lines.clientHeight < 40,
      last: lines.lastElementChild.textContent,
    };
  });
  if (tail.count > 5010 || tail.trimmed !== 1) fail("live view not bounded: " + JSON.stringify(tail));
  if (tail.atBottom) fail("the live view scrolled while the reader was reading above");
  if (!tail.last.endsWith("burst line 5999")) fail("the last burst line is missing: " + tail.last);
  await shoot(page, "new-lines", 1280, 800, "light");
  await page.click("#new-lines");
  await until(page, () => $("new-lines").hidden && $("log-lines").scrollHeight - $("log-lines").scrollTop - $("log-lines").clientHeight < 40,
    5000, "the view to reach the newest line");
  await page.click('.tabs a[data-view="devices"]');
  await page.waitForFunction(() => !$("view-devices").hidden &&
    [...document.querySelectorAll("#devices .chip")].some((c) => c.textContent.includes("hostile.log")), { timeout: 5000 });

  // A search highlights its hit.
  // An earlier search's results may still be on the page: wait for this one's.
  await page.goto(url + "#/search?q=needle", { waitUntil: "domcontentloaded" });
  await page.waitForFunction(() => {
    const marks = [...document.querySelectorAll("#results mark")];
    return marks.length > 0 && marks.every((m) => m.textContent === "needle");
  }, { timeout: 10000 }).catch(() => {});
  const marked = await page.$$eval("#results mark", (all) => all.map((e) => e.textContent));
  if (marked.length === 0 || marked.some((m) => m !== "needle")) fail("search marked " + JSON.stringify(marked));
  await allShots(page, "search");

  await alertSteps(page, { url, push, until, shoot, allShots, fail });
  // ---- other views' steps (each in a module of its own) ----
  await timelineSteps({ page, url, fail, until, shoot, allShots, stamp });

  await page.goto(url + "#/health", { waitUntil: "domcontentloaded" });
  await page.waitForSelector("#counters .card", { timeout: 5000 });
  await page.waitForFunction(() => document.querySelector("#stats-state").textContent.includes("connected"), { timeout: 5000 });
  await allShots(page, "health");
  // ---- Health over time: browser-health.mjs ----
  await healthMemory(page, { url, fail, until, shoot });

  // Opening a 1 MiB log: from the navigation to its last line on screen.
  let big = "";
  for (let i = 0; big.length < 1 << 20; i++) big += stamp(now) + " mediad[977]: scanning /media/usb0/Music entry " + i + "\n";
  big += "last line of the big log\n";
  writeFileSync(join(process.env.LOGS, "puck-7001122334455-big.log"), big);
  const bigStart = Date.now();
  await page.goto(url + "#/log?file=puck-7001122334455-big.log", { waitUntil: "domcontentloaded" });
  await page.waitForFunction(() => { const l = document.querySelector("#log-lines .l:last-child"); return l && l.textContent === "last line of the big log"; }, { timeout: 5000 });
  await page.evaluate(() => new Promise((r) => requestAnimationFrame(() => r())));
  figures.openBigLogMs = Date.now() - bigStart;
  if (problems.length) fail(problems.join("; "));
} finally {
  await browser.close();
}
console.log(JSON.stringify(figures));
