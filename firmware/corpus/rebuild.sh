#!/bin/bash
# Rebuilds every ELF file of the firmware corpus from the sources in src/.
#
# The output is deterministic: source paths are mapped to /tavit/firmware/corpus
# whatever the checkout location, and objects and library copies are made in a
# temporary directory that leaves no trace in the result. The ELF files are
# written next to this script and are committed, so the test suite needs no
# cross compiler.
#
# Usage: firmware/corpus/rebuild.sh [NAME...]   (no NAME: all files)
# OUTDIR=dir writes the files there instead (used to check that the committed
# files are up to date).
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
CC=${CC:-arm-none-eabi-gcc}
OBJCOPY=${OBJCOPY:-arm-none-eabi-objcopy}
OUTDIR=$(mkdir -p "${OUTDIR:-$HERE}" && cd "${OUTDIR:-$HERE}" && pwd)
TMP=$(mktemp -d)
trap 'rm -rf "$TMP"' EXIT

cd "$HERE"
export LC_ALL=C SOURCE_DATE_EPOCH=0

MAP="-ffile-prefix-map=$HERE=/tavit/firmware/corpus -fdebug-prefix-map=$HERE=/tavit/firmware/corpus -fdebug-prefix-map=$TMP=/tmp/tavit"
COMMON="-mthumb -ffreestanding -fno-tree-loop-distribute-patterns -fno-common -Wall -Wextra -Werror"
M4="-mcpu=cortex-m4 -mfloat-abi=hard -mfpu=fpv4-sp-d16"
M3="-mcpu=cortex-m3 -mfloat-abi=soft"
OLD="-gno-variable-location-views"

C_SRC="src/main.c src/sensors.c src/comm.c src/util.c"
ASM_SRC="src/startup.s src/asm_cfi.S src/asm_nocfi.s"
LDSCRIPT=src/stm32f407.ld

# Copies of the libraries a program links, with their debug sections stripped
# (Debian's archives carry DWARF 5). Made once per CPU variant.
#   $1 variant directory name, $2.. CPU flags
stripped_libs() {
    local dir=$TMP/lib/$1
    shift
    if [ ! -d "$dir" ]; then
        mkdir -p "$dir"
        local lib path
        for lib in libc_nano.a libm.a libnosys.a libgcc.a; do
            path=$("$CC" -mthumb "$@" -print-file-name=$lib)
            "$OBJCOPY" --strip-debug "$path" "$dir/$lib"
        done
    fi
    echo "$dir"
}

# Directory of the unmodified libraries for a CPU variant.
full_libs() {
    dirname "$("$CC" -mthumb "$@" -print-file-name=libc_nano.a)"
}

# build NAME LINK CPU DEBUG OPT [EXTRA_C_SOURCES...]
#   LINK: bare     -nostdlib, stripped libgcc
#         be       -nostdlib, big-endian, no library at all
#         newlib   newlib-nano, libm, libnosys, libgcc: stripped copies
#         newlib-full   the same archives with their debug information
build() {
    local name=$1 link=$2 cpu=$3 debug=$4 opt=$5
    shift 5
    local obj=$TMP/obj/$name
    mkdir -p "$obj"
    local cflags="$COMMON $cpu $debug $opt $MAP"
    local libs="" defs="" src
    case $link in
        be) cflags="$cflags -mbig-endian" ;;
        newlib|newlib-full) defs="-DUSE_NEWLIB" ;;
    esac
    local objs=""
    for src in $C_SRC "$@"; do
        "$CC" $cflags $defs -c "$src" -o "$obj/$(basename "$src").o"
        objs="$objs $obj/$(basename "$src").o"
    done
    for src in $ASM_SRC; do
        "$CC" $cflags -c "$src" -o "$obj/$(basename "$src").o"
        objs="$objs $obj/$(basename "$src").o"
    done
    case $link in
        bare)
            libs="-L$(stripped_libs "${cpu// /_}" $cpu) -lgcc" ;;
        be)
            libs="" ;;
        newlib)
            libs="-L$(stripped_libs "${cpu// /_}" $cpu) -Wl,--start-group -lc_nano -lm -lnosys -lgcc -Wl,--end-group" ;;
        newlib-full)
            libs="-L$(full_libs $cpu) -L$(dirname "$("$CC" -mthumb $cpu -print-libgcc-file-name)") -Wl,--start-group -lc_nano -lm -lnosys -lgcc -Wl,--end-group" ;;
    esac
    "$CC" $cflags -nostdlib -nostartfiles -T "${LDSCRIPT_OVERRIDE:-$LDSCRIPT}" -Wl,--build-id=none \
        $objs $libs -o "$TMP/$name.elf"
    mv "$TMP/$name.elf" "$OUTDIR/$name.elf"
    printf '%-28s %8d bytes\n' "$name.elf" "$(stat -c %s "$OUTDIR/$name.elf")"
}

