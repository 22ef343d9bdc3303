# Helpers of the container image tests (sourced after lib.sh): test disks with files
# of several names, and their conversion into every container format read.

# Formats NTFS into [START, START + COUNT) sectors of image $1 ($4-byte sectors) and
# fills it through an ntfs-3g mount at $5 with files of one, two and three names.
ntfs_with_links() {
  local img=$1 start=$2 count=$3 bps=$4 mnt=$5 part
  part=$(mktemp "$(dirname "$img")/part.XXXXXX")
  truncate -s $((count * bps)) "$part"
  mkntfs -F -Q -q -s "$bps" -p "$start" -H 255 -S 63 "$part" >/dev/null 2>&1 || fail "mkntfs at $start"
  ntfs-3g "$part" "$mnt" || skip "ntfs-3g cannot mount here"
  (cd "$mnt" && mkdir -p Windows/System32 "Program Files/Tool" ProgramData/Tool &&
    echo library >Windows/System32/tool.dll && ln Windows/System32/tool.dll "Program Files/Tool/tool.dll" &&
    head -c 300000 /dev/urandom >ProgramData/Tool/data.bin && ln ProgramData/Tool/data.bin Windows/data.bin &&
    ln ProgramData/Tool/data.bin data.bin && echo single >readme.txt) || fail "filling the volume at $start"
  for _ in 1 2 3 4 5; do umount "$mnt" 2>/dev/null && break; sleep 1; done
  mountpoint -q "$mnt" && fail "cannot unmount $mnt"
  dd if="$part" of="$img" bs="$bps" seek="$start" conv=notrunc,sparse status=none || fail "dd into $img"
  rm -f "$part"
}

# Sets the logical and physical sector size a VHDX records ($1 image, $2 bytes), as
# Hyper-V does for a disk of 4096-byte sectors; qemu-img always writes 512.
vhdx_sector_size() {
  python3 - "$1" "$2" <<'PY' || fail "cannot set the sector size of $1"
import struct, sys, uuid
path, size = sys.argv[1], int(sys.argv[2])
with open(path, "r+b") as f:
    d = f.read()
    table = 192 * 1024  # the first region table
    regions = [d[table + 16 + 32 * i:table + 48 + 32 * i] for i in range(struct.unpack_from("<I", d, table + 8)[0])]
    meta = next(struct.unpack_from("<Q", r, 16)[0] for r in regions
                if r[:16] == uuid.UUID("8B7CA206-4790-4B9A-B8FE-575F050F886E").bytes_le)
    items = {d[meta + 32 + 32 * i:meta + 48 + 32 * i]: struct.unpack_from("<I", d, meta + 48 + 32 * i)[0]
             for i in range(struct.unpack_from("<H", d, meta + 10)[0])}
    for item in ("8141BF1D-A96F-4709-BA47-F233A8FAAB5F", "CDA348C7-445D-4471-9CC9-E9885251C556"):
        f.seek(meta + items[uuid.UUID(item).bytes_le])
        f.write(struct.pack("<I", size))
PY
}

# An EnCase set of raw disk $1 ($2-byte sectors) named $3.E01, ...; $4 the segment
# size (ewfacquire's syntax), default one segment.
make_e01() {
  ewfacquire -u -q -c fast -P "$2" ${4:+-S "$4"} -t "$3" "$1" </dev/null >/dev/null 2>&1 || fail "ewfacquire $1"
}

