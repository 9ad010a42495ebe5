// CRegistersDataModel: the rows of a register window. The CPU registers of
// the core come from the description file the core plug-in names, below a
// root "CPU" and one row per group; the values of a group are read in one
// batch per stop through the data cache when one of its rows shows (a group
// the target lacks fails alone), and a changed value raises the row's change
// level. Writing a value runs Target.SetReg, so that an edit is a command.
#pragma once
#include "device/listener.h"
#include "ui/framework/tablemodel.h"
#include "ui/registers/cpuregfile.h"

#include <QHash>
#include <QSet>
#include <functional>
#include <vector>

class CRegistersDataModel : public CTableModel, public CDeviceEventListener {
  Q_OBJECT
 public:
  enum COLUMNS { COL_NAME = 0, COL_VALUE = 1, COL_ADDRESS = 2, COL_DESCRIPTION = 3 };

  explicit CRegistersDataModel(QObject* pParent = nullptr);

  // Builds the rows from a description file; the rows there were go. 0, or
  // -1 with the reason logged to the console.
  int LoadCpuFile(const QString& sPath);
  // Builds the rows from the file the loaded core plug-in names for its
  // core, found by the file finder beside the plug-ins or by its name.
  // 0, or -1 when there is no plug-in, no file or no register in it.
  int LoadCoreRegisters();
  QString CpuFile() const { return m_sCpuFile; }
  // The window's display format (DISPLAY_FORMAT_*); rows may have their own.
  void SetFormatSource(const std::function<int()>& Source) { m_Format = Source; }

  // ---- register table
  int RegisterCount() const { return int(m_Regs.size()); }
  QStringList RegisterNames() const;
  // The row of a register (any case), 0 when there is none.
  U64 RowOfRegister(const QString& sName) const;
  // The cached value; false while it is not known.
  bool GetValue(const QString& sName, U64* pValue) const;
  // The probe register a register name stands for; -1 for none.
  int GetVordenRegIdx(const QString& sName) const;
  // The flag text of a register's one-bit fields for a value: the first
  // letter of each, upper case when set; empty with more than 10 of them.
  QString FlagText(const QString& sName, U64 Value) const;
  // The text a value shows in a format, for a register of Bits bits.
  static QString ValueText(U64 Value, U32 Bits, int Format);
  // A typed value: blanks removed, read in the base of the format (a "0x"
  // prefix is allowed in hexadecimal, and in the automatic format).
  static bool ParseValue(const QString& sText, int Format, U64* pValue);

  // ---- CTableModel
  bool ReadRow(U64 Id) override;
  bool IsCellChangeable(const QModelIndex& Index) const override;
  Qt::ItemFlags flags(const QModelIndex& Index) const override;
  bool setData(const QModelIndex& Index, const QVariant& Value, int Role = Qt::EditRole) override;
  QVariant data(const QModelIndex& Index, int Role = Qt::DisplayRole) const override;

  // ---- read reports (through the data cache)
  void OnDeviceReadRegsDone(U32 Cnt, U32* paIdxs, U64* paVals, U8* paStatus) override;
  void OnDeviceReadRegsFailed(U32 Cnt, U32* paIdxs) override;
  void OnDeviceReadRegDone(U32 Idx, U64 Value) override;
  void OnDeviceReadRegFailed(U32 Idx) override;
  void OnDeviceDisconnectDone() override;

 signals:
  // The values of a group came (or failed) for the stop.
  void ValuesRead();

 private:
  struct REG {
    U64 Row = 0;
    QString Name;
    U32 LogicIdx = 0;
    int ProbeIdx = -1;
    U32 Bits = 32;
    int Group = 0;
    QList<QPair<QString, U8>> Flags;
    U64 Value = 0;
    bool Known = false;
  };
  int FormatOf(U64 Row) const;
  QStringList RowTexts(const REG& r) const;
  // Stores the answer of a batch and fills the rows of its group.
  void Answer(U32 Cnt, const U32* paIdxs, const U64* paVals, const U8* paStatus);
  void FillGroup(int Group);
  std::vector<REG> m_Regs;
  QHash<U64, int> m_RegOfRow;
  QHash<U32, int> m_RegOfProbe;
  QString m_sCpuFile;
  std::function<int()> m_Format;
  QSet<int> m_PendingGroups;
};
