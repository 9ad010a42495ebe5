#!/bin/sh
# Rebuilds the programs of the example projects from the firmware sources:
# demo/demo.elf for the simulated STM32F407 (firmware/sim) and
# qemu/mps2demo.elf for QEMU's MPS2-AN385 board (firmware/gdb), both without
# optimisation so that every line can be stepped. The ELF files are
# committed; run this after changing one of those sources. The repository
# root is recorded as /tavit in the debug information, which the projects
# map back to their own location.
set -e
HERE=$(cd "$(dirname "$0")" && pwd)
ROOT=$(dirname "$HERE")
CC=${CC:-arm-none-eabi-gcc}
COMMON="-mthumb -mfloat-abi=soft -O0 -g3 -gdwarf-4 -ffreestanding -fno-common -nostartfiles \
 -ffile-prefix-map=$ROOT=/tavit -fdebug-prefix-map=$ROOT=/tavit -Wl,--build-id=none"
export LC_ALL=C SOURCE_DATE_EPOCH=0
cd "$ROOT/firmware/sim"
$CC -mcpu=cortex-m4 $COMMON -Lld -T stm32f407vg.ld -o "$HERE/demo/demo.elf" startup.c demo.c lvt.c -lgcc
cd "$ROOT/firmware/gdb"
$CC -mcpu=cortex-m3 $COMMON -nostdlib -T mps2.ld -o "$HERE/qemu/mps2demo.elf" startup.c main.c -lgcc
echo "examples built"
