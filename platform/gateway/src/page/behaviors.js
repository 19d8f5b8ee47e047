// The list of behaviors, by package.

import { arrange, byId, clock, element, setAttribute, setText, shownName, timeOfDay, visible } from "./dom.js";
import { outcomes, reason } from "./history.js";
import { mayText, removeButton } from "./packages.js";

const stateGlyphs = { installed: "○", loaded: "◐", running: "●" };

export class BehaviorList {
  #groups = new Map(); // uuid -> group
  #rows = new Map(); // name -> row
  #failures = new Map(); // name -> text, of calls from this page

  constructor(host) {
    this.host = host;
    const again = () => this.draw();
    host.connection.addEventListener("open", () => this.#failures.clear());
    host.catalogue.addEventListener("change", again);
    host.history.addEventListener("change", again);
    byId("filter").addEventListener("input", again);
    byId("view").addEventListener("change", again);
    setInterval(() => this.#tick(), 1000);
  }

  /** For a change of what the client may: everything is made anew. */
  rebuild() {
    this.#groups.clear();
    this.#rows.clear();
    byId("packages").replaceChildren();
    byId("behavior-controls").replaceChildren();
    if (this.host.mayControl)
      byId("behavior-controls").append(element("button", { type: "button", class: "control danger", click: () => this.#stopAll() }, "Stop all"));
    this.draw();
  }

  draw() {
    const { catalogue } = this.host;
    const words = byId("filter").value.toLowerCase().split(/\s+/).filter(Boolean);
    const view = document.querySelector("#view input:checked").value;
    const groups = [];
    for (const each of catalogue.packages) {
      const shown = each.behaviors.filter((behavior) => this.#matches(behavior, each, words, view));
      // A package without behaviors can still be removed.
      if (shown.length || (!each.behaviors.length && view === "all" && matchesWords(words, [each.uuid, each.title]))) groups.push(this.#group(each, shown));
    }
    arrange(byId("packages"), groups);
    this.#forgetRemoved();
    const total = catalogue.packages.reduce((sum, { behaviors }) => sum + behaviors.length, 0);
    setText(byId("summary"), catalogue.known ? `${catalogue.running.size} running, ${total} installed` : "");
    setText(byId("behaviors-error"), [catalogue.error, this.#failures.get("")].filter(Boolean).join(" "));
    const empty = byId("behaviors-empty");
    empty.hidden = !catalogue.known || groups.length > 0;
    if (catalogue.packages.length) setText(empty, words.length ? "No behavior matches the filter." : view === "active" ? "Nothing is running." : "There are no default behaviors: mark one with its star.");
    else setText(empty, "No package is installed yet. “tarvik package install DIRECTORY” installs one, or drop a zip archive here.");
    this.#tick();
  }

  #matches(behavior, { uuid, title }, words, view) {
    const { catalogue } = this.host;
    if (view === "active" && catalogue.state(behavior.name) === "installed") return false;
    if (view === "defaults" && !catalogue.defaults.has(behavior.name)) return false;
    return matchesWords(words, [shownName(behavior.name), uuid, title, behavior.nature, ...behavior.tags]);
  }

  #forgetRemoved() {
    const { packages } = this.host.catalogue;
    const names = new Set(packages.flatMap(({ behaviors }) => behaviors.map(({ name }) => name)));
    for (const uuid of this.#groups.keys()) if (!packages.some((each) => each.uuid === uuid)) this.#groups.delete(uuid);
    for (const name of this.#rows.keys()) if (!names.has(name)) this.#rows.delete(name) && this.#failures.delete(name);
  }

  #group(each, shown) {
    let group = this.#groups.get(each.uuid);
    if (!group) {
      const parts = { title: element("span", { class: "title" }), about: element("span", { class: "muted" }), remove: element("span"), description: element("p", { class: "muted" }), rights: element("p", { class: "muted rights" }), list: element("ul") };
      const node = element("section", { class: "package" },
        element("div", { class: "bar" }, element("h3", {}, parts.title, " ", parts.about), element("span", { class: "space" }), parts.remove),
        parts.description, parts.rights, parts.list);
      group = { ...parts, node };
      this.#groups.set(each.uuid, group);
    }
    setText(group.title, each.title || each.uuid);
    setText(group.about, [each.title && each.title !== each.uuid ? each.uuid : "", each.version, each.installer === "system" ? "system" : ""].filter(Boolean).join(" · "));
    setText(group.description, each.behaviors.length ? each.description : "This package has no behaviors.");
    setText(group.rights, mayText(each.may));
    group.rights.hidden = !each.may.length;
    if (group.record !== JSON.stringify(each)) {
      group.record = JSON.stringify(each);
      group.remove.replaceChildren(...(this.host.mayInstall && each.installer !== "system" ? [removeButton(this.host, each)] : []));
    }
    arrange(group.list, shown.map((behavior) => this.#row(behavior)));
    return group.node;
  }

  #row(behavior) {
    const { name } = behavior;
    const { catalogue, history, mayControl } = this.host;
    const row = this.#rows.get(name) ?? this.#makeRow(name);
    const state = catalogue.state(name);
    const isDefault = catalogue.defaults.has(name);
    setAttribute(row.node, "data-state", state);
    setText(row.glyph, stateGlyphs[state]);
    setText(row.state, state);
    setText(row.nature, behavior.nature);
    if (row.tags.textContent !== visible(behavior.tags.join(""))) row.tags.replaceChildren(...behavior.tags.map((tag) => element("span", { class: "tag" }, tag)));
    const last = history.latest(name);
    const over = last && last.outcome !== "running" && state !== "running";
    setText(row.last, over ? `${outcomes[last.outcome]?.glyph ?? ""} ${last.outcome === "finished" ? "ended" : `${reason(last)},`} ${timeOfDay(last.end ?? last.begin)}` : "");
    setAttribute(row.last, "data-outcome", over ? last.outcome : undefined);
    setText(row.error, this.#failures.get(name) ?? "");
    if (mayControl) {
      const word = state === "running" ? "Stop" : "Start";
      setText(row.act, word);
      setAttribute(row.act, "aria-label", `${word} ${shownName(name)}`);
      row.unload.hidden = state !== "loaded";
      setText(row.star, isDefault ? "★" : "☆");
      setAttribute(row.star, "aria-pressed", String(isDefault));
    } else setText(row.star, isDefault ? "★ default" : "");
    return row.node;
  }

  #makeRow(name) {
    const { mayControl, catalogue } = this.host;
    const shown = shownName(name);
    const row = { glyph: element("span", { class: "glyph", "aria-hidden": "true" }), state: element("span"), time: element("span", { class: "time" }),
      nature: element("span", { class: "nature muted" }), tags: element("span", { class: "tags" }), last: element("span", { class: "last" }), error: element("p", { class: "error", role: "alert" }) };
    if (mayControl) {
      row.act = element("button", { type: "button", class: "control act",
        // The second click of a double click would undo what the first did.
        click: ({ detail }) => detail < 2 && this.#act(name, catalogue.state(name) === "running" ? "stopBehavior" : "startBehavior") });
      row.unload = element("button", { type: "button", class: "control", "aria-label": `Unload ${shown}`, click: () => this.#act(name, "stopBehavior") }, "Unload");
      row.star = element("button", { type: "button", class: "control star", "aria-label": `${shown} starts with the host`, title: "Default behavior: starts with the host",
        click: () => this.#act(name, catalogue.defaults.has(name) ? "removeDefaultBehavior" : "addDefaultBehavior", "defaults") });
    } else row.star = element("span", { class: "muted" });
    row.node = element("li", { class: "behavior", "data-behavior": shown },
      element("p", { class: "state" }, row.glyph, row.state, row.time),
      element("p", { class: "what" }, nameOf(shown), row.nature, row.tags, row.last),
      element("div", { class: "actions" }, row.unload, row.act, row.star),
      row.error);
    this.#rows.set(name, row);
    return row;
  }

  async #act(name, method, changed = "states") {
    const row = this.#rows.get(name);
    if (row.node.ariaBusy === "true") return;
    row.node.ariaBusy = "true";
    this.#failures.delete(name);
    await this.host.connection.call(`ZBBehaviorManager.${method}`, name).catch((error) => this.#failures.set(name, error.message));
    row.node.ariaBusy = "false";
    this.draw();
    this.host.catalogue.refresh(changed);
  }

  /** One that is refused keeps no other one running. */
  async #stopAll() {
    this.#failures.delete("");
    const call = (method, ...parameters) => this.host.connection.call(`ZBBehaviorManager.${method}`, ...parameters);
    try {
      const refusals = new Map();
      await Promise.all((await call("getRunningBehaviors")).map((name) => call("stopBehavior", name).catch((error) => refusals.set(name, error.message))));
      const left = await call("getRunningBehaviors");
      if (left.length) this.#failures.set("", `Not everything is stopped: ${left.map((name) => `${shownName(name)} (${refusals.get(name) ?? "started meanwhile"})`).join(", ")}`);
    } catch (error) {
      this.#failures.set("", `Not everything is stopped: ${error.message}`);
    }
    this.draw();
  }

  #tick() {
    const { catalogue, history } = this.host;
    for (const [name, row] of this.#rows) {
      const run = catalogue.running.has(name) ? history.latest(name) : undefined;
      const seen = catalogue.seenStarting.get(name);
      const since = run?.outcome === "running" ? history.now() - run.begin : catalogue.running.has(name) && seen ? Date.now() - seen : undefined;
      setText(row.time, since === undefined ? "" : clock(since));
    }
  }
}

/** The package stands above already, and the behavior's own part is what is looked for. */
function nameOf(shown) {
  const slash = shown.indexOf("/") + 1;
  return element("span", { class: "name" }, slash ? element("span", { class: "muted" }, shown.slice(0, slash)) : null, shown.slice(slash));
}

function matchesWords(words, texts) {
  const all = texts.join("\n").toLowerCase();
  return words.every((word) => all.includes(word));
}
