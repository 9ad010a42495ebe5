#include "ui/memory/memorywindow.h"

#include <QPainter>

CMemoryWindow::CMemoryWindow(int Index, QWidget* pParent) : QWidget(pParent), m_Index(Index) {
  setObjectName(QStringLiteral("MemoryWindow"));
  setWindowTitle(GetName());
  setFocusPolicy(Qt::StrongFocus);
  setMinimumSize(120, 60);
}

QString CMemoryWindow::GetName() const { return QStringLiteral("Memory %1").arg(m_Index); }

void CMemoryWindow::paintEvent(QPaintEvent*) {
  QPainter p(this);
  p.fillRect(rect(), palette().window());
  p.setPen(palette().color(QPalette::WindowText));
  p.drawText(rect(), Qt::AlignCenter, GetEmptyWindowText());
}
