#!/usr/bin/env bash
# The Debian packages as Debian makes them.  dpkg-buildpackage builds them
# from a clean copy of the source tree; lintian must find no error and no
# warning; each package holds exactly its share.  Then they are installed on
# this machine with dpkg -i (the test machine is a scratch machine, and a
# lock keeps other package work out meanwhile): the installed programs and
# library are used, the service's unit is verified and its exposure printed,
# and dpkg -r, then dpkg --purge, must leave only what Debian keeps.  The
# service is not started: no systemd runs here.  Prints how long it took.
#
# Usage: tests/install/package_test.sh   (as root, or with sudo)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/common.sh"
started=$SECONDS

if ! command -v dpkg-buildpackage >/dev/null; then
    echo "skipped: dpkg-buildpackage is missing (this is not a Debian system)"
    exit 0
fi
need dh lintian dpkg dpkg-deb dpkg-architecture systemd-analyze pkg-config readelf cmake ninja cc c++

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)

export KOB_SOURCE_DIR
KOB_SOURCE_DIR=$(cd "$here/../.." && pwd)
version=$(sed -nE 's/^project\(kob VERSION ([0-9.]+) .*/\1/p' "$KOB_SOURCE_DIR/CMakeLists.txt")
[ -n "$version" ] || fail "no project version in CMakeLists.txt"
changelog_version=$(dpkg-parsechangelog -l "$KOB_SOURCE_DIR/debian/changelog" -S Version)
[ "$changelog_version" = "$version" ] ||
    fail "debian/changelog is at $changelog_version, the project at $version"
arch=$(dpkg --print-architecture)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
export KOB_VERSION=$version KOB_SOVERSION=${version%%.*} KOB_LIBDIR=lib/$multiarch CC=cc CXX=c++

