#!/usr/bin/env bash
# vmft volumes on a GPT disk (protective MBR) with two NTFS partitions around an
# unformatted one, against mmls; the volume names are the partitions' GUIDs.
source "$(dirname "$0")/lib.sh"
need mkntfs sfdisk mmls python3
work=$(work_dir volumes-gpt)
trap 'rm -rf "$work"' EXIT

disk=$work/gpt.img
new_disk "$disk" 96M
partition "$disk" <<'TABLE'
label: gpt
start=2048, size=32768, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7, uuid=6A1F0C2E-93B4-4C3A-9E1D-0123456789AB
start=36864, size=8192, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7
start=45056, size=65536, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7, uuid=0F0E0D0C-0B0A-0908-0706-050403020100
TABLE
mkntfs_at "$disk" 2048 32768
mkntfs_at "$disk" 45056 65536
same_volumes "$disk" 512 2

names=$("$VMFT" --disk "$disk" volumes --json | python3 -c 'import json, sys; print(*[v["volume_name"] for v in json.load(sys.stdin)])')
want='\\?\Volume{6A1F0C2E-93B4-4C3A-9E1D-0123456789AB}\ \\?\Volume{0F0E0D0C-0B0A-0908-0706-050403020100}\'
[[ $names == "$want" ]] || fail "GPT volume names: $names"
echo "ok: GPT partition GUIDs name the volumes"
