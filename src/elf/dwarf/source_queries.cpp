#include "elf/dwarf/source_queries.h"
#include "elf/dwarf/dwarf_internal.h"
#include "elf/dwarf/insn_analysis.h"
#include "elf/dwarf/line_tables.h"
#include "elf/dwarf/source_linefiles.h"
#include "elf/dwarf/target_access.h"
#include "log/log.h"

#include <QString>
#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>

namespace dwarf_internal {
bool Attr(DW_CTX* c, U32 key, U32 code, dwb::AttrValue* v);
U64 AttrNumber(DW_CTX* c, U32 key, U32 code, bool* pFound);
U32 InheritedOwner(DW_CTX* c, U32 key, U32 code);
} // namespace dwarf_internal

namespace {

enum : U32 {
  AT_STMT_LIST = 0x10, AT_COMP_DIR = 0x1b, AT_DECL_FILE = 0x3a, AT_DECL_LINE = 0x3b, AT_CALL_FILE = 0x58,
  AT_CALL_LINE = 0x59,
};

constexpr U32 ANALYSIS_SIZE_LIMIT = 10000000;
constexpr U32 RUN_LENGTH = 256;

// Memo tables keyed by handle, with the program's handle hash.
struct HandleHash {
  size_t operator()(U64 h) const { return (U32)((h >> 31) ^ h); }
};
template <class T> using HandleMemo = std::unordered_map<U64, T, HandleHash>;

HandleMemo<CSrcLoc> g_DeclMemo, g_CallMemo, g_SymbolLocMemo;
HandleMemo<FUNC_SRC_RANGE> g_FuncRangeMemo;

// File table of a unit, with the paths its own line rows use.
struct UnitFiles {
  SRC_UNIT_FILES table;
  std::vector<std::string> rowPaths;
};
HandleMemo<UnitFiles> g_UnitFiles;
// Per program file: the line row paths of each unit (by root key).
const ELF_FILE* g_pRowPathsFile = nullptr;
std::unordered_map<U32, std::vector<std::string>> g_RowPaths;

// The instruction analysis of the installed target access, or null.
IInstructionAnalysis* Analysis() { return ELF_GetTargetAccess().GetInstructionAnalysis(); }

// What the memos were made from, per file slot: a handle names an entry only
// together with the file open in its slot, so a new file there voids them.
struct ProgramId {
  const void* file = nullptr;
  const void* data = nullptr;
  const void* debug = nullptr;
  U32 size = 0;
  bool operator==(const ProgramId& o) const {
    return file == o.file && data == o.data && debug == o.debug && size == o.size;
  }
};
ProgramId g_aMemoProgram[ELF_MAX_FILES];

void ClearMemos();

void CheckProgram(ELF_SYM_HANDLE h) {
  ELF_FILE* f = ELF_GetFileOfHandle(h);
  const int slot = f ? ELF_GetSlot(f) : -1;
  if (slot < 0 || slot >= ELF_MAX_FILES) return;
  ProgramId id;
  id.file = f;
  id.data = ELF_GetFileData(f);
  id.debug = DwCtx(f);
  id.size = ELF_GetFileSize(f);
  if (g_aMemoProgram[slot] == id) return;
  ClearMemos();
  g_aMemoProgram[slot] = id;
}

// Answers made while the tables are still being built (the inline stage asks
// for call locations before the function list exists) may rest on parts not
// yet there; only those read straight from the attributes are kept then.
bool TablesComplete(const CLineTables& t) { return !t.GetFunctionList().empty(); }

bool IsValidStart(const CAddrRange& r) { return !r.IsEmpty(); }

std::string Lower(const std::string& s) {
  std::string o = s;
  for (char& c : o) c = (char)tolower((unsigned char)c);
  return o;
}

// A path spelling reduced for comparison: one kind of slash, no "./" parts,
// no doubled slashes, lower case.
std::string Normalised(const std::string& s) {
  std::string o;
  for (size_t i = 0; i < s.size(); ++i) {
    char c = s[i] == '\\' ? '/' : (char)tolower((unsigned char)s[i]);
    if (c == '/' && !o.empty() && o.back() == '/') continue;
    if (c == '.' && (o.empty() || o.back() == '/') && (i + 1 == s.size() || s[i + 1] == '/' || s[i + 1] == '\\')) {
      ++i; // "./"
      continue;
    }
    o.push_back(c);
  }
  return o;
}

const std::vector<std::string>& RowPathsOfUnit(ELF_FILE* f, U32 rootKey) {
  if (g_pRowPathsFile != f) {
    g_RowPaths.clear();
    g_pRowPathsFile = f;
    std::set<std::pair<U32, U32>> seen; // (unit, path index)
    const int n = ELF_GetNumLineRows(f);
    for (int i = 0; i < n; ++i) {
      const ELF_LINE_ROW* r = ELF_GetLineRow(f, i);
      if (seen.insert({r->unitOffset, r->fileIndex}).second) g_RowPaths[r->unitOffset].push_back(ELF_GetLineRowPath(f, i));
    }
  }
  static const std::vector<std::string> s_None;
  auto it = g_RowPaths.find(rootKey);
  return it == g_RowPaths.end() ? s_None : it->second;
}

const UnitFiles& FilesOfUnit(ELF_SYM_HANDLE root) {
  auto it = g_UnitFiles.find(root);
  if (it != g_UnitFiles.end()) return it->second;
  UnitFiles& u = g_UnitFiles[root];
  ELF_FILE* f = ELF_GetFileOfHandle(root);
  DW_CTX* c = DwCtx(f);
  const U32 key = ELF_GetDieKey(root);
  if (!c || !key) return u;
  bool found = false;
  const U64 off = dwarf_internal::AttrNumber(c, key, AT_STMT_LIST, &found);
  if (!found) return u;
  // A type unit shares the line table of a compile unit but names neither
  // the compilation directory nor has rows: those come from that unit.
  U32 rowsKey = key;
  bool isTypeUnit = false;
  for (const DW_UNIT& cu : c->units) isTypeUnit |= cu.rootKey == key && cu.isTypeUnit;
  for (size_t i = 0; isTypeUnit && rowsKey == key && i < c->units.size(); ++i) {
    bool f2 = false;
    const DW_UNIT& cu = c->units[i];
    if (!cu.isTypeUnit && dwarf_internal::AttrNumber(c, cu.rootKey, AT_STMT_LIST, &f2) == off && f2)
      rowsKey = cu.rootKey;
  }
  dwb::AttrValue v;
  std::string compDir;
  if (dwarf_internal::Attr(c, rowsKey, AT_COMP_DIR, &v) && v.str) compDir = v.str;
  u.table = SRC_ReadUnitFiles(f, off, compDir);
  u.rowPaths = RowPathsOfUnit(f, rowsKey);
  return u;
}

// File id of a file number of the unit that holds Owner; known is false if
// the tables have no such path.
U32 FileOfNumber(const CLineTables& t, ELF_SYM_HANDLE owner, U64 number, bool* pKnown) {
  *pKnown = false;
  const UnitFiles& u = FilesOfUnit(ELF_GetUnitRoot(owner));
  std::string path = u.table.PathOf(number);
  if (path.empty()) return 0xFFFFFFFF;
  // The unit's rows give the spelling the tables hold.
  const std::string want = Normalised(path);
  for (const std::string& rp : u.rowPaths)
    if (Lower(rp) == Lower(path) || Normalised(rp) == want) {
      path = rp;
      break;
    }
  const U32 id = CLineTables::FileIdOf(QString::fromStdString(path));
  *pKnown = !t.GetFilePath(id).isEmpty();
  return id;
}

// The nearest function or inlined instance that holds h, 0 if none.
ELF_SYM_HANDLE EnclosingFunction(ELF_SYM_HANDLE h) {
  ELF_SYM_HANDLE p = ELF_GetParent(h);
  for (int depth = 0; p && depth < 256; ++depth, p = ELF_GetParent(p)) {
    const U32 tag = ELF_GetTag(p);
    if (tag == ELF_TAG_SUBPROGRAM || tag == ELF_TAG_INLINED) return p;
  }
  return 0;
}

bool IsFunctionKind(ELF_SYM_HANDLE h) {
  if (ELF_IsDieHandle(h)) {
    const U32 tag = ELF_GetTag(h);
    return tag == ELF_TAG_SUBPROGRAM || tag == ELF_TAG_INLINED || tag == ELF_TAG_SUBROUTINE_TYPE;
  }
  return ELF_IsFunctionType(ELF_GetSymbolType(h));
}

CSrcLoc SourceLoc(const CLineTables& t, ELF_SYM_HANDLE h, bool call, bool* pFromAttr) {
  *pFromAttr = false;
  const U32 lineAttr = call ? AT_CALL_LINE : AT_DECL_LINE, fileAttr = call ? AT_CALL_FILE : AT_DECL_FILE;
  const CAddrRange range = t.GetSymbolRange(h);
  const bool hasStart = IsValidStart(range);
  const U32 s = range.start;
  DW_CTX* c = ELF_IsDieHandle(h) ? DwCtx(ELF_GetFileOfHandle(h)) : nullptr;
  const U32 owner = c ? dwarf_internal::InheritedOwner(c, ELF_GetDieKey(h), lineAttr) : 0;
  if (owner) {
    *pFromAttr = true;
    bool found = false;
    const U32 line = (U32)dwarf_internal::AttrNumber(c, owner, lineAttr, &found);
    bool fileFound = false;
    const U64 number = dwarf_internal::AttrNumber(c, owner, fileAttr, &fileFound);
    bool known = false;
    U32 file = 0xFFFFFFFF;
    if (fileFound) file = FileOfNumber(t, ELF_MakeDieHandle(ELF_GetFileOfHandle(h), owner), number, &known);
    if (!known && hasStart) {
      const CSrcLoc first = t.GetSrcLoc(s);
      if (!first.IsNull()) file = first.file;
    }
    if (file == 0xFFFFFFFF) return CSrcLoc();
    return CSrcLoc(file, line, 0);
  }
  if (!hasStart) return CSrcLoc();
  if (call) {
    if (ELF_GetTag(h) != ELF_TAG_INLINED) return CSrcLoc();
    // The call lies in the enclosing function's lines: of the locations of
    // the instance's start, the last inside that function's line span.
    const ELF_SYM_HANDLE fn = EnclosingFunction(h);
    if (!fn) return CSrcLoc();
    const FUNC_SRC_RANGE span = DWARF_GetFuncSrcRange(t, fn);
    if (span.top.IsNull() || span.bottom.IsNull()) return CSrcLoc();
    const U32 lo = std::min(span.top.line, span.bottom.line), hi = std::max(span.top.line, span.bottom.line);
    const QList<CSrcLoc> locs = t.GetSrcLocs(s);
    for (auto it = locs.rbegin(); it != locs.rend(); ++it)
      if (it->file == span.top.file && it->line >= lo && it->line <= hi) return *it;
    return CSrcLoc();
  }
  if (t.GetExactSrcLoc(s).IsNull()) return CSrcLoc();
  CSrcLoc first = t.GetSrcLoc(s);
  if (first.IsNull()) return CSrcLoc();
  if (first.line) --first.line;
  first.column = 0;
  return first;
}

U32 Alignment() {
  IInstructionAnalysis* const pAnalysis = Analysis();
  U32 a = pAnalysis ? pAnalysis->GetInstAlignment() : ELF_GetInstAlignment();
  return a ? a : 1;
}

U32 AlignDown(U32 a, U32 step) { return a - a % step; }

QString Hex(U32 a) { return QString::asprintf("0x%08X", a); }

bool SameLine(const CSrcLoc& a, const CSrcLoc& b) { return a.file == b.file && a.line == b.line; }

// The line walk of a function range shared by both analyses: calls pfLine
// with each aligned address and the line (column 0) that holds it, or a
// null location where no line is known.
template <class F> void WalkLines(const CLineTables& t, const CAddrRange& r, F&& pfLine) {
  IInstructionAnalysis* const pAnalysis = Analysis();
  const U32 step = Alignment();
  const U64 end = r.End();
  CSrcLoc last;
  for (U64 a = AlignDown(r.start, step); a < end; a += step) {
    CSrcLoc l;
    if (pAnalysis->GetKind((U32)a) == 1) {
      l = last; // data goes with the line before it
    } else {
      l = t.GetExactSrcLoc((U32)a);
      l.column = 0;
      if (l.IsNull()) l = last;
    }
    pfLine((U32)a, l);
    last = l;
  }
}

} // namespace


