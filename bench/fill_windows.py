#!/usr/bin/env python3
"""Fills a mounted NTFS volume with a Windows-like tree for the benchmarks.

Usage: fill_windows.py ROOT FILES LINKED [SEED]

FILES regular files in all, LINKED of them with two or three names (about 70 % two,
30 % three). The multiply-linked files are born in Windows\\WinSxS component folders
and linked into System32, SysWOW64, drivers and DriverStore, as Windows servicing
leaves them; a few dozen have a name in a place the inventory skips (Windows\\Temp,
PendingDeletes, $Recycle.Bin). The rest are single files under Program Files,
ProgramData, Users, Windows\\servicing, ... Folders are made in a shuffled order,
so the records of one folder are spread through the MFT as on a system that has
been updated for years. The same arguments always give the same tree.
"""
import os
import random
import sys

root, total, linked = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
rng = random.Random(int(sys.argv[4]) if len(sys.argv) > 4 else 1)
if linked > total:
    sys.exit("more linked files than files")

WORDS = ("shell core kernel base net tcpip crypt audio video print font direct input media graphics "
         "update setup deploy servicing store search ink speech sensor smart card hyper vmbus storage "
         "disk volume partition bluetooth wifi mobile broadband usb hid serial parallel power thermal "
         "display wallpaper theme sync backup restore diag trace event log perf counter policy group "
         "security lsa sam netlogon kerberos schannel cert authz token").split()
EXTS = (".dll", ".dll", ".dll", ".exe", ".sys", ".mui", ".manifest", ".cat", ".inf", ".xml", ".dat", ".js",
        ".png", ".txt", ".ini", ".json")


def word():
    return rng.choice(WORDS)


def size():
    r = rng.random()
    if r < 0.70:
        return rng.randrange(0, 600)  # resident in the record
    if r < 0.99:
        return rng.randrange(600, 8192)
    return rng.randrange(8192, 65536)


def payload_size():
    # WinSxS payloads (the files that get the other names) are DLLs and drivers: never
    # resident, so their names fit the record as on Windows, without an attribute list.
    return rng.randrange(1024, 32768) if rng.random() < 0.85 else rng.randrange(32768, 131072)


CHUNK = os.urandom(131072)


def make_file(path, n=None):
    n = size() if n is None else n
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o644)
    if n:
        os.write(fd, CHUNK[:n])
    os.close(fd)


def unique(names, make):
    while True:
        name = make()
        key = name.lower()
        if key not in names:
            names.add(key)
            return name


