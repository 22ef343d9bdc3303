#!/usr/bin/env python3
"""Grows the MFT of a fresh mkntfs volume to RECORDS file records, written directly.

Usage: synth_mft.py IMAGE RECORDS LINKED

IMAGE is a bare NTFS volume just made by `mkntfs -c 4096` and large enough (about
2.6 x RECORDS KiB). Its $MFT keeps the records mkntfs wrote and grows into the free
clusters after them, then into the next free run (two ranges, as a volume that has
lived a while has). Half of the new records are free (deleted files and blank
records), LINKED are files with two or three names in the root folder, the rest
files with one. No folder indexes them: they are for the MFT scan and for The Sleuth
Kit's `ils`, which read records, not folders. $Bitmap marks the new clusters; the
$MFT's own record bitmap is left as it was.
"""
import random
import struct
import sys

image, records, linked = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
RECORD = 1024
f = open(image, "r+b")

boot = f.read(512)
sector = struct.unpack_from("<H", boot, 0x0B)[0]
cluster = sector * boot[0x0D]
mft_lcn = struct.unpack_from("<Q", boot, 0x30)[0]
if cluster != 4096 or boot[0x40] != 0xF6:
    sys.exit("synth_mft: expected 4096-byte clusters and 1024-byte records")


def read_record(offset):
    f.seek(offset)
    rec = bytearray(f.read(RECORD))
    usa = struct.unpack_from("<H", rec, 4)[0]
    for i in range(1, struct.unpack_from("<H", rec, 6)[0]):  # undo the fix-ups
        rec[i * 512 - 2:i * 512] = rec[usa + 2 * i:usa + 2 * i + 2]
    return rec


def fix_up(rec, usn=b"\x01\x00"):
    rec[0x30:0x32] = usn
    rec[0x32:0x34] = rec[0x1FE:0x200]
    rec[0x34:0x36] = rec[0x3FE:0x400]
    rec[0x1FE:0x200] = usn
    rec[0x3FE:0x400] = usn


def attributes(rec):
    at = struct.unpack_from("<H", rec, 0x14)[0]
    while struct.unpack_from("<I", rec, at)[0] != 0xFFFFFFFF:
        length = struct.unpack_from("<I", rec, at + 4)[0]
        yield at, length
        at += length


def decode_runs(attr):
    runs, at, lcn = [], struct.unpack_from("<H", attr, 0x20)[0], 0
    while attr[at]:
        lsize, osize = attr[at] & 15, attr[at] >> 4
        length = int.from_bytes(attr[at + 1:at + 1 + lsize], "little")
        delta = int.from_bytes(attr[at + 1 + lsize:at + 1 + lsize + osize], "little", signed=True)
        lcn += delta
        runs.append((lcn, length))
        at += 1 + lsize + osize
    return runs


