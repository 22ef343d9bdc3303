#!/usr/bin/env bash
# vmft ranges on a disk of 4096-byte sectors (mkntfs -s 4096), bare and at sector 256
# of an MBR disk, checked against istat -r: sectors are counted in 4096-byte units.
source "$(dirname "$0")/lib.sh"
need mkntfs ntfsinfo istat fsstat


work=$KORU_WORK_DIR/ranges-4k
rm -rf "$work" && mkdir -p "$work"
trap 'rm -f "$work"/*.img' EXIT

vol=$work/vol.img
truncate -s 64M "$vol"
mkntfs -F -q -Q -s 4096 -c 8192 "$vol" >/dev/null 2>&1 || fail "mkntfs -s 4096"
clusters=$(ntfs3g_mft_clusters "$vol")
same_ranges "$vol:4096" C 0 4096 "$clusters"
# Detected from the boot sector when not given.
same_ranges "$vol" C 0 4096 "$clusters"

disk=$work/disk.img
truncate -s $((256 * 4096)) "$disk"
cat "$vol" >>"$disk"
truncate -s +1M "$disk"
# sfdisk knows no 4096-byte sectors for images: write the one MBR entry by hand.
le32() { printf '\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255)); }
entry="\\x00\\xfe\\xff\\xff\\x07\\xfe\\xff\\xff$(le32 256)$(le32 $(($(stat -c %s "$vol") / 4096)))"
printf "$entry" | dd of="$disk" bs=1 seek=446 conv=notrunc status=none
printf '\x55\xaa' | dd of="$disk" bs=1 seek=510 conv=notrunc status=none
same_ranges "$disk:4096" C 256 4096 "$clusters"