# The same map with the vector table 0x200 bytes into flash: the linker then
# puts the ELF and program headers at the front of the first load segment.
hdrseg_script() {
    sed 's/^    \.vectors :/    .vectors ORIGIN(FLASH) + 0x200 :/' "$LDSCRIPT" > "$TMP/stm32f407_hdrseg.ld"
    grep -q 'vectors ORIGIN(FLASH) + 0x200' "$TMP/stm32f407_hdrseg.ld"
    echo "$TMP/stm32f407_hdrseg.ld"
}

want() {
    [ ${#SELECT[@]} -eq 0 ] && return 0
    local s
    for s in "${SELECT[@]}"; do [ "$s" = "$1" ] && return 0; done
    return 1
}

SELECT=("$@")
b() { if want "$1"; then build "$@"; fi; }

#      name                    link         cpu    debug                                    opt
b app-dwarf4-O0            bare        "$M4"  "-gdwarf-4 $OLD"                         -O0
b app-dwarf4-O2            bare        "$M4"  "-gdwarf-4 $OLD"                         -O2
b app-dwarf4-O0-be         be          "$M4"  "-gdwarf-4 $OLD"                         -O0
b app-dwarf4-O2-be         be          "$M4"  "-gdwarf-4 $OLD"                         -O2
b app-dwarf2-O0            bare        "$M3"  "-gdwarf-2 $OLD"                         -O0
b app-dwarf2-O2            bare        "$M3"  "-gdwarf-2 $OLD"                         -O2
b app-dwarf3-O0            bare        "$M4"  "-gdwarf-3 $OLD"                         -O0
b app-dwarf3-O2            bare        "$M4"  "-gdwarf-3 $OLD"                         -O2
b app-dwarf4-types         bare        "$M4"  "-gdwarf-4 $OLD -fdebug-types-section"   -O0
b app-dwarf4-macinfo       bare        "$M4"  "-gdwarf-4 $OLD -gstrict-dwarf -g3"      -O0
b app-dwarf4-macro         bare        "$M4"  "-gdwarf-4 $OLD -g3"                     -O0
# The reference build without any debug section: symbol table only.
if want app-nodebug; then
    OUTDIR_SAVE=$OUTDIR
    OUTDIR=$TMP/nodebug
    mkdir -p "$OUTDIR"
    build app-dwarf4-O0 bare "$M4" "-gdwarf-4 $OLD" -O0 > /dev/null
    OUTDIR=$OUTDIR_SAVE
    "$OBJCOPY" --strip-debug "$TMP/nodebug/app-dwarf4-O0.elf" "$OUTDIR/app-nodebug.elf"
    printf '%-28s %8d bytes\n' app-nodebug.elf "$(stat -c %s "$OUTDIR/app-nodebug.elf")"
fi
if want app-dwarf4-hdrseg; then
    LDSCRIPT_OVERRIDE=$(hdrseg_script) build app-dwarf4-hdrseg bare "$M4" "-gdwarf-4 $OLD" -O0
fi
b newlib-dwarf4-O2         newlib      "$M4"  "-gdwarf-4 $OLD"                         -O2  src/report.c
b app-dwarf5-O0            bare        "$M4"  "-g"                                     -O0
b app-dwarf5-O2            bare        "$M4"  "-g"                                     -O2
b newlib-dwarf5-O2         newlib      "$M4"  "-g"                                     -O2  src/report.c
b newlib-dwarf5-O2-full    newlib-full "$M4"  "-g"                                     -O2  src/report.c
b newlib-mixed-O2          newlib-full "$M4"  "-gdwarf-4 $OLD"                         -O2  src/report.c
# The reference build with one more unit whose hand-written DWARF 5 uses the
# index forms (.debug_str_offsets, .debug_addr, rnglistx, loclistx).
b app-dwarf5-forms         bare        "$M4"  "-g"                                     -O0  src/dwarf5_forms.s
