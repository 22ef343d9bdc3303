# Shared helpers for the integration scripts (sourced).
set -euo pipefail
: "${VMFT:?}" "${KORU_SOURCE_DIR:?}" "${KORU_SHARED_DIR:?}" "${KORU_WORK_DIR:?}"
mkdir -p "$KORU_WORK_DIR"
# Every test runs a copy of its own: the trace log is written beside the executable,
# and tests run in parallel.
if [[ $VMFT != "$KORU_WORK_DIR"/bin/* ]]; then
  mkdir -p "$KORU_WORK_DIR/bin/$(basename "$0" .sh)"
  cp -f "$VMFT" "$KORU_WORK_DIR/bin/$(basename "$0" .sh)/vmft"
  VMFT=$KORU_WORK_DIR/bin/$(basename "$0" .sh)/vmft
fi

fail() { echo "FAIL: $*" >&2; exit 1; }
skip() { echo "SKIP: $*" >&2; exit 77; }
need() { for tool in "$@"; do command -v "$tool" >/dev/null || skip "$tool not installed"; done; }

# --- disk images ----------------------------------------------------------------
# A fresh work directory for one test, emptied again when the test ends (the
# unpacked Windows images under $KORU_WORK_DIR/images stay for the next run).
work_dir() {
  local dir=$KORU_WORK_DIR/$1
  rm -rf "$dir" && mkdir -p "$dir"
  echo "$dir"
}

# An empty (sparse) disk image: $1 path, $2 size (truncate syntax: 64M, ...).
new_disk() { rm -f "$1" && truncate -s "$2" "$1"; }

# Writes a partition table from an sfdisk script on stdin: $1 image.
partition() { sfdisk -q --wipe always "$1" >/dev/null 2>&1 || fail "sfdisk on $1"; }

# Formats NTFS into [START, START + COUNT) sectors of image $1 ($2 START, $3 COUNT, $4
# the disk's sector size, default 512, $5 the cluster size, default mkntfs's): mkntfs
# on a file of the partition's size, told where the partition starts, then written
# into place.
mkntfs_at() {
  local img=$1 start=$2 count=$3 bps=${4:-512} cluster=${5:-} part
  part=$(mktemp "$(dirname "$img")/part.XXXXXX")
  truncate -s $((count * bps)) "$part"
  mkntfs -F -Q -q -s "$bps" ${cluster:+-c "$cluster"} -p "$start" -H 255 -S 63 "$part" >/dev/null 2>&1 ||
    fail "mkntfs at $start"
  dd if="$part" of="$img" bs="$bps" seek="$start" conv=notrunc,sparse status=none || fail "dd into $img"
  rm -f "$part"
}

# Attaches image $1 as a loop device with $2-byte sectors and prints its path;
# skips the test where loop devices cannot be made. Detach with losetup -d.
loop_attach() {
  [[ $(id -u) == 0 ]] || skip "loop devices need root"
  losetup -b "$2" -f --show "$1" 2>/dev/null || skip "no loop device with $2-byte sectors here"
}

# Unpacks a real Windows disk from $KORU_SHARED_DIR/images/windows-volumes once and
# prints the image's path: $1 archive name.
windows_image() {
  local dir=$KORU_WORK_DIR/images src=$KORU_SHARED_DIR/images/windows-volumes/$1 out
  mkdir -p "$dir"
  [[ -f $src ]] || skip "$1 is not in the shared images"
  case $1 in
    ntfs.tgz) out=$dir/ntfs.raw
      [[ -f $out ]] || tar -xSzf "$src" -C "$dir" || fail "unpack $1" ;;
    10b-ntfs-autodetect.zip) out=$dir/10-ntfs-disk.dd
      [[ -f $out ]] || { unzip -o -j -q "$src" '*10-ntfs-disk.dd' -d "$dir" || fail "unpack $1"; } ;;
    *.gz) out=$dir/${1%.gz}
      [[ -f $out ]] || { gunzip -c "$src" >"$out.tmp" && mv "$out.tmp" "$out" || fail "unpack $1"; } ;;
    *) fail "no recipe for $1" ;;
  esac
  [[ -f $out ]] || fail "$1 did not hold $(basename "$out")"
  echo "$out"
}

# What mmls (The Sleuth Kit) sees on image $1 with $2-byte sectors: one line per
# partition whose first sector carries the NTFS or BitLocker OEM id, as
# "OFFSET LENGTH KIND" in bytes, in table order. Extended-partition containers and
# unformatted partitions drop out because their first sector carries neither id.
mmls_volumes() {
  local img=$1 bps=$2
  mmls -b "$bps" "$img" 2>/dev/null | python3 -c '
import re, sys
img, bps = sys.argv[1], int(sys.argv[2])
seen = set()
with open(img, "rb") as disk:
    for line in sys.stdin:
        m = re.match(r"\s*\d+:\s+(\S+)\s+(\d+)\s+(\d+)\s+(\d+)", line)
        if not m or m.group(1) in ("Meta", "-------"):
            continue
        start, length = int(m.group(2)), int(m.group(4))
        if start in seen:
            continue
        seen.add(start)
        disk.seek(start * bps + 3)
        oem = disk.read(8)
        kind = {b"NTFS    ": "NTFS", b"-FVE-FS-": "BitLocker"}.get(oem)
        if kind:
            print(start * bps, length * bps, kind)
' "$img" "$bps"
}

# vmft's volumes as "OFFSET LENGTH KIND" lines in its own order (letters C, D, ...
# in turn), after checking that every entry of the JSON is on disk 0 with $2-byte
# sectors and a well-formed volume name: $1 disk argument (PATH[:SECTOR_SIZE]), $2
# sector size, further arguments go to vmft before the subcommand.
vmft_volumes() {
  local arg=$1 bps=$2 json
  shift 2
  json=$("$VMFT" --disk "$arg" "$@" volumes --json) || fail "vmft volumes failed on $arg"
  python3 -c '
import json, re, sys
bps = int(sys.argv[1])
volumes = json.loads(sys.stdin.read())
for i, v in enumerate(volumes):
    assert v["letter"] == chr(ord("C") + i), ("letter", v)
    assert v["disk"] == 0, ("disk", v)
    assert v["bytes_per_sector"] == bps, ("bytes_per_sector", v)
    assert re.fullmatch(r"\\\\\?\\Volume\{[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\}\\", v["volume_name"]), v
    print(v["offset"], v["length"], v["kind"])
' "$bps" <<<"$json" || fail "vmft volumes --json on $arg: $json"
}

# Fails unless vmft lists exactly the volumes mmls shows, and exactly $3 of them:
# $1 disk argument for vmft, $2 sector size, $3 count.
same_volumes() {
  local arg=$1 bps=$2 count=$3 ours theirs
  ours=$(vmft_volumes "$arg" "$bps")
  theirs=$(mmls_volumes "${arg%%:*}" "$bps")
  if [[ $ours != "$theirs" ]]; then
    diff <(echo "$ours") <(echo "$theirs") >&2 || true
    fail "$(basename "${arg%%:*}"): vmft volumes differ from mmls"
  fi
  [[ $(grep -c . <<<"$ours") == "$count" ]] || fail "$(basename "${arg%%:*}"): expected $count volumes, got: $ours"
  echo "ok: $(basename "${arg%%:*}"): $count volume(s) as mmls shows them"
}

# --- the MFT range tests
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

# --- the hard-link info file
# Runs $3... in volume image $1 mounted by ntfs-3g at $2 (a failing step fails the
# test), then unmounts it.
ntfs3g_fill() {
  local vol=$1 mnt=$2
  shift 2
  ntfs-3g "$vol" "$mnt" || skip "ntfs-3g cannot mount here"
  (cd "$mnt"; "$@")
  # A FUSE volume may still be busy for a moment after the last write.
  for try in 1 2 3 4 5; do umount "$mnt" 2>/dev/null && break; sleep 1; done
  mountpoint -q "$mnt" && fail "cannot unmount the volume"
  return 0
}

# Makes disk image $2 anew: volume image $1 as the one partition of an MBR disk, at
# sector 2048, with 1 MiB after it.
mbr_disk() {
  local vol=$1 disk=$2
  truncate -s 0 "$disk" && truncate -s $((2048 * 512)) "$disk" && cat "$vol" >>"$disk" && truncate -s +1M "$disk"
  echo "2048,$(($(stat -c %s "$vol") / 512)),7" | sfdisk -q --wipe never "$disk" >/dev/null 2>&1 || fail "sfdisk"
}

# Makes $1 on an ntfs-3g mount a real reparse point: $2 tag (hex), $3 substitute and
# $4 print name.
reparse() { python3 "$KORU_SOURCE_DIR/tests/integration/ntfs_reparse.py" "$@"; }

# The info file vmft must write for the volume at sector $3 of image $1 ($2-byte
# sectors, drive letter $4), after its banner, date and empty line, as The Sleuth
# Kit reads the volume: the names of each regular file from fls -r -p grouped by MFT
# entry, its size from fls -l, and the name the file system gives first from the
# order of istat's $FILE_NAME attributes. A file with two names or more gets a
# section unless its first name lies in a skipped place; its other names in skipped
# places are left out, and a file left with one name gets none. Bytes as the file
# holds them: Latin-1, CR LF, cut before the first character above U+00FF.
# With roots after $4 (volume paths such as "Program Files", "Users/*/AppData" for
# each folder of Users), the answer of the directory walk instead: only files met
# walking the roots that exist, in order, depth first in NTFS name order, past no
# reparse point and into no folder of the walk's skip list; the name met first is the
# one checked against the skip list, and the key is sequence << 48 | entry.
tsk_hlinfo() {
  python3 - "$@" <<'PY'
import os, re, subprocess, sys
img, bps, start, letter = sys.argv[1:5]
roots = sys.argv[5:]
tsk = ["-f", "ntfs", "-b", bps, "-o", start]
def run(*args):
    return subprocess.run(args, check=True, capture_output=True).stdout.decode("utf-8", "surrogateescape")
dirs, names, sizes, children, stats = {"": 5}, {}, {}, {}, {}
for line in run("fls", *tsk, "-l", "-r", "-p", "-u", img).splitlines():
    m = re.match(r"(\S)/\S (\d+)-(\d+)-\d+:\t([^\t]*)\t(?:[^\t]*\t){4}(\d+)\t", line)
    if not m or m.group(4).startswith("$OrphanFiles"):
        continue
    kind, entry, attr, path, size = m.group(1), int(m.group(2)), m.group(3), m.group(4), int(m.group(5))
    if kind == "d":
        dirs[path] = entry
    elif kind == "r" and attr == "128" and ":" not in os.path.basename(path):
        names.setdefault(entry, []).append(path)
        sizes[entry] = size
    else:
        continue
    children.setdefault(os.path.dirname(path), []).append((os.path.basename(path), path, kind, entry))
def istat(entry):
    if entry not in stats:
        stats[entry] = run("istat", *tsk, img, str(entry))
    return stats[entry]
skipped = ["\\duskcfg\\boot\\", "\\fernacfg\\boot\\", "\\glimcfg\\boot\\", "\\hollcfg\\boot\\", "\\ivlocfg\\boot\\",
           "\\jastcfg\\boot\\", "\\lumecfg\\boot\\", "\\$extend\\", "\\$recycle.bin\\", "\\logfiles\\vmft_trace.log",
           "\\microsoft\\diagnosis\\", "\\microsoft\\windows defender\\scans\\history",
           "\\microsoft\\windows\\systemdata\\", "\\system volume information\\",
           "\\windows\\resources\\themes\\aero\\vscache\\", "\\windows\\softwaredistribution\\download\\",
           "\\windows\\system32\\logfiles\\wmi\\rtbackup\\", "\\windows\\temp\\",
           "\\windows\\winsxs\\temp\\pendingdeletes\\", "\\appdata\\local\\temp\\",
           "\\windows defender advanced threat protection\\cache\\"]
not_entered = ["\\Microsoft\\CLR Security Config\\", "\\Internet Explorer\\DomainSuggestions\\",
               "\\Secure Islands\\IQProtector\\", "\\Temporary Internet Files\\", "\\Kaspersky Lab\\",
               "\\Crypto\\RSA\\MachineKeys\\"]
def win(path):
    return letter + ":\\" + path.replace("/", "\\")
def skip(path):
    low = "".join(c.lower() if c < "\x80" else c for c in win(path))
    return any(f in low for f in skipped)
def listed_in(folder):
    return [c for c in sorted(children.get(folder, []), key=lambda c: c[0].upper())
            if "$REPARSE_POINT" not in istat(c[3])]
met = {}
def walk(folder):
    for name, path, kind, entry in listed_in(folder):
        if kind == "r":
            met.setdefault(entry, path)
        elif not any(f in win(path) for f in not_entered):
            walk(path)
for root in roots:
    parent, star, rest = root.partition("/*/")
    for path in [parent + "/" + c[0] + "/" + rest for c in listed_in(parent) if c[2] == "d"] if star else [root]:
        if path in dirs:
            walk(path)
out, sections, total = "", [], 0
for entry, paths in names.items():
    if len(paths) < 2 or (roots and entry not in met):
        continue
    # istat lists the $FILE_NAME attributes in record order, DOS names among them.
    info = istat(entry)
    order = re.findall(r"^Name: (.*)\nParent MFT Entry: (\d+)", info, re.M)
    first = next(p for n, parent in order for p in paths
                 if os.path.basename(p) == n and dirs.get(os.path.dirname(p)) == int(parent))
    if skip(met[entry] if roots else first):
        continue
    listed = [first] + [p for p in paths if p != first and not skip(p)]
    if len(listed) < 2:
        continue
    listed.sort(key=lambda p: "".join(c.lower() if c < "\x80" else c for c in win(p)))
    sequence = int(re.search(r"^Entry: \d+\s+Sequence: (\d+)", info, re.M).group(1))
    sections.append((sequence << 48 | entry if roots else entry, listed, sizes[entry]))
for key, listed, size in sorted(sections):
    out += "[%012x]\n" % key
    out += "".join("File%d=%s\n" % (i, win(p)) for i, p in enumerate(listed))
    out += "Count=%d\nSize=%d\n" % (len(listed), size)
    total += size
out += "[Totals]\nSections=%d\nBytes=%d\n" % (len(sections), total)
cut = next((i for i, c in enumerate(out) if ord(c) > 0xFF), len(out))
sys.stdout.buffer.write(out[:cut].replace("\n", "\r\n").encode("latin-1"))
PY
}

# A copy of vmft whose trace log (Logfiles/ beside it) no other test writes: $1 directory.
private_vmft() { cp -f "$VMFT" "$1/vmft" && echo "$1/vmft"; }

# Fails unless info file $1 is $2 after its banner, date and empty line; $3 names the
# volume in messages.
same_info_file() {
  local out=$1 expected=$2 what=$3 banner date
  [[ -f $out ]] || fail "$what: vmft wrote no info file"
  if ! cmp -s <(tail -n +4 "$out") "$expected"; then
    diff <(tail -n +4 "$out" | iconv -f latin1 -t utf-8) <(iconv -f latin1 -t utf-8 "$expected") >&2 || true
    fail "$what: the info file differs from what fls and istat predict"
  fi
  banner=$(head -n 1 "$out") date=$(sed -n 2p "$out")
  [[ $banner == "; Varnel generated file for ($(hostname)) - do not edit"$'\r' ]] || fail "banner: $banner"
  [[ $date =~ ^\;\ Generated\ on\ [0-3][0-9]\ [A-Z][a-z]{2}\ [0-9]{4}\ at\ [0-2][0-9]:[0-5][0-9]:[0-5][0-9]$'\r'$ ]] ||
    fail "date line: $date"
  [[ $(sed -n 3p "$out") == $'\r' ]] || fail "no empty line after the date"
}

# Fails unless `vmft hlinfo` writes exactly what tsk_hlinfo predicts for volume $2 of
# disk $1 (PATH[:SECTOR_SIZE]), at sector $3 of $4-byte sectors; $5 is the private
# vmft. Skips while the file-level calls are not implemented on this platform.
same_hlinfo() {
  local disk=$1 letter=$2 start=$3 bps=$4 vmft=$5 dir out expected
  dir=$(dirname "$vmft")
  out=$dir/hlinfo-$letter.ini expected=$dir/expected-$letter.ini
  rm -f "$out"
  "$vmft" --disk "$disk" hlinfo "$out" "$letter" >"$dir/progress" || fail "vmft hlinfo $letter failed on $disk"
  grep -qx $'\t... progress 100%' "$dir/progress" || fail "$disk $letter: no progress to 100%"
  tsk_hlinfo "${disk%%:*}" "$bps" "$start" "$letter" >"$expected" || fail "tsk_hlinfo on $disk"
  if [[ ! -f $out ]] || ! cmp -s <(tail -n +4 "$out") "$expected"; then
    grep -q 'ending(OpenFileById() failed) : dwLastError = 120' "$dir/Logfiles/VMFT_trace.log" &&
      skip "the file-level calls are not implemented here (ERROR_CALL_NOT_IMPLEMENTED)"
  fi
  same_info_file "$out" "$expected" "$disk $letter"
  echo "ok: $(basename "${disk%%:*}") $letter: $(grep -c '^Count=' "$expected") section(s) as fls and istat predict"
}