CSrcLoc DWARF_GetCallLoc(const CLineTables& Tables, ELF_SYM_HANDLE h) {
  if (!h) return CSrcLoc();
  CheckProgram(h);
  auto it = g_CallMemo.find(h);
  if (it != g_CallMemo.end()) return it->second;
  bool fromAttr;
  const CSrcLoc l = SourceLoc(Tables, h, true, &fromAttr);
  if (fromAttr || TablesComplete(Tables)) g_CallMemo[h] = l;
  return l;
}

CSrcLoc DWARF_GetDeclLoc(const CLineTables& Tables, ELF_SYM_HANDLE h) {
  if (!h) return CSrcLoc();
  CheckProgram(h);
  auto it = g_DeclMemo.find(h);
  if (it != g_DeclMemo.end()) return it->second;
  bool fromAttr;
  const CSrcLoc l = SourceLoc(Tables, h, false, &fromAttr);
  if (fromAttr || TablesComplete(Tables)) g_DeclMemo[h] = l;
  return l;
}

void DWARF_ClearSourceQueryMemos() {
  ClearMemos();
  for (ProgramId& p : g_aMemoProgram) p = ProgramId();
}

namespace {
void ClearMemos() {
  g_DeclMemo.clear();
  g_CallMemo.clear();
  g_SymbolLocMemo.clear();
  g_FuncRangeMemo.clear();
  g_UnitFiles.clear();
  g_RowPaths.clear();
  g_pRowPathsFile = nullptr;
}
} // namespace

