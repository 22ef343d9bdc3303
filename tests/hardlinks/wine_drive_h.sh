#!/usr/bin/env bash
# Test fixture for the Windows build under Wine: a folder of the build tree with
# Windows-like folders and files of several hard links (ln), mapped as Wine's drive H:
# ($WINEPREFIX/dosdevices/h:) for the directory walk. files.txt lists each file made
# here, one a line, tab-separated: "found" or "absent" (whether the walk must find
# it), then its names below the drive's root.
# Whatever cannot be prepared is written to why-missing.txt for the tests to report.
set -euo pipefail
dir=$1
mkdir -p "$dir"
rm -rf "$dir/why-missing.txt" "$dir/files.txt" "$dir/root"

missing() {
  echo "$*" >"$dir/why-missing.txt"
  echo "wine_drive_h: $*" >&2
  exit 0
}

[ -n "${WINEPREFIX:-}" ] && [ -d "$WINEPREFIX/dosdevices" ] ||
  missing "no Wine prefix: run the suite through scripts/test-windows (WINEPREFIX with dosdevices/)"

# Wine's own folders (C:\windows, the profiles of C:\users) are walked on H: too.
root=$dir/root
mkdir -p "$root"/{ProgramData/App,"Program Files/Tool","Program Files (x86)",windows/system32,windows/winsxs/x}
mkdir -p "$root"/{users/alice/AppData/Local,users/alice/Documents,users/Public/Documents,inetpub/wwwroot,other}
mkdir -p "$root/ProgramData/Microsoft/Crypto/RSA/MachineKeys/sub"

# $1 found or absent, $2 the first name, then the other names.
linked() {
  local expect=$1 first=$2
  shift 2
  echo "$first" >"$root/$first"
  for name in "$@"; do ln "$root/$first" "$root/$name"; done
  printf '%s' "$expect" >>"$dir/files.txt"
  printf '\t%s' "$first" "$@" >>"$dir/files.txt"
  echo >>"$dir/files.txt"
}
linked found ProgramData/App/app.dat windows/system32/app.dat
linked found "Program Files/Tool/tool.exe" windows/winsxs/x/tool.exe other/tool.exe
linked found windows/system32/a.dll windows/system32/b.dll
linked found users/alice/AppData/Local/l.db users/alice/Documents/l.db
linked found inetpub/wwwroot/i.htm other/i.htm
linked absent users/alice/Documents/doc.txt other/doc.txt
linked absent ProgramData/Microsoft/Crypto/RSA/MachineKeys/sub/k.key other/k.key
linked absent windows/single.dll
linked absent "Program Files/Tool/single.exe"

ln -sfn "$root" "$WINEPREFIX/dosdevices/h:"
echo "wine_drive_h: $root is H:"
