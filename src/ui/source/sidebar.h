// The gutter left of the source editor: per row an icon (breakpoint,
// tracepoint, PC), the expansion mark of a line with code, the address, the
// execution count, the line number and the code profile bar. It scrolls with
// the editor and asks the window for icons and counts through providers.
#pragma once
#include <QPixmap>
#include <QTimer>
#include <QWidget>
#include <functional>
#include "common/types.h"

class CSourceEditor;

// Icon ids of the sidebar's table.
enum SIDEBAR_ICON {
  SIDEBAR_ICON_NONE = 0,
  SIDEBAR_ICON_BP = 1,
  SIDEBAR_ICON_BP_CLEAR = 2,
  SIDEBAR_ICON_BP_LARGE = 3,
  SIDEBAR_ICON_BP_DISABLED = 4,
  SIDEBAR_ICON_TP = 5,
  SIDEBAR_ICON_TP_DISABLED = 6,
  SIDEBAR_ICON_TP_LARGE = 7,
  SIDEBAR_ICON_TP_DISABLED_LARGE = 8,
  SIDEBAR_ICON_GREY_DOT = 9,
  SIDEBAR_ICON_PC_YELLOW = 10,
  SIDEBAR_ICON_PC = 11,
  SIDEBAR_ICON_PLAY = 12,
  SIDEBAR_ICON_STOP = 13,
  SIDEBAR_ICON_COUNT = 14
};

class CSideBar : public QWidget {
  Q_OBJECT
 public:
  explicit CSideBar(CSourceEditor* pEditor, QWidget* pParent = nullptr);

  void SetIconProvider(std::function<int(int Row)> Provider);
  void SetExecCountProvider(std::function<QString(int Row)> Provider);
  // Share of the row in the code profile, 0..1; without a provider the bars stay empty.
  void SetProfileProvider(std::function<double(int Row)> Provider);
  int IconAt(int Row) const;                 // the icon drawn for the row, 0 for none
  QString LineNumberText(int Row) const;     // what the line number column shows for the row
  static QString IconFileName(int Id);       // "breakpoint-11.png", ...; empty outside 1..13
  static QPixmap IconPixmap(int Id);         // from ":/Resources/"

  // PREF_SHOW_SIDEBAR_SRC, PREF_SHOW_SRC_CODE_PROFILE, PREF_LINE_NUMBER_FREQ,
  // PREF_SHOW_EXPANSION_BAR; others only repaint.
  void SetPreference(int PrefId, int Value);
  int Preference(int PrefId) const;
  void SetShowAddresses(bool Show);  // the address column
  bool ShowsAddresses() const { return m_ShowAddr; }

  // Geometry, in widget coordinates: the expansion mark and the icon column.
  QRect MarkRect(int Row) const;
  QRect IconRect(int Row) const;
  QSize sizeHint() const override;

 signals:
  void MouseClicked(int Row, int Button);
  void StateChanged();
  void SizeChanged();

 public slots:
  void OnUpdateTimerTimeout();
  void OnToolTipDelayTimerTimeout();
  void ScheduleUpdate();  // repaints once on the next timer tick

 protected:
  void paintEvent(QPaintEvent* e) override;
  void mousePressEvent(QMouseEvent* e) override;
  void mouseMoveEvent(QMouseEvent* e) override;
  void leaveEvent(QEvent* e) override;
  void wheelEvent(QWheelEvent* e) override;

 private:
  void UpdateGeometry();
  int LineNumberDigits() const;

  CSourceEditor* m_pEditor;
  std::function<int(int)> m_IconProvider;
  std::function<QString(int)> m_ExecProvider;
  std::function<double(int)> m_ProfileProvider;
  QTimer m_UpdateTimer;
  QTimer m_ToolTipTimer;
  QPoint m_ToolTipPos;
  bool m_Visible = true;
  bool m_ShowProfile = false;
  bool m_ShowExpansion = true;
  bool m_ShowAddr = false;
  int m_LineFreq = 2;
  // Column layout (x offsets); computed by UpdateGeometry.
  int m_XIcon = 0, m_XMark = 0, m_XAddr = 0, m_XExec = 0, m_XLine = 0, m_XProfile = 0, m_Width = 0;
};