packages=(kobdiag kob-tools libkob4 libkob-dev kobreportd)
marker=/var/lib/kob-package-test
work=$(mktemp -d)
cleanup() {
    # Packages this test installed go again, and the state it made, also
    # when a check failed.
    if [ -e "$marker" ]; then
        "${as_root[@]}" dpkg --purge "${packages[@]}" >/dev/null 2>&1 || true
        "${as_root[@]}" rm -rf /var/lib/kobreportd "$marker"
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# --- build ----------------------------------------------------------------
# A copy of the tracked and new files, so that nothing of a build tree in
# the checkout gets in and the results land outside it.
src=$work/kobdiag-$version
mkdir -p "$src"
(
    cd "$KOB_SOURCE_DIR"
    git ls-files -z --cached --others --exclude-standard |
        while IFS= read -r -d '' f; do [ -e "$f" ] && printf '%s\0' "$f"; done |
        xargs -0 cp -P --parents -t "$src"
)
[ -x "$src/debian/rules" ] || fail "debian/rules is missing or not executable in the copy"

build_started=$SECONDS
(cd "$src" && dpkg-buildpackage -us -uc -b -j"$(nproc)") >"$work/build.log" 2>&1 ||
    { tail -n 60 "$work/build.log"; fail "dpkg-buildpackage -us -uc -b"; }
build_seconds=$((SECONDS - build_started))
echo "ok: dpkg-buildpackage -us -uc -b took $build_seconds s"

# Only what the packages ship was built: no lab, no tests, no benchmarks.
obj=$src/obj-$multiarch
grep -qx 'KOB_BUILD_TESTS:BOOL=OFF' "$obj/CMakeCache.txt" || fail "the package build configured the tests"
grep -qx 'KOB_BUILD_BENCH:BOOL=OFF' "$obj/CMakeCache.txt" || fail "the package build configured the benchmarks"
built=$(cd "$obj" && find . -path '*/CMakeFiles' -prune -o -type f -perm -u+x -printf '%f\n' | sort)
want=$(printf '%s\n' kobdiag koblog kobstat kobreport kobreportd \
    "libkob.so.$version" "libkobec.so.$version" | sort)
[ "$built" = "$want" ] || fail "the package build made [$built], want [$want]"
KOB_APP_DIR=$(sed -n 's/^KOBDIAG_APP_DIR:STRING=//p' "$obj/CMakeCache.txt")
export KOB_APP_DIR

debs=$(cd "$work" && ls -- *.deb | sed 's/_.*//' | sort | tr '\n' ' ')
want="kob-tools kob-tools-dbgsym kobdiag kobdiag-dbgsym kobreportd kobreportd-dbgsym libkob-dev libkob4 libkob4-dbgsym "
[ "$debs" = "$want" ] || fail "built packages [$debs], want [$want]"
deb() { echo "$work/${1}_${version}_$arch.deb"; }
changes=$work/kobdiag_${version}_$arch.changes
[ -f "$changes" ] || fail "no $changes"

# --- lintian --------------------------------------------------------------
# On the .changes it checks the changes file and every package it lists.
status=0
lintian --fail-on error,warning --display-info --pedantic "$changes" >"$work/lintian.log" 2>&1 ||
    status=$?
tags=$(grep -E '^[EWIPX]: ' "$work/lintian.log" || true)
summary=$(for s in E W I P; do echo -n "$s=$(grep -c "^$s: " <<<"$tags" || true) "; done)
echo "lintian: $summary"
[ -z "$tags" ] || sed 's/^/    /' <<<"$tags"
if grep -qE '^[EW]: ' <<<"$tags" || [ "$status" -ne 0 ]; then
    cat "$work/lintian.log"
    fail "lintian found errors or warnings (exit status $status)"
fi
echo "ok: lintian finds no error and no warning in the packages and the .changes"

# --- what each package holds ----------------------------------------------
contents() {
    dpkg-deb --fsys-tarfile "$(deb "$1")" | tar -t | sed -n 's|^\./||; /[^/]$/p' |
        grep -Ev "^usr/share/doc/$1/(changelog\.gz|copyright)$" | sort || true
}
expect_contents() {
    local pkg=$1 got want
    shift
    got=$(contents "$pkg")
    want=$(printf '%s\n' "$@" | sort)
    [ "$got" = "$want" ] || fail "$pkg holds
$got
want
$want"
    got=$(dpkg-deb --fsys-tarfile "$(deb "$pkg")" | tar -t)
    for f in changelog.gz copyright; do
        grep -qx "\./usr/share/doc/$pkg/$f" <<<"$got" || fail "$pkg lacks usr/share/doc/$pkg/$f"
    done
}
lib=usr/lib/$multiarch
headers=$(cd "$KOB_SOURCE_DIR/include" && ls -- *.h | sed 's|^|usr/include/kob/|')
expect_contents kobdiag usr/bin/kobdiag usr/share/man/man1/kobdiag.1.gz
expect_contents kob-tools usr/bin/koblog usr/bin/kobstat usr/bin/kobreport \
    usr/share/man/man1/koblog.1.gz usr/share/man/man1/kobstat.1.gz usr/share/man/man1/kobreport.1.gz
expect_contents libkob4 "$lib/libkob.so.$KOB_SOVERSION" "$lib/libkob.so.$version" \
    "$lib/libkobec.so.$KOB_SOVERSION" "$lib/libkobec.so.$version"
# shellcheck disable=SC2086
expect_contents libkob-dev $headers "$lib/libkob.a" "$lib/libkobec.a" "$lib/libkob.so" \
    "$lib/libkobec.so" "$lib/pkgconfig/libkob.pc" "$lib/pkgconfig/libkobec.pc" \
    "$lib/cmake/kob/kobConfig.cmake" "$lib/cmake/kob/kobConfigVersion.cmake" \
    "$lib/cmake/kob/kobTargets.cmake" "$lib/cmake/kob/kobTargets-none.cmake" \
    usr/share/man/man3/libkob.3.gz
expect_contents kobreportd usr/sbin/kobreportd usr/share/man/man8/kobreportd.8.gz \
    usr/share/kobreportd/common-passwords.txt \
    lib/systemd/system/kobreportd.service usr/lib/sysusers.d/kobreportd.conf etc/default/kobreportd \
    usr/share/doc/kobreportd/examples/nginx-kobreportd.conf \
    usr/share/doc/kobreportd/examples/nginx-kobreportd-sso.conf \
    usr/share/doc/kobreportd/examples/kobreportd-alerts.yml \
    usr/share/doc/kobreportd/examples/kobreportd-alerts.test.yml \
    usr/share/doc/kobreportd/examples/kobreportd-dashboard.json
field() { dpkg-deb -f "$(deb "$1")" "${@:2}"; }
for pkg in "${packages[@]}"; do
    [ "$(field "$pkg" Version)" = "$version" ] || fail "$pkg has Version $(field "$pkg" Version)"
done
echo "ok: each package holds exactly its files"

# The user's tool links libkob statically and needs nothing of the server.
relations=$(field kobdiag Pre-Depends Depends Recommends)
for p in kobreportd libkob4 libpq5 libsqlite3-0 libcpp-httplib libsodium libssl liboath libqrencode; do
    ! grep -q "$p" <<<"$relations" || fail "kobdiag pulls in $p: $relations"
done
[ "$(field libkob-dev Depends)" = "libkob4 (= $version)" ] ||
    fail "libkob-dev Depends: $(field libkob-dev Depends)"
grep -q 'systemd-sysusers' <<<"$(field kobreportd Depends)" ||
    fail "kobreportd does not depend on systemd-sysusers: $(field kobreportd Depends)"
shlibs=$(dpkg-deb -I "$(deb libkob4)" shlibs)
[ "$shlibs" = "libkob $KOB_SOVERSION libkob4 (>= $version)
libkobec $KOB_SOVERSION libkob4 (>= $version)" ] || fail "libkob4's shlibs: [$shlibs]"
echo "ok: dependencies (kobdiag: $(field kobdiag Depends))"

# --- the service's unit ---------------------------------------------------
unit=$src/debian/kobreportd.service
security=$(systemd-analyze --offline=true security "$unit" 2>&1) ||
    { echo "$security"; fail "systemd-analyze security"; }
exposure=$(sed -nE 's/.*Overall exposure level for kobreportd\.service: ([0-9.]+) .*/\1/p' <<<"$security")
[ -n "$exposure" ] || { echo "$security"; fail "systemd-analyze security printed no exposure"; }
echo "systemd-analyze security kobreportd.service: exposure $exposure (at most 3.0)"
awk -v e="$exposure" 'BEGIN { exit !(e <= 3.0) }' || { echo "$security"; fail "exposure $exposure is above 3.0"; }
# Every variable the command line uses is one that /etc/default/kobreportd sets.
for v in $(grep '^ExecStart=' "$unit" | grep -oE '\$\{?[A-Z_]+' | tr -d '${' | sort -u); do
    grep -q "^$v=" "$src/debian/kobreportd.default" || fail "ExecStart uses $v, which /etc/default/kobreportd does not set"
done

# --- install, use, remove, purge ------------------------------------------
exec 9>/tmp/kob-apt.lock
flock 9
if [ -e "$marker" ]; then
    echo "purging the packages an interrupted run of this test left installed"
    "${as_root[@]}" dpkg --purge "${packages[@]}" >/dev/null
    "${as_root[@]}" rm -rf /var/lib/kobreportd "$marker"
fi
for pkg in "${packages[@]}"; do
    [ -z "$(dpkg-query -W -f='${db:Status-Status}' "$pkg" 2>/dev/null | grep -v '^not-installed$')" ] ||
        fail "$pkg is installed already; the test installs and removes it itself"
done
[ ! -e /var/lib/kobreportd ] || fail "/var/lib/kobreportd exists already"

# Files that maintainer scripts and the service make lie in /etc and
# /var/lib; the packages' own files are checked by their lists.
snapshot() {
    find /etc /var/lib \( -path /var/lib/dpkg -o -path /var/lib/apt -o -path "$marker" \) -prune \
        -o -print 2>/dev/null | sort
}
snapshot >"$work/before"
# The packages' own paths, and which of them (/usr, /etc/default...) were
# there before.
existing() { while IFS= read -r f; do [ ! -e "$f" ] && [ ! -L "$f" ] || echo "$f"; done; }
for pkg in "${packages[@]}"; do dpkg-deb --fsys-tarfile "$(deb "$pkg")" | tar -t; done |
    sed 's|^\./|/|; s|/$||; /^$/d' | sort -u >"$work/owned"
existing <"$work/owned" >"$work/owned-before"
"${as_root[@]}" touch "$marker"

"${as_root[@]}" dpkg -i "$(deb kobdiag)" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg -i kobdiag"; }
for p in kobreportd libkob4; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)" != installed ] ||
        fail "$p is installed beside kobdiag alone"
done
echo "ok: kobdiag installs on its own, without kobreportd or libkob4"
"${as_root[@]}" dpkg -i "$(deb kob-tools)" "$(deb libkob4)" "$(deb libkob-dev)" "$(deb kobreportd)" \
    >>"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg -i"; }
