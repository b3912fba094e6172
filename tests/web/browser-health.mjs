// The Health page's memory in the browser, run by browser.mjs on its Health view: the
// charts of the collector's counters (a bucket's time and values on hover, the range
// picker), a device that went quiet listed with its name as text, the history's bars.
// Screenshots: health-charts (laptop and phone, light and dark), health-hover.
import { execFileSync } from "node:child_process";
import { mkdtempSync, utimesSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

export default async function healthMemory(page, { url, fail, until, shoot }) {
  // A device whose name is markup, announced and heard from, then quiet for three hours.
  const dir = mkdtempSync(join(tmpdir(), "quiet-"));
  writeFileSync(join(dir, "door.log"), "opened\n");
  execFileSync(process.env.LOGPUSH, ["--host", process.env.BUS, "--mac", "00:11:22:33:44:99", "--device-id", "garage",
    "--name", "<img src=x onerror=\"window.__pwned = 9\">Garage", "--log", "door.log", "--no-time", "--retry-for", "5000",
    join(dir, "door.log")], { stdio: ["ignore", "ignore", "inherit"], timeout: 30000 });
  const quiet = join(process.env.LOGS, "garage001122334499-door.log");
  const then = new Date(Date.now() - 3 * 3600 * 1000);
  utimesSync(quiet, then, then);

  await page.goto(url + "#/health", { waitUntil: "domcontentloaded" });
  await until(page, () => document.querySelectorAll("#charts .chart").length === 4 &&
    document.querySelector("#charts .chart path.s0:not(.area)"), 10000, "the four charts, lines received drawn");
  await until(page, () => [...document.querySelectorAll("#silent .silentrow strong")].some((s) => s.textContent.includes("Garage")) &&
    document.querySelector("#history-use .userow:not(.total)"), 10000, "the silent device and the history bars");

  const page1 = await page.evaluate(() => {
    const row = [...document.querySelectorAll("#silent .silentrow")].find((r) => r.textContent.includes("Garage"));
    const fill = document.querySelector("#history-use .userow.total .fill");
    return {
      name: row.querySelector("strong").textContent,
      markup: document.querySelectorAll("#silent img, #history-use img").length,
      pwned: window.__pwned,
      when: row.lastElementChild.textContent,
      names: [...document.querySelectorAll("#history-use .userow:not(.total) .usehead > span:first-child")].map((n) => n.textContent),
      width: fill ? fill.getBoundingClientRect().width : -1,
    };
  });
  if (!page1.name.startsWith("<img src=x") || page1.markup || page1.pwned !== undefined)
    fail("a silent device's name became markup: " + JSON.stringify(page1));
  const expectedWhen = await page.evaluate((t) => stamp(t), Math.floor(then.getTime() / 1000));
  if (page1.when !== expectedWhen) fail("silent device heard at " + page1.when + ", expected " + expectedWhen);
  if (!page1.names.includes("Living room") || !(page1.width > 0))
    fail("history bars: " + JSON.stringify(page1));

  // Hover at the busiest bucket: its time and a count; at the first: the range's start.
  const box = await page.$("#charts .chart:first-child svg");
  const rect = await box.boundingBox();
  // The line is a level across each bucket: the middle of the first highest level.
  const peakX = await page.$eval("#charts .chart:first-child path.s0:not(.area)", (p) => {
    const points = [...p.getAttribute("d").matchAll(/[ML]([\d.]+) ([\d.]+)/g)].map((m) => [Number(m[1]), Number(m[2])]);
    const top = Math.min(...points.map((q) => q[1]));
    const level = points.filter((q) => q[1] === top);
    return (level[0][0] + level[1][0]) / 2;
  });
  await page.mouse.move(rect.x + (peakX / 1000) * rect.width, rect.y + rect.height / 2);
  const tip = await page.$eval("#charts .chart:first-child .tip", (t) => ({ hidden: t.hidden, text: t.textContent }));
  if (tip.hidden || !/bus: [1-9]/.test(tip.text)) fail("hover on the busiest bucket shows " + JSON.stringify(tip));
  await shoot(page, "health-hover", 1280, 800, "light");
  await page.mouse.move(rect.x + 1, rect.y + rect.height / 2);
  const [first, start] = await page.$eval("#charts .chart:first-child", (c) => [c.querySelector(".tip .when"), c.querySelector(".plotlabel span")].map((e) => e.textContent));
  if (first !== start) fail("the first bucket's time " + first + " is not the range's start " + start);
  await page.mouse.move(0, 0);

  // The range picker: a day in 5-minute buckets, a week in half hours.
  for (const [range, step] of [["86400", "per 5 min"], ["604800", "per 30 min"], ["3600", "per 1 min"]]) {
    await page.click('#range button[data-range="' + range + '"]');
    await until(page, `$("charts-step").textContent === ${JSON.stringify(step)} && document.querySelectorAll("#charts .chart").length === 4`,
      5000, "charts " + step);
  }
  // The charts' panel at the top, below the bar, at each width and theme.
  for (const [theme, width, height] of [["light", 1280, 800], ["dark", 1280, 800], ["light", 390, 844], ["dark", 390, 844]]) {
    await page.setViewport({ width, height });
    await page.evaluate(() => window.scrollTo(0, $("charts").closest(".panel").getBoundingClientRect().top + window.scrollY - 64));
    await shoot(page, "health-charts", width, height, theme);
  }
  await page.setViewport({ width: 1280, height: 800 });
}
