#!/usr/bin/env bash
# The router's /v1/chat/completions against the inference module's
# /v1/inference/chat on the same node, echo model, whole answers, 1 and 8
# connections, rounds interleaved: the node's CPU time per request on each
# path, from /proc/<pid>/stat before and after each run (wrk's own CPU is
# not counted). Target: the router path costs at most 1.3x the inference
# path's CPU per request.
#   bench/router_overhead.sh [build-dir]   (env: ROUNDS=3 DURATION=4s)
set -euo pipefail
. "$(dirname "$0")/lib.sh"
rounds=${ROUNDS:-3}
duration=${DURATION:-4s}

trap 'kill $node_pid 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$work"' EXIT
port=$(free_port)
mkdir -p "$work/modules.d" "$work/data" "$work/config"
cp "$(dirname "$0")/../modules.d/inference.module.yaml" "$(dirname "$0")/../modules.d/router.module.yaml" \
  "$work/modules.d/"
OSTREL_CONFIG_DIR="$work/config" "$build/ostrel-ulvo" --bind=127.0.0.1 --port="$port" \
  --modules-d="$work/modules.d" --data-dir="$work/data" \
  --config-set inference.ollama_url=http://127.0.0.1:9 2>"$work/node.log" &
node_pid=$!
for _ in $(seq 100); do curl -sf "http://127.0.0.1:$port/health" -o /dev/null && break; sleep 0.05; done

cat > "$work/post.lua" <<'LUA'
wrk.method = "POST"
wrk.headers["Content-Type"] = "application/json"
wrk.body = '{"model":"echo","messages":[{"role":"user","content":"hello there"}]}'
LUA

ticks() { awk '{ print $14 + $15 }' "/proc/$node_pid/stat"; }
hz=$(getconf CLK_TCK)
# "<requests> <cpu µs per request>" for one run: path connections
measure() {
  local before after requests
  before=$(ticks)
  requests=$(wrk -t1 -c"$2" -d"$duration" -s "$work/post.lua" "http://127.0.0.1:$port$1" |
             awk '/requests in/ { print $1 }')
  after=$(ticks)
  awk -v r="$requests" -v t=$((after - before)) -v hz="$hz" 'BEGIN { printf "%d %.1f\n", r, t * 1e6 / hz / r }'
}
median() { printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

for conns in 1 8; do
  measure /v1/chat/completions "$conns" >/dev/null  # warm-up
  measure /v1/inference/chat "$conns" >/dev/null
  router=(); inference=()
  for r in $(seq "$rounds"); do
    if (( r % 2 )); then
      read -r rr rc < <(measure /v1/chat/completions "$conns")
      read -r ir ic < <(measure /v1/inference/chat "$conns")
    else
      read -r ir ic < <(measure /v1/inference/chat "$conns")
      read -r rr rc < <(measure /v1/chat/completions "$conns")
    fi
    echo "  $conns conn round $r: router ${rc} µs CPU/req ($rr req) | inference ${ic} µs CPU/req ($ir req)"
    router+=("$rc"); inference+=("$ic")
  done
  awk -v r="$(median "${router[@]}")" -v i="$(median "${inference[@]}")" -v c="$conns" 'BEGIN {
    printf "%d connection(s): router %.1f µs, inference %.1f µs CPU per request; ratio %.3f (target <= 1.3)\n", c, r, i, r / i
  }'
done
