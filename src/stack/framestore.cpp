#include "stack/framestore.h"

#include "elf/elfapi.h"
#include "elf/symbol/symbol.h"
#include "log/log.h"

#include <QMutexLocker>

void CFrameStore::Configure(U32 RegisterCount, U32 PcRegister, U32 SpRegister, int DepthLimit) {
  m_RegisterCount = RegisterCount;
  m_PcRegister = PcRegister;
  m_SpRegister = SpRegister;
  m_DepthLimit = DepthLimit > 0 ? DepthLimit : 1;
  Clear(0);
  Clear(1);
}

void CFrameStore::Clear(int Stack) {
  if (Stack < 0 || Stack > 1) return;
  m_Frames[Stack].clear();
  m_Registers[Stack].clear();
  if (Stack == 0) m_Selected = -1;
}

CFrameStore::REGISTERS* CFrameStore::Row(int Stack, int Index) {
  if (Stack < 0 || Stack > 1 || Index < 0 || Index >= m_DepthLimit) return nullptr;
  std::vector<REGISTERS>& v = m_Registers[Stack];
  if ((size_t)Index >= v.size()) v.resize(Index + 1);
  REGISTERS& r = v[Index];
  if (r.values.size() != m_RegisterCount) {
    r.values.assign(m_RegisterCount, 0);
    r.status.assign(m_RegisterCount, 1);
  }
  return &r;
}

const CFrameStore::REGISTERS* CFrameStore::Row(int Stack, int Index) const {
  if (Stack < 0 || Stack > 1 || Index < 0 || (size_t)Index >= m_Registers[Stack].size()) return nullptr;
  return &m_Registers[Stack][Index];
}

bool CFrameStore::SetFrame(const CCallFrame& Frame) {
  const int s = Frame.stack, i = Frame.index;
  if (s < 0 || s > 1 || i < 0 || i >= m_DepthLimit || (size_t)i > m_Frames[s].size()) return false;
  if ((size_t)i == m_Frames[s].size()) m_Frames[s].push_back(Frame);
  else m_Frames[s][i] = Frame;
  Row(s, i);
  return true;
}

void CFrameStore::SetRegister(int Stack, int Index, U32 Register, U64 Value, U8 Status) {
  REGISTERS* r = Row(Stack, Index);
  if (!r || Register >= m_RegisterCount) return;
  r->values[Register] = Value;
  r->status[Register] = Status;
}

void CFrameStore::SetRules(int Stack, int Index, const ELF_SYM_LOCS& Rows) {
  if (REGISTERS* r = Row(Stack, Index)) r->rules = Rows;
}

bool CFrameStore::GetFrame(int Stack, int Index, CCallFrame& Out) const {
  if (Stack < 0 || Stack > 1 || Index < 0 || (size_t)Index >= m_Frames[Stack].size()) return false;
  Out = m_Frames[Stack][Index];
  return true;
}

int CFrameStore::GetFrameCount(int Stack) const {
  return Stack < 0 || Stack > 1 ? 0 : (int)m_Frames[Stack].size();
}

bool CFrameStore::GetRegister(int Stack, int Index, U32 Register, U64& Value) const {
  const REGISTERS* r = Row(Stack, Index);
  if (!r || Register >= r->values.size() || r->status[Register] != 0) return false;
  Value = r->values[Register];
  return true;
}

ELF_SYM_LOC CFrameStore::GetRule(int Stack, int Index, U32 Register) const {
  ELF_SYM_LOC l{};
  const REGISTERS* r = Row(Stack, Index);
  if (r && Register < r->rules.size()) l = r->rules[Register];
  return l;
}

// ---- frames from registers and rules ---------------------------------------------

