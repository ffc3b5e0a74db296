// README.md's shell examples, run as printed against nodes started the way
// `make run` starts one. The examples are read from the README itself (never
// copied here): every ```sh block with a curl command runs in one bash
// process (so the variables it sets carry on), with curl failing on any HTTP
// error; a quoted text in a command's trailing comment ("rivers.txt") must be
// in what that command printed.
//
// Which node a block runs on: a block that uses $TOKEN runs on a node that
// enforces credentials, with TOKEN set to its bootstrap token (as the README's
// "Exposing a node" says); a block that registers the first user runs on a
// fresh node of its own (it closes the node it runs on); every other block
// runs, in README order, on one node, as a user trying the README top to
// bottom would. Blocks that start several nodes are the cluster test's.
//
//   node --test tests/js/readme.test.mjs   (env OSTREL_BINARY, OSTREL_SOURCE_DIR)
import { test, after } from "node:test";
import assert from "node:assert/strict";
import { spawn, spawnSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

import { binary, freePort, sourceDir, untilReady } from "./node_process.mjs";


const work = mkdtempSync(join(tmpdir(), "ostrel-readme-"));
const nodes = [];

// A node as `make run` starts it (Makefile's run target), with `extra` args.
async function startNode(name, extra = []) {
  const port = await freePort();
  const dir = join(work, name);
  const args = [`--modules-d=${sourceDir}/modules.d`, `--data-dir=${dir}/data`, "--bind=127.0.0.1",
    `--port=${port}`, "--config-set", "data.embedding_model=ulvo-hash-embed-v1",
    "--config-set", `edge.controller_url=http://127.0.0.1:${port}`, ...extra];
  const env = { ...process.env, OSTREL_CONFIG_DIR: `${dir}/config` };
  for (const k of ["OSTREL_AUTH", "OSTREL_DATA_DIR", "OSTREL_ULVO_PEERS", "OSTREL_CLUSTER_SECRET"]) delete env[k];
  const node = spawn(binary, args, { env, stdio: ["ignore", "pipe", "pipe"] });
  let out = "";
  node.stdout.on("data", (c) => (out += c));
  await untilReady(node);
  const token = (out.match(/Bootstrap admin token \(1-year lifetime\):\s*\n\s*(\S+)/) || [])[1] || "";
  const entry = { node, port, token, stderr: () => node.stderrText };
  nodes.push(entry);
  return entry;
}

after(async () => {
  for (const { node } of nodes) {
    if (node.exitCode === null) {
      const exited = new Promise((r) => node.once("exit", r));
      node.kill("SIGTERM");
      await exited;
    }
  }
  rmSync(work, { recursive: true, force: true });
});

// The README's ```sh blocks, in order.
function shellBlocks() {
  const text = readFileSync(join(sourceDir, "README.md"), "utf8");
  return [...text.matchAll(/```sh\n([\s\S]*?)```/g)].map((m) => m[1]);
}

// Splits a line at its comment: the text before an unquoted " #", and the
// comment after it.
function splitComment(line) {
  let quote = null;
  for (let i = 0; i < line.length; i++) {
    const c = line[i];
    if (quote) {
      if (c === quote) quote = null;
    } else if (c === "'" || c === '"') {
      quote = c;
    } else if (c === "#" && (i === 0 || /\s/.test(line[i - 1]))) {
      return [line.slice(0, i).trimEnd(), line.slice(i + 1)];
    }
  }
  return [line, ""];
}

// Commands of a block (continuation lines joined), each with the texts its
// comments promise. A comment on a line of its own that shows an answer
// ("# {…}") speaks of the command before it; other comment lines are prose.
function commands(block) {
  const out = [];
  let current = null;
  for (const raw of block.split("\n")) {
    const [code, comment] = splitComment(raw);
    const promised = [...comment.matchAll(/"([^"…]+)"/g)].map((m) => m[1]);
    if (current) {
      current.code += "\n" + code;
      current.promised.push(...promised);
      if (!code.endsWith("\\")) {
        out.push(current);
        current = null;
      }
      continue;
    }
    if (!code.trim()) {
      if (/^\s*[{[]/.test(comment) && out.length) out[out.length - 1].promised.push(...promised);
      continue;
    }
    const command = { code, promised };
    if (code.endsWith("\\")) {
      current = command;
    } else {
      out.push(command);
    }
  }
  return out;
}

const runnable = (c) => /(^|\$\()\s*curl\b/.test(c.code) || /^\s*[A-Z_]+=\$\(curl\b/.test(c.code);

async function runBlock(block, node, label) {
  const cmds = commands(block).filter(runnable);
  assert.ok(cmds.length > 0, label);
  const dir = mkdtempSync(join(work, "block-"));
  let script = "set -euo pipefail\n" +
    "curl() { command curl --fail-with-body -sS --max-time 30 \"$@\"; }\n" +
    `export TOKEN=${JSON.stringify(node.token)}\n`;
  cmds.forEach((c, i) => {
    const code = c.code.replaceAll("localhost:8880", `127.0.0.1:${node.port}`)
      .replaceAll("127.0.0.1:8880", `127.0.0.1:${node.port}`);
    script += `echo ${i} > ${dir}/at\n`;
    script += /^\s*[A-Z_]+=\$\(/.test(code) ? `${code}\n` : `{ ${code}\n} > ${dir}/out.${i}\n`;
  });
  writeFileSync(join(dir, "run.sh"), script);
  const r = spawnSync("bash", [join(dir, "run.sh")], { encoding: "utf8", timeout: 120000 });
  const at = Number(readFileSync(join(dir, "at"), "utf8"));
  assert.equal(r.status, 0, `${label}: command ${at} failed:\n${cmds[at].code}\n${r.stderr}\n` +
    `${spawnSync("cat", [join(dir, `out.${at}`)], { encoding: "utf8" }).stdout}\n${node.stderr().slice(-2000)}`);
  cmds.forEach((c, i) => {
    if (!c.promised.length) return;
    const printed = readFileSync(join(dir, `out.${i}`), "utf8");
    for (const p of c.promised) {
      assert.ok(printed.includes(p), `${label}: "${p}" not in what this printed:\n${c.code}\n${printed.slice(0, 1500)}`);
    }
  });
  return cmds.length;
}

test("every shell example of README.md answers as the README says", async () => {
  const blocks = shellBlocks();
  const shared = await startNode("shared");
  let enforcing = null;
  let ran = 0, fresh = 0;
  for (const [i, block] of blocks.entries()) {
    if (!/\bcurl\b/.test(block)) continue;
    if (/OSTREL_ULVO_PEERS=/.test(block)) continue;  // several nodes: the cluster test's
    const label = `README block ${i}`;
    if (block.includes("$TOKEN")) {
      enforcing ??= await startNode("enforcing", ["--auth=enforce", "--config-set", "security.mode=enforce"]);
      ran += await runBlock(block, enforcing, label);
    } else if (block.includes("/api/v1/auth/register")) {
      ran += await runBlock(block, await startNode(`fresh-${++fresh}`), label);
    } else {
      ran += await runBlock(block, shared, label);
    }
  }
  assert.ok(ran >= 25, `only ${ran} commands ran`);
  // The model name example said it: the echo model answered "llama3", and
  // the header says so.
  assert.match(shared.stderr(), /ready — serving on/);
});

// The README's cluster recipe, with its addresses on this machine: each
// 10.0.0.N becomes 127.0.0.1 with ports of that node's own, each node runs in
// a directory of its own (as on its own machine), and the "further node"
// line runs twice (10.0.0.2 as n2, 10.0.0.3 as n3). Three nodes, three
// distinct members, everywhere.
test("the README's cluster recipe makes three distinct members", async () => {
  const block = shellBlocks().find((b) => b.includes("OSTREL_ULVO_PEERS="));
  assert.ok(block, "no cluster recipe in README.md");
  const statements = [];
  let current = "";
  for (const raw of block.split("\n")) {
    const [code] = splitComment(raw);
    if (!code.trim()) continue;
    current += (current ? " " : "") + code.replace(/\\$/, "").trim();
    if (!code.endsWith("\\")) {
      statements.push(current);
      current = "";
    }
  }
  const env = {};
  const runs = [];
  for (const st of statements) {
    const exported = st.match(/^export (\w+)=(.*)$/);
    if (exported) {
      env[exported[1]] = spawnSync("bash", ["-c", `echo ${exported[2]}`], { encoding: "utf8" }).stdout.trim();
      continue;
    }
    assert.match(st, /\bmake run\b/, st);
    runs.push(st);
    if (st.includes("OSTREL_ULVO_PEERS=")) runs.push(st.replaceAll("10.0.0.2", "10.0.0.3").replace(/OSTREL_NODE_ID=\w+/, "OSTREL_NODE_ID=n3"));
  }
  assert.equal(runs.length, 3);
  assert.ok(env.OSTREL_CLUSTER_JOIN_TOKEN && env.OSTREL_CLUSTER_JOIN_TOKEN.length >= 32);
  // Ports of each machine: its API on 8880 and gossip on 7946, here apart.
  const machines = {};
  for (const n of [1, 2, 3]) machines[`10.0.0.${n}`] = { api: await freePort(), gossip: await freePort() };
  const local = (text) => text
    .replace(/10\.0\.0\.(\d):7946/g, (_, n) => `127.0.0.1:${machines[`10.0.0.${n}`].gossip}`)
    .replace(/http:\/\/10\.0\.0\.(\d):8880/g, (_, n) => `http://127.0.0.1:${machines[`10.0.0.${n}`].api}`);
  const cluster = [];
  for (const [i, run] of runs.entries()) {
    const [assignments, makeArgs] = run.split(/\bmake run\b/);
    const own = (assignments.match(/OSTREL_GOSSIP_BIND=(10\.0\.0\.\d)/) || [])[1];
    const dir = join(work, `machine-${i + 1}`);
    const nodeEnv = { ...process.env, ...env };
    for (const k of ["OSTREL_AUTH", "OSTREL_DATA_DIR", "OSTREL_CLUSTER_SECRET", "OSTREL_CONFIG_DIR"]) delete nodeEnv[k];
    for (const [, k, v] of local(assignments).matchAll(/(\w+)=(\S+)/g)) nodeEnv[k] = v.replaceAll("$PWD", dir);
    const vars = Object.fromEntries([...makeArgs.matchAll(/(\w+)=(\S+)/g)].map((m) => [m[1], m[2]]));
    const port = machines[own].api;
    const args = [`--modules-d=${sourceDir}/modules.d`, `--data-dir=${dir}/var`, `--bind=${vars.BIND ?? "127.0.0.1"}`,
      `--port=${port}`, "--config-set", "data.embedding_model=ulvo-hash-embed-v1",
      "--config-set", `edge.controller_url=http://127.0.0.1:${port}`, ...(vars.RUN_ARGS ? vars.RUN_ARGS.split(" ") : [])];
    const node = spawn(binary, args, { env: nodeEnv, cwd: sourceDir, stdio: ["ignore", "pipe", "pipe"] });
    let out = "";
    node.stdout.on("data", (c) => (out += c));
    nodes.push({ node });
    await untilReady(node);
    const token = (out.match(/Bootstrap admin token \(1-year lifetime\):\s*\n\s*(\S+)/) || [])[1];
    cluster.push({ port, token, err: () => node.stderrText, id: nodeEnv.OSTREL_NODE_ID });
  }
  assert.deepEqual(cluster.map((c) => c.id), ["ctl", "n2", "n3"]);
  const members = async (c) => {
    const r = await fetch(`http://127.0.0.1:${c.port}/api/v1/cluster/members`, { headers: { "X-Ostrel-Capability": c.token } });
    return (await r.json()).members ?? [];
  };
  for (const c of cluster) {
    let seen = [];
    for (let tries = 0; tries < 150; tries++) {
      seen = (await members(c)).filter((m) => m.state === "alive").map((m) => m.id).sort();
      if (seen.length === 3) break;
      await new Promise((r) => setTimeout(r, 100));
    }
    assert.deepEqual(seen, ["ctl", "n2", "n3"], `${c.id} sees ${seen}\n${c.err().slice(-3000)}`);
    assert.doesNotMatch(c.err(), /duplicate node id/);
  }
  // The joiners joined with the token, and registered with the controller.
  assert.match(cluster[1].err(), /cluster join successful/);
  const peers = await fetch(`http://127.0.0.1:${cluster[0].port}/api/v1/cluster/peers`,
    { headers: { "X-Ostrel-Capability": cluster[0].token } }).then((r) => r.json());
  assert.deepEqual(peers.registered.map((p) => p.node_id).sort(), ["n2", "n3"]);
});
