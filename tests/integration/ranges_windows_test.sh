#!/usr/bin/env bash
# vmft ranges on the Windows-made disks under the shared images, checked against
# istat -r; the 2 MiB-cluster volume, which The Sleuth Kit refuses, against its
# boot sector: its MFT is one cluster of 4096 sectors.
source "$(dirname "$0")/lib.sh"
need istat fsstat tar unzip gunzip bunzip2 od

# --- helpers of the range tests -------------------------------------------------
# The MFT's runs as The Sleuth Kit reads them (istat -r on entry 0, unnamed $DATA),
# in absolute disk sectors, "first end" per line. $1 image, $2 volume start sector,
# $3 the disk's sector size, $4 (optional) the clusters the run list maps: istat cuts
# the last run at the data size, while the MFT owns every cluster up to its last VCN.
tsk_mft_ranges() {
  local img=$1 start=$2 bps=$3 clusters=${4:-0} info cluster sector
  info=$(fsstat -f ntfs -b "$bps" -o "$start" "$img") || fail "fsstat cannot read the volume at $start of $img"
  cluster=$(awk -F': ' '/^Cluster Size:/ {print $2; exit}' <<<"$info")
  sector=$(awk -F': ' '/^Sector Size:/ {print $2; exit}' <<<"$info")
  istat -f ntfs -b "$bps" -o "$start" -r "$img" 0 |
    awk -v spc=$((cluster / sector)) -v start="$start" -v clusters="$clusters" '
      /^Type: / { data = ($2 == "$DATA" && $0 ~ /Name: N\/A/) }
      data && /Starting address:/ { gsub(",", ""); addr[n + 0] = $3; len[n + 0] = $5; total += $5; n++ }
      END {
        if (n && clusters > total) len[n - 1] += clusters - total
        for (i = 0; i < n; i++) printf "%d %d\n", start + addr[i] * spc, start + (addr[i] + len[i]) * spc
      }'
}

# Clusters mapped by the MFT's $DATA run list (last VCN + 1), as ntfs-3g's ntfsinfo
# reads them from a bare volume.
ntfs3g_mft_clusters() {
  ntfsinfo -f -v -i 0 "$1" 2>/dev/null |
    awk '/^Dumping attribute \$DATA/ { d = 1 } d && /Highest VCN:/ { print $3 + 1; exit }'
}

# vmft's answer for drive $2 on disk $1 (PATH[:SECTOR_SIZE]).
vmft_ranges() { "$VMFT" --disk "$1" ranges "$2"; }

# Fails unless vmft and The Sleuth Kit agree: $1 disk, $2 letter, $3 volume start
# sector, $4 sector size, $5 (optional) clusters mapped (see tsk_mft_ranges).
same_ranges() {
  local disk=$1 letter=$2 start=$3 bps=$4 clusters=${5:-0} ours theirs
  ours=$(vmft_ranges "$disk" "$letter") || fail "vmft ranges $letter failed on $disk"
  theirs=$(tsk_mft_ranges "${disk%%:*}" "$start" "$bps" "$clusters")
  [[ -n $theirs ]] || fail "istat found no MFT runs on $disk at $start"
  if [[ $ours != "$theirs" ]]; then
    diff <(echo "$ours") <(echo "$theirs") >&2 || true
    fail "$disk $letter: vmft ranges differ from istat -r"
  fi
  echo "ok: $(basename "${disk%%:*}") $letter: $(wc -l <<<"$ours") range(s)"
}
# --------------------------------------------------------------------------------

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
