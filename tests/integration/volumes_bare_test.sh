#!/usr/bin/env bash
# Disks without a partition table: an mkntfs volume written from sector 0 (as fsstat
# reads it), and the real BitLocker volumes' first 64 KiB, each one whole-disk volume
# of kind "BitLocker" with the sector size its boot sector gives.
source "$(dirname "$0")/lib.sh"
need mkntfs fsstat python3
work=$(work_dir volumes-bare)
trap 'rm -rf "$work"' EXIT

# Fails unless disk $1 is one volume at 0 of the disk's full length, kind $2,
# sectors of $3 bytes.
one_whole_volume() {
  local size ours
  size=$(stat -c %s "${1%%:*}")
  ours=$(vmft_volumes "$1" "$3")
  [[ $ours == "0 $size $2" ]] || fail "$(basename "$1"): expected one $2 volume of $size bytes, got: $ours"
  echo "ok: $(basename "$1"): one $2 volume, $3-byte sectors"
}

bare=$work/bare.img
truncate -s 48M "$bare"
mkntfs -F -Q -q "$bare" >/dev/null 2>&1 || fail "mkntfs"
fsstat "$bare" | grep -q '^File System Type: NTFS' || fail "fsstat does not see NTFS on $bare"
one_whole_volume "$bare" NTFS 512

bare4k=$work/bare4k.img
truncate -s 48M "$bare4k"
mkntfs -F -Q -q -s 4096 -c 4096 "$bare4k" >/dev/null 2>&1 || fail "mkntfs -s 4096"
fsstat -b 4096 "$bare4k" | grep -q '^File System Type: NTFS' || fail "fsstat does not see NTFS on $bare4k"
one_whole_volume "$bare4k" NTFS 4096      # from the boot sector's bytes per sector
one_whole_volume "$bare4k:512" NTFS 512   # a given size wins

for f in bitlk-aes-cbc-128 bitlk-aes-xts-128 bitlk-partially-encrypted-aes-cbc-128 bitlk-aes-xts-128-4k; do
  src=$KORU_SHARED_DIR/images/bitlocker/$f.first64k
  [[ -f $src ]] || skip "$src missing"
  cp "$src" "$work/$f.img"
  bps=512
  [[ $f == *-4k ]] && bps=4096
  one_whole_volume "$work/$f.img" BitLocker "$bps"
done

# BitLocker To Go keeps a FAT boot sector in front: no volume of ours.
cp "$KORU_SHARED_DIR/images/bitlocker/bitlk-togo-aes-xts-128.first64k" "$work/togo.img"
"$VMFT" --disk "$work/togo.img" volumes >/dev/null 2>&1 && fail "BitLocker To Go listed as a volume"
echo "ok: BitLocker To Go is not listed"
