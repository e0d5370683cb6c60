#!/usr/bin/env bash
# Installs whatever the build and the tests need and is not yet on the machine (Debian 12).
# Safe to run again: it only installs what is missing.
set -euo pipefail

pkgs=(cmake ninja-build g++ clang libclang-rt-14-dev llvm mingw-w64 wine wine64 xvfb xauth
      googletest libbz2-dev libpcre2-dev ntfs-3g unicode-data dpkg-dev bzip2 findutils
      plocate time locales)

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

SUDO=
[ "$(id -u)" = 0 ] || SUDO=sudo

if [ ${#missing[@]} -gt 0 ]; then
  echo "deps: installing ${missing[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The Windows build cross-compiles bzip2 and PCRE2 from Debian's source packages, which needs deb-src.
if ! grep -rqs '^deb-src\|^Types:.*deb-src' /etc/apt/sources.list /etc/apt/sources.list.d/; then
  echo "deps: adding deb-src lines"
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    $SUDO sed -i 's/^Types: deb$/Types: deb deb-src/' /etc/apt/sources.list.d/debian.sources
  fi
  if ! grep -rqs '^deb-src\|^Types:.*deb-src' /etc/apt/sources.list /etc/apt/sources.list.d/; then
    grep -h '^deb ' /etc/apt/sources.list /etc/apt/sources.list.d/*.list 2>/dev/null | sed 's/^deb /deb-src /' |
      $SUDO tee /etc/apt/sources.list.d/sablewatch-src.list >/dev/null
  fi
  $SUDO apt-get update -qq
fi
echo "deps: ok"