# Converts raw disk $1 ($2-byte sectors) into every container, each in a folder of
# its own under $3: NAME.vhd (dynamic), NAME.vhd (fixed), NAME.vhdx, NAME.vmdk,
# NAME.E01 and the split raw parts NAME.001, ... (16 MiB each); prints the path of
# each, the first file of a set.
make_containers() {
  local raw=$1 bps=$2 dir=$3 name
  name=$(basename "${raw%.*}")
  mkdir -p "$dir"/{vhd,fixed,vhdx,vmdk,e01,split}
  qemu-img convert -O vpc -o force_size=on "$raw" "$dir/vhd/$name.vhd" || fail "qemu-img vpc"
  qemu-img convert -O vpc -o subformat=fixed,force_size=on "$raw" "$dir/fixed/$name.vhd" || fail "qemu-img vpc fixed"
  qemu-img convert -O vhdx "$raw" "$dir/vhdx/$name.vhdx" || fail "qemu-img vhdx"
  [[ $bps == 512 ]] || vhdx_sector_size "$dir/vhdx/$name.vhdx" "$bps"
  qemu-img convert -O vmdk "$raw" "$dir/vmdk/$name.vmdk" || fail "qemu-img vmdk"
  make_e01 "$raw" "$bps" "$dir/e01/$name"
  split -d -a 3 --numeric-suffixes=1 -b 16M "$raw" "$dir/split/$name." || fail "split $raw"
  fallocate -d "$dir/split/$name".0* 2>/dev/null || true  # sparse again where the file system can
  printf '%s\n' "$dir/vhd/$name.vhd" "$dir/fixed/$name.vhd" "$dir/vhdx/$name.vhdx" "$dir/vmdk/$name.vmdk" \
    "$dir/e01/$name.E01" "$dir/split/$name.001"
}

# A differencing disk made from dynamic disk $2 ($1: vhd or vhdx) as $3, whose parent
# is recorded as $4 (its blocks stay where they were: only the headers change).
make_differencing() {
  python3 - "$@" <<'PY' || fail "cannot make a differencing $1"
import struct, sys, uuid
kind, src, dst, parent = sys.argv[1:5]
d = bytearray(open(src, "rb").read())
def checksum(b, at):
    return ~(sum(b) - sum(b[at:at + 4])) & 0xFFFFFFFF
if kind == "vhd":  # footer: disk type 4; dynamic header: parent name and a W2ku locator
    footer = d[-512:]
    struct.pack_into(">I", footer, 60, 4)
    struct.pack_into(">I", footer, 64, checksum(footer, 64))
    d[-512:] = d[:512] = footer
    at = struct.unpack_from(">Q", footer, 16)[0]
    header = d[at:at + 1024]
    header[64:576] = parent.encode("utf-16-be").ljust(512, b"\0")
    locator = len(d) - 512
    d[locator:locator] = parent.encode("utf-16-le").ljust(512, b"\0")
    struct.pack_into(">4sIIIQ", header, 576, b"W2ku", 512, 2 * len(parent), 0, locator)
    struct.pack_into(">I", header, 36, checksum(header, 36))
    d[at:at + 1024] = header
else:  # metadata: the has-parent flag and a parent locator item
    guid = lambda text: uuid.UUID(text).bytes_le
    table = 192 * 1024
    meta = next(struct.unpack_from("<Q", d, table + 32 + 32 * i)[0] for i in range(struct.unpack_from("<I", d, table + 8)[0])
                if d[table + 16 + 32 * i:table + 32 + 32 * i] == guid("8B7CA206-4790-4B9A-B8FE-575F050F886E"))
    count, end = struct.unpack_from("<H", d, meta + 10)[0], 0
    for i in range(count):
        item = meta + 32 + 32 * i
        offset, length = struct.unpack_from("<II", d, item + 16)
        end = max(end, offset + length)
        if d[item:item + 16] == guid("CAA16737-FA36-4D43-B3B6-33F0AA44E76B"):
            d[meta + offset + 4] |= 2
    pairs = [("parent_linkage", "{%s}" % str(uuid.uuid4()).upper()), ("relative_path", parent),
             ("absolute_win32_path", parent)]
    value = guid("B04AEFB7-D19E-4A81-B789-25B8E9445913") + struct.pack("<HH", 0, len(pairs))
    strings, base = b"", len(value) + 12 * len(pairs)
    for key, text in pairs:
        k, v = key.encode("utf-16-le"), text.encode("utf-16-le")
        value += struct.pack("<IIHH", base + len(strings), base + len(strings) + len(k), len(k), len(v))
        strings += k + v
    value += strings
    offset = (end + 7) // 8 * 8
    d[meta + offset:meta + offset + len(value)] = value
    struct.pack_into("<16sIIII", d, meta + 32 + 32 * count, guid("A8D35F2D-B30B-454D-ABF7-D3D84834AB0C"), offset,
                     len(value), 4, 0)
    struct.pack_into("<H", d, meta + 10, count + 1)
open(dst, "wb").write(d)
PY
}
