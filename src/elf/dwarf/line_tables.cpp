#include "elf/dwarf/line_tables.h"
#include "common/hash.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/dwarf_internal.h"
#include "elf/dwarf/location.h"
#include "elf/dwarf/source_queries.h"
#include "elf/elfapi.h"
#include "log/log.h"

#include <QElapsedTimer>

#include <QFileInfo>
#include <algorithm>
#include <string.h>
#include <unordered_set>

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

// Stable LSD radix sort by a 32-bit key in 11-bit digits; a digit that is
// the same in every element costs no pass, so sorted-by-file or line keys
// take one or two passes.
template <class T, class KeyFn>
void RadixSort(std::vector<T>& v, std::vector<T>& tmp, KeyFn key) {
  if (v.size() < 2) return;
  const U32 first = key(v[0]);
  U32 diff = 0;
  for (const T& x : v) diff |= key(x) ^ first;
  std::vector<size_t> count(2049);
  for (int shift = 0; shift < 32; shift += 11) {
    if (!((diff >> shift) & 0x7FF)) continue;
    tmp.resize(v.size());
    std::fill(count.begin(), count.end(), 0);
    for (const T& x : v) ++count[((key(x) >> shift) & 0x7FF) + 1];
    for (size_t i = 1; i < count.size(); ++i) count[i] += count[i - 1];
    for (const T& x : v) tmp[count[(key(x) >> shift) & 0x7FF]++] = x;
    v.swap(tmp);
  }
}

bool IsFunctionKind(ELF_SYM_HANDLE h) {
  if (ELF_GetSymbolRowOfHandle(h) >= 0) return ELF_IsFunctionType(ELF_GetSymbolType(h));
  const U32 tag = ELF_GetTag(h);
  return tag == ELF_TAG_SUBPROGRAM || tag == ELF_TAG_INLINED || tag == ELF_TAG_SUBROUTINE_TYPE;
}
} // namespace

U32 CLineTables::FileIdOf(const QString& sPath) {
  const QByteArray b = sPath.toLower().toUtf8();
  return TextHash(std::string_view(b.constData(), (size_t)b.size()));
}

void CLineTables::Clear() { *this = CLineTables(); }

int CLineTables::FileIndex(U32 Id) const {
  auto it = m_FileIndex.find(Id);
  return it == m_FileIndex.end() ? -1 : (int)it->second;
}

// Enters a path; a known id keeps its first spelling. Answers the index.
U32 CLineTables::AddFile(const QString& sPath) {
  const U32 id = FileIdOf(sPath);
  auto it = m_FileIndex.find(id);
  if (it != m_FileIndex.end()) return it->second;
  FileRec r;
  r.id = id;
  r.path = sPath;
  r.name = QFileInfo(sPath).fileName();
  m_Files.push_back(std::move(r));
  m_FileIndex.emplace(id, (U32)m_Files.size() - 1);
  return (U32)m_Files.size() - 1;
}

// Sorts rows by address (stable, so rows of one address keep their order),
// then sorts each address's locations and drops repeated pairs.
void CLineTables::SortAndMergeRows(std::vector<Row>& v) {
  const bool sorted = std::is_sorted(v.begin(), v.end(), [](const Row& a, const Row& b) { return a.addr < b.addr; });
  if (!sorted) {
    std::vector<Row> tmp;
    RadixSort(v, tmp, [](const Row& r) { return r.addr; });
  }
  auto less = [&](const Row& a, const Row& b) { return LocLess(LocOf(a), LocOf(b)); };
  auto same = [](const Row& a, const Row& b) { return a.file == b.file && a.line == b.line && a.column == b.column; };
  size_t out = 0;
  for (size_t i = 0; i < v.size();) {
    size_t j = i + 1;
    while (j < v.size() && v[j].addr == v[i].addr) ++j;
    if (j - i > 1) {
      std::sort(v.begin() + i, v.begin() + j, less);
      for (size_t k = i; k < j; ++k)
        if (k == i || !same(v[k], v[out - 1])) v[out++] = v[k];
    } else {
      v[out++] = v[i];
    }
    i = j;
  }
  v.resize(out);
}

void CLineTables::IndexAddresses() {
  m_Addresses.clear();
  m_Addresses.reserve(m_ByAddr.size());
  for (size_t i = 0; i < m_ByAddr.size(); ++i)
    if (i == 0 || m_ByAddr[i].addr != m_ByAddr[i - 1].addr) m_Addresses.push_back(m_ByAddr[i].addr);
}

