#include "ui/registers/registermodel.h"

#include "cmdline/cmdline.h"
#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/datamanager.h"
#include "device/device.h"
#include "files/filefinder.h"
#include "log/log.h"
#include "plugins/corehost.h"
#include "plugins/corewrappers.h"

#include <QFileInfo>

namespace {

constexpr int kFormatBinary = 2;
constexpr int kFormatDecimal = 10;

// Row ids carry no meaning of their own; rows of the CPU tree keep theirs
// until the file changes.
QStringList Texts(const QString& a, const QString& b, const QString& c, const QString& d) { return {a, b, c, d}; }

}  // namespace

CRegistersDataModel::CRegistersDataModel(QObject* pParent) : CTableModel(pParent) {
  setObjectName(QStringLiteral("RegistersDataModel"));
  SetColumns({QStringLiteral("Name"), QStringLiteral("Value"), QStringLiteral("Address"), QStringLiteral("Description")});
  SetColumnFilterKind(COL_VALUE, FILTER_KIND_NUMBER | FILTER_KIND_HEX);
  SetColumnFilterKind(COL_ADDRESS, FILTER_KIND_NUMBER | FILTER_KIND_HEX);
  SetColumnConstWidth(COL_VALUE, true);
}

// ---------------------------------------------------------------- rows

int CRegistersDataModel::LoadCpuFile(const QString& sPath) {
  QList<CPU_REG_DESC> Regs;
  QString sError;
  if (REG_ReadCpuFile(sPath, &Regs, &sError) < 0) {
    LogMessage(sError, MSG_WARNING | MSG_CONSOLE | MSG_FILE | MSG_OWN);
    return -1;
  }
  beginResetModel();
  blockSignals(true);
  ClearRows();
  m_Regs.clear();
  m_RegOfRow.clear();
  m_RegOfProbe.clear();
  m_PendingGroups.clear();
  m_sCpuFile = sPath;
  const U64 Root = AddRow(0, Texts(QStringLiteral("CPU"), QString(), QString(), QStringLiteral("CPU registers")));
  QList<QString> Groups;
  QList<U64> GroupRows;
  for (const CPU_REG_DESC& d : Regs) {
    if (!Groups.contains(d.Group)) {
      Groups << d.Group;
      GroupRows << AddRow(Root, Texts(d.Group, QString(), QString(), QString()));
    }
    REG r;
    r.Group = int(Groups.indexOf(d.Group));
    r.Name = d.Name;
    r.LogicIdx = d.LogicIdx;
    r.ProbeIdx = CORE_GetRegIndex(d.LogicIdx);
    r.Bits = d.Bits;
    r.Flags = d.Flags;
    r.Row = AddRow(GroupRows[r.Group], Texts(d.Name, QString(), QString(), d.Description));
    m_RegOfRow.insert(r.Row, int(m_Regs.size()));
    if (r.ProbeIdx >= 0 && !m_RegOfProbe.contains(U32(r.ProbeIdx))) m_RegOfProbe.insert(U32(r.ProbeIdx), int(m_Regs.size()));
    m_Regs.push_back(r);
  }
  blockSignals(false);
  endResetModel();
  return 0;
}

int CRegistersDataModel::LoadCoreRegisters() {
  if (!IsCorePluginLoaded()) return -1;
  const char* pFile = CORE_GetRegisterFile(CoreConfig().Core);
  if (!pFile || !*pFile) return -1;
  const QString sName = QString::fromUtf8(pFile).left(2048);
  // The file lies beside the core plug-ins, or wherever the finder knows it.
  CFileFinder& F = FileFinder();
  const bool Report = F.SetReport(false);
  QString sPath = F.Resolve(CORE_PluginDir() + QLatin1Char('/') + sName);
  if (sPath.isEmpty()) sPath = F.Resolve(sName);
  F.SetReport(Report);
  if (sPath.isEmpty()) {
    LogMessage(QStringLiteral("File not found: ") + sName, MSG_WARNING | MSG_CONSOLE | MSG_FILE | MSG_OWN);
    return -1;
  }
  return LoadCpuFile(sPath) == 0 && !m_Regs.empty() ? 0 : -1;
}

QStringList CRegistersDataModel::RegisterNames() const {
  QStringList l;
  for (const REG& r : m_Regs) l << r.Name;
  return l;
}

U64 CRegistersDataModel::RowOfRegister(const QString& sName) const {
  for (const REG& r : m_Regs)
    if (r.Name.compare(sName, Qt::CaseInsensitive) == 0) return r.Row;
  return 0;
}

bool CRegistersDataModel::GetValue(const QString& sName, U64* pValue) const {
  const int i = m_RegOfRow.value(RowOfRegister(sName), -1);
  if (i < 0 || !m_Regs[size_t(i)].Known) return false;
  *pValue = m_Regs[size_t(i)].Value;
  return true;
}

