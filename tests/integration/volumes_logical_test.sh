#!/usr/bin/env bash
# vmft volumes on an MBR disk whose NTFS volumes are a primary and logical
# partitions in an extended partition (one logical left unformatted), against mmls.
source "$(dirname "$0")/lib.sh"
need mkntfs sfdisk mmls python3
work=$(work_dir volumes-logical)
trap 'rm -rf "$work"' EXIT

disk=$work/logical.img
new_disk "$disk" 128M
partition "$disk" <<'TABLE'
label: dos
label-id: 0x0badcafe
start=2048, size=20480, type=7
start=22528, size=200704, type=f
start=24576, size=32768, type=7
start=59392, size=16384, type=83
start=77824, size=40960, type=7
start=120832, size=20480, type=7
TABLE
mkntfs_at "$disk" 2048 20480
mkntfs_at "$disk" 24576 32768
mkntfs_at "$disk" 77824 40960
mkntfs_at "$disk" 120832 20480
same_volumes "$disk" 512 4

# Logical partitions are numbered from 5 in chain order, so the last is 0:8.
pinned=$("$VMFT" --disk "$disk" --volume D=0:8 volumes --json |
  python3 -c 'import json, sys; print(*[(v["letter"], v["offset"] // 512) for v in json.load(sys.stdin)])')
[[ $pinned == "('C', 2048) ('D', 120832) ('E', 24576) ('F', 77824)" ]] || fail "pinned logical: $pinned"
echo "ok: logical partitions numbered from 5"
