#!/usr/bin/env bash
# Under Wine: KORU_MFT.DLL writes its dumps into vmft.exe's stream, though each has
# a C++ library of its own. Dumps of real records (copied $MFT files and single
# records) must come out as the Linux vmft writes them, byte for byte but for the
# line ends. Usage: wine_vmft_record.sh VMFT_EXE LINUX_VMFT WINE SHARED_IMAGES
set -euo pipefail
exe=$1 linux=$2 wine=$3 images=$4
[ -n "${WINEPREFIX:-}" ] || { echo "SKIP: no Wine prefix (run through scripts/test-windows)"; exit 77; }
[ -x "$linux" ] || { echo "SKIP: no Linux vmft given (configure with -DKORU_LINUX_VMFT=.../vmft)"; exit 77; }

compared=0
while read -r file numbers; do
  for n in $numbers; do
    ours=$("$wine" "$exe" record --mft-file "$images/$file" --record "$n" | tr -d '\r')
    theirs=$("$linux" record --mft-file "$images/$file" --record "$n")
    if [ "$ours" != "$theirs" ]; then
      diff <(echo "$theirs") <(echo "$ours") | head -20
      echo "FAIL: $file record $n differs between vmft.exe (KORU_MFT.DLL) and the Linux vmft"
      exit 1
    fi
    compared=$((compared + 1))
  done
done <<'LIST'
mft-files/libfsntfs-mft_metadata_file.1 0 3 5 9 38 41 46 47
mft-files/xw.MFT 34 406 485
mft-files/4k-large.mft 5
mft-files/unicode.mft 38 40
records/rp.bin 0
records/entry_super_long_name_001.bin 0
records/entry_102130_fixup_issue.bin 0
records/frs.bin 0
records/frs_ea.bin 0
LIST
echo "ok: $compared record dumps equal"
