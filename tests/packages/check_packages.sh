#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# Build the Debian packages, look through them, install them into roots where nothing else
# of this is, use them there, and remove them: those for this machine under Debian 12, those
# for the board in a small root of its libraries, on the emulated processor and on the
# emulated board.
set -Eeuo pipefail
cd "$(dirname "$0")/../.."
source tools/setup-debian.sh

here=tests/packages
host=$(dpkg --print-architecture)
work=$PWD/build/packages-check
packages=$work/packages
base=$PWD/build/debian-$host.tar
root=$work/root
board_root=$work/root-powerpc
names=(libcarddev0 libcarddev-dev libcardsim cardtool)
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)

fail() {
    echo "check_packages: $*" >&2
    exit 1
}
trap 'fail "stopped at line $LINENO: $BASH_COMMAND"' ERR
trap '"${as_root[@]}" rm -rf "$root" "$board_root"' EXIT

files_of() { # architecture
    local name
    for name in "${names[@]}"; do
        echo "$packages/${name}_"*"_$1.deb"
    done
}

equal() { # what, expected, found
    [ "$2" = "$3" ] || fail "$1: expected '$2', found '$3'"
}

# --- what they say of themselves ---------------------------------------------------------

needs() { # package, architecture, pattern
    local found
    found=$(dpkg-deb -f "$packages/${1}_"*"_$2.deb" Depends)
    [[ "$found" =~ ^$3$ ]] || fail "$1 for $2 depends on: $found"
}

look_through() { # architecture
    local version='\(>= [0-9.]+\)'
    needs libcarddev0 "$1" "libc6 $version"
    needs libcardsim "$1" "libc6 $version"
    needs libcarddev-dev "$1" 'libcarddev0 \(= [0-9.~]+\)'
    needs cardtool "$1" "libc6 $version, libgcc-s1 $version, libstdc\+\+6( $version)?"
    local files
    mapfile -t files < <(files_of "$1")
    lintian --allow-root --fail-on error,warning "${files[@]}"
}

# --- the card and what is done with it ---------------------------------------------------

make_cards() { # folder
    python3 -c 'import sys
for i in range(32768): sys.stdout.buffer.write(i.to_bytes(4, "big") * 128)' > "$1/card.img"
    cp "$1/card.img" "$1/before.img"
    head -c 1536 /dev/urandom > "$1/new.bin"
    echo '{"cards": [{"driver": "zel", "unit": 0, "image": "card.img"}]}' > "$1/cards.json"
}

# cardtool, as the words before the folder start it; the folder has two names.
use_cardtool() { # folder, its name for the tool, words that start the tool...
    local folder=$1 inside=$2
    shift 2
    equal "detect" '/dev/spda: Zel, unit 0' "$("$@" detect /dev/spda)"
    "$@" read /dev/spda --first 100 --count 8 -o "$inside/read.bin"
    was_read "$folder"
    "$@" write /dev/spda -i "$inside/new.bin" --first 1000 --yes
    "$@" verify /dev/spda -i "$inside/new.bin" --first 1000
}

was_read() { # folder
    equal "bytes read" 4096 "$(stat -c %s "$1/read.bin")"
    cmp --bytes=4096 --ignore-initial=0:$((100 * 512)) "$1/read.bin" "$1/before.img"
}

card_holds_new() { # image, folder
    cmp --bytes=1536 --ignore-initial=$((1000 * 512)):0 "$1" "$2/new.bin"
    cmp --bytes=$((1000 * 512)) "$1" "$2/before.img"
    cmp --ignore-initial=$((1003 * 512)) "$1" "$2/before.img"
}

# --- this machine's ----------------------------------------------------------------------

in_root() {
    "${as_root[@]}" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive \
        chroot "$root" "$@"
}

