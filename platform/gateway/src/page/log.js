// The live log of signals and events.

import { byId, element, setAttribute, setText, shownName, timeOfDay } from "./dom.js";

const bound = 1000; // entries kept
const shownBound = 300; // entries shown
const longestValue = 400;

export class Log {
  #entries = [];
  #fresh = []; // not shown yet
  #missed = 0; // while paused
  #paused = false;
  #frame = 0;

  constructor() {
    byId("log-filter").addEventListener("input", () => this.#redraw());
    byId("log-pause").addEventListener("click", () => this.#pause(!this.#paused));
    byId("log-clear").addEventListener("click", () => {
      this.#entries = [];
      this.#redraw();
    });
  }

  hearSignal(service, signal, values) {
    this.add("signal", signal, values.map((value) => valueText(value) || '""').join(", "), service);
  }

  hearEvent(key, value) {
    this.add("event", key, valueText(value));
  }

  /** `kind` is "signal", "event", or "page" for what the page itself has to tell. */
  add(kind, name, value = "", service = "") {
    const now = new Date();
    const entry = { kind, name, value, service, time: `${timeOfDay(now)}.${String(now.getMilliseconds()).padStart(3, "0")}` };
    entry.words = `${kind} ${service} ${name} ${value}`.toLowerCase();
    this.#entries.push(entry);
    if (this.#entries.length > bound * 1.2) this.#entries.splice(0, this.#entries.length - bound);
    if (this.#paused) {
      ++this.#missed;
      this.#frame ||= requestAnimationFrame(() => this.#label());
      return;
    }
    this.#fresh.push(entry);
    if (this.#fresh.length > bound) this.#fresh.shift(); // a page in the background draws nothing
    this.#frame ||= requestAnimationFrame(() => this.#draw());
  }

  /** Once for each frame, however much comes. */
  #draw() {
    this.#frame = 0;
    const list = byId("log-list");
    const follows = list.scrollTop + list.clientHeight >= list.scrollHeight - 8;
    const matches = this.#filter();
    list.append(...this.#fresh.filter(matches).slice(-shownBound).map(line));
    this.#fresh = [];
    while (list.childElementCount > shownBound) list.firstElementChild.remove();
    if (follows) list.scrollTop = list.scrollHeight;
  }

  #redraw() {
    byId("log-list").replaceChildren();
    this.#fresh = [...this.#entries];
    this.#missed = 0;
    this.#draw();
    this.#label();
    byId("log-list").scrollTop = byId("log-list").scrollHeight;
  }

  #filter() {
    const words = byId("log-filter").value.toLowerCase().split(/\s+/).filter((word) => word && word !== "-");
    return (entry) => words.every((word) => (word[0] === "-" ? !entry.words.includes(word.slice(1)) : entry.words.includes(word)));
  }

  #pause(paused) {
    this.#paused = paused;
    setAttribute(byId("log-pause"), "aria-pressed", String(paused));
    if (!paused) this.#redraw();
    this.#label();
  }

  #label() {
    this.#frame = 0;
    setText(byId("log-pause"), this.#paused ? `Go on${this.#missed ? ` (${this.#missed} new)` : ""}` : "Pause");
  }
}

function line({ kind, name, value, service, time }) {
  return element("li", { "data-kind": kind },
    element("time", {}, time), element("span", { class: "kind" }, kind),
    element("span", { class: "entry" }, service && element("span", { class: "muted" }, `${service}.`), element("b", {}, name), " ", value));
}

function valueText(value) {
  const text = typeof value === "string" ? shownName(value) : JSON.stringify(value);
  return text.length > longestValue ? `${text.slice(0, longestValue)}…` : text;
}
