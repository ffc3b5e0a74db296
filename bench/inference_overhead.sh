#!/usr/bin/env bash
# What the node adds to a chat completion: wrk against a loopback model server
# (bench/fake_model_server.cpp) directly (POST /api/chat) and through a node
# (POST /v1/inference/chat), rounds interleaved, non-streaming and streaming,
# with 1 and 16 connections. Prints p50/p99 and requests/s of both and the
# latency the node adds. Whole answers are also relayed by bench/min_relay.cpp,
# the cheapest thread-per-connection relay (no parsing beyond framing): the
# floor of what any gateway built that way adds on this machine.
#   bench/inference_overhead.sh [build-dir]   (env: ROUNDS=3 DURATION=5s)
set -euo pipefail
. "$(dirname "$0")/lib.sh"
rounds=${ROUNDS:-3}
duration=${DURATION:-5s}

trap 'kill $model_pid $node_pid $relay_pid 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$work"' EXIT
model_port=$(free_port)
node_port=$(free_port)
relay_port=$(free_port)
"$build/bench/fake_model_server" "$model_port" 8 &
model_pid=$!
"$build/bench/min_relay" "$relay_port" "$model_port" &
relay_pid=$!
mkdir -p "$work/modules.d" "$work/data" "$work/config"
cp "$(dirname "$0")/../modules.d/inference.module.yaml" "$work/modules.d/"
OSTREL_CONFIG_DIR="$work/config" "$build/ostrel-ulvo" --bind=127.0.0.1 --port="$node_port" \
  --modules-d="$work/modules.d" --data-dir="$work/data" \
  --config-set "inference.ollama_url=http://127.0.0.1:$model_port" \
  --config-set inference.scheduler.worker_threads=16 2>"$work/node.log" &
node_pid=$!
for port in $model_port $node_port; do
  for _ in $(seq 100); do curl -sf "http://127.0.0.1:$port/api/tags" -o /dev/null 2>/dev/null && break
    curl -sf "http://127.0.0.1:$port/health" -o /dev/null 2>/dev/null && break; sleep 0.05; done
done

script() {  # $1: stream true|false
  cat > "$work/post-$1.lua" <<LUA
wrk.method = "POST"
wrk.headers["Content-Type"] = "application/json"
wrk.body = '{"model":"bench","stream":$1,"messages":[{"role":"user","content":"hello there"}]}'
LUA
}
script false
script true

# "<req/s> <p50 µs> <p99 µs>"
measure() {  # port path stream connections
  wrk -t1 -c"$4" -d"$duration" --latency -s "$work/post-$3.lua" "http://127.0.0.1:$1$2" | awk '
    function us(v) { if (v ~ /us$/) return v + 0; if (v ~ /ms$/) return v * 1000; if (v ~ /s$/) return v * 1000000; return v }
    /Requests\/sec/ { rps = $2 } /^ +50%/ { p50 = us($2) } /^ +99%/ { p99 = us($2) }
    END { printf "%.0f %.0f %.0f\n", rps, p50, p99 }'
}
median() { printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

for stream in false true; do
  for conns in 1 16; do
    measure "$model_port" /api/chat "$stream" "$conns" >/dev/null  # warm-up
    measure "$node_port" /v1/inference/chat "$stream" "$conns" >/dev/null
    [ "$stream" = false ] && measure "$relay_port" /api/chat "$stream" "$conns" >/dev/null
    d_rps=(); d_p50=(); d_p99=(); n_rps=(); n_p50=(); n_p99=(); r_rps=(); r_p50=(); r_p99=()
    for r in $(seq "$rounds"); do
      read -r a b c < <(measure "$model_port" /api/chat "$stream" "$conns")
      d_rps+=("$a"); d_p50+=("$b"); d_p99+=("$c")
      if [ "$stream" = false ]; then
        read -r a b c < <(measure "$relay_port" /api/chat "$stream" "$conns")
        r_rps+=("$a"); r_p50+=("$b"); r_p99+=("$c")
      fi
      read -r a b c < <(measure "$node_port" /v1/inference/chat "$stream" "$conns")
      n_rps+=("$a"); n_p50+=("$b"); n_p99+=("$c")
    done
    awk -v s="$stream" -v c="$conns" -v n="$rounds" \
        -v dr="$(median "${d_rps[@]}")" -v dp50="$(median "${d_p50[@]}")" -v dp99="$(median "${d_p99[@]}")" \
        -v nr="$(median "${n_rps[@]}")" -v np50="$(median "${n_p50[@]}")" -v np99="$(median "${n_p99[@]}")" \
        -v rr="$( [ ${#r_rps[@]} -gt 0 ] && median "${r_rps[@]}")" \
        -v rp50="$( [ ${#r_p50[@]} -gt 0 ] && median "${r_p50[@]}")" \
        -v rp99="$( [ ${#r_p99[@]} -gt 0 ] && median "${r_p99[@]}")" 'BEGIN {
      printf "stream=%s connections=%d (median of %d rounds)\n", s, c, n
      printf "  direct: %.0f req/s, p50 %.0f us, p99 %.0f us\n", dr, dp50, dp99
      printf "  node:   %.0f req/s, p50 %.0f us, p99 %.0f us\n", nr, np50, np99
      printf "  throughput ratio node/direct: %.3f; node adds p50 %+.0f us, p99 %+.0f us\n", nr / dr, np50 - dp50, np99 - dp99
      if (rr != "") {
        printf "  relay floor (bench/min_relay): %.0f req/s, p50 %.0f us, p99 %.0f us; adds p50 %+.0f us, p99 %+.0f us\n", rr, rp50, rp99, rp50 - dp50, rp99 - dp99
      }
    }'
  done
done
echo "targets: adds < 300 us at p50 with 1 connection, < 1000 us at p99 with 16 connections"
