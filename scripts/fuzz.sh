#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, ASan, UBSan) in their own tree
# and runs each over its committed seed corpus and then for FUZZ_S seconds of
# new inputs. New inputs go to build-fuzz/corpus/<target>/ (the committed
# corpus is only read); a crash leaves its input in build-fuzz/artifacts/
# and fails the run: copy it into tests/fuzz/corpus/<target>/ once fixed, so
# that it stays a regression case.
#   scripts/fuzz.sh [seconds] [target...]     (make fuzz FUZZ_S=600)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
build=${FUZZ_BUILD_DIR:-build-fuzz}
jobs=${JOBS:-2}

if [ ! -f "$build/build.ninja" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DOSTREL_FUZZ=ON >/dev/null
fi
cmake --build "$build" -j "$jobs"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for t in tests/fuzz/corpus/*/; do targets+=("$(basename "$t")"); done
fi
mkdir -p "$build/artifacts"
failed=()
for t in "${targets[@]}"; do
  mkdir -p "$build/corpus/$t"
  log="$build/artifacts/$t.log"
  # -timeout: one input may take at most 30 s; -rss_limit_mb bounds memory.
  if "$build/fuzz/$t" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 \
       -artifact_prefix="$build/artifacts/$t-" -print_final_stats=1 \
       "$build/corpus/$t" "tests/fuzz/corpus/$t" >"$log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo "?")
    echo "fuzz $t: ok, $runs inputs in ${seconds}s"
  else
    echo "fuzz $t: FAILED (see $log)"
    grep -E "ERROR|SUMMARY|Test unit written" "$log" | head -5 || true
    failed+=("$t")
  fi
done
[ ${#failed[@]} -eq 0 ] || { echo "failing fuzz targets: ${failed[*]}"; exit 1; }
