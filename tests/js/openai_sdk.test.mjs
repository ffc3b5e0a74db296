// The official OpenAI SDK against a real node: models, chat (whole and
// streamed, with usage), embeddings in both encodings, error shapes, and a
// tool-calling conversation in which a scripted model server (speaking the
// Ollama protocol the node talks to models with) asks for a tool, the node
// runs it against its own API, and the SDK receives the final answer.
//
//   node --test tests/js/openai_sdk.test.mjs   (env OSTREL_BINARY, OSTREL_SOURCE_DIR)
import { test, before, after } from "node:test";
import assert from "node:assert/strict";
import { mkdtempSync, rmSync } from "node:fs";
import { createServer } from "node:http";
import { tmpdir } from "node:os";
import { join } from "node:path";
import OpenAI from "openai";
import { startNode, stopNode } from "./node_process.mjs";


// --- the scripted model server ------------------------------------------------

const seen = [];  // every /api/chat body
function scriptedAnswer(body) {
  const msgs = body.messages ?? [];
  const last = msgs[msgs.length - 1] ?? {};
  const toolMsgs = msgs.filter((m) => m.role === "tool");
  if (body.model === "weather-model") {
    // The client's own function: asked for once, then the answer from its result.
    if (toolMsgs.length === 0) {
      return {
        message: { role: "assistant", content: "", tool_calls: [{ function: { name: "get_weather", arguments: { city: "Paris" } } }] },
        done_reason: "stop",
      };
    }
    return { message: { role: "assistant", content: `Weather report: ${toolMsgs[0].content}` }, done_reason: "stop" };
  }
  if (body.model === "tool-model") {
    if (toolMsgs.length === 0) {
      return {
        message: {
          role: "assistant",
          content: "",
          tool_calls: [{ function: { name: "store", arguments: { key: "favourite_colour", value: "Alice likes teal" } } }],
        },
        done_reason: "stop",
      };
    }
    return { message: { role: "assistant", content: `Stored it. The tool said: ${toolMsgs[0].content}` }, done_reason: "stop" };
  }
  return { message: { role: "assistant", content: `scripted: ${last.content ?? ""}` }, done_reason: "stop" };
}

const model = createServer((req, res) => {
  let text = "";
  req.on("data", (c) => (text += c));
  req.on("end", () => {
    res.setHeader("Content-Type", "application/json");
    if (req.url === "/api/tags") {
      res.end(JSON.stringify({ models: [{ name: "tool-model" }, { name: "plain-model" }, { name: "weather-model" },
        { name: "tagged-model:latest" }] }));
      return;
    }
    const body = JSON.parse(text || "{}");
    seen.push(body);
    const a = scriptedAnswer(body);
    res.end(JSON.stringify({ model: body.model, ...a, done: true, prompt_eval_count: 7, eval_count: 3 }));
  });
});

// --- the node -------------------------------------------------------------------

let node;
let baseURL;
const dataDir = mkdtempSync(join(tmpdir(), "ostrel-sdk-"));

before(async () => {
  await new Promise((r) => model.listen(0, "127.0.0.1", r));
  const modelURL = `http://127.0.0.1:${model.address().port}`;
  let port;
  ({ node, port } = await startNode(dataDir, (p) => [
    `inference.ollama_url=${modelURL}`,
    "inference.health_poll_interval_seconds=1",
    `edge.controller_url=http://127.0.0.1:${p}`,
  ]));
  baseURL = `http://127.0.0.1:${port}/v1`;
  // The scripted server's models are known once the engine has polled it.
  const client = new OpenAI({ apiKey: "unused", baseURL });
  for (let i = 0; i < 100; i++) {
    const ids = (await client.models.list()).data.map((m) => m.id);
    if (ids.includes("tool-model")) break;
    await new Promise((r) => setTimeout(r, 100));
  }
});

after(async () => {
  await stopNode(node);
  model.close();
  rmSync(dataDir, { recursive: true, force: true });
});

const client = () => new OpenAI({ apiKey: "unused", baseURL, maxRetries: 0 });

// --- the tests --------------------------------------------------------------------

