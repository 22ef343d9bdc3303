#!/usr/bin/env bash
# vmft hlinfo on a volume whose boot sector says BitLocker: the directory walk through
# a readable copy (the snapshot letter), on an mkntfs volume with Windows-like folders
# filled through ntfs-3g, checked against what fls and istat predict for the walk:
# links inside and outside the roots, junctions and a symbolic link (real reparse
# points) that must not be followed, folders the walk must not enter, DOS aliases
# that are no links. The MFT scan of the copy must list the same files by record
# number, and a root that does not exist fails the walk.
source "$(dirname "$0")/lib.sh"
need mkntfs ntfs-3g fls istat ifind sfdisk setfattr iconv python3
[[ $(id -u) == 0 && -e /dev/fuse ]] || skip "needs root and FUSE to fill the volume"

work=$(work_dir hlinfo-bitlocker)
mkdir "$work/mnt"
cleanup() { mountpoint -q "$work/mnt" && umount "$work/mnt"; rm -f "$work"/*.img; }
trap cleanup EXIT
vmft=$(private_vmft "$work")

windows_like() {
  local machine_keys=ProgramData/Microsoft/Crypto/RSA/MachineKeys
  local ie_cache="Users/Alice/AppData/Local/Microsoft/Windows/Temporary Internet Files/Content.IE5"
  mkdir -p ProgramData/App "$machine_keys/sub" "ProgramData/temporary internet files" "Program Files/Tool" \
    "Program Files/Junction" "Program Files/Empty" "Program Files (x86)/Old" Windows/System32/drivers \
    Windows/WinSxS/amd64_tool Windows.old "$ie_cache" Users/Alice/Documents Users/Public/Documents \
    "Users/All Users/AppData" inetpub/wwwroot other/target
  echo app >ProgramData/App/app.dat
  ln ProgramData/App/app.dat Windows/System32/app.dat
  head -c 70000 /dev/urandom >"Program Files/Tool/tool.exe"
  ln "Program Files/Tool/tool.exe" Windows/WinSxS/amd64_tool/tool.exe
  ln "Program Files/Tool/tool.exe" other/tool.exe
  echo old >"Program Files (x86)/Old/old.dll"
  ln "Program Files (x86)/Old/old.dll" Windows/System32/old.dll
  echo driver >Windows/System32/drivers/d.sys
  ln Windows/System32/drivers/d.sys Windows/System32/drivers/D2.sys
  # The first name (its folder made first) is kept though it lies in a skipped place;
  # the walk's name, met first, is not.
  mkdir Windows/Temp Windows/Apps
  echo first >Windows/Temp/first.dll
  ln Windows/Temp/first.dll Windows/Apps/first.dll
  echo previous >Windows.old/w.dll
  ln Windows.old/w.dll other/w.dll
  echo db >Users/Alice/AppData/Local/app.db
  ln Users/Alice/AppData/Local/app.db Users/Alice/Documents/app.db
  echo web >inetpub/wwwroot/index.htm
  ln inetpub/wwwroot/index.htm inetpub/index.htm
  # Outside the roots only.
  echo doc >Users/Alice/Documents/doc.txt
  ln Users/Alice/Documents/doc.txt other/doc.txt
  echo pub >Users/Public/Documents/pub.txt
  ln Users/Public/Documents/pub.txt other/pub.txt
  echo o >other/o1
  ln other/o1 other/o2
  # MachineKeys and Temporary Internet Files are entered, folders below them are not;
  # the skip list keeps its case.
  echo top >"$machine_keys/top.key"
  ln "$machine_keys/top.key" other/top.key
  echo sub >"$machine_keys/sub/sub.key"
  ln "$machine_keys/sub/sub.key" other/sub.key
  echo lower >"ProgramData/temporary internet files/lower.dat"
  ln "ProgramData/temporary internet files/lower.dat" other/lower.dat
  echo cache >"$ie_cache/cache.dat"
  ln "$ie_cache/cache.dat" other/cache.dat
  # Reparse points: a junction with linked files in it, an empty one, a profile that
  # is a junction, and a symbolic link with two names.
  echo junction >"Program Files/Junction/j.dll"
  ln "Program Files/Junction/j.dll" other/j.dll
  reparse "Program Files/Junction" A0000003 '\??\C:\other\target' 'C:\other\target'
  echo target >other/target/t.dll
  ln other/target/t.dll other/target/t2.dll
  reparse "Program Files/Empty" A0000003 '\??\C:\other\target' 'C:\other\target'
  echo all >"Users/All Users/AppData/all.dat"
  ln "Users/All Users/AppData/all.dat" other/all.dat
  reparse "Users/All Users" A0000003 '\??\C:\ProgramData' 'C:\ProgramData'
  touch Windows/sym.dll
  ln Windows/sym.dll other/sym.dll
  reparse Windows/sym.dll A000000C 'System32\app.dat' 'System32\app.dat'
  # A DOS alias is no link: one file has a single link, the other two.
  echo single >Windows/singlelongname.dll
  setfattr -n system.ntfs_dos_name -v SINGLE~1.DLL Windows/singlelongname.dll
  echo aliased >Windows/longfilename.dll
  setfattr -n system.ntfs_dos_name -v LONGFI~1.DLL Windows/longfilename.dll
  ln Windows/longfilename.dll other/longfilename.dll
}
vol=$work/vol.img
truncate -s 32M "$vol"
mkntfs -F -q -Q "$vol" >/dev/null 2>&1 || fail "mkntfs"
ntfs3g_fill "$vol" "$work/mnt" windows_like
for dir in "Program Files/Junction" "Users/All Users"; do
  entry=$(ifind -n "$dir" "$vol") && istat "$vol" "$entry" | grep -q '^Type: \$REPARSE_POINT' ||
    fail "$dir is no reparse point"
done

# Disk A says BitLocker (C:), disk B is the same volume readable (D:).
a=$work/a.img b=$work/b.img
mbr_disk "$vol" "$a"
mbr_disk "$vol" "$b"
printf -- '-FVE-FS-' | dd of="$a" bs=1 seek=$((2048 * 512 + 3)) conv=notrunc status=none
# Past its boot sector A reads as encrypted data does: nothing of its files can be read.
dd if=/dev/zero of="$a" bs=512 seek=2049 count=$(($(stat -c %s "$vol") / 512 - 1)) conv=notrunc status=none
# vmft on both disks, with Linux's defaults for the Windows folders unless NAME=VALUE
# arguments come first.
walk() {
  local vars=()
  while [[ $1 == *=* ]]; do vars+=("$1") && shift; done
  env -u ProgramData -u ProgramFiles -u 'ProgramFiles(x86)' -u windir -u PUBLIC "${vars[@]}" \
    "$vmft" --disk "$a" --disk "$b" "$@"
}

walk hlinfo "$work/out.ini" C D >"$work/stdout" || fail "vmft hlinfo C D failed: $(cat "$work/stdout")"
grep -qx 'BitLocker boot sector detected ... using legacy hard-link scan' "$work/stdout" || fail "no BitLocker line"
tsk_hlinfo "$b" 512 2048 C ProgramData "Program Files" "Program Files (x86)" Windows Windows.old \
  "Users/*/AppData" inetpub >"$work/expected.ini"
same_info_file "$work/out.ini" "$work/expected.ini" "walk of D"
# What the prediction must hold, lest the walk and it agree on nothing.
for name in 'ProgramData\App\app.dat' 'Program Files\Tool\tool.exe' 'other\tool.exe' 'Windows\System32\drivers\D2.sys' \
  'Windows.old\w.dll' 'Users\Alice\Documents\app.db' 'inetpub\index.htm' 'MachineKeys\top.key' \
  'temporary internet files\lower.dat' 'other\longfilename.dll' 'Windows\Temp\first.dll'; do
  grep -qF "\\$name"$'\r' "$work/expected.ini" || fail "no $name in the walk's answer"
done
for name in doc.txt pub.txt o1 sub.key cache.dat j.dll t.dll all.dat sym.dll singlelongname.dll; do
  if grep -qF "\\$name"$'\r' "$work/expected.ini"; then fail "$name is in the walk's answer"; fi
done
grep -qE '^\[1[0-9a-f]{12}\]'$'\r' "$work/out.ini" || fail "no key with sequence number 1 in 13 digits"
echo "ok: walk of D: $(grep -c '^Count=' "$work/out.ini") section(s) as fls and istat predict"

# The MFT scan of the copy names the same files, keyed by record number.
walk hlinfo "$work/scan.ini" D >/dev/null || fail "vmft hlinfo D failed"
python3 - "$work/out.ini" "$work/scan.ini" <<'PY' || fail "the walk and the MFT scan disagree"
import re, sys
def sections(path):
    text = open(path, encoding="latin-1").read().replace("\r\n", "\n").replace("=C:\\", "=D:\\")
    return {int(key, 16): body for key, body in re.findall(r"^\[([0-9a-f]+)\]\n((?:(?!\[).*\n)*)", text, re.M)}
walk, scan = sections(sys.argv[1]), sections(sys.argv[2])
for key, body in walk.items():
    # The scan asks by a file's first name: first.dll's lies in a skipped place.
    expected = None if "\\Temp\\first.dll" in body else body
    if scan.get(key & (1 << 48) - 1) != expected:
        sys.exit("%x: %r against %r" % (key, expected, scan.get(key & (1 << 48) - 1)))
if len(scan) <= len(walk):
    sys.exit("the scan found no file outside the roots")
PY
echo "ok: the MFT scan of D lists the walk's files"

# A root that cannot be searched fails the walk, and no file is written.
rm -f "$work/out.ini"
rc=0
walk 'ProgramData=C:\nope' hlinfo "$work/out.ini" C D >"$work/stdout" || rc=$?
[[ $rc == 1 ]] || fail "a missing ProgramData gave exit $rc"
grep -qx 'Failed to search for hard-links under D:\\nope' "$work/stdout" || fail "no failure line: $(cat "$work/stdout")"
[[ ! -e $work/out.ini ]] || fail "an info file was written after a failed walk"
echo "ok: a missing root fails the walk"
