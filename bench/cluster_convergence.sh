#!/usr/bin/env bash
# Gossip convergence with real nodes on loopback (not part of `make test`):
# starts N nodes (default 20) with gossip on, every one seeded with the first,
# and reports the time until every node sees all N alive, in gossip intervals
# (target <= ceil(log2(N)) + 3). Then kills one node and reports the intervals
# until every other node marks it dead (suspect after 5 s, dead after 10 s of
# silence by design, so about 10 s / interval plus detector ticks).
#
#   bash bench/cluster_convergence.sh [build-dir] [nodes] [interval-ms]
set -euo pipefail
build="${1:-build}"
nodes="${2:-20}"
interval="${3:-200}"
binary="$build/ostrel-ulvo"
[ -x "$binary" ] || { echo "no node binary at $binary (make build first)"; exit 2; }

root=$(mktemp -d /tmp/ostrel-convergence-XXXXXX)
mkdir -p "$root/modules.d"
pids=()
cleanup() {
  for p in "${pids[@]}"; do { kill -9 "$p"; wait "$p"; } 2>/dev/null || true; done
  rm -rf "$root"
}
trap cleanup EXIT
[ -n "${KEEP:-}" ] && trap 'for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done; echo "kept $root"' EXIT

free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1]); s.close()'
}

secret=$(head -c 32 /dev/urandom | od -An -tx1 | tr -d ' \n')
api=() ; gossip=()
for i in $(seq 0 $((nodes - 1))); do api+=("$(free_port)"); gossip+=("$(free_port)"); done
seed="127.0.0.1:${gossip[0]}"

launched=$(date +%s.%N)
for i in $(seq 0 $((nodes - 1))); do
  OSTREL_CLUSTER_SECRET="$secret" OSTREL_GOSSIP_ENABLED=1 \
  OSTREL_GOSSIP_BIND="127.0.0.1:${gossip[$i]}" OSTREL_GOSSIP_SEEDS="$seed" \
  OSTREL_GOSSIP_INTERVAL_MS="$interval" OSTREL_CONFIG_DIR="$root/n$i/config" \
    "$binary" --port="${api[$i]}" --bind=127.0.0.1 --node-id="n$i" --data-dir="$root/n$i" \
    --modules-d="$root/modules.d" >"$root/n$i.out" 2>"$root/n$i.err" &
  pids+=($!)
done

python3 - "$nodes" "$interval" "$launched" "${api[@]}" <<'EOF'
import json, math, sys, time, urllib.request
n, interval, launched = int(sys.argv[1]), int(sys.argv[2]), float(sys.argv[3])
ports = sys.argv[4:]

def get(port, path):
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=2) as r:
            return json.loads(r.read())
    except Exception:
        return None

# Every node up (its API answers) before the clock starts.
deadline = time.time() + 60
while any(get(p, "/health") is None for p in ports):
    if time.time() > deadline:
        sys.exit("nodes did not come up")
    time.sleep(0.05)
start = time.time()
while True:
    seen = [get(p, "/api/v1/cluster/gossip/stats") for p in ports]
    if all(s and s.get("members_alive") == n for s in seen):
        break
    if time.time() - start > 30:
        for p, st in zip(ports, seen):
            print(p, st)
        sys.exit("no convergence within 30 s")
    time.sleep(interval / 4000)
took = time.time() - start
target = math.ceil(math.log2(n)) + 3
print(f"convergence: {n} nodes see all {n} in {took*1000:.0f} ms = "
      f"{took*1000/interval:.1f} intervals of {interval} ms after the last node answered "
      f"(target <= {target}); {(time.time()-launched)*1000:.0f} ms after the first launch, "
      f"process start-up on this machine included")
EOF

# Kill the last node; time until every other node calls it dead.
echo "killing n$((nodes - 1))"
{ kill -9 "${pids[$((nodes - 1))]}"; wait "${pids[$((nodes - 1))]}"; } 2>/dev/null || true
killed_at=$(date +%s.%N)
python3 - "$nodes" "$interval" "$killed_at" "${api[@]:0:$((nodes - 1))}" <<'EOF'
import json, sys, time, urllib.request
n, interval, killed = int(sys.argv[1]), int(sys.argv[2]), float(sys.argv[3])
ports = sys.argv[4:]
victim = f"n{n-1}"

def state(port):
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/api/v1/cluster/members", timeout=2) as r:
            for m in json.loads(r.read())["members"]:
                if m["id"] == victim:
                    return m["state"]
            return "gone"
    except Exception:
        return None

while True:
    states = [state(p) for p in ports]
    if all(s in ("dead", "gone") for s in states):
        break
    if time.time() - killed > 60:
        sys.exit("the killed node was not marked dead within 60 s")
    time.sleep(interval / 4000)
took = time.time() - killed
print(f"failure detection: every other node marks {victim} dead after {took*1000:.0f} ms = "
      f"{took*1000/interval:.1f} intervals (design: 10 s of silence)")
EOF
