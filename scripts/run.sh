#!/usr/bin/env bash
# Sets up, builds (Linux release) and runs the program with the arguments given (default: -help).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh >/dev/null
cmake --preset linux-release >/dev/null
cmake --build --preset linux-release -j "$(nproc)" --target sablewatch >/dev/null
[ $# -gt 0 ] || set -- -help
exec build/linux-release/sablewatch "$@"
