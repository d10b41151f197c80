#!/usr/bin/env bash
# Runs the fuzz targets, each for SECONDS, and says how each did.
#   fuzz/run.sh SECONDS [TARGET...]      (targets: control fanotify ...)
#
# Each target starts from its corpus in the repository (fuzz/corpus/NAME)
# copied into a work directory, plus whatever earlier runs there found, and
# grows that copy; nothing is ever written into the repository. A finding
# (crash, leak, time-out, memory blow-up) makes the run fail and leaves the
# input in WORK/NAME/ (crash-*, leak-*, timeout-*, oom-*) and the fuzzer's
# output in WORK/NAME/log.
#
# Environment:
#   YULOTIFYD_FUZZ_BUILD  fuzz build directory (default: build-fuzz at the
#                         top of the repository); configured with clang and
#                         -DYULOTIFYD_FUZZ=ON if it has no CMakeCache.txt,
#                         and the targets are built (or brought up to date)
#   YULOTIFYD_FUZZ_WORK   work directory (default: BUILD/fuzz-work)
#   YULOTIFYD_FUZZ_JOBS   targets run side by side (default 1)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
all_targets=(control fanotify raw_record monitor_queue share_conf
             volume_table queue_line pipeline)

if (($# < 1)) || ! [[ $1 =~ ^[0-9]+$ ]]; then
  echo "usage: fuzz/run.sh SECONDS [TARGET...]" >&2
  exit 2
fi
seconds=$1
shift
targets=("$@")
((${#targets[@]})) || targets=("${all_targets[@]}")

build=${YULOTIFYD_FUZZ_BUILD:-$here/build-fuzz}
work=${YULOTIFYD_FUZZ_WORK:-$build/fuzz-work}
jobs=${YULOTIFYD_FUZZ_JOBS:-1}

if [[ ! -f $build/CMakeCache.txt ]]; then
  CC=clang CXX=clang++ cmake -S "$here" -B "$build" -DYULOTIFYD_FUZZ=ON \
    -DYULOTIFYD_BUILD_TESTS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target yulo_fuzzers -j2 >/dev/null

# One target: fuzz it, then write its summary line to WORK/NAME/summary.
run_one() {
  local name=$1
  local binary=$build/fuzz/${name}_fuzzer
  local dir=$work/$name
  mkdir -p "$dir/corpus"
  cp -n "$here/fuzz/corpus/$name/"* "$dir/corpus/" 2>/dev/null || true
  local status=0
  # -timeout: no input may take longer (the slowest legitimate one, the
  # control handler's, is bounded by its 5-second request limit).
  # -malloc_limit_mb: no input may make the code ask for more at once (the
  # largest legitimate block is a 1 MiB control request body).
  # -rss_limit_mb: ASan's quarantine and allocator caches alone hold 1 to 2
  # GiB in the control target after some minutes (it allocates bodies of up
  # to 1 MiB); the default 2 GiB would end long runs for nothing.
  "$binary" -max_total_time="$seconds" -timeout=10 -malloc_limit_mb=64 \
    -rss_limit_mb=4096 -print_final_stats=1 -dict="$here/fuzz/yulotifyd.dict" \
    -artifact_prefix="$dir/" "$dir/corpus" >"$dir/log" 2>&1 || status=$?
  local done_line execs rate
  done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$dir/log" | tail -n 1 || true)
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$dir/log")
  local cov ft
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$done_line")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$done_line")
  if ((status == 0)); then
    printf '%-14s ok      %10s execs %7s/s  cov %5s  ft %6s\n' \
      "$name" "${execs:-?}" "${rate:-?}" "${cov:-?}" "${ft:-?}" >"$dir/summary"
  else
    {
      printf '%-14s FAILED  status %d; input and log in %s\n' \
        "$name" "$status" "$dir"
      grep -E 'check failed|ERROR:|SUMMARY:|^  ' "$dir/log" | head -n 20 |
        sed 's/^/    /'
    } >"$dir/summary"
  fi
  return "$status"
}

mkdir -p "$work"
echo "fuzzing ${#targets[@]} targets for ${seconds} s each, ${jobs} at a time"
for name in "${targets[@]}"; do
  if [[ ! -x $build/fuzz/${name}_fuzzer ]]; then
    echo "no fuzz target named $name" >&2
    exit 2
  fi
  rm -f "$work/$name/summary"
  run_one "$name" &
  while (($(jobs -rp | wc -l) >= jobs)); do wait -n || true; done
done
wait || true

passed=0
failed=0
for name in "${targets[@]}"; do
  [[ -f $work/$name/summary ]] ||
    printf '%-14s FAILED  (no result)\n' "$name" >"$work/$name/summary"
  cat "$work/$name/summary"
  if grep -q ' ok ' "$work/$name/summary"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
  fi
done
echo "fuzz: $passed passed, $failed failed"
((failed == 0))