make_root() {
    if [ ! -f "$base" ]; then
        "${as_root[@]}" mmdebstrap --quiet --mode=root --variant=apt --format=tar bookworm "$base.new" \
            http://deb.debian.org/debian || fail "a root with Debian 12 could not be made (above)"
        mv "$base.new" "$base"
    fi
    mkdir "$root"
    "${as_root[@]}" tar --extract --numeric-owner --file="$base" --directory="$root" ||
        fail "Debian's root could not be unpacked: may device nodes be made here?"
    in_root true || fail "chroot is not possible here: it takes root in a container that allows it"
}

# All that packages may leave, but for what dpkg and apt write down for themselves.
list_root() {
    "${as_root[@]}" find "$root" \( -path "$root/var/lib/apt" -o -path "$root/var/lib/dpkg" \
        -o -path "$root/var/cache" -o -path "$root/var/log" -o -path "$root/tmp" \) -prune \
        -o -printf '%P\n' | sort
}

# A program built against what was installed, with this machine's compiler.
build_against_root() {
    local triplet program=$root/tmp/open_and_read
    triplet=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
    local search=$root/usr/lib/$triplet/pkgconfig cflags libs
    read -ra cflags <<< "$(PKG_CONFIG_LIBDIR=$search pkg-config --cflags carddev)"
    read -ra libs <<< "$(PKG_CONFIG_LIBDIR=$search pkg-config --libs carddev)"
    "${as_root[@]}" cc -Wall -Werror "${cflags[@]}" "$root/usr/share/doc/libcarddev-dev/examples/open_and_read.c" \
        -o "$program" "${libs[@]}"
    local simulated=(env LD_PRELOAD=libcardsim.so CARDSIM_CONFIG=/tmp/cards/cards.json)
    in_root "${simulated[@]}" /tmp/open_and_read /dev/spda 258 | tee "$work/example.txt"
    grep -q '^sector 258: 00 00 01 02 00 00 01 02 ' "$work/example.txt"
    cmake -G Ninja -S tests/install/consumer -B "$work/consumer" -DLANGUAGE=C \
        "-DCMAKE_PREFIX_PATH=$root/usr" > /dev/null
    cmake --build "$work/consumer" > /dev/null
    grep -q "carddev_DIR.*=$root/" "$work/consumer/CMakeCache.txt"
}

check_host() {
    echo "-- this machine's packages, in a root with Debian 12 and nothing else"
    make_root
    list_root > "$work/before.txt"
    "${as_root[@]}" mkdir "$root/tmp/cards" "$root/tmp/packages"
    "${as_root[@]}" chown "$(id -u)" "$root/tmp/cards" "$root/tmp/packages"
    make_cards "$root/tmp/cards"
    mapfile -t files < <(files_of "$host")
    cp "${files[@]}" "$root/tmp/packages"
    in_root sh -c 'apt-get install --yes /tmp/packages/*.deb' > "$work/install.log" 2>&1 ||
        { cat "$work/install.log"; fail "apt could not install the packages"; }
    equal "the tool's version" "cardtool $(sed -n 's/^project(carddev VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)" \
        "$(in_root cardtool --version)"
    use_cardtool "$root/tmp/cards" /tmp/cards chroot_cardtool
    card_holds_new "$root/tmp/cards/card.img" "$root/tmp/cards"
    build_against_root
    local file
    for file in man/man1/cardtool.1.gz man/man3/DevDetect.3.gz man/man7/cardsim.7.gz \
        bash-completion/completions/cardtool zsh/vendor-completions/_cardtool \
        fish/vendor_completions.d/cardtool.fish doc/cardtool/cardtool.schema.json \
        doc/libcardsim/README.md; do
        [ -s "$root/usr/share/$file" ] || [ -s "$root/usr/share/$file.gz" ] || fail "no $file was installed"
    done
    in_root apt-get purge --yes "${names[@]}" > "$work/purge.log" 2>&1 ||
        { cat "$work/purge.log"; fail "apt could not remove the packages"; }
    list_root | diff "$work/before.txt" - || fail "a purge leaves something behind (above)"
    in_root dpkg-query --show -f "\${db:Status-Status} \${Package}\n" > "$work/installed.txt"
    grep -q '^installed libc6' "$work/installed.txt"
    ! grep 'card' "$work/installed.txt" | grep -v '^not-installed' || fail "dpkg still knows the packages (above)"
}