// The location index: row numbers ordered by file, line and address. A
// counting sort by file, then one by line within each file; both stable, so
// rows of one line stay in address order.
void CLineTables::IndexLocations() {
  const size_t n = m_ByAddr.size();
  std::vector<U32> first(m_Files.size() + 1, 0), byFile(n);
  for (const Row& r : m_ByAddr) ++first[r.file + 1];
  for (size_t i = 1; i < first.size(); ++i) first[i] += first[i - 1];
  {
    std::vector<U32> at(first.begin(), first.end() - 1);
    for (size_t i = 0; i < n; ++i) byFile[at[m_ByAddr[i].file]++] = (U32)i;
  }
  m_ByLoc.resize(n);
  std::vector<U32> count;
  for (size_t fi = 0; fi + 1 < first.size(); ++fi) {
    const U32 b = first[fi], e = first[fi + 1];
    if (b == e) continue;
    U32 lo = 0xFFFFFFFF, hi = 0;
    for (U32 k = b; k < e; ++k) {
      lo = std::min(lo, m_ByAddr[byFile[k]].line);
      hi = std::max(hi, m_ByAddr[byFile[k]].line);
    }
    if ((U64)hi - lo > 4ull * (e - b) + 4096) {
      // Sparse line numbers: a stable comparison sort.
      std::copy(byFile.begin() + b, byFile.begin() + e, m_ByLoc.begin() + b);
      std::stable_sort(m_ByLoc.begin() + b, m_ByLoc.begin() + e,
                       [&](U32 x, U32 y) { return m_ByAddr[x].line < m_ByAddr[y].line; });
      continue;
    }
    count.assign((size_t)(hi - lo) + 2, 0);
    for (U32 k = b; k < e; ++k) ++count[m_ByAddr[byFile[k]].line - lo + 1];
    for (size_t i = 1; i < count.size(); ++i) count[i] += count[i - 1];
    for (U32 k = b; k < e; ++k) m_ByLoc[b + count[m_ByAddr[byFile[k]].line - lo]++] = byFile[k];
  }
}

size_t CLineTables::RowOf(U32 a) const {
  return (size_t)(std::lower_bound(m_ByAddr.begin(), m_ByAddr.end(), a, [](const Row& r, U32 v) { return r.addr < v; }) -
                  m_ByAddr.begin());
}

size_t CLineTables::FindRow(U32 a) const {
  const size_t k = RowOf(a);
  return k < m_ByAddr.size() && m_ByAddr[k].addr == a ? k : m_ByAddr.size();
}

