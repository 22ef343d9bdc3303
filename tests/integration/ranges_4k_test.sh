#!/usr/bin/env bash
# vmft ranges on a disk of 4096-byte sectors (mkntfs -s 4096), bare and at sector 256
# of an MBR disk, checked against istat -r: sectors are counted in 4096-byte units.
source "$(dirname "$0")/lib.sh"
need mkntfs ntfsinfo istat fsstat

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

work=$KORU_WORK_DIR/ranges-4k
rm -rf "$work" && mkdir -p "$work"
trap 'rm -f "$work"/*.img' EXIT

vol=$work/vol.img
truncate -s 64M "$vol"
mkntfs -F -q -Q -s 4096 -c 8192 "$vol" >/dev/null 2>&1 || fail "mkntfs -s 4096"
clusters=$(ntfs3g_mft_clusters "$vol")
same_ranges "$vol:4096" C 0 4096 "$clusters"
# Detected from the boot sector when not given.
same_ranges "$vol" C 0 4096 "$clusters"

disk=$work/disk.img
truncate -s $((256 * 4096)) "$disk"
cat "$vol" >>"$disk"
truncate -s +1M "$disk"
# sfdisk knows no 4096-byte sectors for images: write the one MBR entry by hand.
le32() { printf '\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255)); }
entry="\\x00\\xfe\\xff\\xff\\x07\\xfe\\xff\\xff$(le32 256)$(le32 $(($(stat -c %s "$vol") / 4096)))"
printf "$entry" | dd of="$disk" bs=1 seek=446 conv=notrunc status=none
printf '\x55\xaa' | dd of="$disk" bs=1 seek=510 conv=notrunc status=none
same_ranges "$disk:4096" C 256 4096 "$clusters"
