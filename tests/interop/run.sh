#!/usr/bin/env bash
# Runs one file of tests with another program. Exits with 77, which CTest shows as skipped, when that
# program is not installed; a failure is never hidden by that.
# Usage: run.sh FILE
set -euo pipefail
status=0
output=$(bats "$1" 2>&1) || status=$?
printf '%s\n' "$output"
((status == 0)) || exit "$status"
! grep -q '# skip .* is not installed' <<<"$output" || exit 77
