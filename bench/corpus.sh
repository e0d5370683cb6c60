#!/bin/bash
# Builds the index benchmark's corpus: every file path shipped in Debian 12 (bookworm) main, amd64 and
# all, from the Contents indexes that apt-file downloads, as a file list (bench/data/debian12.swl) and as
# a plain path list for the peer (bench/data/debian12.paths). Then times the peer, plocate-build, over
# the same paths and keeps its figures in bench/data/peer.txt for the benchmark to show beside its own.
#
# Usage: bench/corpus.sh [--refresh] [--no-peer]
#   --refresh   run `apt-file update` even when the Contents indexes are already here, and rewrite the lists
#   --no-peer   skip the plocate-build measurement
#
# Idempotent: the lists are rewritten only when they are missing or older than the Contents indexes, and
# every step says what it did. Needs root (or sudo) only to install missing packages and for apt-file
# update.
set -eu

LC_ALL=C
export LC_ALL

here=$(cd "$(dirname "$0")" && pwd)
data="$here/data"
swl="$data/debian12.swl"
paths="$data/debian12.paths"
peer="$data/peer.txt"
refresh=0
run_peer=1
for arg in "$@"; do
    case "$arg" in
    --refresh) refresh=1 ;;
    --no-peer) run_peer=0 ;;
    *)
        echo "usage: $0 [--refresh] [--no-peer]" >&2
        exit 2
        ;;
    esac
done

say() { printf 'corpus: %s\n' "$*"; }

as_root() {
    if [ "$(id -u)" = 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# ---- tools -------------------------------------------------------------------------------------------
missing=""
command -v apt-file >/dev/null 2>&1 || missing="$missing apt-file"
command -v lz4cat >/dev/null 2>&1 || missing="$missing lz4"
[ -x /usr/bin/time ] || missing="$missing time"
if [ "$run_peer" = 1 ]; then
    command -v plocate-build >/dev/null 2>&1 || [ -x /usr/sbin/plocate-build ] || missing="$missing plocate"
fi
if [ -n "$missing" ]; then
    say "installing$missing"
    # shellcheck disable=SC2086 # one word per package
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing
else
    say "tools present: apt-file, lz4cat, /usr/bin/time, plocate-build"
fi
plocate_build=$(command -v plocate-build 2>/dev/null || echo /usr/sbin/plocate-build)

# ---- the Contents indexes ----------------------------------------------------------------------------
# apt knows where apt-file's downloads live; ask it rather than guessing the file names. Only the release
# suite (codename bookworm) counts: the updates suite repeats paths the release already ships.
contents_files() {
    # shellcheck disable=SC2016 # apt expands these itself
    apt-get indextargets --format '$(FILENAME) $(ARCHITECTURE)' \
        'Created-By: Contents-deb' 'Codename: bookworm' 'Component: main' |
        awk '$2 == "amd64" || $2 == "all" { print $1 }'
}

have_contents() {
    n=0
    for f in $(contents_files); do
        [ -f "$f" ] && n=$((n + 1))
    done
    [ "$n" -ge 2 ]
}

if [ "$refresh" = 1 ] || ! have_contents; then
    say "running apt-file update (downloads the Contents indexes, about 80 MB)"
    as_root apt-file update
else
    say "Contents indexes already downloaded (use --refresh to update them)"
fi
if ! have_contents; then
    say "no Contents index for bookworm main amd64 and all; is bookworm main in the apt sources?" >&2
    exit 1
fi
sources=$(contents_files)
for f in $sources; do
    say "source $(basename "$f") ($(wc -c <"$f") bytes)"
done

decompress() {
    for f in "$@"; do
        case "$f" in
        *.lz4) lz4cat "$f" ;;
        *.gz) zcat "$f" ;;
        *.xz) xzcat "$f" ;;
        *.zst) zstdcat "$f" ;;
        *.bz2) bzcat "$f" ;;
        *) cat "$f" ;;
        esac
    done
}

# ---- the lists ---------------------------------------------------------------------------------------
mkdir -p "$data"
stale=$refresh
for out in "$paths" "$swl"; do
    [ -f "$out" ] || stale=1
    for f in $sources; do
        [ -f "$out" ] && [ "$f" -nt "$out" ] && stale=1
    done
done

if [ "$stale" = 1 ]; then
    say "writing $paths"
    # A Contents line is a path, blanks, and one last field naming the packages; paths may hold blanks
    # themselves, so only the last field is cut. The same path may ship in an amd64 and an all package:
    # it is one path on disk, kept once.
    # shellcheck disable=SC2086 # one word per index file; apt's list file names hold no blanks
    decompress $sources |
        sed 's/[[:space:]]\{1,\}[^[:space:]]\{1,\}$//; s|^|/|' |
        sort -u -S 1G >"$paths.tmp"
    mv "$paths.tmp" "$paths"

    say "writing $swl"
    # The list format: a header, then per row the path in double quotes (a quote doubled), and size,
    # dates and attributes left empty: unknown size and dates, attributes 0, a plain file. Folders are
    # not written; the paths imply them.
    awk 'BEGIN { printf "Filename,Size,Date Modified,Date Created,Attributes\r\n" }
         { gsub(/"/, "\"\""); printf "\"%s\",,,,\r\n", $0 }' "$paths" >"$swl.tmp"
    mv "$swl.tmp" "$swl"
else
    say "lists up to date: $swl, $paths"
fi

rows=$(($(wc -l <"$swl") - 1))
lines=$(wc -l <"$paths")
say "$rows rows in $(basename "$swl"), $lines paths in $(basename "$paths"), $(wc -c <"$swl") bytes of list"
if [ "$rows" != "$lines" ]; then
    say "row count and path count differ" >&2
    exit 1
fi
if [ "$rows" -lt 7000000 ] || [ "$rows" -gt 7700000 ]; then
    say "warning: expected about 7.3 million rows, got $rows" >&2
fi
# Every proper prefix of a path is a folder the index makes although no row names it.
folders=$(awk -F/ '{ p = ""; for (i = 2; i < NF; i++) { p = p "/" $i; if (!(p in seen)) { seen[p]; n++ } } }
                   END { print n + 0 }' "$paths")
say "$folders folders implied by the paths; the index holds $rows files and $folders folders beside its root"

# ---- the peer ----------------------------------------------------------------------------------------
if [ "$run_peer" = 1 ]; then
    db="$data/debian12.plocate.db"
    timing="$data/plocate.time"
    say "timing: /usr/bin/time -v $plocate_build -p $paths $db"
    /usr/bin/time -v -o "$timing" "$plocate_build" -p "$paths" "$db"
    wall=$(awk -F': ' '/Elapsed \(wall clock\) time/ { print $2 }' "$timing")
    rss=$(awk -F': ' '/Maximum resident set size/ { print $2 }' "$timing")
    size=$(wc -c <"$db")
    # Wall time as h:mm:ss or m:ss.ss, turned into seconds for the benchmark's table.
    secs=$(echo "$wall" | awk -F: '{ s = 0; for (i = 1; i <= NF; i++) s = s * 60 + $i; printf "%.2f", s }')
    {
        echo "command=$plocate_build -p $paths $db"
        echo "paths=$lines"
        echo "wall_seconds=$secs"
        echo "peak_rss_kib=$rss"
        echo "file_bytes=$size"
    } >"$peer"
    say "plocate-build: $secs s wall, peak RSS $rss KiB, database $size bytes; figures in $peer"
fi
say "done"
