#!/bin/sh
# Rebuilds the MPS2 test programs used by the GDB remote protocol tests. The
# ELF files are committed; run this after changing a source here.
set -e
cd "$(dirname "$0")"
CC=${CC:-arm-none-eabi-gcc}
COMMON="-mthumb -mfloat-abi=soft -O1 -g3 -gdwarf-4 -ffreestanding -fno-common -Wall -Wextra -nostartfiles -nostdlib"
mkdir -p elf
$CC -mcpu=cortex-m3 $COMMON -T mps2.ld -o elf/gdbtest_an385.elf startup.c main.c -lgcc
$CC -mcpu=cortex-m4 $COMMON -T mps2.ld -o elf/gdbtest_an386.elf startup.c main.c -lgcc
echo "firmware built in $(pwd)/elf"
