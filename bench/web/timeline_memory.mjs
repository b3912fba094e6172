// The console's memory with 100 live tails and a 24 h timeline of 10 devices open: writes
// a logs folder of 10 devices with 24 hours of stamped lines each (one every 6 s, about
// 16 MB in all), indexes it (nimb-logs --reindex), starts nimb-web on it, opens CLIENTS
// (default 100) live tails on one log and a Chromium page on the timeline of the last
// 24 h, loads PAGES (default 10) earlier pages into it, appends LINES (default 2000) to the
// tailed log, and prints nimb-web's resident memory at each step and the page's JS heap.
//   node bench/web/timeline_memory.mjs BUILD_DIR
// (needs Debian's Chromium and puppeteer-core under .cache/webtest, as the browser test does)
import http from "node:http";
import { spawn, execFileSync } from "node:child_process";
import { appendFileSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

const build = process.argv[2] || "build";
const source = join(dirname(fileURLToPath(import.meta.url)), "..", "..");
const require = createRequire(join(source, ".cache/webtest/node_modules") + "/");
const puppeteer = require("puppeteer-core");
const clients = Number(process.env.CLIENTS || 100);
const pages = Number(process.env.PAGES || 10);
const lines = Number(process.env.LINES || 2000);
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

const root = mkdtempSync(join(tmpdir(), "timeline-bench-"));
const logs = join(root, "logs");
mkdirSync(logs);
const pad = (n) => String(n).padStart(2, "0");
const stamp = (d) => `${d.getFullYear()}/${pad(d.getMonth() + 1)}/${pad(d.getDate())} ${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`;
const now = Math.floor(Date.now() / 1000);
const files = [];
for (let d = 0; d < 10; d++) {
  const mac = "0011223344" + pad(d);
  const file = `bench-${d}${mac}-system.log`;
  let text = `===== Bench device ${d} - sat === ${stamp(new Date((now - 86400) * 1000))} <-> ${stamp(new Date((now - 86400) * 1000))} =====\n`;
  for (let t = now - 86400 + d; t < now; t += 6) {
    const level = t % 97 === 0 ? "ERROR: " : t % 31 === 0 ? "WARN: " : "";
    text += `${stamp(new Date(t * 1000))} svc[${100 + d}]: ${level}bench event at ${t} ${"x".repeat(60)}\n`;
  }
  writeFileSync(join(logs, file), text);
  files.push(file);
}
execFileSync(join(build, "src/tools/nimb-logs/nimb-logs"), ["--dir", logs, "--reindex"], { stdio: "ignore" });

// More connections from one address than the default 64: the tails and the browser share it.
mkdirSync(join(root, "config/pellix"), { recursive: true });
writeFileSync(join(root, "config/pellix/com.pellix.nimb.web.json"), JSON.stringify({ MaxConnectionsPerAddress: 512 }));
const port = 18470 + Math.floor(Math.random() * 1000);
const web = spawn(join(build, "src/tools/nimb-web/nimb-web"), ["--listen", "127.0.0.1:" + port, "--logs-dir", logs],
  { stdio: "ignore", env: { ...process.env, XDG_CONFIG_HOME: join(root, "config") } });
const url = "http://127.0.0.1:" + port + "/";
const rss = () => Number(/VmRSS:\s+(\d+)/.exec(readFileSync(`/proc/${web.pid}/status`, "utf8"))[1]);
for (let i = 0; i < 100; i++) {
  try { await fetch(url + "api/time"); break; } catch (e) { await sleep(100); }
}
const figures = { clients, rssKiBIdle: rss() };

const requests = [];
await Promise.all(Array.from({ length: clients }, () => new Promise((resolve, reject) => {
  const req = http.get(url + "api/tail?file=" + encodeURIComponent(files[0]), (res) => { res.resume(); resolve(); });
  req.on("error", reject);
  requests.push(req);
})));
figures.rssKiBWithTails = rss();

const browser = await puppeteer.launch({ executablePath: "/usr/bin/chromium", headless: true,
  userDataDir: mkdtempSync(join(tmpdir(), "chromium-")),
  args: ["--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run"] });
try {
  const page = await browser.newPage();
  await page.setViewport({ width: 1280, height: 800 });
  const opened = Date.now();
  await page.goto(url + "#/timeline?last=24h", { waitUntil: "domcontentloaded" });
  await page.waitForFunction(() => document.querySelectorAll("#tl-lines .l.tl").length > 0, { timeout: 30000 });
  figures.timelineOpenMs = Date.now() - opened;
  const heap = async () => Math.round((await page.metrics()).JSHeapUsedSize / 1024);
  figures.rssKiBTimelineOpen = rss();
  figures.heapKiBTimelineOpen = await heap();
  const earlierMs = [];
  for (let i = 0; i < pages; i++) {
    const count = await page.$$eval("#tl-lines .l.tl", (l) => l.length);
    const started = Date.now();
    await page.click("#tl-earlier");
    await page.waitForFunction((n) => document.querySelectorAll("#tl-lines .l.tl").length > n, { timeout: 30000 }, count);
    earlierMs.push(Date.now() - started);
  }
  earlierMs.sort((a, b) => a - b);
  figures.earlierPageP50Ms = earlierMs[Math.floor(earlierMs.length / 2)];
  figures.timelineLines = await page.$$eval("#tl-lines .l.tl", (l) => l.length);
  figures.heapKiBTimelinePaged = await heap();
  let text = "";
  for (let i = 0; i < lines; i++) text += `${stamp(new Date())} bench tail line ${i} ${"y".repeat(80)}\n`;
  appendFileSync(join(logs, files[0]), text);
  await sleep(3000);
  figures.rssKiBAfterTailTraffic = rss();
  figures.rssKiBPeak = Number(/VmHWM:\s+(\d+)/.exec(readFileSync(`/proc/${web.pid}/status`, "utf8"))[1]);
  figures.heapKiBEnd = await heap();
} finally {
  await browser.close();
  for (const r of requests) r.destroy();
  web.kill("SIGTERM");
  rmSync(root, { recursive: true, force: true });
}
console.log(JSON.stringify(figures));
