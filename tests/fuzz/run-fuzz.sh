#!/bin/sh
# run-fuzz.sh <fuzz-build-dir> [seconds]
#
# Runs the DNS datagram fuzzer for a bounded time (default 60 s) over the
# checked-in corpus, inside the private namespaces of rk-ns-run (it binds
# 127.0.0.1:53 and must not reach the machine's syslog). Fails on any crash,
# leak, sanitizer report or timeout. New inputs go to
# <fuzz-build-dir>/tests/fuzz/dns-work/corpus; crash reproducers to
# .../dns-work/artifacts (copy those into tests/fuzz/corpus/dns and keep them).
#
# The build dir is one configured with
#   CC=clang CXX=clang++ cmake -S . -B <dir> -G Ninja -DROUTERKIT_BUILD_FUZZ=ON
# and built with `ninja -C <dir> dns_datagram_fuzzer`.
set -eu
[ $# -ge 1 ] || { echo "usage: $0 <fuzz-build-dir> [seconds]" >&2; exit 2; }
build=$(cd "$1" && pwd -P)
secs=${2:-60}
src=$(cd "$(dirname "$0")/../.." && pwd -P)
fuzzer=$build/tests/fuzz/dns_datagram_fuzzer
if [ ! -x "$fuzzer" ]; then
  echo "no fuzzer at $fuzzer (configure with CC=clang CXX=clang++ -DROUTERKIT_BUILD_FUZZ=ON)" >&2
  exit 2
fi
work=$build/tests/fuzz/dns-work
mkdir -p "$work/corpus" "$work/artifacts"
cd "$build"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:allocator_may_return_null=0 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
"$src/tests/support/rk-ns-run" --keep "$build" --keep "$src" \
  "$fuzzer" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 -max_len=8192 \
  -print_final_stats=1 -artifact_prefix="$work/artifacts/" \
  "$work/corpus" "$src/tests/fuzz/corpus/dns"
