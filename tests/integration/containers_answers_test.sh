#!/usr/bin/env bash
# The mkntfs test disks (MBR with two volumes, GPT, 4096-byte sectors, each volume
# with files of several names) as VHD (dynamic and fixed), VHDX, VMDK, E01 (one
# segment, and for the MBR disk 1 MiB segments) and split raw: vmft volumes, ranges,
# record and hlinfo give byte for byte the raw disk's answers, vmft volumes names the
# container's format, and no file of any image changes (bytes and mtime) under any
# service. Skips at the end (77) while `record` or `hlinfo` is not a subcommand yet.
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/containers.sh"
need mkntfs ntfs-3g sfdisk losetup qemu-img ewfacquire split python3 sha1sum
[[ $(id -u) == 0 && -e /dev/fuse ]] || skip "needs root and FUSE to fill the volumes"
work=$(work_dir containers-answers)
mkdir "$work/mnt"
loop=""
cleanup() {
  mountpoint -q "$work/mnt" && umount "$work/mnt"
  [[ -z $loop ]] || losetup -d "$loop" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
# Its own copy, so that its trace log is no other test's.
vmft=$work/vmft
cp "$VMFT" "$vmft"
missing=()
for sub in record hlinfo; do
  "$vmft" --help | grep -qE "^  $sub " || missing+=("$sub")
done

# --- the raw disks
mkdir "$work"/raw-{mbr,gpt,gpt4k}
mbr=$work/raw-mbr/mbr.img
new_disk "$mbr" 64M
partition "$mbr" <<'TABLE'
label: dos
label-id: 0x5eed0001
start=2048, size=32768, type=7
start=51200, size=40960, type=7
TABLE
ntfs_with_links "$mbr" 2048 32768 512 "$work/mnt"
ntfs_with_links "$mbr" 51200 40960 512 "$work/mnt"
# Data that does not compress, between the volumes, so that 1 MiB segments are several.
head -c 3M /dev/urandom | dd of="$mbr" bs=512 seek=34816 conv=notrunc status=none

gpt=$work/raw-gpt/gpt.img
new_disk "$gpt" 48M
partition "$gpt" <<'TABLE'
label: gpt
start=2048, size=65536, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7
TABLE
ntfs_with_links "$gpt" 2048 65536 512 "$work/mnt"

disks=("$mbr 512" "$gpt 512")
gpt4k=$work/raw-gpt4k/gpt4k.img
new_disk "$gpt4k" 64M
if loop=$(losetup -b 4096 -f --show "$gpt4k" 2>/dev/null); then
  partition "$loop" <<'TABLE'
label: gpt
start=256, size=12288, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7
TABLE
  sync && losetup -d "$loop" && loop=""
  ntfs_with_links "$gpt4k" 256 12288 4096 "$work/mnt"
  disks+=("$gpt4k 4096")
else
  echo "no loop device with 4096-byte sectors here: the 4K disk is left out"
fi

# --- what vmft answers for a disk
# Fingerprints of every file under $1: content and mtime.
fingerprint() { find "$1" -type f -exec sha1sum {} + | sort; find "$1" -type f -printf '%p %T@\n' | sort; }

# All answers for disk $1, whose files are all of folder $2 (checked unchanged after
# every service), the disk's own path and format aside; the format into $3.
answers() {
  local disk=$1 dir=$2 format_file=$3 before letters letter n
  before=$(fingerprint "$dir")
  unchanged() { [[ $(fingerprint "$dir") == "$before" ]] || fail "$(basename "$disk"): $1 changed the image"; }
  "$vmft" --disk "$disk" volumes >"$work/plain" || fail "vmft volumes on $disk"
  unchanged volumes
  sed 's/ on .*$//' "$work/plain"
  sed -n 's/.* on .* (\(.*\))$/\1/p' "$work/plain" | sort -u >"$format_file"
  "$vmft" --disk "$disk" volumes --json | python3 -c '
import json, sys
for v in json.load(sys.stdin):
    assert {"disk_path", "disk_format", "disk_files"} <= v.keys(), v
    print({k: x for k, x in v.items() if not k.startswith("disk_")})' || fail "volumes --json on $disk"
  unchanged "volumes --json"
  letters=$(cut -c1 "$work/plain")
  for letter in $letters; do
    "$vmft" --disk "$disk" ranges "$letter" || fail "vmft ranges $letter on $disk"
    unchanged ranges
    if [[ ! " ${missing[*]} " =~ " record " ]]; then
      for n in 0 5 64 65 66; do
        "$vmft" --disk "$disk" record "$letter" --record "$n" || fail "vmft record $letter $n on $disk"
      done
      unchanged record
    fi
    if [[ ! " ${missing[*]} " =~ " hlinfo " ]]; then
      rm -f "$work/info.ini"
      "$vmft" --disk "$disk" hlinfo "$work/info.ini" "$letter" >/dev/null || fail "vmft hlinfo $letter on $disk"
      unchanged hlinfo
      [[ -f $work/info.ini ]] || fail "$(basename "$disk") $letter: no info file"
      sed 2d "$work/info.ini"  # its date line
    fi
  done
}

count=0
for entry in "${disks[@]}"; do
  read -r raw bps <<<"$entry"
  expected=$(answers "$raw" "$(dirname "$raw")" "$work/raw-format") || exit
  [[ $(cat "$work/raw-format") == raw ]] || fail "$(basename "$raw"): listed as $(cat "$work/raw-format")"
  dir=$work/$(basename "${raw%.img}")-containers
  containers=$(make_containers "$raw" "$bps" "$dir")
  if [[ $raw == "$mbr" ]]; then
    mkdir "$dir/segmented" && make_e01 "$raw" 512 "$dir/segmented/mbr" 1MiB
    [[ -f $dir/segmented/mbr.E03 ]] || fail "ewfacquire made fewer than three segments"
    containers+=$'\n'"$dir/segmented/mbr.E01"
  fi
  for image in $containers; do
    ours=$(answers "$image" "$(dirname "$image")" "$work/format") || exit
    case $image in
      *.vhd) want=VHD ;; *.vhdx) want=VHDX ;; *.vmdk) want=VMDK ;;
      */segmented/*) want="E01, $(ls "$dir"/segmented/mbr.E?? | wc -l) segments" ;;
      *.E01) want=E01 ;; *.001) want="split raw, $(ls "${image%.001}".0?? | wc -l) parts" ;;
    esac
    [[ $(cat "$work/format") == "$want" ]] || fail "$(basename "$image"): listed as $(cat "$work/format"), not $want"
    if [[ $ours != "$expected" ]]; then
      diff <(echo "$expected") <(echo "$ours") >&2 || true
      fail "$(basename "$image"): the answers differ from the raw disk's"
    fi
    echo "ok: ${image#"$dir"/} ($want, $bps-byte sectors): the raw disk's answers"
    count=$((count + 1))
  done
  rm -rf "$dir"
done
echo "ok: $count containers"
[[ ${#missing[@]} == 0 ]] || skip "vmft has no ${missing[*]} yet: those answers were not compared"
