// Address mapping of one program: source locations of addresses, addresses
// of source locations, the functions and files that hold an address. Built
// once from the line rows, the debug lists and the ELF symbols of an opened
// file; read-only afterwards. No locking here: the ELF-API wrapper holds its
// mutex around every call. Addresses are relocated target addresses.
#pragma once
#include "common/srcloc.h"
#include "common/types.h"
#include "elf/elf.h"

#include <QList>
#include <QString>
#include <unordered_map>
#include <vector>

// A centered interval tree over inclusive intervals (start, stop, value).
class CIntervalTree {
public:
  struct Interval {
    U32 start, stop;
    U64 value;
  };
  void Build(std::vector<Interval> All, int DepthLimit = 16, size_t MinPerNode = 64);
  // Intervals that overlap [a, b], in the order of the search.
  void Find(U32 a, U32 b, std::vector<U64>& out) const;
  bool Empty() const { return m_Nodes.empty(); }

private:
  struct Node {
    U32 centre = 0;
    std::vector<Interval> here; // sorted by start
    int left = -1, right = -1;
  };
  int Make(std::vector<Interval>& v, int depth, int limit, size_t minPer);
  void Search(int n, U32 a, U32 b, std::vector<U64>& out) const;
  std::vector<Node> m_Nodes;
};

class CLineTables {
public:
  // Stage texts are handed to pfStage (if given) as each stage ends.
  typedef void (*STAGE_FN)(const char* sText, void* pContext);
  // Stages 4-17: file ids, exists flags, address and location tables, file
  // ranges, clean-up, debug lists, inline expansions, ELF symbol table,
  // function list, both interval trees, file functions.
  void Build(ELF_FILE* pFile, STAGE_FN pfStage = nullptr, void* pContext = nullptr);
  void Clear();

  // Address to source.
  QList<CSrcLoc> GetSrcLocs(U32 Address) const;
  CSrcLoc GetSrcLoc(U32 Address) const;
  CSrcLoc GetLastSrcLoc(U32 Address) const;
  CSrcLoc GetExactSrcLoc(U32 Address) const;
  CAddrRange GetAddressRange() const;
  // Source to address, ascending; column 0 stands for every column of the line.
  QList<U32> GetLocAddresses(const CSrcLoc& Loc) const;
  I64 GetFirstLocAddress(const CSrcLoc& Loc) const; // -1 if none
  CSrcLoc NextLocWithCode(const CSrcLoc& Loc) const;
  CSrcLoc PrevLocWithCode(const CSrcLoc& Loc) const;
  // Number of program addresses inside the range (memoised).
  U32 LocAddressCount(const CAddrRange& Range) const;
  // True if the location has several addresses and none of them is one of
  // the next line's (a breakpoint on it lands on several places).
  bool IsMultiLine(const CSrcLoc& Loc) const;
  // Address list.
  bool HasCode(U32 Address) const;
  bool RangeHasCode(const CAddrRange& Range) const;
  I64 PrevCodeAddress(U32 Address) const;
  I64 NextCodeAddress(U32 Address) const;
  // The first address behind Address (within 1000 bytes, in steps of the
  // instruction alignment) whose row has another file or line.
  bool NextLineAddress(U32 Address, U32* pNext) const;
  bool IsStatementStart(U32 Address) const;
  const std::vector<U32>& GetProgramAddresses() const { return m_Addresses; }
  // Functions.
  QList<ELF_SYM_HANDLE> GetFunctionHandles(U32 Address) const;
  ELF_SYM_HANDLE GetFunction(U32 Address, bool NoInline) const;
  const std::vector<ELF_SYM_HANDLE>& GetFunctionList() const { return m_Functions; }
  CAddrRange GetSymbolRange(ELF_SYM_HANDLE h) const; // memoised per handle
  // Inlined instances of an abstract function.
  QList<ELF_SYM_HANDLE> GetInlineExpansions(ELF_SYM_HANDLE h) const;
  // Functions (debug or ELF, from the function list) that start at the
  // address, global variables placed there, ELF symbols there; a debug
  // function hides an ELF function symbol at its address. Inlined instances
  // are not part of it.
  QList<ELF_SYM_HANDLE> GetSymbolsAt(U32 Address, bool WantElfSymbols, bool WantFunctions, bool WantObjects) const;
  // The debug lists copied at load (stage 10). The working list of inlined
  // instances is released once the inline expansions are hashed.
  const std::vector<ELF_SYM_HANDLE>& GetDebugFunctionList() const { return m_Lists[1]; }
  const std::vector<ELF_SYM_HANDLE>& GetGlobalVariableList() const { return m_Lists[2]; }
  const std::vector<ELF_SYM_HANDLE>& GetNamespaceList() const { return m_Lists[3]; }
  const std::vector<ELF_SYM_HANDLE>& GetUnitList() const { return m_Lists[4]; }
  const std::vector<ELF_SYM_HANDLE>& GetTypeList() const { return m_Lists[5]; }
  int GetNullListEntries() const { return m_NullListEntries; }
  // ELF symbol table (stage 13): symbols in executable sections or in none.
  // At one address later symbols come first, but a function symbol leads.
  QList<ELF_SYM_HANDLE> GetSymbolsByAddress(U32 Address) const;
  QList<ELF_SYM_HANDLE> GetSymbolsByType(int Type) const;
  const std::vector<ELF_SYM_HANDLE>& GetElfSymbolList() const { return m_ElfSymbols; }
  const std::vector<ELF_SYM_HANDLE>& GetElfFunctionList() const { return m_ElfFunctions; }
  const std::vector<U32>& GetSymbolAddressList() const { return m_SymbolAddresses; }
  // The global variable `_MARLEK_LVT` (stage 19), 0 if the program has none.
  ELF_SYM_HANDLE GetLvtSymbol() const { return m_LvtSymbol; }
  void FindLvtSymbol();
  // Files.
  I64 GetFileAt(U32 Address) const; // -1 if none
  U32 GetFileId(const QString& sPath) const;
  QString GetFilePath(U32 Id) const;
  QString GetFileName(U32 Id) const;
  bool FileExists(U32 Id) const; // of the replacement if the file has an alias
  // Full paths of the known files, sorted; a file with an alias is replaced
  // by its replacement path.
  QStringList GetSourceFiles() const;
  CAddrRange GetFileRange(U32 Id) const;
  QList<CAddrRange> GetFileRanges(U32 Id) const;
  QList<ELF_SYM_HANDLE> GetFileFunctions(U32 Id) const;
  // File aliases: the file's replacement path. Setting or clearing one
  // empties the file ranges and the file interval tree, which the next
  // look-up builds again.
  void SetFileAlias(U32 Id, const QString& sReplacement);
  void SetFileAlias(const QString& sPath, const QString& sReplacement);
  void ClearFileAlias(U32 Id);
  void ClearFileAliases();
  U32 GetFileAlias(U32 Id) const; // Id itself without an alias
  int GetRowsLeftOut() const { return m_RowsLeftOut; }
  // Every (address, location) pair kept after the clean-up, by address.
  std::vector<std::pair<U32, CSrcLoc>> GetAddressMap() const;

