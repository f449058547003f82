#!/bin/sh
# check-debs.sh DEB_DIR SOURCE_DIR
#
# Unpacks the packages in DEB_DIR into DEB_DIR/root (dpkg -x: nothing is
# installed on the machine) and builds a daemon against that tree alone, once
# with pkg-config and once with find_package(routerkit); both, and the
# packaged rkctl, run in a private namespace.
set -eu
debs=$(cd "$1" && pwd) src=$2
root=$debs/root
rm -rf "$root" "$debs/consumer"
for deb in "$debs"/*.deb; do
  case "$deb" in *-dbgsym_*) ;; *) dpkg -x "$deb" "$root" ;; esac
done
export PKG_CONFIG_PATH="$root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/pkgconfig"
libdir=$(cd "$(pkg-config --variable=libdir routerkit)" && pwd)
version=$(pkg-config --modversion routerkit)
for deb in "$debs"/*.deb; do  # debian/changelog and the project agree
  [ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || { echo "$deb is not version $version"; exit 1; }
done
cc -std=c99 -Wall -Wextra -Werror -o "$debs/app" "$src/tests/install/app.c" $(pkg-config --cflags --libs routerkit json-c)
cmake -S "$src/tests/package/consumer" -B "$debs/consumer" -DCMAKE_PREFIX_PATH="$root/usr" \
  -DRK_VERSION="$version" -DRK_APP="$src/tests/install/app.c" >/dev/null
cmake --build "$debs/consumer" >/dev/null
ns="$src/tests/support/rk-ns-run"
for app in "$debs/app" "$debs/consumer/app"; do
  echo "$app: $(LD_LIBRARY_PATH=$libdir ldd "$app" | grep -o 'librouterkit.so.0 => [^ ]*')"
  LD_LIBRARY_PATH=$libdir "$ns" "$app"
done
"$ns" "$root/usr/bin/rkctl" status
