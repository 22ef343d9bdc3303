#!/usr/bin/env bash
# vmft hlinfo on ntfs3_attrlist (mkntfs and Linux ntfs3): one file with 100 names,
# most of them in extension records, checked against what fls and istat predict.
source "$(dirname "$0")/lib.sh"
need fls istat iconv

work=$(work_dir hlinfo-attrlist)
vmft=$(private_vmft "$work")
img=$(windows_image ntfs3_attrlist.raw.gz)
same_hlinfo "$img" C 0 512 "$vmft"
grep -qx $'Count=100\r' "$work/hlinfo-C.ini" || fail "the file of 100 names was not listed whole"
