#include "files/textrecords.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

namespace VFile {

namespace {

struct HEX_TABLE {
  signed char a[256];
  constexpr HEX_TABLE() : a() {
    for (int i = 0; i < 256; ++i) a[i] = -1;
    for (int i = 0; i < 10; ++i) a['0' + i] = char(i);
    for (int i = 0; i < 6; ++i) a['a' + i] = a['A' + i] = char(10 + i);
  }
};
constexpr HEX_TABLE kHex;

// The byte of two hexadecimal digits, or -1.
inline int HexByte(const char* p) {
  const int h = kHex.a[U8(p[0])], l = kHex.a[U8(p[1])];
  return (h | l) < 0 ? -1 : (h << 4) | l;
}

// Sum of the bytes of the digit pairs in [p, p + 2 * n); -1 for a non-digit.
int SumBytes(const char* p, size_t n) {
  int Sum = 0;
  for (size_t i = 0; i < n; ++i) {
    const int b = HexByte(p + 2 * i);
    if (b < 0) return -1;
    Sum += b;
  }
  return Sum;
}

// Value of n digit pairs, big-endian.
U32 HexValue(const char* p, size_t nPairs) {
  U32 v = 0;
  for (size_t i = 0; i < nPairs; ++i) v = (v << 8) | U32(HexByte(p + 2 * i));
  return v;
}

}  // namespace

bool ParseSRecordLine(const char* p, size_t Len, TEXT_RECORD* pRec) {
  if (Len < 10 || p[0] != 'S') return false;
  const int Count = HexByte(p + 2);
  if (Count < 0 || size_t(Count) * 2 != Len - 4) return false;
  const int Sum = SumBytes(p + 2, (Len - 4) / 2);
  const int Check = HexByte(p + Len - 2);
  if (Sum < 0 || Check < 0 || (~Sum & 0xFF) != Check) return false;
  size_t AddrDigits;
  switch (p[1]) {
    case '0': case '1': case '5': case '9': AddrDigits = 4; break;
    case '2': case '8': AddrDigits = 6; break;
    case '3': case '7': AddrDigits = 8; break;
    default: return false;
  }
  if (4 + AddrDigits > Len - 2) return false;
  pRec->Type = U32(p[1] - '0');
  pRec->Addr = HexValue(p + 4, AddrDigits / 2);
  pRec->pData = p + 4 + AddrDigits;
  pRec->nBytes = U32((Len - 2 - 4 - AddrDigits) / 2);
  return true;
}

bool ParseIntelHexLine(const char* p, size_t Len, U32* pExtBase, TEXT_RECORD* pRec) {
  if (Len < 11 || p[0] != ':' || p[7] != '0') return false;
  const int Count = HexByte(p + 1);
  if (Count < 0 || size_t(Count) * 2 != Len - 11) return false;
  const int Sum = SumBytes(p + 1, (Len - 3) / 2);
  const int Check = HexByte(p + Len - 2);
  if (Sum < 0 || Check < 0 || (-Sum & 0xFF) != Check) return false;
  const U32 Field = HexValue(p + 3, 2);
  pRec->Type = U32(kHex.a[U8(p[8])]);
  pRec->pData = p + 9;
  pRec->nBytes = 0;
  switch (p[8]) {
    case '0':
      pRec->Addr = U64(Field) + *pExtBase;
      pRec->nBytes = U32(Count);
      return true;
    case '1': return Len == 11;
    case '2':
    case '4':
      if (Len != 15 || Field != 0) return false;
      *pExtBase = HexValue(p + 9, 2) << (p[8] == '2' ? 4 : 16);
      return true;
    case '3':
    case '5': return Len == 19 && Field == 0;
    default: return false;
  }
}

namespace {

// A run of records that follow each other without a gap.
struct RUN {
  U64 Addr;
  QByteArray Data;
  qint64 FirstLine;
};

class CRecordCollector {
 public:
  CRecordCollector(TEXT_FORMAT Format, const TEXT_READ_HOOKS& Hooks, TEXT_READ_RESULT* pOut)
      : m_Format(Format), m_Hooks(Hooks), m_pOut(pOut) {}

  void Line(const char* p, size_t Len, qint64 LineNo) {
    TEXT_RECORD r;
    const bool Ok = m_Format == TEXT_FORMAT_SREC ? ParseSRecordLine(p, Len, &r) : ParseIntelHexLine(p, Len, &m_ExtBase, &r);
    if (!Ok) return Bad(LineNo, QString());
    const bool IsData = m_Format == TEXT_FORMAT_SREC ? (r.Type >= 1 && r.Type <= 3) : r.Type == 0;
    if (!IsData || r.nBytes == 0 || m_pOut->BadLine >= 0) return;
    if (r.Addr + r.nBytes > 0x100000000ull)
      return Bad(LineNo, QStringLiteral("its data reach past the 4 GiB address space (0x%1 + %2 bytes)")
                             .arg(r.Addr, 8, 16, QLatin1Char('0')).arg(r.nBytes));
    if (m_Runs.empty() || m_Runs.back().Addr + U64(m_Runs.back().Data.size()) != r.Addr)
      m_Runs.push_back({r.Addr, QByteArray(), LineNo});
    QByteArray& d = m_Runs.back().Data;
    const qsizetype Old = d.size();
    if (d.capacity() < Old + r.nBytes) d.reserve(std::max<qsizetype>(Old + r.nBytes, 2 * d.capacity()));
    d.resize(Old + r.nBytes);
    char* pOut = d.data() + Old;
    for (U32 i = 0; i < r.nBytes; ++i) pOut[i] = char(HexByte(r.pData + 2 * i));
  }

