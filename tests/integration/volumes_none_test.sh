#!/usr/bin/env bash
# Disks with no NTFS volume: a partitioned disk whose partitions hold no NTFS (mmls
# shows them), an empty disk, and a volume whose boot sector was wiped. vmft exits 1
# and says why on stderr; a disk it cannot attach is a usage error (2).
source "$(dirname "$0")/lib.sh"
need mkntfs sfdisk mmls python3
work=$(work_dir volumes-none)
trap 'rm -rf "$work"' EXIT

# Fails unless vmft finds no volume on $1.
no_volume() {
  local rc=0 err
  err=$("$VMFT" --disk "$1" volumes 2>&1 >/dev/null) || rc=$?
  [[ $rc == 1 ]] || fail "$(basename "$1"): exit $rc, expected 1"
  [[ $err == *"no NTFS or BitLocker volume"* ]] || fail "$(basename "$1"): stderr says: $err"
  "$VMFT" --disk "$1" volumes --json >/dev/null 2>&1 && fail "$(basename "$1"): --json succeeded"
  echo "ok: $(basename "$1"): no volume, exit 1"
}

disk=$work/linux.img
new_disk "$disk" 32M
partition "$disk" <<'TABLE'
label: dos
start=2048, size=16384, type=83
start=18432, size=8192, type=7
TABLE
[[ $(mmls "$disk" | grep -c '^0.*:  *00[0-9]:0') -ge 2 ]] || fail "mmls does not see the partitions"
[[ -z $(mmls_volumes "$disk" 512) ]] || fail "mmls_volumes sees a volume on $disk"
no_volume "$disk"

empty=$work/empty.img
new_disk "$empty" 8M
no_volume "$empty"

wiped=$work/wiped.img
new_disk "$wiped" 32M
partition "$wiped" <<'TABLE'
label: dos
start=2048, size=40960, type=7
TABLE
mkntfs_at "$wiped" 2048 40960
same_volumes "$wiped" 512 1
dd if=/dev/zero of="$wiped" bs=512 seek=2048 count=1 conv=notrunc status=none
no_volume "$wiped"

rc=0
"$VMFT" --disk "$work/missing.img" volumes >/dev/null 2>&1 || rc=$?
[[ $rc == 2 ]] || fail "a missing disk gives exit $rc, expected 2"
echo "ok: a missing disk is refused"