test("models: list and retrieve", async () => {
  const list = await client().models.list();
  const ids = list.data.map((m) => m.id);
  assert.ok(ids.includes("echo"), ids.join(","));
  assert.ok(ids.includes("ulvo-hash-embed-v1"));
  assert.ok(ids.includes("tool-model"));
  const one = await client().models.retrieve("echo");
  assert.equal(one.id, "echo");
  assert.equal(one.object, "model");
  await assert.rejects(client().models.retrieve("no-such-model"), (e) => e.status === 404 && e.code === "model_not_found");
});

test("chat: whole and streamed, with usage", async () => {
  const whole = await client().chat.completions.create({ model: "echo", messages: [{ role: "user", content: "hello there" }] });
  assert.equal(whole.object, "chat.completion");
  assert.equal(whole.choices[0].message.role, "assistant");
  assert.equal(whole.choices[0].message.content, "Echo: hello there");
  assert.equal(whole.choices[0].finish_reason, "stop");
  assert.ok(whole.usage.total_tokens > 0);

  const scripted = await client().chat.completions.create({ model: "plain-model", messages: [{ role: "user", content: "ping" }] });
  assert.equal(scripted.choices[0].message.content, "scripted: ping");

  const stream = await client().chat.completions.create({
    model: "echo", stream: true, stream_options: { include_usage: true },
    messages: [{ role: "user", content: "one two three" }],
  });
  let text = "";
  let finish = null;
  let usage = null;
  let chunks = 0;
  for await (const chunk of stream) {
    chunks++;
    assert.equal(chunk.object, "chat.completion.chunk");
    if (chunk.choices.length > 0) {
      text += chunk.choices[0].delta?.content ?? "";
      finish = chunk.choices[0].finish_reason ?? finish;
    }
    if (chunk.usage) usage = chunk.usage;
  }
  assert.ok(chunks >= 3);
  assert.equal(text, "Echo: one two three");
  assert.equal(finish, "stop");
  assert.ok(usage && usage.total_tokens === usage.prompt_tokens + usage.completion_tokens && usage.completion_tokens > 0);
});

test("embeddings: the SDK's default base64 decodes to the float answer", async () => {
  const input = "The Rhine flows into the North Sea.";
  const b64 = await client().embeddings.create({ model: "ulvo-hash-embed-v1", input });
  const floats = await client().embeddings.create({ model: "ulvo-hash-embed-v1", input, encoding_format: "float" });
  const a = b64.data[0].embedding;
  const b = floats.data[0].embedding;
  assert.equal(a.length, 384);
  assert.deepEqual(a, b.map((x) => Math.fround(x)));
  assert.ok(a.some((x) => x !== 0), "all zeros");
  const many = await client().embeddings.create({ model: "ulvo-hash-embed-v1", input: ["a", "b"] });
  assert.equal(many.data.length, 2);
  assert.equal(many.data[1].index, 1);
});

test("errors: the shapes the SDK reads", async () => {
  await assert.rejects(
    client().chat.completions.create({ model: "echo", messages: "not a list" }),
    (e) => e.status === 400 && typeof e.message === "string" && e.message.includes("messages"),
  );
  await assert.rejects(
    client().embeddings.create({ model: "ulvo-hash-embed-v1", input: "x", encoding_format: "int8" }),
    (e) => e.status === 400 && e.error?.type === "invalid_request_error",
  );
});

