#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo need,
# when any is missing.  Needs root (or sudo) only when something is missing.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang clang-format
  libgtest-dev libgmock-dev libbenchmark-dev
  pkg-config groff-base dpkg-dev
  net-tools traceroute iproute2 time
  # the Latin-1 locale that the string buffer's test builds with localedef
  locales
  # the operator's side: kobreportd, its databases and the browser test
  libcpp-httplib-dev libmicrohttpd-dev libgnutls28-dev libcurl4-gnutls-dev libsqlite3-dev libpq-dev postgresql chromium chromium-driver
  libsodium-dev libssl-dev libzstd-dev nlohmann-json3-dev openssl prometheus
  # time zones for the staff pages, read from the system's zone files
  libhowardhinnant-date-dev tzdata
  # the second factor: TOTP codes and the enrolment's QR code
  liboath-dev libqrencode-dev
  # the sender's network and country for the fleet, and the test databases
  libmaxminddb-dev libmaxmind-db-writer-perl
  # the example nginx site in front of kobreportd, run by its test on loopback
  nginx
  libclang-rt-14-dev valgrind strace clang-tidy cppcheck python3
  # the Debian packages: their build, lintian, and systemd-analyze for the unit
  debhelper lintian systemd man-db
  # the macOS cross-build: GoogleTest's sources to build for the target,
  # llvm-lipo and llvm-objdump for its products (Zig comes through npm, below)
  googletest llvm file
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

# npm, for the macOS cross-build's Zig.  A Node.js from elsewhere brings its
# own npm and conflicts with Debian's npm package, so both are asked for only
# when there is no npm at all.
if ! command -v npm >/dev/null; then
  missing+=(nodejs npm)
fi

if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  # No package's service is started by its installation (nginx's default
  # site and prometheus would listen on every address): the tests start the
  # servers they need themselves, on loopback.  A policy the machine has
  # already stays as it is.
  policy=/usr/sbin/policy-rc.d
  if [ ! -e "$policy" ]; then
    trap '"${sudo_cmd[@]}" rm -f "$policy"' EXIT
    printf '#!/bin/sh\nexit 101\n' | "${sudo_cmd[@]}" tee "$policy" >/dev/null
    "${sudo_cmd[@]}" chmod +x "$policy"
  fi
  "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
  "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${missing[@]}"
fi

# axe-core, for the browser test's accessibility checks, from the lockfile
# (npm ci checks its integrity hash) into build/axe.  An install from the
# same lockfile is kept.
root=$(cd "$(dirname "$0")/.." && pwd)
axe=$root/build/axe
if ! cmp -s "$root/tests/axe/package-lock.json" "$axe/package-lock.json" ||
  [ ! -f "$axe/node_modules/axe-core/axe.min.js" ]; then
  echo "==> axe-core from the npm registry (npm ci)"
  rm -rf "$axe"
  mkdir -p "$axe"
  cp "$root/tests/axe/package.json" "$root/tests/axe/package-lock.json" "$axe/"
  (cd "$axe" && npm ci --ignore-scripts --no-audit --no-fund --loglevel=error)
fi
