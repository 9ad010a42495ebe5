#include "ui/framework/dockwindow.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "ui/framework/window.h"

#include <QAction>
#include <QCloseEvent>
#include <QFile>
#include <QKeyEvent>
#include <QMainWindow>
#include <QMouseEvent>

CDockWindow::CDockWindow(CWindow* pWindow, QWidget* pParent) : QDockWidget(pParent), m_pWindow(pWindow) {
  setObjectName(pWindow->objectName());
  setWindowTitle(pWindow->GetDisplayName());
  pWindow->SetDock(this);
  setWidget(pWindow);
  connect(this, &QDockWidget::visibilityChanged, this, &CDockWindow::OnVisibilityChanged);
  connect(this, &QDockWidget::topLevelChanged, pWindow, &CWindow::FloatingStateChanged);
  UpdateCloseIconStyle();
}

int CDockWindow::DockAreaValue() const {
  if (isFloating()) return DOCK_AREA_FLOATING;
  auto* pMain = qobject_cast<QMainWindow*>(parentWidget());
  return pMain ? int(pMain->dockWidgetArea(const_cast<CDockWindow*>(this))) : 0;
}

void CDockWindow::CloseWindow() {
  // Asked by the command while the title bar's close event runs: that
  // event closes the dock.
  if (m_InCloseEvent) {
    m_CommandClose = true;
    return;
  }
  m_CommandClose = true;
  close();
  m_CommandClose = false;
}

void CDockWindow::closeEvent(QCloseEvent* pEvent) {
  if (m_CommandClose) {
    QDockWidget::closeEvent(pEvent);
    return;
  }
  m_InCloseEvent = true;
  ExecAction(AID_WINDOW_CLOSE, m_pWindow->GetDisplayName());
  m_InCloseEvent = false;
  // Without a command slot the dock still closes.
  const bool Close = m_CommandClose || !GetCommandSlot(AID_WINDOW_CLOSE);
  m_CommandClose = false;
  if (Close) QDockWidget::closeEvent(pEvent);
  else pEvent->ignore();
}

void CDockWindow::keyPressEvent(QKeyEvent* pEvent) {
  const QKeySequence Key(pEvent->keyCombination());
  for (QAction* a : m_pWindow->actions()) {
    if (!a->isEnabled()) continue;
    for (const QKeySequence& s : a->shortcuts())
      if (s.matches(Key) == QKeySequence::ExactMatch) {
        a->trigger();
        pEvent->accept();
        return;
      }
  }
  QDockWidget::keyPressEvent(pEvent);
}

void CDockWindow::changeEvent(QEvent* pEvent) {
  QDockWidget::changeEvent(pEvent);
  if (pEvent->type() == QEvent::PaletteChange) UpdateCloseIconStyle();
}

void CDockWindow::UpdateCloseIconStyle() {
  const bool Dark = palette().color(QPalette::Window).lightness() < 128;
  const QString sIcon = QStringLiteral(":/icons/dock-close-%1.svg").arg(Dark ? QStringLiteral("light") : QStringLiteral("dark"));
  setStyleSheet(QFile::exists(sIcon) ? QStringLiteral("QDockWidget { titlebar-close-icon: url(%1); }").arg(sIcon) : QString());
}

void CDockWindow::OnVisibilityChanged(bool) {
  const bool Open = !isHidden();
  if (Open == m_Open) return;
  m_Open = Open;
  if (Open) m_pWindow->OnOpened();
  else m_pWindow->OnClosed();
}

// ---------------------------------------------------------------- CDockableFrame

CDockableFrame::CDockableFrame(QWidget* pParent) : QFrame(pParent) {
  if (pParent) pParent->installEventFilter(this);
}

void CDockableFrame::mousePressEvent(QMouseEvent* pEvent) {
  if (pEvent->button() != Qt::LeftButton) return QFrame::mousePressEvent(pEvent);
  m_Dragging = true;
  m_DragStart = pEvent->globalPosition().toPoint() - pos();
}

void CDockableFrame::mouseMoveEvent(QMouseEvent* pEvent) {
  if (!m_Dragging || !parentWidget()) return QFrame::mouseMoveEvent(pEvent);
  QPoint p = pEvent->globalPosition().toPoint() - m_DragStart;
  const QSize Room = parentWidget()->size() - size();
  p.setX(qBound(0, p.x(), qMax(0, Room.width())));
  p.setY(qBound(0, p.y(), qMax(0, Room.height())));
  move(p);
}

void CDockableFrame::mouseReleaseEvent(QMouseEvent* pEvent) {
  if (!m_Dragging) return QFrame::mouseReleaseEvent(pEvent);
  m_Dragging = false;
  Remember();
}

void CDockableFrame::Remember() {
  const QWidget* p = parentWidget();
  if (!p) return;
  const QRect r = geometry();
  const bool Right = r.center().x() > p->width() / 2;
  const bool Bottom = r.center().y() > p->height() / 2;
  m_Corner = Bottom ? (Right ? Qt::BottomRightCorner : Qt::BottomLeftCorner) : (Right ? Qt::TopRightCorner : Qt::TopLeftCorner);
  m_Offset = QPoint(Right ? p->width() - r.right() : r.left(), Bottom ? p->height() - r.bottom() : r.top());
}

bool CDockableFrame::eventFilter(QObject* pObject, QEvent* pEvent) {
  if (pObject == parentWidget() && pEvent->type() == QEvent::Resize) {
    const QWidget* p = parentWidget();
    const bool Right = m_Corner == Qt::TopRightCorner || m_Corner == Qt::BottomRightCorner;
    const bool Bottom = m_Corner == Qt::BottomLeftCorner || m_Corner == Qt::BottomRightCorner;
    const int x = Right ? p->width() - m_Offset.x() - width() + 1 : m_Offset.x();
    const int y = Bottom ? p->height() - m_Offset.y() - height() + 1 : m_Offset.y();
    move(qMax(0, x), qMax(0, y));
  }
  return QFrame::eventFilter(pObject, pEvent);
}