CSrcLoc DWARF_GetSymbolLoc(const CLineTables& Tables, ELF_SYM_HANDLE h) {
  if (!h) return CSrcLoc();
  CheckProgram(h);
  auto it = g_SymbolLocMemo.find(h);
  if (it != g_SymbolLocMemo.end()) return it->second;
  CSrcLoc l;
  if (ELF_IsDieHandle(h) && ELF_GetTag(h) == ELF_TAG_INLINED) l = DWARF_GetCallLoc(Tables, h);
  if (l.IsNull()) l = DWARF_GetDeclLoc(Tables, h);
  if (l.IsNull()) {
    const CAddrRange r = Tables.GetSymbolRange(h);
    if (IsValidStart(r) && Tables.HasCode(r.start)) {
      l = Tables.GetSrcLoc(r.start);
    } else if (ELF_IsDieHandle(h)) {
      const ELF_SYM_HANDLE fn = EnclosingFunction(h);
      if (fn) l = DWARF_GetDeclLoc(Tables, fn);
    }
  }
  if (TablesComplete(Tables)) g_SymbolLocMemo[h] = l;
  return l;
}

FUNC_SRC_RANGE DWARF_GetFuncSrcRange(const CLineTables& Tables, ELF_SYM_HANDLE h) {
  FUNC_SRC_RANGE out;
  if (!h || !IsFunctionKind(h)) return out;
  CheckProgram(h);
  auto it = g_FuncRangeMemo.find(h);
  if (it != g_FuncRangeMemo.end()) return it->second;
  const CAddrRange r = Tables.GetSymbolRange(h);
  out.top = DWARF_GetDeclLoc(Tables, h);
  if (out.top.IsNull() && IsValidStart(r)) {
    if (Tables.HasCode(r.start)) {
      out.top = Tables.GetSrcLoc(r.start);
    } else {
      const I64 n = Tables.NextCodeAddress(r.start);
      if (n >= 0) out.top = Tables.GetSrcLoc((U32)n);
    }
  }
  if (IsValidStart(r)) {
    // The last two line addresses before the end: the one whose last
    // location has the greater line gives the bottom.
    const U64 e = r.End();
    const I64 p = e >= 0x100000000ull ? Tables.PrevCodeAddress(0xFFFFFFFF) : Tables.PrevCodeAddress((U32)e);
    const I64 q = p >= 0 ? Tables.PrevCodeAddress((U32)p) : -1;
    const CSrcLoc lp = p >= 0 ? Tables.GetLastSrcLoc((U32)p) : CSrcLoc();
    const CSrcLoc lq = q >= 0 ? Tables.GetLastSrcLoc((U32)q) : CSrcLoc();
    out.bottom = !lq.IsNull() && (lp.IsNull() || lq.line > lp.line) ? lq : lp;
    out.bottom.column = 0; // the bottom is a line
  }
  if (TablesComplete(Tables)) g_FuncRangeMemo[h] = out;
  return out;
}

