#include "elf/dwarf/line_tables.h"
#include "common/hash.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/location.h"
#include "elf/elfapi.h"
#include "log/log.h"

#include <QElapsedTimer>

#include <QFileInfo>
#include <algorithm>
#include <set>

// ---- interval tree --------------------------------------------------------------

int CIntervalTree::Make(std::vector<Interval>& v, int depth, int limit, size_t minPer) {
  if (v.empty()) return -1;
  U64 lo = ~0ull, hi = 0;
  for (auto& i : v) {
    lo = std::min<U64>(lo, i.start);
    hi = std::max<U64>(hi, i.stop);
  }
  Node n;
  n.centre = (U32)((lo + hi) / 2);
  std::vector<Interval> left, right;
  if (depth >= limit || v.size() <= minPer) {
    n.here = std::move(v);
  } else {
    for (auto& i : v) {
      if (i.stop < n.centre) left.push_back(i);
      else if (i.start > n.centre) right.push_back(i);
      else n.here.push_back(i);
    }
  }
  std::stable_sort(n.here.begin(), n.here.end(), [](const Interval& a, const Interval& b) { return a.start < b.start; });
  const int idx = (int)m_Nodes.size();
  m_Nodes.push_back(std::move(n));
  const int l = Make(left, depth + 1, limit, minPer);
  const int r = Make(right, depth + 1, limit, minPer);
  m_Nodes[idx].left = l;
  m_Nodes[idx].right = r;
  return idx;
}

void CIntervalTree::Build(std::vector<Interval> All, int DepthLimit, size_t MinPerNode) {
  m_Nodes.clear();
  Make(All, 0, DepthLimit, MinPerNode);
}

void CIntervalTree::Search(int n, U32 a, U32 b, std::vector<U64>& out) const {
  if (n < 0) return;
  const Node& node = m_Nodes[n];
  for (const Interval& i : node.here) {
    if (i.start > b) break;
    if (i.stop >= a) out.push_back(i.value);
  }
  if (a <= node.centre) Search(node.left, a, b, out);
  if (b >= node.centre) Search(node.right, a, b, out);
}

void CIntervalTree::Find(U32 a, U32 b, std::vector<U64>& out) const {
  if (!m_Nodes.empty()) Search(0, a, b, out);
}

// ---- tables -----------------------------------------------------------------------

namespace {
bool LocLess(const CSrcLoc& a, const CSrcLoc& b) {
  if (a.file != b.file) return a.file < b.file;
  if (a.line != b.line) return a.line < b.line;
  return a.column < b.column;
}
U32 Reloc(U32 a) { return ELF_RelocateAddress(a, 1, 0); }
} // namespace

U32 CLineTables::FileIdOf(const QString& sPath) {
  const QByteArray b = sPath.toLower().toUtf8();
  return TextHash(std::string_view(b.constData(), (size_t)b.size()));
}

void CLineTables::Clear() { *this = CLineTables(); }

void CLineTables::AddPair(U32 a, const CSrcLoc& l) {
  m_AddrToLoc[a].push_back(l);
  m_LocToAddr[(U64)l.file << 32 | l.line].emplace_back(l.column, a);
}

