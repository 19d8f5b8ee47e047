// Puts the page together.

import { BehaviorList } from "./behaviors.js";
import { Catalogue } from "./catalogue.js";
import { byId, element, setAttribute, setText } from "./dom.js";
import { History } from "./history.js";
import { Log } from "./log.js";
import { offerInstallation } from "./packages.js";
import { Connection, ConnectionLost } from "./rpc.js";
import { secret } from "./session.js";
import { TimeLine } from "./timeline.js";

const address = new URL("rpc", location.href);
address.protocol = location.protocol === "https:" ? "wss:" : "ws:";
const connection = new Connection(address);
const host = { connection, catalogue: new Catalogue(connection), history: new History(connection), mayControl: false, mayInstall: false };
const log = new Log();
const behaviors = new BehaviorList(host);
const timeLine = new TimeLine(host.history);
let takeBackInstallation = () => {};
let role = "";

setText(byId("host"), location.host);
document.title = `Tarvik · ${location.host}`;

/** For each new connection: listens first and asks then, so that nothing falls between. */
connection.addEventListener("open", async () => {
  try {
    const asked = Date.now();
    const identity = await connection.call("session.whoami");
    host.history.clockOffset = (asked + Date.now()) / 2 - identity.time;
    showIdentity(identity);
    const services = await connection.call("session.services");
    host.history.forget();
    await listen(services);
    await Promise.all([host.catalogue.begin(), host.history.begin(services)]);
    log.add("page", "connected", `to ${location.host}`);
  } catch (error) {
    if (!(error instanceof ConnectionLost)) showNotice(`This page and the host do not understand each other: ${error.message}. Reload the page.`);
  }
});

/** Every signal of every service, and every event: as “tarvik watch” does. */
async function listen(services) {
  const descriptions = await Promise.all(services.map((service) => connection.call("session.describe", service).catch(() => ({ signals: [] }))));
  const links = descriptions.flatMap(({ name, signals }) => signals
    // The memory's own signal would tell each event twice.
    .filter((signal) => name !== "ZBMemory" || signal.name !== "eventRaised")
    .map((signal) => connection.connect(name, signal.name, hearSignal)));
  await Promise.all([...links, connection.subscribe("*", hearEvent)]);
}

function hearSignal({ service, signal, arguments: values }) {
  host.catalogue.hearSignal(service, signal, values);
  host.history.hearSignal(service, signal, values);
  if (service !== "RunHistory") log.hearSignal(service, signal, values); // the time line shows it
}

function hearEvent({ key, value }) {
  host.catalogue.hearEvent(key, value);
  log.hearEvent(key, value);
}

/** What the role does not allow is not offered; the host refuses it anyway. */
function showIdentity(identity) {
  setText(byId("identity"), `${identity.name} · ${identity.role}`);
  setText(byId("version"), `Tarvik ${identity.version}`);
  if (identity.role === role) return;
  role = identity.role;
  host.mayControl = role !== "observer";
  host.mayInstall = role === "admin";
  takeBackInstallation();
  behaviors.rebuild();
  takeBackInstallation = host.mayInstall ? offerInstallation(host) : () => {};
}

const enter = element("a", { href: "/?enter" }, "enter a token");
const again = element("button", { type: "button", click: () => connection.retry() }, "Try now");

function showNotice(text, ...more) {
  byId("notice").replaceChildren(...(text ? [element("p", { class: "notice" }, text, ...more)] : []));
}

let wasConnected = false;

connection.addEventListener("phase", () => {
  const { phase, reason } = connection;
  setAttribute(document.body, "data-phase", phase);
  if (phase === "connected") {
    showNotice("");
    wasConnected = true;
  } else if (phase === "refused")
    showNotice(`${secret ? "This tab's session is over: it ends after 12 hours, with its token and with the host." : "This tab has no session: each begins its own."} Run “tarvik open” on the host and open the address it prints here, or `, enter);
  else if (phase === "waiting") {
    showNotice(`The connection to the host is lost${reason ? `: ${reason}` : ""}. What you see is what was last known. `, again);
    if (wasConnected) log.add("page", "connection lost", reason);
    wasConnected = false;
  }
  setText(byId("connection"), { connecting: "Connecting…", connected: "Connected", refused: "Not let in", waiting: "Reconnecting…" }[phase]);
});

// Nothing tells a change of the default behaviors by somebody else.
setInterval(() => connection.phase === "connected" && document.visibilityState === "visible" && host.catalogue.refresh("states", "defaults"), 15_000);
addEventListener("focus", () => connection.phase === "connected" && host.catalogue.refresh("states", "defaults"));
timeLine.draw();
connection.retry();
