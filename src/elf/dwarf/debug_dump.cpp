#include <stdarg.h>
#include "elf/dwarf/debug_dump.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/location.h"
#include "elf/dwarf/line_tables.h"

#include <algorithm>
#include <stdio.h>
#include <vector>

namespace {

void AppendF(std::string& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void AppendF(std::string& out, const char* fmt, ...) {
  char buf[2048];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  out += buf;
}

enum : U32 { AT_DECL_FILE = 58, AT_DECL_LINE = 59, AT_CALL_FILE = 88, AT_CALL_LINE = 89 };

// Declaring file of an entry, through the file list of its unit's line table.
std::string UnitFileName(ELF_SYM_HANDLE h, U32 code) {
  bool found;
  const U64 idx = ELF_GetAttrValue(h, code, &found);
  if (!found) return std::string();
  return std::to_string(idx);
}

} // namespace

std::string DWARF_DumpLines(const ELF_FILE* f) {
  std::string out;
  const int n = ELF_GetNumLineRows(f);
  std::vector<int> order(n);
  for (int i = 0; i < n; ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(),
                   [&](int a, int b) { return ELF_GetLineRow(f, a)->address < ELF_GetLineRow(f, b)->address; });
  for (int i : order) {
    const ELF_LINE_ROW* r = ELF_GetLineRow(f, i);
    if (r->endSequence) continue;
    AppendF(out, "0x%08X %s:%u:%u\n", r->address, ELF_GetLineRowPath(f, i), r->line, r->column);
  }
  return out;
}

std::string DWARF_DumpFiles(const ELF_FILE* f) {
  std::string out;
  for (int i = 0; i < ELF_GetNumSourceFiles(f); ++i) {
    out += ELF_GetSourceFile(f, i);
    out += '\n';
  }
  return out;
}

std::string DWARF_DumpFunctions(const ELF_FILE* f) {
  std::string out;
  for (int i = 0; i < ELF_GetListCount(f, ELF_LIST_FUNCTIONS); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(f, ELF_LIST_FUNCTIONS, i);
    auto rs = ELF_GetRanges(h);
    const U32 start = rs.empty() ? 0xFFFFFFFFu : rs[0].start;
    bool found;
    const U64 line = ELF_GetAttrValue(h, AT_DECL_LINE, &found);
    AppendF(out, "0x%08X %u %s %s:%u\n", start, ELF_GetSize(h), ELF_GetName(h), UnitFileName(h, AT_DECL_FILE).c_str(),
            (unsigned)line);
  }
  return out;
}

std::string DWARF_DumpInlines(const ELF_FILE* f) {
  std::string out;
  for (int i = 0; i < ELF_GetListCount(f, ELF_LIST_INLINED); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(f, ELF_LIST_INLINED, i);
    bool found;
    const U64 line = ELF_GetAttrValue(h, AT_CALL_LINE, &found);
    for (const ELF_RANGE& r : ELF_GetRanges(h))
      AppendF(out, "0x%08X 0x%08X %s %s:%u\n", r.start, r.end, ELF_GetName(h), UnitFileName(h, AT_CALL_FILE).c_str(),
              (unsigned)line);
  }
  return out;
}

std::string DWARF_DumpGlobals(const ELF_FILE* f) {
  std::string out;
  for (int i = 0; i < ELF_GetListCount(f, ELF_LIST_GLOBALS); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(f, ELF_LIST_GLOBALS, i);
    U32 addr = 0;
    if (!ELF_GetStaticAddress(h, &addr)) continue;
    std::string name = ELF_GetName(h);
    AppendF(out, "%s 0x%08X %u %s\n", name.c_str(), addr, ELF_GetSize(h), ELF_GetTypeName(h));
  }
  return out;
}

std::string DWARF_DumpTypes(const ELF_FILE* f) {
  // One block per type, sorted, each distinct block once: units repeat the
  // types of shared headers, and type units come in their own order.
  std::vector<std::string> blocks;
  const bool bigEndian = ELF_GetEndian(f) == 1;
  for (int i = 0; i < ELF_GetListCount(f, ELF_LIST_TYPES); ++i) {
    std::string& out = blocks.emplace_back();
    const ELF_SYM_HANDLE h = ELF_GetListItem(f, ELF_LIST_TYPES, i);
    std::string text = ELF_GetTypeName(h);
    if (ELF_GetTag(h) == ELF_TAG_TYPEDEF) {
      AppendF(out, "typedef %s %s\n", text.c_str(), ELF_GetName(h));
      continue;
    }
    AppendF(out, "%s %u\n", text.c_str(), ELF_GetSize(h));
    for (int m = 0; m < ELF_GetMemberCount(h); ++m) {
      const ELF_SYM_HANDLE mh = ELF_GetMember(h, m);
      if (ELF_GetTag(mh) != ELF_TAG_MEMBER) continue;
      std::string mname = ELF_GetName(mh);
      std::string mtype = ELF_GetTypeName(mh);
      const U32 bits = ELF_GetBitSize(mh);
      if (bits) {
        // Bit fields print their first bit in memory order, counted from the
        // start of the structure, so that both byte orders read alike.
        const ELF_SYM_HANDLE mt = ELF_GetType(mh, false);
        U32 unitBits = (ELF_GetByteSize(mh) ? ELF_GetByteSize(mh) : ELF_GetSize(mt)) * 8;
        U32 lsb = ELF_GetBitOffset(mh);
        U32 pos = ELF_GetMemberOffset(mh) * 8 + (bigEndian ? unitBits - bits - lsb : lsb);
        if (ELF_HasAttr(mh, 107 /* DW_AT_data_bit_offset */)) pos = ELF_GetBitOffset(mh);
        AppendF(out, "  +%u %s %s :%u:%u\n", pos / 8, mname.c_str(), mtype.c_str(), pos, bits);
      }
      else
        AppendF(out, "  +%u %s %s\n", ELF_GetMemberOffset(mh), mname.c_str(), mtype.c_str());
    }
  }
  std::sort(blocks.begin(), blocks.end());
  blocks.erase(std::unique(blocks.begin(), blocks.end()), blocks.end());
  std::string out;
  for (auto& b : blocks) out += b;
  return out;
}

std::string DWARF_DumpMacros(const ELF_FILE* f) {
  std::string out;
  for (int i = 0; i < ELF_GetNumMacros(f); ++i) {
    const ELF_MACRO* m = ELF_GetMacro(f, i);
    AppendF(out, "%d %u %u %s\n", m->kind, m->fileIndex, m->line, m->text);
  }
  return out;
}

std::string DWARF_DumpCfa(ELF_FILE* f) {
  std::string out;
  const U32 sp = ELF_GetSpRegister();
  for (int i = 0; i < ELF_GetNumFrameDescriptions(f); ++i) {
    U32 lo, hi;
    if (!ELF_GetFrameDescriptionRange(f, i, &lo, &hi)) continue;
    AppendF(out, "FDE 0x%08X..0x%08X\n", lo, hi);
    for (U32 pc : ELF_GetFrameRowAddresses(f, i)) {
      ELF_SYM_LOCS rows;
      const int n = ELF_GetRegisterRules(f, pc, 320, rows);
      if (n <= (int)sp) continue;
      AppendF(out, "0x%08X CFA=%s", pc, ELF_LocationToText(rows[sp]));
      for (int col = 0; col < n; ++col) {
        const ELF_LOC_PART& p = rows[col].parts[0];
        if (col == (int)sp || (p.kind == ELF_LOC_REG && p.reg == (U32)col)) continue;
        AppendF(out, " r%d=%s", col, ELF_LocationToText(rows[col]));
      }
      out += '\n';
    }
  }
  return out;
}

std::string DWARF_DumpLocals(const ELF_FILE* f, U32 pc) {
  std::string out;
  for (int l : {ELF_LIST_FUNCTIONS, ELF_LIST_INLINED})
    for (int i = 0; i < ELF_GetListCount(f, l); ++i) {
      const ELF_SYM_HANDLE h = ELF_GetListItem(f, l, i);
      bool holds = false;
      for (const ELF_RANGE& r : ELF_GetRanges(h)) holds |= pc >= r.start && (pc < r.end || (r.start == r.end && pc == r.start));
      if (!holds) continue;
      const std::string fn = ELF_GetName(h);
      for (int k = 0; k < ELF_GetLocalCount(h); ++k) {
        const ELF_SYM_HANDLE v = ELF_GetLocal(h, k);
        const std::string name = ELF_GetName(v);
        AppendF(out, "%s %s %s\n", fn.c_str(), name.c_str(), ELF_LocationToText(ELF_GetSymbolLocation(v, pc)));
      }
    }
  return out;
}

std::string DWARF_DumpAddressMap(ELF_FILE* f) {
  std::string out;
  CLineTables t;
  t.Build(f);
  for (const auto& p : t.GetAddressMap())
    AppendF(out, "0x%08X %s:%u:%u\n", p.first, t.GetFilePath(p.second.file).toUtf8().constData(), p.second.line,
            p.second.column);
  return out;
}
