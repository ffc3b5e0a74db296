// BM_ToolLoopIteration: what one round of the chat-completions tool loop
// costs besides the model and the tool — serialising the request, reading
// the answer, appending the assistant message and the tool result — as a
// ratio (counter "ratio") to one JSON parse plus one serialisation of the
// same conversation, measured in the same run; target <= 3.
#include <benchmark/benchmark.h>

#include <chrono>
#include <nlohmann/json.hpp>

#include "agents/edge_tools.h"

namespace {

using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;
using namespace ostrel::edge;

// A conversation of the usual size: the instructions, the tool definitions,
// and a few turns.
Json conversation(const ToolRegistry& tools, const ToolCallContext& ctx) {
  Json req = {{"model", "llama3"}, {"messages", Json::array()}, {"tools", Json::array()}};
  for (const auto& t : tools.list_visible(ctx))
    req["tools"].push_back(ToolRegistry::to_openai_tool_def(t));
  for (int i = 0; i < 6; ++i) {
    req["messages"].push_back(
        {{"role", i % 2 ? "assistant" : "user"},
         {"content", "A turn of a conversation about the quarterly report, number " +
                         std::to_string(i) + ", long enough to be typical."}});
  }
  inject_tool_surface(req["messages"]);
  return req;
}

void BM_ToolLoopIteration(benchmark::State& state) {
  ToolRegistry tools;
  register_builtin_tools(tools);
  ToolCallContext ctx;
  ctx.roles = {"admin"};
  ToolRegistry stub;  // the same tools, answering at once
  for (auto def : tools.list_visible(ctx)) {
    def.handler = [](const Json&, const ToolCallContext&) {
      return ToolDispatchResult{{{"hits", Json::array()}}};
    };
    stub.register_tool(std::move(def));
  }
  const Json request = conversation(stub, ctx);
  const std::string tool_answer =
      Json{{"choices",
            {{{"index", 0},
              {"finish_reason", "tool_calls"},
              {"message",
               {{"role", "assistant"},
                {"content", nullptr},
                {"tool_calls",
                 {{{"id", "c1"},
                   {"type", "function"},
                   {"function",
                    {{"name", "search"}, {"arguments", "{\"query\":\"report\"}"}}}}}}}}}}}}
          .dump();
  double loop_us = 0, base_us = 0;
  for (auto _ : state) {
    // Eight rounds that each ask for one tool, ending at the cap.
    Upstream upstream = [&](const std::string& req, int& status, std::string& answer) {
      benchmark::DoNotOptimize(req.data());
      status = 200;
      answer = tool_answer;
      return true;
    };
    const auto t0 = Clock::now();
    LoopOutcome out =
        run_tool_loop(request, ctx, stub, upstream, "bench", nullptr, ostrel::base::Logger("bench"));
    const auto t1 = Clock::now();
    if (!out.capped) std::abort();
    // The baseline: one parse and one serialisation of the conversation as
    // it stands in the middle of the loop.
    Json mid = request;
    for (int i = 0; i < kMaxIterations / 2; ++i) {
      run_tool_calls(mid["messages"], Json::parse(tool_answer)["choices"][0]["message"], ctx, stub,
                     nullptr);
    }
    const std::string text = mid.dump();
    const auto t2 = Clock::now();
    for (int i = 0; i < kMaxIterations; ++i) {
      Json parsed = Json::parse(text);
      benchmark::DoNotOptimize(parsed.dump());
    }
    const auto t3 = Clock::now();
    loop_us += std::chrono::duration<double, std::micro>(t1 - t0).count() / kMaxIterations;
    base_us += std::chrono::duration<double, std::micro>(t3 - t2).count() / kMaxIterations;
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["iteration_us"] = loop_us / n;
  state.counters["parse_and_dump_us"] = base_us / n;
  state.counters["ratio"] = loop_us / base_us;
}
BENCHMARK(BM_ToolLoopIteration)->Iterations(200)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
