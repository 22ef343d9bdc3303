#!/usr/bin/env bash
# vmft ranges on the Windows-made disks under the shared images, checked against
# istat -r; the 2 MiB-cluster volume, which The Sleuth Kit refuses, against its
# boot sector: its MFT is one cluster of 4096 sectors.
source "$(dirname "$0")/lib.sh"
need istat fsstat tar unzip gunzip bunzip2 od

