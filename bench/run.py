#!/usr/bin/env python3
"""Runs every benchmark and writes the table (stdout and bench/RESULTS.md).

Usage: run.py BUILD_DIR [--reps N]

Each figure is the best of N runs of a fresh process (koru_bench or a command of
The Sleuth Kit), after one run that warms the page cache; peak memory is the
largest ru_maxrss of those runs. See bench/README.md for what each row measures.
"""
import argparse
import datetime
import os
import platform
import re
import statistics
import subprocess
import sys

ap = argparse.ArgumentParser()
ap.add_argument("build")
ap.add_argument("--reps", type=int, default=5)
ap.add_argument("--out", default=os.path.join(os.path.dirname(os.path.abspath(__file__)), "RESULTS.md"))
args = ap.parse_args()
build = os.path.abspath(args.build)
vols = os.path.join(build, "bench-volumes")
bench = os.path.join(build, "bench", "koru_bench")
vmft = os.path.join(build, "vmft")
work = os.path.join(build, "bench-work")
os.makedirs(work, exist_ok=True)
BIG, BIG_VHDX, BIG_E01, SMALL, MFT1M = (os.path.join(vols, n) for n in
                                        ("big.img", "big.vhdx", "big.E01", "small.img", "mft1m.img"))


def run(argv):
    out = subprocess.run(argv, check=True, capture_output=True, text=True).stdout
    return dict(kv.split("=", 1) for kv in out.split())


def measure(*argvs, reps=args.reps):
    """For each command, the best time of `reps` runs after a warm-up and the largest
    peak memory. The commands take turns, so that a figure and its comparison share
    whatever else the machine was doing."""
    for argv in argvs:
        run(argv)
    results = [[] for _ in argvs]
    for _ in range(reps):
        for i, argv in enumerate(argvs):
            results[i].append(run(argv))
    out = []
    for runs in results:
        seconds = [float(r["seconds"]) for r in runs]
        last = dict(runs[-1])
        last["best"] = min(seconds)
        last["median"] = statistics.median(seconds)
        last["mib"] = max(int(r["maxrss_kib"]) for r in runs) / 1024
        out.append(last)
    return out if len(out) > 1 else out[0]


def koru(image, *mode, level=3):
    return [bench, "--disk", image, "--trace-level", str(level), *mode]


def tool(*command):
    return [bench, "exec", *command]


def mft_ranges(image):
    out = subprocess.run([vmft, "--disk", image, "ranges", "C"], check=True, capture_output=True, text=True).stdout
    return [tuple(map(int, line.split())) for line in out.splitlines() if line.strip()]


def dd_command(image, ranges):
    # The MFT's sectors read in order, as a backup copies them: the physical limit here.
    parts = ["dd if=%s of=/dev/null bs=1M iflag=skip_bytes,count_bytes skip=%d count=%d status=none"
             % (image, first * 512, (end - first) * 512) for first, end in ranges]
    return ["sh", "-c", " && ".join(parts)]


rows = []  # (what, ours, theirs, ratio, memory)


def rate(records, seconds):
    return "%.2f M records/s" % (records / seconds / 1e6)


def mib(m):
    return "%.1f MiB" % m


def add(what, ours, theirs, ratio, memory, target):
    rows.append((what, ours, theirs, ratio, memory, target))
    print(" | ".join((what, ours, theirs, ratio, memory, target)), flush=True)


def load():
    return "%.2f %.2f %.2f" % os.getloadavg()


load_before = load()
started = datetime.datetime.now(datetime.timezone.utc)

# --- GetMFTSectorRanges and ReadMFTRecord --------------------------------------------
r, r0, t = measure(koru(BIG, "ranges", "200"), koru(BIG, "ranges", "200", level=0), tool("istat", "-f", "ntfs", BIG, "0"))
calls = {"ranges": (r, r0)}
per = r["best"] / int(r["count"])
add("GetMFTSectorRanges (big.img), per call", "%.0f µs" % (per * 1e6), "istat 0: %.0f µs (a process)" % (t["best"] * 1e6),
    "%.2f" % (per / t["best"]), "%s / %s" % (mib(r["mib"]), mib(t["mib"])), "")
r, r0, t = measure(koru(BIG, "record", "5000"), koru(BIG, "record", "5000", level=0),
                  tool("istat", "-f", "ntfs", BIG, "1000"))
calls["record"] = (r, r0)
per = r["best"] / int(r["count"])
add("ReadMFTRecord (big.img), per record dumped", "%.0f µs" % (per * 1e6),
    "istat N: %.0f µs (a process)" % (t["best"] * 1e6), "%.2f" % (per / t["best"]),
    "%s / %s" % (mib(r["mib"]), mib(t["mib"])), "")

# --- the MFT scan: raw images against dd and ils -------------------------------------
def verdict(checks):
    return "; ".join("%s %s" % (what, "met" if ok else "NOT met") for what, ok in checks)


