#!/bin/sh
# run-fuzz.sh <fuzz-build-dir> [seconds] [target...]
#
# Runs each fuzzer (default: all of dns_datagram, blob_reader and
# json_roundtrip) for a bounded time (default 60 s each) over its checked-in
# corpus tests/fuzz/corpus/<target>, inside the private namespaces of
# rk-ns-run (the DNS one logs every refused datagram and must not reach the
# machine's syslog). Fails on any crash, leak, sanitizer report or timeout. New inputs
# go to <fuzz-build-dir>/tests/fuzz/<target>-work/corpus; crash reproducers
# to .../<target>-work/artifacts (copy those into the corpus and keep them).
# libFuzzer's own progress goes to .../<target>-work/fuzz.log; a clean run
# prints its final figures, a failing one the log's last 60 lines.
#
# The build dir is one configured with
#   CC=clang CXX=clang++ cmake -S . -B <dir> -G Ninja -DROUTERKIT_BUILD_FUZZ=ON
# and built with `ninja -C <dir> <target>_fuzzer`.
set -eu
[ $# -ge 1 ] || { echo "usage: $0 <fuzz-build-dir> [seconds] [target...]" >&2; exit 2; }
build=$(cd "$1" && pwd -P)
secs=${2:-60}
[ $# -ge 2 ] && shift 2 || shift $#
targets=${*:-dns_datagram blob_reader json_roundtrip}
src=$(cd "$(dirname "$0")/../.." && pwd -P)
for target in $targets; do
  fuzzer=$build/tests/fuzz/${target}_fuzzer
  [ -x "$fuzzer" ] || { echo "no fuzzer at $fuzzer (configure with CC=clang CXX=clang++ -DROUTERKIT_BUILD_FUZZ=ON)" >&2; exit 2; }
  work=$build/tests/fuzz/$target-work
  log=$work/fuzz.log
  mkdir -p "$work/corpus" "$work/artifacts"
  echo "== fuzzing $target for $secs s"
  if (cd "$build" &&
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:allocator_may_return_null=0 \
    UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "$src/tests/support/rk-ns-run" --keep "$build" --keep "$src" \
      "$fuzzer" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 -max_len=8192 \
      -print_final_stats=1 -artifact_prefix="$work/artifacts/" \
      "$work/corpus" "$src/tests/fuzz/corpus/$target") >"$log" 2>&1; then
    grep -E '^(Done|stat::(number_of_executed_units|new_units_added|peak_rss_mb))' "$log" || true
  else
    echo "== $target FAILED; the end of $log:"
    tail -n 60 "$log"
    exit 1
  fi
done
