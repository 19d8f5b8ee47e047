import { execFile, spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtemp, readFile, readdir, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import path from "node:path";
import { createInterface } from "node:readline";
import { promisify } from "node:util";

const repository = path.resolve(import.meta.dirname ?? path.dirname(new URL(import.meta.url).pathname), "..");
const bin = path.resolve(process.env.TARVIK_BUILD ?? path.join(repository, "build/release"), "bin");

/** A host on a root of its own, with the example packages. */
export class Host {
  static async start() {
    const host = new Host();
    host.root = await mkdtemp(path.join(tmpdir(), "tarvik-e2e-"));
    await host.run("127.0.0.1:0");
    const packages = path.join(repository, "examples/packages");
    for (const name of await readdir(packages)) await host.tarvik("package", "install", path.join(packages, name));
    return host;
  }

  /** Starts it on its root; after an end, at the same address. */
  async run(address = new URL(this.url).host) {
    this.process = spawn(path.join(bin, "tarvikd"), ["--root", this.root, "--listen", address], { stdio: ["ignore", "pipe", "pipe"] });
    this.log = "";
    this.process.stderr.on("data", (data) => (this.log += data));
    const lines = createInterface({ input: this.process.stdout });
    await Promise.race([
      once(lines, "line"),
      once(this.process, "error").then(([error]) => { throw error; }),
      once(this.process, "exit").then(([code]) => { throw new Error(`tarvikd ended with ${code} before it was ready:\n${this.log}`); }),
    ]);
    this.url = (await readFile(path.join(this.root, "run/endpoint"), "utf8")).trim();
    this.token = (await readFile(path.join(this.root, "run/token"), "utf8")).trim();
  }

  /** What a command of `tarvik` writes; fails when it does. */
  async tarvik(...args) {
    const { stdout } = await promisify(execFile)(path.join(bin, "tarvik"), ["--root", this.root, ...args]);
    return stdout;
  }

  async state(behavior) {
    return JSON.parse(await this.tarvik("list", "--json")).find(({ name }) => name === behavior)?.state;
  }

  async end(signal) {
    if (this.process.exitCode !== null || this.process.signalCode !== null) return;
    const exit = once(this.process, "exit");
    this.process.kill(signal);
    await exit;
  }

  /** Ends it in order and gives its exit code. */
  async stop() {
    await this.end("SIGTERM");
    await rm(this.root, { recursive: true, force: true });
    return this.process.exitCode;
  }
}

/** Waits until the condition holds, at most 20 s. */
export async function until(what, condition) {
  for (const end = Date.now() + 20_000; Date.now() < end; await new Promise((resolve) => setTimeout(resolve, 100)))
    if (await condition()) return;
  throw new Error(`waited in vain: ${what}`);
}
