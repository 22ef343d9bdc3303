#!/usr/bin/env bash
# vmft volumes on the real Windows-made disks, against mmls: ntfs.raw (64 GiB sparse,
# NTFS at sector 2048), the DFTT disk (NTFS at 63 and 96390, other file systems
# formatted over parts of it) and the 2 MiB-cluster disk (NTFS at 128).
source "$(dirname "$0")/lib.sh"
need mmls python3 tar unzip gunzip

# Fails unless the volumes start at exactly these sectors ($2...): $1 image.
starts_at() {
  local img=$1 got
  shift
  got=$(vmft_volumes "$img" 512 | awk '{printf "%s%d", (NR > 1 ? " " : ""), $1 / 512}')
  [[ $got == "$*" ]] || fail "$(basename "$img"): volumes at sectors '$got', expected '$*'"
}

raw=$(windows_image ntfs.tgz)
same_volumes "$raw" 512 1
starts_at "$raw" 2048

dftt=$(windows_image 10b-ntfs-autodetect.zip)
same_volumes "$dftt" 512 2
starts_at "$dftt" 63 96390

big=$(windows_image ntfs-2m.raw.gz)
same_volumes "$big" 512 1
starts_at "$big" 128
