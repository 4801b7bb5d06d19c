#!/bin/sh
# SPDX-License-Identifier: MIT
#
# On the board: one card with a file system, by the library and by the kernel.
#   file_systems.sh CARD_COPY FOLDER PLACE NODE WAY MOUNT_TYPE
# MOUNT_TYPE is - for a node that cannot be mounted. FOLDER has before.img, new.img, and
# in.bin, new.bin and board.bin, which are or are to be files on the card.
set -eu
card_copy=$1
cd "$2"
place=$3 node=$4 way=$5 type=$6

copy() { # card_copy's arguments; what the library says comes with failures only
    "$card_copy" "$@" > /tmp/said 2>&1 || { cat /tmp/said; exit 1; }
}

# Run a command with the card mounted on /mnt.
mounted() { # node options command...
    mount -t "$type" -o "$2" "$1" /mnt
    shift 2
    status=0
    "$@" || status=$?
    umount /mnt
    return $status
}

mkdir -p /mnt
card insert "$place" before.img
copy check "$node" plain before.img
[ "$way" = plain ] || copy check "$node" direct before.img
[ "$type" = - ] || mounted "$node" ro cmp /mnt/IN.BIN in.bin

# Other content by the library: the kernel sees the new files. It writes one, and the
# library sees the new sectors.
copy write "$node" "$way" new.img
if [ "$type" != - ]; then
    mounted "$node" ro cmp /mnt/NEW.BIN new.bin
    mounted "$node" rw cp board.bin /mnt/BOARD.BIN
fi
card save "$place" saved.img
copy check "$node" "$way" saved.img
card eject "$place"

# What was saved is a card elsewhere, too.
[ "$type" = - ] || {
    card insert zel5 saved.img
    mounted /dev/spdf ro cmp /mnt/BOARD.BIN board.bin
    card eject zel5
}