void CLineTables::Build(ELF_FILE* f, STAGE_FN pfStage, void* pContext) {
  Clear();
  m_pFile = f;
  auto stage = [&](const char* t) {
    if (pfStage) pfStage(t, pContext);
  };
  // Stages 4, 5: file ids of row paths and of the source file list.
  auto addPath = [&](const char* p) {
    const QString path = QString::fromUtf8(p);
    const U32 id = FileIdOf(path);
    if (!m_FilePaths.count(id)) {
      m_FilePaths[id] = path;
      m_FileNames[id] = QFileInfo(path).fileName();
    }
    return id;
  };
  const int nRows = ELF_GetNumLineRows(f);
  std::vector<U32> rowFile(nRows);
  for (int i = 0; i < nRows; ++i) rowFile[i] = addPath(ELF_GetLineRowPath(f, i));
  stage("Parsed source file paths found in address mapping table: ");
  for (int i = 0; i < ELF_GetNumSourceFiles(f); ++i) addPath(ELF_GetSourceFile(f, i));
  stage("Parsed source file paths found in source files table: ");

  // Stage 7: line to address tables, above the lowest function start.
  U32 lowestFn = 0xFFFFFFFF;
  for (int i = 0; i < ELF_GetNumSymbols(f); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetSymbolHandle(f, i);
    if (!ELF_IsFunctionType(ELF_GetSymbolType(h))) continue;
    const U32 a = ELF_AlignAddress(ELF_GetSymbolValue(h));
    if (a) lowestFn = std::min(lowestFn, a);
  }
  std::unordered_map<U32, std::vector<U32>> fileAddrs; // row addresses of each file
  m_Addresses.reserve(nRows);
  m_AddrToLoc.reserve(nRows);
  m_LocToAddr.reserve(nRows / 2 + 16);
  CSrcLoc prev(0xFFFFFFFF, 0, 0);
  for (int i = 0; i < nRows; ++i) {
    const ELF_LINE_ROW* r = ELF_GetLineRow(f, i);
    if (r->endSequence) continue; // the end of a sequence has no statement
    const U32 a = Reloc(r->address);
    if (lowestFn != 0xFFFFFFFF && a < lowestFn) {
      ++m_RowsLeftOut;
      continue;
    }
    if (!m_AddrToLoc.count(a)) m_Addresses.push_back(a);
    CSrcLoc l(rowFile[i], r->line, r->column);
    if (l.line == 0 && l.file == prev.file) l.line = prev.line;
    prev = l;
    bool dup = false;
    auto it = m_LocToAddr.find((U64)l.file << 32 | l.line);
    if (it != m_LocToAddr.end())
      for (auto& ca : it->second) dup |= ca.first == l.column && ca.second == a;
    if (!dup) {
      AddPair(a, l);
      fileAddrs[l.file].push_back(a);
    }
    auto lo = m_FileLow.find(l.file);
    if (lo == m_FileLow.end() || lo->second > a) m_FileLow[l.file] = a;
    auto hi = m_FileHigh.find(l.file);
    if (hi == m_FileHigh.end() || hi->second < a) m_FileHigh[l.file] = a;
    m_LowAddr = std::min(m_LowAddr, a);
    m_HighAddr = std::max(m_HighAddr, a);
  }

  stage("Parsed source to address mapping table: ");
  // Stage 8: file ranges from the ranges of the units that name the file.
  for (auto& p : fileAddrs) std::sort(p.second.begin(), p.second.end());
  for (int i = 0; i < ELF_GetNumSourceFiles(f); ++i) {
    const char* path = ELF_GetSourceFile(f, i);
    const U32 id = FileIdOf(QString::fromUtf8(path));
    QList<CAddrRange> kept;
    for (ELF_SYM_HANDLE unit : ELF_GetFileUnits(f, path)) {
      for (const ELF_RANGE& r : ELF_GetRanges(unit)) {
        if (r.start == 0xFFFFFFFF || r.end < r.start) continue;
        const CAddrRange ar(Reloc(r.start), r.end - r.start);
        // Kept if a row of the file lies inside.
        auto lo = m_FileLow.find(id), hi = m_FileHigh.find(id);
        if (lo == m_FileLow.end() || hi->second < ar.start || lo->second >= ar.End()) continue;
        const std::vector<U32>& fa = fileAddrs[id];
        auto from = std::lower_bound(fa.begin(), fa.end(), ar.start);
        const bool inside = from != fa.end() && *from < ar.End();
        if (inside && !kept.contains(ar)) kept.append(ar);
      }
    }
    if (kept.isEmpty()) continue;
    std::sort(kept.begin(), kept.end(), [](const CAddrRange& a, const CAddrRange& b) { return a.start < b.start; });
    m_FileRange[id] = CAddrRange(kept.front().start, (U32)(kept.back().End() - kept.front().start));
    m_FileRanges[id] = kept;
  }

  stage("parsed file address ranges: ");
  // Stage 9: clean-up of rows outside their file's range.
  std::vector<U32> keptAddr;
  for (U32 a : m_Addresses) {
    auto it = m_AddrToLoc.find(a);
    if (it == m_AddrToLoc.end()) continue;
    auto& locs = it->second;
    for (size_t k = 0; k < locs.size();) {
      auto fr = m_FileRange.find(locs[k].file);
      if (fr != m_FileRange.end() && !fr->second.IsEmpty() && (a < fr->second.start || a >= fr->second.End())) {
        auto& v = m_LocToAddr[(U64)locs[k].file << 32 | locs[k].line];
        v.erase(std::remove(v.begin(), v.end(), std::make_pair(locs[k].column, a)), v.end());
        locs.erase(locs.begin() + k);
      } else {
        ++k;
      }
    }
    if (locs.empty()) m_AddrToLoc.erase(it);
    else keptAddr.push_back(a);
  }
  m_Addresses.swap(keptAddr);
  stage("Cleaned up address mapping table: ");
  std::sort(m_Addresses.begin(), m_Addresses.end());

  // Stage 11: inline expansions of each abstract function.
  for (int i = 0; i < ELF_GetListCount(f, ELF_LIST_INLINED); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(f, ELF_LIST_INLINED, i);
    const ELF_SYM_HANDLE origin = ELF_GetRefAttr(h, 49);
    if (origin) m_InlineExpansions[origin].push_back(h);
  }

  stage("Hashed function inline expansions: ");
  stage("Sorted program address list: ");
  // Stage 14: function list from debug functions and ELF functions.
  std::map<U32, U32> sizeAt;
  std::map<U32, ELF_SYM_HANDLE> handleAt;
  for (int i = 0; i < ELF_GetListCount(f, ELF_LIST_FUNCTIONS); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(f, ELF_LIST_FUNCTIONS, i);
    auto ex = m_InlineExpansions.find(h);
    if (ex != m_InlineExpansions.end() && GetSymbolRange(h).IsEmpty()) {
      for (ELF_SYM_HANDLE e : ex->second) {
        const CAddrRange r = GetSymbolRange(e);
        if (!r.IsEmpty() && r.size) {
          handleAt[r.start] = h;
          break;
        }
      }
      continue;
    }
    const CAddrRange r = GetSymbolRange(h);
    if (r.IsEmpty() || !r.size) continue;
    if (r.size > sizeAt[r.start]) {
      sizeAt[r.start] = r.size;
      handleAt[r.start] = h;
    }
  }
  for (int i = 0; i < ELF_GetNumFunctionSymbols(f); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetFunctionSymbol(f, i);
    const U32 s = ELF_AlignAddress(ELF_GetSymbolValue(h)), n = ELF_GetSymbolSize(h);
    if (!n || s == 0xFFFFFFFF) continue;
    if (n > sizeAt[s]) {
      sizeAt[s] = n;
      handleAt[s] = h;
    }
  }
  for (auto& p : handleAt) m_Functions.push_back(p.second);
  stage("Build functions list: ");

  // Stage 15: function interval tree (functions and their inline expansions).
  std::vector<CIntervalTree::Interval> iv;
  auto addFn = [&](ELF_SYM_HANDLE h) {
    const CAddrRange r = GetSymbolRange(h);
    if (!r.start || !r.size || r.IsEmpty()) return;
    const U64 end = std::min<U64>((U64)r.start + r.size, 0x100000000ull);
    iv.push_back({r.start, (U32)(end - 2), h});
  };
  for (ELF_SYM_HANDLE h : m_Functions) {
    addFn(h);
    auto ex = m_InlineExpansions.find(h);
    if (ex != m_InlineExpansions.end())
      for (ELF_SYM_HANDLE e : ex->second) addFn(e);
  }
  // Inlined instances whose abstract function has no range of its own.
  for (auto& ex : m_InlineExpansions)
    if (std::find(m_Functions.begin(), m_Functions.end(), ex.first) == m_Functions.end())
      for (ELF_SYM_HANDLE e : ex.second) addFn(e);
  m_FunctionTree.Build(std::move(iv));
  stage("build function interval tree: ");

  // Stage 16: file interval tree.
  std::vector<CIntervalTree::Interval> fv;
  for (auto& p : m_FileRange)
    if (!p.second.IsEmpty() && p.second.size >= 2)
      fv.push_back({p.second.start, (U32)(p.second.End() - 2), p.first});
  std::sort(fv.begin(), fv.end(), [](const auto& a, const auto& b) { return a.start < b.start || (a.start == b.start && a.value < b.value); });
  m_FileTree.Build(std::move(fv));
  stage("build file interval tree: ");

  // Stage 17: file functions.
  for (ELF_SYM_HANDLE h : m_Functions) {
    const I64 file = GetFileAt(GetSymbolRange(h).start);
    if (file >= 0) m_FileFunctions[(U32)file].append(h);
  }
  stage("hashed file functions: ");
}

