// The runs that the host remembers.

import { shownName } from "./dom.js";

const limit = 200;

/** Where the host keeps no run history, `available` is false and nothing else happens. Emits "change". */
export class History extends EventTarget {
  available = false;
  known = false;
  error = "";
  runs = []; // newest first
  clockOffset = 0; // what this browser's clock is ahead of the host's
  #connection;
  #heard = new Map(); // since this connection began

  constructor(connection) {
    super();
    this.#connection = connection;
  }

  forget() {
    this.#heard.clear();
  }

  /** Signals have been heard since before this is asked. */
  async begin(services) {
    this.available = services.includes("RunHistory");
    this.error = "";
    if (this.available)
      try {
        this.#take(await this.#connection.call("RunHistory.getRuns", limit), this.#heard.values());
      } catch (error) {
        this.error = `The runs cannot be shown: ${error.message}`;
      }
    else this.runs = [];
    this.known = true;
    this.dispatchEvent(new Event("change"));
  }

  hearSignal(service, signal, [run]) {
    if (service !== "RunHistory" || !run?.id) return;
    this.#heard.set(run.id, merge(this.#heard.get(run.id), run));
    this.#take(this.runs, [run]);
    this.dispatchEvent(new Event("change"));
  }

  #take(...lists) {
    const byId = new Map();
    for (const list of lists) for (const run of list) byId.set(run.id, merge(byId.get(run.id), run));
    this.runs = [...byId.values()].sort((a, b) => b.begin - a.begin || b.id - a.id).slice(0, limit);
    for (const id of this.#heard.keys()) if (this.#heard.size > limit) this.#heard.delete(id);
  }

  now() {
    return Date.now() - this.clockOffset;
  }

  latest(name) {
    return this.runs.find((run) => shownName(run.behavior) === shownName(name));
  }
}

/** A run ends once: an ended record is never replaced by one from before its end. */
function merge(old, fresh) {
  return old && old.outcome !== "running" ? old : fresh;
}

export const outcomes = {
  running: { glyph: "▸", text: "running" },
  finished: { glyph: "✓", text: "ended by itself" },
  failed: { glyph: "✕", text: "failed" },
  stopped: { glyph: "■", text: "stopped" },
  removed: { glyph: "□", text: "package removed" },
  shutdown: { glyph: "□", text: "host shut down" },
  lost: { glyph: "?", text: "lost" },
};

/** Why it is not running any more, in words. */
export function reason(run) {
  return run.reason || outcomes[run.outcome]?.text || run.outcome;
}
