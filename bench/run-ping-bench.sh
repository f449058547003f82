#!/bin/sh
# run-ping-bench.sh <build-dir> [--quick]
#
# Measures the ping client inside the private namespaces of
# tests/support/rk-ns-run, with a peer namespace one veth hop away:
#   1. round-trip times the callbacks report for 127.0.0.1, ::1 and the peer
#      (10.9.0.2, fd09::2) beside iputils ping to the same addresses: medians
#      and their difference (the millisecond callback's whole ms; the reply
#      callback's microseconds on raw and on unprivileged sockets)
#   2. CPU time per reply handled with a burst of 64 requests in flight,
#      routerkit on raw and on unprivileged sockets beside liboping and a bare
#      raw-socket client of the same event shape (the floor); the clients take
#      turns, medians of the rounds
# The namespace lets group 0 open unprivileged ICMP sockets.
# The build dir needs -DROUTERKIT_BUILD_BENCH=ON, a release build type
# (RelWithDebInfo) and `ninja -C <build-dir> ping_bench`.
set -eu
[ $# -ge 1 ] || { echo "usage: $0 <build-dir> [--quick]" >&2; exit 2; }
build=$(cd "$1" && pwd -P)
src=$(cd "$(dirname "$0")/.." && pwd -P)
bench=$build/bench/ping_bench
[ -x "$bench" ] || { echo "no $bench (configure with -DROUTERKIT_BUILD_BENCH=ON, build ping_bench)" >&2; exit 2; }
if [ "${2:-}" = "--quick" ]; then count=20 rounds=3 bursts=10; else count=200 rounds=21 bursts=50; fi

exec "$src/tests/support/rk-ns-run" --keep "$build" --keep "$src" /bin/sh -eu -c '
bench=$1 count=$2 rounds=$3 bursts=$4
ip netns add peer
ip link add rk0 type veth peer name rk1 netns peer
ip addr add 10.9.0.1/24 dev rk0
ip addr add fd09::1/64 dev rk0 nodad
ip link set rk0 up
ip -n peer addr add 10.9.0.2/24 dev rk1
ip -n peer addr add fd09::2/64 dev rk1 nodad
ip -n peer link set rk1 up
sysctl -qw net.ipv4.ping_group_range="0 0"
ping -n -c 1 -W 3 fd09::2 >/dev/null  # neighbour discovery done before timing
echo "== 1. round-trip time: routerkit callback vs iputils ping"
for a in 127.0.0.1 ::1 10.9.0.2 fd09::2; do "$bench" rtt $a $count; done
echo "== 2. CPU time per reply, 64 in flight"
"$bench" cpu $rounds $bursts
' ping-bench "$bench" $count $rounds $bursts