CAddrRange CLineTables::GetSymbolRange(ELF_SYM_HANDLE h) const {
  if (ELF_GetSymbolRowOfHandle(h) >= 0) {
    const U32 s = ELF_AlignAddress(ELF_GetSymbolValue(h));
    return CAddrRange(s, ELF_GetSymbolSize(h));
  }
  U32 lo = 0xFFFFFFFF, hi = 0;
  for (const ELF_RANGE& r : ELF_GetRanges(h)) {
    if (r.start == 0xFFFFFFFF) continue;
    lo = std::min(lo, Reloc(r.start));
    hi = std::max(hi, Reloc(r.end));
  }
  if (lo != 0xFFFFFFFF && hi != 0) {
    lo = ELF_AlignAddress(lo);
    hi = ELF_AlignAddress(hi);
    const U32 span = hi > lo ? hi - lo : 0;
    if (span < 1000000000u) return CAddrRange(lo, span);
    return CAddrRange();
  }
  auto ex = m_InlineExpansions.find(h);
  if (ex == m_InlineExpansions.end()) return CAddrRange();
  for (ELF_SYM_HANDLE e : ex->second)
    for (const ELF_RANGE& r : ELF_GetRanges(e)) {
      if (r.start == 0xFFFFFFFF) continue;
      lo = std::min(lo, Reloc(r.start));
      hi = std::max(hi, Reloc(r.end));
    }
  if (lo == 0xFFFFFFFF) return CAddrRange();
  return CAddrRange(lo, hi > lo ? hi - lo : 0);
}

