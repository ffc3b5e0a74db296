#!/usr/bin/env bash
# Gateway throughput, two comparisons, each interleaved in one run at 32
# connections:
#  1. GET /health of a node against a bare cpp-httplib server
#     (bench/bare_server.cpp): the node's ratio to the bare server;
#  2. an authenticated API route (GET /api/v1/kernel/stats) on a node with
#     --auth=enforce and a valid token, against the same route with auth off.
#   bench/run.sh [build-dir]   (env: ROUNDS=3 DURATION=5s CONNECTIONS=32)
set -euo pipefail
build=${1:-build}
rounds=${ROUNDS:-3}
duration=${DURATION:-5s}
connections=${CONNECTIONS:-32}
node_bin="$build/ostrel-ulvo"
bare_bin="$build/bench/bare_httplib_server"
command -v wrk >/dev/null || { echo "wrk is not installed (scripts/install-deps.sh)"; exit 1; }

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

work=$(mktemp -d)
trap 'kill $node_pid $bare_pid $auth_pid 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$work"' EXIT
auth_pid=
mkdir -p "$work/modules.d" "$work/data"
node_port=$(free_port)
bare_port=$(free_port)
"$node_bin" --bind=127.0.0.1 --port="$node_port" --modules-d="$work/modules.d" \
  --data-dir="$work/data" 2>"$work/node.log" &
node_pid=$!
"$bare_bin" "$bare_port" 2>"$work/bare.log" &
bare_pid=$!
for port in $node_port $bare_port; do
  for _ in $(seq 100); do curl -sf "http://127.0.0.1:$port/health" >/dev/null && break; sleep 0.05; done
done

# Prints "<requests/s> <p99 in µs>" for one wrk run: port, path, extra wrk args.
measure() {
  local port=$1 path=${2:-/health}
  shift 2 || shift $#
  wrk -t2 -c"$connections" -d"$duration" --latency "$@" "http://127.0.0.1:$port$path" | awk '
    function us(v) {
      if (v ~ /us$/) return v + 0; if (v ~ /ms$/) return v * 1000; if (v ~ /s$/) return v * 1000000; return v
    }
    /Requests\/sec/ { rps = $2 }
    /^ +99%/ { p99 = us($2) }
    END { printf "%.0f %.0f\n", rps, p99 }'
}

wrk -t2 -c"$connections" -d1s "http://127.0.0.1:$node_port/health" >/dev/null
wrk -t2 -c"$connections" -d1s "http://127.0.0.1:$bare_port/health" >/dev/null

node_rps=(); bare_rps=(); node_p99=(); bare_p99=()
for r in $(seq "$rounds"); do
  # Alternate which server goes first, so that neither always runs on a warmer machine.
  if (( r % 2 )); then
    read -r nr np < <(measure "$node_port")
    read -r br bp < <(measure "$bare_port")
  else
    read -r br bp < <(measure "$bare_port")
    read -r nr np < <(measure "$node_port")
  fi
  echo "round $r: node ${nr} req/s p99 ${np}us | bare ${br} req/s p99 ${bp}us"
  node_rps+=("$nr"); bare_rps+=("$br"); node_p99+=("$np"); bare_p99+=("$bp")
done
median() { printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
# Medians over the rounds: one noisy round on a shared machine does not decide.
awk -v nr="$(median "${node_rps[@]}")" -v br="$(median "${bare_rps[@]}")" \
    -v np="$(median "${node_p99[@]}")" -v bp="$(median "${bare_p99[@]}")" \
    -v n="$rounds" -v c="$connections" 'BEGIN {
  printf "GET /health at %d connections, median of %d rounds\n", c, n
  printf "  node: %.0f req/s, p99 %.0f us\n", nr, np
  printf "  bare: %.0f req/s, p99 %.0f us\n", br, bp
  printf "  throughput ratio node/bare: %.3f (target >= 0.8)\n", nr / br
  printf "  p99 ratio node/bare: %.3f (target <= 2.0)\n", np / bp
}'

# 2. Enforce mode against auth off, on the same authenticated route.
mkdir -p "$work/auth-data"
auth_port=$(free_port)
"$node_bin" --bind=127.0.0.1 --port="$auth_port" --modules-d="$work/modules.d" \
  --data-dir="$work/auth-data" --auth=enforce >"$work/auth.out" 2>"$work/auth.log" &
auth_pid=$!
for _ in $(seq 100); do curl -sf "http://127.0.0.1:$auth_port/health" >/dev/null && break; sleep 0.05; done
token=$(awk '/X-Ostrel-Capability:/ { print $2; exit }' "$work/auth.out")
[ -n "$token" ] || { echo "no bootstrap token from the enforcing node"; exit 1; }
route=/api/v1/kernel/stats
wrk -t2 -c"$connections" -d1s -H "X-Ostrel-Capability: $token" "http://127.0.0.1:$auth_port$route" >/dev/null
wrk -t2 -c"$connections" -d1s -H "X-Ostrel-Capability: $token" "http://127.0.0.1:$node_port$route" >/dev/null

open_rps=(); auth_rps=()
# Both nodes get the same request bytes (the auth-off node ignores the
# header), so the ratio isolates what checking the token costs.
for r in $(seq "$rounds"); do
  # Alternate which node goes first, so that neither always runs on a warmer machine.
  if (( r % 2 )); then
    read -r orps op < <(measure "$node_port" "$route" -H "X-Ostrel-Capability: $token")
    read -r arps ap < <(measure "$auth_port" "$route" -H "X-Ostrel-Capability: $token")
  else
    read -r arps ap < <(measure "$auth_port" "$route" -H "X-Ostrel-Capability: $token")
    read -r orps op < <(measure "$node_port" "$route" -H "X-Ostrel-Capability: $token")
  fi
  echo "round $r: auth off ${orps} req/s p99 ${op}us | enforce ${arps} req/s p99 ${ap}us"
  open_rps+=("$orps"); auth_rps+=("$arps")
done
awk -v o="$(median "${open_rps[@]}")" -v a="$(median "${auth_rps[@]}")" -v n="$rounds" \
    -v route="$route" 'BEGIN {
  printf "GET %s, median of %d rounds\n", route, n
  printf "  auth off: %.0f req/s; enforce with a valid token: %.0f req/s\n", o, a
  printf "  throughput ratio enforce/off: %.3f (target >= 0.85)\n", a / o
}'
