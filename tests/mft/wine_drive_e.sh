#!/usr/bin/env bash
# Test fixture for the Windows build under Wine: an mkntfs volume mapped as Wine's
# drive E: ($WINEPREFIX/dosdevices/e::), and the Linux vmft's dumps of its first
# records (record-N.txt), which the dumps read through \\.\E: must equal.
# Whatever cannot be prepared is written to why-missing.txt for the tests to report.
set -euo pipefail
dir=$1
linux_vmft=${2:-}
mkdir -p "$dir"
rm -f "$dir"/why-missing.txt "$dir"/record-*.txt

missing() {
  echo "$*" >"$dir/why-missing.txt"
  echo "wine_drive_e: $*" >&2
  exit 0
}

[ -n "${WINEPREFIX:-}" ] && [ -d "$WINEPREFIX/dosdevices" ] ||
  missing "no Wine prefix: run the suite through scripts/test-windows (WINEPREFIX with dosdevices/)"
command -v mkntfs >/dev/null || missing "mkntfs is not installed (ntfs-3g)"
[ -n "$linux_vmft" ] && [ -x "$linux_vmft" ] || missing "no Linux vmft given (configure with -DKORU_LINUX_VMFT=.../vmft)"

image=$dir/image.ntfs
rm -f "$image"
truncate -s 16M "$image"
mkntfs -F -Q -q -L WINE "$image" >/dev/null 2>&1 || missing "mkntfs failed on $image"
ln -sfn "$image" "$WINEPREFIX/dosdevices/e::"
for n in $(seq 0 15); do
  "$linux_vmft" --disk "$image" record C --record "$n" >"$dir/record-$n.txt.part"
  mv "$dir/record-$n.txt.part" "$dir/record-$n.txt"
done
echo "wine_drive_e: $image is E:"