scans = {}
for name, image in (("mft1m.img", MFT1M), ("big.img", BIG)):
    s, s0, d, p, i = measure(koru(image, "scan"), koru(image, "scan", level=0), tool(*dd_command(image, mft_ranges(image))),
                             koru(image, "pread"), tool("ils", "-e", "-f", "ntfs", image))
    scans[name] = (s, s0)
    records = int(s["count"])
    checks = [(">= 1 M records/s", records / s["best"] >= 1e6), ("<= 3 x dd", s["best"] <= 3 * d["best"])]
    if name == "mft1m.img":
        checks.append(("< 64 MiB", s["mib"] < 64))
    add("MFT scan (%s: %d records, %s linked)" % (name, records, s["linked"]),
        rate(records, s["best"]) + " (%.3f s)" % s["best"],
        "dd of the MFT: %s (%.3f s)" % (rate(records, d["best"]), d["best"]), "%.2f x dd" % (s["best"] / d["best"]),
        "%s / %s" % (mib(s["mib"]), mib(d["mib"])), verdict(checks) if name == "mft1m.img" else "")
    add("  one pread per record, nothing else (%s)" % name, "%.3f s" % s["best"],
        "a pread a record: %.3f s" % p["best"], "%.2f x that; that %.2f x dd" % (s["best"] / p["best"], p["best"] / d["best"]),
        "", "")
    add("  The Sleuth Kit (%s)" % name, rate(records, s["best"]),
        "ils -e: %s (%.3f s)" % (rate(records, i["best"]), i["best"]), "%.2f x ils" % (s["best"] / i["best"]),
        "%s / %s" % (mib(s["mib"]), mib(i["mib"])), "")

# --- containers against the raw image --------------------------------------------------
for name, image in (("big.vhdx", BIG_VHDX), ("big.E01", BIG_E01)):
    s, raw = measure(koru(image, "scan"), koru(BIG, "scan"))
    add("MFT scan (%s)" % name, rate(int(s["count"]), s["best"]) + " (%.3f s)" % s["best"],
        "raw image: %.3f s" % raw["best"], "%.2f x raw" % (s["best"] / raw["best"]),
        "%s / %s" % (mib(s["mib"]), mib(raw["mib"])), verdict([("<= 2 x raw", s["best"] <= 2 * raw["best"])]))

# --- CreateHLInfo end to end against fls -r -p -------------------------------------------
out = os.path.join(work, "big.ini")
h, h0, f = measure(koru(BIG, "hlinfo", out), koru(BIG, "hlinfo", out, level=0), tool("fls", "-r", "-p", "-f", "ntfs", BIG))
sections = sum(1 for line in open(out, "rb") if line.startswith(b"Count="))
add("CreateHLInfo (big.img, %d sections)" % sections, "%.3f s" % h["best"], "fls -r -p: %.3f s" % f["best"],
    "%.2f x fls" % (h["best"] / f["best"]), "%s / %s" % (mib(h["mib"]), mib(f["mib"])),
    verdict([("<= 1 x fls", h["best"] <= f["best"])]))

# --- tracing: level 3 (the default) against 0 --------------------------------------------
s3, s0 = scans["mft1m.img"]
add("Tracing, MFT scan (mft1m.img): level 3 vs 0", "%.3f s" % s3["best"], "level 0: %.3f s" % s0["best"],
    "%+.1f %%" % ((s3["best"] / s0["best"] - 1) * 100), "%s / %s" % (mib(s3["mib"]), mib(s0["mib"])),
    verdict([("< 5 %", s3["best"] < 1.05 * s0["best"])]))
for what, mode in (("GetMFTSectorRanges", "ranges"), ("ReadMFTRecord", "record")):
    c3, c0 = calls[mode]
    n = int(c3["count"])
    add("Tracing, %s per call: level 3 vs 0" % what, "%.0f µs" % (c3["best"] / n * 1e6),
        "level 0: %.0f µs" % (c0["best"] / n * 1e6), "%+.1f %%" % ((c3["best"] / c0["best"] - 1) * 100),
        "%s / %s" % (mib(c3["mib"]), mib(c0["mib"])), verdict([("< 5 %", c3["best"] < 1.05 * c0["best"])]))
add("Tracing, CreateHLInfo (big.img): level 3 vs 0", "%.3f s" % h["best"], "level 0: %.3f s" % h0["best"],
    "%+.1f %%" % ((h["best"] / h0["best"] - 1) * 100), "%s / %s" % (mib(h["mib"]), mib(h0["mib"])),
    verdict([("< 5 %", h["best"] < 1.05 * h0["best"])]))

load_after = load()


def text(cmd):
    try:
        return subprocess.run(cmd, capture_output=True, text=True, shell=True).stdout.strip()
    except OSError:
        return "?"


cpu = text("lscpu | sed -n 's/^Model name: *//p' | head -1")
machine = [
    "- CPU: %s, %s cores online; %s" % (cpu, os.cpu_count(), text("lscpu | sed -n 's/^Hypervisor vendor: *//p'") or "bare metal"),
    "- memory: %s; kernel %s" % (text("free -h | awk '/^Mem:/ {print $2}'"), platform.release()),
    "- compiler: %s; build: Release (-O3, with symbols)" % text("c++ --version | head -1"),
    "- %s; %s; %s" % (text("fls -V"), text("qemu-img --version | head -1"), text("ewfacquire -V | head -1")),
    "- commit: %s" % text("git -C %s log -1 --format='%%h %%s'" % os.path.dirname(os.path.abspath(__file__))),
    "- run: %s UTC, best of %d runs each after one warm-up (page cache warm), a figure and its comparisons"
    " taking turns" % (started.strftime("%Y-%m-%d %H:%M"), args.reps),
    "- load average (1, 5, 15 min): %s before, %s after" % (load_before, load_after),
]
table = ["| What | KORU_MFT | Comparison | Ratio | Peak memory (ours / theirs) | Target |",
         "|---|---|---|---|---|---|"]
table += ["| %s |" % " | ".join(row) for row in rows]
with open(args.out, "w") as out_md:
    out_md.write("# Benchmark results\n\nWritten by `scripts/bench`; do not edit. What each row measures: "
                 "`bench/README.md`.\n\n## Machine\n\n" + "\n".join(machine) + "\n\n## Results\n\n" +
                 "\n".join(table) + "\n")
print()
print("\n".join(machine))
print()
print("\n".join(table))