# --- the multiply-linked files: WinSxS components and where their other names go ----
sxs_files = linked + max(1, linked // 20)  # a few components hold files that are not linked
components = []
left = sxs_files
while left > 0:
    arch = rng.choice(("amd64", "amd64", "amd64", "wow64", "x86", "msil"))
    name = "%s_microsoft-windows-%s-%s_31bf3856ad364e35_10.0.19041.%d_none_%016x" % (
        arch, word(), word(), rng.randrange(1, 5000), rng.getrandbits(64))
    count = min(left, rng.randrange(1, 7))
    components.append((arch, name, count))
    left -= count

taken = {}  # folder (lower case) -> names taken there (lower case)


def target_name(folder, ext):
    names = taken.setdefault(folder, set())
    return unique(names, lambda: "%s%s%d%s" % (word(), word(), rng.randrange(100000), ext))


SKIPPED = ("Windows/Temp", "Windows/WinSxS/Temp/PendingDeletes", "$Recycle.Bin/S-1-5-21-3623811015-3361044348-30300820-1001",
           "Users/alice/AppData/Local/Temp", "System Volume Information")

work = []  # (folder, [file names], [(name, [other paths])])
links_total = 0
for arch, comp, count in components:
    folder = "Windows/WinSxS/" + comp
    files, links = [], []
    for i in range(count):
        ext = ".sys" if "storage" in comp or "usb" in comp else rng.choice((".dll", ".dll", ".exe", ".mui"))
        name = "%s%s%d%s" % (word(), word(), i, ext)
        if links_total < linked:
            links_total += 1
            if ext == ".sys":
                first = "Windows/System32/drivers"
            elif ext == ".mui":
                first = "Windows/System32/en-US"
            elif arch in ("wow64", "x86"):
                first = "Windows/SysWOW64"
            elif arch == "msil":
                first = "Windows/Microsoft.NET/assembly/GAC_MSIL/%s.%s" % (word().capitalize(), word().capitalize())
            else:
                first = "Windows/System32"
            others = [first]
            if rng.random() < 0.30:
                others.append("Windows/System32/DriverStore/FileRepository/%s%s.inf_amd64_%08x" % (
                    word(), word(), rng.getrandbits(32)))
            if rng.random() < 0.003:
                others[-1] = rng.choice(SKIPPED)
            links.append((name, others))
        else:
            files.append(name)
    work.append((folder, files, links))

# --- single files in the other Windows-like places ----------------------------------
left = total - sxs_files
PLACES = (  # (share of the single files, folder maker, files per folder)
    (0.16, lambda: "Program Files/%s/%s/%s" % (word().capitalize(), word().capitalize(), rng.choice(("bin", "lib", "res", "plugins", "."))), 40),
    (0.08, lambda: "Program Files (x86)/%s/%s" % (word().capitalize(), word().capitalize()), 35),
    (0.10, lambda: "ProgramData/Microsoft/%s/%s" % (word().capitalize(), word()), 25),
    (0.05, lambda: "ProgramData/Package Cache/{%08x-%04x}" % (rng.getrandbits(32), rng.getrandbits(16)), 8),
    (0.06, lambda: "Windows/servicing/Packages", 4000),
    (0.05, lambda: "Windows/System32", 1500),
    (0.03, lambda: "Windows/System32/en-US", 800),
    (0.03, lambda: "Windows/SysWOW64", 1200),
    (0.04, lambda: "Windows/INF", 1000),
    (0.03, lambda: "Windows/Microsoft.NET/Framework64/v4.0.30319/%s" % word(), 60),
    (0.03, lambda: "Windows/assembly/NativeImages_v4.0.30319_64/%s.%s" % (word().capitalize(), word()), 6),
    (0.02, lambda: "Windows/Fonts", 800),
    (0.02, lambda: "Windows/Installer/{%08x}" % rng.getrandbits(32), 20),
    (0.02, lambda: "Windows/Logs/%s" % word().upper(), 50),
    (0.18, lambda: "Users/%s/AppData/Local/%s/%s" % (rng.choice(("alice", "bob", "admin")), word().capitalize(), word()), 30),
    (0.05, lambda: "Users/%s/AppData/Local/Packages/Microsoft.%s_8wekyb3d8bbwe/LocalState" % (rng.choice(("alice", "bob")), word().capitalize()), 15),
    (0.04, lambda: "Users/%s/AppData/Roaming/%s" % (rng.choice(("alice", "bob", "admin")), word().capitalize()), 20),
    (0.03, lambda: "Users/%s/Documents/%s" % (rng.choice(("alice", "bob")), word()), 25),
    (0.01, lambda: "Users/alice/AppData/Local/Temp", 500),
    (0.01, lambda: "Windows/Temp", 300),
    (0.02, lambda: "inetpub/wwwroot/%s" % word(), 30),
)
for share, folder_of, per in PLACES:
    count = int(round(left * share / sum(p[0] for p in PLACES)))
    while count > 0:
        folder = os.path.normpath(folder_of())
        n = min(count, rng.randrange(1, 2 * per + 1))
        names = taken.setdefault(folder.lower(), set())
        work.append((folder, [unique(names, lambda: "%s%s%d%s" % (word(), word(), rng.randrange(10**6), rng.choice(EXTS)))
                              for _ in range(n)], []))
        count -= n
made = sum(len(f) + len(l) for _, f, l in work)
# Rounding: the last folders get or give the difference.
while made < total:
    folder = "Users/admin/Documents/extra"
    names = taken.setdefault(folder.lower(), set())
    work.append((folder, [unique(names, lambda: "x%d.txt" % rng.randrange(10**9))], []))
    made += 1
while made > total:
    for i in range(len(work) - 1, -1, -1):
        if work[i][1]:
            work[i][1].pop()
            made -= 1
            break

rng.shuffle(work)
os.chdir(root)
made_dirs = set()


def folder(path):
    if path not in made_dirs:
        os.makedirs(path, exist_ok=True)
        made_dirs.add(path)


pending_links = []
for path, files, links in work:
    folder(path)
    for name in files:
        make_file(os.path.join(path, name))
    for name, others in links:
        base = os.path.join(path, name)
        make_file(base, payload_size())
        pending_links.append((base, others, os.path.splitext(name)[1]))
# The other names come later, in an order of their own (servicing stacks link at install).
rng.shuffle(pending_links)
names = 0
for base, others, ext in pending_links:
    for other in others:
        folder(other)
        os.link(base, os.path.join(other, target_name(other.lower(), ext)))
        names += 1
print("files=%d linked=%d extra_names=%d folders=%d" % (total, len(pending_links), names, len(made_dirs)))
