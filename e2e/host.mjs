import { execFile, spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtemp, readFile, readdir, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import path from "node:path";
import { createInterface } from "node:readline";
import { promisify } from "node:util";

const repository = path.resolve(import.meta.dirname ?? path.dirname(new URL(import.meta.url).pathname), "..");
const bin = path.resolve(process.env.TARVIK_BUILD ?? path.join(repository, "build/dev"), "bin");

/** A host on a root of its own, with the example packages. */
export class Host {
  static async start() {
    const host = new Host();
    host.root = await mkdtemp(path.join(tmpdir(), "tarvik-e2e-"));
    host.process = spawn(path.join(bin, "tarvikd"), ["--root", host.root, "--listen", "127.0.0.1:0"], { stdio: ["ignore", "pipe", "pipe"] });
    host.log = "";
    host.process.stderr.on("data", (data) => (host.log += data));
    const lines = createInterface({ input: host.process.stdout });
    await Promise.race([
      once(lines, "line"),
      once(host.process, "error").then(([error]) => { throw error; }),
      once(host.process, "exit").then(([code]) => { throw new Error(`tarvikd ended with ${code} before it was ready:\n${host.log}`); }),
    ]);
    host.url = (await readFile(path.join(host.root, "run/endpoint"), "utf8")).trim();
    host.token = (await readFile(path.join(host.root, "run/token"), "utf8")).trim();
    const packages = path.join(repository, "examples/packages");
    for (const name of await readdir(packages)) await host.tarvik("package", "install", path.join(packages, name));
    return host;
  }

  /** What a command of `tarvik` writes; fails when it does. */
  async tarvik(...args) {
    const { stdout } = await promisify(execFile)(path.join(bin, "tarvik"), ["--root", this.root, ...args]);
    return stdout;
  }

  async state(behavior) {
    return JSON.parse(await this.tarvik("list", "--json")).find(({ name }) => name === behavior)?.state;
  }

  /** Ends it in order and gives its exit code. */
  async stop() {
    if (this.process.exitCode === null && this.process.signalCode === null) {
      const exit = once(this.process, "exit");
      this.process.kill("SIGTERM");
      await exit;
    }
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