for pkg in "${packages[@]}"; do
    [ "$(dpkg-query -W -f='${db:Status-Abbrev}' "$pkg")" = "ii " ] || fail "$pkg is not installed"
done

check_usage /usr/bin

# The installed pkg-config files and library, as a user of libkob-dev
# finds them: no search path given, the dynamic linker's own.
# shellcheck disable=SC2046
cc -Wall -Wextra -Werror $(pkg-config --cflags libkob libkobec) \
    "$KOB_SOURCE_DIR/tests/install/consumer/consumer.c" -o "$work/c" \
    $(pkg-config --libs libkob libkobec) || fail "C through pkg-config --cflags --libs libkob libkobec"
needs_library "$work/c" yes
env -u LD_LIBRARY_PATH "$work/c" >/dev/null || fail "the C program does not run"
check_consumer "$work/c" C
echo "ok: a C program built with pkg-config --cflags --libs libkob libkobec runs"
build_with_cmake /usr "$work/cmake"

verify=$(systemd-analyze verify /lib/systemd/system/kobreportd.service 2>&1) ||
    { echo "$verify"; fail "systemd-analyze verify kobreportd.service"; }
[ -z "$verify" ] || { echo "$verify"; fail "systemd-analyze verify kobreportd.service printed warnings"; }
echo "ok: systemd-analyze verify kobreportd.service"
account=$(getent passwd kobreportd) || fail "no user kobreportd after the install"
[ "$(cut -d: -f6 <<<"$account")" = /var/lib/kobreportd ] || fail "kobreportd's account: $account"
[ -L /etc/systemd/system/multi-user.target.wants/kobreportd.service ] ||
    fail "kobreportd.service is not enabled"
