#!/usr/bin/env bash
# vmft ranges on mkntfs images whose MFT has several runs, one of them placed before
# its predecessor (a negative run offset), checked against istat -r. The MFT is made
# to grow through an ntfs-3g mount of a full volume with holes punched in it.
source "$(dirname "$0")/lib.sh"
need mkntfs ntfs-3g ntfsinfo istat fsstat sfdisk
[[ $(id -u) == 0 && -e /dev/fuse ]] || skip "needs root and FUSE to grow the MFT"


work=$KORU_WORK_DIR/ranges-mkntfs
rm -rf "$work" && mkdir -p "$work/mnt"
cleanup() { mountpoint -q "$work/mnt" && umount "$work/mnt"; rm -f "$work"/*.img; }
trap cleanup EXIT

# A 32 MiB volume, 4 KiB clusters: eight 2 MiB files, then one file to fill it.
vol=$work/vol.img
truncate -s 32M "$vol"
mkntfs -F -q -Q -c 4096 "$vol" >/dev/null 2>&1 || fail "mkntfs"
ntfs-3g "$vol" "$work/mnt" || skip "ntfs-3g cannot mount here"
mkdir "$work/mnt/d" || fail "mkdir on the mounted volume"
for i in 1 2 3 4 5 6 7 8; do
  dd if=/dev/zero of="$work/mnt/f$i" bs=1M count=2 status=none || fail "writing f$i"
done
dd if=/dev/zero of="$work/mnt/fill" bs=1M status=none 2>/dev/null || true
# The MFT can only grow into the holes: first one high in the volume, then one
# lower down, which its next run must reach with a negative offset.
rm "$work/mnt/f8" || fail "rm f8"
for i in $(seq 1 1200); do : >"$work/mnt/d/a$i" || break; done
rm "$work/mnt/f1" || fail "rm f1"
for i in $(seq 1 1200); do : >"$work/mnt/d/b$i" || break; done
# A FUSE volume may still be busy for a moment after the last write.
for try in 1 2 3 4 5; do umount "$work/mnt" 2>/dev/null && break; sleep 1; done
mountpoint -q "$work/mnt" && fail "cannot unmount the volume"

clusters=$(ntfs3g_mft_clusters "$vol")
runs=$(tsk_mft_ranges "$vol" 0 512 "$clusters")
(($(wc -l <<<"$runs") >= 3)) || fail "the MFT did not fragment: $runs"
awk 'NR > 1 && $1 < prev { back = 1 } { prev = $1 } END { exit !back }' <<<"$runs" ||
  fail "no MFT run lies before its predecessor"
same_ranges "$vol" C 0 512 "$clusters"

# The same volume inside an MBR partition at sector 2048: absolute disk sectors.
disk=$work/disk.img
truncate -s $((2048 * 512))  "$disk"
cat "$vol" >>"$disk"
truncate -s +1M "$disk"
echo "2048,$(($(stat -c %s "$vol") / 512)),7" | sfdisk -q --wipe never "$disk" >/dev/null 2>&1 || fail "sfdisk"
same_ranges "$disk" C 2048 512 "$clusters"
json=$("$VMFT" --disk "$disk" ranges --json C)
expected="[$(vmft_ranges "$disk" C | awk '{printf "%s[%s,%s]", (NR > 1 ? "," : ""), $1, $2}')]"
[[ $json == "$expected" ]] || fail "--json gives $json"

# A fresh volume: its MFT is one run.
fresh=$work/fresh.img
truncate -s 64M "$fresh"
mkntfs -F -q -Q "$fresh" >/dev/null 2>&1 || fail "mkntfs"
same_ranges "$fresh" C 0 512 "$(ntfs3g_mft_clusters "$fresh")"
[[ $(vmft_ranges "$fresh" C | wc -l) == 1 ]] || fail "a fresh MFT should be one run"
