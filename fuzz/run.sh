#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang (ASan + UBSan, float-cast-overflow
# included), makes the seed corpora and runs every harness for SECONDS each.
# Usage: fuzz/run.sh BUILD_DIR [SECONDS [HARNESS]]; HARNESS runs just that
# one (e.g. fuzz_image_loaders). Fails on any crash, leak, UB report
# or timeout; prints each harness's executions.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build=${1:-$root/build/fuzz}
seconds=${2:-60}
only=${3:-}
case "$build" in /*) ;; *) build="$root/$build" ;; esac
bash "$root/scripts/setup.sh" fuzz

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release \
  -DVEMOPROC_BUILD_FUZZ=ON -DVEMOPROC_SANITIZE=address,undefined \
  -DVEMOPROC_MAX_IMAGE_DIMENSION=1024 \
  -DVEMOPROC_BUILD_TESTS=OFF -DVEMOPROC_BUILD_BENCH=OFF -DVEMOPROC_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"

corpus="$build/corpus"
artifacts="$build/artifacts"
mkdir -p "$corpus" "$artifacts"
"$build/fuzz/make_corpus" "$corpus/seeds-images" "$corpus/seeds-npy" "$corpus/seeds-cli-args" \
  >/dev/null

export ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:abort_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
status=0
passed=0
failed=0
summary=""
for harness in $(cd "$build/fuzz" && ls fuzz_* | sort); do
  [ -n "$only" ] && [ "$harness" != "$only" ] && continue
  mkdir -p "$corpus/$harness"
  seeds=()
  case "$harness" in
    fuzz_image_loaders) seeds=("$corpus/seeds-images") ;;
    fuzz_npy_reader) seeds=("$corpus/seeds-npy") ;;
    fuzz_cli_args) seeds=("$corpus/seeds-cli-args") ;;
  esac
  log="$build/$harness.log"
  echo "== $harness (${seconds}s)"
  if "$build/fuzz/$harness" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=3072 \
       -print_final_stats=1 -artifact_prefix="$artifacts/$harness-" \
       "$corpus/$harness" "${seeds[@]}" >"$log" 2>&1; then
    execs=$(grep -m1 'stat::number_of_executed_units' "$log" | awk '{print $2}')
    summary+="$harness: ${execs:-?} executions in ${seconds}s"$'\n'
    passed=$((passed + 1))
  else
    status=1
    failed=$((failed + 1))
    summary+="$harness: FAILED (see $log)"$'\n'
    tail -n 40 "$log"
  fi
done
printf '\n%s' "$summary"
echo "fuzz: $passed passed, $failed failed"
exit $status
