#!/bin/sh
# Rebuilds the program of the debug adapter tests and benchmark. The ELF
# file is committed; run this after changing dapdemo.c. Without optimisation
# so that every line can be stepped; the repository root is recorded as
# /tavit, so the build does not depend on where the checkout lies.
set -e
HERE=$(cd "$(dirname "$0")" && pwd)
ROOT=$(cd "$HERE/../.." && pwd)
CC=${CC:-arm-none-eabi-gcc}
export LC_ALL=C SOURCE_DATE_EPOCH=0
cd "$HERE"
mkdir -p elf
$CC -mcpu=cortex-m3 -mthumb -mfloat-abi=soft -O0 -g3 -gdwarf-4 -ffreestanding -fno-common -Wall -Wextra -nostartfiles \
  -nostdlib -ffile-prefix-map=$ROOT=/tavit -fdebug-prefix-map=$ROOT=/tavit -Wl,--build-id=none \
  -T ../gdb/mps2.ld -o elf/dapdemo_an385.elf ../gdb/startup.c dapdemo.c -lgcc
echo "firmware built in $HERE/elf"
