#!/bin/sh
# install-test.sh BUILD_DIR SOURCE_DIR
#
# Installs the build into a fresh prefix and builds a small daemon against
# that prefix alone, the way a packager or an SDK user would:
#   cc app.c $(pkg-config --cflags --libs routerkit)
# then runs it.
set -eu
if [ -n "${RK_APP_SKIP:-}" ]; then echo "skipped: $RK_APP_SKIP"; exit 77; fi
build=$1 src=$2
prefix=$(mktemp -d /tmp/rk-prefix.XXXXXX)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
pcdir=$(dirname "$(find "$prefix" -name routerkit.pc | head -n1)")
[ -n "$pcdir" ] || { echo "routerkit.pc was not installed"; exit 1; }
for h in log config async_dns; do
  [ -f "$prefix/include/routerkit/$h.h" ] || { echo "missing include/routerkit/$h.h"; exit 1; }
done

# The command-line front end runs from the prefix as installed, man page beside it.
"$prefix/bin/rkctl" --help | grep -q '^  resolve ' || { echo "installed rkctl does not run"; exit 1; }
[ -f "$prefix/share/man/man1/rkctl.1" ] || { echo "missing share/man/man1/rkctl.1"; exit 1; }

export PKG_CONFIG_PATH="$pcdir"
libdir=$(pkg-config --variable=libdir routerkit)
[ -f "$libdir/librouterkit.so" ] || { echo "librouterkit.so not in $libdir"; exit 1; }
${RK_APP_CC:-cc} -std=c99 -Wall -Wextra -Werror ${RK_APP_CFLAGS:-} -o "$prefix/app" "$src/tests/install/app.c" \
   $(pkg-config --cflags --libs routerkit json-c)
LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" ${RK_APP_RUN:-} "$prefix/app"
