#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/debug_dump.h"
#include "elf/dwarf/location.h"
#include <stdio.h>
#include <string.h>
int main(int argc, char** argv) {
  DWARF_Install();
  ELF_FILE* f = ELF_Open(argv[1], true);
  if (!f) { printf("open failed\n"); return 1; }
  const char* what = argc > 2 ? argv[2] : "globals";
  std::string s;
  if (!strcmp(what, "globals")) s = DWARF_DumpGlobals(f);
  if (!strcmp(what, "types")) s = DWARF_DumpTypes(f);
  if (!strcmp(what, "functions")) s = DWARF_DumpFunctions(f);
  if (!strcmp(what, "lines")) s = DWARF_DumpLines(f);
  if (!strcmp(what, "files")) s = DWARF_DumpFiles(f);
  if (!strcmp(what, "inlines")) s = DWARF_DumpInlines(f);
  if (!strcmp(what, "macros")) s = DWARF_DumpMacros(f);
  if (!strcmp(what, "cfa")) s = DWARF_DumpCfa(f);
  fputs(s.c_str(), stdout);
  printf("# v%u dies %u funcs %d globals %d types %d units %d rows %d macros %d\n", ELF_GetDwarfVersion(f), ELF_GetDieCount(f),
    ELF_GetListCount(f, ELF_LIST_FUNCTIONS), ELF_GetListCount(f, ELF_LIST_GLOBALS), ELF_GetListCount(f, ELF_LIST_TYPES),
    ELF_GetListCount(f, ELF_LIST_UNITS), ELF_GetNumLineRows(f), ELF_GetNumMacros(f));
  ELF_FreeDebugInfo(f);
  ELF_Close(f);
}
