#!/usr/bin/env bash
# vmft ranges on mkntfs images whose MFT has several runs, one of them placed before
# its predecessor (a negative run offset), checked against istat -r. The MFT is made
# to grow through an ntfs-3g mount of a full volume with holes punched in it.
source "$(dirname "$0")/lib.sh"
need mkntfs ntfs-3g ntfsinfo istat fsstat sfdisk
[[ $(id -u) == 0 && -e /dev/fuse ]] || skip "needs root and FUSE to grow the MFT"

