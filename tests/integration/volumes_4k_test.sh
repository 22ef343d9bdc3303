#!/usr/bin/env bash
# Disks of 4096-byte sectors, partitioned through a loop device that has them (sfdisk
# then writes a real 4K GPT or MBR): vmft finds the sector size on its own (GPT header
# at 4096; MBR by where the NTFS boot sectors are), agrees with mmls -b 4096, and
# reads the same through the loop device itself (the kernel's sector size).
source "$(dirname "$0")/lib.sh"
need mkntfs sfdisk mmls losetup python3
work=$(work_dir volumes-4k)
loops=()
cleanup() {
  for dev in "${loops[@]}"; do losetup -d "$dev" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

gpt=$work/gpt4k.img
new_disk "$gpt" 128M
dev=$(loop_attach "$gpt" 4096)
loops+=("$dev")
partition "$dev" <<'TABLE'
label: gpt
start=256, size=8192, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7
start=8448, size=4096, type=0FC63DAF-8483-4772-8E79-3D69D8477DE4
start=12544, size=16384, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7
TABLE
sync
mkntfs_at "$gpt" 256 8192 4096
mkntfs_at "$gpt" 12544 16384 4096
same_volumes "$gpt" 4096 2
same_volumes "$gpt:4096" 4096 2

# The loop device as the disk: a block device, sized by BLKSSZGET.
ours=$(vmft_volumes "$dev" 4096)
[[ $ours == "$(mmls_volumes "$gpt" 4096)" ]] || fail "through $dev: $ours"
echo "ok: $dev (block device): the same volumes, 4096-byte sectors from the kernel"

mbr=$work/mbr4k.img
new_disk "$mbr" 128M
dev=$(loop_attach "$mbr" 4096)
loops+=("$dev")
partition "$dev" <<'TABLE'
label: dos
start=256, size=8192, type=7
start=8448, size=16384, type=7
TABLE
sync
mkntfs_at "$mbr" 256 8192 4096
mkntfs_at "$mbr" 8448 16384 4096
same_volumes "$mbr" 4096 2
same_volumes "$mbr:4096" 4096 2
