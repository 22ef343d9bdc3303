#!/usr/bin/env bash
# vmft ranges on a disk of 4096-byte sectors (mkntfs -s 4096), bare and at sector 256
# of an MBR disk, checked against istat -r: sectors are counted in 4096-byte units.
source "$(dirname "$0")/lib.sh"
need mkntfs ntfsinfo istat fsstat

