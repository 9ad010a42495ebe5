// CToolBar: one of the main window's four tool bars (file, windows, debug,
// breakpoints). Its name is what Toolbar.Show and Toolbar.Close take; its
// settings key holds the visibility in a perspective.
#pragma once
#include <QToolBar>

class QAction;

class CToolBar : public QToolBar {
  Q_OBJECT
 public:
  CToolBar(const QString& sName, const QString& sStateKey, QWidget* pParent);
  const QString& Name() const { return m_sName; }
  const QString& StateKey() const { return m_sStateKey; }
  // The View menu item that shows and hides the bar.
  void SetToggleAction(QAction* pAction);
  QAction* ToggleAction() const { return m_pToggle; }

 private:
  QString m_sName, m_sStateKey;
  QAction* m_pToggle = nullptr;
};
