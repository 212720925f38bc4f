#!/usr/bin/env bash
# Every manual page renders without a warning, and the pages the install
# names all exist.
set -euo pipefail
man_dir=$1
shift

command -v groff >/dev/null || { echo "groff is missing (scripts/deps.sh installs it)"; exit 1; }

status=0
pages=("$man_dir"/*.[1-9])
[ -f "${pages[0]}" ] || { echo "FAIL: no manual pages in $man_dir"; exit 1; }
for page in "$@"; do
    [ -f "$man_dir/$page" ] || { echo "FAIL: $page missing"; status=1; }
done
for page in "${pages[@]}"; do
    warnings=$(LC_ALL=C.UTF-8 groff -man -Tutf8 -ww -z "$page" 2>&1) || true
    if [ -n "$warnings" ]; then
        echo "FAIL: $(basename "$page"):"
        echo "$warnings"
        status=1
    else
        echo "ok: $(basename "$page")"
    fi
done

# kobdiag.1 shows the usage text as the program prints it, and documents
# every build-time setting an operator may set.
rendered=$(LC_ALL=C groff -man -Tascii -P-c -P-b -P-u "$man_dir/kobdiag.1" 2>/dev/null)
while IFS= read -r line; do
    grep -qF -- "$line" <<<"$rendered" || { echo "FAIL: kobdiag.1 lacks the usage line [$line]"; status=1; }
done <<'USAGE'
usage: kobdiag [options]
    -m "msg"                     # Adds some comments
    -o                           # Outputs to the file
    -u username                  # Sets the KOBVANE username
illegal option -- letter
option requires an argument -- letter
USAGE
for setting in KOBDIAG_APP_DIR KOBDIAG_PASSTHROUGH_ADDR KOBDIAG_AUTH_ADDR KOBDIAG_KTIDC_ADDR \
    KOBDIAG_JP_ADDR KOBDIAG_USWEST_ADDR KOBDIAG_SG_ADDR KOBDIAG_HCLC_ADDR KOBDIAG_INTRANET_ADDRS \
    KOBDIAG_REPORT_HOST KOBDIAG_REPORT_PORT KOBDIAG_CMD_IFCONFIG KOBDIAG_CMD_NETSTAT_AN \
    KOBDIAG_CMD_NETSTAT_RN KOBDIAG_CMD_TRACEROUTE; do
    grep -qw -- "$setting" <<<"$rendered" || { echo "FAIL: kobdiag.1 lacks $setting"; status=1; }
done
exit $status
