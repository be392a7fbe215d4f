#!/usr/bin/env bash
# call-off-the-list.sh CHECK LIBRARY ALLOWLIST DIRECTORY: takes strncmp (which the serial link's
# acknowledge comparison calls) off a copy of the allowlist and expects the check to fail with
# exit status 1 and name it.
set -uo pipefail
check=$1 library=$2 allowlist=$3 directory=$4
trimmed=$directory/allowed-calls-without-strncmp.txt
grep -vx 'strncmp' "$allowlist" >"$trimmed"
output=$("$check" "$library" "$trimmed" 2>&1)
status=$?
if [ "$status" -ne 1 ]; then
    echo "expected exit status 1, got $status: $output" >&2
    exit 1
fi
if ! grep -qx 'not an allowed call of the plug-in: strncmp' <<<"$output"; then
    echo "strncmp not named: $output" >&2
    exit 1
fi
if [ "$(grep -c '^not an allowed call' <<<"$output")" -ne 1 ]; then
    echo "more than strncmp refused: $output" >&2
    exit 1
fi
echo "strncmp refused by name"
