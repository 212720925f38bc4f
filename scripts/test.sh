#!/usr/bin/env bash
# Builds everything and runs every test: a GCC build with warnings as errors,
# then over that build the static analysis, valgrind memcheck of whole runs
# and the network guard; the client alone with the server's packages hidden;
# the Debian packages, built, checked by lintian,
# installed and removed again; the macOS build, cross-compiled and linked for
# x86_64 and arm64 and its Mach-O checked; a Clang build under
# AddressSanitizer and UndefinedBehaviorSanitizer, and a ThreadSanitizer
# build; the fuzz targets, each run briefly; then the formatting check.  Any
# failure fails it.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

# Each step says how long it took, so that the whole run's time can be
# kept in hand.
step_start=
step() {
  if [ -n "$step_start" ]; then
    echo "    (took $((SECONDS - step_start)) s; $((SECONDS / 60)) min in all)"
  fi
  step_start=$SECONDS
  echo "==> $*"
}

step "the packages this needs"
scripts/deps.sh

jobs=$(nproc)

# build_and_test DIR [CTEST_ARGS --] CMAKE_ARGS...
build_and_test() {
  local dir=$1 ctest_args=()
  shift
  if [[ " $* " == *" -- "* ]]; then
    while [ "$1" != "--" ]; do
      ctest_args+=("$1")
      shift
    done
    shift
  fi
  step "$dir: configure and build"
  cmake -S . -B "$dir" -G Ninja -DKOB_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  step "$dir: test"
  ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 300 "${ctest_args[@]}"
}

build_and_test build/ci-gcc -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++
step "build/ci-gcc: static analysis"
scripts/analyze.sh build/ci-gcc
step "build/ci-gcc: valgrind memcheck"
scripts/memcheck.sh build/ci-gcc
step "build/ci-gcc: network guard"
scripts/netguard.sh build/ci-gcc
step "build/ci-client: the client alone, the server's packages hidden"
scripts/client-only.sh build/ci-client
step "Debian packages"
tests/install/package_test.sh
step "macOS cross-build"
scripts/macos-cross.sh build/ci-macos
# The store tests, each run once per database (a name ending "/postgres"
# and ctest's " # GetParam() = ..."), run on both in the GCC tree and on
# SQLite alone under the sanitizers, which keeps the whole run within its
# time: their PostgreSQL half was a sixth of each sanitizer tree's time.
# PostgreSQL's own tests (ReportdPostgres: two instances on one database,
# reports sent together) still run under both sanitizers.
sqlite_only=(-E '/postgres( |$)' --)
build_and_test build/ci-asan "${sqlite_only[@]}" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=Debug -DKOB_SANITIZE=address,undefined -DKOB_BUILD_BENCH=OFF
build_and_test build/ci-tsan "${sqlite_only[@]}" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=Debug -DKOB_SANITIZE=thread -DKOB_BUILD_BENCH=OFF

step "build/ci-fuzz: configure and build the fuzz targets"
cmake -S . -B build/ci-fuzz -G Ninja -DKOB_WERROR=ON -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOB_FUZZ=ON -DKOB_BUILD_TESTS=OFF \
  -DKOB_BUILD_BENCH=OFF -DKOB_BUILD_SHARED=OFF >/dev/null
cmake --build build/ci-fuzz -j "$jobs" --target fuzz
step "build/ci-fuzz: smoke run, 20 s per target"
scripts/fuzz.sh build/ci-fuzz 20

step "formatting"
git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror

step "all tests passed"
