#!/usr/bin/env bash
# Runs one GoogleTest executable for CTest (the arguments are the command, with Wine in front for the
# Windows build) and fails unless it both exits 0 and reports at least one test passed. An executable
# whose cases were all filtered out, skipped or never linked in exits 0 and says "PASSED 0 tests",
# which would otherwise count as a pass. The output is passed through as it comes.
set -uo pipefail
log=$(mktemp)
trap 'rm -f "$log"' EXIT
"$@" 2>&1 | tee "$log"
rc=${PIPESTATUS[0]}
[ "$rc" -eq 0 ] || exit "$rc"
if ! grep -Eq '^\[  PASSED  \] [1-9][0-9]* tests?\.' "$log"; then
  echo "gtest-run: $* ran no test" >&2
  exit 1
fi
