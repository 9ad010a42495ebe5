// The rows of the local and global data windows, also without a window (for
// Window.Export in batch runs): the locals of one call frame, and the
// program's global variables.
#pragma once
#include "ui/symbols/symbolsmodel.h"

class CLocalsDataModel : public CSymbolsDataModel {
  Q_OBJECT
 public:
  explicit CLocalsDataModel(QObject* pParent = nullptr);
  static CLocalsDataModel& Instance();

  // Shows the locals of a frame of the call stack: a plain refresh when it
  // is the function shown, else the rows anew. False without the frame.
  bool ShowFrame(int Frame);
  void Rebuild(int Frame);
  int Frame() const { return m_Frame; }
  ELF_SYM_HANDLE Function() const { return m_hFunction; }
  QString FunctionName() const { return m_sFunction; }
  // "Local Data", with " @ " and the function while halted.
  QString Title() const;
  // Auto mode adds the globals the function's source text uses.
  void SetAutoMode(bool On) { m_AutoMode = On; }
  bool AutoMode() const { return m_AutoMode; }
  // Forgets the frame (program closed, target running).
  void Reset();

 private:
  int m_Frame = -1;
  ELF_SYM_HANDLE m_hFunction = 0;
  U64 m_FramePc = 0;
  QString m_sFunction;
  bool m_AutoMode = false;
};

class CGlobalsDataModel : public CSymbolsDataModel {
  Q_OBJECT
 public:
  explicit CGlobalsDataModel(QObject* pParent = nullptr);
  static CGlobalsDataModel& Instance();
  // The rows of the program's global variables, sorted by name; built once
  // per program. Returns the number of rows.
  int Init();
  bool IsBuilt() const { return m_Identity == SYM_GetProgramIdentity() && m_Built; }
  // The row of a global's name, -1 if none.
  int RowOfName(const QString& sName) const { return int(m_Names.indexOf(sName)); }
  // The globals a function's source text names (auto mode of the locals).
  static QList<ELF_SYM_HANDLE> GetGlobalVars(ELF_SYM_HANDLE hFunc);

 private:
  U64 m_Identity = 0;
  bool m_Built = false;
  QStringList m_Names;
};