  static U32 FileIdOf(const QString& sPath);

private:
  // One kept (address, location) pair; file is an index into m_Files.
  struct Row {
    U32 addr, file, line, column;
  };
  struct FileRec {
    U32 id = 0;
    QString path, name;
    bool exists = false;
    U32 low = 0xFFFFFFFF, high = 0; // of the rows before the clean-up
    bool hasRows = false;
    CAddrRange range;
    QList<CAddrRange> ranges;
    QList<ELF_SYM_HANDLE> functions;
  };
  struct HandleHash {
    size_t operator()(U64 h) const { return (U32)((h >> 31) ^ h); }
  };
  int FileIndex(U32 Id) const; // -1 if unknown
  U32 AddFile(const QString& sPath);
  CSrcLoc LocOf(const Row& r) const { return CSrcLoc(m_Files[r.file].id, r.line, r.column); }
  void SortAndMergeRows(std::vector<Row>& v);
  void IndexAddresses();
  void IndexLocations();
  size_t FindRow(U32 Address) const;   // first row of the address, or the row count
  size_t RowOf(U32 Address) const;      // first row at or above the address
  size_t LocIndex(U32 File, U32 Line) const; // first of m_ByLoc at or above (file, line)
  void BuildFileRanges() const;
  void BuildFileTree() const;
  void EnsureFileRanges() const;
  void EnsureFileTree() const;

  ELF_FILE* m_pFile = nullptr;
  std::vector<FileRec> m_Files;
  std::unordered_map<U32, U32> m_FileIndex;
  std::unordered_map<U32, U32> m_Aliases;
  std::vector<Row> m_ByAddr;       // sorted by address, then location
  std::vector<U32> m_Addresses;    // distinct addresses of m_ByAddr
  std::vector<U32> m_ByLoc;        // rows by file, line, address
  std::vector<ELF_SYM_HANDLE> m_Functions;
  std::vector<ELF_SYM_HANDLE> m_Lists[6]; // inlined, functions, globals, namespaces, units, types
  int m_NullListEntries = 0;
  std::unordered_map<U64, std::vector<ELF_SYM_HANDLE>, HandleHash> m_InlineExpansions;
  std::vector<std::pair<U32, ELF_SYM_HANDLE>> m_SymByAddr; // grouped by address
  std::vector<std::pair<int, ELF_SYM_HANDLE>> m_SymByType; // grouped by type
  std::vector<ELF_SYM_HANDLE> m_ElfSymbols, m_ElfFunctions;
  std::vector<U32> m_SymbolAddresses;
  ELF_SYM_HANDLE m_LvtSymbol = 0;
  CIntervalTree m_FunctionTree;
  mutable CIntervalTree m_FileTree;
  mutable bool m_FileRangesBuilt = false, m_FileTreeBuilt = false;
  mutable std::unordered_map<U64, CAddrRange, HandleHash> m_RangeMemo;
  mutable std::unordered_map<U64, U32> m_CountMemo;
  mutable std::vector<std::pair<U32, ELF_SYM_HANDLE>> m_GlobalsByAddr;
  mutable bool m_GlobalsIndexed = false;
  U32 m_LowAddr = 0xFFFFFFFF, m_HighAddr = 0;
  int m_RowsLeftOut = 0;
};

// The tables of the program that the ELF-API wrapper holds, built by its
// load stages (DWARF_Install puts them there); empty without a program.
// Use under the wrapper mutex.
const CLineTables& DWARF_GetProgramTables();
// The same tables for the operations that change them (file aliases).
CLineTables& DWARF_GetProgramTablesForUpdate();
