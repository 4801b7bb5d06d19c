#!/bin/sh
# SPDX-License-Identifier: MIT
#
# On the emulated board: use the tool as its package installed it, on a card in a slot.
#   on_board.sh ROOT FOLDER
set -e
root=$1 cards=$2
installed() {
    chroot "$root" /usr/bin/cardtool "$@"
}
export LD_LIBRARY_PATH=/usr/lib/powerpc-linux-gnu
mount -o bind /dev "$root/dev"
mkdir -p "$root/tmp"
mount -t tmpfs tmp "$root/tmp"
card insert zel0 "$cards/card.img"
cp "$cards/new.bin" "$root/tmp"
[ "$(installed detect /dev/spda)" = '/dev/spda: Zel, unit 0' ]
installed read /dev/spda --first 100 --count 8 -o /tmp/read.bin
installed write /dev/spda -i /tmp/new.bin --first 1000 --yes
installed verify /dev/spda -i /tmp/new.bin --first 1000
cp "$root/tmp/read.bin" "$cards/read.bin"
card save zel0 "$cards/after.img"
umount "$root/tmp" "$root/dev"