int CRegistersDataModel::GetVordenRegIdx(const QString& sName) const {
  const int i = m_RegOfRow.value(RowOfRegister(sName), -1);
  return i < 0 ? -1 : m_Regs[size_t(i)].ProbeIdx;
}

QString CRegistersDataModel::FlagText(const QString& sName, U64 Value) const {
  const int i = m_RegOfRow.value(RowOfRegister(sName), -1);
  if (i < 0 || m_Regs[size_t(i)].Flags.size() > 10) return QString();
  QString s;
  for (const auto& [sFlag, Pos] : m_Regs[size_t(i)].Flags)
    s += (Value >> Pos) & 1 ? sFlag.left(1).toUpper() : sFlag.left(1).toLower();
  return s;
}

// ---------------------------------------------------------------- texts

QString CRegistersDataModel::ValueText(U64 Value, U32 Bits, int Format) {
  const U64 Mask = Bits >= 64 ? ~0ull : ((1ull << Bits) - 1);
  Value &= Mask;
  if (Format == kFormatDecimal) return QString::number(Value);
  if (Format == kFormatBinary) {
    QString s = QString::number(Value, 2).rightJustified(int(Bits), QLatin1Char('0'));
    for (int i = s.size() - 4; i > 0; i -= 4) s.insert(i, QLatin1Char(' '));
    return s;
  }
  return QStringLiteral("0x") + QString::number(Value, 16).toUpper().rightJustified(int((Bits + 3) / 4), QLatin1Char('0'));
}

bool CRegistersDataModel::ParseValue(const QString& sText, int Format, U64* pValue) {
  QString s = sText;
  s.remove(QLatin1Char(' '));
  // Behind the value may stand a flag text; the number ends at the first
  // character that is no digit of the base.
  int Base = 16;
  if (Format == kFormatDecimal) Base = 10;
  else if (Format == kFormatBinary) Base = 2;
  if (Base == 16 && s.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) s.remove(0, 2);
  else if (Base == 2 && s.startsWith(QLatin1String("0b"), Qt::CaseInsensitive)) s.remove(0, 2);
  if (s.isEmpty()) return false;
  bool Ok = false;
  const U64 v = s.toULongLong(&Ok, Base);
  if (!Ok) return false;
  *pValue = v;
  return true;
}

int CRegistersDataModel::FormatOf(U64 Row) const {
  const int Own = Role(Row, 0, ROLE_DISPLAY_FORMAT).toInt();
  if (Own) return Own;
  return m_Format ? m_Format() : 0;
}

QStringList CRegistersDataModel::RowTexts(const REG& r) const {
  QString sValue = r.Known ? ValueText(r.Value, r.Bits, FormatOf(r.Row)) : QStringLiteral("--------");
  if (r.Known && !r.Flags.isEmpty()) sValue += QLatin1Char(' ') + FlagText(r.Name, r.Value);
  return Texts(r.Name, sValue, QString(), Text(r.Row, COL_DESCRIPTION));
}

QVariant CRegistersDataModel::data(const QModelIndex& Index, int Role) const {
  const int i = Index.isValid() && Index.column() == COL_VALUE ? m_RegOfRow.value(RowIdOf(Index), -1) : -1;
  if (i < 0) return CTableModel::data(Index, Role);
  // The value follows the display format at once; the stored text is the
  // one the change level compares. An edit starts from the number alone.
  const REG& r = m_Regs[size_t(i)];
  if (Role == Qt::DisplayRole || Role == Qt::EditRole) {
    if (!r.Known) return Text(r.Row, COL_VALUE).isEmpty() ? QString() : QStringLiteral("--------");
    const QString s = ValueText(r.Value, r.Bits, FormatOf(r.Row));
    return Role == Qt::DisplayRole && !r.Flags.isEmpty() ? s + QLatin1Char(' ') + FlagText(r.Name, r.Value) : s;
  }
  if (Role == Qt::ToolTipRole && r.Known) {
    if (r.Value <= 1) return QStringLiteral("value: %1").arg(r.Value);
    QString s = QStringLiteral("hex: %1\ndec: %2\nbin: %3")
                    .arg(ValueText(r.Value, r.Bits, 16), QString::number(r.Value), ValueText(r.Value, r.Bits, kFormatBinary));
    if (r.Value >= 0x20 && r.Value < 0x7F) s += QStringLiteral("\nascii: '%1'").arg(QChar(char(r.Value)));
    return s;
  }
  return CTableModel::data(Index, Role);
}

bool CRegistersDataModel::IsCellChangeable(const QModelIndex& Index) const {
  return Index.column() == COL_VALUE && m_RegOfRow.contains(RowIdOf(Index));
}

