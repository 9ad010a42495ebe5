#include "ui/source/sidebar.h"

#include <QHelpEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QScrollBar>
#include <QToolTip>
#include <QWheelEvent>
#include <algorithm>
#include "settings/colors.h"
#include "settings/fonts.h"
#include "settings/ids.h"
#include "settings/sysvars.h"
#include "ui/source/sourceeditor.h"

namespace {
constexpr int kIconWidth = 18;
constexpr int kMarkWidth = 12;
constexpr int kProfileWidth = 32;
constexpr int kGap = 4;
constexpr int kToolTipMs = 500;

const char* const kIconFiles[SIDEBAR_ICON_COUNT] = {nullptr,
                                                    "breakpoint-11.png",
                                                    "breakpoint-clear-11.png",
                                                    "breakpoint-17.png",
                                                    "breakpoint-disabled-17.png",
                                                    "tracepoint-12.png",
                                                    "tracepoint-disabled-12.png",
                                                    "tracepoint-17.png",
                                                    "tracepoint-disabled-16.png",
                                                    "grey-dot-17.png",
                                                    "arrow-pc-yellow-12.png",
                                                    "arrow-pc-12.png",
                                                    "play-12.png",
                                                    "stop-12.png"};
}  // namespace

// The icons live in this static library: register them before the first use.
static void InitSidebarResources() { Q_INIT_RESOURCE(sidebaricons); }

CSideBar::CSideBar(CSourceEditor* pEditor, QWidget* pParent) : QWidget(pParent), m_pEditor(pEditor) {
  InitSidebarResources();
  setMouseTracking(true);
  setAttribute(Qt::WA_OpaquePaintEvent);
  m_Visible = SysVars::GetValue(PREF_SHOW_SIDEBAR_SRC) != 0;
  m_ShowProfile = SysVars::GetValue(PREF_SHOW_SRC_CODE_PROFILE) != 0;
  m_ShowExpansion = SysVars::GetValue(PREF_SHOW_EXPANSION_BAR) != 0;
  m_LineFreq = int(SysVars::GetValue(PREF_LINE_NUMBER_FREQ));
  m_UpdateTimer.setSingleShot(true);
  m_UpdateTimer.setInterval(0);
  connect(&m_UpdateTimer, &QTimer::timeout, this, &CSideBar::OnUpdateTimerTimeout);
  m_ToolTipTimer.setSingleShot(true);
  m_ToolTipTimer.setInterval(kToolTipMs);
  connect(&m_ToolTipTimer, &QTimer::timeout, this, &CSideBar::OnToolTipDelayTimerTimeout);
  connect(m_pEditor, &CSourceEditor::ScrollChanged, this, qOverload<>(&CSideBar::update));
  connect(m_pEditor, &CSourceEditor::RowsChanged, this, [this] {
    UpdateGeometry();
    ScheduleUpdate();
  });
  connect(m_pEditor, &CSourceEditor::CursorPositionChanged, this, &CSideBar::ScheduleUpdate);
  UpdateGeometry();
}

QString CSideBar::IconFileName(int Id) {
  return Id > 0 && Id < SIDEBAR_ICON_COUNT ? QString::fromLatin1(kIconFiles[Id]) : QString();
}

QPixmap CSideBar::IconPixmap(int Id) {
  static QPixmap s_Cache[SIDEBAR_ICON_COUNT];
  if (Id <= 0 || Id >= SIDEBAR_ICON_COUNT) return QPixmap();
  if (s_Cache[Id].isNull()) s_Cache[Id].load(QStringLiteral(":/Resources/") + IconFileName(Id));
  return s_Cache[Id];
}

void CSideBar::SetIconProvider(std::function<int(int)> Provider) {
  m_IconProvider = std::move(Provider);
  ScheduleUpdate();
}
void CSideBar::SetExecCountProvider(std::function<QString(int)> Provider) {
  m_ExecProvider = std::move(Provider);
  ScheduleUpdate();
}
void CSideBar::SetProfileProvider(std::function<double(int)> Provider) {
  m_ProfileProvider = std::move(Provider);
  ScheduleUpdate();
}

int CSideBar::IconAt(int Row) const {
  if (!m_Visible || !m_IconProvider || Row < 0 || Row >= m_pEditor->RowCount()) return 0;
  const int Id = m_IconProvider(Row);
  return Id > 0 && Id < SIDEBAR_ICON_COUNT ? Id : 0;
}

QString CSideBar::LineNumberText(int Row) const {
  if (m_pEditor->RowKind(Row) != 1) return QString();
  const int Line = m_pEditor->DocLineOfRow(Row);
  const bool Current = Line == m_pEditor->CursorTextPos().y();
  bool Show = false;
  switch (m_LineFreq) {
    case 1: Show = Current; break;
    case 2: Show = true; break;
    case 3: Show = Current || Line % 5 == 0; break;
    case 4: Show = Current || Line % 10 == 0; break;
    default: break;
  }
  return Show ? QString::number(Line) : QString();
}

