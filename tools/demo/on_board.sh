#!/bin/sh
# SPDX-License-Identifier: MIT
#
# The part of the demo that runs on the emulated board:
#   on_board.sh WORK_DIR FIRST COUNT
# The cards' images are WORK_DIR/KIND.img; COUNT sectors of WORK_DIR/new are written
# from sector FIRST on. What was read before is left as WORK_DIR/KIND.copy, the cards as
# they are in the end as WORK_DIR/KIND.after.
work=$1
new_first=$2
new_count=$3
log=$work/board.txt

heading() { printf '\n== %s\n' "$1"; }
say() { printf '\n%s\n' "$1"; }

fail() {
    printf '\nWhat the last command said:\n'
    tail -n 20 "$log" | sed 's/^/    /'
    echo "on the board: $1"
    exit 1
}

# Show a command and run it; show its results, and what it says beside them only on failure.
show() {
    printf '$ %s\n' "$*"
    "$@" > /tmp/results 2>> "$log" || fail "this command did not work: $*"
    sed 's/^/    /' /tmp/results
}

# As show, with the library's own lines among the results, and another end expected.
show_all() { # exit status, command...
    expected=$1
    shift
    printf '$ %s\n' "$*"
    "$@" > /tmp/results 2>&1
    status=$?
    sed 's/^/    /' /tmp/results
    [ $status -eq "$expected" ] || fail "this command ended with $status, not $expected: $*"
}

# A card in a slot: what is it, and do data go through it unharmed?
# shellcheck disable=SC2086 # the option may be absent
walk() { # what kind slot node [--direct]
    heading "$1"
    say "Put a card with a file system ($2) in. Which device is this, and what is in it?"
    show card insert "$3" "$work/$2.img"
    show cardtool detect "$4"
    show cardtool info "$4"

    say "Read the whole card through the library."
    show cardtool read "$4" $5 -o "$work/$2.copy"

    say "Write $new_count sectors in front of the partition, and take the card's image home."
    show cardtool write "$4" -i "$work/new" --first "$new_first" $5 --yes
    show card save "$3" "$work/$2.after"
}

# What these drivers do when something is wrong.
trouble() { # slot node request errno
    say "The driver answers $4 twice: the library says so, tries again, and succeeds."
    show card fault "$1" call=ioctl "request=$3" "errno=$4" times=2
    show_all 0 cardtool read "$2" --direct --count 64 -o /tmp/copy

    say "The card is taken out in the middle: the library calls back, and the tool stops."
    show card fault "$1" call=ioctl "request=$3" first=3 eject
    show_all 5 cardtool read "$2" --direct -o /tmp/copy
    echo "    Exit code 5: the card was removed."
}

: > "$log"
heading "On the board"
show uname -s -r -m
show card list
walk "A slot of the Zel driver" fat16 zel0 /dev/spda --direct
trouble zel0 /dev/spda 0x2000700d EBUSY
walk "The Mivo CardBus adaptor" fat32 mivo0 /dev/mivosdif0 --direct
trouble mivo0 /dev/mivosdif0 0xc010d324 EIO
walk "The Ricoh SD host" exfat ricoh /dev/sdcarda