Qt::ItemFlags CRegistersDataModel::flags(const QModelIndex& Index) const {
  Qt::ItemFlags f = CTableModel::flags(Index);
  if (IsCellChangeable(Index)) f |= Qt::ItemIsEditable;
  return f;
}

// ---------------------------------------------------------------- reading

bool CRegistersDataModel::ReadRow(U64 Id) {
  const int i = m_RegOfRow.value(Id, -1);
  if (i < 0) return false;
  const int Group = m_Regs[size_t(i)].Group;
  if (m_PendingGroups.contains(Group)) return true;
  // One batch for the group: one read per stop, whichever of its rows show.
  CDeviceDataManager& Dm = CDeviceDataManager::Instance();
  U32 Cnt = 0;
  for (const REG& r : m_Regs)
    if (r.Group == Group && r.ProbeIdx >= 0 && Cnt < DM_MAX_SHARED_REG_IDXS) Dm.SharedRegIdxs()[Cnt++] = U32(r.ProbeIdx);
  if (Cnt == 0) return false;
  m_PendingGroups.insert(Group);
  if (Dm.ReadRegsAsync(this, Cnt) != 2 && m_PendingGroups.contains(Group)) {
    // Refused (the target is not halted): unknown for this stop.
    m_PendingGroups.remove(Group);
    for (REG& r : m_Regs)
      if (r.Group == Group) r.Known = false;
    FillGroup(Group);
  }
  return true;
}

void CRegistersDataModel::Answer(U32 Cnt, const U32* paIdxs, const U64* paVals, const U8* paStatus) {
  if (Cnt == 0 || !m_RegOfProbe.contains(paIdxs[0])) return;
  const int Group = m_Regs[size_t(m_RegOfProbe.value(paIdxs[0]))].Group;
  if (!m_PendingGroups.remove(Group)) return;
  for (U32 k = 0; k < Cnt; ++k) {
    // Several logical registers may name one probe register.
    for (REG& r : m_Regs) {
      if (r.ProbeIdx != int(paIdxs[k])) continue;
      r.Value = paVals ? paVals[k] : 0;
      r.Known = paVals && (!paStatus || paStatus[k] == CACHE_VALID);
    }
  }
  FillGroup(Group);
}

void CRegistersDataModel::FillGroup(int Group) {
  for (const REG& r : m_Regs)
    if (r.Group == Group) FillRow(r.Row, RowTexts(r));
  emit ValuesRead();
}

void CRegistersDataModel::OnDeviceReadRegsDone(U32 Cnt, U32* paIdxs, U64* paVals, U8* paStatus) {
  Answer(Cnt, paIdxs, paVals, paStatus);
}

void CRegistersDataModel::OnDeviceReadRegsFailed(U32 Cnt, U32* paIdxs) { Answer(Cnt, paIdxs, nullptr, nullptr); }

void CRegistersDataModel::OnDeviceReadRegDone(U32 Idx, U64 Value) {
  // A batch of one: the cache tells whether the value could be read.
  const U8 Status = CDeviceDataManager::Instance().RegStatus(Idx);
  Answer(1, &Idx, &Value, &Status);
}

void CRegistersDataModel::OnDeviceReadRegFailed(U32 Idx) { Answer(1, &Idx, nullptr, nullptr); }

void CRegistersDataModel::OnDeviceDisconnectDone() {
  m_PendingGroups.clear();
  for (REG& r : m_Regs) {
    r.Known = false;
    SetText(r.Row, COL_VALUE, QString());
  }
  ResetChangeMarks();
}

// ---------------------------------------------------------------- writing

bool CRegistersDataModel::setData(const QModelIndex& Index, const QVariant& Value, int Role) {
  const int i = m_RegOfRow.value(RowIdOf(Index), -1);
  if (Role != Qt::EditRole || Index.column() != COL_VALUE || i < 0) return CTableModel::setData(Index, Value, Role);
  REG& r = m_Regs[size_t(i)];
  U64 v = 0;
  if (!r.Known || !ParseValue(Value.toString(), FormatOf(r.Row), &v)) return false;
  const U64 Mask = r.Bits >= 64 ? ~0ull : ((1ull << r.Bits) - 1);
  if (v > Mask) {
    LogMessage(QStringLiteral("Cannot write register %1: value 0x%2 does not fulfill write constraint.")
                   .arg(r.Name, QString::number(v, 16).toUpper()),
               MSG_WARNING | MSG_CONSOLE | MSG_FILE | MSG_OWN);
    return false;
  }
  if (v == r.Value) return true;
  const U64 Row = r.Row;
  if (ExecAction(AID_TARGET_SET_REG, r.Name, QStringLiteral("0x") + QString::number(v, 16).toUpper()) < 0) return false;
  // The register is read back; its row alone counts the change.
  SetRole(Row, 0, ROLE_READ_STATE, QVariant());
  m_PendingGroups.remove(r.Group);
  ReadRow(Row);
  return true;
}
