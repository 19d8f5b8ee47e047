// The connection to the host: JSON-RPC over a WebSocket that comes back by itself.

import { bearer, secret } from "./session.js";

const longestDelay = 10_000;
const heartbeat = 20_000;
const patience = 10_000;

/** A call that has no answer because there is no connection (any more). */
export class ConnectionLost extends Error {}

/**
 * Emits "open" for each new connection, of which nothing is known yet, and
 * "phase" when `phase` changes: "connecting", "connected", "waiting" (for the
 * next attempt) or "refused" (this tab is not let in).
 * All open calls fail when a connection ends, so no answer outlives it.
 */
export class Connection extends EventTarget {
  phase = "connecting";
  reason = "";
  #url;
  #socket = null;
  #lastId = 0;
  #calls = new Map(); // id -> {resolve, reject, heard}
  #links = new Map(); // link -> callback
  #failures = 0;
  #timer = 0;

  constructor(url) {
    super();
    this.#url = url;
    const retry = () => this.phase !== "connected" && document.visibilityState === "visible" && this.retry();
    addEventListener("online", retry);
    document.addEventListener("visibilitychange", retry);
    setInterval(() => this.#beat(), heartbeat);
  }

  /** Connects now, unless that is under way. */
  retry() {
    if (this.#socket) return;
    if (!secret) return this.#enter("refused");
    clearTimeout(this.#timer);
    const socket = new WebSocket(this.#url, ["tarvik", `tarvik.bearer.${secret}`]);
    this.#socket = socket;
    this.#timer = setTimeout(() => this.#lose(socket, "the host does not answer"), patience);
    socket.onopen = () => {
      clearTimeout(this.#timer);
      this.#enter("connected");
      this.dispatchEvent(new Event("open"));
    };
    socket.onmessage = ({ data }) => this.#receive(JSON.parse(data));
    socket.onclose = ({ reason }) => this.#lose(socket, reason);
  }

  /** Calls "Service.method"; fails with what the host says. */
  call(method, ...params) {
    return this.#send(method, params);
  }

  /** Has `heard(signal's arguments)` called from now on, as long as this connection lasts. */
  connect(service, signal, heard) {
    return this.#send("session.connect", [service, signal], heard);
  }

  subscribe(key, heard) {
    return this.#send("session.subscribe", [key], heard);
  }

  #send(method, params, heard) {
    if (this.phase !== "connected") return Promise.reject(new ConnectionLost("there is no connection to the host: try again when it is back"));
    return new Promise((resolve, reject) => {
      const id = ++this.#lastId;
      this.#calls.set(id, { resolve, reject, heard });
      this.#socket.send(JSON.stringify({ jsonrpc: "2.0", id, method, params }));
    });
  }

  #receive(message) {
    if (message.method) {
      this.#links.get(message.params.link)?.(message.params);
      return;
    }
    const call = this.#calls.get(message.id);
    if (!call) return;
    this.#failures = 0; // only now: a host may accept a connection and end it at once
    this.#calls.delete(message.id);
    if (message.error) return call.reject(Object.assign(new Error(message.error.message), { code: message.error.code }));
    if (call.heard) this.#links.set(message.result, call.heard); // before the next message, which may be its first
    call.resolve(message.result);
  }

  /** A host that vanished without a word closes nothing. */
  async #beat() {
    const socket = this.#socket;
    if (this.phase !== "connected") return;
    const timer = setTimeout(() => this.#lose(socket, "the host does not answer any more"), patience);
    await this.call("session.services").catch(() => {});
    clearTimeout(timer);
  }

  async #lose(socket, reason) {
    if (socket !== this.#socket) return;
    clearTimeout(this.#timer);
    socket.onopen = socket.onmessage = socket.onclose = null;
    socket.close();
    const calls = [...this.#calls.values()];
    this.#calls.clear();
    this.#links.clear();
    if (this.phase === "connected" || this.phase === "connecting") {
      this.reason = reason; // and not what came of the attempts after it
      this.#enter("waiting");
    }
    for (const call of calls) call.reject(new ConnectionLost("the connection to the host was lost: whether it did this is not known"));
    // A refused handshake looks to a page like any other failure: a plain request tells.
    const refused = await fetch(location.pathname, { cache: "no-store", headers: { Authorization: bearer }, signal: AbortSignal.timeout(patience / 2) })
      .then(({ status }) => status === 401, () => false);
    const delay = refused ? longestDelay : Math.min(longestDelay, 500 * 2 ** this.#failures++) * (0.8 + 0.4 * Math.random());
    this.#socket = null;
    this.#timer = setTimeout(() => this.retry(), delay);
    this.#enter(refused ? "refused" : "waiting");
  }

  #enter(phase) {
    if (phase === this.phase) return;
    this.phase = phase;
    this.dispatchEvent(new Event("phase"));
  }
}