QList<U32> DWARF_GetLocAddressRun(const CLineTables& Tables, const CSrcLoc& Loc, U32 Start) {
  IInstructionAnalysis* const pAnalysis = Analysis();
  QList<U32> out;
  if (!pAnalysis || Loc.IsNull()) return out;
  const U32 step = Alignment();
  const U64 first = AlignDown(Start, step), end = std::min<U64>((U64)Start + RUN_LENGTH, 0x100000000ull);
  for (U64 a = first; a < end; a += step) {
    if (!pAnalysis->IsInstructionStart((U32)a)) continue;
    bool holds = false;
    for (const CSrcLoc& l : Tables.GetSrcLocs((U32)a)) holds |= SameLine(l, Loc);
    if (!holds) break;
    out.append((U32)a);
  }
  return out;
}

QList<U32> DWARF_GetLocInstructions(const CLineTables& Tables, const CSrcLoc& Loc) {
  IInstructionAnalysis* const pAnalysis = Analysis();
  QList<U32> out;
  if (!pAnalysis) return out;
  const QList<U32> addrs = Tables.GetLocAddresses(Loc);
  const U32 maxSize = std::max<U32>(pAnalysis->GetMaxInstSize(), 1);
  std::set<U32> held;
  for (int i = 0; i < addrs.size(); ++i) {
    const U32 a = addrs[i];
    if (i > 0 && a - addrs[i - 1] < maxSize) continue;
    if (held.count(a)) continue;
    const QList<U32> run = DWARF_GetLocAddressRun(Tables, Loc, a);
    for (int k = 0; k < run.size(); ++k) {
      if (k > 0 && DWARF_LineStartKind(Tables, run[k]) == 1) break;
      held.insert(run[k]);
      out.append(run[k]);
    }
  }
  return out;
}

