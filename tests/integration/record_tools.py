#!/usr/bin/env python3
"""Checks `vmft record` against The Sleuth Kit and against the record's own bytes.

  record_tools.py wrap MFT_FILE IMAGE
      Builds a bare NTFS volume around a raw $MFT file: a boot sector, and the file's
      bytes at the clusters its record 0 maps, so vmft and istat can both read it.
  record_tools.py check VMFT IMAGE LETTER --offset SECTORS [--records N] [--bps BYTES]
      Dumps records 0..N-1 with `vmft record LETTER --record N` and compares every
      field istat -r shows for the same record, and every header field and every
      attribute line (but a reparse point's body) with the raw record on the disk.
      Prints one line per mismatch; exits 1 if there was any.

The dump shows a record as it lies on the disk (no fix-ups) while istat shows it
fixed up: values of an attribute that covers the end of a 512-byte half may differ,
and are not compared.
"""
import argparse
import datetime
import os
import re
import struct
import subprocess
import sys

ALLOWED = set("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._!")
SYSTEM_NAMES = ["$AttrDef", "$Bad", "$BadClus", "$Bitmap", "$Boot", "$EFS", "$Extend", "$I30", "$LogFile", "$Max",
                "$MFT", "$MFTMirr", "$MountMgrDatabase", "$ObjId", "$Quota", "$Reparse", "$SDH", "$SDS", "$SII",
                "$Secure", "$TXF_DATA", "$UpCase", "$UsnJrnl", "$Volume", "CscBitmapStream", "WofCompressedData"]
TYPES = {0x10: "$STANDARD_INFORMATION", 0x20: "$ATTRIBUTE_LIST", 0x30: "$FILE_NAME", 0x40: "$OBJECT_ID",
         0x50: "$SECURITY_DESCRIPTOR", 0x60: "$VOLUME_NAME", 0x70: "$VOLUME_INFORMATION", 0x80: "$DATA",
         0x90: "$INDEX_ROOT", 0xA0: "$INDEX_ALLOCATION", 0xB0: "$BITMAP", 0xC0: "$REPARSE_POINT",
         0xD0: "$EA_INFORMATION", 0xE0: "$EA", 0x100: "$LOGGED_UTILITY_STREAM"}
CODES = {name: code for code, name in TYPES.items()}
# Our flag words and The Sleuth Kit's for the same bits.
FLAGS = {"Read-Only": "Read Only", "Hidden": "Hidden", "System": "System", "Archive": "Archive",
         "Device": "Device", "Normal": "Normal", "Temporary": "Temporary", "Sparse-File": "Sparse",
         "Reparse-Point": "Reparse Point", "Compressed": "Compressed", "Offline": "Offline",
         "Not-Content-Indexed": "Not Content Indexed", "Encrypted": "Encrypted", "Directory": "Directory",
         "Index-View": "Index View"}


def units(text):
    data = text.encode("utf-16-le", "surrogatepass")
    return [chr(struct.unpack_from("<H", data, i)[0]) for i in range(0, len(data), 2)]


def sanitize(text):
    return "".join(c if c in ALLOWED else "?" for c in units(text))


def sanitize_attribute(text):
    name = sanitize(text)
    for system in SYSTEM_NAMES:
        if len(system) == len(name) and sum(a != b for a, b in zip(system, name)) == 1:
            return system
    return name


# --- wrap ---------------------------------------------------------------------------
def fixed_up(record):
    record = bytearray(record)
    usa, count = struct.unpack_from("<HH", record, 4)
    for i in range(1, count):
        if usa + 2 * i + 2 <= len(record) and 512 * i <= len(record):
            record[512 * i - 2:512 * i] = record[usa + 2 * i:usa + 2 * i + 2]
    return bytes(record)


def attributes(record):
    at = struct.unpack_from("<H", record, 0x14)[0]
    while at + 8 <= len(record):
        kind, length = struct.unpack_from("<IH", record, at)
        if kind in (0, 0xFFFFFFFF) or length == 0:
            return
        yield kind, record[at:at + length]
        at += length


