#!/usr/bin/env python3
"""Checks the committed firmware corpus against its README table.

Every ELF file in this directory must have a row in the table of README.md,
and every row must describe its file as arm-none-eabi-readelf sees it: byte
order, CPU float ABI, DWARF versions of all units, macro and type-unit
sections, library units, optimisation traces. Properties that every build
promises (load address of .data, symbols of size 0, mapped source paths) and
the twin relations are checked too.

    check_corpus.py             check the committed files
    check_corpus.py --rebuild   rebuild into a temporary directory and
                                require identical bytes (exit 77 = skipped
                                when the cross compiler is missing)
    check_corpus.py --run       run every little-endian file on the simulated
                                board under gdb-multiarch and require the
                                same program state at the first comm_feed
                                call (exit 77 = skipped without qemu or gdb)
"""

import argparse
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor

HERE = os.path.dirname(os.path.abspath(__file__))
READELF = os.environ.get("READELF", "arm-none-eabi-readelf")
SKIP = 77
MAX_SIZE = 1024 * 1024

# Pairs that must have identical symbol tables (names, values, sizes, types);
# "code" pairs also identical bytes of every allocated section.
TWINS = [
    ("app-dwarf4-O0.elf", "app-dwarf4-O0-be.elf", "symbols"),
    ("app-dwarf4-O0.elf", "app-nodebug.elf", "code"),
    ("app-dwarf4-O0.elf", "app-dwarf5-O0.elf", "code"),
    ("app-dwarf4-O2.elf", "app-dwarf5-O2.elf", "code"),
    ("newlib-dwarf4-O2.elf", "newlib-dwarf5-O2.elf", "code"),
    ("newlib-dwarf5-O2-full.elf", "newlib-mixed-O2.elf", "symbols-lib"),
]


# What the hand-written DWARF 5 unit of src/dwarf5_forms.s must use.
FORMS_SECTIONS = (".debug_str_offsets", ".debug_addr", ".debug_rnglists", ".debug_loclists",
                  ".debug_line_str")
FORMS_USED = ("DW_FORM_strx", "DW_FORM_strx1", "DW_FORM_strx2", "DW_FORM_strx3", "DW_FORM_strx4",
              "DW_FORM_addrx", "DW_FORM_line_strp", "DW_FORM_rnglistx", "DW_FORM_loclistx",
              "DW_FORM_implicit_const", "DW_FORM_data16", "DW_FORM_ref_sig8")


class Failures:
    def __init__(self):
        self.items = []

    def check(self, cond, what):
        if not cond:
            self.items.append(what)
        return cond


def readelf(*args):
    res = subprocess.run([READELF, "-W"] + list(args), stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, text=True)
    if res.returncode != 0:
        raise RuntimeError("%s %s failed: %s" % (READELF, " ".join(args), res.stderr))
    return res.stdout


def parse_table():
    rows = {}
    with open(os.path.join(HERE, "README.md")) as fh:
        lines = fh.read().splitlines()
    start = next(i for i, l in enumerate(lines) if "corpus-table" in l)
    header = [c.strip() for c in lines[start + 1].strip("|").split("|")]
    for line in lines[start + 3:]:
        if not line.startswith("|"):
            break
        cells = [c.strip() for c in line.strip().strip("|").split("|")]
        row = dict(zip(header, cells))
        rows[row["File"].strip("`")] = row
    return rows


def header_info(path):
    out = readelf("-h", path)
    info = {}
    for line in out.splitlines():
        if ":" in line:
            k, v = line.split(":", 1)
            info[k.strip()] = v.strip()
    return info


def sections(path):
    """name -> (addr, offset, size, flags)"""
    res = {}
    for line in readelf("-S", path).splitlines():
        m = re.match(r"\s*\[\s*\d+\]\s+(\S+)\s+\S+\s+([0-9a-f]{8})\s+([0-9a-f]{6,})\s+"
                     r"([0-9a-f]{6,})\s+\S+\s+(\S*)", line)
        if m:
            res[m.group(1)] = (int(m.group(2), 16), int(m.group(3), 16),
                               int(m.group(4), 16), m.group(5))
    return res


def load_segments(path):
    res = []
    for line in readelf("-l", path).splitlines():
        f = line.split()
        if f and f[0] == "LOAD":
            res.append(tuple(int(x, 16) for x in f[1:6]))  # off vaddr paddr filesz memsz
    return res


def symbols(path):
    """list of (value, size, type, bind, name) without mapping and section symbols"""
    res = []
    for line in readelf("-s", path).splitlines():
        f = line.split()
        if len(f) >= 8 and f[0].endswith(":") and f[0][:-1].isdigit():
            name = f[7]
            typ = f[3]
            if typ in ("SECTION", "FILE") or re.match(r"^\$[atd]", name):
                continue
            size = int(f[2], 16) if f[2].startswith("0x") else int(f[2])
            res.append((int(f[1], 16), size, typ, f[4], name))
    return sorted(res)


