// The Alerts view in the browser: a channel to a real receiver on loopback (a small HTTP
// server here) with a secret that is never shown again, "send a test", a rule made and
// edited in the form, a device line that fires it, the fired alert listed with the
// device's hostile text inert and a link that opens the lines.
import { createServer } from "node:http";

export async function alertSteps(page, h) {
  const got = [];
  const receiver = createServer((request, response) => {
    let body = "";
    request.on("data", (c) => { body += c; });
    request.on("end", () => {
      got.push({ headers: request.headers, body });
      response.end();
    });
  });
  await new Promise((r) => receiver.listen(0, "127.0.0.1", r));
  const hook = "http://127.0.0.1:" + receiver.address().port + "/home-alerts";
  try {
    await page.goto(h.url + "#/alerts", { waitUntil: "domcontentloaded" });
    await h.until(page, () => document.querySelector("#alerts-state").textContent === "watching", 10000, "the alerts to run");

    // A channel, with a token.
    await page.click("#channel-new");
    await page.type("#channel-name", "Phone");
    await page.select("#channel-kind", "ntfy");
    await page.type("#channel-url", hook);
    await page.select("#channel-priority", "4");
    await page.type("#channel-secret", "tok-never-shown");
    await page.click('#channel-form button[type="submit"]');
    await h.until(page, () => $("channel-form").hidden && $("channels").textContent.includes("secret stored"), 5000, "the channel saved");
    if ((await page.content()).includes("tok-never-shown")) h.fail("the token shows in the page");
    await page.click("#channels .row button:nth-of-type(1)");  // Send a test
    await h.until(page, () => $("channels").textContent.includes("sent"), 15000, "the test sent");
    const test = got.find((r) => r.headers.title && r.headers.title.includes("Test"));
    if (!test) h.fail("the receiver got no test: " + JSON.stringify(got));
    if (test.headers.authorization !== "Bearer tok-never-shown" || test.headers.priority !== "4") {
      h.fail("the test came with " + JSON.stringify(test.headers));
    }

    // A rule, made in the form, then edited.
    await page.click("#rule-new");
    await page.type("#rule-name", "Disk errors");
    await page.type("#rule-text", "I/O error");
    await page.select("#rule-level", "error");
    await page.click("#rule-channels input");
    await h.shoot(page, "alert-rule-edit", 1280, 800, "light");
    await page.click('#rule-form button[type="submit"]');
    await h.until(page, () => $("rule-form").hidden && $("rules").textContent.includes("\u201cI/O error\u201d, error and worse"), 5000, "the rule saved");
    await page.click("#rules .row button");  // Edit
    const shown = await page.$eval("#rule-text", (e) => e.value);
    if (shown !== "I/O error") h.fail("the editor shows the text " + JSON.stringify(shown));
    await page.$eval("#rule-quiet", (e) => { e.value = "5"; });
    await page.click('#rule-form button[type="submit"]');
    await h.until(page, () => $("rule-form").hidden && $("rules").textContent.includes("quiet period 5 min"), 5000, "the rule edited");

    // The device sends a matching line, with markup in it.
    h.push("ERROR I/O error on /dev/sda1 <img src=x onerror=\"window.__pwned = 9\">\nINFO I/O error counters reset\n");
    await h.until(page, () => $("fired").querySelector(".row.fired"), 15000, "the alert to fire");
    await h.until(page, () => $("fired").textContent.includes("Phone: sent"), 15000, "the alert to be sent");
    const fired = got.find((r) => r.body.includes("/dev/sda1"));
    if (!fired) h.fail("the receiver got no alert: " + JSON.stringify(got.map((r) => r.body)));
    if (fired.body.includes("counters reset")) h.fail("an INFO line fired an error rule: " + fired.body);
    if (!fired.headers.click || !fired.headers.click.includes("#/log?")) h.fail("no link in the alert: " + JSON.stringify(fired.headers));
    if (await page.evaluate(() => window.__pwned)) h.fail("device text ran as markup in the fired list");
    await h.allShots(page, "alerts");

    // The link opens the lines.
    await page.click("#fired .row a");
    await h.until(page, () => !$("view-log").hidden && $("log-lines").textContent.includes("I/O error on /dev/sda1"), 10000, "the lines behind the alert");
  } finally {
    receiver.close();
  }
}
