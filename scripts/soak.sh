#!/usr/bin/env bash
# Soak: one node with every module, a mixed load (chat through each chat
# route, vector search and ingest, memory store and recall, unified search,
# /health and a /metrics scrape) for SOAK_S seconds at 70% of the rate the
# node peaked at in a short run here, sampling RSS, threads and open fds
# every 10 s. Fails on any error answer or socket error, and when the node's
# RSS at the end exceeds, by more than 5%, what the same node holds after a
# restart on the same data and the same warm-up.
#   scripts/soak.sh [seconds] [build-dir]      (make soak SOAK_S=600)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}
build=${2:-build}
command -v wrk >/dev/null || { echo "wrk is not installed (scripts/install-deps.sh)"; exit 1; }
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

work=$(mktemp -d)
node_pid=""
trap '[ -n "$node_pid" ] && kill "$node_pid" 2>/dev/null; wait 2>/dev/null || true; rm -rf "$work"' EXIT
mkdir -p "$work/modules.d"
for m in inference router edge data agent dream; do cp "modules.d/$m.module.yaml" "$work/modules.d/"; done
port=$(free_port)

start_node() {
  OSTREL_CONFIG_DIR="$work/config" "$build/ostrel-ulvo" --bind=127.0.0.1 --port="$port" \
    --modules-d="$work/modules.d" --data-dir="$work/data" \
    --config-set data.embedding_model=ulvo-hash-embed-v1 \
    --config-set inference.ollama_url=http://127.0.0.1:9 \
    --config-set edge.controller_url="http://127.0.0.1:$port" 2>>"$work/node.log" &
  node_pid=$!
  for _ in $(seq 200); do curl -sf "http://127.0.0.1:$port/health" -o /dev/null && return; sleep 0.05; done
  echo "node did not start"; tail -20 "$work/node.log"; exit 1
}
stop_node() { kill -TERM "$node_pid"; wait "$node_pid" || true; node_pid=""; }
sample() {  # rss_kb threads fds
  echo "$(awk '/VmRSS/ {print $2}' "/proc/$node_pid/status") $(awk '/Threads/ {print $2}' "/proc/$node_pid/status") $(ls "/proc/$node_pid/fd" | wc -l)"
}

start_node
curl -sf -XPOST "http://127.0.0.1:$port/api/v1/vector/ingest" -H 'Content-Type: application/json' \
  -d '{"namespace":"soak","text":"The soak keeps a node busy for a long time and watches its memory."}' >/dev/null
session=$(curl -sf -XPOST "http://127.0.0.1:$port/api/v1/agent/sessions" -H 'Content-Type: application/json' -d '{}' |
          python3 -c 'import json,sys; print(json.load(sys.stdin)["session_id"])')

# The mix, one request a line: method path body. Ingest and memory stores
# carry a counter so that the data grows as a real node's would.
cat > "$work/mix.lua" <<LUA
local mix = {
  {"POST", "/v1/chat/completions", '{"model":"echo","messages":[{"role":"user","content":"hello"}]}'},
  {"POST", "/v1/inference/chat", '{"model":"echo","messages":[{"role":"user","content":"hello"}]}'},
  {"POST", "/api/v1/agent/chat", '{"model":"echo","session_id":"$session","message":"hello"}'},
  {"POST", "/api/v1/vector/search", '{"namespace":"soak","query":"memory of a busy node","top_k":3}'},
  {"POST", "/api/v1/vector/ingest", nil},
  {"POST", "/api/v1/memory/store", nil},
  {"POST", "/api/v1/memory/recall", '{"query":"soak key 1"}'},
  {"POST", "/api/v1/search", '{"query":"busy node","limit":5}'},
  {"GET", "/health", nil},
  {"GET", "/metrics", nil},
}
local i, n = 0, 0
local pause = tonumber(os.getenv("SOAK_DELAY_MS") or "0")
function delay() return pause end
function request()
  i = i % #mix + 1
  n = n + 1
  local m = mix[i]
  local body = m[3]
  if m[2] == "/api/v1/vector/ingest" then
    body = '{"namespace":"soak","text":"Soak document ' .. n .. ' written while the node serves everything else."}'
  elseif m[2] == "/api/v1/memory/store" then
    body = '{"key":"soak key ' .. (n % 500) .. '","value":"value ' .. n .. '"}'
  end
  local headers = {}
  if body then headers["Content-Type"] = "application/json" end
  return wrk.format(m[1], m[2], headers, body)
end
LUA

# "<requests> <errors>" of one wrk run: seconds connections
run() {
  local out
  out=$(wrk -t1 -c"$2" -d"$1s" --timeout 10s -s "$work/mix.lua" "http://127.0.0.1:$port" 2>&1)
  local requests errors
  requests=$(awk '/requests in/ {print $1}' <<<"$out")
  errors=$(awk '/Non-2xx/ {n += $NF} /Socket errors/ {gsub(",", ""); n += $4 + $6 + $8 + $10} END {print n + 0}' <<<"$out")
  echo "$requests $errors"
}

read -r peak_requests _ < <(SOAK_DELAY_MS=0 run 10 8)
peak=$((peak_requests / 10))
conns=8
# wrk's delay() paces each connection: conns / delay = 70% of the peak rate.
delay_ms=$(awk -v p="$peak" -v c="$conns" 'BEGIN { r = 0.7 * p; d = (r > 0) ? c * 1000 / r : 1000; printf "%d", (d < 1) ? 1 : d }')
echo "peak ${peak} req/s; soaking ${seconds}s at ~$((peak * 7 / 10)) req/s (${conns} connections, ${delay_ms} ms pause each)"
printf '%6s %10s %8s %8s %5s %7s\n' time requests errors rss_kb thr fds
total=0 errors=0 elapsed=0
first_rss=""
while [ "$elapsed" -lt "$seconds" ]; do
  read -r r e < <(SOAK_DELAY_MS=$delay_ms run 10 "$conns")
  total=$((total + r)); errors=$((errors + e)); elapsed=$((elapsed + 10))
  read -r rss thr fds < <(sample)
  [ -n "$first_rss" ] || first_rss=$rss
  printf '%6s %10s %8s %8s %5s %7s\n' "${elapsed}s" "$total" "$errors" "$rss" "$thr" "$fds"
done
end_rss=$rss

# The same node after a restart on the same data, with the same warm-up.
stop_node
start_node
SOAK_DELAY_MS=$delay_ms run 10 "$conns" >/dev/null
read -r restart_rss _ _ < <(sample)
growth=$(awk -v a="$end_rss" -v b="$restart_rss" 'BEGIN { printf "%.1f", (a - b) * 100 / b }')
echo "served ${total} requests, ${errors} errors; RSS ${first_rss} kB after 10 s, ${end_rss} kB at the end, ${restart_rss} kB after a restart on the same data (${growth}%)"
[ "$errors" -eq 0 ] || { echo "FAIL: ${errors} errors"; exit 1; }
awk -v g="$growth" 'BEGIN { exit (g > 5) }' || { echo "FAIL: RSS grew ${growth}% beyond the restarted node"; exit 1; }
echo "soak ok"
