#!/usr/bin/env bash
# Runs scripts/deps.sh in its dry-run form against scratch apt folders of each layout a Debian machine
# may have, twice each, and checks the source entries it leaves and whether it refreshes apt's lists.
set -uo pipefail
deps="$(cd "$(dirname "$0")" && pwd)/deps.sh"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failures=0

fail() {
  echo "FAIL [$case_name]: $*"
  failures=$((failures + 1))
}

# The layouts' pieces.
classic='deb http://deb.debian.org/debian bookworm main
deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian-security bookworm-security main
# deb http://deb.debian.org/debian bookworm-backports main
deb https://packages.example.com/apt stable main'
stanzas='Types: deb
URIs: http://deb.debian.org/debian
Suites: bookworm bookworm-updates
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg

Components: main
Suites: bookworm-security
URIs: http://deb.debian.org/debian-security
Types: deb
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg'
third_party='Types: deb
URIs: https://deb.example.org/node
Suites: nodistro
Components: main'

# new_case NAME: a fresh apt folder with an empty sources.list.d and no package lists.
new_case() {
  case_name=$1
  etc=$scratch/$1/etc
  lists=$scratch/$1/lists
  mkdir -p "$etc/sources.list.d" "$lists"
}

# run_deps: one dry run; its output is in $out, and a failed run is a failure of the case.
run_deps() {
  out=$(SW_APT_ETC="$etc" SW_APT_LISTS="$lists" SW_DEBIAN_SUITE=bookworm SW_DEPS_DRY_RUN=1 bash "$deps" 2>&1)
  local rc=$?
  [ $rc -eq 0 ] || fail "deps.sh exited $rc: $out"
}

expect_refresh() {
  grep -q '^deps: dry run: apt-get update' <<<"$out" || fail "no apt-get update on the $1 run: $out"
}
expect_no_refresh() {
  ! grep -q 'apt-get update' <<<"$out" || fail "apt-get update on the $1 run although nothing changed: $out"
  ! grep -q 'adding deb-src' <<<"$out" || fail "deb-src added again on the $1 run"
}

# Checks the case's files: what sablewatch-src.list holds (EXPECT_LINES, "" for no file) and how many
# stanzas have deb-src (EXPECT_STANZAS).
expect_files() {
  local want_lines=$1 want_stanzas=$2 got_lines="" got_stanzas=0 f
  [ -f "$etc/sources.list.d/sablewatch-src.list" ] && got_lines=$(cat "$etc/sources.list.d/sablewatch-src.list")
  [ "$got_lines" = "$want_lines" ] || fail "sablewatch-src.list is [$got_lines], expected [$want_lines]"
  for f in "$etc"/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    got_stanzas=$((got_stanzas + $(grep -c '^Types: deb deb-src$' "$f")))
  done
  [ "$got_stanzas" = "$want_stanzas" ] || fail "$got_stanzas stanzas with deb-src, expected $want_stanzas"
}

# Runs the case twice: the first run adds what is missing and refreshes the lists; once apt has a
# source index, a second run changes nothing and leaves the lists alone.
first_and_second() {
  local want_lines=$1 want_stanzas=$2
  run_deps
  expect_refresh first
  expect_files "$want_lines" "$want_stanzas"
  run_deps
  expect_refresh "second (lists never refreshed)"
  expect_files "$want_lines" "$want_stanzas"
  touch "$lists/deb.debian.org_debian_dists_bookworm_main_source_Sources"
  run_deps
  expect_no_refresh "third"
  expect_files "$want_lines" "$want_stanzas"
}

classic_src='deb-src http://deb.debian.org/debian bookworm main
deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian-security bookworm-security main'

# A debootstrapped machine: sources.list and an empty sources.list.d.
new_case classic-only
printf '%s\n' "$classic" >"$etc/sources.list"
first_and_second "$classic_src" 0

new_case classic-in-list-d
printf '%s\n' "$classic" >"$etc/sources.list.d/debian.list"
first_and_second "$classic_src" 0

new_case deb822-only
printf '%s\n' "$stanzas" >"$etc/sources.list.d/debian.sources"
printf '%s\n' "$third_party" >"$etc/sources.list.d/other.sources"
first_and_second "" 2
grep -q '^Types: deb$' "$etc/sources.list.d/other.sources" || fail "a third-party stanza got deb-src"
# Nothing but the Types lines changed.
diff <(printf '%s\n' "$stanzas") "$etc/sources.list.d/debian.sources" | grep '^[<>]' | grep -qv 'Types:' &&
  fail "lines other than Types changed"

new_case both
printf '%s\n' "$classic" >"$etc/sources.list"
printf '%s\n' "$stanzas" >"$etc/sources.list.d/debian.sources"
first_and_second "$classic_src" 2

new_case already-has-deb-src
printf '%s\n%s\n' "$classic" 'deb-src http://deb.debian.org/debian bookworm main' >"$etc/sources.list"
cp "$etc/sources.list" "$scratch/before"
first_and_second "" 0
cmp -s "$etc/sources.list" "$scratch/before" || fail "sources.list changed"

new_case deb822-already-has-deb-src
printf '%s\n' "$stanzas" | sed 's/^Types: deb$/Types: deb deb-src/' >"$etc/sources.list.d/debian.sources"
first_and_second "" 2

new_case no-debian-entry
# Only a third-party archive: nothing to add deb-src to, which must fail loudly here rather than let
# the Windows build find out.
printf '%s\n' "$third_party" >"$etc/sources.list.d/other.sources"
out=$(SW_APT_ETC="$etc" SW_APT_LISTS="$lists" SW_DEBIAN_SUITE=bookworm SW_DEPS_DRY_RUN=1 bash "$deps" 2>&1) &&
  fail "succeeded with no entries: $out"
grep -q "no Debian bookworm entry" <<<"$out" || fail "no reason given: $out"

if [ $failures -gt 0 ]; then
  echo "$failures failure(s)"
  exit 1
fi
echo "deps.sh: every layout passed"
