// tavit-dump: prints what the ELF layer reads from a program file, for use in
// scripts and CI and as the seam against which the ELF layer is tested.
//
//   tavit-dump [options] FILE.elf
//
// All numbers are hexadecimal with 0x unless a column says otherwise. Names
// stand last on their lines so that empty names keep the columns intact.
#include "elf/elfapi.h"
#include "elf/symbol/symdump.h"
#include "expr/evaluator.h"
#include "elf/elf.h"
#include "elf/dwarf/debug_dump.h"
#include "elf/dwarf/debuginfo.h"
#include "expr/exprdump.h"
#include "log/diag.h"

#include <QString>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {
bool g_Verbose = false;

void Usage(FILE* fp) {
  fputs("usage: tavit-dump [options] FILE.elf\n"
        "  --header             ELF header fields\n"
        "  --sections           section headers\n"
        "  --segments           program headers\n"
        "  --symbols            ELF symbols (sizes completed as the debugger sees them)\n"
        "  --functions          function symbol list: address, size, name; sorted by address\n"
        "  --program-data       program data blocks for download, as hex dump\n"
        "  --relocate RANGE:OFFSET\n"
        "                       relocate symbols before the other options; RANGE is \"*\",\n"
        "                       \"START-END\", a section name or a symbol name\n"
        "  --lines              address map after the load clean-up: address, path:line:column\n"
        "  --files              source files of the line tables\n"
        "  --functions-debug    debug functions: start, size, name, decl file:line\n"
        "  --inlines            inlined instances: range, name, call file:line\n"
        "  --globals            global variables: name, address, size, type\n"
        "  --types              types with their members and bit fields\n"
        "  --locals PC          locals and parameters visible at PC with their locations\n"
        "  --cfa                call frame rules at each row of each frame description\n"
        "  --macros             macro definitions\n"
        "  --expr EXPR          value block of an expression over the program image\n"
        "  --symbol NAME        children tree of a global to a depth of 3: names,\n"
        "                       types, offsets, sizes and values\n"
        "  --expr-tokens EXPR   tokens, postfix list and status of an expression\n"
        "                       (FILE may be left out)\n"
        "  --verbose            also print the ELF layer's log lines to stderr\n",
        fp);
}

void DiagHook(const ELF_DIAG* d) {
  if (d->Code == 0) {
    if (g_Verbose) fprintf(stderr, "%s\n", d->sText);
    return;
  }
  const int row = DIAG_RowFromElfCode(d->Code);
  if (row < 0) return;
  const QString s = d->Code == 31 ? DIAG_Format(row, (unsigned)d->Value)
                                  : DIAG_Format(row, d->asArg[0], d->asArg[1], d->asArg[2], d->asArg[3]);
  fprintf(stderr, "%s\n", s.toUtf8().constData());
}

void PrintHeader(const ELF_FILE* f) {
  const ELF_HEADER* h = ELF_GetHeader(f);
  printf("ELF header:\n");
  printf("  Class:                %u\n", h->e_ident[4]);
  printf("  Data:                 %s\n", ELF_GetEndian(f) == 1 ? "big-endian" : "little-endian");
  printf("  Version:              %u\n", h->e_version);
  printf("  OS/ABI:               %u\n", h->e_ident[7]);
  printf("  Type:                 %u\n", h->e_type);
  printf("  Machine:              %u\n", h->e_machine);
  printf("  Entry:                0x%08X\n", h->e_entry);
  printf("  Entry PC:             0x%08X\n", ELF_GetEntryPoint(f));
  printf("  Program headers at:   0x%X\n", h->e_phoff);
  printf("  Section headers at:   0x%X\n", h->e_shoff);
  printf("  Flags:                0x%X\n", h->e_flags);
  printf("  Header size:          %u\n", h->e_ehsize);
  printf("  Program header size:  %u\n", h->e_phentsize);
  printf("  Program headers:      %u\n", h->e_phnum);
  printf("  Section header size:  %u\n", h->e_shentsize);
  printf("  Section headers:      %u\n", h->e_shnum);
  printf("  Section names index:  %u\n", h->e_shstrndx);
  printf("  File size:            %u\n", ELF_GetFileSize(f));
}

void PrintSections(const ELF_FILE* f) {
  const int n = ELF_GetNumSections(f);
  printf("Sections: %d\n", n);
  printf("  Nr Type       Flags      Addr       Offset     Size       EntSize Link Info Align Name\n");
  for (int i = 0; i < n; ++i) {
    const ELF_SECTION* s = ELF_GetSectionHeader(f, i);
    std::string name = ELF_GetSectionName(f, i);
    printf("%4d 0x%08X 0x%08X 0x%08X 0x%08X 0x%08X 0x%05X %4u %4u %5u %s\n", i, s->sh_type, s->sh_flags,
           ELF_GetSectionAddr(f, i), s->sh_offset, s->sh_size, s->sh_entsize, s->sh_link, s->sh_info,
           s->sh_addralign, name.c_str());
  }
}

