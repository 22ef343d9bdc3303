#!/usr/bin/env bash
# Images that cannot be read as disks: formats not read (qcow2, VDI), an EnCase set or
# split raw set with a file missing or attached by a later file, a segment cut short,
# differencing VHD, VHDX and VMDK disks whose parent is not there, and damaged container
# headers. vmft refuses each with exit 2 and a reason naming the file, prints nothing
# on stdout and leaves the files as they were; the same disk through KORU_MFT_DISKS
# gives the library no disk at all.
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/containers.sh"
need mkntfs sfdisk qemu-img ewfacquire split python3 sha1sum
work=$(work_dir containers-refused)
trap 'rm -rf "$work"' EXIT
vmft=$work/vmft
cp "$VMFT" "$vmft"

raw=$work/disk.img
new_disk "$raw" 24M
partition "$raw" <<'TABLE'
label: dos
start=2048, size=32768, type=7
TABLE
mkntfs_at "$raw" 2048 32768
head -c 4M /dev/urandom | dd of="$raw" bs=512 seek=36864 conv=notrunc status=none  # for several segments
mkdir "$work"/{qcow,vdi,gap,tail,later,short,split,splitlater,diff,diffx,diffvmdk,badx,badvmdk,bade01}
qemu-img convert -O qcow2 "$raw" "$work/qcow/disk.qcow2"
qemu-img convert -O vdi "$raw" "$work/vdi/disk.vdi"
make_e01 "$raw" 512 "$work/gap/disk" 1MiB
[[ -f $work/gap/disk.E04 ]] || fail "ewfacquire made fewer than four segments"
cp "$work"/gap/disk.E0[123] "$work/tail/"
cp "$work"/gap/disk.E0? "$work/later/"
cp "$work"/gap/disk.E0? "$work/short/"
cut=$(ls "$work"/short/disk.E0? | tail -1)
truncate -s -100 "$cut"
rm "$work/gap/disk.E02"
split -d -a 3 --numeric-suffixes=1 -b 8M "$raw" "$work/split/disk."
cp "$work"/split/disk.00? "$work/splitlater/"
rm "$work/split/disk.002"
qemu-img convert -O vpc "$raw" "$work/diff/base.vhd"
make_differencing vhd "$work/diff/base.vhd" "$work/diff/child.vhd" 'D:\Hyper-V\base-gone.vhd'
qemu-img convert -O vhdx "$raw" "$work/diffx/base.vhdx"
make_differencing vhdx "$work/diffx/base.vhdx" "$work/diffx/child.vhdx" '.\missing.vhdx'
qemu-img convert -O vmdk "$raw" "$work/diffvmdk/base.vmdk"
qemu-img create -q -f vmdk -b "$work/diffvmdk/base.vmdk" -F vmdk "$work/diffvmdk/child.vmdk"
rm "$work/diffvmdk/base.vmdk"
qemu-img convert -O vhdx "$raw" "$work/badx/disk.vhdx"
# Both headers and both region tables (64 KiB to 320 KiB) overwritten.
dd if=/dev/zero of="$work/badx/disk.vhdx" bs=64K seek=1 count=4 conv=notrunc status=none
qemu-img convert -O vmdk "$raw" "$work/badvmdk/disk.vmdk"
dd if=/dev/zero of="$work/badvmdk/disk.vmdk" bs=1 seek=4 count=60 conv=notrunc status=none  # the sparse header
make_e01 "$raw" 512 "$work/bade01/disk"
dd if=/dev/zero of="$work/bade01/disk.E01" bs=1 seek=13 count=2000 conv=notrunc status=none  # its first sections

fingerprint() { find "$1" -type f -exec sha1sum {} + | sort; find "$1" -type f -printf '%p %T@\n' | sort; }
supported="the formats read are raw (also split into NAME.001, NAME.002, ...), VHD, VHDX, VMDK and EnCase E01"
while IFS='|' read -r disk reason; do
  before=$(fingerprint "$(dirname "$work/$disk")")
  rc=0
  out=$("$vmft" --disk "$work/$disk" volumes 2>"$work/err") || rc=$?
  err=$(cat "$work/err")
  [[ $rc == 2 ]] || fail "$disk: exit $rc, expected 2 ($err)"
  [[ -z $out ]] || fail "$disk: printed $out"
  [[ $err == "vmft: cannot attach disk $work/$disk: ${reason//@/$work}" ]] || fail "$disk: says: $err"
  [[ $(fingerprint "$(dirname "$work/$disk")") == "$before" ]] || fail "$disk: the image changed"
  # The library skips a disk it cannot read; nothing takes its letter.
  rc=0
  KORU_MFT_DISKS="$work/$disk" "$vmft" volumes >/dev/null 2>&1 || rc=$?
  [[ $rc == 1 ]] || fail "$disk through KORU_MFT_DISKS: exit $rc, expected 1 (no volume)"
  echo "ok: $disk: $err"
done <<EOF
qcow/disk.qcow2|a QEMU qcow image, which is not read here: $supported
vdi/disk.vdi|a VirtualBox VDI image, which is not read here: $supported
gap/disk.E01|segment @/gap/disk.E02 of the EnCase set is missing
tail/disk.E01|segment @/tail/disk.E04 of the EnCase set is missing
later/disk.E02|it is segment 2 of an EnCase set: attach the set by its first segment, @/later/disk.E01
short/disk.E01|segment $cut is damaged or cut short: it does not end in an EWF "done" or "next" section
split/disk.001|part @/split/disk.002 of the split raw set is missing (disk.003 is there)
splitlater/disk.002|it is part 2 of a split raw set: attach the set by its first part, @/splitlater/disk.001
diff/child.vhd|a differencing VHD whose parent D:\\Hyper-V\\base-gone.vhd is not there (looked for @/diff/base-gone.vhd)
diffx/child.vhdx|a differencing VHDX whose parent .\\missing.vhdx is not there (looked for @/diffx/missing.vhdx)
diffvmdk/child.vmdk|a differencing VMDK whose parent @/diffvmdk/base.vmdk is not there (looked for @/diffvmdk/base.vmdk)
EOF

# Damaged containers: the reason comes from the library that reads the format.
for disk in badx/disk.vhdx badvmdk/disk.vmdk bade01/disk.E01; do
  rc=0
  "$vmft" --disk "$work/$disk" volumes >/dev/null 2>"$work/err" || rc=$?
  err=$(cat "$work/err")
  [[ $rc == 2 ]] || fail "$disk: exit $rc, expected 2 ($err)"
  [[ $err =~ ^vmft:\ cannot\ attach\ disk\ $work/$disk:\ the\ (VHDX\ image\'s\ headers\ are\ damaged:\ .+|VMDK\ image\ cannot\ be\ opened:\ .+|E01\ image\ holds\ no\ disk\ data\ that\ can\ be\ read)$ ]] ||
    fail "$disk: says: $err"
  echo "ok: $disk: $err"
done
