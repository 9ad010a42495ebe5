// CMemoryWindow: a memory window, "Memory 1", "Memory 2", ... It holds no
// contents yet and shows the empty-window text "No data".
#pragma once
#include <QWidget>

class CMemoryWindow : public QWidget {
  Q_OBJECT
 public:
  CMemoryWindow(int Index, QWidget* pParent = nullptr);
  int Index() const { return m_Index; }
  QString GetName() const;
  QString GetEmptyWindowText() const { return QStringLiteral("No data"); }
  bool IsEmpty() const { return true; }

 protected:
  void paintEvent(QPaintEvent* pEvent) override;

 private:
  int m_Index;
};
