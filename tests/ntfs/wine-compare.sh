#!/usr/bin/env bash
# Reads one test image with both builds and compares the records: the Linux test binary reads the image
# file, the Windows one (under Wine) reads drive X:, which Wine's dosdevices maps to the same file.
#
#   wine-compare.sh LINUX_TEST_NTFS WIN_TEST_NTFS_EXE
set -euo pipefail
linux=$1 win=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"; rm -f "$WINEPREFIX/dosdevices/x::"' EXIT
export WINEDEBUG=${WINEDEBUG:--all} WINEPREFIX=${WINEPREFIX:-$HOME/.wine-sablewatch}
bash "$here/make-image.sh" "$work/vol.img" 4096 512
SW_NTFS_VOLUME="$work/vol.img" SW_NTFS_DUMP="$work/linux.txt" "$linux" --gtest_filter=SameImage.*
mkdir -p "$WINEPREFIX/dosdevices"
ln -sfn "$work/vol.img" "$WINEPREFIX/dosdevices/x::"
SW_NTFS_VOLUME='\\.\X:' SW_NTFS_VOLUME_ALT='X:' SW_NTFS_EXPECT="$(winepath -w "$work/linux.txt")" \
  wine "$win" --gtest_filter=SameImage.*
