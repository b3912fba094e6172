// The timeline view in the browser (called by browser.mjs with its page and helpers):
// lines of two devices merged in time order under their names, the severity filter, the
// live follow while the reader is scrolled up (counted, the page not moved), the time
// zone switch (remembered), the relative range buttons, and a line's permalink opening
// its log at that line.
import { execFileSync } from "node:child_process";
import { mkdtempSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

// Pushes text as a device given by its name, id and MAC address, to its log `log`.
function pushAs(who, log, text) {
  const dir = mkdtempSync(join(tmpdir(), "push-"));
  const file = join(dir, "piece.log");
  writeFileSync(file, text);
  execFileSync(process.env.LOGPUSH, ["--host", process.env.BUS, "--mac", who.mac, "--device-id", who.id, "--name", who.name,
    "--log", log, "--no-time", "--retry-for", "5000", file], { stdio: ["ignore", "ignore", "inherit"], timeout: 30000 });
}

export async function timelineSteps({ page, url, fail, until, shoot, allShots, stamp }) {
  const room = { mac: "00:11:22:33:44:55", id: "puck-7", name: "Living room" };
  const door = { mac: "66:77:88:99:aa:bb", id: "puck-9", name: "Garage door" };
  const t0 = Math.floor(Date.now() / 1000) - 50;
  const at = (s) => stamp(new Date((t0 + s) * 1000));
  // Alternating in time between the devices, each device's own lines pushed at once.
  pushAs(room, "system.log", [0, 2, 4].map((s) => `${at(s)} tl-merge ${s} from the room\n`).join("") +
    `${at(6)} app: ERROR: tl-merge 6 smoke in the room\n`);
  pushAs(door, "door.log", [1, 3, 5].map((s) => `${at(s)} tl-merge ${s} from the door\n`).join("") +
    `${at(7)} door: WARN: tl-merge 7 left open\n`);

  const rows = () => page.evaluate(() => [...document.querySelectorAll("#tl-lines .l.tl")].map((r) => ({
    t: Number(r.querySelector(".when").dataset.t), when: r.querySelector(".when").textContent, dev: r.querySelector(".dev").textContent,
    log: r.querySelector(".log").textContent, text: r.querySelector(".msg").textContent, cls: r.className,
  })));
  const merged = async () => (await rows()).filter((r) => r.text.includes("tl-merge"));

  // Both devices' lines, merged by time, each under its device's and log's names; the
  // text filter marks its matches.
  await page.goto(url + "#/timeline?q=tl-merge", { waitUntil: "domcontentloaded" });
  await until(page, () => document.querySelectorAll("#tl-lines .l.tl").length >= 8, 10000, "the merged lines of two devices");
  let seen = await merged();
  const order = seen.map((r) => Number(/tl-merge (\d)/.exec(r.text)[1]));
  if (order.join() !== "0,1,2,3,4,5,6,7") fail("timeline order " + JSON.stringify(order));
  for (const r of seen) {
    const room = r.text.includes("room");
    if (r.dev !== (room ? "Living room" : "Garage door") || r.log !== (room ? "system.log" : "door.log"))
      fail("a line is marked " + JSON.stringify(r));
  }
  if (!seen[6].cls.includes("sev-err") || !seen[7].cls.includes("sev-warn")) fail("levels in the timeline " + JSON.stringify(seen.map((r) => r.cls)));
  if (await page.$$eval("#tl-lines mark", (m) => m.filter((x) => x.textContent === "tl-merge").length) !== 8) fail("matches not marked");
  await page.evaluate(() => new Promise((r) => setTimeout(r, 1300)));  // the arrival flash fades
  await allShots(page, "timeline");

  // Severity: warnings and worse leave two lines.
  await page.select("#tl-level", "warning");
  await until(page, () => location.hash.includes("level=warning") && document.querySelectorAll("#tl-lines .l.tl").length === 2 &&
    !$("tl-meta").textContent.startsWith("Loading"), 5000, "the warnings-and-worse timeline");
  seen = await merged();
  if (seen.length !== 2 || !seen[0].text.includes("ERROR") || !seen[1].text.includes("WARN")) fail("warnings and worse: " + JSON.stringify(seen));

  // Live, every device, while the reader reads above: new lines are counted, the page
  // stays where it is; they arrive in time order at the end.
  await page.goto(url + "#/timeline", { waitUntil: "domcontentloaded" });
  await until(page, () => document.querySelectorAll("#tl-lines .l.tl").length > 50 && $("tl-live-label").textContent === "Live", 10000,
    "the whole timeline, live");
  await page.evaluate(() => { $("tl-lines").scrollTop = 0; });
  // (A push announces its device first: that line arrives too.)
  const t1 = Math.floor(Date.now() / 1000);
  pushAs(door, "door.log", `${stamp(new Date((t1 - 2) * 1000))} tl-live 1 door\n`);
  pushAs(room, "system.log", `${stamp(new Date((t1 - 1) * 1000))} tl-live 2 room\n${stamp(new Date((t1 - 1) * 1000))} tl-live 3 room\n`);
  await until(page, () => [...document.querySelectorAll("#tl-lines .l.tl .msg")].filter((m) => m.textContent.includes(" tl-live ")).length === 3 &&
    /^\d+ new lines/.test($("tl-new-lines").textContent) && parseInt($("tl-new-lines").textContent, 10) >= 3, 10000, "3 new lines to be counted");
  const live = await page.evaluate(() => ({
    top: $("tl-lines").scrollTop,
    last: [...document.querySelectorAll("#tl-lines .l.tl .msg")].map((m) => m.textContent).filter((t) => t.includes(" tl-live ")).map((t) => t.slice(t.indexOf("tl-live"))),
  }));
  if (live.top !== 0) fail("the timeline moved while the reader was reading above: " + live.top);
  if (live.last.join("|") !== "tl-live 1 door|tl-live 2 room|tl-live 3 room") fail("live lines " + JSON.stringify(live.last));
  await shoot(page, "timeline-new-lines", 1280, 800, "light");
  await page.setViewport({ width: 1280, height: 800 });
  await page.click("#tl-new-lines");
  await until(page, () => $("tl-new-lines").hidden && atLinesBottom($("tl-lines")), 5000, "the timeline to reach its newest line");

  // The zone switch: every time in UTC, remembered across a reload; relative ranges.
  const lastRow = async () => (await rows()).pop();
  await page.select("#zone", "utc");
  const utc = await lastRow();
  const expected = new Date(utc.t * 1000).toISOString().slice(0, 19).replace("T", " ");
  if (utc.when !== expected) fail("in UTC the line's time is " + utc.when + ", expected " + expected);
  if (!(await page.$eval("#tl-meta", (m) => m.textContent)).includes("times in UTC")) fail("the timeline does not say its times are UTC");
  await page.click('#tl-form .relative button[data-last="1h"]');
  await until(page, () => location.hash.includes("last=1h") && $("tl-from").value !== "" && $("tl-live-label").textContent === "Live", 5000,
    "the last hour");
  await page.reload({ waitUntil: "domcontentloaded" });
  await until(page, () => $("zone").value === "utc" && document.querySelectorAll("#tl-lines .l.tl").length > 0, 5000, "the zone remembered");
  await shoot(page, "timeline-utc", 1280, 800, "dark");
  await page.setViewport({ width: 1280, height: 800 });
  await page.select("#zone", "server");
  await until(page, () => $("tl-meta").textContent.includes("times in") && !$("tl-meta").textContent.includes("times in UTC") ||
    $("zone").options[0].textContent.includes("UTC"), 5000, "the server's zone");

  // A line's permalink, shown on hover, opens its log at the line, marked.
  await page.goto(url + "#/timeline?q=" + encodeURIComponent("smoke in the room"), { waitUntil: "domcontentloaded" });
  await until(page, () => document.querySelectorAll("#tl-lines .l.tl").length === 1, 5000, "the smoke line");
  await page.hover("#tl-lines .l.tl .msg");
  if (await page.$eval("#tl-lines .l.tl .perma", (a) => getComputedStyle(a).visibility) !== "visible") fail("the permalink is not shown on hover");
  await shoot(page, "timeline-permalink", 1280, 800, "light");
  await page.setViewport({ width: 1280, height: 800 });
  await page.click("#tl-lines .l.tl .perma");
  await page.waitForSelector("#log-lines .l.at", { timeout: 5000 });
  const opened = await page.evaluate(() => ({
    at: document.querySelector("#log-lines .l.at").textContent, title: $("log-title").textContent, live: $("live").checked,
  }));
  if (!opened.at.endsWith("ERROR: tl-merge 6 smoke in the room") || opened.live || !opened.title.startsWith("Living room \u00b7 system.log"))
    fail("the permalink opened " + JSON.stringify(opened));
}
