#!/usr/bin/env python3
"""Generate and build a large firmware program for the load benchmarks.

Writes C sources for N functions (default 20,000), spread over modules of
FUNCS_PER_FILE functions each, and builds them with arm-none-eabi-gcc into
OUTDIR/large-dwarfV.elf (Cortex-M4, Thumb-2). Each module has its own struct
types, typedef chains, enums, initialised tables and globals, so the debug
information grows the way it does in a real code base. The output is never
committed: it is made on demand for the benchmark.

    bench/gen/gen_large.py OUTDIR [--functions N] [--dwarf 2|3|4|5]
                                  [--opt=-O0] [--jobs J] [--keep-sources]

With the defaults the ELF is > 10 MB with about 3 MB of .debug_info. The
output is deterministic for a given set of arguments.
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor

FUNCS_PER_FILE = 200

CFLAGS = [
    "-mcpu=cortex-m4", "-mthumb", "-mfloat-abi=hard", "-mfpu=fpv4-sp-d16",
    "-ffreestanding", "-fno-common", "-fno-tree-loop-distribute-patterns",
]

LDSCRIPT = """\
ENTRY(Reset_Handler)
MEMORY
{
    FLASH (rx)  : ORIGIN = 0x08000000, LENGTH = 16M
    RAM   (rwx) : ORIGIN = 0x20000000, LENGTH = 4M
}
_estack = ORIGIN(RAM) + LENGTH(RAM);
SECTIONS
{
    .vectors : { KEEP(*(.vectors)) } > FLASH
    .text : { *(.text .text.*) } > FLASH
    .rodata : { *(.rodata .rodata.*) . = ALIGN(4); } > FLASH
    _sidata = LOADADDR(.data);
    .data : { _sdata = .; *(.data .data.*) . = ALIGN(4); _edata = .; } > RAM AT > FLASH
    .bss (NOLOAD) : { _sbss = .; *(.bss .bss.*) . = ALIGN(4); _ebss = .; } > RAM
    .ARM.attributes 0 : { *(.ARM.attributes) }
}
"""

STARTUP = """\
    .syntax unified
    .thumb
    .section .vectors, "a", %progbits
    .align 2
    .global g_vectors
    .type g_vectors, %object
g_vectors:
    .word _estack
    .word Reset_Handler
    .size g_vectors, . - g_vectors
    .text
    .align 1
    .global Reset_Handler
    .type Reset_Handler, %function
    .thumb_func
Reset_Handler:
    ldr   r0, =_sidata
    ldr   r1, =_sdata
    ldr   r2, =_edata
1:  cmp   r1, r2
    bhs   2f
    ldr   r3, [r0], #4
    str   r3, [r1], #4
    b     1b
2:  bl    main
3:  b     3b
    .pool
    .size Reset_Handler, . - Reset_Handler
