#!/bin/sh
# run-dns-bench.sh <build-dir> [--quick]
#
# Measures the DNS client beside c-ares, inside the private namespaces of
# tests/support/rk-ns-run (the benchmarks listen on 127.0.0.1:53):
#   1. Google Benchmark: lookups answered per second end to end (32 in flight,
#      and 1, A+AAAA) and CPU time per answered lookup, for routerkit untracked
#      (TTL 300, and TTL 0 = nothing cached) and checked (every check on),
#      c-ares and a bare UDP floor; cache hits per second (c-ares 1.18 has no
#      cache: its hosts file stands beside ours)
#   2. callgrind: instructions per answered lookup and per cache hit
#   3. memory: bytes per cached name with two addresses; 100,000 lookups over
#      contexts created and destroyed, heap before/after and valgrind memcheck
# Ratios are routerkit / c-ares. Exits non-zero when a run fails or leaks;
# missed targets are reported, not failed.
#
# The build dir needs -DROUTERKIT_BUILD_BENCH=ON, a release build type
# (RelWithDebInfo) and `ninja -C <build-dir> dns_bench`. --quick shortens
# every run (for checking the script itself).
set -eu
[ $# -ge 1 ] || { echo "usage: $0 <build-dir> [--quick]" >&2; exit 2; }
build=$(cd "$1" && pwd -P)
quick=${2:-}
src=$(cd "$(dirname "$0")/.." && pwd -P)
bench=$build/bench/dns_bench
[ -x "$bench" ] || { echo "no $bench (configure with -DROUTERKIT_BUILD_BENCH=ON, build dns_bench)" >&2; exit 2; }
out=$build/bench/dns-results
mkdir -p "$out"
cd "$build"
ns() { "$src/tests/support/rk-ns-run" --keep "$build" --keep "$src" "$@"; }

if [ "$quick" = "--quick" ]; then
  mintime="--benchmark_min_time=0.2"; n_e2e=2000; n_hit=20000; n_mem=10000; n_churn=2000
else
  mintime=""; n_e2e=20000; n_hit=200000; n_mem=100000; n_churn=100000
fi
status=0

echo "== 1. throughput and CPU time (Google Benchmark)"
ns "$bench" $mintime --benchmark_counters_tabular=true \
  --benchmark_out="$out/bench.json" --benchmark_out_format=json || status=1

# name -> items_per_second and cpu_ns_per_lookup from the JSON report
metric() { # benchmark-name-prefix field
  awk -v want="$1" -v field="$2" '
    /"name":/ { gsub(/[",]/, "", $2); name = $2 }
    $0 ~ "\"" field "\":" { gsub(/[",]/, "", $2); if (index(name, want) == 1 && !done) { printf "%.0f\n", $2; done = 1 } }
  ' "$out/bench.json"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a == "" || b == "" || b + 0 == 0) print "n/a"; else printf "%.2f", a / b }'; }

ours_lps=$(metric BM_EndToEnd_Routerkit/ttl:300/inflight:32/ items_per_second)
ours0_lps=$(metric BM_EndToEnd_Routerkit/ttl:0/inflight:32/ items_per_second)
chk_lps=$(metric BM_EndToEnd_Checked/ttl:300/inflight:32/ items_per_second)
cares_lps=$(metric BM_EndToEnd_Cares/ttl:300/inflight:32/ items_per_second)
floor_lps=$(metric BM_EndToEnd_BareUdpFloor/ items_per_second)
ours_cpu=$(metric BM_EndToEnd_Routerkit/ttl:300/inflight:32/ cpu_ns_per_lookup)
ours0_cpu=$(metric BM_EndToEnd_Routerkit/ttl:0/inflight:32/ cpu_ns_per_lookup)
chk_cpu=$(metric BM_EndToEnd_Checked/ttl:300/inflight:32/ cpu_ns_per_lookup)
cares_cpu=$(metric BM_EndToEnd_Cares/ttl:300/inflight:32/ cpu_ns_per_lookup)
ours1_cpu=$(metric BM_EndToEnd_Routerkit/ttl:300/inflight:1/ cpu_ns_per_lookup)
chk1_cpu=$(metric BM_EndToEnd_Checked/ttl:300/inflight:1/ cpu_ns_per_lookup)
cares1_cpu=$(metric BM_EndToEnd_Cares/ttl:300/inflight:1/ cpu_ns_per_lookup)
floor_cpu=$(metric BM_EndToEnd_BareUdpFloor/ cpu_ns_per_lookup)
floor1_lps=$(metric BM_EndToEnd_BareUdpOnePerEvent/ items_per_second)
floor1_cpu=$(metric BM_EndToEnd_BareUdpOnePerEvent/ cpu_ns_per_lookup)
zero_ns=$(awk '/"name": "BM_ZeroReceiveBuffer"/ { f = 1 } f && /"cpu_time":/ { gsub(/[",]/, "", $2); printf "%.0f\n", $2; exit }' "$out/bench.json")
hit_ours=$(metric BM_CacheHit_Routerkit items_per_second)
hit_cares=$(metric BM_CacheHit_CaresHostsFile items_per_second)

echo "== 2. instructions (callgrind, this thread only, warm)"
insn() { # probe count [ttl] -> "<per lookup> <memset per lookup>"
  f="$out/callgrind.$1${3:+-ttl$3}.out"
  ns valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$f" \
    "$bench" --probe="$1" --count="$2" ${3:+--ttl=$3} >"$f.log" 2>&1 || { echo "probe $1 failed" >&2; status=1; return; }
  total=$(awk '/^summary:/ { print $2 }' "$f")
  memset=$(callgrind_annotate --auto=no "$f" 2>/dev/null | awk '/__memset/ { gsub(",", "", $1); s += $1 } END { print s + 0 }')
  awk -v t="$total" -v m="$memset" -v n="$2" 'BEGIN { printf "%.0f %.0f\n", t / n, m / n }'
}
set -- $(insn e2e-ours $n_e2e 300); i_ours=${1:-}; m_ours=${2:-}
set -- $(insn e2e-ours $n_e2e 0); i_ours0=${1:-}; m_ours0=${2:-}
set -- $(insn e2e-checked $n_e2e 300); i_chk=${1:-}
set -- $(insn e2e-cares $n_e2e); i_cares=${1:-}
set -- $(insn e2e-floor $n_e2e); i_floor=${1:-}
set -- $(insn e2e-floor1 $n_e2e); i_floor1=${1:-}
set -- $(insn hit-ours $n_hit); i_hit=${1:-}
set -- $(insn hit-cares $((n_hit / 10))); i_hitc=${1:-}

echo "== 3. memory"
# tcache off: freed chunks then leave the in-use count at once
GLIBC_TUNABLES=glibc.malloc.tcache_count=0 ns "$bench" --probe=mem --count=$n_mem | tee "$out/mem.txt" || status=1
GLIBC_TUNABLES=glibc.malloc.tcache_count=0 ns "$bench" --probe=churn --count=$n_churn | tee "$out/churn.txt" || status=1
if ns valgrind --leak-check=full --errors-for-leak-kinds=definite,indirect,possible --error-exitcode=3 \
     "$bench" --probe=churn --count=$n_churn >"$out/memcheck.txt" 2>&1; then
  leak="none (valgrind memcheck, $n_churn lookups)"
else
  leak="FOUND, see $out/memcheck.txt"; status=1
fi
grep -E 'definitely lost|indirectly lost|possibly lost|still reachable' "$out/memcheck.txt" || true

cat <<EOF

== DNS client: routerkit vs c-ares (ratios routerkit / c-ares)
end to end, 32 in flight, A+AAAA, lookups per second (wall):
  routerkit TTL 300 ${ours_lps:-n/a}   TTL 0 ${ours0_lps:-n/a}   c-ares ${cares_lps:-n/a}
  bare UDP ${floor_lps:-n/a}   bare UDP, one datagram per event ${floor1_lps:-n/a}
  ratio TTL 300 $(ratio "$ours_lps" "$cares_lps")   TTL 0 $(ratio "$ours0_lps" "$cares_lps")
  checked (every check) ${chk_lps:-n/a}   ratio $(ratio "$chk_lps" "$cares_lps")
CPU ns per answered lookup (client thread only; target <= 0.75 x c-ares):
  routerkit TTL 300 ${ours_cpu:-n/a}   TTL 0 ${ours0_cpu:-n/a}   c-ares ${cares_cpu:-n/a}
  bare UDP ${floor_cpu:-n/a}   bare UDP, one datagram per event ${floor1_cpu:-n/a}
  ratio TTL 300 $(ratio "$ours_cpu" "$cares_cpu")   TTL 0 $(ratio "$ours0_cpu" "$cares_cpu")
checked context (sender, question, random identifiers; drained socket), CPU ns per lookup:
  32 in flight: checked ${chk_cpu:-n/a}   / c-ares $(ratio "$chk_cpu" "$cares_cpu") (target <= 1.00)   / untracked $(ratio "$chk_cpu" "$ours_cpu")
  1 in flight:  checked ${chk1_cpu:-n/a}   untracked ${ours1_cpu:-n/a}   c-ares ${cares1_cpu:-n/a}
                checked / untracked $(ratio "$chk1_cpu" "$ours1_cpu") (target <= 1.10)   checked / c-ares $(ratio "$chk1_cpu" "$cares1_cpu")
  zeroing a 65535-byte receive buffer: ${zero_ns:-n/a} ns (done twice per lookup by checkDnsSocket)
cache hits per second (c-ares: hosts file, it has no cache):
  routerkit ${hit_ours:-n/a}   c-ares ${hit_cares:-n/a}   ratio $(ratio "$hit_ours" "$hit_cares")
instructions per answered lookup (target < 2,500; c-ares ~13,000; floor ~400):
  routerkit TTL 300 ${i_ours:-n/a} (memset ${m_ours:-n/a})   TTL 0 ${i_ours0:-n/a} (memset ${m_ours0:-n/a})
  c-ares ${i_cares:-n/a}   bare UDP ${i_floor:-n/a}   one datagram per event ${i_floor1:-n/a}
  ratio TTL 300 $(ratio "$i_ours" "$i_cares")   without the memset $(ratio "$((i_ours - m_ours))" "$i_cares")
  checked ${i_chk:-n/a}   ratio $(ratio "$i_chk" "$i_cares")
instructions per cache hit (target < 920): routerkit ${i_hit:-n/a}   c-ares hosts file ${i_hitc:-n/a}
$(sed -n 1p "$out/mem.txt" 2>/dev/null)
$(cat "$out/churn.txt" 2>/dev/null)
leaks: $leak
(results in $out)
EOF
exit $status
