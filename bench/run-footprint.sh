#!/bin/sh
# run-footprint.sh BUILD_DIR [EMULATOR...]
#
# What a build costs on its target: the size of librouterkit.so (link the
# build with -s to see it stripped), its text, its NEEDED list, and the
# resident memory of the example daemon reachd after 100 and after
# RK_ROUNDS (10000) rounds back to back on loopback: three targets (a name
# served by dnsmasq, 127.0.0.1 and ::1), one echo request each, the Lua hook
# every round. The hook reads VmRSS from /proc/self/status. Under qemu-user
# (EMULATOR, for a cross build) that is the emulator's process, the guest's
# memory and the emulator's own: there the growth between the two readings
# is the figure to look at. Runs reachd in tests/support/rk-ns-run (root).
set -eu
dir=$(cd "$1" && pwd -P)
shift
rounds=${RK_ROUNDS:-10000}
here=$(cd "$(dirname "$0")" && pwd -P)
lib=$(readlink -f "$dir/src/librouterkit.so")
needed=$(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | paste -sd' ')
echo "librouterkit.so: $(stat -c %s "$lib") bytes, text $(size "$lib" | awk 'NR == 2 {print $1}') bytes; NEEDED: $needed"

t0=$(date +%s)
"$here/../tests/support/rk-ns-run" --keep "$dir" sh -eu -c '
rounds=$1 reachd=$2
shift 2
/usr/sbin/dnsmasq --no-resolv --no-hosts --port=53 --listen-address=127.0.0.1 --bind-interfaces \
  --user=root --pid-file=/tmp/dnsmasq.pid --conf-file=/dev/null --local-ttl=3600 \
  --host-record=self.test.lan,127.0.0.1
printf "%s\n" "config reachd main" "	option count 1" "	option interval 0" "	option timeout 2" \
  "	option hook /tmp/hook.lua" "	option dns 127.0.0.1" \
  "config target" "	option host self.test.lan" "config target" "	option host 127.0.0.1" \
  "config target" "	option host ::1" > /tmp/reachd
cat > /tmp/hook.lua <<LUA
local done = 0
function on_round(round)
  done = done + 1
  if done == 100 or done == $rounds then
    local status = io.open("/proc/self/status")
    local rss = status:read("*a"):match("VmRSS:%s*(%d+)")
    status:close()
    local out = io.open("/tmp/rss", "a")
    out:write(rss, " kB after ", done, " rounds\n")
    out:close()
  end
end
LUA
"$@" "$reachd" -c /tmp/reachd -n "$rounds" 2>/dev/null || echo "reachd failed"
kill "$(cat /tmp/dnsmasq.pid)"
echo "reachd: VmRSS $(paste -sd, /tmp/rss)"
' sh "$rounds" "$dir/examples/reachd" "$@"
echo "($(( $(date +%s) - t0 )) s)"
