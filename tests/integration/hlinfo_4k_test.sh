#!/usr/bin/env bash
# vmft hlinfo on a volume of 4096-byte sectors and 4096-byte file records (mkntfs -s
# 4096), with hard links at odd and even record numbers, checked against what fls and
# istat predict: a step of two sectors per record would miss every odd one.
source "$(dirname "$0")/lib.sh"
need mkntfs ntfs-3g fls istat iconv
[[ $(id -u) == 0 && -e /dev/fuse ]] || skip "needs root and FUSE to fill the volume"

work=$(work_dir hlinfo-4k)
mkdir "$work/mnt"
cleanup() { mountpoint -q "$work/mnt" && umount "$work/mnt"; rm -f "$work"/*.img; }
trap cleanup EXIT
vmft=$(private_vmft "$work")

vol=$work/vol.img
truncate -s 64M "$vol"
mkntfs -F -q -Q -s 4096 "$vol" >/dev/null 2>&1 || fail "mkntfs -s 4096"
fill() {
  mkdir d e
  for i in 1 2 3 4 5 6; do echo "file $i" >"d/f$i"; done
  ln d/f2 e/f2
  ln d/f3 e/f3
  ln d/f3 e/F3-again
  ln d/f6 e/f6
}
ntfs3g_fill "$vol" "$work/mnt" fill

fsstat -f ntfs -b 4096 "$vol" | grep -q 'Size of MFT Entries: 4096 bytes' || fail "mkntfs did not make 4096-byte records"
linked=$(fls -r -p -u -b 4096 "$vol" | awk -F'[ -]' '/^r\/r/ {print $2}' | sort -n | uniq -d)
grep -q '[13579]$' <<<"$linked" || fail "no hard-linked file at an odd record number: $linked"
grep -q '[02468]$' <<<"$linked" || fail "no hard-linked file at an even record number: $linked"
same_hlinfo "$vol:4096" C 0 4096 "$vmft"
