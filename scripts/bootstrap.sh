#!/usr/bin/env bash
# bootstrap.sh main|test|cross ARCH
#
#   main        install what is needed (Debian packages), build, run the example
#               and rkctl status
#   test        install, build and run the whole test suite; again built with
#               AddressSanitizer and UBSan; a bounded fuzzing run; the suite
#               cross-built for armhf and s390x and run under qemu-user; then
#               a line and branch coverage summary of src/ from the plain run
#   cross ARCH  install, cross-build and run the suite for one target
#               (armhf: 32-bit little-endian, s390x: 64-bit big-endian)
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

cross_arches=(armhf s390x)
# The cross compilers and emulator, and the target's libraries (multiarch).
cross_packages() { # arch
  local triplet
  case "$1" in
    armhf) triplet=arm-linux-gnueabihf ;;
    s390x) triplet=s390x-linux-gnu ;;
    *) echo "unknown target $1 (armhf or s390x)" >&2; exit 2 ;;
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

# Cross-builds the suite for one target and runs it under qemu-user, in the
# same namespace harness; cases the emulator cannot run skip with a reason.
run_cross() { # arch
  local arch=$1 dir=build/$1 t0 lua
  lua=$(cross_lua "$arch")
  t0=$(date +%s)
  configure_build "$dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-$arch.cmake" \
    -DCMAKE_BUILD_TYPE=Debug -DROUTERKIT_HOSTDEPS=ON $lua
  echo "== $arch: built in $(( $(date +%s) - t0 )) s"
  t0=$(date +%s)
  run_ctest "$dir" "$arch (qemu-user)"
  echo "== $arch: tests ran in $(( $(date +%s) - t0 )) s; skipped there, with the reason:"
  local names
  names=$(grep -oE '[^ ]+ \.+\*\*\*Skipped' "$dir/ctest.log" | sed -E 's/ \.+\*\*\*Skipped//' | paste -sd'|' || true)
  [ -z "$names" ] || (cd "$dir" && ctest -V -R "^($names)\$" 2>&1 | grep -E 'Skipped$|skipped:' -A1 | grep -vE 'Skipped$|^--|Test +#' | sed 's/^[0-9]*: */   /') || true
}

configure() { # dir, extra cmake args...
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -G Ninja -DROUTERKIT_WERROR=ON "$@"
}
configure_build() { # dir, extra cmake args...
  configure "$@"
  cmake --build "$1" -j "$jobs"
}

passed=0 failed=0 skipped=0 failed_names=()
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
    configure_build build/cov -DCMAKE_BUILD_TYPE=Debug -DROUTERKIT_COVERAGE=ON -DROUTERKIT_BUILD_BENCH=ON
    find build/cov -name '*.gcda' -delete
    run_ctest build/cov "plain"

    echo "== AddressSanitizer + UBSan build"
    configure_build build/asan -DCMAKE_BUILD_TYPE=Debug -DROUTERKIT_SANITIZE=address,undefined
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      run_ctest build/asan "asan+ubsan"

    for arch in "${cross_arches[@]}"; do
      echo "== cross build and run: $arch"
      install_packages $(cross_packages "$arch")
      run_cross "$arch"
    done

    if [ -x tests/fuzz/run-fuzz.sh ]; then
      echo "== fuzzing (bounded)"
      CC=clang CXX=clang++ configure build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DROUTERKIT_BUILD_FUZZ=ON -DROUTERKIT_BUILD_TESTS=ON
      cmake --build build/fuzz -j "$jobs" --target dns_datagram_fuzzer blob_reader_fuzzer json_roundtrip_fuzzer
      if tests/fuzz/run-fuzz.sh build/fuzz "${RK_FUZZ_SECONDS:-40}"; then
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
  *)
    echo "usage: $0 main|test|cross armhf|s390x" >&2
    exit 2
    ;;
esac
