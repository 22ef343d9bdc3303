#!/usr/bin/env bash
# vmft record on every record of the raw $MFT files, each wrapped into a volume of
# its own (a boot sector, the file at the clusters its record 0 maps) and checked as
# record_windows_test.sh checks the Windows disks, then read as a copied $MFT
# (--mft-file), which must give the same text; and the records of a Windows
# volume on 4096-byte sectors, where 1024-byte records 1 to 3 share a sector with
# record 0 and are refused by number (The Sleuth Kit refuses that volume).
# The dump shows a record as the disk holds it, its sector ends unpatched: in xw.MFT,
# records 134, 485, 561 and 615 have a file name across the first sector's end.
source "$(dirname "$0")/lib.sh"
need istat fsstat python3

tools=$(dirname "$0")/record_tools.py
work=$(work_dir record-mft-files)
check() { python3 "$tools" check "$VMFT" "$@" | tail -20 || fail "vmft record differs on $*"; }

for file in xw.MFT nist-dfr16.MFT libfsntfs-mft_metadata_file.1 4k-large.mft compressed_sparse.mft deleted.mft \
            mapping_pairs_1.mft mapping_pairs_2.mft unicode.mft; do
  source=$KORU_SHARED_DIR/images/mft-files/$file
  [[ -r $source ]] || skip "$source missing"
  python3 "$tools" wrap "$source" "$work/$file.img" || fail "cannot wrap $file"
  check "$work/$file.img" C
  # The file read as a copied $MFT gives the same text; only the sector differs.
  cluster=$(fsstat -f ntfs "$work/$file.img" | awk -F': ' '/^Cluster Size:/ {print $2}')
  unplaced() { sed -E '/^Absolute Sectors/d; s/record at sector [0-9]+/record at sector S/'; }
  for n in 0 5 38 39 41; do
    diff <("$VMFT" --disk "$work/$file.img" record C --record $n | unplaced) \
         <("$VMFT" record --mft-file "$source" --record $n --cluster-size "$cluster" | unplaced) ||
      fail "$file record $n: --mft-file and the volume differ"
  done
  rm -f "$work/$file.img"
done

# record_tools.py leaves reparse bodies alone; these are real links as Windows lays them
# out. A symbolic link's print name comes first and ends where its substitute name
# starts; a mount point's substitute name comes first, so its print name comes out empty.
links=$KORU_SHARED_DIR/images/mft-files/libfsntfs-mft_metadata_file.1
for expected in "46|0x0c Symbolic-Link|Microsoft Name-Surrogate|104|[x:\\testdir1\\testfile1]|[\\??\\x:\\testdir1\\testfile1]|0x0" \
                "47|0x03 Mount-Point|Microsoft Name-Surrogate|64|[]|[\\??\\x:\\testdir1]"; do
  IFS='|' read -r n values <<<"$expected"
  shown=$("$VMFT" record --mft-file "$links" --record "$n" --cluster-size 4096 | sed -n '/^Reparse Type /,/^$/s/^[^:]*: //p')
  [[ $(tr '\n' '|' <<<"$shown") == "$values|" ]] || fail "reparse point of record $n: $shown"
done

records=$KORU_SHARED_DIR/images/records
python3 - "$records" "$work/4kn.img" <<'PY' || fail "cannot build the 4K-sector disk"
import sys
boot = open(f"{sys.argv[1]}/4kn-ntfs-bootsector.bin", "rb").read()
mft = open(f"{sys.argv[1]}/4kn-ntfs-mft-records0-4.bin", "rb").read()
with open(sys.argv[2], "wb") as disk:  # the MFT at cluster 8533, one sector a cluster
    disk.truncate((8533 + 64) * 4096)
    disk.write(boot)
    disk.seek(8533 * 4096)
    disk.write(mft)
PY
check "$work/4kn.img" C --bps 4096 --raw-only --records 5
