#!/usr/bin/env bash
# The Debian package: cpack builds it from this build, dpkg -x unpacks it
# into a scratch root (nothing is installed on the machine), and the test
# checks its control fields, its file list, the installed kobdiag's usage
# path and a C program built against the unpacked library.
set -euo pipefail
. "$(dirname "$0")/common.sh"
need cpack dpkg-deb pkg-config readelf

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

(cd "$KOB_BUILD_DIR" && cpack -G DEB --config CPackConfig.cmake -B "$work/out") \
    >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; fail "cpack -G DEB"; }
debs=("$work"/out/*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || fail "cpack made no single .deb: ${debs[*]}"
deb=${debs[0]}

field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = kobdiag ] || fail "Package: $(field Package)"
[ "$(field Version)" = "$KOB_VERSION" ] || fail "Version: $(field Version)"
[ "$(field Architecture)" = "$(dpkg --print-architecture)" ] || fail "Architecture: $(field Architecture)"
depends=$(field Depends)
names=$(echo "$depends" | tr ',' '\n' | sed -E 's/^ *//; s/[ (].*//')
for dep in libc6 libstdc++6 libgcc-s1; do
    grep -qxF "$dep" <<<"$names" || fail "Depends lacks $dep: $depends"
done
echo "ok: control fields (Depends: $depends)"

root=$work/root
dpkg -x "$deb" "$root"
[ "$(ls "$root")" = usr ] || fail "the package installs outside /usr: $(ls "$root")"
check_tree "$root/usr"
check_usage "$root/usr/$KOB_BINDIR"
# The pkg-config files find their prefix from where they lie, so the
# unpacked tree serves as well as /usr would.
build_with_pkgconfig "$root/usr" "$work/pc"
