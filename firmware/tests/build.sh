#!/bin/bash
# Rebuilds the ELF files of the test programs in elf/ from the sources here.
#
# The output is deterministic: the firmware directory is mapped to
# /tavit/firmware whatever the checkout location, and objects are made in a
# temporary directory. The ELF files are committed, so the test suite needs
# no cross compiler.
#
# Usage: firmware/tests/build.sh           rebuild every file
#        firmware/tests/build.sh --check   rebuild into a temporary directory
#                                          and require identical bytes (exit 77
#                                          when the compiler is missing or of
#                                          another release)
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
FW=$(dirname "$HERE")
CC=${CC:-arm-none-eabi-gcc}
READELF=${READELF:-arm-none-eabi-readelf}
TMP=$(mktemp -d)
trap 'rm -rf "$TMP"' EXIT

CHECK=0
[ "${1:-}" = "--check" ] && CHECK=1
OUTDIR=$HERE/elf
[ $CHECK = 1 ] && OUTDIR=$TMP/out
mkdir -p "$OUTDIR"

cd "$HERE"
export LC_ALL=C SOURCE_DATE_EPOCH=0

if [ $CHECK = 1 ]; then
    if ! command -v "$CC" > /dev/null || ! command -v "$READELF" > /dev/null; then
        echo "no $CC or $READELF: rebuild check skipped"
        exit 77
    fi
    # Another compiler release makes other code: only the release that built
    # the committed files can be held to their bytes.
    ver=$("$CC" --version | head -n 1)
    ver=${ver#* }
    if ! "$READELF" -p .comment elf/lvt.elf | grep -qF "$ver"; then
        echo "$CC is '$ver', the files were built with another release: rebuild check skipped"
        exit 77
    fi
fi

MAP="-ffile-prefix-map=$FW=/tavit/firmware -fdebug-prefix-map=$FW=/tavit/firmware -fdebug-prefix-map=$TMP=/tmp/tavit"
LINK="-Wl,--build-id=none"
# Prefix maps that must win over MAP (the last matching map wins); empty but
# for the program that pretends to come from another machine.
LATEMAP=()

# build NAME FLAGS... -- SOURCES...: compiles each source to an object in the
# temporary directory, then links.
build() {
    local name=$1 flags=() objs=() src obj
    shift
    while [ "$1" != "--" ]; do flags+=("$1"); shift; done
    shift
    mkdir -p "$TMP/obj/$name"
    for src in "$@"; do
        obj=$TMP/obj/$name/$(basename "$src").o
        "$CC" "${flags[@]}" $MAP "${LATEMAP[@]}" -c "$src" -o "$obj"
        objs+=("$obj")
    done
    "$CC" "${flags[@]}" $MAP "${LATEMAP[@]}" $LINK "${objs[@]}" -lgcc -o "$TMP/$name.elf"
    mv "$TMP/$name.elf" "$OUTDIR/$name.elf"
    [ $CHECK = 1 ] || printf '%-20s %8d bytes\n' "$name.elf" "$(stat -c %s "$OUTDIR/$name.elf")"
}

# Frame test program on the MPS2 machine, with the startup and linker script
# of firmware/gdb.
FRAMES="-mcpu=cortex-m3 -mthumb -mfloat-abi=soft -g -gdwarf-4 -ffreestanding -fno-common -Wall -Wextra -nostartfiles -nostdlib -T ../gdb/mps2.ld"
for opt in O0 O2; do
    build frames-$opt $FRAMES -$opt -- ../gdb/startup.c frames_main.c frames_other.c
done

# Call stacks: recursion, an exception handler, inlining and a tail call.
for opt in O0 O2; do
    build unwind-$opt $FRAMES -$opt -- unwind.c
done

# Breakpoint derivation: one inline function's line in three callers.
build inline3 $FRAMES -O2 -- ../gdb/startup.c inline3.c

# Source-step scenarios, one tagged line each.
build step-Og $FRAMES -Og -- ../gdb/startup.c step_main.c

# Line tables written by the compiler rather than the assembler.
SHAPES="-mthumb -mcpu=cortex-m4 -O2 -gno-as-loc-support -ffreestanding -nostdlib -nostartfiles -Wl,--entry=main -Wl,-Ttext=0x08000000"
for v in 5 4; do
    build shapes-dwarf$v $SHAPES -gdwarf-$v -- shapes.c
done

# A program built on a Windows machine: its compile directory is a path with a
# drive letter and backslashes, which exists nowhere here.
LATEMAP=("-fdebug-prefix-map=$HERE=C:\\Build\\Fw")
build winpath $SHAPES -gdwarf-4 -- shapes.c
LATEMAP=()

build lvt -mthumb -mcpu=cortex-m4 -g -O0 -nostdlib -Wl,-e,main -- lvt.c

# Every Thumb-2 instruction form the core plug-in decodes, little-endian and
# big-endian (BE8) with the FPU of each core.
build thumb-forms-le -mcpu=cortex-m4 -mfpu=fpv4-sp-d16 -mfloat-abi=hard -nostdlib -Wl,-Ttext=0x08000000 -- thumb_forms.S
build thumb-forms-be8 -mcpu=cortex-m7 -mfpu=fpv5-d16 -mfloat-abi=hard -mbig-endian -nostdlib -Wl,-Ttext=0x08000000 -- thumb_forms.S

if [ $CHECK = 1 ]; then
    status=0
    for f in "$HERE"/elf/*.elf; do
        if ! cmp -s "$f" "$OUTDIR/$(basename "$f")"; then
            echo "elf/$(basename "$f") differs from what build.sh makes: run firmware/tests/build.sh"
            status=1
        fi
    done
    for f in "$OUTDIR"/*.elf; do
        [ -f "$HERE/elf/$(basename "$f")" ] || { echo "elf/$(basename "$f") is missing"; status=1; }
    done
    [ $status = 0 ] && echo "firmware/tests/elf is up to date"
    exit $status
fi
