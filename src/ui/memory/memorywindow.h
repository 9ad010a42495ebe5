// CMemoryWindow: a memory window, "Memory 1", "Memory 2", ... It holds no
// contents yet: it stays empty and shows "No data".
#pragma once
#include "ui/framework/window.h"

class CMemoryWindow : public CWindow {
  Q_OBJECT
 public:
  CMemoryWindow(int Index, QWidget* pParent = nullptr);
  int Index() const { return m_Index; }
  QStringList GetAliasNames() const override;
  QString GetEmptyWindowText(DEBUG_STATES) const override { return QStringLiteral("No data"); }
  bool IsEmpty() const override { return true; }

 private:
  int m_Index;
};