QList<CSrcLoc> CLineTables::GetSrcLocs(U32 a) const {
  QList<CSrcLoc> out;
  if (m_AddrToLoc.empty() || a == 0 || a == 0xFFFFFFFF) return out;
  auto it = m_AddrToLoc.find(a);
  if (it == m_AddrToLoc.end()) {
    const ELF_SYM_HANDLE fn = GetFunction(a, false);
    if (!fn) return out;
    const I64 p = PrevCodeAddress(a);
    if (p < 0 || GetFunction((U32)p, false) != fn || a - (U32)p >= 257) return out;
    return GetSrcLocs((U32)p);
  }
  std::vector<CSrcLoc> v = it->second;
  std::sort(v.begin(), v.end(), LocLess);
  for (auto& l : v) out.append(l);
  return out;
}

CSrcLoc CLineTables::GetSrcLoc(U32 a) const {
  const QList<CSrcLoc> l = GetSrcLocs(a);
  return l.isEmpty() ? CSrcLoc() : l.first();
}
CSrcLoc CLineTables::GetLastSrcLoc(U32 a) const {
  const QList<CSrcLoc> l = GetSrcLocs(a);
  return l.isEmpty() ? CSrcLoc() : l.last();
}
CSrcLoc CLineTables::GetExactSrcLoc(U32 a) const {
  auto it = m_AddrToLoc.find(a);
  if (it == m_AddrToLoc.end() || it->second.empty()) return CSrcLoc();
  return *std::min_element(it->second.begin(), it->second.end(), LocLess);
}
CAddrRange CLineTables::GetAddressRange() const {
  if (m_LowAddr == 0xFFFFFFFF) return CAddrRange();
  return CAddrRange(m_LowAddr, m_HighAddr - m_LowAddr);
}

QList<U32> CLineTables::GetLocAddresses(const CSrcLoc& Loc) const {
  QList<U32> out;
  auto it = m_LocToAddr.find((U64)Loc.file << 32 | Loc.line);
  if (it == m_LocToAddr.end()) return out;
  // Column 0 asks for the whole line: compilers that write columns have no
  // column-0 rows, and a line is what the user names.
  std::vector<U32> v;
  for (auto& ca : it->second)
    if (ca.first == Loc.column || Loc.column == 0) v.push_back(ca.second);
  std::sort(v.begin(), v.end());
  v.erase(std::unique(v.begin(), v.end()), v.end());
  for (U32 a : v) out.append(a);
  return out;
}
I64 CLineTables::GetFirstLocAddress(const CSrcLoc& Loc) const {
  const QList<U32> v = GetLocAddresses(Loc);
  return v.isEmpty() ? -1 : (I64)v.first();
}
CSrcLoc CLineTables::NextLocWithCode(const CSrcLoc& Loc) const {
  for (U32 line = Loc.line + 1; line <= Loc.line + 1000; ++line)
    if (!GetLocAddresses(CSrcLoc(Loc.file, line, 0)).isEmpty()) return CSrcLoc(Loc.file, line, 0);
  return CSrcLoc();
}
CSrcLoc CLineTables::PrevLocWithCode(const CSrcLoc& Loc) const {
  for (I64 line = (I64)Loc.line - 1; line >= 0; --line)
    if (!GetLocAddresses(CSrcLoc(Loc.file, (U32)line, 0)).isEmpty()) return CSrcLoc(Loc.file, (U32)line, 0);
  return CSrcLoc();
}

bool CLineTables::HasCode(U32 a) const { return m_AddrToLoc.count(a) || !GetSrcLocs(a).isEmpty(); }

