import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdirSync, writeFileSync } from "node:fs";
import { createServer } from "node:http";
import path from "node:path";
import { after, before, test } from "node:test";
import { launch } from "../browser.mjs";
import { Host, until } from "../host.mjs";

const options = { timeout: 120_000 };
const complaints = []; // of the browser, about what our pages do
let host, browser, page, observer, aliceToken;

/** A browser of its own that has come in with the token. */
async function enter(token, more = {}) {
  const opened = await (await browser.newContext(more)).newPage();
  opened.on("pageerror", (error) => complaints.push(error.stack));
  opened.on("console", (line) => line.type() === "error" && !/Failed to load resource|WebSocket connection/.test(line.text()) && complaints.push(line.text()));
  await opened.addInitScript(() => {
    window.sockets = [];
    window.WebSocket = class extends WebSocket {
      constructor(...options) {
        super(...options);
        window.sockets.push(this);
      }
    };
  });
  await opened.goto(`${host.url}/?token=${token}`);
  await opened.waitForURL(`${host.url}/`);
  return opened;
}

const addToken = async (name, role) => (await host.tarvik("token", "add", name, "--role", role)).trim().split(/\s+/).at(-1);
const row = (name, where = page) => where.locator(`[data-behavior="${name}"]`);
const showsState = (name, state, where = page) => until(`${name} is shown as ${state}`, async () => (await row(name, where).getAttribute("data-state")) === state);
const isIn = (phase, where = page) => until(`the page is ${phase}`, async () => (await where.locator("body").getAttribute("data-phase")) === phase);
const shows = (selector, text, where = page) => until(`${selector} shows ${text}`, async () => text.test((await where.locator(selector).allTextContents()).join("\n")));

/** A zip archive of a package whose project is this text, and which asks for these rights. */
function archive(uuid, project, rights = "") {
  const directory = path.join(host.root, "archives", uuid);
  mkdirSync(path.join(directory, "main"), { recursive: true });
  writeFileSync(path.join(directory, "manifest.xml"), `<package uuid="${uuid}" version="2.1">${rights}<behavior path="main"/></package>`);
  writeFileSync(path.join(directory, "main/behavior.xar"), project);
  execFileSync("python3", ["-m", "zipfile", "-c", `${directory}.zip`, "manifest.xml", "main"], { cwd: directory });
  return `${directory}.zip`;
}

before(async () => {
  [host, browser] = [await Host.start(), await launch()];
  aliceToken = await addToken("alice", "admin");
  page = await enter(aliceToken);
  observer = await enter(await addToken("guest", "observer"));
  for (const each of [page, observer]) await isIn("connected", each);
}, options);

after(async () => {
  await browser?.close();
  assert.equal(await host?.stop(), 0, "the host ends in order");
  assert.deepEqual(complaints, [], "the browser, which enforces the content security policy, has nothing to complain of");
});

test("states, time and log follow what the command line does, for an observer without controls as well", options, async () => {
  await showsState("clock", "installed");
  await host.tarvik("start", "clock");
  for (const each of [page, observer]) {
    await showsState("clock", "running", each);
    await until("the running time ticks", async () => /0:0[1-9]/.test(await row("clock", each).locator(".time").textContent()));
    await shows("#log-list", /behaviorStarted clock[^]*Clock\/Tick 1/, each);
    assert.equal(await each.locator("#packages").getByRole("button").count() > 0, each === page);
  }
  assert.equal(await observer.locator(".control, input[type=file]").count(), 0);
  assert.match(await observer.locator("#identity").textContent(), /guest · observer/);
  await host.tarvik("load", "greetings/wave");
  await showsState("greetings/wave", "loaded", observer);
  for (const name of ["clock", "greetings/wave"]) {
    await host.tarvik("stop", name);
    await showsState(name, "installed");
  }
});

