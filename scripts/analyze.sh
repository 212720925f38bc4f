#!/usr/bin/env bash
# Static analysis of the project's own sources: clang-tidy (the checks of
# .clang-tidy) and cppcheck, both through the compile commands of a build
# tree, over the directories listed below.  Any finding fails it.
#
#   scripts/analyze.sh [<build-dir>]      (default build/ci-gcc)
#
# A directory or file of sources joins by being added to the list.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=${1:-build/ci-gcc}

# Everything of our own: the library, the tool, the programs beside it and
# the operator's side.
paths=(lib bin tools lab server)

if [ ! -f "$build/compile_commands.json" ]; then
  echo "analyze: $build/compile_commands.json is missing: configure that tree first" >&2
  exit 2
fi

mapfile -t files < <(git ls-files -- "${paths[@]}" | grep -E '\.(c|cpp)$')
# Headers are checked through the sources that include them, limited to
# the listed paths.
header_filter="^$root/($(IFS='|'; echo "${paths[*]}"))"

echo "==> clang-tidy over ${paths[*]} (${#files[@]} sources)"
# Two at a time, one file per run: the shared cores are busy with builds too.
printf '%s\n' "${files[@]}" |
  xargs -P 2 -n 1 clang-tidy -p "$build" --quiet --header-filter="$header_filter" 2>&1 |
  grep -vE '^[0-9]+ warnings? (and [0-9]+ errors? )?generated\.$|^Suppressed [0-9]+ warnings|^Use -header-filter' |
  tee "$build/clang-tidy.log" || true
if grep -qE '(warning|error):' "$build/clang-tidy.log"; then
  echo "analyze: clang-tidy reported findings" >&2
  exit 1
fi

echo "==> cppcheck over ${paths[*]}"
# The compile commands of the listed paths, each file once (the tool's
# units are compiled once per build profile).
python3 - "$build/compile_commands.json" "$build/cppcheck-commands.json" "${paths[@]}" <<'PY'
import json, os, sys
src, dst, paths = sys.argv[1], sys.argv[2], sys.argv[3:]
root = os.getcwd()
seen, out = set(), []
for e in json.load(open(src)):
    rel = os.path.relpath(e["file"], root)
    listed = any(rel == p or rel.startswith(p + "/") for p in paths)
    if listed and rel not in seen:
        seen.add(rel)
        out.append(e)
json.dump(out, open(dst, "w"), indent=1)
PY
# cppcheck predefines no platform macros; the sources pick their Linux
# variant by them.
cppcheck --project="$build/cppcheck-commands.json" --std=c++20 --library=posix \
  -D__linux__ -D__GLIBC__ -D__GNUC__ \
  --enable=warning,performance,portability --inline-suppr \
  --error-exitcode=1 -q -j 2 2>&1
# The operator's side stays easy to walk: no source file over 800 lines (its
# functions are held to 150 by server/.clang-tidy).
long=$(git ls-files -- server | grep -E '\.(c|cpp|h)$' | xargs wc -l | awk '$2 != "total" && $1 > 800')
if [ -n "$long" ]; then
  echo "analyze: files of server/ over 800 lines:" >&2
  echo "$long" >&2
  exit 1
fi
echo "==> static analysis: nothing found"
