// What is installed and what it does at the moment.

import { ConnectionLost } from "./rpc.js";

const pause = 60;

/**
 * Emits "change". Signals are taken as a hint that something has changed, and
 * what is true is asked: an answer to a question asked after a signal holds
 * what that signal told, in whatever order they come, and nothing is pieced
 * together from a stream that may have begun in the middle.
 */
export class Catalogue extends EventTarget {
  packages = [];
  loaded = new Set();
  running = new Set();
  defaults = new Set();
  seenStarting = new Map(); // name -> time, of starts that this page has seen
  error = "";
  known = false;
  #connection;
  #wanted = new Set();
  #busy = false;

  constructor(connection) {
    super();
    this.#connection = connection;
  }

  /** For a new connection: asks for everything. */
  begin() {
    this.seenStarting.clear();
    return this.refresh("packages", "states", "defaults");
  }

  hearSignal(service, signal, [name]) {
    if (service !== "ZBBehaviorManager") return;
    if (signal === "behaviorStarted") this.seenStarting.set(name, Date.now());
    if (signal === "behaviorStopped") this.seenStarting.delete(name);
    if (signal === "behaviorsAdded" || signal === "behaviorsRemoved") this.refresh("packages", "states", "defaults");
    else this.refresh("states");
  }

  hearEvent(key) {
    // A package without a behavior makes no signal of the behavior manager.
    if (key === "packageInstalled" || key === "packageRemoved") this.refresh("packages");
  }

  /** One question of a kind is open at a time; what is wanted meanwhile is asked again after it. */
  async refresh(...parts) {
    for (const part of parts) this.#wanted.add(part);
    if (this.#busy) return;
    this.#busy = true;
    try {
      while (this.#wanted.size) {
        const now = [...this.#wanted];
        this.#wanted.clear();
        await Promise.all(now.map((part) => this.#load(part)));
        this.error = "";
        this.known = true;
        this.dispatchEvent(new Event("change"));
        await new Promise((resolve) => setTimeout(resolve, pause));
      }
    } catch (error) {
      this.#wanted.clear();
      if (!(error instanceof ConnectionLost)) {
        this.error = `What is installed cannot be shown: ${error.message}`;
        this.dispatchEvent(new Event("change"));
      }
    } finally {
      this.#busy = false;
    }
  }

  async #load(part) {
    const ask = (method) => this.#connection.call(method);
    if (part === "packages") this.packages = (await ask("PackageManager.packages")).map(packageFrom);
    else if (part === "defaults") this.defaults = new Set(await ask("ZBBehaviorManager.getDefaultBehaviors"));
    else {
      const [loaded, running] = await Promise.all([ask("ZBBehaviorManager.getLoadedBehaviors"), ask("ZBBehaviorManager.getRunningBehaviors")]);
      [this.loaded, this.running] = [new Set(loaded), new Set(running)];
    }
  }

  state(name) {
    if (this.running.has(name)) return "running";
    return this.loaded.has(name) ? "loaded" : "installed";
  }
}

function packageFrom({ uuid, version, installer, names, descriptions, behaviors, may = [] }) {
  const inEnglish = (texts) => texts?.en_US ?? texts?.en ?? Object.values(texts ?? {})[0] ?? "";
  return {
    uuid, version, installer, may,
    title: inEnglish(names),
    description: inEnglish(descriptions),
    behaviors: behaviors.map(({ path, nature, tags }) => ({
      name: `${uuid}/${path}`, nature,
      tags: [...new Set([...(tags.en_US ?? []), ...(tags.en ?? [])])].sort(),
    })),
  };
}
