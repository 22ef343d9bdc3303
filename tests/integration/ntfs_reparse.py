#!/usr/bin/env python3
"""Makes PATH on an ntfs-3g mount a real NTFS reparse point, with the data Windows writes.

  ntfs_reparse.py PATH TAG SUBSTITUTE PRINT
      TAG in hex: A0000003 a mount point (junction), A000000C a symbolic link (relative).
"""
import os
import struct
import sys

path, tag, sub, show = sys.argv[1], int(sys.argv[2], 16), sys.argv[3].encode("utf-16-le"), sys.argv[4].encode("utf-16-le")
if tag == 0xA0000003:  # mount point: names with terminators, no flags
    data = struct.pack("<HHHH", 0, len(sub), len(sub) + 2, len(show)) + sub + b"\0\0" + show + b"\0\0"
else:                  # symbolic link: flags 1 = relative
    data = struct.pack("<HHHHI", 0, len(sub), len(sub), len(show), 1) + sub + show
os.setxattr(path, "system.ntfs_reparse_data", struct.pack("<IHH", tag, len(data), 0) + data)
