#!/usr/bin/env bash
# vmft ranges on the Windows-made disks under the shared images, checked against
# istat -r; the 2 MiB-cluster volume, which The Sleuth Kit refuses, against its
# boot sector: its MFT is one cluster of 4096 sectors.
source "$(dirname "$0")/lib.sh"
need istat fsstat tar unzip gunzip bunzip2 od


images=$KORU_SHARED_DIR/images/windows-volumes
work=$KORU_WORK_DIR/ranges-windows
mkdir -p "$work"
# Unpacked once per build tree, sparse, and kept for later runs.
unpack() {
  local out=$work/$1 source=$images/$2 tool=$3
  [[ -s $out && $out -nt $source ]] && return
  [[ -r $source ]] || skip "$source missing"
  $tool -c "$source" | cp --sparse=always /dev/stdin "$out.part" && mv "$out.part" "$out"
}
[[ -s $work/ntfs.raw ]] || tar -xSzf "$images/ntfs.tgz" -C "$work" || fail "tar ntfs.tgz"
[[ -s $work/10-ntfs-autodetect/10-ntfs-disk.dd ]] || unzip -o -q "$images/10b-ntfs-autodetect.zip" -d "$work" ||
  fail "unzip DFTT 10b"
unpack ntfs-2m.raw ntfs-2m.raw.gz gunzip
unpack charlie.dd charlie.dd.bz2 bunzip2
unpack ntfs_index.raw ntfs_index.raw.gz gunzip
unpack ntfs3_attrlist.raw ntfs3_attrlist.raw.gz gunzip

# Win10, MBR, NTFS at 2048, the MFT far into the volume.
same_ranges "$work/ntfs.raw" C 2048 512
# Two NTFS partitions on one XP-era disk, lettered in table order.
dftt=$work/10-ntfs-autodetect/10-ntfs-disk.dd
same_ranges "$dftt" C 63 512
same_ranges "$dftt" D 96390 512
# A bare volume, an MBR disk at 128, and a (mkntfs + ntfs3) bare volume.
same_ranges "$work/charlie.dd" C 0 512
same_ranges "$work/ntfs_index.raw" C 128 512
same_ranges "$work/ntfs3_attrlist.raw" C 0 512

# 2 MiB clusters: sectors-per-cluster byte 0xF4 means 2^(256 - 0xF4) = 4096 sectors.
big=$work/ntfs-2m.raw
boot=$((128 * 512))
spc_byte=$(od -An -tu1 -j $((boot + 0x0D)) -N1 "$big" | tr -d ' ')
mft_cluster=$(od -An -tu8 -j $((boot + 0x30)) -N8 "$big" | tr -d ' ')
[[ $spc_byte == 244 ]] || fail "ntfs-2m: sectors-per-cluster byte $spc_byte"
expected="$((128 + mft_cluster * 4096)) $((128 + (mft_cluster + 1) * 4096))"
ours=$(vmft_ranges "$big" C) || fail "vmft ranges failed on ntfs-2m"
[[ $ours == "$expected" ]] || fail "ntfs-2m: vmft says '$ours', the boot sector '$expected'"
echo "ok: ntfs-2m.raw C: $ours"
# Its files' names cannot be read on Linux: an inventory would look empty and complete.
rm -f "$work/2m.ini"
err=$("$VMFT" --disk "$big" hlinfo "$work/2m.ini" C 2>&1 >/dev/null) && fail "ntfs-2m: hlinfo succeeded"
[[ $err == *"clusters above 64 KiB"* && ! -e $work/2m.ini ]] || fail "ntfs-2m: hlinfo says '$err'"
echo "ok: ntfs-2m.raw hlinfo refused: $err"
