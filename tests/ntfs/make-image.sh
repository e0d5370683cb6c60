#!/usr/bin/env bash
# Makes a test NTFS image: mkntfs with the given cluster and sector size, then mounted with ntfs-3g and
# filled from a manifest (manifest.txt beside this script), then unmounted. With "frag" as the fourth
# argument it also fragments $MFT: many files with data next to the table, every other one deleted, and
# thousands more made, so that the table must grow into runs elsewhere.
#
#   make-image.sh IMAGE CLUSTER SECTOR [frag]
#
# Needs root (or FUSE rights), ntfs-3g, mkntfs and setfattr. Fails loudly without them: a test image that
# isn't made must fail the tests, never let them pass empty.
set -euo pipefail
img=$1 cluster=$2 sector=$3 kind=${4:-}
here=$(cd "$(dirname "$0")" && pwd)
for tool in mkntfs ntfs-3g setfattr; do
  command -v "$tool" >/dev/null || { echo "make-image: $tool is missing" >&2; exit 2; }
done
[ -e /dev/fuse ] || { echo "make-image: no /dev/fuse: FUSE is needed to fill NTFS images" >&2; exit 2; }

size=$((96 * 1024 * 1024))
[ "$cluster" -ge 65536 ] && size=$((400 * 1024 * 1024))
rm -f "$img"
truncate -s "$size" "$img"
mkntfs -F -f -q -c "$cluster" -s "$sector" -L sablewatch "$img" >/dev/null 2>&1 ||
  { echo "make-image: mkntfs failed for cluster $cluster sector $sector" >&2; exit 1; }
mnt=$(mktemp -d)
cleanup() { mountpoint -q "$mnt" && umount "$mnt"; rmdir "$mnt" 2>/dev/null || true; }
trap cleanup EXIT
ntfs-3g -o streams_interface=xattr "$img" "$mnt"
mountpoint -q "$mnt" || { echo "make-image: ntfs-3g did not mount $img" >&2; exit 1; }
cd "$mnt"

bytes() { head -c "$1" /dev/zero | tr '\0' x; }
repeat() { local s=$1 n=$2 out=; for ((i = 0; i < n; i++)); do out+=$s; done; printf %s "$out"; }

while IFS= read -r line; do
  case $line in ''|'#'*) continue ;; esac
  eval "set -- $line"
  op=$1; shift
  case $op in
    dir) mkdir -p "$1" ;;
    file) mkdir -p "$(dirname "$1")"; bytes "$2" > "$1" ;;
    time) touch -m -d "$2" "$1" ;;
    atime) touch -a -d "$2" "$1" ;;
    link) mkdir -p "$(dirname "$2")"; ln "$1" "$2" ;;
    ads) setfattr -n "user.$2" -v "$(bytes "$3")" "$1" ;;
    dosname) setfattr -n system.ntfs_dos_name -v "$2" "$1" ;;
    attrib) setfattr -n system.ntfs_attrib_be -v "$2" "$1" ;;
    longname) mkdir -p "$1"; bytes 1 > "$1/$(repeat "$2" "$3")" ;;
    deep) p=$1; for ((i = 0; i < $2; i++)); do p+="/level$i"; done; mkdir -p "$p"; bytes 1 > "$p/bottom.txt" ;;
    links) mkdir -p "$2"; for ((i = 0; i < $3; i++)); do
             ln "$1" "$2/$(printf 'a-rather-long-link-name-so-that-the-names-fill-the-record-%03d-%s' "$i" "$(repeat z 120)")"
           done ;;
    fill) mkdir -p "$1"; for ((i = 0; i < $2; i++)); do bytes "$3" > "$1/f$i"; done ;;
    delete-every-other) for ((i = 0; i < $2; i += 2)); do rm "$1/f$i"; done ;;
    *) echo "make-image: unknown operation $op" >&2; exit 1 ;;
  esac
done < "$here/manifest.txt"

if [ "$kind" = frag ]; then
  # Small files with data, then one file that takes every free cluster, the table's reserve included;
  # then every other small file goes, leaving holes of two clusters, and the new files that follow make
  # the table grow into those holes, one short run after another.
  mkdir frag
  for ((i = 0; i < 3000; i++)); do bytes 5000 > "frag/data$i"; done
  dd if=/dev/zero of=frag/filler bs=1M 2>/dev/null || true
  for ((i = 0; i < 3000; i += 2)); do rm "frag/data$i"; done
  mkdir frag/more
  for ((i = 0; i < 6000; i++)); do : > "frag/more/new-file-$i" || break; done
fi
cd /
sync
