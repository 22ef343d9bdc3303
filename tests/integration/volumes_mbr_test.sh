#!/usr/bin/env bash
# vmft volumes on an mkntfs-made MBR disk with two NTFS partitions and a FAT one
# between them, against mmls; then the plain listing, pinned letters, and the same
# disk attached twice.
source "$(dirname "$0")/lib.sh"
need mkntfs sfdisk mmls python3
work=$(work_dir volumes-mbr)
trap 'rm -rf "$work"' EXIT

disk=$work/mbr.img
new_disk "$disk" 64M
partition "$disk" <<'TABLE'
label: dos
label-id: 0x1234abcd
start=2048, size=32768, type=7
start=34816, size=16384, type=c
start=51200, size=40960, type=7
TABLE
mkntfs_at "$disk" 2048 32768
mkntfs_at "$disk" 51200 40960
same_volumes "$disk" 512 2

# One line per volume: letter, name, disk, offset, length, sector size, kind.
plain=$("$VMFT" --disk "$disk" volumes)
python3 - "$plain" <<'PY' || fail "plain listing: $plain"
import re, sys
lines = sys.argv[1].splitlines()
assert len(lines) == 2, lines
for line, (letter, offset, length) in zip(lines, [("C", 2048 * 512, 32768 * 512), ("D", 51200 * 512, 40960 * 512)]):
    m = re.fullmatch(r"(\w): (\\\\\?\\Volume\{1234ABCD-[0-9A-F-]+\}\\) disk 0 offset (\d+) length (\d+) sector 512 NTFS", line)
    assert m and m.group(1) == letter and int(m.group(3)) == offset and int(m.group(4)) == length, line
PY

# A pinned letter; the other volume takes the first free one.
pinned=$("$VMFT" --disk "$disk" --volume G=0:3 volumes | cut -c1)
[[ $pinned == $'C\nG' ]] || fail "pinned letters: $pinned"
"$VMFT" --disk "$disk" --volume B=0:1 volumes >/dev/null 2>&1 && fail "letter B accepted"

# The same disk twice: four volumes, the second pair on disk 1 with the same names.
json=$("$VMFT" --disk "$disk" --disk "$disk" volumes --json)
python3 - "$json" <<'PY' || fail "two disks: $json"
import json, sys
v = json.loads(sys.argv[1])
assert [x["letter"] for x in v] == ["C", "D", "E", "F"], v
assert [x["disk"] for x in v] == [0, 0, 1, 1], v
assert v[0]["volume_name"] == v[2]["volume_name"] and v[0]["volume_name"] != v[1]["volume_name"], v
PY
echo "ok: plain listing, pins, two disks"
