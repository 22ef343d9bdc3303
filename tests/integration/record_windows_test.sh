#!/usr/bin/env bash
# vmft record on every MFT record of the Windows-made disks: each field istat -r
# shows compared with the dump, every header field with the record's own bytes, and
# the sector each record number maps to with the MFT's runs as istat reads them
# (record_tools.py). The 2 MiB-cluster volume, which The Sleuth Kit refuses, is
# checked against its bytes and its boot sector only.
source "$(dirname "$0")/lib.sh"
need istat fsstat python3 tar unzip gunzip bunzip2

images=$KORU_SHARED_DIR/images/windows-volumes
tools=$(dirname "$0")/record_tools.py
work=$KORU_WORK_DIR/record-windows
mkdir -p "$work"
# Unpacked once per build tree, sparse, and kept for later runs.
unpack() {
  local out=$work/$1 source=$images/$2 tool=$3
  [[ -s $out && $out -nt $source ]] && return
  [[ -r $source ]] || skip "$source missing"
  $tool -c "$source" | cp --sparse=always /dev/stdin "$out.part" && mv "$out.part" "$out"
}
[[ -s $work/ntfs.raw ]] || tar -xSzf "$images/ntfs.tgz" -C "$work" || fail "tar ntfs.tgz"
[[ -s $work/10-ntfs-disk.dd ]] || unzip -o -j -q "$images/10b-ntfs-autodetect.zip" '*10-ntfs-disk.dd' -d "$work" ||
  fail "unzip DFTT 10b"
unpack charlie.dd charlie.dd.bz2 bunzip2
unpack ntfs_index.raw ntfs_index.raw.gz gunzip
unpack ntfs3_attrlist.raw ntfs3_attrlist.raw.gz gunzip
unpack ntfs-ptrn.raw ntfs-ptrn.raw.gz gunzip
unpack ntfs-2m.raw ntfs-2m.raw.gz gunzip

check() { python3 "$tools" check "$VMFT" "$@" | tail -20 || fail "vmft record differs from istat on $*"; }

check "$work/ntfs.raw" C --offset 2048
check "$work/10-ntfs-disk.dd" C --offset 63
check "$work/10-ntfs-disk.dd" D --offset 96390
check "$work/charlie.dd" C
check "$work/ntfs_index.raw" C --offset 128
check "$work/ntfs-ptrn.raw" C --offset 128
check "$work/ntfs3_attrlist.raw" C
check "$work/ntfs-2m.raw" C --offset 128 --raw-only --records 64
