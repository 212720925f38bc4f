#!/usr/bin/env bash
# Builds everything and runs every test: a GCC build with warnings as errors,
# a Clang build under AddressSanitizer and UndefinedBehaviorSanitizer, and a
# ThreadSanitizer build; then the formatting check.  Any failure fails it.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/deps.sh

jobs=$(nproc)

build_and_test() {
  local dir=$1
  shift
  echo "==> $dir: configure and build"
  cmake -S . -B "$dir" -G Ninja -DKOB_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "==> $dir: test"
  ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 300
}

build_and_test build/ci-gcc -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++
build_and_test build/ci-asan -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=Debug -DKOB_SANITIZE=address,undefined -DKOB_BUILD_BENCH=OFF
build_and_test build/ci-tsan -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=Debug -DKOB_SANITIZE=thread -DKOB_BUILD_BENCH=OFF

echo "==> formatting"
git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror

echo "==> all tests passed"
