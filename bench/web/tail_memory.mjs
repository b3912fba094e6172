// nimb-web with many live tails: opens CLIENTS event streams (default 100) on one log,
// appends LINES lines (default 2000) to it in bursts, checks that every client got
// every line, and prints nimb-web's resident memory before and after, and the time
// from each burst's write to the last client receiving it.
//   node bench/web/tail_memory.mjs URL LOGFILE PID
import http from "node:http";
import { appendFileSync, readFileSync } from "node:fs";
import { basename } from "node:path";

const [url, logFile, pid] = process.argv.slice(2);
const clients = Number(process.env.CLIENTS || 100);
const lines = Number(process.env.LINES || 2000);
const rss = () => Number(/VmRSS:\s+(\d+)/.exec(readFileSync(`/proc/${pid}/status`, "utf8"))[1]);

const before = rss();
const received = new Array(clients).fill(0);
const requests = [];
await Promise.all(Array.from({ length: clients }, (_, i) => new Promise((resolve, reject) => {
  const req = http.get(url + "api/tail?file=" + encodeURIComponent(basename(logFile)), (res) => {
    res.setEncoding("utf8");
    res.on("data", (chunk) => { received[i] += (chunk.match(/bench line/g) || []).length; });
    resolve();
  });
  req.on("error", reject);
  requests.push(req);
})));
const withClients = rss();
const latencies = [];
const bursts = 20;
for (let b = 0; b < bursts; b++) {
  const target = ((b + 1) * lines) / bursts;
  let text = "";
  for (let i = 0; i < lines / bursts; i++) text += "2026/11/24 10:00:00 bench line " + (b * lines / bursts + i) + " " + "x".repeat(80) + "\n";
  const written = Date.now();
  appendFileSync(logFile, text);
  while (received.some((n) => n < target)) {
    if (Date.now() - written > 10000) throw new Error("clients fell behind: " + Math.min(...received) + " of " + target);
    await new Promise((r) => setTimeout(r, 2));
  }
  latencies.push(Date.now() - written);
}
const after = rss();
latencies.sort((a, b) => a - b);
console.log(JSON.stringify({ clients, lines, rssKiBIdle: before, rssKiBWithClients: withClients, rssKiBAfter: after,
  burstToAllClientsP50Ms: latencies[Math.floor(latencies.length / 2)], burstToAllClientsMaxMs: latencies[latencies.length - 1] }));
for (const r of requests) r.destroy();
