#!/usr/bin/env bash
# vmft ranges on mkntfs images whose MFT has several runs, one of them placed before
# its predecessor (a negative run offset), checked against istat -r. The MFT is made
# to grow through an ntfs-3g mount of a full volume with holes punched in it.
source "$(dirname "$0")/lib.sh"
need mkntfs ntfs-3g ntfsinfo istat fsstat sfdisk
[[ $(id -u) == 0 && -e /dev/fuse ]] || skip "needs root and FUSE to grow the MFT"

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

work=$KORU_WORK_DIR/ranges-mkntfs
rm -rf "$work" && mkdir -p "$work/mnt"
cleanup() { mountpoint -q "$work/mnt" && umount "$work/mnt"; rm -f "$work"/*.img; }
trap cleanup EXIT

# A 32 MiB volume, 4 KiB clusters: eight 2 MiB files, then one file to fill it.
vol=$work/vol.img
truncate -s 32M "$vol"
mkntfs -F -q -Q -c 4096 "$vol" >/dev/null 2>&1 || fail "mkntfs"
ntfs-3g "$vol" "$work/mnt" || skip "ntfs-3g cannot mount here"
mkdir "$work/mnt/d" || fail "mkdir on the mounted volume"
for i in 1 2 3 4 5 6 7 8; do
  dd if=/dev/zero of="$work/mnt/f$i" bs=1M count=2 status=none || fail "writing f$i"
done
dd if=/dev/zero of="$work/mnt/fill" bs=1M status=none 2>/dev/null || true
# The MFT can only grow into the holes: first one high in the volume, then one
# lower down, which its next run must reach with a negative offset.
rm "$work/mnt/f8" || fail "rm f8"
for i in $(seq 1 1200); do : >"$work/mnt/d/a$i" || break; done
rm "$work/mnt/f1" || fail "rm f1"
for i in $(seq 1 1200); do : >"$work/mnt/d/b$i" || break; done
# A FUSE volume may still be busy for a moment after the last write.
for try in 1 2 3 4 5; do umount "$work/mnt" 2>/dev/null && break; sleep 1; done
mountpoint -q "$work/mnt" && fail "cannot unmount the volume"

clusters=$(ntfs3g_mft_clusters "$vol")
runs=$(tsk_mft_ranges "$vol" 0 512 "$clusters")
(($(wc -l <<<"$runs") >= 3)) || fail "the MFT did not fragment: $runs"
awk 'NR > 1 && $1 < prev { back = 1 } { prev = $1 } END { exit !back }' <<<"$runs" ||
  fail "no MFT run lies before its predecessor"
same_ranges "$vol" C 0 512 "$clusters"

# The same volume inside an MBR partition at sector 2048: absolute disk sectors.
disk=$work/disk.img
truncate -s $((2048 * 512))  "$disk"
cat "$vol" >>"$disk"
truncate -s +1M "$disk"
echo "2048,$(($(stat -c %s "$vol") / 512)),7" | sfdisk -q --wipe never "$disk" >/dev/null 2>&1 || fail "sfdisk"
same_ranges "$disk" C 2048 512 "$clusters"
json=$("$VMFT" --disk "$disk" ranges --json C)
expected="[$(vmft_ranges "$disk" C | awk '{printf "%s[%s,%s]", (NR > 1 ? "," : ""), $1, $2}')]"
[[ $json == "$expected" ]] || fail "--json gives $json"

# A fresh volume: its MFT is one run.
fresh=$work/fresh.img
truncate -s 64M "$fresh"
mkntfs -F -q -Q "$fresh" >/dev/null 2>&1 || fail "mkntfs"
same_ranges "$fresh" C 0 512 "$(ntfs3g_mft_clusters "$fresh")"
[[ $(vmft_ranges "$fresh" C | wc -l) == 1 ]] || fail "a fresh MFT should be one run"
