#!/bin/sh
# run-longrun.sh <build-dir> [--quick]
#
# Long runs with flat memory, inside the private namespaces of
# tests/support/rk-ns-run (port 53, raw sockets, ping_group_range, fixed
# paths), each in a process of its own (bench/longrun.cc,
# bench/reachd_longrun.c):
#   dns default / checked  1,000,000 lookups over 100 names each: answers,
#                          NXDOMAIN, SERVFAIL and forged datagrams mixed
#   ping raw / unprivileged  1,000,000 echo requests each to 127.0.0.1 and ::1
#   script calls           100,000 luaHelperCall with an argument, each calling
#                          a native method and reading its response
#   lua_to_json ... blob_to_json  100,000 conversions of each kind
#   reachd rounds          100,000 rounds of the example daemon back to back
#                          (-n): two names served by dnsmasq with TTL 0, one
#                          of them NXDOMAIN, 127.0.0.1 and ::1, one request
#                          each, 5 ms for names and late replies; its own
#                          hook.lua
# For each: the heap in use (mallinfo2 uordblks + hblkhd) before the first
# operation and after 1 %, 10 %, 50 %, 100 % of them, the growth after the
# first 1 %, descriptors before and at the end, resident memory at 10/50/100 %
# and the time. glibc's per-thread cache is off (GLIBC_TUNABLES), so that a
# freed block leaves the in-use count at once. Exits non-zero when a run fails
# or its heap or descriptors grow after the first 1 %.
#
# The build dir needs -DROUTERKIT_BUILD_BENCH=ON, a release build type
# (RelWithDebInfo) and `ninja -C <build-dir> longrun reachd_longrun`.
# --quick runs a fiftieth of each (for checking the script itself; its 1 %
# may be too early for a Lua state's tables to have their final size).
set -eu
[ $# -ge 1 ] || { echo "usage: $0 <build-dir> [--quick]" >&2; exit 2; }
build=$(cd "$1" && pwd -P)
src=$(cd "$(dirname "$0")/.." && pwd -P)
for p in longrun reachd_longrun; do
  [ -x "$build/bench/$p" ] || { echo "no $build/bench/$p (configure with -DROUTERKIT_BUILD_BENCH=ON, build it)" >&2; exit 2; }
done
if [ "${2:-}" = "--quick" ]; then big=20000 small=2000; else big=1000000 small=100000; fi
out=$build/bench/longrun-results
mkdir -p "$out"

{ rc=0; GLIBC_TUNABLES=glibc.malloc.tcache_count=0 "$src/tests/support/rk-ns-run" --keep "$build" --keep "$src" \
  /bin/sh -u -c '
bin=$1 src=$2 big=$3 small=$4 status=0
sysctl -qw net.ipv4.ping_group_range="0 0"
for run in "dns default $big" "dns checked $big" "ping raw $big" "ping unprivileged $big" \
           "script $small" "bridge $small"; do
  $bin/longrun $run || { echo "longrun $run failed"; status=1; }
done
/usr/sbin/dnsmasq --no-resolv --no-hosts --port=53 --listen-address=127.0.0.1 --bind-interfaces --user=root \
  --pid-file=/tmp/dnsmasq.pid --conf-file=/dev/null --local=/test.lan/ --host-record=self.test.lan,127.0.0.2
printf "%s\n" "config reachd main" "	option count 1" "	option interval 0" "	option timeout 5" \
  "	option hook $src/examples/reachd/hook.lua" "	option dns 127.0.0.1" \
  "config target" "	option host self.test.lan" "config target" "	option host gone.test.lan" \
  "config target" "	option host 127.0.0.1" "config target" "	option host ::1" >/tmp/reachd
rm -f /dev/log
$bin/reachd_longrun -c /tmp/reachd -n $small || { echo "reachd_longrun failed"; status=1; }
kill "$(cat /tmp/dnsmasq.pid)"
exit $status
' longrun "$build/bench" "$src" $big $small || rc=$?; echo $rc >"$out/status"; } | tee "$out/longrun.txt"
status=$(cat "$out/status")

awk -F'|' '
BEGIN {
  printf "%-18s %8s | %-52s %9s | %-7s | %-20s | %7s\n", "run", "count", "heap in use, bytes: before / 1 % / 10 % / 50 % / 100 %",
         "growth", "fds", "RSS kB 10/50/100 %", "seconds"
}
$1 == "longrun" {
  grow = $6; if ($7 > grow) grow = $7; if ($8 > grow) grow = $8; grow -= $5
  printf "%-18s %8d | %8d %8d %8d %8d %8d         %+9d | %3d %3d | %6d %6d %6d | %7.1f\n", $2, $3, $4, $5, $6, $7, $8,
         grow, $9, $10, $11, $12, $13, $14
  if (grow > 0 || $10 != $9) { bad = bad " " $2 }
}
END {
  if (bad != "") { print "GROWTH after the first 1 %:" bad; exit 1 }
  print "heap and descriptors flat after the first 1 % in every run"
}' "$out/longrun.txt" || status=1
echo "(results in $out)"
exit $status
