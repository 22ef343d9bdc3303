#!/usr/bin/env bash
# Makes the NTFS volumes the volume file tests read, once per build tree (again when
# this script or ntfs_reparse.py changes): mkntfs, then an ntfs-3g mount (root) to fill them, then a few
# records broken on purpose. Usage: volume_files_images.sh OUT_DIR SHARED_DIR
# Without root or the tools it makes nothing, and the tests that need the images skip.
set -euo pipefail
out=$1 shared=$2
here=$(cd "$(dirname "$0")" && pwd)
stamp=$out/made-by-$(cat "$0" "$here/../integration/ntfs_reparse.py" | sha1sum | cut -c1-12)
[[ -f $stamp ]] && exit 0
rm -rf "$out" && mkdir -p "$out"
for tool in mkntfs ntfs-3g setfattr python3 ifind; do
  command -v "$tool" >/dev/null || { echo "no $tool: volume file images not made"; exit 0; }
done
[[ $(id -u) == 0 && -e /dev/fuse ]] || { echo "not root: volume file images not made"; exit 0; }
mnt=$(mktemp -d)
trap 'mountpoint -q "$mnt" && umount "$mnt"; rmdir "$mnt"' EXIT

volume() {  # IMAGE SIZE FILL-FUNCTION
  truncate -s "$2" "$1"
  mkntfs -F -Q -q -c 4096 "$1" >/dev/null 2>&1
  ntfs-3g -o streams_interface=xattr "$1" "$mnt"
  (cd "$mnt" && "$3")
  umount "$mnt"
}

# Reparse data as Windows writes it: $1 path, $2 tag (hex), $3 substitute name, $4 print name.
reparse() { python3 "$here/../integration/ntfs_reparse.py" "$@"; }

fill_files() {
  mkdir -p Windows/System32 "Program Files/Koru" "Program Files (x86)" ProgramData/Koru Users/Public/Documents \
    Users/alice/AppData/Local ProgramData/junction
  printf 'sample library\n' >Windows/System32/sample.dll
  ln Windows/System32/sample.dll Windows/sample.dll
  ln Windows/System32/sample.dll "Program Files/Koru/sample.dll"
  echo notes >Users/Public/Documents/notes.txt
  ln Users/Public/Documents/notes.txt ProgramData/Koru/notes.txt
  echo readme >ProgramData/readme.txt
  setfattr -n system.ntfs_dos_name -v READ~1.TXT ProgramData/readme.txt
  echo aliased >ProgramData/LongFileName.txt
  setfattr -n system.ntfs_dos_name -v LONGFI~1.TXT ProgramData/LongFileName.txt
  ln ProgramData/LongFileName.txt Users/alice/AppData/Local/LongFileName.txt
  echo wide >"ProgramData/$(python3 -c 'print("é" * 255)')"
  echo astral >"ProgramData/$(python3 -c 'print("L" * 253 + "\U0001F600")')"
  ln "ProgramData/$(python3 -c 'print("L" * 253 + "\U0001F600")')" "Windows/smile-$(python3 -c 'print("\U0001F600")').txt"
  echo many >Windows/many.dat
  for i in $(seq 1 40); do ln Windows/many.dat "Windows/System32/many-link-with-a-rather-long-name-$i.dat"; done
  echo gone >ProgramData/deleted.txt && rm ProgramData/deleted.txt
  ln Windows/sample.dll Windows/old.dll && rm Windows/old.dll
  echo secret >Users/alice/AppData/Local/secret.txt
  reparse ProgramData/junction A0000003 '\??\C:\Windows' 'C:\Windows'
  echo target >Windows/link-target.dll
  touch Windows/link.dll && reparse Windows/link.dll A000000C 'link-target.dll' 'link-target.dll'
  echo compact >Windows/compact.dll && reparse Windows/compact.dll 80000017 x x
}

fill_deep() {
  echo bottom >top.txt
  # Past 128 levels and 4096 bytes, where The Sleuth Kit's own path finder stops.
  (for i in $(seq 1 150); do mkdir "level-$i-of-a-deep-chain" && cd "level-$i-of-a-deep-chain"; done
   ln "$mnt/top.txt" bottom.txt)
  # Past the 32767 UTF-16 units Win32 hands out.
  (name=$(printf 'x%.0s' $(seq 1 200))
   for i in $(seq 1 170); do mkdir "$name" && cd "$name"; done
   echo far >far.txt)
}

