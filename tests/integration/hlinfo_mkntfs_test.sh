#!/usr/bin/env bash
# vmft hlinfo on an mkntfs volume at sector 2048 of an MBR disk, filled through an
# ntfs-3g mount, checked against what fls and istat predict: files with two and three
# names across folders, names in skipped places, names that sort differently without
# case, Latin-1 names, a DOS 8.3 alias, 41 long names kept in extension records, and
# last a name beyond U+00FF, where the file must stop.
source "$(dirname "$0")/lib.sh"
need mkntfs ntfs-3g fls istat sfdisk setfattr iconv
[[ $(id -u) == 0 && -e /dev/fuse ]] || skip "needs root and FUSE to fill the volume"

work=$(work_dir hlinfo-mkntfs)
mkdir "$work/mnt"
cleanup() { mountpoint -q "$work/mnt" && umount "$work/mnt"; rm -f "$work"/*.img; }
trap cleanup EXIT
vmft=$(private_vmft "$work")

vol=$work/vol.img
truncate -s 32M "$vol"
mkntfs -F -q -Q "$vol" >/dev/null 2>&1 || fail "mkntfs"
disk=$work/disk.img
build_disk() { mbr_disk "$vol" "$disk"; }
fill() { ntfs3g_fill "$vol" "$work/mnt" "$@"; }

# Nothing when there is nothing: a fresh volume has no file with two names.
build_disk
"$vmft" --disk "$disk" hlinfo "$work/none.ini" C >/dev/null || fail "vmft hlinfo on a fresh volume"
[[ ! -e $work/none.ini ]] || fail "an info file was written for a volume without hard links"

windows_like() {
  mkdir -p Windows/System32/drivers/etc Windows/WinSxS/amd64_x Windows/Temp "Program Files/Tool/bin" \
    ProgramData/Tool Users/u/AppData/Local/Temp Users/Public a B many
  echo hosts >Windows/System32/drivers/etc/hosts.bak
  ln Windows/System32/drivers/etc/hosts.bak Windows/WinSxS/amd64_x/hosts.bak
  head -c 70000 /dev/urandom >"Program Files/Tool/bin/tool.exe"
  ln "Program Files/Tool/bin/tool.exe" ProgramData/Tool/tool.exe
  ln "Program Files/Tool/bin/tool.exe" Windows/tool.exe
  # Names in skipped places, made after the folders they are linked from.
  mkdir -p '$Recycle.Bin/S-1-5-21' 'System Volume Information'
  echo r >Windows/r.dll
  ln Windows/r.dll Windows/System32/r.dll
  ln Windows/r.dll '$Recycle.Bin/S-1-5-21/r.dll'
  echo t >Windows/t.dll
  ln Windows/t.dll Windows/Temp/t.dll
  ln Windows/t.dll Users/u/AppData/Local/Temp/t.dll
  ln Windows/t.dll 'System Volume Information/t.dll'
  echo only >a/only.txt
  ln a/only.txt Windows/Temp/only.txt
  # A folder made before the one it links from: its name may come first.
  echo early >Users/u/AppData/Local/Temp/early.tmp
  ln Users/u/AppData/Local/Temp/early.tmp B/early.txt
  # Byte order would put B before a.
  echo z >B/zeta.txt
  ln B/zeta.txt a/Alpha.txt
  ln B/zeta.txt B/Beta.txt
  echo latin >"Users/Public/café.txt"
  ln "Users/Public/café.txt" "Users/Public/résumé.txt"
  echo dos >Windows/System32/longfilename.dll
  setfattr -n system.ntfs_dos_name -v "LONGFI~1.DLL" Windows/System32/longfilename.dll
  echo many >many/base.txt
  local x
  x=$(printf 'x%.0s' $(seq 200))
  for i in $(seq -w 1 40); do ln many/base.txt "many/link${i}_$x.txt"; done
}
fill windows_like
build_disk
same_hlinfo "$disk" C 2048 512 "$vmft"
many=$(fls -r -p "$vol" | awk -F'[ -]' '/many\/base.txt/ {print $2}')
istat "$vol" "$many" | grep -E 'Type: 48-[0-9]+[[:space:]]+MFT Entry: ' | grep -Eqv "MFT Entry: $many[[:space:]]" ||
  fail "the 41 names did not spill into extension records"

# A name beyond U+00FF: the file stops just before it.
beyond() { echo omega >Windows/omega.dll && ln Windows/omega.dll "Windows/Ωmega.dll"; }
fill beyond
build_disk
same_hlinfo "$disk" C 2048 512 "$vmft"
grep -q Totals "$work/hlinfo-C.ini" && fail "the file went on past a name beyond U+00FF"
true
