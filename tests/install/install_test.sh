#!/usr/bin/env bash
# `cmake --install` of this build into a temporary prefix: the file list, the
# installed programs' bad-option paths, and small C and C++ programs built
# against the installed libraries through pkg-config and find_package(kob).
set -euo pipefail
. "$(dirname "$0")/common.sh"
need cmake ninja pkg-config readelf

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$KOB_BUILD_DIR" --prefix "$prefix" >"$work/install.log" ||
    { cat "$work/install.log"; fail "cmake --install"; }
check_tree "$prefix"
check_usage "$prefix/$KOB_BINDIR"
build_with_pkgconfig "$prefix" "$work/pc"
build_with_cmake "$prefix" "$work/cmake"
