import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { launch } from "../browser.mjs";
import { Host, until } from "../host.mjs";

// A behavior that ends only when it is stopped.
const behavior = "clock";

let host, browser, page;

before(async () => {
  host = await Host.start();
  browser = await launch();
  page = await browser.newPage();
}, { timeout: 120_000 });

after(async () => {
  await browser?.close();
  assert.equal(await host?.stop(), 0, "the host ends in order");
});

const open = async () => assert.equal((await page.goto(`${host.url}/ZBBehaviorManager/`)).status(), 200);
const section = (heading) => page.locator(`xpath=//u[text()="${heading}"]/following::table[1]`);
// State lists name a package that is a behavior itself with its path, ".".
const link = (heading) => section(heading).getByRole("link", { name: new RegExp(`^${behavior}(/\\.)?$`) });

test("a browser without the token is turned away", async () => {
  const answer = await page.goto(`${host.url}/ZBBehaviorManager/`);
  assert.deepEqual([answer.status(), /tarvik open/.test(await answer.text())], [401, true]);
});

test("a click on an installed behavior runs it, and one on a running behavior stops it", { timeout: 120_000 }, async () => {
  await page.goto(`${host.url}/?token=${host.token}`);
  await page.waitForURL(`${host.url}/`); // the token does not stay in the address

  await open();
  assert.equal(await page.getByText("Running behaviors").count(), 0);
  assert.notEqual(await host.state(behavior), "running");
  await link("Installed behaviors").click();
  await until("the click has started it", async () => (await host.state(behavior)) === "running");

  await page.reload();
  assert.equal(await link("Running behaviors").count(), 1);
  await link("Running behaviors").click();
  await until("the click has stopped it", async () => (await host.state(behavior)) === "installed");

  await page.reload();
  assert.equal(await page.getByText("Running behaviors").count(), 0);
  assert.equal(await page.getByText("Loaded behaviors").count(), 0);
  assert.equal(await link("Installed behaviors").count(), 1);
});