int DWARF_LineStartKind(const CLineTables& Tables, U32 Address) {
  IInstructionAnalysis* const pAnalysis = Analysis();
  if (pAnalysis && pAnalysis->GetKind(Address) == 1) return 1;
  // The symbol that leads at the address (a function symbol if there is one).
  const QList<ELF_SYM_HANDLE> syms = Tables.GetSymbolsByAddress(Address);
  if (!syms.isEmpty() && ELF_GetSymbolType(syms.first()) == ELF_STT_OBJECT) return 1;
  const CSrcLoc l = Tables.GetSrcLoc(Address);
  if (l.IsNull()) return -1;
  const QList<U32> addrs = Tables.GetLocAddresses(l);
  return !addrs.isEmpty() && addrs.first() == Address ? 0 : -1;
}

QList<LINE_BLOCK> DWARF_GetFunctionLineBlocks(const CLineTables& Tables, const CAddrRange& Range) {
  IInstructionAnalysis* const pAnalysis = Analysis();
  QList<LINE_BLOCK> out;
  if (Range.size > ANALYSIS_SIZE_LIMIT) {
    LogInfo("Size of function @ " + Hex(Range.start) + " exceeds limit for line count analysis");
    return out;
  }
  if (!pAnalysis || Range.IsEmpty() || !Range.size) return out;
  // Line -> index of its first block in out; -1 while no block is open.
  std::unordered_map<U64, int> blockOf;
  int open = -1;
  CSrcLoc openLoc;
  U32 openStart = 0;
  auto close = [&](U32 a) {
    if (open >= 0) out[open].range.size = a - openStart;
    open = -1;
  };
  WalkLines(Tables, Range, [&](U32 a, const CSrcLoc& l) {
    if (l.IsNull() || SameLine(l, openLoc)) return;
    close(a);
    openLoc = l;
    const U64 key = (U64)l.file << 32 | l.line;
    if (!blockOf.count(key)) {
      blockOf[key] = (int)out.size();
      open = (int)out.size();
      openStart = a;
      out.append({l, CAddrRange(a, 0)});
    }
  });
  close((U32)std::min<U64>(Range.End(), 0xFFFFFFFFull));
  return out;
}

