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
#include <map>
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
  // Stages: file ids, address and location tables, file ranges, clean-up,
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
  // Address list.
  bool HasCode(U32 Address) const;
  I64 PrevCodeAddress(U32 Address) const;
  I64 NextCodeAddress(U32 Address) const;
  const std::vector<U32>& GetProgramAddresses() const { return m_Addresses; }
  // Functions.
  QList<ELF_SYM_HANDLE> GetFunctionHandles(U32 Address) const;
  ELF_SYM_HANDLE GetFunction(U32 Address, bool NoInline) const;
  const std::vector<ELF_SYM_HANDLE>& GetFunctionList() const { return m_Functions; }
  CAddrRange GetSymbolRange(ELF_SYM_HANDLE h) const;
  // Files.
  I64 GetFileAt(U32 Address) const; // -1 if none
  U32 GetFileId(const QString& sPath) const;
  QString GetFilePath(U32 Id) const;
  QString GetFileName(U32 Id) const;
  QStringList GetSourceFiles() const;
  CAddrRange GetFileRange(U32 Id) const;
  QList<CAddrRange> GetFileRanges(U32 Id) const;
  QList<ELF_SYM_HANDLE> GetFileFunctions(U32 Id) const;
  int GetRowsLeftOut() const { return m_RowsLeftOut; }
  // Every (address, location) pair kept after the clean-up, by address.
  std::vector<std::pair<U32, CSrcLoc>> GetAddressMap() const;

  static U32 FileIdOf(const QString& sPath);

private:
  void AddPair(U32 a, const CSrcLoc& l);
  ELF_FILE* m_pFile = nullptr;
  std::unordered_map<U32, QString> m_FilePaths, m_FileNames;
  std::unordered_map<U32, std::vector<CSrcLoc>> m_AddrToLoc;
  // (file << 32 | line) -> (column, address) pairs
  std::unordered_map<U64, std::vector<std::pair<U32, U32>>> m_LocToAddr;
  std::vector<U32> m_Addresses;
  std::unordered_map<U32, U32> m_FileLow, m_FileHigh;
  std::unordered_map<U32, CAddrRange> m_FileRange;
  std::unordered_map<U32, QList<CAddrRange>> m_FileRanges;
  std::unordered_map<U32, QList<ELF_SYM_HANDLE>> m_FileFunctions;
  std::vector<ELF_SYM_HANDLE> m_Functions;
  std::unordered_map<U64, std::vector<ELF_SYM_HANDLE>> m_InlineExpansions;
  CIntervalTree m_FunctionTree, m_FileTree;
  U32 m_LowAddr = 0xFFFFFFFF, m_HighAddr = 0;
  int m_RowsLeftOut = 0;
};

// The tables of the program that the ELF-API wrapper holds, built by its
// load stages (DWARF_Install puts them there); empty without a program.
// Use under the wrapper mutex.
const CLineTables& DWARF_GetProgramTables();
