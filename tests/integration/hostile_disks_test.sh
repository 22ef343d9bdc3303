#!/usr/bin/env bash
# The three services (vmft ranges, record, hlinfo) on hostile disks: copies of test
# volumes whose MFT records are corrupted at random (seeded: a failing seed repeats),
# disks that end inside the MFT, partition tables that loop or claim millions of
# entries, and cut or damaged VHDX and E01 containers. Every run must end in its
# time, exit 0, 1 or 2, give its reason on stderr when it fails, leave its trace, and
# never crash or trip a sanitizer. What the answers are is for the other tests.
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/containers.sh"
need mkntfs ntfs-3g sfdisk python3 qemu-img ewfacquire timeout
[[ $(id -u) == 0 && -e /dev/fuse ]] || skip "filling a volume needs an ntfs-3g mount (root)"
work=$(work_dir hostile-disks)
mkdir "$work/mnt"
trap 'mountpoint -q "$work/mnt" && umount "$work/mnt"; rm -rf "$work"' EXIT
vmft=$(private_vmft "$work")
# A sanitizer's own exit code, told apart from vmft's.
export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}exitcode=86 UBSAN_OPTIONS=${UBSAN_OPTIONS:+$UBSAN_OPTIONS:}exitcode=86
runs=0

# vmft --disk $1 with the rest as its command; $1 may be PATH[:SECTOR_SIZE].
survive() {
  local disk=$1 rc=0
  shift
  rm -f "$work/hl.ini" "$work/Logfiles/VMFT_trace.log"
  timeout -k 10 "${KORU_HOSTILE_SECONDS:-300}" "$vmft" --disk "$disk" "$@" >/dev/null 2>"$work/err" || rc=$?
  local what="$(basename "${disk%%:*}"): vmft $*"
  [[ $rc != 124 && $rc != 137 ]] || fail "$what: did not end in its time"
  ! grep -qE "Sanitizer|runtime error:" "$work/err" || fail "$what: $(head -c 3000 "$work/err")"
  [[ $rc -le 2 ]] || fail "$what: exit $rc: $(head -c 3000 "$work/err")"
  [[ $rc == 0 || -s $work/err ]] || fail "$what: exit $rc without a reason"
  # A refused disk is never handed to the library; anything else is traced.
  [[ $rc == 2 || -s $work/Logfiles/VMFT_trace.log ]] || fail "$what: no trace"
  runs=$((runs + 1))
  echo "$what: exit $rc $(head -n 1 "$work/err")"
}
# All three services on volume C of disk $1; further arguments are record numbers to dump.
services() {
  local disk=$1 n
  shift
  survive "$disk" ranges C
  survive "$disk" record C
  for n in "$@"; do survive "$disk" record C --record "$n"; done
  survive "$disk" hlinfo "$work/hl.ini" C
}

# A 24 MiB MBR disk, NTFS at 2048 with files of several names, and a Windows-made
# volume with a file of 100 names, an attribute list and extension records.
disk=$work/disk.img
new_disk "$disk" 24M
echo "2048,47104,7" | partition "$disk"
ntfs_with_links "$disk" 2048 47104 512 "$work/mnt"
attrlist=$(windows_image ntfs3_attrlist.raw.gz)

# A copy of image $1 (volume at byte $2) as $3, with $5 random records among the MFT's
# first 128 corrupted by seed $4 (record 0 too when $6 is 1): header fields, attribute
# fields, run lists, $FILE_NAME parents and name lengths, stray bytes. Prints the copy's
# path and three of the records corrupted.
corrupted() {
  cp --sparse=always "$1" "$3"
  python3 - "$3" "$2" "$4" "$5" "${6:-0}" <<'EOF' || fail "corrupting $3"
import random, struct, sys
path, volume, seed, count, with0 = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4]), sys.argv[5] == "1"
rng = random.Random(seed)
special = [0, 1, 2, 7, 8, 0x18, 0x48, 0x3FF, 0x400, 0x7FFF, 0xFFFF, 0xFFFFFFFF]
with open(path, "r+b") as disk:
    disk.seek(volume)
    boot = disk.read(512)
    spc = boot[0x0D] if boot[0x0D] <= 0x80 else 1 << (256 - boot[0x0D]) % 32
    mft = volume + struct.unpack_from("<Q", boot, 0x30)[0] * spc * struct.unpack_from("<H", boot, 0x0B)[0]
    chosen = [0] * with0 + rng.sample(range(1, 128), count)
    for r in chosen:
        disk.seek(mft + r * 1024)
        rec = bytearray(disk.read(1024))
        if rec[:4] != b"FILE":
            continue
        attributes, at = [], struct.unpack_from("<H", rec, 0x14)[0]
        while at + 0x18 <= 1024 and struct.unpack_from("<I", rec, at)[0] not in (0, 0xFFFFFFFF):
            attributes.append(at)
            at += max(struct.unpack_from("<H", rec, at + 4)[0], 8)
        def put(offset, size, value):
            if 0 <= offset and offset + size <= 1024:
                rec[offset:offset + size] = (value & (1 << 8 * size) - 1).to_bytes(size, "little")
        for _ in range(rng.randint(1, 4)):
            kind = rng.randrange(5)
            value = rng.choice(special) if rng.random() < 0.6 else rng.getrandbits(32)
            a = rng.choice(attributes) if attributes else 0x38
            if kind == 0:
                put(rng.choice([0x04, 0x06, 0x10, 0x12, 0x14, 0x16, 0x18, 0x1C, 0x20, 0x28, 0x2C]), 2, value)
            elif kind == 1:
                field = rng.choice([0x00, 0x04, 0x08, 0x09, 0x0A, 0x0C, 0x10, 0x14, 0x18, 0x20, 0x28, 0x30, 0x40])
                put(a + field, rng.choice([1, 2, 4, 8]), value)
            elif kind == 2 and rec[a + 8]:
                runs = a + struct.unpack_from("<H", rec, a + 0x20)[0]
                for i in range(rng.randint(1, 8)):
                    put(runs + i, 1, rng.getrandbits(8))
            elif kind == 3 and struct.unpack_from("<I", rec, a)[0] == 0x30 and not rec[a + 8]:
                value_at = a + struct.unpack_from("<H", rec, a + 0x14)[0]
                # A parent that is the record itself, another chosen one, or a name past its attribute.
                if rng.random() < 0.5:
                    put(value_at, 6, rng.choice([r] + chosen))
                else:
                    put(value_at + 0x40, 1, rng.choice([0x80, 0xFF, 0x20]))
            else:
                for _ in range(rng.randint(1, 16)):
                    put(rng.randrange(1024), 1, rng.getrandbits(8))
        disk.seek(mft + r * 1024)
        disk.write(rec)
    print(path, *chosen[:3])
