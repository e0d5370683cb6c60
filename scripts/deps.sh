#!/usr/bin/env bash
# Installs whatever the build and the tests need and is not yet on the machine (Debian 12).
# Safe to run again: it only installs what is missing, and a run that stopped half-way is finished by the
# next one (the package lists are refreshed until apt has a source index, not only when lines are added).
#
# The Windows build cross-compiles bzip2 and PCRE2 from Debian's source packages, which needs deb-src
# entries. apt reads two formats, and a machine may have either or both: one-line entries in
# sources.list and sources.list.d/*.list, and deb822 stanzas in sources.list.d/*.sources. When no
# Debian entry has deb-src yet, stanzas get "deb-src" added to their Types, and one-line entries are
# copied as deb-src lines into sources.list.d/sablewatch-src.list (written whole, so a second run
# writes the same file). Only the Debian release's own suites are copied: a third-party archive
# without source packages would make apt-get update fail.
#
# Environment, for tests on scratch copies:
#   SW_APT_ETC        the apt folder (default /etc/apt)
#   SW_APT_LISTS      apt's package lists (default /var/lib/apt/lists)
#   SW_DEBIAN_SUITE   the release's code name (default from /etc/os-release, else bookworm)
#   SW_DEPS_DRY_RUN=1 fix the source files only: no dpkg, no apt-get, no sudo; each apt-get that would
#                     run is printed as "deps: dry run: apt-get ..."
set -euo pipefail
shopt -s nullglob

etc=${SW_APT_ETC:-/etc/apt}
lists=${SW_APT_LISTS:-/var/lib/apt/lists}
dry=${SW_DEPS_DRY_RUN:-0}
suite=${SW_DEBIAN_SUITE:-}
if [ -z "$suite" ]; then
  suite=$(. /etc/os-release 2>/dev/null && echo "${VERSION_CODENAME:-}") || true
  suite=${suite:-bookworm}
fi

pkgs=(cmake ninja-build g++ clang libclang-rt-14-dev llvm mingw-w64 wine wine64 xvfb xauth
      googletest libbz2-dev libpcre2-dev ntfs-3g fuse3 attr unicode-data dpkg-dev bzip2 findutils
      plocate time locales tzdata python3 curl lftp)
# The HTTP server's tests and load bench: real clients, a browser and a peer server.
pkgs+=(chromium chromium-driver python3-selenium apache2-utils lighttpd)
# The system's table of media types, which the HTTP server's downloads are labelled from on Linux.
pkgs+=(media-types)

SUDO=
[ "$(id -u)" = 0 ] || [ "$dry" = 1 ] || SUDO=sudo

apt_get() {
  if [ "$dry" = 1 ]; then
    echo "deps: dry run: apt-get $*"
  else
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get "$@"
  fi
}

# One-line entry files and deb822 files that exist (an empty sources.list.d gives none).
find_files() {
  line_files=()
  [ -f "$etc/sources.list" ] && line_files+=("$etc/sources.list")
  line_files+=("$etc"/sources.list.d/*.list)
  stanza_files=("$etc"/sources.list.d/*.sources)
}
find_files

# Whether any entry already asks for sources: a one-line deb-src, or a stanza whose Types has it.
has_deb_src() {
  local f
  for f in "${line_files[@]}"; do
    grep -Eq '^[[:space:]]*deb-src[[:space:]]' "$f" && return 0
  done
  for f in "${stanza_files[@]}"; do
    grep -Eqi '^Types:.*[[:space:]]deb-src([[:space:]]|$)' "$f" && return 0
  done
  return 1
}

# Prints the deb-src copies of the one-line entries for the release's suites. An entry is
# "deb [options] URI suite components...": the options are skipped to find the suite.
line_sources() {
  local f
  for f in "${line_files[@]}"; do
    [ "$f" = "$etc/sources.list.d/sablewatch-src.list" ] && continue
    awk -v suite="$suite" '
      $1 != "deb" { next }
      { i = 2; if ($i ~ /^\[/) { while (i <= NF && $i !~ /\]$/) i++; i++ } }
      $(i + 1) == suite || index($(i + 1), suite "-") == 1 { sub(/^[[:space:]]*deb/, "deb-src"); print }
    ' "$f"
  done
}

# Adds deb-src to the Types of each stanza of FILE whose Suites name the release. Stanzas are
# separated by blank lines; their fields may come in any order, so each is read whole first.
stanza_add_sources() {
  local f=$1 tmp
  tmp=$(mktemp)
  awk -v suite="$suite" '
    function flush(   i, ours, n, s) {
      ours = 0
      for (i = 1; i <= len; i++) {
        if (tolower(buf[i]) ~ /^suites:/) {
          n = split(substr(buf[i], 8), s, /[[:space:]]+/)
          for (j = 1; j <= n; j++) if (s[j] == suite || index(s[j], suite "-") == 1) ours = 1
        }
      }
      for (i = 1; i <= len; i++) {
        if (ours && tolower(buf[i]) ~ /^types:/ && buf[i] !~ /[[:space:]]deb-src([[:space:]]|$)/)
          sub(/[[:space:]]*$/, " deb-src", buf[i])
        print buf[i]
      }
      len = 0
    }
    /^[[:space:]]*$/ { flush(); print; next }
    { buf[++len] = $0 }
    END { flush() }
  ' "$f" >"$tmp"
  if ! cmp -s "$tmp" "$f"; then
    $SUDO cp "$tmp" "$f"
  fi
  rm -f "$tmp"
}

refresh=0
if ! has_deb_src; then
  echo "deps: adding deb-src lines"
  for f in "${stanza_files[@]}"; do
    stanza_add_sources "$f"
  done
  src=$(line_sources)
  if [ -n "$src" ]; then
    $SUDO mkdir -p "$etc/sources.list.d"
    printf '%s\n' "$src" | $SUDO tee "$etc/sources.list.d/sablewatch-src.list" >/dev/null
  fi
  find_files
  has_deb_src || { echo "deps: no Debian $suite entry in $etc to add deb-src to" >&2; exit 1; }
  refresh=1
fi
# The lists are refreshed whenever apt has no source index yet: a run that added the entries and then
# stopped before apt-get update finished must not leave the next run believing it is done.
source_index=("$lists"/*_source_Sources*)
[ ${#source_index[@]} -gt 0 ] || refresh=1

missing=()
if [ "$dry" != 1 ]; then
  for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
fi
[ ${#missing[@]} -eq 0 ] || refresh=1

[ "$refresh" = 0 ] || apt_get update -qq
if [ ${#missing[@]} -gt 0 ]; then
  echo "deps: installing ${missing[*]}"
  apt_get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
echo "deps: ok"