grep -qx ' /etc/default/kobreportd [0-9a-f]*' <<<"$(dpkg-query -W -f='${Conffiles}\n' kobreportd)" ||
    fail "/etc/default/kobreportd is not a conffile"
echo "ok: the user kobreportd exists, the service is enabled, /etc/default/kobreportd is a conffile"

# The unit's command line with the installed settings, run as the
# service's user but on loopback ports of the system's choice instead of
# port 80: kobreportd takes it, makes its database in the state directory
# and ends with status 0 on SIGTERM.  systemd makes that directory at the
# first start (StateDirectory=); no systemd runs here, so the test makes it.
"${as_root[@]}" install -d -o kobreportd -g kobreportd -m 0700 /var/lib/kobreportd
exec_start=$(sed -n 's/^ExecStart=//p' /lib/systemd/system/kobreportd.service)
mkfifo "$work/ready"
(
    set -a
    . /etc/default/kobreportd
    set +a
    # shellcheck disable=SC2034 # the eval below reads them
    KOBREPORTD_LISTEN=127.0.0.1:0 KOBREPORTD_STAFF_LISTEN=127.0.0.1:0
    eval "set -- $exec_start"
    exec "${as_root[@]}" setpriv --reuid=kobreportd --regid=kobreportd --clear-groups "$@"
) >"$work/ready" 2>"$work/kobreportd.err" &
reportd=$!
ready=""
read -r -t 60 ready <"$work/ready" || true
grep -Eqx 'kobreportd: intake on http://127\.0\.0\.1:[0-9]+/; staff on http://127\.0\.0\.1:[0-9]+/' <<<"$ready" ||
    { kill "$reportd" 2>/dev/null || true; cat "$work/kobreportd.err"; fail "kobreportd from the unit's command line printed [$ready]"; }
kill -TERM "$reportd"
status=0
wait "$reportd" || status=$?
[ "$status" -eq 0 ] || { cat "$work/kobreportd.err"; fail "kobreportd ended with status $status on SIGTERM"; }
[ "$(stat -c %U "$(sed -n 's/^KOBREPORTD_DB=//p' /etc/default/kobreportd)")" = kobreportd ] ||
    fail "kobreportd made no database of its own at the configured place"
echo "ok: the unit's command line starts kobreportd as its user; it stops with status 0 on SIGTERM"

"${as_root[@]}" dpkg -r kob-tools libkob-dev kobdiag kobreportd libkob4 >>"$work/dpkg.log" 2>&1 ||
    { cat "$work/dpkg.log"; fail "dpkg -r"; }
left=$(existing <"$work/owned" | grep -vxF -f "$work/owned-before" | grep -vx /etc/default/kobreportd || true)
[ -z "$left" ] || fail "dpkg -r left the packages' files: $left"

# What Debian keeps after a removal: the conffile, the service's enablement
# and its state until purge, and always the account (with the backups of
# the files that list it).
kept_always='^/etc/(passwd|group|shadow|gshadow)-$'
kept_after_remove='^(/etc/default/kobreportd|/etc/systemd/system/multi-user\.target\.wants(/kobreportd\.service)?|/var/lib/systemd/deb-systemd-helper-enabled(/multi-user\.target\.wants)?(/kobreportd\.service(\.dsh-also)?)?|/var/lib/kobreportd(/.*)?)$'
new_files() { snapshot | comm -13 "$work/before" -; }
left=$(new_files | grep -Ev -e "$kept_always" -e "$kept_after_remove" || true)
[ -z "$left" ] || fail "dpkg -r left behind: $left"
[ -f /etc/default/kobreportd ] && [ -f /var/lib/kobreportd/reports.db ] ||
    fail "dpkg -r took the settings or the reports"
echo "ok: dpkg -r leaves the settings, the enablement and the reports, nothing else"

"${as_root[@]}" dpkg --purge "${packages[@]}" >>"$work/dpkg.log" 2>&1 ||
    { cat "$work/dpkg.log"; fail "dpkg --purge"; }
left=$(new_files | grep -Ev -e "$kept_always" || true)
[ -z "$left" ] || fail "dpkg --purge left behind: $left"
getent passwd kobreportd >/dev/null || fail "the purge removed the user kobreportd"
echo "ok: dpkg --purge leaves only the account"

echo "ok: the Debian packages (build $build_seconds s, whole test $((SECONDS - started)) s)"
