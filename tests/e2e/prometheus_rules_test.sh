#!/bin/sh
# The Prometheus rules kobreportd ships: valid, and each rule fired by a
# case of its unit-test file.  $1: the directory holding them.
set -eu
if ! command -v promtool >/dev/null 2>&1; then
    echo "skipped: promtool is not installed (Debian package prometheus)"
    exit 77
fi
cd "$1"
promtool check rules kobreportd-alerts.yml
promtool test rules kobreportd-alerts.test.yml
rules=$(sed -n 's/^ *- alert: *//p' kobreportd-alerts.yml)
[ -n "$rules" ] || { echo "no rule in kobreportd-alerts.yml"; exit 1; }
for rule in $rules; do
    # A case that expects the rule to fire, not only one that it stays quiet.
    if ! awk -v rule="$rule" '
        $0 ~ "alertname: *" rule "$" { seen = 1; next }
        seen && /alertname:/ { seen = 0 }
        seen && /exp_alerts:/ { found = 1 }
        END { exit !found }' kobreportd-alerts.test.yml; then
        echo "no case of kobreportd-alerts.test.yml fires $rule"
        exit 1
    fi
done
echo "ok: $(echo "$rules" | wc -l) rules checked and tested"