fill_hostile() {
  mkdir -p loop/a/b self parent-of-itself
  echo f >loop/a/b/f.txt && ln loop/a/b/f.txt looped.txt
  echo c >self/child.txt
  echo n >bad-name.txt
}

# Breaks records of image $1 in place; each further argument is "COMMAND PATH [PATH]".
patch() {
  local img=$1 args=() cmd path other
  shift
  for change in "$@"; do
    read -r cmd path other <<<"$change"
    args+=("$cmd" "$(ifind -n "$path" "$img")" "$([[ -n $other ]] && ifind -n "$other" "$img" || echo 0)")
  done
  python3 - "$img" "${args[@]}" <<'EOF'
import struct, sys
img, args = sys.argv[1], sys.argv[2:]
data = bytearray(open(img, "rb").read())

def record(n):  # the 1 KiB record n, found by its number (the MFT of a fresh volume is one run)
    for at in range(0, len(data), 1024):
        if data[at:at + 4] == b"FILE" and struct.unpack_from("<I", data, at + 0x2C)[0] == n:
            return at
    sys.exit(f"record {n} not found")

def attributes(at, kind):  # offsets of the resident values of one attribute type
    a = at + struct.unpack_from("<H", data, at + 0x14)[0]
    while struct.unpack_from("<I", data, a)[0] != 0xFFFFFFFF:
        if struct.unpack_from("<I", data, a)[0] == kind:
            yield a + struct.unpack_from("<H", data, a + 0x14)[0]
        a += struct.unpack_from("<I", data, a + 4)[0]

def ref(n):
    return n | struct.unpack_from("<H", data, record(n) + 0x10)[0] << 48

for cmd, n, other in zip(args[0::3], map(int, args[1::3]), map(int, args[2::3])):
    at = record(n)
    if cmd == "parent":      # the file's names say their folder is `other`
        for fn in attributes(at, 0x30):
            struct.pack_into("<Q", data, fn, ref(other))
    elif cmd == "name-past-value":
        for fn in attributes(at, 0x30):
            data[fn + 0x40] = 200
    elif cmd == "encrypt":
        for si in attributes(at, 0x10):
            struct.pack_into("<I", data, si + 0x20, struct.unpack_from("<I", data, si + 0x20)[0] | 0x4000)
    elif cmd == "index-lists-itself":  # every entry of its index root points back at the folder
        for root in attributes(at, 0x90):
            e = root + 16 + struct.unpack_from("<I", data, root + 16)[0]
            while not data[e + 12] & 2:
                struct.pack_into("<Q", data, e, ref(n))
                e += struct.unpack_from("<H", data, e + 8)[0]
open(img, "r+b").write(data)
EOF
}

volume "$out/files.img" 24M fill_files
patch "$out/files.img" "encrypt Users/alice/AppData/Local/secret.txt"
volume "$out/deep.img" 64M fill_deep
volume "$out/hostile.img" 8M fill_hostile
patch "$out/hostile.img" "parent loop/a loop/a/b" "parent parent-of-itself parent-of-itself" \
  "name-past-value bad-name.txt" "index-lists-itself self"

# Real volumes: 100 links of one file kept in extension records (ntfs3), and 2 MiB
# clusters, which The Sleuth Kit refuses (its boot sector is all the test reads).
[[ -f $shared/images/windows-volumes/ntfs3_attrlist.raw.gz ]] &&
  gunzip -c "$shared/images/windows-volumes/ntfs3_attrlist.raw.gz" >"$out/attrlist.img"
[[ -f $shared/images/windows-volumes/ntfs-2m.raw.gz ]] &&
  { gunzip -c "$shared/images/windows-volumes/ntfs-2m.raw.gz" | head -c 4M >"$out/ntfs-2m.img" || true; } &&
  truncate -s 1G "$out/ntfs-2m.img"
touch "$stamp"
