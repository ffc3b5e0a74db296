// A node process for the client tests: started on a free loopback port with
// authentication off and the built-in embedding model, and awaited until it
// logs that it serves.
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { createServer } from "node:net";
import { join } from "node:path";

export const binary = process.env.OSTREL_BINARY;
export const sourceDir = process.env.OSTREL_SOURCE_DIR;
assert.ok(binary && sourceDir, "OSTREL_BINARY and OSTREL_SOURCE_DIR must be set");

export function freePort() {
  return new Promise((resolve) => {
    const s = createServer();
    s.listen(0, "127.0.0.1", () => {
      const { port } = s.address();
      s.close(() => resolve(port));
    });
  });
}

// `settings(port)` gives the "key=value" settings beyond the defaults and
// `env` variables beyond the defaults; the answer is { node, port } once the
// node is ready.
export async function startNode(dataDir, settings = () => [], env = {}) {
  const port = await freePort();
  const args = [`--port=${port}`, "--bind=127.0.0.1", `--data-dir=${dataDir}`,
    `--modules-d=${sourceDir}/modules.d`, "--config-set", "data.embedding_model=ulvo-hash-embed-v1"];
  for (const s of settings(port)) args.push("--config-set", s);
  const node = spawn(binary, args, {
    env: { ...process.env, OSTREL_AUTH: "off", OSTREL_CONFIG_DIR: join(dataDir, "config"), ...env },
    stdio: ["ignore", "ignore", "pipe"],
  });
  await untilReady(node);
  return { node, port };
}

// Resolves once a started node logs that it serves (its stderr so far is
// kept on node.stderrText), rejects when it exits first or takes 20 s.
export function untilReady(node) {
  node.stderrText = "";
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error("node not ready:\n" + node.stderrText)), 20000);
    node.stderr.on("data", (c) => {
      node.stderrText += c;
      if (node.stderrText.includes("ready — serving on")) {
        clearTimeout(timer);
        resolve();
      }
    });
    node.on("exit", (code) => reject(new Error(`node exited ${code}:\n${node.stderrText}`)));
  });
}

// Stops the node and waits until it has exited (it writes its state on the
// way out, so its data directory is only then safe to remove); a node that
// has not exited after ten seconds is killed.
export async function stopNode(node) {
  if (!node || node.exitCode !== null || node.signalCode !== null) return;
  const exited = new Promise((resolve) => node.once("exit", resolve));
  node.kill("SIGTERM");
  const timer = setTimeout(() => node.kill("SIGKILL"), 10000);
  await exited;
  clearTimeout(timer);
}
