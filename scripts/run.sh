#!/usr/bin/env bash
# Sets up, builds (Linux release) and runs sws, the command-line search, with the arguments given (default:
# -help). Without a source it searches the program's own index file; the first run builds that from the
# whole file system ("/") and saves it beside the program, later runs only load it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh >/dev/null
cmake --preset linux-release >/dev/null
cmake --build --preset linux-release -j "$(nproc)" --target sws >/dev/null
[ $# -gt 0 ] || set -- -help
exec build/linux-release/sws "$@"