def runs(attribute):
    """(vcn, lcn, clusters) of a non-resident attribute; lcn None for a sparse run."""
    at, vcn, lcn, out = struct.unpack_from("<H", attribute, 0x20)[0], 0, 0, []
    while at < len(attribute) and attribute[at]:
        head = attribute[at]
        size, offset = head & 15, head >> 4
        length = int.from_bytes(attribute[at + 1:at + 1 + size], "little")
        if offset:
            lcn += int.from_bytes(attribute[at + 1 + size:at + 1 + size + offset], "little", signed=True)
        out.append((vcn, lcn if offset else None, length))
        vcn += length
        at += 1 + size + offset
    return out


def unnamed_data(record):
    for kind, attribute in attributes(record):
        if kind == 0x80 and attribute[9] == 0 and attribute[8]:
            return attribute
    raise SystemExit("no non-resident unnamed $DATA")


def wrap(mft_file, image):
    mft = open(mft_file, "rb").read()
    record_size = struct.unpack_from("<I", mft, 0x1C)[0]
    data = unnamed_data(fixed_up(mft[:record_size]))
    mapped = runs(data)
    cluster = struct.unpack_from("<Q", data, 0x28)[0] // sum(n for _, _, n in mapped)
    bitmap = unnamed_data(fixed_up(mft[6 * record_size:7 * record_size]))
    total = max(struct.unpack_from("<Q", bitmap, 0x30)[0] * 8,
                max(lcn + n for _, lcn, n in mapped if lcn is not None) + 1)
    mirror = runs(unnamed_data(fixed_up(mft[record_size:2 * record_size])))[0][1]
    boot = bytearray(512)
    boot[0:3] = b"\xEB\x52\x90"
    boot[3:11] = b"NTFS    "
    struct.pack_into("<HB", boot, 0x0B, 512, cluster // 512)
    boot[0x15] = 0xF8
    struct.pack_into("<HH", boot, 0x18, 63, 255)
    struct.pack_into("<QQQ", boot, 0x28, total * (cluster // 512) - 1, mapped[0][1], mirror)
    boot[0x40] = 256 - (record_size.bit_length() - 1)  # 2^-n bytes
    boot[0x44] = 1
    struct.pack_into("<QH", boot, 0x48, 0x4B4F5255, 0xAA55)
    struct.pack_into("<H", boot, 510, 0xAA55)
    with open(image, "wb") as out:
        out.truncate(total * cluster)
        out.write(boot)
        for vcn, lcn, n in mapped:
            if lcn is not None:
                out.seek(lcn * cluster)
                out.write(mft[vcn * cluster:(vcn + n) * cluster])


# --- the text of an attribute, from its bytes -------------------------------------------
FILE_ATTRIBUTES = [(0x1, "Read-Only"), (0x2, "Hidden"), (0x4, "System"), (0x20, "Archive"), (0x40, "Device"),
                   (0x80, "Normal"), (0x100, "Temporary"), (0x200, "Sparse-File"), (0x400, "Reparse-Point"),
                   (0x800, "Compressed"), (0x1000, "Offline"), (0x2000, "Not-Content-Indexed"),
                   (0x4000, "Encrypted"), (0x10000000, "Directory"), (0x20000000, "Index-View")]
NAMESPACES = ["Posix", "Win32", "DOS", "Win32 & DOS"]


def words(value, table):
    return " ".join(word for bit, word in table if value & bit)


def filetime(value):
    """The dump's text of a FILETIME; None where Python cannot say (past the year 9999)."""
    if value == 0 or value >= 1 << 63:
        return "<invalid>"
    try:
        return (datetime.datetime(1601, 1, 1) + datetime.timedelta(microseconds=value // 10)).strftime(
            "%d/%m/%Y %H:%M:%S")
    except OverflowError:
        return None


def utf16(b):
    return b[:len(b) // 2 * 2].decode("utf-16-le", "surrogatepass")


def guid(b):
    return "{%08x-%04x-%04x-%s-%s}" % (*struct.unpack_from("<IHH", b), b[8:10].hex(), b[10:16].hex())


class Fields:
    """Lines "label: value" of a value, up to the first field it does not hold."""

    def __init__(self, value):
        self.value, self.lines, self.complete = value, [], True

    def has(self, at, size):
        self.complete = self.complete and at + size <= len(self.value)
        return self.complete

    def num(self, at, size):
        return int.from_bytes(self.value[at:at + size], "little")

    def add(self, label, at, size, show=str):
        if self.has(at, size):
            self.lines.append((label, show(self.num(at, size))))


def hex_of(width):
    return lambda n: f"0x{n:0{width}x}"


def body_lines(kind, value):
    """The lines of a resident value's body; None for a body not modelled here."""
    v = Fields(value)
    low48 = (1 << 48) - 1
    if kind in (0x10, 0x30):
        if kind == 0x30 and v.has(0, 8):
            v.lines.append(("Reference To The Parent Directory", f"{v.num(0, 8) & low48}/{v.num(6, 2)}"))
        start = 0 if kind == 0x10 else 8
        for i, label in enumerate(["File Creation Time", "File Altered Time", "MFT Changed Time", "File Read Time"]):
            v.add(label, start + 8 * i, 8, filetime)
    if kind == 0x10:
        v.add("DOS File Permissions", 32, 4, lambda n: words(n, FILE_ATTRIBUTES[:9]))
        for i, label in enumerate(["Maximum Number Of Versions", "Version Number", "Class ID", "Owner ID",
                                   "Security ID"]):
            v.add(label, 36 + 4 * i, 4)
        v.add("Quota Charged", 56, 8, hex_of(16))
        v.add("Update Sequence Number", 64, 8, hex_of(16))
    elif kind == 0x30:
        v.add("Allocated Size Of The File", 40, 8, lambda n: f"{n & low48} (0x{n & low48:x})")
        v.add("Real Size Of The File", 48, 8, lambda n: str(n & low48))
        v.add("Flags", 56, 4, lambda n: words(n, FILE_ATTRIBUTES))
        v.add("Used By EAs and Reparse", 60, 4, hex_of(8))
        v.add("File Name Length (wchar_t)", 64, 1)
        v.add("File Name Namespace", 65, 1, lambda n: NAMESPACES[n] if n < 4 else f"0x{n:02x}")
        if v.complete:
            v.lines.append(("File Name", f"[{sanitize(utf16(value[66:66 + 2 * v.num(64, 1)]))}]"))
    elif kind == 0x20:
        at = 0
        while at < len(value):
            e = Fields(value[at:])
            e.add("Type", 0, 4, lambda n: TYPES.get(n, f"{n:08x}"))
            for label, offset, size in [("Record Length", 4, 2), ("Name Length", 6, 1), ("Offset To Name", 7, 1),
                                        ("StartingVCN", 8, 8)]:
                e.add(label, offset, size)
            if e.has(16, 8):
                e.lines.append(("Base File Reference Of Attribute", f"{e.num(16, 8) & low48}/{e.num(22, 2)}"))
            e.add("Attribute Id", 24, 2)
            v.lines += e.lines
            if not e.complete:
                break
            if e.num(6, 1):
                name = utf16(e.value[e.num(7, 1):e.num(7, 1) + 2 * e.num(6, 1)])
                v.lines.append(("Name", f"[{sanitize_attribute(name)}]"))
            if e.num(4, 2) == 0:
                break
            at += e.num(4, 2)
    elif kind == 0x40:
        for i, label in enumerate(["GUID Object Id", "GUID Birth Volume Id", "GUID Birth Object Id", "GUID Domain Id"]):
            if v.has(16 * i, 16):
                v.lines.append((label, guid(value[16 * i:16 * i + 16])))
    elif kind == 0x50:
        for label, at, size, show in [("Revision", 0, 1, str), ("Control Flags", 2, 2, hex_of(4)),
                                      ("Offset to User SID", 4, 4, str), ("Offset to Group SID", 8, 4, str)]:
            v.add(label, at, size, show)
    elif kind == 0x60:
        v.lines.append(("Volume Name", f"[{sanitize(utf16(value))}]"))
    elif kind == 0x70:
        for label, at, size, show in [("Unknown", 0, 8, hex_of(16)), ("Major Version Number", 8, 1, str),
                                      ("Minor Version Number", 9, 1, str), ("Flags", 10, 2, hex_of(4)),
                                      ("Unknown", 12, 4, hex_of(8))]:
            v.add(label, at, size, show)
    elif kind == 0xD0:
        for label, at, size in [("Size Of Packed EAs", 0, 2), ("Number of EAs with NEED_EA set", 2, 2),
                                ("Size Of Unpacked EAs", 4, 4)]:
            v.add(label, at, size)
    elif kind == 0xC0:
        return None
    return v.lines


def attribute_lines(record, at):
    """The lines of the attribute at `at` of a record as it lies on the disk; the second
    item says whether they are all of them."""
    h = Fields(record[at:])
    length = h.num(4, 4)
    resident = record[at + 8] == 0
    lines = [("Length", str(length & 0xFFFF)), ("Unknown", f"0x{length >> 16:04x}"),
             ("Non-Resident?", "false" if resident else "true")]
    name_length, name_at = record[at + 9], h.num(10, 2)
    if name_length:
        lines += [("Name Length", str(name_length)), ("Offset To Name", str(name_at))]
    lines += [("Attribute Flags", words(h.num(12, 2), [(1, "Compressed"), (0x4000, "Encrypted"), (0x8000, "Sparse")])),
              ("Attribute ID", f"0x{h.num(14, 2):04x}")]
    if resident:
        lines += [("Attribute Length", str(h.num(16, 4))), ("Offset To Attribute", str(h.num(20, 2))),
                  ("Indexed Flag", "true" if record[at + 22] else "false")]
    else:
        lines += [(label, str(h.num(offset, size))) for label, offset, size in
                  [("Starting VCN", 16, 8), ("Last VCN", 24, 8), ("Offset to the Data Runs", 32, 2),
                   ("Compression Unit Size", 34, 2)]]
        lines += [(label, f"{h.num(offset, 8) & ((1 << 48) - 1)} bytes") for label, offset in
                  [("Allocated Size Of The Attribute", 40), ("Real Size Of The Attribute", 48),
                   ("Initialized Data Size Of The Stream", 56)]]
    if name_length:
        lines.append(("Name", f"[{sanitize_attribute(utf16(record[at + name_at:at + name_at + 2 * name_length]))}]"))
    if not resident:
        return lines, True
    body = body_lines(h.num(0, 4), record[at + h.num(20, 2):at + h.num(20, 2) + h.num(16, 4)])
    return lines + (body or []), body is not None


# --- check --------------------------------------------------------------------------
def parse_dump(text):
    """{'header': {...}, 'attributes': [{'type', 'offset', 'fields', 'runs', 'entries'}]}."""
    lines = text.split("\n")
    header, sections = {}, []
    i = 0
    while i < len(lines) and not lines[i].startswith("Absolute Sectors"):
        i += 1
    while i < len(lines) and lines[i]:
        header[lines[i][:33].rstrip()] = lines[i][35:] if lines[i][34:35] == " " else lines[i][34:]
        i += 1
    for line, underline in zip(lines[i:], lines[i + 1:]):
        if line.startswith("$") and underline == "-" * len(line):
            sections.append({"type": line, "fields": {}, "runs": [], "entries": [], "lines": []})
        elif sections and line.startswith("Sector# "):
            first, last = re.match(r"Sector# (\d+) to (\d+)$", line).groups()
            sections[-1]["runs"].append((int(first), int(last)))
        elif sections and line == "-" * 56:
            sections[-1]["entries"].append({})
        elif sections and len(line) > 36 and line[36] == ":":
            target = sections[-1]["entries"][-1] if sections[-1]["entries"] else sections[-1]["fields"]
            label, value = line[:36].rstrip(), line[38:] if line[37:38] == " " else line[37:]
            target.setdefault(label, value)
            sections[-1]["lines"].append((label, value))
    offset = int(header.get("Offset to first attribute", "0"))
    for s in sections:
        s["offset"] = offset
        offset += int(s["fields"].get("Length", "0"))
    return {"header": header, "attributes": sections, "stopped": "*** attribute walk stopped" in text}


def parse_istat(text):
    info = {"attrs": [], "si": {}, "fn": [], "list": [], "object_id": None}
    section = None
    for line in text.split("\n"):
        if line.endswith("Attribute Values:"):
            section = line.split()[0]
            if section == "$FILE_NAME":
                info["fn"].append({})
            continue
        if line.startswith("Attributes:"):
            section = "attrs"
            continue
        m = re.match(r"Entry: (\d+)\s+Sequence: (\d+)", line)
        if m and section is None:
            info["entry"], info["sequence"] = int(m.group(1)), int(m.group(2))
        if line.startswith("Links: ") and section is None:
            info["links"] = int(line.split()[1])
        if line in ("Allocated File", "Allocated Directory", "Not Allocated File", "Not Allocated Directory"):
            info["allocated"] = line.startswith("Allocated")
        target = info["si"] if section == "$STANDARD_INFORMATION" else info["fn"][-1] if section == "$FILE_NAME" else None
        m = re.match(r"([A-Za-z ]+):\s*(.*)$", line)
        if target is not None and m:
            target[m.group(1)] = m.group(2)
            m2 = re.match(r"Parent MFT Entry: (\d+) \s*Sequence: (\d+)", line)
            if m2:
                target["parent"] = f"{m2.group(1)}/{m2.group(2)}"
            m2 = re.match(r"Allocated Size: (\d+)\s+Actual Size: (\d+)", line)
            if m2:
                target["allocated"], target["actual"] = m2.groups()
        if section == "$OBJECT_ID" and line.startswith("Object Id: "):
            info["object_id"] = line.split(": ", 1)[1]
        if section == "$ATTRIBUTE_LIST":
            m = re.match(r"Type: (\d+)-(\d+) \s*MFT Entry: (\d+) \s*VCN: (\d+)", line)
            if m:
                info["list"].append(tuple(int(g) for g in m.groups()))
        if section == "attrs":
            m = re.match(r"Type: (\S+) \((\d+)-(\d+)\)\s+Name: (.*?)\s+(Non-Resident|Resident)(?:, [A-Za-z, ]+)?"
                         r"\s+size: (\d+)(?:\s+init_size: (\d+))?", line)
            if m:
                info["attrs"].append({"type": m.group(1), "code": int(m.group(2)), "id": int(m.group(3)),
                                      "name": m.group(4), "resident": m.group(5) == "Resident",
                                      "size": int(m.group(6)), "init": m.group(7), "runs": []})
            m = re.match(r"\s+Starting address: (\d+|X), length: (\d+)\s*(Sparse)?", line)
            if m and info["attrs"]:
                sparse = bool(m.group(3)) or m.group(1) == "X"
                info["attrs"][-1]["runs"].append((0 if sparse else int(m.group(1)), int(m.group(2)), sparse))
    return info


def time_text(istat_time):
    m = re.match(r"(\d{4})-(\d\d)-(\d\d) (\d\d:\d\d:\d\d)", istat_time)
    return f"{m.group(3)}/{m.group(2)}/{m.group(1)} {m.group(4)}" if m else istat_time


def flag_words(ours):
    return sorted(FLAGS[w] for w in re.findall(r"[A-Za-z-]+", ours) if w in FLAGS)


def istat_flags(theirs):
    return sorted(w.strip() for w in theirs.split(",") if w.strip())


class Checker:
    def __init__(self, vmft, image, letter, offset, bps):
        self.vmft, self.image, self.letter, self.offset, self.bps = vmft, image, letter, offset, bps
        self.problems = 0
        self.compared = 0

    def fail(self, number, what, ours, theirs):
        self.problems += 1
        print(f"record {number}: {what}: vmft {ours!r}, istat/raw {theirs!r}")

    def same(self, number, what, ours, theirs):
        self.compared += 1
        if str(ours) != str(theirs):
            self.fail(number, what, ours, theirs)

    def raw(self, sector):
        with open(self.image, "rb") as disk:
            disk.seek(sector * self.bps)
            return disk.read(1024)

    def check_header(self, number, dump):
        h = dump["header"]
        sector = int(h["Absolute Sectors"].split()[0])
        record = self.raw(sector)
        usa, count = struct.unpack_from("<HH", record, 4)
        signature = "".join(chr(b) if chr(b) in ALLOWED else "?" for b in record[:4])
        self.same(number, "signature", h["Record Signature"], f"[{signature}]")
        for label, at, size in [("Offset to update sequence array", 4, 2), ("Size of update sequence array", 6, 2),
                                ("Sequence Number", 0x10, 2), ("Hard-link count", 0x12, 2),
                                ("Offset to first attribute", 0x14, 2), ("Actual size of MFT entry", 0x18, 4),
                                ("Allocated size of MFT entry", 0x1C, 4), ("Next Attribute Id", 0x28, 2),
                                ("MFT Record Number", 0x2C, 4), ("Update Sequence Number", 0x30, 2)]:
            self.same(number, label, h[label], int.from_bytes(record[at:at + size], "little"))
        flags = [(1, "Record Segment In-Use"), (2, "File Name Index Present"), (4, "Record is an Extension"),
                 (8, "Special Index Present")]
        self.same(number, "flags", h["Flags"], words(struct.unpack_from("<H", record, 0x16)[0], flags))
        base = "Seq=%d, Hi=%d, Lo=%d" % struct.unpack_from("<IHH", record, 0x20)[::-1]
        self.same(number, "base record", h["Base File Record Segment"], base)
        listing = "".join(f" 0x{record[usa + i]:02x}" for i in range(count) if usa + i < 1024)
        self.same(number, "update sequence array", h["Update Sequence Array"], listing.strip())
        return record

    def check_lines(self, number, dump, record):
        """Every line of every attribute, against the record's bytes."""
        for a in dump["attributes"]:
            theirs, whole = attribute_lines(record, a["offset"])
            ours = a["lines"] if whole else a["lines"][:len(theirs)]
            wrong = [(o, t) for o, t in zip(ours, theirs) if o[0] != t[0] or t[1] not in (None, o[1])]
            self.compared += 1
            if wrong or len(ours) != len(theirs):
                self.fail(number, f"{a['type']} at {a['offset']}", [o for o, _ in wrong] + ours[len(theirs):],
                          [t for _, t in wrong] + theirs[len(ours):])

    def mft_runs(self):
        """The MFT's runs as istat reads them: (first sector, sectors) on the disk."""
        out = subprocess.run(["istat", "-f", "ntfs", "-b", str(self.bps), "-o", str(self.offset), "-r", self.image,
                              "0"], capture_output=True, text=True, check=True).stdout
        data = [a for a in parse_istat(out)["attrs"] if a["code"] == 0x80 and a["name"] == "N/A"][0]
        return [(self.offset + start * self.spc, n * self.spc) for start, n, sparse in data["runs"] if not sparse]

    def expected_sector(self, number):
        index = number * self.record_size // self.bps
        for first, count in self.runs:
            if index < count:
                return first + index
            index -= count
        return None

    def check(self, number):
        result = subprocess.run([self.vmft, "--disk", f"{self.image}:{self.bps}", "record", self.letter,
                                 "--record", str(number)], capture_output=True, text=True)
        if number * self.record_size % self.bps != 0:
            self.same(number, "refusal", (result.returncode, "does not begin on a sector boundary" in result.stderr),
                      (1, True))
            return
        if result.returncode != 0:
            self.fail(number, "vmft record", result.stderr.strip(), "a dump")
            return
        dump = parse_dump(result.stdout)
        record = self.check_header(number, dump)
        self.check_lines(number, dump, record)
        self.same(number, "sector", dump["header"]["Absolute Sectors"].split()[0], self.expected_sector(number))
        if not self.istat:
            return
        istat = subprocess.run(["istat", "-f", "ntfs", "-b", str(self.bps), "-o", str(self.offset), "-z", "UTC",
                                "-r", self.image, str(number)], capture_output=True, text=True)
        if istat.returncode != 0 or "Entry: " not in istat.stdout:
            return  # a record istat refuses (torn, BAAD, empty) is checked against its bytes only
        self.compare(number, dump, parse_istat(istat.stdout), record)

    def compare(self, number, dump, info, record):
        h = dump["header"]
        usn = struct.unpack_from("<H", record, struct.unpack_from("<H", record, 4)[0] % 1023)[0]
        # Attributes covering a half's last word show what is on the disk there.
        torn = {i for i, a in enumerate(dump["attributes"])
                if any(a["offset"] <= end < a["offset"] + int(a["fields"].get("Length", "0")) and
                       struct.unpack_from("<H", record, end)[0] == usn for end in (0x1FE, 0x3FE))}
        self.same(number, "sequence", h["Sequence Number"], info["sequence"])
        self.same(number, "links", h["Hard-link count"], info["links"])
        self.same(number, "in use", "Record Segment In-Use" in h["Flags"], info["allocated"])
        for index, a in enumerate(dump["attributes"]):
            if index in torn:
                continue
            f = a["fields"]
            ident = int(f["Attribute ID"], 16)
            theirs = [t for t in info["attrs"] if t["code"] == CODES[a["type"]] and t["id"] == ident]
            if not theirs:
                self.fail(number, f"{a['type']} id {ident}", "present", "absent")
                continue
            t = theirs[0]
            resident = f["Non-Resident?"] == "false"
            self.same(number, f"{a['type']} resident", resident, t["resident"])
            name = f.get("Name", "[]")[1:-1]
            self.same(number, f"{a['type']} name", name, "" if t["name"] == "N/A" else sanitize_attribute(t["name"]))
            if resident:
                self.same(number, f"{a['type']} size", f["Attribute Length"], t["size"])
            else:
                # istat gives an index allocation whose real size is 0 its allocated size.
                real = f["Real Size Of The Attribute"]
                if not (real == "0 bytes" and f["Allocated Size Of The Attribute"] == f"{t['size']} bytes"):
                    self.same(number, f"{a['type']} size", real, f"{t['size']} bytes")
                self.same(number, f"{a['type']} initialized", f["Initialized Data Size Of The Stream"],
                          f"{t['init']} bytes")
                self.check_runs(number, a, t)
            if a["type"] == "$STANDARD_INFORMATION" and resident:
                self.check_times(number, a["type"], f, info["si"])
                # The dump names nine of the bits; istat all it knows.
                nine = {FLAGS[w] for w in list(FLAGS)[:9]}
                self.same(number, "$SI flags", flag_words(f.get("DOS File Permissions", "")),
                          [w for w in istat_flags(info["si"].get("Flags", "")) if w in nine])
                for label in ("Owner ID", "Security ID"):
                    if label in f:
                        self.same(number, f"$SI {label}", f[label], info["si"][label].split()[0])
            if a["type"] == "$FILE_NAME" and resident:
                # istat lists the names in attribute-list order, with those of extension records.
                same_name = [n for n in info["fn"] if f"[{sanitize(n.get('Name', ''))}]" == f.get("File Name")]
                if not same_name:
                    self.fail(number, "$FN name", f.get("File Name"), [n.get("Name") for n in info["fn"]])
                    continue
                fn = same_name[0]
                self.same(number, "$FN parent", f.get("Reference To The Parent Directory"), fn.get("parent"))
                self.same(number, "$FN sizes", (f.get("Allocated Size Of The File", "").split(" ")[0],
                                                f.get("Real Size Of The File")), (fn.get("allocated"), fn.get("actual")))
                self.same(number, "$FN flags", flag_words(f.get("Flags", "")), istat_flags(fn.get("Flags", "")))
                self.check_times(number, a["type"], f, fn)
            if a["type"] == "$OBJECT_ID" and resident and info["object_id"]:
                self.same(number, "object id", f.get("GUID Object Id"), "{" + info["object_id"] + "}")
            if a["type"] == "$ATTRIBUTE_LIST" and resident:
                ours = [(CODES.get(e.get("Type"), e.get("Type")), int(e.get("Attribute Id", -1)),
                         int(e.get("Base File Reference Of Attribute", "0/0").split("/")[0]),
                         int(e.get("StartingVCN", -1))) for e in a["entries"]]
                self.same(number, "attribute list", ours, info["list"])

    def check_times(self, number, kind, ours, theirs):
        for label, key in [("File Creation Time", "Created"), ("File Altered Time", "File Modified"),
                           ("MFT Changed Time", "MFT Modified"), ("File Read Time", "Accessed")]:
            if label in ours and key in theirs and ours[label] != "<invalid>":
                self.same(number, f"{kind} {label}", ours[label], time_text(theirs[key]))

    def check_runs(self, number, ours, theirs):
        # Ours are volume sectors [first, end); istat's are clusters. Sparse runs and
        # runs that do not move add no range of ours. Ours may be a prefix: istat
        # joins the pieces an attribute list spreads over other records.
        spc = self.spc
        # istat also cuts the last run at the data size.
        mine = [(first // spc, (end - first) // spc) for first, end in ours["runs"]]
        theirs_runs = [(start, n) for start, n, sparse in theirs["runs"] if not sparse and start != 0][:len(mine)]
        if len(mine) == len(theirs_runs) and mine and mine[-1][0] == theirs_runs[-1][0] and \
                mine[-1][1] >= theirs_runs[-1][1]:
            theirs_runs[-1] = mine[-1]
        self.same(number, f"{ours['type']} runs", mine, theirs_runs)


def main():
    parser = argparse.ArgumentParser()
    sub = parser.add_subparsers(dest="command", required=True)
    w = sub.add_parser("wrap")
    w.add_argument("mft")
    w.add_argument("image")
    c = sub.add_parser("check")
    c.add_argument("vmft")
    c.add_argument("image")
    c.add_argument("letter")
    c.add_argument("--offset", type=int, default=0)
    c.add_argument("--bps", type=int, default=512)
    c.add_argument("--records", type=int)
    c.add_argument("--raw-only", action="store_true", help="compare with the record's bytes only (no istat)")
    args = parser.parse_args()
    if args.command == "wrap":
        wrap(args.mft, args.image)
        return 0
    checker = Checker(args.vmft, args.image, args.letter, args.offset, args.bps)
    checker.istat = not args.raw_only
    records = args.records
    if not checker.istat:
        # The boot sector's own word: where the MFT starts, taken as one run.
        with open(args.image, "rb") as disk:
            disk.seek(args.offset * args.bps)
            boot = disk.read(512)
        spc = boot[0x0D] if boot[0x0D] <= 0x80 else 1 << (256 - boot[0x0D])
        per_record = struct.unpack_from("<b", boot, 0x40)[0]
        checker.record_size = per_record * spc * args.bps if per_record > 0 else 1 << -per_record
        checker.runs = [(args.offset + struct.unpack_from("<Q", boot, 0x30)[0] * spc, 1 << 62)]
    else:
        fsstat = subprocess.run(["fsstat", "-f", "ntfs", "-b", str(args.bps), "-o", str(args.offset), args.image],
                                capture_output=True, text=True, check=True).stdout
        cluster = int(re.search(r"Cluster Size: (\d+)", fsstat).group(1))
        checker.spc = cluster // int(re.search(r"Sector Size: (\d+)", fsstat).group(1))
        if records is None:
            records = int(re.search(r"Range: \d+ - (\d+)", fsstat).group(1))
        checker.record_size = int(re.search(r"Size of MFT Entries: (\d+)", fsstat).group(1))
        checker.runs = checker.mft_runs()
    # The sanitizer build runs vmft several times slower: there, past the system files,
    # every Nth record (the other build checks them all).
    stride = int(os.environ.get("KORU_RECORD_STRIDE", "1"))
    numbers = [n for n in range(records) if n < 64 or n % stride == 0]
    for number in numbers:
        checker.check(number)
    print(f"{args.image} {args.letter}: {len(numbers)} of {records} records, {checker.compared} values compared, "
          f"{checker.problems} mismatches")
    return 1 if checker.problems else 0


if __name__ == "__main__":
    sys.exit(main())
