#!/usr/bin/env bash
# bootstrap.sh main|test
#
#   main  install what is needed (Debian packages), build, run the example
#   test  install, build and run the whole test suite; again built with
#         AddressSanitizer and UBSan; a bounded fuzzing run; then a line and
#         branch coverage summary of src/ from the plain run
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
  liblua5.1-0-dev libjson-c-dev libc-ares-dev
  clang libclang-rt-14-dev gcovr valgrind
  dnsmasq-base iproute2 util-linux procps
)

install_packages() {
  local missing=() p sudo=
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  echo "== installing: ${missing[*]}"
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
}

configure() { # dir, extra cmake args...
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -G Ninja -DROUTERKIT_WERROR=ON "$@"
}
configure_build() { # dir, extra cmake args...
  configure "$@"
  cmake --build "$1" -j "$jobs"
}

passed=0 failed=0
run_ctest() { # dir, label
  local dir=$1 label=$2 log out total nfail
  log="$dir/ctest.log"
  set +e
  (cd "$dir" && ctest -j "$jobs" --output-on-failure --timeout 300) 2>&1 | tee "$log"
  local rc=${PIPESTATUS[0]}
  set -e
  out=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -n1 || true)
  total=$(echo "$out" | sed -E 's/.*out of ([0-9]+).*/\1/')
  nfail=$(echo "$out" | sed -E 's/.* ([0-9]+) tests failed.*/\1/')
  if [ -z "$out" ]; then total=0; nfail=1; fi
  passed=$((passed + total - nfail)); failed=$((failed + nfail))
  echo "== $label: $((total - nfail)) of $total passed"
  [ "$rc" -eq 0 ] || [ "$nfail" -gt 0 ] || failed=$((failed + 1))
}

case "$mode" in
  main)
    install_packages
    configure_build build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DROUTERKIT_BUILD_TESTS=OFF
    echo "== running the example"
    build/release/examples/routerkit-demo
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

    if [ -x tests/fuzz/run-fuzz.sh ]; then
      echo "== fuzzing (bounded)"
      CC=clang CXX=clang++ configure build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DROUTERKIT_BUILD_FUZZ=ON -DROUTERKIT_BUILD_TESTS=ON
      cmake --build build/fuzz -j "$jobs" --target dns_datagram_fuzzer
      if tests/fuzz/run-fuzz.sh build/fuzz "${RK_FUZZ_SECONDS:-60}"; then
        passed=$((passed + 1)); echo "== fuzzing: no crash, no leak"
      else
        failed=$((failed + 1)); echo "== fuzzing: FAILED"
      fi
    fi

    echo "== coverage of src/ (plain run): lines per file, then lines and branches in all"
    gcovr -r "$root" --filter "$root/src/" --object-directory build/cov \
      --exclude-unreachable-branches --exclude-throw-branches --print-summary || true

    echo "tests: $passed passed, $failed failed"
    [ "$failed" -eq 0 ]
    ;;
  *)
    echo "usage: $0 main|test" >&2
    exit 2
    ;;
esac