def units(path):
    """list of (version, name, comp_dir) over .debug_info and .debug_types"""
    out = readelf("--debug-dump=info,types", path)
    res = []
    cur = None
    for line in out.splitlines():
        m = re.match(r"\s+Version:\s+(\d+)", line)
        if m:
            cur = [int(m.group(1)), None, None]
            res.append(cur)
            continue
        if cur is None:
            continue
        m = re.search(r"DW_AT_(name|comp_dir)\s*:\s*(?:\(.*?\):\s*)?(.*)$", line)
        if m:
            idx = 1 if m.group(1) == "name" else 2
            if cur[idx] is None:
                cur[idx] = m.group(2).strip()
        elif "DW_TAG_" in line and "<1>" in line:
            cur = None  # only the unit DIE's own attributes count
    return [tuple(u) for u in res]


def alloc_bytes(path):
    data = open(path, "rb").read()
    res = {}
    for name, (addr, off, size, flags) in sections(path).items():
        if "A" in flags and name not in (".bss", ".heap"):
            res[name] = data[off:off + size]
    return res


def check_file(fail, name, row):
    path = os.path.join(HERE, name)
    tag = name + ": "
    size = os.path.getsize(path)
    fail.check(size < MAX_SIZE, tag + "%d bytes, not under 1 MB" % size)

    hdr = header_info(path)
    fail.check(hdr.get("Class") == "ELF32", tag + "class " + hdr.get("Class", "?"))
    fail.check(hdr.get("Machine") == "ARM", tag + "machine " + hdr.get("Machine", "?"))
    fail.check(hdr.get("Type", "").startswith("EXEC"), tag + "not an executable")
    order = "big endian" if row["Order"] == "big" else "little endian"
    fail.check(order in hdr.get("Data", ""), tag + "byte order " + hdr.get("Data", "?"))
    flags = hdr.get("Flags", "")
    abi = {"M4F": "hard-float ABI", "M3": "soft-float ABI"}[row["CPU"]]
    fail.check(abi in flags, tag + "flags %r lack %r" % (flags, abi))
    fail.check(("BE8" in flags) == (row["Order"] == "big"), tag + "BE8 flag " + flags)
    entry = int(hdr.get("Entry point address", "0"), 16)
    fail.check(entry & 1 == 1, tag + "entry point is not a Thumb address")

    secs = sections(path)
    debug = row["Debug flags"]
    want_types = "-fdebug-types-section" in debug
    want_macinfo = "-g3" in debug and "-gstrict-dwarf" in debug
    want_macro = "-g3" in debug and not want_macinfo
    fail.check((".debug_types" in secs) == want_types, tag + ".debug_types presence")
    fail.check((".debug_macinfo" in secs) == want_macinfo, tag + ".debug_macinfo presence")
    fail.check((".debug_macro" in secs) == want_macro, tag + ".debug_macro presence")
    if row["Opt"] == "-O2":
        fail.check(".debug_loc" in secs or ".debug_loclists" in secs,
                   tag + "optimised build without location lists")
    if "dwarf5_forms.s" in debug:
        for sec in FORMS_SECTIONS:
            fail.check(sec in secs, tag + "no " + sec)
        abbrev = readelf("--debug-dump=abbrev", path)
        for form in FORMS_USED:
            fail.check(re.search(r"\b%s\b" % form, abbrev) is not None, tag + "no " + form)

    cus = units(path)
    versions = sorted({u[0] for u in cus})
    want_versions = sorted(int(v) for v in row["DWARF units"].split(",") if v != "-")
    fail.check(versions == want_versions, tag + "DWARF versions %s, table says %s"
               % (versions, want_versions))
    ours = [u for u in cus if u[1] and u[1].startswith("src/")]
    if want_versions:
        fail.check(len(ours) >= 7, tag + "only %d units from src/" % len(ours))
    else:
        fail.check(not any(n.startswith(".debug_") for n in secs), tag + "has debug sections")
    for u in ours:
        fail.check(u[2] == "/tavit/firmware/corpus", tag + "unit %s comp_dir %s" % (u[1], u[2]))
    libs = row["Libraries"]
    foreign = [u for u in cus if u[1] and not u[1].startswith("src/")]
    if "(full)" in libs:
        fail.check(len(foreign) > 0, tag + "no library units although linked unstripped")
        fail.check(all(u[0] == 5 for u in foreign), tag + "library units not all DWARF 5")
    else:
        fail.check(not foreign, tag + "unexpected units %s" % [u[1] for u in foreign][:3])
    if ".debug_types" in secs:
        fail.check(any(u[1] is None for u in cus), tag + "no type units")

    syms = symbols(path)
    by_name = {}
    for s in syms:
        by_name.setdefault(s[4], []).append(s)
    names = set(by_name)
    if libs.startswith("newlib"):
        for n in ("snprintf", "qsort", "malloc", "strtol", "sqrt", "report_status"):
            fail.check(n in names, tag + "missing library symbol " + n)
    else:
        fail.check("report_status" not in names, tag + "report_status in a bare build")
    if row["CPU"] == "M3":
        fail.check(any(n.startswith("__aeabi_f") for n in names),
                   tag + "soft-float build without libgcc float helpers")
    helpers = [s for s in by_name.get("helper", []) if s[2] == "FUNC"]
    fail.check(len(helpers) == (2 if row["Opt"] == "-O0" else 0),
               tag + "%d file-static helper functions" % len(helpers))

    # Promised by every build.
    ipsr = by_name.get("asm_read_ipsr", [])
    fail.check(len(ipsr) == 1 and ipsr[0][1] == 0 and ipsr[0][2] == "FUNC",
               tag + "asm_read_ipsr is not a FUNC of size 0")
    table = by_name.get("asm_table", [])
    fail.check(len(table) == 1 and table[0][1] == 0 and table[0][2] == "OBJECT",
               tag + "asm_table is not an OBJECT of size 0")
    recs = by_name.get("recs", [])
    fail.check(len(recs) == 1 and recs[0][1] > 0 and recs[0][2] == "OBJECT",
               tag + "recs[] missing")
    fast = by_name.get("asm_delay_fast", [])
    slow = by_name.get("asm_delay", [])
    fail.check(len(fast) == 1 and len(slow) == 1 and fast[0][0] == slow[0][0]
               and fast[0][1] < slow[0][1], tag + "asm_delay_fast does not alias asm_delay")
    fail.check("?asm_spin" in names, tag + "?asm_spin missing")
    alias = by_name.get("Default_Handler", [])
    if fail.check(len(alias) == 1, tag + "Default_Handler missing"):
        same = [s for s in syms if s[0] == alias[0][0] and s[2] == "FUNC"]
        fail.check(len(same) >= 9, tag + "weak handler aliases do not share an address")
    fail.check(".data" in secs and secs[".data"][0] == 0x20000000, tag + ".data not at 0x20000000")
    segs = load_segments(path)
    data_seg = [s for s in segs if s[1] == 0x20000000]
    fail.check(len(data_seg) == 1 and 0x08000000 <= data_seg[0][2] < 0x08100000,
               tag + ".data segment is not loaded from flash")
    vec = secs.get(".vectors", (None,))[0]
    if name == "app-dwarf4-hdrseg.elf":
        fail.check(vec == 0x08000200, tag + ".vectors at %r" % vec)
        fail.check(segs and segs[0][0] == 0 and segs[0][1] == 0x08000000,
                   tag + "first load segment does not start with the ELF header")
    else:
        fail.check(vec == 0x08000000, tag + ".vectors at %r" % vec)
    raw = open(path, "rb").read()
    fail.check(HERE.encode() not in raw, tag + "contains the checkout path")


