#!/usr/bin/env bash
# Makes the NTFS image of bench_ntfs_read: COUNT empty files, a thousand to a folder under a hundred
# top folders, written through an ntfs-3g mount into a fresh mkntfs image (4 KiB clusters). Made once and
# kept: the benchmark reuses an image that is there.
#
#   ntfs-image.sh IMAGE COUNT
set -euo pipefail
img=$(realpath -m "$1") count=$2
for tool in mkntfs ntfs-3g; do
  command -v "$tool" >/dev/null || { echo "ntfs-image: $tool is missing" >&2; exit 2; }
done
# About 1 KiB of table per file and room for the folders' indexes.
size=$(( (count * 3 / 2 + 262144) * 1024 ))
rm -f "$img.part"
truncate -s "$size" "$img.part"
mkntfs -F -f -q -c 4096 -s 512 -L bench "$img.part" >/dev/null 2>&1
mnt=$(mktemp -d)
cleanup() { mountpoint -q "$mnt" && umount "$mnt"; rmdir "$mnt" 2>/dev/null || true; }
trap cleanup EXIT
ntfs-3g -o big_writes "$img.part" "$mnt"
cd "$mnt"
made=0 k=0
while [ "$made" -lt "$count" ]; do
  d="top$((k % 100))/sub$k"
  mkdir -p "$d"
  n=$(( count - made < 1000 ? count - made : 1000 ))
  (cd "$d" && eval "touch file-with-a-name-of-some-length-{1..$n}.txt")
  made=$((made + n)) k=$((k + 1))
done
cd /
umount "$mnt"
mv "$img.part" "$img"