test("clicks and keys start, stop and make default; a text from the host stays a text", options, async () => {
  await row("clock").getByRole("button", { name: "Start clock" }).click();
  await until("the click has started it", async () => (await host.state("clock")) === "running");
  const stop = row("clock").getByRole("button", { name: "Stop clock" });
  await stop.press("Enter");
  await until("the key has stopped it", async () => (await host.state("clock")) === "installed");
  await row("clock").getByRole("button", { name: "Start clock" }).click();
  await showsState("clock", "running");
  await page.getByRole("button", { name: "Stop all" }).click();
  await showsState("clock", "installed");

  await row("clock").getByRole("button", { name: /starts with the host/ }).click();
  await until("it is a default", async () => (await host.tarvik("default", "list")).includes("clock"));
  await page.getByRole("radio", { name: "Defaults" }).check();
  await until("only the default is listed", async () => (await page.locator(".behavior").count()) === 1);
  await page.getByRole("radio", { name: "All" }).check();
  await page.locator("#filter").fill("greeting short");
  assert.deepEqual(await page.locator(".behavior").evaluateAll((rows) => rows.map((each) => each.dataset.behavior)), ["greetings/hello"]);
  await page.locator("#filter").fill("");

  await page.locator("#log-pause").click();
  await host.tarvik("call", "ZBMemory.declareEvent", "<img src=x>");
  await host.tarvik("call", "ZBMemory.raiseEvent", "<img src=x>", "<script>alert(1)</script>");
  await shows("#log-pause", /1 new/);
  await page.locator("#log-pause").click();
  await shows("#log-list", /<img src=x> <script>alert/);
  assert.equal(await page.locator("#log-list :is(img, script)").count(), 0);
});

test("the time line tells why a run ended", options, async () => {
  await assert.rejects(host.tarvik("run", "diagnostics/low-battery"));
  await shows('[data-behavior="diagnostics/low-battery"] .last', /battery is at 12 %/);
  await page.locator('.run[data-outcome="failed"]').last().focus();
  await shows("#run-detail", /low-battery, started .* by local: failed at .*battery is at 12 %.*after 0\.\d\ss/);
  await page.keyboard.press("Home");
  await shows("#run-detail", /clock, started .* by local: stopped by local/);
  await shows("#run-list", /clock stopped by alice/, observer);
});

test("a package is chosen or dropped, a bad one is refused in words, and removal asks first", options, async () => {
  await page.setInputFiles("input[type=file]", archive("uploaded", '<project format="1" name="main"><wait seconds="60"/></project>', '<may call="Tokens.list"/>'));
  await shows("#upload", /Installed the package uploaded\. May call Tokens\.list\./);
  await shows("#packages .rights", /May call Tokens\.list\./, observer);
  await showsState("uploaded/main", "installed", observer);

  const dropped = archive("broken", '<project format="1" name="main"><fly/></project>');
  const transfer = await page.evaluateHandle((bytes) => {
    const data = new DataTransfer();
    data.items.add(new File([Uint8Array.from(atob(bytes), (c) => c.charCodeAt(0))], "broken.zip"));
    data.items.add(new File(["no archive"], "notes.zip"));
    return data;
  }, execFileSync("base64", ["-w0", dropped]).toString());
  await page.dispatchEvent("#behaviors", "drop", { dataTransfer: transfer });
  await shows("#upload", /Installed the package broken\. main\/behavior\.xar:1: <fly> is not known/);
  await shows("#upload", /notes\.zip is not installed: .*(archive|zip|manifest)/);
  await row("broken/main").getByRole("button", { name: "Start broken/main" }).click();
  await shows('[data-behavior="broken/main"] .error', /behavior\.xar.*fly/);

  for (const [answer, left] of [["Keep it", 1], ["Remove", 0]]) {
    await page.getByRole("button", { name: "Remove the package uploaded" }).click();
    await page.getByRole("dialog").getByRole("button", { name: answer }).click();
    await until(`after ${answer}`, async () => (await row("uploaded/main").count()) === left && (await row("uploaded/main", observer).count()) === left);
  }
});

