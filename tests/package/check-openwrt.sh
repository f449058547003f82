#!/bin/sh
# check-openwrt.sh SOURCE_DIR WORK_DIR MIPS_DEPS MIPS_BUILD
#
# What can be checked of packaging/openwrt/routerkit/Makefile without the
# router's SDK. make reads it with the stand-ins in openwrt-sdk/; its
# Build/Prepare copies the source, which is configured with its CMAKE_OPTIONS
# and what cmake.mk adds (Release, prefix /usr) for the mips target of the
# cross suite, built, and installed with DESTDIR. No real libubox and libuci
# exist for mips here: the stand-ins the cross suite built (MIPS_BUILD) are
# named as the installed ones, and ROUTERKIT_HOSTDEPS=OFF stays. Then its
# install rules run on that tree: every file they name must be there, every
# library a package needs must be in its DEPENDS (libc aside), and all that
# was installed but the examples and the man page must reach a package or
# the staging directory.
set -eu
src=$(cd "$1" && pwd) deps=$(cd "$3" && pwd) standins=$(cd "$4" && pwd)
rm -rf "$2" && mkdir -p "$2" && work=$(cd "$2" && pwd)
owrt() {
  make -s --no-print-directory -C "$src/packaging/openwrt/routerkit" -f Makefile -f "$src/tests/package/openwrt-sdk/check.mk" \
    TOPDIR="$src/tests/package/openwrt-sdk" INCLUDE_DIR="$src/tests/package/openwrt-sdk" PKG_BUILD_DIR="$work/src" \
    PKG_INSTALL_DIR="$work/destdir" OUT="$work/pkg" "$@"
}
opts=$(owrt print-CMAKE_OPTIONS)
echo "CMAKE_OPTIONS: $opts"
owrt prepare
cmake -S "$work/src" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr $opts \
  -DCMAKE_TOOLCHAIN_FILE="$work/src/cmake/toolchain-mips.cmake" -DRK_CROSS_DEPS="$deps" \
  -DRK_UBOX_INCLUDE_DIR="$src/hostdeps/libubox/include" -DRK_UBOX_LIBRARY="$standins/hostdeps/libubox/libubox.so" \
  -DRK_UCI_INCLUDE_DIR="$src/hostdeps/libuci/include" -DRK_UCI_LIBRARY="$standins/hostdeps/libuci/libuci.so" |
  grep 'routerkit: using'
cmake --build "$work/build" -j "${RK_JOBS:-2}" > "$work/build.log"
DESTDIR="$work/destdir" cmake --install "$work/build" > /dev/null
owrt install

status=0
fail() { echo "FAIL: $*"; status=1; }
soname=$(readelf -d "$work/destdir/usr/lib/librouterkit.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
echo "$soname: $(readelf -h "$work/destdir/usr/lib/$soname" | sed -n 's/ *\(Class\|Data\|Machine\): *//p' | paste -sd,)"
[ "$(owrt print-LIB_ABI)" = "${soname#librouterkit.so.}" ] || fail "ABI_VERSION is not the number of $soname"
[ "$(owrt print-PKG_VERSION)" = "$(sed -n 's/^Version: //p' "$work/destdir/usr/lib/pkgconfig/routerkit.pc")" ] ||
  fail "PKG_VERSION is not the project's version"
needs() { # package, file, DEPENDS
  echo "$1: DEPENDS $3"
  [ -e "$2" ] || fail "$2 is in no package"
  for n in $(readelf -d "$2" | sed -n 's/.*(NEEDED).*\[\(lib[^.]*\)\..*/\1/p'); do
    case " $3 libc " in *" +$n "*|*" $n "*) ;; *) fail "$2 needs $n; DEPENDS has no +$n" ;; esac
  done
}
needs librouterkit "$work/pkg/librouterkit/usr/lib/$soname" "$(owrt print-LIB_DEPENDS)"
needs rkctl "$work/pkg/rkctl/usr/bin/rkctl" "$(owrt print-DEPENDS)"
case "$(owrt print-LIB_DEPENDS)" in *stdcpp*|*c++*|*libgcc*) fail "librouterkit depends on a C++ runtime" ;; esac
(cd "$work/destdir" && find . ! -type d | sort) > "$work/installed"
(cd "$work/pkg" && find . ! -type d | sed 's|^\./[^/]*/|./|' | sort -u) > "$work/packaged"
left=$(comm -23 "$work/installed" "$work/packaged" | grep -vE '^\./usr/(bin/(reachd|routerkit-demo)|share/man/)' || true)
[ -z "$left" ] || fail "installed but neither packaged nor staged: $left"
(cd "$work/pkg" && find . ! -type d -printf '%-58p %8s\n' | sort)
exit $status