  void Bad(qint64 LineNo, const QString& sProblem) {
    if (sProblem.isEmpty() && m_Hooks.OnBadRecord) m_Hooks.OnBadRecord(LineNo);
    if (m_pOut->BadLine >= 0) return;
    m_pOut->BadLine = LineNo;
    m_pOut->sProblem = sProblem;
    m_Runs.clear();
  }

  void Finish() {
    if (m_pOut->BadLine >= 0) return;
    std::stable_sort(m_Runs.begin(), m_Runs.end(), [](const RUN& a, const RUN& b) { return a.Addr < b.Addr; });
    U64 End = 0;
    for (size_t i = 0; i < m_Runs.size(); ++i) {
      if (i > 0 && m_Runs[i].Addr < End) {
        // The first record of this run starts inside earlier data.
        return Bad(m_Runs[i].FirstLine, QStringLiteral("its data at 0x%1 overlap the data of another record")
                                            .arg(m_Runs[i].Addr, 8, 16, QLatin1Char('0')));
      }
      End = std::max(End, m_Runs[i].Addr + U64(m_Runs[i].Data.size()));
    }
    CMemBlockList Blocks;
    Blocks.reserve(qsizetype(m_Runs.size()));
    for (RUN& r : m_Runs) {
      CMemBlock b;
      b.Addr = b.VirtAddr = U32(r.Addr);
      b.Data = std::move(r.Data);
      b.Size = U32(b.Data.size());
      Blocks.append(std::move(b));
    }
    m_Runs.clear();
    m_pOut->Blocks = MergeBlocks(std::move(Blocks));
  }

 private:
  TEXT_FORMAT m_Format;
  const TEXT_READ_HOOKS& m_Hooks;
  TEXT_READ_RESULT* m_pOut;
  U32 m_ExtBase = 0;
  std::vector<RUN> m_Runs;
};

inline bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

}  // namespace

TEXT_READ_RESULT ReadTextRecords(QIODevice& In, TEXT_FORMAT Format, const TEXT_READ_HOOKS& Hooks) {
  TEXT_READ_RESULT Result;
  CRecordCollector Records(Format, Hooks, &Result);
  // One buffer for all slices, left uninitialised: only what was read is used.
  const std::unique_ptr<char[]> Buf(new char[size_t(FILE_SLICE_SIZE)]);
  char* const b = Buf.get();
  qint64 Carried = 0, Done = 0, LineNo = 0;
  for (;;) {
    const qint64 Want = FILE_SLICE_SIZE - Carried;
    qint64 Got = In.read(b + Carried, Want);
    if (Got < 0) {
      Result.ReadError = true;
      Got = 0;
    }
    const bool Last = Got < Want;
    const qint64 n = Carried + Got;
    qint64 Pos = 0;
    for (;;) {
      // White space behind a line; a CR at the slice's end waits for the next
      // slice, which may start with its LF.
      while (Pos < n && IsSpace(b[Pos])) {
        if (b[Pos] == '\n') ++LineNo;
        else if (b[Pos] == '\r') {
          if (Pos + 1 == n && !Last) break;
          if (Pos + 1 == n || b[Pos + 1] != '\n') ++LineNo;
        }
        ++Pos;
      }
      if (Pos >= n || (b[Pos] == '\r' && !Last)) break;
      qint64 e = Pos;
      while (e < n && b[e] != '\n' && b[e] != '\r') ++e;
      if (e == n && !Last) break;  // the line goes on in the next slice
      Records.Line(b + Pos, size_t(e - Pos), LineNo);
      Pos = e;
    }
    Done += Pos;
    if (Hooks.OnProgress) Hooks.OnProgress(Done + (Last ? n - Pos : 0));
    if (Last) break;
    if (Pos == 0 && n == FILE_SLICE_SIZE) {
      // One line fills the whole slice: no record is that long.
      Records.Bad(LineNo, QString());
      break;
    }
    memmove(b, b + Pos, size_t(n - Pos));
    Carried = n - Pos;
  }
  Records.Finish();
  if (Result.ReadError && Result.BadLine < 0) Result.Blocks.clear();
  return Result;
}

CMemBlockList MergeBlocks(CMemBlockList Blocks) {
  for (CMemBlock& b : Blocks) b.Size = U32(b.Data.size());
  if (Blocks.size() <= 1) return Blocks;
  std::stable_sort(Blocks.begin(), Blocks.end(), [](const CMemBlock& a, const CMemBlock& b) { return a.Addr < b.Addr; });
  CMemBlockList Out;
  qsizetype First = 0;
  while (First < Blocks.size()) {
    U64 End = U64(Blocks[First].Addr) + U64(Blocks[First].Data.size());
    qsizetype Last = First + 1;
    while (Last < Blocks.size() && U64(Blocks[Last].Addr) <= End) {
      End = std::max(End, U64(Blocks[Last].Addr) + U64(Blocks[Last].Data.size()));
      ++Last;
    }
    CMemBlock m;
    m.Addr = m.VirtAddr = Blocks[First].Addr;
    if (Last == First + 1) {
      m.VirtAddr = Blocks[First].VirtAddr;
      m.Data = std::move(Blocks[First].Data);
    } else {
      m.Data.resize(qsizetype(End - m.Addr));
      for (qsizetype i = First; i < Last; ++i)
        memcpy(m.Data.data() + (Blocks[i].Addr - m.Addr), Blocks[i].Data.constData(), size_t(Blocks[i].Data.size()));
    }
    m.Size = U32(m.Data.size());
    Out.append(std::move(m));
    First = Last;
  }
  return Out;
}

}  // namespace VFile
