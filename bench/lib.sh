# Shared by the wrk benchmarks, sourced right after `set -euo pipefail`:
# the build directory (first argument), a check for wrk, free_port and a
# scratch directory $work (the caller's EXIT trap removes it).
build=${1:-build}
command -v wrk >/dev/null || { echo "wrk is not installed (scripts/install-deps.sh)"; exit 1; }
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
work=$(mktemp -d)