namespace {

// A rule or frame base of one part as a number; "register + offset" is the
// register's value (wherever the frame keeps it) plus the offset.
bool LocationValue(const CCallFrame& F, const ELF_SYM_LOC& Loc, U64& Value) {
  if (Loc.count != 1) return false;
  ELF_LOC_PART p = Loc.parts[0];
  I64 Add = 0;
  if (p.kind == ELF_LOC_REG_VALUE) {
    Add = p.offset;
    p.kind = ELF_LOC_REG;
    p.offset = 0;
  }
  p = ResolveLocPart(F, p);
  if (!ELF_ResolvedPartWord(F, p, Value)) return false;
  Value += (U64)Add;
  return true;
}

// Function and inline state, rules, CFA and frame base of a frame whose PC and
// SP registers are in the store.
void Derive(CFrameStore& Store, CCallFrame& F) {
  U64 Pc = 0, Sp = 0;
  Store.GetRegister(F.stack, F.index, Store.GetPcRegister(), Pc);
  Store.GetRegister(F.stack, F.index, Store.GetSpRegister(), Sp);
  F.registerCount = Store.GetRegisterCount();
  F.function = SYM_GetFunctionAt((U32)Pc);
  F.isInline = F.function && ELF_GetTag(F.function) == ELF_TAG_INLINED;
  Store.SetFrame(F);
  ELF_FILE* pFile = CElfApi::Instance().GetFile();
  ELF_SYM_LOCS Rows;
  const int n = pFile ? ELF_GetRegisterRules(pFile, (U32)Pc, (int)Store.GetRegisterCount(), Rows) : 0;
  F.noCfi = n == 0;
  if (n > 0) Store.SetRules(F.stack, F.index, Rows);
  const int Ra = pFile ? ELF_GetReturnAddressColumn(pFile) : -1;
  F.returnColumn = Ra >= 0 ? (U32)Ra : 14;
  Store.SetFrame(F);
  // CFA: the rule of the SP column.
  U64 v;
  if (n > (int)Store.GetSpRegister() && LocationValue(F, Rows[Store.GetSpRegister()], v)) {
    F.cfa = v;
    F.cfaStatus = 0;
    const I64 d = (I64)v - (I64)Sp;
    F.frameSize = d >= 0 && d <= 100000 ? (U32)d : 0;
  } else {
    F.cfa = Sp;
    F.cfaStatus = 1;
  }
  Store.SetFrame(F);
  // Frame base of the real function, SP as fall-back.
  ELF_SYM_HANDLE Real = F.function;
  for (int i = 0; Real && ELF_GetTag(Real) == ELF_TAG_INLINED && i < 64; ++i) Real = ELF_GetParent(Real);
  F.frameBase = Real ? ELF_GetSymbolLocation(Real, (U32)Pc) : ELF_SYM_LOC{};
  F.bp = Sp;
  F.bpStatus = 0;
  if (F.frameBase.count && LocationValue(F, F.frameBase, v)) {
    F.bp = v;
    ResolveLocation(F, F.frameBase);
  } else if (Real) {
    LogWarning(QString("Invalid BP data location for function ") + ELF_GetName(Real) + ". Falling back to SP");
  }
  if (n > (int)F.returnColumn && LocationValue(F, Rows[F.returnColumn], v)) {
    F.returnAddress = v;
    F.raStatus = 0;
  } else {
    F.raStatus = 1;
  }
  Store.SetFrame(F);
}

}  // namespace

CCallFrame STACK_InitFrame(CFrameStore& Store, int Stack, const std::vector<U64>& Values, const std::vector<U8>& Known) {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  Store.Clear(Stack);
  CCallFrame F;
  F.stack = Stack;
  F.index = 0;
  if (!Store.SetFrame(F)) return CCallFrame();
  for (U32 r = 0; r < Store.GetRegisterCount(); ++r) {
    const bool k = r < Values.size() && r < Known.size() && Known[r];
    Store.SetRegister(Stack, 0, r, k ? Values[r] : 0, k ? 0 : 1);
  }
  Derive(Store, F);
  return F;
}

CCallFrame STACK_UnwindFrame(CFrameStore& Store, int Stack, int Index) {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  CCallFrame Callee;
  if (!Store.GetFrame(Stack, Index, Callee) || Callee.noCfi || Callee.cfaStatus || Callee.raStatus) return CCallFrame();
  if (Index + 1 >= Store.GetDepthLimit()) return CCallFrame();
  CCallFrame F;
  F.stack = Stack;
  F.index = Index + 1;
  // PC inside the call instruction before the return address; SP the callee's CFA.
  const U64 Pc = (Callee.returnAddress & ~1ull) - 2;
  if ((Callee.returnAddress & ~1ull) < 2 || Callee.returnAddress == 0xFFFFFFFFu) return CCallFrame();
  if (!Store.SetFrame(F)) return CCallFrame();
  for (U32 r = 0; r < Store.GetRegisterCount(); ++r) Store.SetRegister(Stack, F.index, r, 0, 1);
  Store.SetRegister(Stack, F.index, Store.GetPcRegister(), Pc, 0);
  Store.SetRegister(Stack, F.index, Store.GetSpRegister(), Callee.cfa, 0);
  // The other registers by the callee's rules.
  for (U32 r = 0; r < Store.GetRegisterCount(); ++r) {
    if (r == Store.GetPcRegister() || r == Store.GetSpRegister()) continue;
    ELF_SYM_LOC l{};
    l.count = 1;
    l.parts[0].kind = ELF_LOC_REG;
    l.parts[0].reg = r;
    const ELF_SYM_LOC Rule = Store.GetRule(Stack, Index, r);
    if (Rule.count && (Rule.parts[0].kind == ELF_LOC_REG || Rule.parts[0].kind == ELF_LOC_REG_VALUE) &&
        Rule.parts[0].reg == ELF_REG_UNDEFINED)
      continue;
    U64 v;
    if (LocationValue(F, l, v)) Store.SetRegister(Stack, F.index, r, v, 0);
  }
  Derive(Store, F);
  return F;
}