test("each tab has a session of its own, which only a person begins; the cookie opens the modules' pages alone", options, async () => {
  const context = await browser.newContext();
  const tab = await context.newPage();
  const address = (await host.tarvik("open")).trim();
  await tab.goto(address);
  await tab.waitForURL(`${host.url}/`);
  await isIn("connected", tab);
  assert.equal(await tab.evaluate(() => history.length), 2, "the address with the code is replaced");
  await tab.reload();
  await isIn("connected", tab);

  const other = await context.newPage();
  await other.goto(host.url);
  await isIn("refused", other);
  await shows("#notice", /has no session.*tarvik open.*enter a token/, other);
  assert.equal((await other.goto(`${host.url}/ZBBehaviorManager/`)).status(), 200);
  const evaluate = (expression) => other.evaluate(async (text) => (await fetch(`?eval=${text}`)).status, expression);
  assert.deepEqual([await evaluate("ZBBehaviorManager.getRunningBehaviors()"), await evaluate("PackageManager.remove('clock')")], [200, 403]);
  assert.equal((await other.goto(`${host.url}/ZBBehaviorManager/?eval=ZBBehaviorManager.getRunningBehaviors()`)).status(), 403);
  assert.equal((await other.goto(address)).status(), 401, "a code is good once");

  // A page of another port is the same site, and gets the cookie sent along.
  const neighbour = createServer((request, response) => response.end(`<a href="${host.url}/?token=${host.token}">link</a>`));
  await new Promise((resolve) => neighbour.listen(0, "127.0.0.1", resolve));
  await other.goto(`http://127.0.0.1:${neighbour.address().port}`);
  const [answer] = await Promise.all([other.waitForResponse((response) => response.url().startsWith(host.url)), other.getByRole("link").click()]);
  assert.equal(answer.status(), 403);
  neighbour.close();
  await context.close();
});

test("a page that loses its connection finds the host again; a session that is over is told, and begun anew by the form", options, async () => {
  const local = await enter(host.token);
  await isIn("connected", local);
  await local.evaluate(() => window.sockets.at(-1).close());
  await shows("#log-list", /connection lost[^]*connected/, local);
  await isIn("connected", local);

  await host.tarvik("start", "greetings/wave");
  await showsState("greetings/wave", "running");
  await host.end("SIGKILL");
  for (const each of [page, local]) await isIn("waiting", each);
  await shows("#notice", /connection to the host is lost/);
  await row("clock").getByRole("button").first().click();
  await shows('[data-behavior="clock"] .error', /no connection to the host/);

  // Sessions live no longer than the host.
  await host.run();
  await isIn("refused");
  await shows("#notice", /session is over.*Run “tarvik open”/);
  await page.getByRole("link", { name: "enter a token" }).click();
  const give = async (token) => {
    await page.getByLabel("Token").fill(token);
    await page.getByRole("button", { name: "Open" }).click();
  };
  await give("wrong");
  await page.getByText(/not known here/).waitFor();
  await give(aliceToken);
  await isIn("connected");
  await showsState("clock", "running"); // the default behavior, which the new host has begun
  await showsState("greetings/wave", "installed");
  assert.equal(await page.locator("#notice").textContent(), "");
  await host.tarvik("stop", "clock");
  await showsState("clock", "installed");
  await host.tarvik("token", "remove", "alice");
  await isIn("refused");
});

test("nothing is cut off on a small phone", options, async () => {
  for (const colorScheme of ["light", "dark"]) {
    const small = await enter(host.token, { viewport: { width: 360, height: 640 }, hasTouch: true, colorScheme });
    await isIn("connected", small);
    await showsState("clock", "installed", small);
    assert.equal(await small.evaluate(() => document.documentElement.scrollWidth), 360);
  }
});