QList<CAddrRange> DWARF_GetFunctionInstBlocks(const CLineTables& Tables, const CAddrRange& Range,
                                              const CSrcLoc& Loc) {
  IInstructionAnalysis* const pAnalysis = Analysis();
  QList<CAddrRange> out;
  if (Range.size > ANALYSIS_SIZE_LIMIT) {
    LogInfo("Size of function @ " + Hex(Range.start) + " exceeds limit for instruction analysis");
    return out;
  }
  if (!pAnalysis || Range.IsEmpty() || !Range.size || Loc.IsNull()) return out;
  bool open = false;
  U32 start = 0;
  WalkLines(Tables, Range, [&](U32 a, const CSrcLoc& l) {
    const bool in = !l.IsNull() && SameLine(l, Loc);
    if (in && !open) {
      open = true;
      start = a;
    } else if (!in && open) {
      open = false;
      out.append(CAddrRange(start, a - start));
    }
  });
  if (open) out.append(CAddrRange(start, (U32)(std::min<U64>(Range.End(), 0xFFFFFFFFull) - start)));
  return out;
}

QList<CAddrRange> DWARF_GetCodeRanges(const CLineTables& Tables, const CAddrRange& Range) {
  QList<CAddrRange> out;
  if (Range.size > ANALYSIS_SIZE_LIMIT) {
    LogInfo("Size of symbol @ " + Hex(Range.start) + " exceeds limit for line count analysis");
    out.append(Range);
    return out;
  }
  const std::vector<U32>& syms = Tables.GetSymbolAddressList();
  auto it = std::upper_bound(syms.begin(), syms.end(), Range.start);
  if (it == syms.begin()) {
    out.append(Range);
    return out;
  }
  --it; // the nearest symbol at or below the start
  const U64 end = Range.End();
  bool open = false;
  U32 start = 0;
  for (; it != syms.end() && *it < end; ++it) {
    const bool data = DWARF_LineStartKind(Tables, *it) == 1;
    const U32 a = std::max(*it, Range.start);
    if (!data && !open) {
      open = true;
      start = a;
    } else if (data && open) {
      open = false;
      if (a > start) out.append(CAddrRange(start, a - start));
    }
  }
  if (open && end > start) out.append(CAddrRange(start, (U32)(end - start)));
  return out;
}