void CLineTables::Build(ELF_FILE* f, STAGE_FN pfStage, void* pContext) {
  Clear();
  // Call and declaration locations are answered from the tables: what was
  // kept for earlier tables is stale.
  DWARF_ClearSourceQueryMemos();
  m_pFile = f;
  auto stage = [&](const char* t) {
    if (pfStage) pfStage(t, pContext);
  };
  // Stage 4: file ids of the row paths. Rows name their path by an index
  // into the reader's list of distinct paths, so each path is hashed once.
  const DW_CTX* ctx = DwCtx(f);
  static const std::vector<ELF_LINE_ROW> s_NoRows;
  const std::vector<ELF_LINE_ROW>& rows = ctx ? ctx->lineRows : s_NoRows;
  std::vector<U32> fileOfPath(ctx ? ctx->linePaths.size() : 0, 0xFFFFFFFF); // -> index into m_Files
  U32 noPath = 0xFFFFFFFF;
  for (const ELF_LINE_ROW& r : rows) {
    U32& fi = r.fileIndex < fileOfPath.size() ? fileOfPath[r.fileIndex] : noPath;
    if (fi == 0xFFFFFFFF) fi = AddFile(r.fileIndex < fileOfPath.size() ? QString::fromStdString(ctx->linePaths[r.fileIndex]) : QString());
  }
  stage("Parsed source file paths found in address mapping table: ");
  // Stage 5: the source file list.
  for (int i = 0; i < ELF_GetNumSourceFiles(f); ++i) AddFile(QString::fromUtf8(ELF_GetSourceFile(f, i)));
  stage("Parsed source file paths found in source files table: ");
  // Stage 6: exists flags of the files without an alias.
  for (FileRec& r : m_Files)
    if (!m_Aliases.count(r.id)) r.exists = !r.path.isEmpty() && QFileInfo(r.path).exists();
  stage("Initialized file exists flags: ");

  // Stage 7: line to address tables, above the lowest function start.
  U32 lowestFn = 0xFFFFFFFF;
  for (int i = 0; i < ELF_GetNumSymbols(f); ++i) {
    const ELF_SYMBOL* sym = ELF_GetSymbolRow(f, i);
    if (!sym || !ELF_IsFunctionType(sym->st_info & 15)) continue;
    const U32 a = ELF_AlignAddress(Reloc(sym->st_value));
    if (a) lowestFn = std::min(lowestFn, a);
  }
  m_ByAddr.reserve(rows.size());
  U32 prevFile = 0xFFFFFFFF, prevLine = 0;
  for (const ELF_LINE_ROW& row0 : rows) {
    const ELF_LINE_ROW* r = &row0;
    if (r->endSequence) continue; // the end of a sequence has no statement
    const U32 a = Reloc(r->address);
    if (lowestFn != 0xFFFFFFFF && a < lowestFn) {
      ++m_RowsLeftOut;
      continue;
    }
    Row row{a, r->fileIndex < fileOfPath.size() ? fileOfPath[r->fileIndex] : noPath, r->line, r->column};
    // Line 0 continues the line of the row before in the same file.
    if (row.line == 0 && row.file == prevFile) row.line = prevLine;
    prevFile = row.file;
    prevLine = row.line;
    m_ByAddr.push_back(row);
    FileRec& fr = m_Files[row.file];
    fr.hasRows = true;
    fr.low = std::min(fr.low, a);
    fr.high = std::max(fr.high, a);
    m_LowAddr = std::min(m_LowAddr, a);
    m_HighAddr = std::max(m_HighAddr, a);
  }
  SortAndMergeRows(m_ByAddr);
  stage("Parsed source to address mapping table: ");

  // Stage 8: file ranges from the ranges of the units that name the file.
  BuildFileRanges();
  stage("parsed file address ranges: ");

  // Stage 9: clean-up of rows outside their file's range; files without a
  // range keep their rows.
  {
    size_t out = 0;
    for (const Row& r : m_ByAddr) {
      const CAddrRange& fr = m_Files[r.file].range;
      if (!fr.IsEmpty() && (r.addr < fr.start || r.addr >= fr.End())) continue;
      m_ByAddr[out++] = r;
    }
    m_ByAddr.resize(out);
    IndexAddresses();
  }
  stage("Cleaned up address mapping table: ");

  // Stage 10: the debug lists, copied by handle.
  {
    static const int lists[6] = {ELF_LIST_INLINED, ELF_LIST_FUNCTIONS, ELF_LIST_GLOBALS,
                                 ELF_LIST_NAMESPACES, ELF_LIST_UNITS, ELF_LIST_TYPES};
    for (int k = 0; k < 6; ++k) {
      const int n = ELF_GetListCount(f, lists[k]);
      m_Lists[k].reserve((size_t)std::max(n, 0));
      for (int i = 0; i < n; ++i) {
        const ELF_SYM_HANDLE h = ELF_GetListItem(f, lists[k], i);
        if (h) m_Lists[k].push_back(h);
        else ++m_NullListEntries;
      }
    }
    if (m_NullListEntries)
      LogInfo(QStringLiteral("Warning: found ") + QString::number(m_NullListEntries) +
              QStringLiteral(" null pointers in symbol list"));
  }
  stage("Build debug symbol lists: ");

  // Stage 11: inline expansions of each abstract function, then the start
  // of each instance without a row gets the instance's call location.
  for (ELF_SYM_HANDLE h : m_Lists[0]) {
    const ELF_SYM_HANDLE origin = ELF_GetRefAttr(h, 49);
    if (origin) m_InlineExpansions[origin].push_back(h);
  }
  {
    std::vector<Row> extra;
    std::unordered_set<U32> extraAt;
    for (ELF_SYM_HANDLE h : m_Lists[0]) {
      const CAddrRange r = GetSymbolRange(h);
      if (r.IsEmpty()) continue;
      const U32 s = r.start;
      if (FindRow(s) < m_ByAddr.size() || extraAt.count(s)) continue;
      const CSrcLoc l = DWARF_GetCallLoc(*this, h);
      if (l.IsNull()) continue;
      int fi = FileIndex(l.file);
      if (fi < 0) {
        FileRec rec;
        rec.id = l.file;
        m_Files.push_back(rec);
        fi = (int)m_Files.size() - 1;
        m_FileIndex.emplace(l.file, (U32)fi);
      }
      extra.push_back({s, (U32)fi, l.line, l.column});
      extraAt.insert(s);
    }
    std::vector<ELF_SYM_HANDLE>().swap(m_Lists[0]);
    if (!extra.empty()) {
      // The added addresses had no row: a merge keeps the order.
      auto byAddr = [](const Row& a, const Row& b) { return a.addr < b.addr; };
      std::sort(extra.begin(), extra.end(), byAddr);
      const size_t mid = m_ByAddr.size();
      m_ByAddr.insert(m_ByAddr.end(), extra.begin(), extra.end());
      std::inplace_merge(m_ByAddr.begin(), m_ByAddr.begin() + (std::ptrdiff_t)mid, m_ByAddr.end(), byAddr);
    }
  }
  stage("Hashed function inline expansions: ");
  // Stage 12: the program address list in ascending order.
  IndexAddresses();
  IndexLocations();
  stage("Sorted program address list: ");

  // Stage 13: ELF symbol table.
  {
    const int nSections = ELF_GetNumSections(f);
    std::vector<std::pair<U32, ELF_SYM_HANDLE>> byAddr;
    std::vector<U32> execSection((size_t)std::max(nSections, 0));
    for (int k = 0; k < nSections; ++k) execSection[(size_t)k] = ELF_GetSectionFlags(f, k) & 4;
    const int nSymbols = ELF_GetNumSymbols(f);
    byAddr.reserve((size_t)std::max(nSymbols, 0));
    for (int i = 0; i < nSymbols; ++i) {
      const ELF_SYM_HANDLE h = ELF_GetSymbolHandle(f, i);
      const ELF_SYMBOL* sym = ELF_GetSymbolRow(f, i);
      if (!h || !sym) continue;
      const int sec = sym->st_shndx;
      if (sec < nSections && !execSection[(size_t)sec]) continue;
      U32 a = Reloc(sym->st_value);
      if (a != 0xFFFFFFFF) a = ELF_AlignAddress(a);
      const int type = sym->st_info & 15;
      if (ELF_IsFunctionType(type)) {
        const char* name = ELF_GetSymbolName(h);
        if (name[0] == '?' || name[0] == '$') continue;
        m_ElfFunctions.push_back(h);
      }
      byAddr.emplace_back(a, h);
      m_SymByType.emplace_back(type, h);
      m_ElfSymbols.push_back(h);
    }
    // Later symbols come first at one address, as in a multi-hash.
    std::reverse(byAddr.begin(), byAddr.end());
    std::stable_sort(byAddr.begin(), byAddr.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::reverse(m_SymByType.begin(), m_SymByType.end());
    std::stable_sort(m_SymByType.begin(), m_SymByType.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    // A function symbol leads at its address.
    for (size_t i = 0; i < byAddr.size();) {
      size_t j = i + 1;
      while (j < byAddr.size() && byAddr[j].first == byAddr[i].first) ++j;
      m_SymbolAddresses.push_back(byAddr[i].first);
      if (!ELF_IsFunctionType(ELF_GetSymbolType(byAddr[i].second)))
        for (size_t k = i + 1; k < j; ++k)
          if (ELF_IsFunctionType(ELF_GetSymbolType(byAddr[k].second))) {
            std::rotate(byAddr.begin() + i, byAddr.begin() + k, byAddr.begin() + k + 1);
            break;
          }
      i = j;
    }
    m_SymByAddr.swap(byAddr);
  }
  stage("Build symbol table: ");

  // Stage 14: function list from debug functions and ELF functions, one per
  // start address, the larger one winning.
  {
    std::unordered_map<U32, U32> sizeAt;
    std::unordered_map<U32, ELF_SYM_HANDLE> handleAt;
    sizeAt.reserve(m_Lists[1].size() + m_ElfFunctions.size());
    handleAt.reserve(m_Lists[1].size() + m_ElfFunctions.size());
    // A function with a range takes its start unless a larger one holds it.
    auto note = [&](ELF_SYM_HANDLE h) {
      const CAddrRange r = GetSymbolRange(h);
      if (r.IsEmpty()) return;
      U32& noted = sizeAt[r.start];
      if (r.size > noted) {
        noted = r.size;
        handleAt[r.start] = h;
      }
    };
    for (ELF_SYM_HANDLE h : m_Lists[1]) {
      auto ex = m_InlineExpansions.find(h);
      if (ex != m_InlineExpansions.end()) {
        // An abstract function stands at its first placed instance; a real
        // function there is kept.
        for (ELF_SYM_HANDLE e : ex->second) {
          const CAddrRange r = GetSymbolRange(e);
          if (r.IsEmpty()) continue;
          if (!sizeAt[r.start]) handleAt[r.start] = h;
          break;
        }
        continue;
      }
      note(h);
    }
    for (ELF_SYM_HANDLE h : m_ElfFunctions) note(h);
    std::vector<std::pair<U32, ELF_SYM_HANDLE>> v(handleAt.begin(), handleAt.end());
    std::sort(v.begin(), v.end());
    m_Functions.reserve(v.size());
    for (auto& p : v) m_Functions.push_back(p.second);
  }
  stage("Build functions list: ");

  // Stage 15: function interval tree (functions and their inline expansions).
  {
    std::vector<CIntervalTree::Interval> iv;
    iv.reserve(m_Functions.size());
    auto addFn = [&](ELF_SYM_HANDLE h) {
      if (!IsFunctionKind(h)) return;
      const CAddrRange r = GetSymbolRange(h);
      if (!r.start || !r.size || r.IsEmpty()) return;
      iv.push_back({r.start, (U32)(r.End() - 2), h});
    };
    for (ELF_SYM_HANDLE h : m_Functions) {
      addFn(h);
      auto ex = m_InlineExpansions.find(h);
      if (ex != m_InlineExpansions.end())
        for (ELF_SYM_HANDLE e : ex->second) addFn(e);
    }
    // Instances of an abstract function that lost its start to a real
    // function of the same address still name their addresses.
    std::unordered_set<ELF_SYM_HANDLE> listed(m_Functions.begin(), m_Functions.end());
    for (auto& ex : m_InlineExpansions)
      if (!listed.count(ex.first))
        for (ELF_SYM_HANDLE e : ex.second) addFn(e);
    m_FunctionTree.Build(std::move(iv));
  }
  stage("build function interval tree: ");

  // Stage 16: file interval tree.
  BuildFileTree();
  stage("build file interval tree: ");

  // Stage 17: file functions, of the function list and of the inlined
  // instances.
  auto addFileFunction = [&](ELF_SYM_HANDLE h) {
    const I64 file = GetFileAt(GetSymbolRange(h).start);
    const int fi = file >= 0 ? FileIndex((U32)file) : -1;
    if (fi >= 0) m_Files[(size_t)fi].functions.append(h);
  };
  for (ELF_SYM_HANDLE h : m_Functions) addFileFunction(h);
  for (auto& ex : m_InlineExpansions)
    for (ELF_SYM_HANDLE e : ex.second) addFileFunction(e);
  stage("hashed file functions: ");
}

// Stage 8: for each source file, the ranges of the units naming it that hold
// one of its rows, sorted by start.
void CLineTables::BuildFileRanges() const {
  auto& files = const_cast<std::vector<FileRec>&>(m_Files);
  for (FileRec& r : files) {
    r.range = CAddrRange();
    r.ranges.clear();
  }
  m_FileRangesBuilt = true;
  if (!m_pFile) return;
  // Row addresses of each file, ascending: a counting sort of the address
  // table by file.
  std::vector<U32> first(m_Files.size() + 1, 0), addrs(m_ByAddr.size());
  for (const Row& r : m_ByAddr) ++first[r.file + 1];
  for (size_t i = 1; i < first.size(); ++i) first[i] += first[i - 1];
  {
    std::vector<U32> at(first.begin(), first.end() - 1);
    for (const Row& r : m_ByAddr) addrs[at[r.file]++] = r.addr;
  }
  std::unordered_map<U64, std::vector<CAddrRange>, HandleHash> unitRanges;
  for (int i = 0; i < ELF_GetNumSourceFiles(m_pFile); ++i) {
    const char* path = ELF_GetSourceFile(m_pFile, i);
    const int fi = FileIndex(FileIdOf(QString::fromUtf8(path)));
    if (fi < 0) continue;
    FileRec& rec = files[(size_t)fi];
    if (!rec.hasRows) continue;
    QList<CAddrRange> kept;
    for (ELF_SYM_HANDLE unit : ELF_GetFileUnits(m_pFile, path)) {
      auto ur = unitRanges.find(unit);
      if (ur == unitRanges.end()) {
        std::vector<CAddrRange> v;
        for (const ELF_RANGE& r : ELF_GetRanges(unit))
          if (r.start != 0xFFFFFFFF && r.end >= r.start) v.emplace_back(Reloc(r.start), r.end - r.start);
        ur = unitRanges.emplace(unit, std::move(v)).first;
      }
      for (const CAddrRange& ar : ur->second) {
        // Kept if a row of the file lies inside.
        if (rec.high < ar.start || rec.low >= ar.End()) continue;
        auto b = addrs.begin() + first[(size_t)fi], e = addrs.begin() + first[(size_t)fi + 1];
        auto from = std::lower_bound(b, e, ar.start);
        if (from != e && *from < ar.End() && !kept.contains(ar)) kept.append(ar);
      }
    }
    if (kept.isEmpty()) continue;
    std::sort(kept.begin(), kept.end(), [](const CAddrRange& a, const CAddrRange& b) { return a.start < b.start; });
    rec.range = CAddrRange(kept.front().start, (U32)(kept.back().End() - kept.front().start));
    rec.ranges = kept;
  }
}

// Stage 16: an interval per file without an alias that has a range.
void CLineTables::BuildFileTree() const {
  std::vector<CIntervalTree::Interval> fv;
  for (const FileRec& r : m_Files)
    if (!m_Aliases.count(r.id) && !r.range.IsEmpty() && r.range.size >= 2)
      fv.push_back({r.range.start, (U32)(r.range.End() - 2), r.id});
  std::sort(fv.begin(), fv.end(), [](const auto& a, const auto& b) { return a.start < b.start || (a.start == b.start && a.value < b.value); });
  m_FileTree.Build(std::move(fv));
  m_FileTreeBuilt = true;
}

void CLineTables::EnsureFileRanges() const {
  if (!m_FileRangesBuilt) BuildFileRanges();
}
void CLineTables::EnsureFileTree() const {
  EnsureFileRanges();
  if (!m_FileTreeBuilt) BuildFileTree();
}

CAddrRange CLineTables::GetSymbolRange(ELF_SYM_HANDLE h) const {
  auto memo = m_RangeMemo.find(h);
  if (memo != m_RangeMemo.end()) return memo->second;
  CAddrRange out;
  if (ELF_GetSymbolRowOfHandle(h) >= 0) {
    out = CAddrRange(ELF_AlignAddress(ELF_GetSymbolValue(h)), ELF_GetSymbolSize(h));
  } else {
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
      if (span < 1000000000u) out = CAddrRange(lo, span);
      else
        LogInfo(QStringLiteral("symbol address range could not be determined @ 0x") +
                QString::number(lo, 16).toUpper().rightJustified(8, QLatin1Char('0')));
    } else {
      // A declaration or an instance split over units: the concrete
      // instances decide.
      auto ex = m_InlineExpansions.find(h);
      if (ex != m_InlineExpansions.end()) {
        for (ELF_SYM_HANDLE e : ex->second)
          for (const ELF_RANGE& r : ELF_GetRanges(e)) {
            if (r.start == 0xFFFFFFFF) continue;
            lo = std::min(lo, Reloc(r.start));
            hi = std::max(hi, Reloc(r.end));
          }
        if (lo != 0xFFFFFFFF) out = CAddrRange(lo, hi > lo ? hi - lo : 0);
      }
    }
  }
  m_RangeMemo.emplace(h, out);
  return out;
}

QList<ELF_SYM_HANDLE> CLineTables::GetInlineExpansions(ELF_SYM_HANDLE h) const {
  QList<ELF_SYM_HANDLE> out;
  auto ex = m_InlineExpansions.find(h);
  if (ex != m_InlineExpansions.end())
    for (ELF_SYM_HANDLE e : ex->second) out.append(e);
  return out;
}

QList<CSrcLoc> CLineTables::GetSrcLocs(U32 a) const {
  QList<CSrcLoc> out;
  if (m_ByAddr.empty() || a == 0 || a == 0xFFFFFFFF) return out;
  const size_t first = FindRow(a);
  if (first == m_ByAddr.size()) {
    const ELF_SYM_HANDLE fn = GetFunction(a, false);
    if (!fn) return out;
    const I64 p = PrevCodeAddress(a);
    if (p < 0 || GetFunction((U32)p, false) != fn || a - (U32)p >= 257) return out;
    return GetSrcLocs((U32)p);
  }
  for (size_t k = first; k < m_ByAddr.size() && m_ByAddr[k].addr == a; ++k) out.append(LocOf(m_ByAddr[k]));
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
  const size_t k = FindRow(a);
  return k == m_ByAddr.size() ? CSrcLoc() : LocOf(m_ByAddr[k]);
}
CAddrRange CLineTables::GetAddressRange() const {
  if (m_LowAddr == 0xFFFFFFFF) return CAddrRange();
  return CAddrRange(m_LowAddr, m_HighAddr - m_LowAddr);
}

size_t CLineTables::LocIndex(U32 File, U32 Line) const {
  return (size_t)(std::lower_bound(m_ByLoc.begin(), m_ByLoc.end(), std::make_pair(File, Line),
                                   [&](U32 i, const std::pair<U32, U32>& k) {
                                     const Row& r = m_ByAddr[i];
                                     return r.file < k.first || (r.file == k.first && r.line < k.second);
                                   }) -
                  m_ByLoc.begin());
}

QList<U32> CLineTables::GetLocAddresses(const CSrcLoc& Loc) const {
  QList<U32> out;
  const int fi = FileIndex(Loc.file);
  if (fi < 0) return out;
  // Column 0 asks for the whole line: compilers that write columns have no
  // column-0 rows, and a line is what the user names. Rows of one line are
  // in address order.
  for (size_t k = LocIndex((U32)fi, Loc.line); k < m_ByLoc.size(); ++k) {
    const Row& r = m_ByAddr[m_ByLoc[k]];
    if (r.file != (U32)fi || r.line != Loc.line) break;
    if ((r.column == Loc.column || Loc.column == 0) && (out.isEmpty() || out.last() != r.addr)) out.append(r.addr);
  }
  return out;
}
I64 CLineTables::GetFirstLocAddress(const CSrcLoc& Loc) const {
  const QList<U32> v = GetLocAddresses(Loc);
  return v.isEmpty() ? -1 : (I64)v.first();
}
CSrcLoc CLineTables::NextLocWithCode(const CSrcLoc& Loc) const {
  const int fi = FileIndex(Loc.file);
  if (fi < 0 || Loc.line == 0xFFFFFFFF) return CSrcLoc();
  const U64 last = (U64)Loc.line + 1000;
  const size_t k = LocIndex((U32)fi, Loc.line + 1);
  if (k == m_ByLoc.size()) return CSrcLoc();
  const Row& r = m_ByAddr[m_ByLoc[k]];
  if (r.file != (U32)fi || r.line > last) return CSrcLoc();
  return CSrcLoc(Loc.file, r.line, 0);
}
CSrcLoc CLineTables::PrevLocWithCode(const CSrcLoc& Loc) const {
  const int fi = FileIndex(Loc.file);
  if (fi < 0 || Loc.line == 0) return CSrcLoc();
  const size_t k = LocIndex((U32)fi, Loc.line);
  if (k == 0) return CSrcLoc();
  const Row& r = m_ByAddr[m_ByLoc[k - 1]];
  if (r.file != (U32)fi) return CSrcLoc();
  return CSrcLoc(Loc.file, r.line, 0);
}

U32 CLineTables::LocAddressCount(const CAddrRange& Range) const {
  if (Range.IsEmpty()) return 0;
  const U64 key = (U64)Range.start << 32 | Range.size;
  auto memo = m_CountMemo.find(key);
  if (memo != m_CountMemo.end()) return memo->second;
  auto lo = std::lower_bound(m_Addresses.begin(), m_Addresses.end(), Range.start);
  auto hi = Range.End() > 0xFFFFFFFFull ? m_Addresses.end() : std::lower_bound(lo, m_Addresses.end(), (U32)Range.End());
  const U32 n = (U32)(hi - lo);
  m_CountMemo.emplace(key, n);
  return n;
}

bool CLineTables::IsMultiLine(const CSrcLoc& Loc) const {
  const QList<U32> mine = GetLocAddresses(Loc);
  if (mine.size() < 2) return false;
  const CSrcLoc next = NextLocWithCode(Loc);
  if (next.IsNull()) return true;
  for (U32 a : GetLocAddresses(next))
    if (std::binary_search(mine.begin(), mine.end(), a)) return false;
  return true;
}

bool CLineTables::HasCode(U32 a) const { return FindRow(a) < m_ByAddr.size() || !GetSrcLocs(a).isEmpty(); }

bool CLineTables::RangeHasCode(const CAddrRange& Range) const {
  if (Range.IsEmpty() || !Range.size) return false;
  if (HasCode(Range.start)) return true;
  const I64 n = NextCodeAddress(Range.start);
  return n >= 0 && (U64)n < Range.End();
}

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

bool CLineTables::NextLineAddress(U32 Address, U32* pNext) const {
  const CSrcLoc base = GetSrcLoc(Address);
  const U32 step = std::max<U32>(ELF_GetInstAlignment(), 1);
  const U64 stop = std::min<U64>((U64)Address + 1000, (U64)m_HighAddr + 1);
  // The rows in the window, in address order; an address that the steps
  // from the aligned start don't reach is passed over. The first row of an
  // address is its first location.
  const U32 from = ELF_AlignAddress(Address);
  for (size_t k = RowOf(from); k < m_ByAddr.size() && m_ByAddr[k].addr < stop; ++k) {
    const Row& r = m_ByAddr[k];
    if ((k > 0 && m_ByAddr[k - 1].addr == r.addr) || (r.addr - from) % step) continue;
    const CSrcLoc l = LocOf(r);
    if (!l.IsNull() && (l.file != base.file || l.line != base.line)) {
      if (pNext) *pNext = r.addr;
      return true;
    }
  }
  return false;
}

bool CLineTables::IsStatementStart(U32 Address) const {
  const CSrcLoc l = GetSrcLoc(Address);
  if (l.IsNull()) return false;
  const QList<U32> addrs = GetLocAddresses(l);
  if (addrs.size() == 1 && addrs.first() == Address) return true;
  const I64 p = PrevCodeAddress(Address);
  return p < 0 || !GetSrcLocs((U32)p).contains(l);
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

QList<ELF_SYM_HANDLE> CLineTables::GetSymbolsAt(U32 a, bool WantElf, bool WantFunctions, bool WantObjects) const {
  QList<ELF_SYM_HANDLE> out;
  bool debugFunction = false;
  if (WantFunctions)
    for (ELF_SYM_HANDLE h : GetFunctionHandles(a)) {
      if (ELF_GetTag(h) == ELF_TAG_INLINED || GetSymbolRange(h).start != a || out.contains(h)) continue;
      debugFunction |= ELF_IsDieHandle(h);
      out.append(h);
    }
  if (WantObjects) {
    if (!m_GlobalsIndexed) {
      for (ELF_SYM_HANDLE h : m_Lists[2]) {
        U32 s = 0;
        if (ELF_GetStaticAddress(h, &s)) m_GlobalsByAddr.emplace_back(Reloc(s), h);
      }
      std::stable_sort(m_GlobalsByAddr.begin(), m_GlobalsByAddr.end(), [](const auto& x, const auto& y) { return x.first < y.first; });
      m_GlobalsIndexed = true;
    }
    auto it = std::lower_bound(m_GlobalsByAddr.begin(), m_GlobalsByAddr.end(), a, [](const auto& x, U32 v) { return x.first < v; });
    for (; it != m_GlobalsByAddr.end() && it->first == a; ++it) out.append(it->second);
  }
  if (WantElf)
    for (ELF_SYM_HANDLE h : GetSymbolsByAddress(a)) {
      if (out.contains(h) || (debugFunction && ELF_IsFunctionType(ELF_GetSymbolType(h)))) continue;
      out.append(h);
    }
  return out;
}

QList<ELF_SYM_HANDLE> CLineTables::GetSymbolsByAddress(U32 a) const {
  QList<ELF_SYM_HANDLE> out;
  auto it = std::lower_bound(m_SymByAddr.begin(), m_SymByAddr.end(), a, [](const auto& x, U32 v) { return x.first < v; });
  for (; it != m_SymByAddr.end() && it->first == a; ++it) out.append(it->second);
  return out;
}
QList<ELF_SYM_HANDLE> CLineTables::GetSymbolsByType(int Type) const {
  QList<ELF_SYM_HANDLE> out;
  auto it = std::lower_bound(m_SymByType.begin(), m_SymByType.end(), Type, [](const auto& x, int v) { return x.first < v; });
  for (; it != m_SymByType.end() && it->first == Type; ++it) out.append(it->second);
  return out;
}

void CLineTables::FindLvtSymbol() {
  m_LvtSymbol = 0;
  for (ELF_SYM_HANDLE h : m_Lists[2])
    if (!strcmp(ELF_GetName(h), "_MARLEK_LVT")) {
      m_LvtSymbol = h;
      return;
    }
}

I64 CLineTables::GetFileAt(U32 a) const {
  EnsureFileTree();
  std::vector<U64> v;
  m_FileTree.Find(a, a, v);
  return v.empty() ? -1 : (I64)v.back();
}
U32 CLineTables::GetFileId(const QString& sPath) const { return FileIdOf(sPath); }
QString CLineTables::GetFilePath(U32 Id) const {
  const int fi = FileIndex(Id);
  return fi < 0 ? QString() : m_Files[(size_t)fi].path;
}
QString CLineTables::GetFileName(U32 Id) const {
  const int fi = FileIndex(Id);
  return fi < 0 ? QString() : m_Files[(size_t)fi].name;
}
bool CLineTables::FileExists(U32 Id) const {
  const int fi = FileIndex(GetFileAlias(Id));
  return fi >= 0 && m_Files[(size_t)fi].exists;
}
QStringList CLineTables::GetSourceFiles() const {
  QStringList l;
  for (const FileRec& r : m_Files)
    if (!m_Aliases.count(r.id) && !r.path.isEmpty()) l.append(r.path);
  l.sort();
  return l;
}
CAddrRange CLineTables::GetFileRange(U32 Id) const {
  EnsureFileRanges();
  const int fi = FileIndex(Id);
  return fi < 0 ? CAddrRange() : m_Files[(size_t)fi].range;
}
QList<CAddrRange> CLineTables::GetFileRanges(U32 Id) const {
  EnsureFileRanges();
  const int fi = FileIndex(Id);
  return fi < 0 ? QList<CAddrRange>() : m_Files[(size_t)fi].ranges;
}
QList<ELF_SYM_HANDLE> CLineTables::GetFileFunctions(U32 Id) const {
  const int fi = FileIndex(Id);
  return fi < 0 ? QList<ELF_SYM_HANDLE>() : m_Files[(size_t)fi].functions;
}

void CLineTables::SetFileAlias(U32 Id, const QString& sReplacement) {
  const U32 fi = AddFile(sReplacement);
  FileRec& r = m_Files[fi];
  r.exists = QFileInfo(r.path).exists();
  if (r.id == Id) m_Aliases.erase(Id);
  else m_Aliases[Id] = r.id;
  m_FileRangesBuilt = m_FileTreeBuilt = false;
}
void CLineTables::SetFileAlias(const QString& sPath, const QString& sReplacement) {
  SetFileAlias(FileIdOf(sPath), sReplacement);
}
void CLineTables::ClearFileAlias(U32 Id) {
  if (m_Aliases.erase(Id)) m_FileRangesBuilt = m_FileTreeBuilt = false;
}
void CLineTables::ClearFileAliases() {
  if (m_Aliases.empty()) return;
  m_Aliases.clear();
  m_FileRangesBuilt = m_FileTreeBuilt = false;
}
U32 CLineTables::GetFileAlias(U32 Id) const {
  auto it = m_Aliases.find(Id);
  return it == m_Aliases.end() ? Id : it->second;
}

std::vector<std::pair<U32, CSrcLoc>> CLineTables::GetAddressMap() const {
  std::vector<std::pair<U32, CSrcLoc>> out;
  out.reserve(m_ByAddr.size());
  for (const Row& r : m_ByAddr) out.emplace_back(r.addr, LocOf(r));
  return out;
}

// ---- the wrapper's program tables ---------------------------------------------------

namespace {
CLineTables g_ProgramTables;

void LogStageText(const char* sText, void* pContext) {
  const QElapsedTimer* t = static_cast<const QElapsedTimer*>(pContext);
  LogInfo(QString::fromLatin1(sText) + LogTimeText(t ? t->nsecsElapsed() / 1000 : 0));
  CElfApi::ReportLoadStage();
}
} // namespace

const CLineTables& DWARF_GetProgramTables() { return g_ProgramTables; }
CLineTables& DWARF_GetProgramTablesForUpdate() { return g_ProgramTables; }

// Load stages 4-19 of the wrapper, and the reset at close.
void DWARF_RunWrapperStages(ELF_FILE* f, const QElapsedTimer* pTimer, int* pFunctionCount, int* pGlobalCount) {
  if (!f) {
    g_ProgramTables.Clear();
    DWARF_ClearSourceQueryMemos();
    return;
  }
  g_ProgramTables.Build(f, LogStageText, const_cast<QElapsedTimer*>(pTimer));
  // Stage 18: the call frame table is read with the debug information.
  ELF_GetNumFrameDescriptions(f);
  LogStageText("parsed call frame information: ", const_cast<QElapsedTimer*>(pTimer));
  // Stage 19: the terminal's control block.
  g_ProgramTables.FindLvtSymbol();
  if (pFunctionCount) *pFunctionCount = (int)g_ProgramTables.GetFunctionList().size();
  if (pGlobalCount) *pGlobalCount = (int)g_ProgramTables.GetGlobalVariableList().size();
}
