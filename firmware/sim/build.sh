#!/bin/sh
# Rebuilds the test and demo programs of the simulated target. The ELF files
# are committed; run this after changing a source here.
set -e
cd "$(dirname "$0")"
CC=${CC:-arm-none-eabi-gcc}
COMMON="-mthumb -mfloat-abi=soft -O1 -g3 -gdwarf-4 -ffreestanding -fno-common -Wall -Wextra -Wno-unused-parameter -nostartfiles -Lld"
build() { # name cpu linker-script sources...
  name=$1; cpu=$2; ld=$3; shift 3
  $CC -mcpu=$cpu $COMMON -T $ld -Wl,-Map=elf/$name.map -o elf/$name.elf "$@" -lgcc
  rm -f elf/$name.map
}
mkdir -p elf
TESTS="startup.c tests.c tests_asm.S lvt.c"
DEMO="startup.c demo.c lvt.c"
build tests_stm32f407vg cortex-m4 stm32f407vg.ld $TESTS
build tests_cortex-m3 cortex-m3 generic.ld $TESTS
build tests_cortex-m0 cortex-m0 generic.ld $TESTS
build demo_stm32f407vg cortex-m4 stm32f407vg.ld $DEMO
build demo_cortex-m4 cortex-m4 generic.ld $DEMO
build demo_mk66fn2m0 cortex-m4 mk66fn2m0.ld $DEMO
build demo_nrf52840 cortex-m4 nrf52840.ld $DEMO
build demo_lpc1768 cortex-m3 lpc1768.ld $DEMO
build demo_mps2 cortex-m3 mps2.ld $DEMO
echo "firmware built in $(pwd)/elf"