test("tools: the model asks for a tool, the node runs it, the SDK gets the answer", async () => {
  const before = seen.length;
  const answer = await client().chat.completions.create({
    model: "tool-model",
    messages: [{ role: "user", content: "Remember that Alice likes teal." }],
  });
  assert.equal(answer.choices[0].finish_reason, "stop");
  assert.match(answer.choices[0].message.content, /^Stored it\. The tool said: .*"ok":true/);
  const calls = seen.slice(before);
  assert.equal(calls.length, 2);
  // The first request offered the tools and carried the tool-surface prompt once.
  assert.ok(calls[0].tools.some((t) => t.function.name === "store"));
  assert.equal(calls[0].messages[0].role, "system");
  assert.ok(calls[0].messages[0].content.includes("NEVER fabricate URLs, DOIs"));
  // The second request fed the call and its result back, in order.
  const roles = calls[1].messages.map((m) => m.role);
  assert.deepEqual(roles, ["system", "user", "assistant", "tool"]);
  assert.equal(calls[1].messages[2].tool_calls[0].function.name, "store");
  assert.equal(calls[1].messages.filter((m) => (m.content ?? "").includes("NEVER fabricate URLs, DOIs")).length, 1);
  // The tool really ran against the node's memory.
  const recalled = await fetch(baseURL.replace("/v1", "/api/v1/memory/recall"), {
    method: "POST", headers: { "Content-Type": "application/json" },
    body: JSON.stringify({ query: "favourite_colour" }),
  }).then((r) => r.json());
  assert.ok(recalled.hits.some((h) => h.value === "Alice likes teal"), JSON.stringify(recalled));
});

test("client-side functions: runTools against the base URL without the tool loop", async () => {
  // /v1 runs every tool call on the node (its tool loop); /api/v1/router/v1
  // hands tool calls back to the client, as model servers do.
  const plain = new OpenAI({ apiKey: "unused", baseURL: baseURL.replace("/v1", "/api/v1/router/v1"), maxRetries: 0 });
  const asked = [];
  const runner = plain.chat.completions.runTools({
    model: "weather-model",
    messages: [{ role: "user", content: "What is the weather in Paris?" }],
    tools: [{
      type: "function",
      function: {
        name: "get_weather",
        description: "The weather in a city",
        parameters: { type: "object", properties: { city: { type: "string" } }, required: ["city"] },
        parse: JSON.parse,
        function: ({ city }) => { asked.push(city); return { city, sky: "sunny" }; },
      },
    }],
  });
  const final = await runner.finalContent();
  assert.deepEqual(asked, ["Paris"]);
  assert.match(final, /^Weather report: .*sunny/);
  // Through /v1 the node's loop runs calls itself, and a function it does
  // not know comes back to the model as unknown_tool.
  const looped = await client().chat.completions.create({
    model: "weather-model", messages: [{ role: "user", content: "What is the weather in Paris?" }],
  });
  assert.match(looped.choices[0].message.content, /unknown_tool/);
});

test("model names: tags resolve as Ollama's users expect, and a fall-back is visible", async () => {
  const tagged = await client().chat.completions.create({ model: "tagged-model", messages: [{ role: "user", content: "hi" }] });
  assert.equal(tagged.choices[0].message.content, "scripted: hi");
  const { data, response } = await client().chat.completions
    .create({ model: "no-such-model", messages: [{ role: "user", content: "hi" }] })
    .withResponse();
  assert.equal(data.model, "echo");
  assert.equal(data.choices[0].message.content, "Echo: hi");
  assert.equal(response.headers.get("x-ostrel-model-fallback"), "no-such-model -> echo");
  const served = await client().chat.completions.create({ model: "plain-model", messages: [{ role: "user", content: "x" }] }).withResponse();
  assert.equal(served.response.headers.get("x-ostrel-model-fallback"), null);
});

test("an enforcing node refuses a bad key in the shape the SDK reads", async () => {
  const dir = mkdtempSync(join(tmpdir(), "ostrel-sdk-enforce-"));
  const { node: strict, port } = await startNode(dir, () => [], { OSTREL_AUTH: "enforce" });
  try {
    const bad = new OpenAI({ apiKey: "not-a-token", baseURL: `http://127.0.0.1:${port}/v1`, maxRetries: 0 });
    await assert.rejects(
      bad.chat.completions.create({ model: "echo", messages: [{ role: "user", content: "hi" }] }),
      (e) => e instanceof OpenAI.PermissionDeniedError && e.status === 403 && e.type === "permission_error" &&
        e.message.includes("the credential was refused: bad_encoding"),
    );
    await assert.rejects(bad.models.retrieve("echo"),
      (e) => e.status === 403 && e.error?.type === "permission_error");
  } finally {
    await stopNode(strict);
    rmSync(dir, { recursive: true, force: true });
  }
});
