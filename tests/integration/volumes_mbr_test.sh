#!/usr/bin/env bash
# vmft volumes on an mkntfs-made MBR disk with two NTFS partitions and a FAT one
# between them, against mmls; then the plain listing, pinned letters, and the disk
# attached with a clone of it.
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

# One line per volume: letter, name, disk, offset, length, sector size, kind, and the
# disk's file and format.
plain=$("$VMFT" --disk "$disk" volumes)
python3 - "$plain" "$disk" <<'PY' || fail "plain listing: $plain"
import re, sys
lines = sys.argv[1].splitlines()
assert len(lines) == 2, lines
for line, (letter, offset, length) in zip(lines, [("C", 2048 * 512, 32768 * 512), ("D", 51200 * 512, 40960 * 512)]):
    m = re.fullmatch(r"(\w): (\\\\\?\\Volume\{1234ABCD-[0-9A-F-]+\}\\) disk 0 offset (\d+) length (\d+) sector 512 NTFS on (.*) \(raw\)", line)
    assert m and m.group(1) == letter and int(m.group(3)) == offset and int(m.group(4)) == length, line
    assert m.group(5) == sys.argv[2], line
PY

# A pinned letter; the other volume takes the first free one.
pinned=$("$VMFT" --disk "$disk" --volume G=0:3 volumes | cut -c1)
[[ $pinned == $'C\nG' ]] || fail "pinned letters: $pinned"
"$VMFT" --disk "$disk" --volume B=0:1 volumes >/dev/null 2>&1 && fail "letter B accepted"

# A disk and its clone (the usual recovery set-up) whose second volume was formatted
# anew: four volumes with names of their own, the same on every run, and the clone's
# letters read the clone.
clone=$work/clone.img
cp --sparse=always "$disk" "$clone"
mkntfs_at "$clone" 51200 40960 512 1024
json=$("$VMFT" --disk "$disk" --disk "$clone" volumes --json)
[[ $json == "$("$VMFT" --disk "$disk" --disk "$clone" volumes --json)" ]] || fail "names differ between runs"
python3 - "$json" <<'PY' || fail "a disk and its clone: $json"
import json, sys
v = json.loads(sys.argv[1])
assert [x["letter"] for x in v] == ["C", "D", "E", "F"], v
assert [x["disk"] for x in v] == [0, 0, 1, 1], v
assert len({x["volume_name"] for x in v}) == 4, v
assert v[0]["volume_name"].startswith("\\\\?\\Volume{1234ABCD-"), v  # the first disk keeps its own
PY
ours=$("$VMFT" --disk "$disk" --disk "$clone" ranges F) || fail "vmft ranges F on the clone"
theirs=$(tsk_mft_ranges "$clone" 51200 512)
[[ $theirs != "$(tsk_mft_ranges "$disk" 51200 512)" ]] || fail "the clone's second volume did not change"
[[ $ours == "$theirs" ]] || fail "ranges F read the first disk: $ours, istat on the clone: $theirs"
echo "ok: plain listing, pins, a disk and its clone"
