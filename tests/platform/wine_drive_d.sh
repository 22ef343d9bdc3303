#!/usr/bin/env bash
# Test fixture for the Windows build under Wine: makes a bare NTFS volume with
# mkntfs and maps it as Wine's drive D: ($WINEPREFIX/dosdevices/d::), so \\.\D:
# reads the image. With the Linux vmft given, also records the MFT ranges it reads
# from the same image (the volume is C: there: the first NTFS volume attached).
# Whatever cannot be prepared is written to why-missing.txt for the tests to report.
set -euo pipefail
dir=$1
linux_vmft=${2:-}
mkdir -p "$dir"
rm -f "$dir/why-missing.txt" "$dir/ranges.txt" "$dir/ranges-missing.txt"

missing() {
  echo "$*" >"$dir/why-missing.txt"
  echo "wine_drive_d: $*" >&2
  exit 0
}

[ -n "${WINEPREFIX:-}" ] && [ -d "$WINEPREFIX/dosdevices" ] ||
  missing "no Wine prefix: run the suite through scripts/test-windows (WINEPREFIX with dosdevices/)"
command -v mkntfs >/dev/null || missing "mkntfs is not installed (ntfs-3g)"

image=$dir/image.ntfs
rm -f "$image"
truncate -s 16M "$image"
mkntfs -F -Q -q "$image" >/dev/null 2>&1 || missing "mkntfs failed on $image"
ln -sfn "$image" "$WINEPREFIX/dosdevices/d::"

if [ -n "$linux_vmft" ] && [ -x "$linux_vmft" ]; then
  "$linux_vmft" --disk "$image" ranges C >"$dir/ranges.txt.part"
  mv "$dir/ranges.txt.part" "$dir/ranges.txt"
else
  echo "no Linux vmft given (configure with -DKORU_LINUX_VMFT=.../vmft)" >"$dir/ranges-missing.txt"
fi
echo "wine_drive_d: $image is D:"
