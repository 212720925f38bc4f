#!/usr/bin/env bash
# The client alone: libkob, libkobec, kobdiag, the segment readers, the lab
# and their tests, configured with -DKOB_BUILD_SERVER=OFF on a machine where
# the operator's side's development packages cannot be seen.  They are
# hidden, not removed: the build runs in a mount namespace of its own, with
# /usr seen through an overlay whose whiteouts take away every file of
# those packages.  Then no shipped client program may link any of them.
#
#   scripts/client-only.sh [<build-dir>]      (default build/ci-client)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=${1:-build/ci-client}
jobs=$(nproc)

# What the operator's side builds with; the client needs none of it.
hidden_packages=(libpq-dev libsodium-dev libzstd-dev nlohmann-json3-dev libcpp-httplib-dev
  libsqlite3-dev libssl-dev libmicrohttpd-dev libgnutls28-dev libcurl4-gnutls-dev
  libcurl4-openssl-dev libhowardhinnant-date-dev liboath-dev libqrencode-dev
  libmaxminddb-dev)

fail() {
  echo "client-only: $*" >&2
  exit 1
}

overlay=$(mktemp -d)
trap 'rm -rf "$overlay"' EXIT
mkdir -p "$overlay/upper" "$overlay/work"
hidden=0
for p in "${hidden_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || continue
  while read -r f; do
    case "$f" in /usr/*) ;; *) continue ;; esac
    [ -f "$f" ] || [ -L "$f" ] || continue
    mkdir -p "$overlay/upper$(dirname "${f#/usr}")"
    # A character device 0/0 in the upper layer is overlayfs' whiteout.
    mknod "$overlay/upper${f#/usr}" c 0 0
    hidden=$((hidden + 1))
  done < <(dpkg -L "$p")
done
echo "==> $build: ${hidden} files of ${hidden_packages[*]} hidden"

inner=$(cat <<'EOS'
set -euo pipefail
mount -t overlay overlay -o "lowerdir=/usr,upperdir=$OVERLAY/upper,workdir=$OVERLAY/work" /usr
for h in /usr/include/sodium.h /usr/include/zstd.h /usr/include/httplib.h \
         /usr/include/nlohmann/json.hpp /usr/include/postgresql/libpq-fe.h /usr/include/sqlite3.h \
         /usr/include/liboath/oath.h /usr/include/qrencode.h \
         /usr/include/maxminddb.h; do
  if [ -e "$h" ]; then echo "client-only: $h is still visible" >&2; exit 1; fi
done
rm -rf "$BUILD"
cmake -S . -B "$BUILD" -G Ninja -DKOB_WERROR=ON -DKOB_BUILD_SERVER=OFF -DKOB_BUILD_BENCH=OFF \
  >"$BUILD.configure.log" 2>&1 || { cat "$BUILD.configure.log"; exit 1; }
cmake --build "$BUILD" -j "$JOBS"
EOS
)
unshare --mount --propagation private env OVERLAY="$overlay" BUILD="$build" JOBS="$jobs" \
  bash -c "$inner" || fail "the client does not build without the server's packages"

# The configure log names none of them, and no shipped client program links
# one.
if grep -n -i -E 'sodium|zstd|httplib|nlohmann|postgres|sqlite|openssl|microhttpd|gnutls|curl|oath|qrencode|maxminddb' \
  "$build.configure.log"; then
  fail "the client-only configure looked for a server dependency"
fi
for program in bin/kobdiag/kobdiag tools/koblog tools/kobstat lib/libkob/libkob.so lib/libkobec/libkobec.so; do
  [ -e "$build/$program" ] || fail "$build/$program was not built"
  if ldd "$build/$program" | grep -E 'sodium|zstd|libpq|sqlite|ssl|crypto|microhttpd|gnutls|curl|oath|qrencode|maxminddb'; then
    fail "$program links a server dependency"
  fi
done
for product in kobreportd kobreport libkobtriage.a; do
  if find "$build" -name "$product" -type f | grep -q .; then
    fail "$product was built in a client-only tree"
  fi
done

echo "==> $build: test (the slow runs are left to the full trees)"
ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 300 -LE slow