void PrintSegments(const ELF_FILE* f) {
  const int n = ELF_GetNumSegments(f);
  printf("Segments: %d\n", n);
  printf("  Nr Type       Offset     VirtAddr   PhysAddr   FileSize   MemSize    Flags Align      DataSkip\n");
  for (int i = 0; i < n; ++i) {
    const ELF_SEGMENT* p = ELF_GetSegmentHeader(f, i);
    printf("%4d 0x%08X 0x%08X 0x%08X 0x%08X 0x%08X 0x%08X 0x%03X 0x%08X 0x%X\n", i, p->p_type, p->p_offset,
           p->p_vaddr, p->p_paddr, p->p_filesz, p->p_memsz, p->p_flags, p->p_align, ELF_GetSegmentDataSkip(f, i));
  }
}

void PrintSymbols(const ELF_FILE* f) {
  const int n = ELF_GetNumSymbols(f);
  printf("Symbols: %d\n", n);
  printf("   Row Value      Size       Type Bind Other Ndx   Name\n");
  for (int i = 0; i < n; ++i) {
    const ELF_SYM_HANDLE h = ELF_GetSymbolHandle(f, i);
    const ELF_SYMBOL* s = ELF_GetSymbolRow(f, i);
    std::string name = ELF_GetSymbolName(h);
    printf("%6d 0x%08X 0x%08X %4d %4d 0x%02X  %5d %s\n", i, ELF_GetSymbolValue(h), ELF_GetSymbolSize(h),
           ELF_GetSymbolType(h), ELF_GetSymbolBinding(h), s->st_other, ELF_GetSymbolSection(h), name.c_str());
  }
}

void PrintFunctions(const ELF_FILE* f) {
  const int n = ELF_GetNumFunctionSymbols(f);
  for (int i = 0; i < n; ++i) {
    const ELF_SYM_HANDLE h = ELF_GetFunctionSymbol(f, i);
    const U32 start = ELF_AlignAddress(ELF_GetSymbolValue(h));
    std::string name = ELF_GetSymbolName(h);
    printf("0x%08X 0x%X %s\n", start, ELF_GetSymbolSize(h), name.c_str());
  }
}

void PrintProgramData(const ELF_FILE* f) {
  const int n = ELF_GetProgramData(f, nullptr, 0);
  std::vector<ELF_PROGRAM_DATA> blocks(n > 0 ? (size_t)n : 0);
  if (n > 0) ELF_GetProgramData(f, blocks.data(), n);
  printf("Program data: %d\n", n > 0 ? n : 0);
  for (const ELF_PROGRAM_DATA& b : blocks) {
    printf("Block load=0x%08X run=0x%08X size=0x%X\n", b.LoadAddr, b.RunAddr, b.Size);
    for (U32 off = 0; off < b.Size; off += 16) {
      printf("  %08X:", b.LoadAddr + off);
      for (U32 k = off; k < off + 16 && k < b.Size; ++k) printf(" %02X", b.pData[k]);
      printf("\n");
    }
  }
}

// "RANGE:OFFSET", split at the last colon; the offset is read with base 0.
bool AddRelocation(const char* sArg) {
  const char* colon = strrchr(sArg, ':');
  if (!colon || colon == sArg || !colon[1]) return false;
  std::string range(sArg, colon);
  char* end = nullptr;
  const long long off = strtoll(colon + 1, &end, 0);
  if (*end || off < INT32_MIN || off > INT32_MAX) return false;
  return ELF_AddRelocation(range.c_str(), (I32)off) >= 0;
}
} // namespace