"""

COMMON_HEADER = """\
#ifndef LARGE_COMMON_H
#define LARGE_COMMON_H
typedef unsigned char  lg_u8;
typedef unsigned short lg_u16;
typedef unsigned int   lg_u32;
typedef int            lg_s32;
typedef lg_u32         lg_reg;
typedef volatile lg_reg lg_ioreg;
typedef float          lg_real;
struct lg_link { struct lg_link *next; lg_u32 tag; };
extern volatile lg_u32 lg_ticks;
void *memset(void *d, int c, unsigned int n);
void *memcpy(void *d, const void *s, unsigned int n);
#endif
"""


def module_source(m, first, count):
    """C text of module m holding functions first .. first+count-1."""
    out = []
    w = out.append
    w('#include "common.h"\n')
    w("/* module %d */\n" % m)
    w("typedef enum { M%d_IDLE, M%d_BUSY, M%d_DONE = 5, M%d_ERR = -1 } m%d_state_t;\n"
      % (m, m, m, m, m))
    w("typedef struct m%d_rec {\n" % m)
    w("    lg_u32 id;\n    lg_s32 value;\n    lg_u16 flags : 5;\n    lg_u16 kind : 3;\n")
    w("    lg_u16 level : 8;\n    lg_real gain;\n    lg_u8 name[12];\n")
    w("    m%d_state_t state;\n    struct lg_link link;\n    struct m%d_rec *peer;\n" % (m, m))
    w("} m%d_rec_t;\n" % m)
    w("typedef m%d_rec_t m%d_rec_alias_t;\n" % (m, m))
    w("typedef union { lg_u32 word; lg_u8 bytes[4]; lg_real real; } m%d_word_t;\n" % m)
    w("m%d_rec_t m%d_recs[4] = {\n" % (m, m))
    for i in range(4):
        w('    { %du, %d, %d, %d, %d, %d.5f, "m%d_r%d", M%d_BUSY, { 0, %du }, 0 },\n'
          % (m * 4 + i, (m * 37 + i * 11) % 1000 - 500, i, i & 7, (i * 13) & 255,
             i, m, i, m, i))
    w("};\n")
    w("static const lg_u16 m%d_table[16] = { %s };\n"
      % (m, ", ".join(str((m * 131 + k * 17) & 0xFFFF) for k in range(16))))
    w("lg_u32 m%d_count;\n" % m)
    w("static m%d_word_t m%d_scratch;\n" % (m, m))
    for f in range(first, first + count):
        w("int fn_%d(int x, m%d_rec_alias_t *r);\n" % (f, m))
    if first > 0:
        w("int fn_%d(int x, void *r);\n" % (first - 1))
    for f in range(first, first + count):
        prev = f - 1
        w("\nint fn_%d(int x, m%d_rec_alias_t *r)\n{\n" % (f, m))
        w("    int k = x * %d + m%d_table[x & 15];\n" % (f % 97 + 1, m))
        w("    lg_u8 buf[8];\n    int j;\n    m%d_word_t u;\n" % m)
        w("    static lg_u32 calls;\n")
        w("    calls++;\n")
        w("    if (r) {\n        r->value += k;\n        r->flags = (lg_u16)(k & 31);\n"
          "        r->state = (k & 1) ? M%d_BUSY : M%d_DONE;\n    }\n" % (m, m))
        w("    for (j = 0; j < 8; j++)\n        buf[j] = (lg_u8)(k + j);\n")
        w("    u.word = (lg_u32)k ^ calls;\n")
        w("    switch (x & 7) {\n")
        if prev >= 0 and prev < first:
            w("    case 0: k += fn_%d(x - 1, (void *)r); break;\n" % prev)
        elif prev >= first:
            w("    case 0: k += fn_%d(x - 1, r); break;\n" % prev)
        w("    case 1: k -= buf[3]; break;\n")
        w("    case 2: k ^= (int)u.bytes[1]; break;\n")
        w("    case 3: k += (int)(u.real > 1.0f); break;\n")
        w("    case 4: m%d_scratch = u; break;\n" % m)
        w("    default: k += (int)lg_ticks; break;\n    }\n")
        w("    m%d_count += (lg_u32)k;\n" % m)
        w("    return k + buf[x & 7];\n}\n")
    return "".join(out)


MAIN_SOURCE = """\
#include "common.h"
volatile lg_u32 lg_ticks;
void *memset(void *d, int c, unsigned int n)
{
    lg_u8 *p = (lg_u8 *)d;
    while (n--)
        *p++ = (lg_u8)c;
    return d;
}
void *memcpy(void *d, const void *s, unsigned int n)
{
    lg_u8 *p = (lg_u8 *)d;
    const lg_u8 *q = (const lg_u8 *)s;
    while (n--)
        *p++ = *q++;
    return d;
}
int fn_%d(int x, void *r);
int main(void)
{
    int acc = 0;
    for (;;) {
        acc += fn_%d(acc & 255, 0);
        lg_ticks++;
    }
    return acc;
}
"""


def run(cmd, cwd):
    res = subprocess.run(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         text=True)
    if res.returncode != 0:
        sys.stderr.write(" ".join(cmd) + "\n" + res.stdout)
        raise SystemExit(1)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("outdir", help="directory that receives the ELF file")
    ap.add_argument("--functions", type=int, default=20000, help="number of functions")
    ap.add_argument("--dwarf", type=int, choices=(2, 3, 4, 5), default=4,
                    help="DWARF version (default 4)")
    ap.add_argument("--opt", default="-O0", help="optimisation flag, written --opt=-O2 (default -O0)")
    ap.add_argument("--jobs", type=int, default=2, help="parallel compiler runs")
    ap.add_argument("--cc", default="arm-none-eabi-gcc")
    ap.add_argument("--keep-sources", action="store_true",
                    help="keep the generated sources in OUTDIR/large-src")
    args = ap.parse_args()
    if args.functions < 1:
        ap.error("--functions must be at least 1")
    if shutil.which(args.cc) is None:
        ap.error("compiler %s not found" % args.cc)

    outdir = os.path.abspath(args.outdir)
    os.makedirs(outdir, exist_ok=True)
    work = tempfile.mkdtemp(prefix="tavit-large-")
    try:
        src = os.path.join(work, "src")
        os.makedirs(src)
        files = ["main.c"]
        with open(os.path.join(src, "common.h"), "w") as fh:
            fh.write(COMMON_HEADER)
        with open(os.path.join(src, "main.c"), "w") as fh:
            fh.write(MAIN_SOURCE % (args.functions - 1, args.functions - 1))
        with open(os.path.join(src, "startup.s"), "w") as fh:
            fh.write(STARTUP)
        with open(os.path.join(src, "large.ld"), "w") as fh:
            fh.write(LDSCRIPT)
        m = 0
        for first in range(0, args.functions, FUNCS_PER_FILE):
            count = min(FUNCS_PER_FILE, args.functions - first)
            name = "mod%04d.c" % m
            with open(os.path.join(src, name), "w") as fh:
                fh.write(module_source(m, first, count))
            files.append(name)
            m += 1

        if args.dwarf == 5:
            dbg = ["-g"]
        else:
            dbg = ["-gdwarf-%d" % args.dwarf, "-gno-variable-location-views"]
        cflags = CFLAGS + dbg + [args.opt, "-ffile-prefix-map=%s=/tavit/large" % work,
                              "-fdebug-prefix-map=%s=/tavit/large" % work]
        objdir = os.path.join(work, "obj")
        os.makedirs(objdir)

        def compile_one(name):
            run([args.cc] + cflags + ["-c", "src/" + name,
                                      "-o", os.path.join(objdir, name + ".o")], work)
            return os.path.join(objdir, name + ".o")

        with ThreadPoolExecutor(max_workers=max(1, args.jobs)) as pool:
            objs = list(pool.map(compile_one, files + ["startup.s"]))
        elf = os.path.join(outdir, "large-dwarf%d.elf" % args.dwarf)
        run([args.cc] + cflags + ["-nostdlib", "-nostartfiles", "-T", "src/large.ld",
                                  "-Wl,--build-id=none", "-o", elf] + objs, work)
        if args.keep_sources:
            dst = os.path.join(outdir, "large-src")
            shutil.rmtree(dst, ignore_errors=True)
            shutil.copytree(src, dst)
    finally:
        shutil.rmtree(work, ignore_errors=True)

    size = os.path.getsize(elf)
    info = 0
    try:
        hdr = subprocess.run(["arm-none-eabi-readelf", "-SW", elf], stdout=subprocess.PIPE,
                             text=True).stdout
        for line in hdr.splitlines():
            if " .debug_info " in line:
                info = int(line.split("]", 1)[1].split()[4], 16)
    except OSError:
        pass
    print("%s: %d bytes, .debug_info %d bytes, %d functions, DWARF %d"
          % (elf, size, info, args.functions, args.dwarf))


if __name__ == "__main__":
    main()
