#!/usr/bin/env bash
# vmft ranges on hostile disks: an mkntfs volume at sector 2048 of an MBR disk,
# patched one way per case. The library gives its documented answer (partial pairs,
# wrapped offsets, nothing at all); vmft must never pass it on as a success, but say
# why on stderr and exit 1. Also what vmft says of a missing or non-ASCII letter.
source "$(dirname "$0")/lib.sh"
need mkntfs sfdisk python3 istat fsstat

work=$(work_dir ranges-hostile)
trap 'rm -rf "$work"' EXIT

base=$work/intact.img
new_disk "$base" 40M
echo "2048,79872,7" | partition "$base"
mkntfs_at "$base" 2048 79872 512
same_ranges "$base" C 2048 512

# A copy of the intact disk named $1 with python code $2 applied; the code sees the
# image as `disk`, record 0's byte offset `rec`, its attributes' offsets in record 0
# as `data` ($DATA) and `after` (the one after it), the boot sector as `boot`, and
# put(offset, bytes) and runs(bytes) to write at an offset or over $DATA's run list.
patched() {
  local img=$work/$1.img
  cp --sparse=always "$base" "$img"
  python3 - "$img" "$2" <<'EOF' || fail "patching $1"
import struct, sys
path, code = sys.argv[1], sys.argv[2]
with open(path, "r+b") as disk:
    boot = 2048 * 512
    disk.seek(boot)
    sector = disk.read(512)
    rec = boot + struct.unpack_from("<Q", sector, 0x30)[0] * sector[0x0D] * 512
    disk.seek(rec)
    record = disk.read(1024)
    attributes, at = [], struct.unpack_from("<H", record, 0x14)[0]
    while struct.unpack_from("<I", record, at)[0] != 0xFFFFFFFF:
        attributes.append(at)
        at += struct.unpack_from("<I", record, at + 4)[0]
    data = next(a for a in attributes if struct.unpack_from("<I", record, a)[0] == 0x80)
    after = attributes[attributes.index(data) + 1]
    def put(offset, raw):
        disk.seek(offset)
        disk.write(raw)
    def runs(raw):
        put(rec + data + struct.unpack_from("<H", record, data + 0x20)[0], raw)
    exec(code)
EOF
  echo "$img"
}

# Fails unless `vmft --disk $1 ranges $2` exits $4 (default 1) with nothing on
# stdout and a reason on stderr that holds $3 and no internal function name.
refused() {
  local img=$1 letter=$2 want=$3 code=${4:-1} out err rc=0
  out=$("$VMFT" --disk "$img" ranges "$letter" 2>"$work/stderr") || rc=$?
  err=$(<"$work/stderr")
  [[ $rc == "$code" && -z $out ]] || fail "$(basename "$img") $letter: exit $rc, stdout '$out', stderr '$err'"
  [[ $err == *"$want"* && $err != *::* ]] || fail "$(basename "$img") $letter: stderr '$err', not '$want'"
  echo "ok: $(basename "$img") $letter: $err"
}

# The $DATA after the MFT's own is resident: the library leaves its pairs volume-relative.
refused "$(patched resident-data 'put(rec + after, struct.pack("<I", 0x80)); put(rec + after + 8, b"\0")')" C \
  "does not map the whole MFT"
# Run offsets that wrap: before the volume, past the disk's end, and an end before the start.
refused "$(patched before-volume 'runs(bytes([0x11, 0x10, 0xFF, 0]))')" C "lies outside volume C:"
refused "$(patched past-disk 'runs(bytes([0x31, 0x10, 0, 0, 0x40, 0]))')" C "lies outside volume C:"
refused "$(patched reversed 'runs(bytes([0x22, 0, 0x10, 0x18, 0xFC, 0]))')" C "is empty or reversed"
refused "$(patched baad 'put(rec, b"BAAD")')" C 'is not signed "FILE" (it begins "BAAD")'
refused "$(patched no-cluster-size 'put(boot + 0x0D, b"\0")')" C "gives no cluster size"
refused "$(patched mft-past-end 'put(boot + 0x30, struct.pack("<Q", 1 << 40))')" C "lies past the end of the disk"
cut=$(patched cut-in-mft 'disk.truncate(rec + 512)')
refused "$cut" C "lies past the end of the disk"

# BitLocker: the library announces it on stdout, as a hard-link scan expects.
bitlocker=$KORU_SHARED_DIR/images/bitlocker/bitlk-aes-xts-128.first64k
if [[ -r $bitlocker ]]; then
  rc=0
  "$VMFT" --disk "$bitlocker" ranges C >/dev/null 2>"$work/stderr" || rc=$?
  [[ $rc == 1 && $(<"$work/stderr") == *"C: is a BitLocker volume"* ]] || fail "BitLocker: exit $rc, $(<"$work/stderr")"
fi
refused "$base" D "there is no volume D:"
refused "$base" É "not a drive letter: É" 2
