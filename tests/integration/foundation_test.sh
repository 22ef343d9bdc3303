#!/usr/bin/env bash
# The foundation end to end: `vmft version` through the shared library, the trace log
# beside the program with its exact line prefix, Version.log, the ".old" rotation,
# kor.ini and trace.ini.
source "$(dirname "$0")/lib.sh"

work="$KORU_WORK_DIR/foundation"
rm -rf "$work" && mkdir -p "$work/bin"
# A copy of the program in a directory of its own; it still loads libkoru_mft.so
# from the build tree, so the version it reports is the library's.
cp "$VMFT" "$work/bin/vmft"
cd "$work/bin"

expected_version="$(sed -n 's/^project(KORU_MFT VERSION \([0-9.]*\).*/\1.0/p' "$KORU_SOURCE_DIR/CMakeLists.txt")"
[ -n "$expected_version" ] || fail "no project version in CMakeLists.txt"

./vmft --help >/dev/null || fail "vmft --help failed"
if ./vmft no-such-command >/dev/null 2>"$work/err"; then fail "an unknown command succeeded"; fi
[ -s "$work/err" ] || fail "an unknown command said nothing on stderr"
if ./vmft --trace-level 9 version >/dev/null 2>&1; then fail "--trace-level 9 was accepted"; fi

out="$(./vmft version)" || fail "vmft version failed"
line1="$(sed -n 1p <<<"$out")"
line2="$(sed -n 2p <<<"$out")"
[[ "$line1" =~ ^Varnel\ MFT\ Library\ \(VMFT\)\ created\ on\ [A-Z][a-z]{2}\ [\ 0-9][0-9]\ [0-9]{4}\ at\ [0-9]{2}:[0-9]{2}:[0-9]{2}$ ]] ||
  fail "description line: $line1"
[ "$line2" = "$expected_version" ] || fail "version line '$line2', expected '$expected_version'"

log=Logfiles/VMFT_trace.log
[ -s "$log" ] || fail "no trace log beside the program"
prefix='^\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}\]:[0-9a-f]{4,}:\[[EWIV]\]: '
if grep -Evq "$prefix" "$log"; then fail "a trace line without the prefix: $(grep -Ev "$prefix" "$log" | head -1)"; fi
grep -Eq "${prefix}VMFT::VMFT : Constructor$" "$log" || fail "no constructor entry"
grep -Eq "${prefix}VMFT::VMFT : sVersion = \"$expected_version\"$" "$log" || fail "no sVersion entry"
grep -q 'No module handle' "$log" && fail "the library did not find itself as KORU_MFT.DLL"

[ -f Logfiles/Version.log ] || fail "no Version.log"
grep -q '^\[KORU_MFT.DLL\]' Logfiles/Version.log || fail "Version.log has no [KORU_MFT.DLL] section"
grep -q "^Version=$expected_version" Logfiles/Version.log || fail "Version.log does not hold $expected_version"

# The next run keeps this log as VMFT_trace.old and starts afresh; verbose on request.
cp "$log" "$work/first.log"
./vmft --trace-level 4 version >/dev/null || fail "second run failed"
cmp -s Logfiles/VMFT_trace.old "$work/first.log" || fail "VMFT_trace.old is not the previous log"
grep -Eq "${prefix}VMFT::GetResourceVersionStr : starting \.\.\.$" "$log" || fail "--trace-level 4 wrote no verbose entry"

# trace.ini level 0: nothing at all is written.
printf '[Main]\r\nVMFT_TraceLevel=0\r\n' > trace.ini
./vmft version >/dev/null || fail "run with trace level 0 failed"
[ ! -s "$log" ] || fail "trace level 0 still wrote: $(head -1 "$log")"
rm trace.ini

# kor.ini moves the trace log; the directory is made.
printf '[File Locations]\r\nLogfiles=Z:%s\r\n' "$(sed 's,/,\\,g' <<<"$work/elsewhere")" > kor.ini
./vmft version >/dev/null || fail "run with kor.ini failed"
[ -s "$work/elsewhere/VMFT_trace.log" ] || fail "kor.ini Logfiles was not used"

echo "foundation: ok"