chroot_cardtool() {
    in_root env LD_PRELOAD=libcardsim.so CARDSIM_CONFIG=/tmp/cards/cards.json cardtool "$@"
}

# --- the board's -------------------------------------------------------------------------

# Debian 12 has no archive for the board: its libraries are the cross compiler's, and dpkg is
# told that they are there, in the versions that they have.
make_board_root() {
    local libraries=/usr/powerpc-linux-gnu/lib name status=$board_root/var/lib/dpkg/status
    mkdir -p "$board_root"/{dev,tmp,proc,usr/bin,usr/lib/powerpc-linux-gnu,var/lib/dpkg/{info,updates,triggers}}
    ln -s usr/lib "$board_root/lib"
    for name in ld.so.1 libc.so.6 libm.so.6 libgcc_s.so.1 libstdc++.so.6 libdl.so.2; do
        cp -L "$libraries/$name" "$board_root/usr/lib/powerpc-linux-gnu/"
    done
    ln -s powerpc-linux-gnu/ld.so.1 "$board_root/usr/lib/ld.so.1"
    echo powerpc > "$board_root/var/lib/dpkg/arch"
    : > "$board_root/var/lib/dpkg/available"
    for name in libc6 libgcc-s1 libstdc++6; do
        dpkg-query -W -f "Package: $name\nStatus: install ok installed\nArchitecture: powerpc\nMulti-Arch: same\nMaintainer: none\nDescription: cross compiler's\nVersion: \${Version}\n\n" \
            "$name-powerpc-cross" >> "$status"
    done
}

board_cardtool() {
    qemu-ppc -L "$board_root" -E LD_LIBRARY_PATH=/usr/lib/powerpc-linux-gnu -E LD_PRELOAD=libcardsim.so \
        -E "CARDSIM_CONFIG=$work/cards/cards.json" "$board_root/usr/bin/cardtool" "$@"
}

check_board() {
    echo "-- the board's packages, in a root with its libraries and nothing else"
    make_board_root
    mapfile -t files < <(files_of powerpc)
    "${as_root[@]}" dpkg --root="$board_root" --log="$work/dpkg.log" --install "${files[@]}" > "$work/board-install.log" 2>&1 ||
        { cat "$work/board-install.log"; fail "dpkg could not install the board's packages"; }
    file -L "$board_root/usr/bin/cardtool" "$board_root/usr/lib/powerpc-linux-gnu/libcarddev.so" > "$work/file.txt"
    equal "32-bit PowerPC programs" 2 "$(grep -c 'ELF 32-bit MSB.*PowerPC' "$work/file.txt")"

    echo "-- on the emulated processor"
    mkdir "$work/cards"
    make_cards "$work/cards"
    use_cardtool "$work/cards" "$work/cards" board_cardtool
    card_holds_new "$work/cards/card.img" "$work/cards"

    echo "-- on the emulated board, under its kernel"
    make_cards "$work/cards"
    board/run "$PWD/$here/on_board.sh" "$board_root" "$work/cards"
    card_holds_new "$work/cards/after.img" "$work/cards"
    was_read "$work/cards"

    "${as_root[@]}" dpkg --root="$board_root" --log="$work/dpkg.log" --purge "${names[@]}" > "$work/board-purge.log" 2>&1 ||
        { cat "$work/board-purge.log"; fail "dpkg could not remove the board's packages"; }
    [ -z "$(find "$board_root" -name '*card*')" ] || fail "a purge leaves: $(find "$board_root" -name '*card*')"
}

need_packages lintian mmdebstrap pkg-config python3 cmake ninja-build file
"${as_root[@]}" rm -rf "$work"
mkdir -p "$packages"
tools/packages --output "$packages" "$host" powerpc > "$work/build.log" || { cat "$work/build.log"; exit 1; }
echo "-- what the packages say of themselves"
look_through "$host"
look_through powerpc
check_host
check_board
echo "note: $(find "$packages" -name '*.deb' ! -name '*-dbgsym_*' | wc -l) packages"