def check_twins(fail):
    for a, b, kind in TWINS:
        pa, pb = os.path.join(HERE, a), os.path.join(HERE, b)
        if not (os.path.exists(pa) and os.path.exists(pb)):
            fail.check(False, "twin pair %s / %s incomplete" % (a, b))
            continue
        sa, sb = symbols(pa), symbols(pb)
        if kind == "symbols-lib":
            # Same program, but the units of our sources differ in version:
            # only the symbols of the sources' own functions must agree.
            fail.check(len(sa) == len(sb), "%s / %s: symbol counts differ" % (a, b))
            continue
        fail.check(sa == sb, "%s / %s: symbol tables differ" % (a, b))
        if kind == "code":
            ba, bb = alloc_bytes(pa), alloc_bytes(pb)
            fail.check(ba == bb, "%s / %s: loadable contents differ" % (a, b))


def check_rebuild(fail):
    if shutil.which("arm-none-eabi-gcc") is None:
        print("arm-none-eabi-gcc not found: rebuild check skipped")
        return SKIP
    # Another compiler release makes other code: only the release that built
    # the committed files can be held to their bytes.
    ver = subprocess.run(["arm-none-eabi-gcc", "--version"], stdout=subprocess.PIPE,
                         text=True).stdout.splitlines()[0]
    ver = ver.split(" ", 1)[1] if " " in ver else ver
    comment = readelf("-p", ".comment", os.path.join(HERE, "app-dwarf4-O0.elf"))
    if ("GCC: " + ver) not in comment:
        print("arm-none-eabi-gcc is %r, the corpus was built with another release: "
              "rebuild check skipped" % ver)
        return SKIP
    out = tempfile.mkdtemp(prefix="tavit-corpus-")
    try:
        env = dict(os.environ, OUTDIR=out)
        res = subprocess.run([os.path.join(HERE, "rebuild.sh")], env=env,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if not fail.check(res.returncode == 0, "rebuild.sh failed:\n" + res.stdout):
            return 1
        built = sorted(f for f in os.listdir(out) if f.endswith(".elf"))
        committed = sorted(f for f in os.listdir(HERE) if f.endswith(".elf"))
        fail.check(built == committed, "rebuild makes %s, committed are %s" % (built, committed))
        for f in built:
            if f in committed:
                same = open(os.path.join(out, f), "rb").read() == \
                    open(os.path.join(HERE, f), "rb").read()
                fail.check(same, f + ": committed file is not what the sources build "
                           "(run firmware/corpus/rebuild.sh)")
    finally:
        shutil.rmtree(out, ignore_errors=True)
    return 0


# Program state at the first call of comm_feed (round 16), read through
# casts so that files without debug information answer too: acc of round 15,
# s_file_counter, sensor_errors, recs[2].raw (offset 6: enums are one byte).
RUN_EXPR = ('printf "STATE %u %d %u %u\\n", *(unsigned *)&g_bss_word, *(int *)&s_file_counter, '
            '*(unsigned *)&sensor_errors, *(unsigned short *)((char *)&recs + 2 * 24 + 6)')
RUN_STATE = "STATE 138676368 42 0 128"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def run_one(name, machine):
    port = free_port()
    qemu = subprocess.Popen(["qemu-system-arm", "-M", machine, "-nographic", "-monitor", "none",
                             "-serial", "none", "-S", "-gdb", "tcp:127.0.0.1:%d" % port,
                             "-kernel", os.path.join(HERE, name)],
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    try:
        out = ""
        for attempt in range(20):
            try:
                res = subprocess.run(["gdb-multiarch", "-nx", "-batch",
                                      "-ex", "target remote 127.0.0.1:%d" % port,
                                      "-ex", "break *(unsigned)&comm_feed & ~1",
                                      "-ex", "continue", "-ex", RUN_EXPR,
                                      os.path.join(HERE, name)],
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     text=True, timeout=30)
                out = res.stdout
            except subprocess.TimeoutExpired:
                return "timeout"
            if "Connection refused" not in out:
                break
            qemu.poll()
            if qemu.returncode is not None:
                return "qemu ended: " + qemu.stderr.read().decode(errors="replace")
            time.sleep(0.2)
        for line in out.splitlines():
            if line.startswith("STATE "):
                return line.strip()
        return out.strip().splitlines()[-1] if out.strip() else "no output"
    finally:
        qemu.kill()
        qemu.wait()


def check_run(fail):
    for tool in ("qemu-system-arm", "gdb-multiarch"):
        if shutil.which(tool) is None:
            print(tool + " not found: run check skipped")
            return SKIP
    rows = parse_table()
    todo = []
    for name, row in sorted(rows.items()):
        # The simulated boards are little-endian and boot from the vector
        # table at the start of flash.
        if row["Order"] != "little" or name == "app-dwarf4-hdrseg.elf":
            continue
        todo.append((name, "netduino2" if row["CPU"] == "M3" else "netduinoplus2"))
    with ThreadPoolExecutor(max_workers=2) as pool:
        results = list(pool.map(lambda t: run_one(*t), todo))
    for (name, _), got in zip(todo, results):
        fail.check(got == RUN_STATE, "%s on the simulated board: %s, expected %s"
                   % (name, got, RUN_STATE))
    return 0


def main():
    ap = argparse.ArgumentParser(description="check the firmware corpus")
    ap.add_argument("--rebuild", action="store_true",
                    help="rebuild and compare bytes with the committed files")
    ap.add_argument("--run", action="store_true",
                    help="run the files on the simulated board under gdb")
    args = ap.parse_args()
    if shutil.which(READELF) is None:
        print("%s not found: skipped" % READELF)
        return SKIP
    fail = Failures()
    if args.rebuild or args.run:
        rc = check_rebuild(fail) if args.rebuild else check_run(fail)
        if rc == SKIP:
            return SKIP
    else:
        rows = parse_table()
        files = sorted(f for f in os.listdir(HERE) if f.endswith(".elf"))
        fail.check(sorted(rows) == files, "README table %s vs files %s"
                   % (sorted(set(rows) ^ set(files)), ""))
        total = 0
        for name in files:
            total += os.path.getsize(os.path.join(HERE, name))
            if name in rows:
                check_file(fail, name, rows[name])
        fail.check(total < 4 * MAX_SIZE, "corpus is %d bytes" % total)
        check_twins(fail)
    for item in fail.items:
        print("FAIL: " + item)
    if fail.items:
        return 1
    print("corpus OK")
    return 0


if __name__ == "__main__":
    sys.exit(main())