I64 CLineTables::PrevCodeAddress(U32 a) const {
  if (m_Addresses.empty()) return -1;
  auto it = std::lower_bound(m_Addresses.begin(), m_Addresses.end(), a);
  if (it == m_Addresses.end()) return m_Addresses.back();
  if (it == m_Addresses.begin()) return -1;
  return *(it - 1);
}
I64 CLineTables::NextCodeAddress(U32 a) const {
  if (m_Addresses.empty()) return -1;
  auto it = std::lower_bound(m_Addresses.begin(), m_Addresses.end(), a);
  if (it == m_Addresses.end()) return -1;
  if (a < m_Addresses.front()) return m_Addresses.front();
  if (it + 1 == m_Addresses.end()) return -1;
  return *(it + 1);
}

QList<ELF_SYM_HANDLE> CLineTables::GetFunctionHandles(U32 a) const {
  std::vector<U64> v;
  m_FunctionTree.Find(a, a, v);
  QList<ELF_SYM_HANDLE> out;
  for (U64 h : v) out.append(h);
  return out;
}
ELF_SYM_HANDLE CLineTables::GetFunction(U32 a, bool NoInline) const {
  const QList<ELF_SYM_HANDLE> l = GetFunctionHandles(a);
  if (l.isEmpty()) return 0;
  if (!NoInline)
    for (int i = l.size() - 1; i >= 0; --i)
      if (ELF_GetTag(l[i]) == ELF_TAG_INLINED) return l[i];
  for (ELF_SYM_HANDLE h : l)
    if (ELF_GetTag(h) == ELF_TAG_SUBPROGRAM) return h;
  return l.first();
}

I64 CLineTables::GetFileAt(U32 a) const {
  std::vector<U64> v;
  m_FileTree.Find(a, a, v);
  return v.empty() ? -1 : (I64)v.back();
}
U32 CLineTables::GetFileId(const QString& sPath) const { return FileIdOf(sPath); }
QString CLineTables::GetFilePath(U32 Id) const {
  auto it = m_FilePaths.find(Id);
  return it == m_FilePaths.end() ? QString() : it->second;
}
QString CLineTables::GetFileName(U32 Id) const {
  auto it = m_FileNames.find(Id);
  return it == m_FileNames.end() ? QString() : it->second;
}
QStringList CLineTables::GetSourceFiles() const {
  QStringList l;
  for (auto& p : m_FilePaths) l.append(p.second);
  l.sort();
  return l;
}
CAddrRange CLineTables::GetFileRange(U32 Id) const {
  auto it = m_FileRange.find(Id);
  return it == m_FileRange.end() ? CAddrRange() : it->second;
}
QList<CAddrRange> CLineTables::GetFileRanges(U32 Id) const {
  auto it = m_FileRanges.find(Id);
  return it == m_FileRanges.end() ? QList<CAddrRange>() : it->second;
}
QList<ELF_SYM_HANDLE> CLineTables::GetFileFunctions(U32 Id) const {
  auto it = m_FileFunctions.find(Id);
  return it == m_FileFunctions.end() ? QList<ELF_SYM_HANDLE>() : it->second;
}

std::vector<std::pair<U32, CSrcLoc>> CLineTables::GetAddressMap() const {
  std::vector<std::pair<U32, CSrcLoc>> out;
  for (U32 a : m_Addresses) {
    auto it = m_AddrToLoc.find(a);
    if (it == m_AddrToLoc.end()) continue;
    std::vector<CSrcLoc> v = it->second;
    std::sort(v.begin(), v.end(), LocLess);
    for (auto& l : v) out.emplace_back(a, l);
  }
  return out;
}

// ---- the wrapper's program tables ---------------------------------------------------

namespace {
CLineTables g_ProgramTables;

void LogStageText(const char* sText, void* pContext) {
  const QElapsedTimer* t = static_cast<const QElapsedTimer*>(pContext);
  LogInfo(QString::fromLatin1(sText) + LogTimeText(t ? t->nsecsElapsed() / 1000 : 0));
}
} // namespace

const CLineTables& DWARF_GetProgramTables() { return g_ProgramTables; }

// Load stages 4-18 of the wrapper, and the reset at close.
void DWARF_RunWrapperStages(ELF_FILE* f, const QElapsedTimer* pTimer, int* pFunctionCount, int* pGlobalCount) {
  if (!f) {
    g_ProgramTables.Clear();
    return;
  }
  g_ProgramTables.Build(f, LogStageText, const_cast<QElapsedTimer*>(pTimer));
  // Stage 18: the call frame table is read with the debug information.
  ELF_GetNumFrameDescriptions(f);
  LogStageText("parsed call frame information: ", const_cast<QElapsedTimer*>(pTimer));
  if (pFunctionCount) *pFunctionCount = (int)g_ProgramTables.GetFunctionList().size();
  if (pGlobalCount) *pGlobalCount = ELF_GetListCount(f, ELF_LIST_GLOBALS);
}
