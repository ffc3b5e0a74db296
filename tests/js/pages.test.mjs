// The browser pages in headless Chromium against a real node: an
// unauthenticated visit to a dashboard is sent to /login; a new user creates
// an account through the form, lands back on the dashboard with the key in
// local storage and is greeted by name; logging out and in again works, a
// wrong password is shown, not stored. A screenshot of the signed-in
// dashboard is kept in the test artifacts.
//
//   node --test tests/js/pages.test.mjs   (env OSTREL_BINARY, OSTREL_SOURCE_DIR,
//                                          OSTREL_ARTIFACT_DIR, CHROMIUM)
import { test, before, after } from "node:test";
import assert from "node:assert/strict";
import { mkdirSync, mkdtempSync, rmSync, statSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import puppeteer from "puppeteer-core";
import { startNode, stopNode } from "./node_process.mjs";

const artifacts = process.env.OSTREL_ARTIFACT_DIR || join(tmpdir(), "ostrel-artifacts");
const chromium = process.env.CHROMIUM || "/usr/bin/chromium";

let node, browser, base;
const dataDir = mkdtempSync(join(tmpdir(), "ostrel-pages-"));

before(async () => {
  let port;
  ({ node, port } = await startNode(dataDir, () => ["inference.ollama_url=http://127.0.0.1:9"]));
  base = `http://127.0.0.1:${port}`;
  browser = await puppeteer.launch({
    executablePath: chromium,
    headless: true,
    userDataDir: join(dataDir, "chromium"),
    args: ["--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run"],
  });
});

after(async () => {
  await browser?.close();
  await stopNode(node);
  rmSync(dataDir, { recursive: true, force: true });
});

const storedKey = (page) => page.evaluate(() => localStorage.getItem("ostrel_api_key"));

async function submit(page, username, password) {
  await page.waitForSelector("#username");
  await page.$eval("#username", (el) => (el.value = ""));
  await page.$eval("#password", (el) => (el.value = ""));
  await page.type("#username", username);
  await page.type("#password", password);
  await page.click("#submit");
}

test("sign up, land on the dashboard, log out, log in", async () => {
  const page = await browser.newPage();
  // No key: the dashboard sends the visitor to the login page, remembering where to return.
  await page.goto(`${base}/dashboard/inference`, { waitUntil: "load" });
  await page.waitForFunction(() => location.pathname === "/login");
  assert.equal(new URL(page.url()).searchParams.get("next"), "/dashboard/inference");
  assert.equal(await page.title(), "Ostrel Login");
  assert.equal(await storedKey(page), null);

  // Create the first account through the form.
  await page.click("#toggle");
  assert.equal(await page.$eval("#submit", (b) => b.textContent), "Create account");
  await Promise.all([page.waitForNavigation(), submit(page, "ada@lab.test", "analytical engine")]);
  assert.equal(new URL(page.url()).pathname, "/dashboard/inference");
  const key = await storedKey(page);
  assert.match(key, /^ak-/);
  await page.waitForFunction(() => document.getElementById("who").textContent.includes("ada@lab.test"));
  assert.match(await page.$eval("#who", (e) => e.textContent), /superadmin/);

  // An operator's page: the node's figures, each module's state, the
  // backends as a table, and request rate and latency drawn from /metrics.
  await page.waitForFunction(() => document.getElementById("f-node").textContent !== "…");
  const health = await fetch(`${base}/health`).then((r) => r.json());
  assert.equal(await page.$eval("#f-node", (e) => e.textContent), health.node_id);
  assert.equal(await page.$eval("#f-version", (e) => e.textContent), health.version);
  const chips = await page.$$eval("#modules .chip", (els) => els.map((e) => e.textContent));
  assert.deepEqual(chips.sort(), health.modules.map((m) => `${m.name}: ${m.state}`).sort());
  await page.waitForFunction(() => document.querySelector("#content table"));
  const backends = await page.$$eval("#content table tr", (rows) => rows.map((r) => r.textContent));
  assert.ok(backends.some((r) => r.startsWith("echo")), backends.join("|"));
  assert.equal(await page.$("#content pre"), null);  // no JSON dumps
  // Two samples make the first point; a line needs two points.
  await page.waitForFunction(() => {
    const lines = document.querySelectorAll("#rate polyline, #latency polyline");
    return lines.length === 2 && [...lines].every((l) => l.getAttribute("points").trim().split(/\s+/).length >= 2);
  }, { timeout: 15000 });
  assert.match(await page.$eval("#rate-now", (e) => e.textContent), /requests\/s now/);
  // Nothing is loaded from elsewhere.
  const foreign = await page.evaluate(() => [...document.querySelectorAll("[src],[href]")]
    .map((e) => e.getAttribute("src") || e.getAttribute("href"))
    .filter((u) => /^(https?:)?\/\//.test(u) && !u.startsWith(location.origin)));
  assert.deepEqual(foreign, []);
  mkdirSync(artifacts, { recursive: true });
  const shot = join(artifacts, "dashboard-signed-in.png");
  await page.screenshot({ path: shot, fullPage: true });
  assert.ok(statSync(shot).size > 1000);
  const icon = await fetch(`${base}/favicon.ico`);
  assert.equal(icon.status, 200);
  assert.equal(icon.headers.get("content-type"), "image/x-icon");
  assert.ok((await icon.arrayBuffer()).byteLength > 100);
  // Every page renders its part, without an error.
  for (const name of ["storage", "cluster", "extensions", "help"]) {
    await page.goto(`${base}/dashboard/${name}`, { waitUntil: "load" });
    await page.waitForFunction(() => !document.getElementById("content").textContent.startsWith("Loading"));
    assert.equal(await page.$("#content .err"), null, name);
    assert.equal(await page.$("#content pre:not(#topic)"), null, name);
    await page.screenshot({ path: join(artifacts, `dashboard-${name}.png`), fullPage: true });
  }
  await page.goto(`${base}/dashboard/inference`, { waitUntil: "load" });

  // The node now demands the key: the page's own requests carry it.
  const anonymous = await fetch(`${base}/api/v1/tenants`);
  assert.equal(anonymous.status, 401);
  const me = await fetch(`${base}/api/v1/auth/me`, { headers: { "X-API-Key": key } });
  assert.equal((await me.json()).username, "ada@lab.test");

  // Log out: the key is gone and the login page is back.
  await Promise.all([page.waitForNavigation(), page.click("#logout")]);
  assert.equal(new URL(page.url()).pathname, "/login");
  assert.equal(await storedKey(page), null);

  // A wrong password is reported on the page and stores nothing.
  await submit(page, "ada@lab.test", "difference engine");
  await page.waitForFunction(() => document.getElementById("msg").textContent.length > 0);
  assert.equal(await page.$eval("#msg", (e) => e.textContent), "invalid username or password");
  assert.equal(await storedKey(page), null);

  // The right one signs in and goes to the default dashboard page.
  await Promise.all([page.waitForNavigation(), submit(page, "ada@lab.test", "analytical engine")]);
  assert.equal(new URL(page.url()).pathname, "/dashboard/help");
  assert.equal(await storedKey(page), key);
  await page.waitForFunction(() => !document.getElementById("content").textContent.startsWith("Loading"));

  // A login link that tries to send the browser elsewhere stays on this node:
  // another host, a backslash a browser reads as a slash, a tab it drops.
  for (const next of ["//evil.test/steal", "/%5Cevil.example", "/%09/evil.example",
                      "/%5C%5Cevil.example/x", "https://evil.test/"]) {
    await page.evaluate(() => localStorage.removeItem("ostrel_api_key"));
    await page.goto(`${base}/login?next=${next}`, { waitUntil: "load" });
    await Promise.all([page.waitForNavigation(), submit(page, "ada@lab.test", "analytical engine")]);
    assert.equal(new URL(page.url()).host, new URL(base).host, next);
    assert.equal(new URL(page.url()).pathname, "/dashboard/help", next);
  }
  // A path of this node is kept, query included.
  await page.evaluate(() => localStorage.removeItem("ostrel_api_key"));
  await page.goto(`${base}/login?next=${encodeURIComponent("/dashboard/storage?tab=2")}`, { waitUntil: "load" });
  await Promise.all([page.waitForNavigation(), submit(page, "ada@lab.test", "analytical engine")]);
  assert.equal(new URL(page.url()).pathname + new URL(page.url()).search, "/dashboard/storage?tab=2");
  await page.close();
});
