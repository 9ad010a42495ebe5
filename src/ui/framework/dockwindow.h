// CDockWindow: the dock around one CWindow. Closing it by its title bar is
// the command Window.Close, so that the console shows it; a key of the
// window's shortcut table triggers its action.
// CDockableFrame: a frame the user drags inside its parent with the left
// mouse button; it keeps its place against the nearest corner of the parent
// when the parent is resized.
#pragma once
#include <QDockWidget>
#include <QFrame>
#include <QPoint>

class CWindow;

class CDockWindow : public QDockWidget {
  Q_OBJECT
 public:
  explicit CDockWindow(CWindow* pWindow, QWidget* pParent = nullptr);
  CWindow* Window() const { return m_pWindow; }
  // The dock area as the user file writes it (DOCK_AREA_*), 0 when the dock
  // is in no main window.
  int DockAreaValue() const;
  // Closes the dock without going through the command (the command's own
  // work).
  void CloseWindow();
  // The style sheet with the close icon that suits the palette.
  void UpdateCloseIconStyle();

 protected:
  void closeEvent(QCloseEvent* pEvent) override;
  void keyPressEvent(QKeyEvent* pEvent) override;
  void changeEvent(QEvent* pEvent) override;

 private:
  void OnVisibilityChanged(bool Visible);
  CWindow* m_pWindow;
  bool m_CommandClose = false;
  bool m_InCloseEvent = false;
  bool m_Open = false;
};

class CDockableFrame : public QFrame {
  Q_OBJECT
 public:
  explicit CDockableFrame(QWidget* pParent);

 protected:
  void mousePressEvent(QMouseEvent* pEvent) override;
  void mouseMoveEvent(QMouseEvent* pEvent) override;
  void mouseReleaseEvent(QMouseEvent* pEvent) override;
  bool eventFilter(QObject* pObject, QEvent* pEvent) override;

 private:
  void Remember();
  QPoint m_DragStart;
  bool m_Dragging = false;
  Qt::Corner m_Corner = Qt::TopLeftCorner;
  QPoint m_Offset;  // distance of the frame's corner to the parent's corner
};