void CSideBar::SetPreference(int PrefId, int Value) {
  switch (PrefId) {
    case PREF_SHOW_SIDEBAR_SRC: m_Visible = Value != 0; break;
    case PREF_SHOW_SRC_CODE_PROFILE:
      m_ShowProfile = Value != 0;
      emit StateChanged();
      break;
    case PREF_SHOW_EXPANSION_BAR: m_ShowExpansion = Value != 0; break;
    case PREF_LINE_NUMBER_FREQ: m_LineFreq = std::clamp(Value, 0, 4); break;
    default: break;
  }
  UpdateGeometry();
  update();
}

int CSideBar::Preference(int PrefId) const {
  switch (PrefId) {
    case PREF_SHOW_SIDEBAR_SRC: return m_Visible;
    case PREF_SHOW_SRC_CODE_PROFILE: return m_ShowProfile;
    case PREF_SHOW_EXPANSION_BAR: return m_ShowExpansion;
    case PREF_LINE_NUMBER_FREQ: return m_LineFreq;
    default: return int(SysVars::GetValue(PrefId));
  }
}

void CSideBar::SetShowAddresses(bool Show) {
  m_ShowAddr = Show;
  UpdateGeometry();
  update();
}

int CSideBar::LineNumberDigits() const {
  int n = std::max(1, m_pEditor->DocLineCount()), d = 1;
  while (n >= 10) n /= 10, ++d;
  return std::max(d, 3);
}

void CSideBar::UpdateGeometry() {
  const QFontMetrics Num(Fonts::GetFont(FONT_LINE_NUMBERS));
  const QFontMetrics Exec(Fonts::GetFont(FONT_EXEC_COUNTERS));
  int x = 0;
  m_XIcon = x;
  x += kIconWidth;
  m_XMark = x;
  x += m_ShowExpansion ? kMarkWidth : 0;
  m_XAddr = x;
  x += m_ShowAddr ? Num.horizontalAdvance(QStringLiteral("00000000")) + kGap : 0;
  m_XExec = x;
  x += m_ShowProfile ? Exec.horizontalAdvance(QStringLiteral("0000000")) + kGap : 0;
  m_XLine = x;
  x += m_LineFreq ? Num.horizontalAdvance(QString(LineNumberDigits(), u'0')) + kGap : 0;
  m_XProfile = x;
  x += m_ShowProfile ? kProfileWidth + kGap : 0;
  const int Width = m_Visible ? x : 0;
  if (Width != m_Width) {
    m_Width = Width;
    setFixedWidth(Width);
    emit SizeChanged();
  }
}

QSize CSideBar::sizeHint() const { return QSize(m_Width, m_pEditor->height()); }

// The sidebar's rows line up with the editor's viewport.
static int ViewportOffset(const CSourceEditor* pEditor, const QWidget* pSideBar) {
  const QPoint g = pEditor->viewport()->mapToGlobal(QPoint(0, 0));
  return pSideBar->window() == pEditor->window() ? g.y() - pSideBar->mapToGlobal(QPoint(0, 0)).y() : 0;
}

QRect CSideBar::MarkRect(int Row) const {
  return QRect(m_XMark, m_pEditor->RowTop(Row) + ViewportOffset(m_pEditor, this), kMarkWidth, m_pEditor->RowHeight());
}

QRect CSideBar::IconRect(int Row) const {
  return QRect(m_XIcon, m_pEditor->RowTop(Row) + ViewportOffset(m_pEditor, this), kIconWidth, m_pEditor->RowHeight());
}