def encode_runs(runs):
    out, previous = bytearray(), 0
    for lcn, length in runs:
        lb = length.to_bytes((length.bit_length() + 8) // 8, "little")
        delta = lcn - previous
        ob = delta.to_bytes((delta.bit_length() + 8) // 8 + (1 if delta < 0 else 0), "little", signed=True)
        out += bytes([len(ob) << 4 | len(lb)]) + lb + ob
        previous = lcn
    out += b"\0"
    return out + b"\0" * (-len(out) % 8)


def data_attr(rec):
    for at, length in attributes(rec):
        if struct.unpack_from("<I", rec, at)[0] == 0x80 and rec[at + 9] == 0:
            return at, length
    sys.exit("synth_mft: no unnamed $DATA")


mft0 = read_record(mft_lcn * cluster)
at, length = data_attr(mft0)
old_runs = decode_runs(mft0[at:at + length])
old_records = struct.unpack_from("<Q", mft0, at + 0x30)[0] // RECORD

# Free clusters from $Bitmap (record 6).
rec6 = read_record(mft_lcn * cluster + 6 * RECORD)
at6, len6 = data_attr(rec6)
bitmap_runs = decode_runs(rec6[at6:at6 + len6])
bitmap = bytearray()
for lcn, n in bitmap_runs:
    f.seek(lcn * cluster)
    bitmap += f.read(n * cluster)
total_clusters = struct.unpack_from("<Q", boot, 0x28)[0] * sector // cluster


def used(c):
    return bitmap[c >> 3] >> (c & 7) & 1


need = (records * RECORD + cluster - 1) // cluster - sum(n for _, n in old_runs)
new_runs = list(old_runs)
c = old_runs[-1][0] + old_runs[-1][1]  # grow in place first
while need > 0:
    while c < total_clusters - 1 and used(c):
        c += 1
    start = c
    while c < total_clusters - 1 and not used(c) and c - start < need:
        c += 1
    if c == start:
        sys.exit("synth_mft: the volume is too small for %d records" % records)
    if new_runs and new_runs[-1][0] + new_runs[-1][1] == start:
        new_runs[-1] = (new_runs[-1][0], new_runs[-1][1] + c - start)
    else:
        new_runs.append((start, c - start))
    for b in range(start, c):
        bitmap[b >> 3] |= 1 << (b & 7)
    need -= c - start

# $MFT's record 0 with the new run list and sizes; the attributes after it move.
header = bytearray(mft0[at:at + struct.unpack_from("<H", mft0, at + 0x20)[0]])
clusters = sum(n for _, n in new_runs)
struct.pack_into("<Q", header, 0x18, clusters - 1)
struct.pack_into("<QQQ", header, 0x28, clusters * cluster, records * RECORD, records * RECORD)
new_data = header + encode_runs(new_runs)
struct.pack_into("<I", new_data, 4, len(new_data))
end = struct.unpack_from("<I", mft0, 0x18)[0]
body = mft0[:at] + new_data + mft0[at + length:end]
struct.pack_into("<I", body, 0x18, len(body))
mft0 = body + bytearray(RECORD - len(body))
fix_up(mft0)
f.seek(mft_lcn * cluster)
f.write(mft0)
mirror = struct.unpack_from("<Q", boot, 0x38)[0]
f.seek(mirror * cluster)
f.write(mft0)
written = 0
for lcn, n in bitmap_runs:
    f.seek(lcn * cluster)
    f.write(bitmap[written:written + n * cluster])
    written += n * cluster


# --- the new records ------------------------------------------------------------------
def attr(kind, value, ident, indexed=0):
    a = struct.pack("<IIBBHHHIHBB", kind, 0, 0, 0, 0x18, 0, ident, len(value), 0x18, indexed, 0) + value
    a += b"\0" * (-len(a) % 8)
    return a[:4] + struct.pack("<I", len(a)) + a[8:]


FILETIME = 132500000000000000


def file_name(name, size):
    return struct.pack("<QQQQQQQIIBB", 5 | 5 << 48, FILETIME, FILETIME, FILETIME, FILETIME, size + 7 & ~7, size,
                       0x20, 0, len(name), 1) + name.encode("utf-16-le")


def template(flags, names, size):
    si = struct.pack("<QQQQIIIIIIQQ", FILETIME, FILETIME, FILETIME, FILETIME, 0x20, 0, 0, 0, 0, 0x100, 0, 0)
    body = attr(0x10, si, 0)
    name_at = []
    for i, name in enumerate(names):
        name_at.append(0x38 + len(body) + 0x18 + 66 + 2)  # the first digit, after the letter
        body += attr(0x30, file_name(name, size), 1 + i, indexed=1)
    if names:
        body += attr(0x80, bytes(range(size)), len(names) + 1)
    body += struct.pack("<II", 0xFFFFFFFF, 0)
    hdr = struct.pack("<4sHHQHHHHIIQHHI", b"FILE", 0x30, 3, 0, 1, len(names), 0x38, flags, 0x38 + len(body), RECORD, 0,
                      len(names) + 2, 0, 0)
    rec = bytearray(hdr + b"\0" * 8 + body)
    return rec + bytearray(RECORD - len(rec)), name_at


single, single_names = template(1, ["f0000000.dat"], 40)
deleted, deleted_names = template(0, ["d0000000.dat"], 24)
blank, _ = template(0, [], 0)
double, double_names = template(1, ["f0000000.dat", "g0000000.dat"], 64)
triple, triple_names = template(1, ["f0000000.dat", "g0000000.dat", "h0000000.dat"], 56)

rng = random.Random(7)
stride = (records - old_records) / linked if linked else 0
next_linked = old_records + stride / 2 if linked else records


def record(number):
    global next_linked
    if number >= next_linked:
        next_linked += stride
        rec, at = (triple, triple_names) if rng.random() < 0.3 else (double, double_names)
    else:
        r = rng.random()
        rec, at = (single, single_names) if r < 0.49 else (deleted, deleted_names) if r < 0.9 else (blank, [])
    rec = bytearray(rec)
    struct.pack_into("<H", rec, 0x10, 1 + number % 5)
    struct.pack_into("<I", rec, 0x2C, number)
    digits = ("%07d" % (number % 10**7)).encode("utf-16-le")
    for a in at:
        rec[a:a + 14] = digits
    fix_up(rec)
    return rec


number, vcn = old_records, 0
for lcn, n in new_runs:
    first = max(number, vcn * cluster // RECORD)
    last = min(records, (vcn + n) * cluster // RECORD)
    f.seek(lcn * cluster + (first * RECORD - vcn * cluster))
    chunk = bytearray()
    for number in range(first, last):
        chunk += record(number)
        if len(chunk) >= 1 << 22:
            f.write(chunk)
            chunk = bytearray()
    f.write(chunk)
    number = last
    vcn += n
f.close()
print("records=%d linked=%d runs=%s" % (records, linked, new_runs))
