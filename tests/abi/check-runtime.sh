#!/bin/sh
# check-runtime.sh LIBRARY
#
# The library needs no C++ runtime when it runs: neither libstdc++, libc++ nor
# libgcc_s among its NEEDED entries, and no name of one (operators new and
# delete, type information, exception handling, guards of local statics)
# among the names it leaves to be found at load time. A daemon written in C
# then needs no C++ runtime on the device. Prints the NEEDED list.
set -eu
lib=$1
needed=$(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
echo "NEEDED: $(echo $needed)"
status=0
bad=$(echo "$needed" | grep -E '^lib(stdc\+\+|c\+\+|c\+\+abi|gcc_s|unwind)\.' || true)
if [ -n "$bad" ]; then
  echo "needs a C++ runtime:"; echo "$bad" | sed 's/^/  /'; status=1
fi
# __cxa_finalize and __cxa_atexit belong to the C library.
names=$(nm -D --undefined-only "$lib" | awk '{print $NF}' |
  grep -E '^(_Z|__gxx_|__cxa_|_Unwind_|__gcc_personality)' | grep -vE '^__cxa_(finalize|atexit)(@|$)' || true)
if [ -n "$names" ]; then
  echo "leaves C++ runtime names to be found at load time:"; echo "$names" | sed 's/^/  /'; status=1
fi
exit $status
