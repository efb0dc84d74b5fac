#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan, in build-fuzz/) and
# runs one target, or each in turn, for SECONDS with its seed corpus and the
# corpus it grew before (build-fuzz/corpus/TARGET). Stops a target early after
# RUNS executions when given. Prints per target its executions, executions
# per second and coverage; a finding prints the fuzzer's report, leaves the
# input in build-fuzz/artifacts/ and fails. BANDHERD_FUZZ_DIR names another
# build directory.
#
#   scripts/fuzz.sh TARGET|all SECONDS [RUNS]      targets: drv mesh cmd conf
#
# With "check" for SECONDS it runs every input of the seeds and the corpus
# twice, in name order and in the reverse order, and fails unless each input
# does the same both times (same log, same calls to the Wi-Fi library and
# the driver, same clock and timers): every run must start from the same state.
set -euo pipefail
cd "$(dirname "$0")/.."

targets=(drv mesh cmd conf)
if [ $# -lt 2 ] || { [ "$1" != all ] && [[ ! " ${targets[*]} " =~ " $1 " ]]; }; then
  echo "usage: $0 {${targets[*]// /|}|all} SECONDS [RUNS]" >&2
  exit 2
fi
[ "$1" = all ] || targets=("$1")
seconds=$2
runs=${3:--1}

./scripts/setup.sh

dir=${BANDHERD_FUZZ_DIR:-build-fuzz}
CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DBANDHERD_FUZZ=ON -DBANDHERD_WERROR=ON \
  -DBANDHERD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" -j "$(nproc)" --target fuzz_seeds "${targets[@]/#/fuzz_}"
rm -rf "$dir/seeds"
"$dir/fuzz/fuzz_seeds" "$dir/seeds"
mkdir -p "$dir/artifacts"

# A freed block waits in ASan's quarantine (256 MB by default) before it is
# reused, so that a use after the free is caught. A run frees 150-350 KB on
# average (ASan's print_stats over the grown corpora), so 1 MB keeps a
# run's freed blocks poisoned for the rest of that run, and the blocks
# handed out again are still in the core's cache: with 64 MB the fuzzers
# ran 10-20 % slower, waiting on cold memory.
export ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=1
export LSAN_OPTIONS=suppressions=$PWD/tests/unit/lsan.supp
export UBSAN_OPTIONS=print_stacktrace=1
export ASAN_SYMBOLIZER_PATH=/usr/lib/llvm-14/bin/llvm-symbolizer

check() {
  local t=$1 inputs
  mapfile -t inputs < <(find "$dir/seeds/$t" "$dir/corpus/$t" -type f | sort)
  rm -f "$dir/digest-$t".*
  : >"$dir/check-$t.log"
  for order in forward reverse; do
    [ $order = forward ] || mapfile -t inputs < <(printf '%s\n' "${inputs[@]}" | sort -r)
    if ! FUZZ_DIGEST=$PWD/$dir/digest-$t.$order "$dir/fuzz/fuzz_$t" "${inputs[@]}" >>"$dir/check-$t.log" 2>&1; then
      grep -v NEW_FUNC "$dir/check-$t.log" | tail -60
      echo "fuzz_$t: FINDING (log $dir/check-$t.log)" >&2
      exit 1
    fi
  done
  # The fuzzer runs an input again when it freed less than it allocated, so
  # an input may have several lines; all of them must agree.
  sort -u "$dir/digest-$t.forward" "$dir/digest-$t.reverse" >"$dir/digest-$t.all"
  if [ -n "$(cut -d' ' -f1 "$dir/digest-$t.all" | uniq -d)" ]; then
    echo "fuzz_$t: inputs that behave differently after other inputs (input hash, behaviour hashes):" >&2
    cut -d' ' -f1 "$dir/digest-$t.all" | uniq -d | grep -F -f - "$dir/digest-$t.all" >&2
    exit 1
  fi
  echo "fuzz_$t: ${#inputs[@]} inputs, each does the same whatever ran before it"
}

for t in "${targets[@]}"; do
  mkdir -p "$dir/corpus/$t"
  if [ "$seconds" = check ]; then
    check "$t"
    continue
  fi
  log=$dir/fuzz-$t.log
  # The mesh daemon's chunks and the configuration values are the longest inputs.
  rc=0
  "$dir/fuzz/fuzz_$t" -max_total_time="$seconds" -runs="$runs" -max_len=4096 -timeout=10 \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$dir/artifacts/$t-" \
    "$dir/corpus/$t" "$dir/seeds/$t" >"$log" 2>&1 || rc=$?
  if [ $rc -eq 0 ]; then
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    cov=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$log" | tail -1)
    rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log")
    echo "fuzz_$t: $execs execs, $rate exec/s, $cov, peak rss ${rss} MB"
  elif [ $rc -eq 72 ] && grep -q 'libFuzzer: run interrupted' "$log"; then
    # Stopped by a signal (the fuzzer's exit code for it is 72): no finding.
    last=$(grep -o '^#[0-9]*.*cov: [0-9]* ft: [0-9]*' "$log" | tail -1)
    echo "fuzz_$t: interrupted at ${last:-its start} (log $log)" >&2
    exit 130
  else
    grep -v NEW_FUNC "$log" | tail -60
    echo "fuzz_$t: FINDING (input in $dir/artifacts/, log $log)" >&2
    exit 1
  fi
done