void CSideBar::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const QPalette& Pal = palette();
  p.fillRect(rect(), Pal.color(QPalette::Window));
  if (!m_Visible || !m_pEditor->Message().isEmpty()) return;
  const int Off = ViewportOffset(m_pEditor, this);
  const int H = m_pEditor->RowHeight();
  const int First = m_pEditor->FirstVisibleRow();
  const int Last = std::min(m_pEditor->RowCount() - 1, First + m_pEditor->VisibleRowCount());
  const QFont NumFont = Fonts::GetFont(FONT_LINE_NUMBERS);
  const QFont ExecFont = Fonts::GetFont(FONT_EXEC_COUNTERS);
  const QColor Dim = Pal.color(QPalette::Disabled, QPalette::Text);
  for (int r = First; r <= Last; ++r) {
    const int Y = m_pEditor->RowTop(r) + Off;
    const bool Source = m_pEditor->RowKind(r) == 1;
    const U64 Addr = m_pEditor->RowAddr(r);
    if (const int Id = IconAt(r)) {
      const QPixmap Px = IconPixmap(Id);
      if (!Px.isNull()) p.drawPixmap(m_XIcon + (kIconWidth - Px.width()) / 2, Y + (H - Px.height()) / 2, Px);
    }
    const int DocLine = m_pEditor->DocLineOfRow(r);
    if (m_ShowExpansion && Source && (Addr != CSourceEditor::kNoAddr || m_pEditor->IsExpanded(DocLine))) {
      const QRect Box = MarkRect(r).adjusted(2, (H - 8) / 2, -2, 0);
      const QRect b(Box.left(), Box.top(), 8, 8);
      p.setPen(Dim);
      p.drawRect(b);
      p.drawLine(b.left() + 2, b.center().y(), b.right() - 2, b.center().y());
      if (!m_pEditor->IsExpanded(DocLine)) p.drawLine(b.center().x(), b.top() + 2, b.center().x(), b.bottom() - 2);
    }
    p.setPen(Pal.color(QPalette::WindowText));
    if (m_ShowAddr && Addr != CSourceEditor::kNoAddr) {
      p.setFont(NumFont);
      p.drawText(QRect(m_XAddr, Y, m_XExec - m_XAddr - kGap, H), Qt::AlignRight | Qt::AlignVCenter,
                 QStringLiteral("%1").arg(Addr, 8, 16, QLatin1Char('0')).toUpper());
    }
    if (m_ShowProfile && m_ExecProvider) {
      p.setFont(ExecFont);
      p.drawText(QRect(m_XExec, Y, m_XLine - m_XExec - kGap, H), Qt::AlignRight | Qt::AlignVCenter, m_ExecProvider(r));
    }
    const QString Num = LineNumberText(r);
    if (!Num.isEmpty()) {
      p.setFont(NumFont);
      p.setPen(DocLine == m_pEditor->CursorTextPos().y() ? Pal.color(QPalette::WindowText) : Dim);
      p.drawText(QRect(m_XLine, Y, m_XProfile - m_XLine - kGap, H), Qt::AlignRight | Qt::AlignVCenter, Num);
    }
    if (m_ShowProfile && m_ProfileProvider) {
      const double Share = std::clamp(m_ProfileProvider(r), 0.0, 1.0);
      if (Share > 0) p.fillRect(m_XProfile, Y + 2, int(kProfileWidth * Share + 0.5), H - 4, Pal.color(QPalette::Highlight));
    }
  }
}

void CSideBar::mousePressEvent(QMouseEvent* e) {
  const QPoint Pos = e->position().toPoint();
  const int Row = m_pEditor->RowAt(Pos.y() - ViewportOffset(m_pEditor, this));
  if (Row < 0) return;
  if (e->button() == Qt::LeftButton && m_ShowExpansion && MarkRect(Row).contains(Pos) && m_pEditor->RowKind(Row) == 1 &&
      (m_pEditor->RowAddr(Row) != CSourceEditor::kNoAddr || m_pEditor->IsExpanded(m_pEditor->DocLineOfRow(Row)))) {
    m_pEditor->ToggleExpanded(m_pEditor->DocLineOfRow(Row));
    return;
  }
  emit MouseClicked(Row, int(e->button()));
}

void CSideBar::mouseMoveEvent(QMouseEvent* e) {
  m_ToolTipPos = e->position().toPoint();
  m_ToolTipTimer.start();
}

void CSideBar::leaveEvent(QEvent* e) {
  m_ToolTipTimer.stop();
  QWidget::leaveEvent(e);
}

void CSideBar::wheelEvent(QWheelEvent* e) {
  m_pEditor->SetScrollPos(m_pEditor->ScrollPos() - e->angleDelta().y() / 120 * 3);
  e->accept();
}

void CSideBar::ScheduleUpdate() { m_UpdateTimer.start(); }
void CSideBar::OnUpdateTimerTimeout() {
  UpdateGeometry();
  update();
}

void CSideBar::OnToolTipDelayTimerTimeout() {
  const int Row = m_pEditor->RowAt(m_ToolTipPos.y() - ViewportOffset(m_pEditor, this));
  if (Row < 0 || !underMouse()) return;
  QString Tip = m_pEditor->RowKind(Row) == 1 ? QStringLiteral("Line %1").arg(m_pEditor->DocLineOfRow(Row)) : QString();
  const U64 Addr = m_pEditor->RowAddr(Row);
  if (Addr != CSourceEditor::kNoAddr)
    Tip += (Tip.isEmpty() ? QString() : QStringLiteral(", ")) + QStringLiteral("0x%1").arg(Addr, 8, 16, QLatin1Char('0')).toUpper().replace(QLatin1String("0X"), QLatin1String("0x"));
  if (!Tip.isEmpty()) QToolTip::showText(mapToGlobal(m_ToolTipPos), Tip, this);
}
