#!/usr/bin/env bash
# Cross-builds bzip2 and PCRE2 for Windows x64 from Debian's source packages into OUT/{include,lib}.
# Called by CMake when the win64 build folder has no copy yet; nothing of either is kept in the tree.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
out=$(realpath -m "${1:?usage: win-deps.sh OUTDIR}")
# The build itself happens once per machine in a cache folder (several build folders share it), under a
# lock so that parallel configures wait for one build; each build folder then gets its own copy.
cache=${SW_WIN_DEPS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/sablewatch/win-deps-bzip2_1.0.8-pcre2_10.42}
mkdir -p "$cache" "$out"
exec 9>"$cache.lock"
flock 9
if [ -f "$cache/ready" ]; then
  cp -r "$cache/include" "$cache/lib" "$out/"
  echo "win-deps: bzip2 and PCRE2 copied from $cache"
  exit 0
fi
final=$out
out=$cache
mkdir -p "$out/src" "$out/include" "$out/lib"
cd "$out/src"
cc=x86_64-w64-mingw32-gcc-posix

fetch() { # name version: the main archive's version, since the security archive does not serve every source
  local name=$1 ver=$2
  if ! ls -d "$name"-*/ >/dev/null 2>&1; then
    apt-get source -qq --download-only "$name=$ver" >/dev/null 2>&1 || apt-get source -qq --download-only "$name"
    dpkg-source -x --no-check "$name"_*.dsc >/dev/null
  fi
}

fetch bzip2 1.0.8-5
( cd bzip2-1.0.8
  make -s clean >/dev/null 2>&1 || true
  make -s libbz2.a CC=$cc AR=x86_64-w64-mingw32-ar RANLIB=x86_64-w64-mingw32-ranlib CFLAGS="-O2 -D_FILE_OFFSET_BITS=64"
  cp libbz2.a "$out/lib/"; cp bzlib.h "$out/include/" )

fetch pcre2 10.42-1
src=$(ls -d pcre2-10.42*/ | head -n1)
cmake -S "$src" -B pcre2-build -G Ninja -DCMAKE_TOOLCHAIN_FILE="$here/../cmake/mingw-w64.cmake" \
  -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF -DPCRE2_SUPPORT_JIT=ON -DPCRE2_BUILD_PCRE2GREP=OFF \
  -DPCRE2_BUILD_TESTS=OFF -DCMAKE_INSTALL_PREFIX="$out" >/dev/null
cmake --build pcre2-build >/dev/null
cmake --install pcre2-build >/dev/null
touch "$out/ready"
cp -r "$out/include" "$out/lib" "$final/"
echo "win-deps: bzip2 and PCRE2 built and copied to $final"
