#include "ui/memory/memorywindow.h"

CMemoryWindow::CMemoryWindow(int Index, QWidget* pParent) : CWindow(pParent), m_Index(Index) {
  setObjectName(QStringLiteral("MemoryWindow"));
  setWindowTitle(QStringLiteral("Memory %1").arg(Index));
  setFocusPolicy(Qt::StrongFocus);
  setMinimumSize(120, 60);
}

QStringList CMemoryWindow::GetAliasNames() const {
  return {QStringLiteral("Memory Content%1").arg(m_Index), QStringLiteral("Memory%1").arg(m_Index)};
}
