#!/usr/bin/env bash
# Installs the Debian packages the node needs to build, run, test and benchmark.
# Fast when everything is present: one dpkg query, no apt calls.
set -euo pipefail

packages=(
  build-essential cmake ninja-build ccache pkg-config clang-format clang libclang-rt-14-dev
  libcpp-httplib-dev nlohmann-json3-dev libyaml-cpp-dev libcurl4-openssl-dev
  libsqlite3-dev libssl-dev libmodbus-dev libmosquitto-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  mosquitto wrk sqlite3 python3 curl jq openssl
  prometheus chromium
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)
  [ "$status" = "installed" ] || missing+=("$p")
done

# Node.js runs the tests that drive the node with real client libraries; a
# node already on the machine (from any source) will do.
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  missing+=(nodejs npm)
fi

if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  if [ "$(id -u)" -ne 0 ]; then sudo_cmd="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The client libraries of those tests, into the project (tests/js/node_modules),
# exactly as package-lock.json pins them; nothing when they are there already.
js="$(dirname "$0")/../tests/js"
if [ ! -f "$js/node_modules/.package-lock.json" ] || [ "$js/package-lock.json" -nt "$js/node_modules/.package-lock.json" ]; then
  echo "installing npm packages into tests/js"
  (cd "$js" && npm ci --no-audit --no-fund --loglevel=error)
fi