EOF
}

# More seeds for a longer hunt: KORU_HOSTILE_SEEDS="9 10 ...".
for seed in ${KORU_HOSTILE_SEEDS:-1 2 3 4 5 6 7 8}; do
  copy=$(corrupted "$disk" $((2048 * 512)) "$work/c$seed.img" "$seed" 40 $((seed > 6)))
  services $copy
  copy=$(corrupted "$attrlist" 0 "$work/a$seed.img" "$seed" 40 $((seed > 6)))
  services $copy
  rm -f "$work/c$seed.img" "$work/a$seed.img"
done
echo "ok: volumes with corrupted MFT records"

# Disks that end inside the MFT: in record 0, in record 3's second half, after 40 records.
mft=$(python3 -c '
import struct, sys
d = open(sys.argv[1], "rb"); d.seek(2048 * 512); b = d.read(512)
print(2048 * 512 + struct.unpack_from("<Q", b, 0x30)[0] * b[0x0D] * 512)' "$disk")
for cut in $((mft + 512)) $((mft + 3 * 1024 + 700)) $((mft + 40 * 1024)); do
  cp --sparse=always "$disk" "$work/cut.img"
  truncate -s "$cut" "$work/cut.img"
  services "$work/cut.img" 3 39
done
echo "ok: 3 disks cut inside the MFT"

# Partition tables: logical partitions whose chain comes back to its first link or to
# itself, and GPTs that claim millions of entries (one of them 4096 bytes long). Each
# disk also holds the volume, so the scan has something to find on its way.
table() {
  cp --sparse=always "$disk" "$work/table.img"
  python3 - "$work/table.img" "$1" <<'EOF' || fail "writing partition table $1"
import struct, sys
path, kind = sys.argv[1], sys.argv[2]
def entry(kind, start, count):
    return struct.pack("<B3sB3sII", 0, b"\0\0\0", kind, b"\0\0\0", start, count)
with open(path, "r+b") as disk:
    def sector(lba, body):
        disk.seek(lba * 512)
        disk.write(body.ljust(510, b"\0") + b"\x55\xaa")
    if kind.startswith("ebr"):
        # Extended partition at 1000; its links at 1000 and 1500, the volume at 2048.
        sector(0, b"\0" * 446 + entry(7, 2048, 47104) + entry(5, 1000, 48000))
        back = 500 if kind == "ebr-self" else 0
        sector(1000, b"\0" * 446 + entry(7, 1048, 47104) + entry(5, 500, 1000))
        sector(1500, b"\0" * 446 + entry(7, 548, 47104) + entry(5, back, 1000))
    else:
        sector(0, b"\0" * 446 + entry(0xEE, 1, 0xFFFFFFFF))
        size = 4096 if kind == "gpt-wide" else 128
        header = b"EFI PART" + struct.pack("<IIIIQQQQ16sQII", 0x10000, 92, 0, 0, 1, 0, 34, 49000, b"\x11" * 16, 2,
                                           5_000_000, size)
        disk.seek(512)
        disk.write(header.ljust(512, b"\0"))
        disk.seek(1024)
        disk.write(bytes.fromhex("A2A0D0EBE5B9334487C068B6B72699C7") + b"\x22" * 16 + struct.pack("<QQ", 2048, 49151))
EOF
  services "$work/table.img"
}
for kind in ebr-loop ebr-self gpt-millions gpt-wide; do table "$kind"; done
echo "ok: 4 hostile partition tables"

# Containers: a VHDX and an E01 set cut short, and each with its data damaged.
qemu-img convert -O vhdx "$disk" "$work/disk.vhdx" || fail "qemu-img vhdx"
make_e01 "$disk" 512 "$work/disk"
cp "$work/disk.vhdx" "$work/cut.vhdx" && truncate -s $(($(stat -c %s "$work/disk.vhdx") / 2)) "$work/cut.vhdx"
cp "$work/disk.E01" "$work/cut.E01" && truncate -s $(($(stat -c %s "$work/disk.E01") / 2)) "$work/cut.E01"
python3 - "$work/disk.vhdx" "$work/disk.E01" <<'EOF' || fail "damaging the containers"
import os, random, sys
rng = random.Random(1)
for path in sys.argv[1:]:
    size = os.path.getsize(path)
    with open(path, "r+b") as f:
        for _ in range(64):  # past the headers, into the block table and the data
            f.seek(rng.randrange(size // 4, size))
            f.write(os.urandom(rng.randint(1, 64)))
EOF
for container in cut.vhdx cut.E01 disk.vhdx disk.E01; do services "$work/$container" 3; done
echo "ok: 4 damaged containers"
echo "ok: $runs runs ended in time, each with its reason"
