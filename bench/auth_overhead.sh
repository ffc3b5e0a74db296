#!/usr/bin/env bash
# What enforcing credentials costs on an authenticated route: two nodes with
# the same modules, one with --auth=enforce and one with auth off, both sent
# GET /api/v1/kernel/modules with the same capability header (so the bytes on
# the wire are the same), 1 and 8 keep-alive connections, rounds
# interleaved. Reported: each node's CPU time per request, from
# /proc/<pid>/stat before and after each run (wrk's own CPU is not counted),
# and their ratio. Target: enforce costs at most 1.15x auth off.
#   bench/auth_overhead.sh [build-dir]   (env: ROUNDS=5 DURATION=3s)
set -euo pipefail
. "$(dirname "$0")/lib.sh"
rounds=${ROUNDS:-5}
duration=${DURATION:-3s}

pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$work"' EXIT
mkdir -p "$work/modules.d"
for m in inference data; do cp "$(dirname "$0")/../modules.d/$m.module.yaml" "$work/modules.d/"; done
start() {  # name auth port
  mkdir -p "$work/$1/config"
  OSTREL_CONFIG_DIR="$work/$1/config" OSTREL_AUTH="$2" "$build/ostrel-ulvo" --bind=127.0.0.1 \
    --port="$3" --modules-d="$work/modules.d" --data-dir="$work/$1/data" \
    --config-set inference.ollama_url=http://127.0.0.1:9 >"$work/$1.out" 2>"$work/$1.log" &
  pids+=($!)
  for _ in $(seq 100); do curl -sf "http://127.0.0.1:$3/health" -o /dev/null && break; sleep 0.05; done
}
off_port=$(free_port); start off off "$off_port"; off_pid=${pids[0]}
on_port=$(free_port); start on enforce "$on_port"; on_pid=${pids[1]}
token=$(awk '/Bootstrap admin token/ { getline; print $1 }' "$work/on.out")
[ -n "$token" ] || { echo "no bootstrap token"; exit 1; }
curl -sf -H "X-Ostrel-Capability: $token" "http://127.0.0.1:$on_port/api/v1/kernel/modules" -o /dev/null

ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
hz=$(getconf CLK_TCK)
# "<requests> <cpu µs per request>" for one run: pid port connections
measure() {
  local before after requests
  before=$(ticks "$1")
  requests=$(wrk -t1 -c"$3" -d"$duration" -H "X-Ostrel-Capability: $token" \
               "http://127.0.0.1:$2/api/v1/kernel/modules" | awk '/requests in/ { print $1 }')
  after=$(ticks "$1")
  awk -v r="$requests" -v t=$((after - before)) -v hz="$hz" 'BEGIN { printf "%d %.1f\n", r, t * 1e6 / hz / r }'
}
median() { printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

for conns in 1 8; do
  measure "$off_pid" "$off_port" "$conns" >/dev/null  # warm-up
  measure "$on_pid" "$on_port" "$conns" >/dev/null
  offs=(); ons=()
  for r in $(seq "$rounds"); do
    if (( r % 2 )); then
      read -r orq oc < <(measure "$off_pid" "$off_port" "$conns")
      read -r nrq nc < <(measure "$on_pid" "$on_port" "$conns")
    else
      read -r nrq nc < <(measure "$on_pid" "$on_port" "$conns")
      read -r orq oc < <(measure "$off_pid" "$off_port" "$conns")
    fi
    echo "  $conns conn round $r: enforce ${nc} µs CPU/req ($nrq req) | off ${oc} µs CPU/req ($orq req)"
    offs+=("$oc"); ons+=("$nc")
  done
  awk -v n="$(median "${ons[@]}")" -v o="$(median "${offs[@]}")" -v c="$conns" 'BEGIN {
    printf "%d connection(s): enforce %.1f µs, off %.1f µs CPU per request; ratio %.3f (target <= 1.15)\n", c, n, o, n / o
  }'
done
