#include "stack/framestore.h"


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

void CFrameStore::CopyStack(int From, int To) {
  if (From < 0 || From > 1 || To < 0 || To > 1 || From == To) return;
  m_Frames[To] = m_Frames[From];
  for (CCallFrame& F : m_Frames[To]) F.stack = To;
  m_Registers[To] = m_Registers[From];
}

void CFrameStore::Truncate(int Stack, int Count) {
  if (Stack < 0 || Stack > 1 || Count < 0) return;
  if ((size_t)Count < m_Frames[Stack].size()) m_Frames[Stack].resize(Count);
}