int main(int argc, char** argv) {
  DIAG_Init();
  ELF_SetDiagHook(DiagHook);
  bool header = false, sections = false, segments = false, symbols = false, functions = false, data = false;
  const char* sPath = nullptr;
  std::vector<const char*> relocations;
  std::vector<const char*> expressions;
  // --expr and --symbol, in the order given: (is symbol, text).
  std::vector<std::pair<bool, const char*>> values;
  std::vector<std::string> debugDumps;
  std::vector<U32> localPcs;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    if (!strcmp(a, "--header")) header = true;
    else if (!strcmp(a, "--sections")) sections = true;
    else if (!strcmp(a, "--segments")) segments = true;
    else if (!strcmp(a, "--symbols")) symbols = true;
    else if (!strcmp(a, "--functions")) functions = true;
    else if (!strcmp(a, "--program-data")) data = true;
    else if (!strcmp(a, "--verbose")) g_Verbose = true;
    else if (!strcmp(a, "--lines") || !strcmp(a, "--files") || !strcmp(a, "--functions-debug") ||
             !strcmp(a, "--inlines") || !strcmp(a, "--globals") || !strcmp(a, "--types") || !strcmp(a, "--cfa") ||
             !strcmp(a, "--macros"))
      debugDumps.push_back(a + 2);
    else if (!strcmp(a, "--locals") && i + 1 < argc) {
      debugDumps.push_back("locals");
      localPcs.push_back((U32)strtoul(argv[++i], nullptr, 0));
    }
    else if (!strcmp(a, "--help") || !strcmp(a, "-h")) {
      Usage(stdout);
      return 0;
    } else if (!strcmp(a, "--relocate") && i + 1 < argc) relocations.push_back(argv[++i]);
    else if (!strncmp(a, "--relocate=", 11)) relocations.push_back(a + 11);
    else if (!strcmp(a, "--expr") && i + 1 < argc) values.emplace_back(false, argv[++i]);
    else if (!strcmp(a, "--symbol") && i + 1 < argc) values.emplace_back(true, argv[++i]);
    else if (!strcmp(a, "--expr-tokens") && i + 1 < argc) expressions.push_back(argv[++i]);
    else if (!strncmp(a, "--expr-tokens=", 14)) expressions.push_back(a + 14);
    else if (a[0] == '-' && a[1]) {
      fprintf(stderr, "tavit-dump: unknown option '%s'\n", a);
      Usage(stderr);
      return 1;
    } else if (!sPath) sPath = a;
    else {
      fprintf(stderr, "tavit-dump: more than one file given\n");
      return 1;
    }
  }
  const bool wantFile = header || sections || segments || symbols || functions || data || !debugDumps.empty() || !values.empty();
  if (!sPath && (wantFile || expressions.empty())) {
    Usage(stderr);
    return 1;
  }
  // Relocation rows come first: names in them are resolved when the file opens.
  for (const char* r : relocations)
    if (!AddRelocation(r)) {
      fprintf(stderr, "tavit-dump: invalid relocation '%s'\n", r);
      return 1;
    }
  ELF_FILE* f = nullptr;
  DWARF_Install();
  if (sPath) {
    f = ELF_Open(sPath, true);
    if (!f) return 1;
  }
  for (int i = 0; i < ELF_GetNumRelocations(); ++i) {
    const ELF_RELOC_RANGE* r = ELF_GetRelocation(i);
    if (r->acSymbols[0] && r->start == 0 && r->end == 0) {
      fprintf(stderr, "tavit-dump: relocation range '%s' names no section or symbol\n", r->acSymbols);
      ELF_Close(f);
      return 1;
    }
  }
  if (!wantFile && expressions.empty()) header = true;
  if (header) PrintHeader(f);
  if (sections) PrintSections(f);
  if (segments) PrintSegments(f);
  if (symbols) PrintSymbols(f);
  if (functions) PrintFunctions(f);
  if (data) PrintProgramData(f);
  size_t nextPc = 0;
  for (const std::string& d : debugDumps) {
    std::string text;
    if (d == "lines") text = DWARF_DumpAddressMap(f);
    else if (d == "files") text = DWARF_DumpFiles(f);
    else if (d == "functions-debug") text = DWARF_DumpFunctions(f);
    else if (d == "inlines") text = DWARF_DumpInlines(f);
    else if (d == "globals") text = DWARF_DumpGlobals(f);
    else if (d == "types") text = DWARF_DumpTypes(f);
    else if (d == "cfa") text = DWARF_DumpCfa(f);
    else if (d == "macros") text = DWARF_DumpMacros(f);
    else if (d == "locals") text = DWARF_DumpLocals(f, localPcs[nextPc++]);
    fputs(text.c_str(), stdout);
  }
  for (const char* e : expressions)
    for (const QString& line : EXPR_RenderTokenLines(QString::fromUtf8(e))) printf("%s\n", line.toUtf8().constData());
  if (f) ELF_Close(f);
  if (!values.empty()) {
    // Values are read through the wrapper, as the debugger reads them
    // without a target: from the program image.
    if (CElfApi::Instance().Load(QString::fromUtf8(sPath)) < 0) return 1;
    for (const auto& [isSymbol, text] : values) {
      if (isSymbol) {
        CSymbol s = SYM_MakeGlobal(QString::fromUtf8(text));
        if (s.IsEmpty()) {
          fprintf(stderr, "tavit-dump: unknown symbol '%s'\n", text);
          return 1;
        }
        for (const QString& l : SYM_DumpTree(s, 3)) printf("%s\n", l.toUtf8().constData());
      } else {
        const QString sText = QString::fromUtf8(text);
        CExpression e(sText);
        const int r = e.GetStatus() < 0 ? e.GetStatus() : Evaluate(e);
        if (GetResult(e)->IsEmpty()) {
          fprintf(stderr, "tavit-dump: Error parsing expression '%s'\n", text);
          return 1;
        }
        for (const QString& l : EXPR_GetFramedValueBlock(sText, e, r)) printf("%s\n", l.toUtf8().constData());
      }
    }
    CElfApi::Instance().Close();
  }
  return 0;
}
