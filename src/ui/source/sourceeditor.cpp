#include "ui/source/sourceeditor.h"

#include <QApplication>
#include <QClipboard>
#include <QFileInfo>
#include <QKeyEvent>
#include <QPainter>
#include <QScrollBar>
#include <algorithm>
#include "settings/colors.h"
#include "settings/fonts.h"
#include "settings/ids.h"
#include "settings/sysvars.h"

namespace {
constexpr int kBlinkMs = 500;
constexpr int kTooltipRestMs = 500;
constexpr int kAsmIndentChars = 4;
constexpr int kWheelRows = 3;

bool IsWordChar(QChar c) { return c.isLetterOrNumber() || c == u'_'; }
}  // namespace

CSourceEditor::CSourceEditor(QWidget* pParent) : QAbstractScrollArea(pParent) {
  qRegisterMetaType<EDIT_EVENT>("EDIT_EVENT");
  setFocusPolicy(Qt::StrongFocus);
  viewport()->setMouseTracking(true);
  viewport()->setCursor(Qt::IBeamCursor);
  viewport()->setAttribute(Qt::WA_OpaquePaintEvent);
  m_Font = Fonts::GetFont(FONT_SRC_CODE);
  m_AsmFont = Fonts::GetFont(FONT_SRC_ASM_CODE);
  m_TabSpacing = int(SysVars::GetValue(PREF_TAB_SPACING));
  m_IndentAsm = int(SysVars::GetValue(PREF_INDENT_INLINE_ASSEMBLY));
  m_ShowEncodings = int(SysVars::GetValue(PREF_SHOW_ENCODINGS_SRC));
  UpdateMetrics();
  m_BlinkTimer.setInterval(kBlinkMs);
  connect(&m_BlinkTimer, &QTimer::timeout, this, &CSourceEditor::OnCursorBlinkTimerTimeout);
  m_TooltipTimer.setSingleShot(true);
  m_TooltipTimer.setInterval(kTooltipRestMs);
  connect(&m_TooltipTimer, &QTimer::timeout, this, [this] {
    const QString Name = WordAt(TextPosAt(m_TooltipPos));
    if (!Name.isEmpty()) emit SymbolTooltipRequest(viewport()->mapToGlobal(m_TooltipPos), Name);
  });
  Clear();
}

CSourceEditor::~CSourceEditor() = default;

// ---------------------------------------------------------------------------
// Document

void CSourceEditor::Clear() {
  m_Text.clear();
  m_FilePath.clear();
  m_Message.clear();
  m_FileNo = 0;
  m_Rows.clear();
  m_LineToRow.clear();
  m_ScannedTo = 0;
  m_LineColors.clear();
  m_AddrColors.clear();
  m_Undo.clear();
  m_Redo.clear();
  m_SavedUndoDepth = 0;
  m_Modified = false;
  m_Cursor = m_Anchor = QPoint(0, 1);
  m_MaxLineLen = 0;
  UpdateScrollBars();
  viewport()->update();
  emit RowsChanged();
}

void CSourceEditor::ShowMessage(const QString& Text) {
  Clear();
  m_Message = Text;
  viewport()->update();
}

void CSourceEditor::LoadDocument(const QString& Text, const QString& FilePath, U32 FileNo) {
  QSignalBlocker Block(this);
  Clear();
  m_Text = Text;
  m_FilePath = FilePath;
  m_FileNo = FileNo;
  m_Language = SRC_LanguageOfSuffix(QFileInfo(FilePath).suffix());
  m_Rows.reserve(size_t(Text.size() / 24 + 16));
  BuildRows(1, 0, m_Text.size(), m_Rows);
  RebuildLineMap();
  verticalScrollBar()->setValue(0);
  horizontalScrollBar()->setValue(0);
  UpdateScrollBars();
  viewport()->update();
  Block.unblock();
  emit RowsChanged();
  emit ScrollChanged();
}

void CSourceEditor::SetLanguage(SRC_LANGUAGE Language) {
  if (Language == m_Language) return;
  m_Language = Language;
  m_ScannedTo = 0;
  viewport()->update();
}

QString CSourceEditor::DocLineText(int DocLine) const {
  const int r = RowOfDocLine(DocLine);
  return r < 0 ? QString() : m_Text.mid(m_Rows[size_t(r)].TextPos, m_Rows[size_t(r)].TextLen);
}

// Rows of the lines that start at From, up to the first line end at or behind
// Stop (or the end of the text). A line's text leaves out its "\n" and a "\r"
// in front of it.
void CSourceEditor::BuildRows(int FirstDocLine, int From, int Stop, std::vector<CSourceRow>& Out) {
  const int n = int(m_Text.size());
  const QChar* p = m_Text.constData();
  int pos = From;
  U32 line = U32(FirstDocLine);
  for (;;) {
    int nl = pos;
    while (nl < n && p[nl] != u'\n') ++nl;
    int len = nl - pos;
    if (nl < n && len > 0 && p[nl - 1] == u'\r') --len;
    CSourceRow Row;
    Row.TextPos = pos;
    Row.TextLen = len;
    Row.DocLine = line++;
    Out.push_back(std::move(Row));
    m_MaxLineLen = std::max(m_MaxLineLen, len);
    if (nl >= n || nl >= Stop) break;
    pos = nl + 1;
  }
}

void CSourceEditor::RebuildLineMap() {
  m_LineToRow.clear();
  m_LineToRow.reserve(m_Rows.size());
  for (size_t r = 0; r < m_Rows.size(); ++r)
    if (m_Rows[r].Kind == 1) m_LineToRow.push_back(int(r));
}

int CSourceEditor::RowOfDocLine(int DocLine) const {
  return DocLine >= 1 && DocLine <= int(m_LineToRow.size()) ? m_LineToRow[size_t(DocLine - 1)] : -1;
}
int CSourceEditor::DocLineOfRow(int Row) const {
  return Row >= 0 && Row < RowCount() ? int(m_Rows[size_t(Row)].DocLine) : -1;
}
int CSourceEditor::RowKind(int Row) const { return Row >= 0 && Row < RowCount() ? m_Rows[size_t(Row)].Kind : -1; }
U64 CSourceEditor::RowAddr(int Row) const { return Row >= 0 && Row < RowCount() ? m_Rows[size_t(Row)].Addr : kNoAddr; }
void CSourceEditor::SetRowAddr(int Row, U64 Addr) {
  if (Row >= 0 && Row < RowCount()) m_Rows[size_t(Row)].Addr = Addr;
}

const CSourceRow* CSourceEditor::RowData(int Row, bool Scan) {
  if (Row < 0 || Row >= RowCount()) return nullptr;
  if (Scan) EnsureScanned(Row);
  return &m_Rows[size_t(Row)];
}

// ---------------------------------------------------------------------------
// Scanning. Source rows are scanned in order, each from the state of the line
// above; lines 1..m_ScannedTo hold valid states and tokens.

int CSourceEditor::StateBefore(int DocLine) const {
  return DocLine <= 1 ? 0 : m_Rows[size_t(m_LineToRow[size_t(DocLine - 2)])].State;
}

int CSourceEditor::InstColumn() const { return m_ShowEncodings ? 20 : 10; }

void CSourceEditor::ScanRow(int Row) {
  CSourceRow& r = m_Rows[size_t(Row)];
  if (r.Kind == 0) {
    const int Col = std::min<int>(InstColumn(), int(r.Text.size()));
    SRC_HighlightInst(QStringView(r.Text).mid(Col), 0, kMnemonicWidth, m_RegNames, r.Tokens);
    for (CSyntaxToken& t : r.Tokens) t.Pos += Col;
    r.Scanned = true;
    return;
  }
  int State = StateBefore(int(r.DocLine));
  SRC_Highlight(m_Language, QStringView(m_Text).mid(r.TextPos, r.TextLen), r.Tokens, State);
  r.State = State;
  r.Scanned = true;
}

void CSourceEditor::EnsureScanned(int Row) {
  CSourceRow& r = m_Rows[size_t(Row)];
  if (r.Kind == 0) {
    if (!r.Scanned) ScanRow(Row);
    return;
  }
  while (m_ScannedTo < int(r.DocLine)) {
    ScanRow(m_LineToRow[size_t(m_ScannedTo)]);
    ++m_ScannedTo;
  }
}

// ---------------------------------------------------------------------------
// Expansion

void CSourceEditor::SetInstructionProvider(std::function<QVector<SRC_INST_ROW>(int)> Provider) {
  m_Provider = std::move(Provider);
}

void CSourceEditor::SetRegisterNames(const QStringList& Names) {
  m_RegNames = Names;
  for (CSourceRow& r : m_Rows)
    if (r.Kind == 0) r.Scanned = false;
  viewport()->update();
}

bool CSourceEditor::IsExpanded(int DocLine) const {
  const int r = RowOfDocLine(DocLine);
  return r >= 0 && r + 1 < RowCount() && m_Rows[size_t(r + 1)].Kind == 0;
}

int CSourceEditor::ExpansionSize(int Row) const {
  int n = 0;
  while (Row + 1 + n < RowCount() && m_Rows[size_t(Row + 1 + n)].Kind == 0) ++n;
  return n;
}

void CSourceEditor::InsertInstRows(int Row, const QVector<SRC_INST_ROW>& Insts, std::vector<CSourceRow>& Out) const {
  for (const SRC_INST_ROW& i : Insts) {
    CSourceRow r;
    r.Kind = 0;
    r.DocLine = m_Rows[size_t(Row)].DocLine;
    r.Addr = i.Addr;
    r.Text = i.Text;
    Out.push_back(std::move(r));
  }
}

void CSourceEditor::RowsReplaced(int FirstVisibleDocLine) {
  RebuildLineMap();
  UpdateScrollBars();
  // Keep the line at the top of the view where it was.
  if (FirstVisibleDocLine > 0) {
    const int r = RowOfDocLine(FirstVisibleDocLine);
    if (r >= 0) verticalScrollBar()->setValue(r);
  }
  viewport()->update();
  emit RowsChanged();
}

void CSourceEditor::SetExpanded(int DocLine, bool Expanded) {
  const int r = RowOfDocLine(DocLine);
  if (r < 0 || IsExpanded(DocLine) == Expanded) return;
  const int TopLine = DocLineOfRow(FirstVisibleRow());
  if (Expanded) {
    if (!m_Provider) return;
    const QVector<SRC_INST_ROW> Insts = m_Provider(DocLine);
    if (Insts.isEmpty()) return;
    std::vector<CSourceRow> New;
    InsertInstRows(r, Insts, New);
    m_Rows.insert(m_Rows.begin() + r + 1, std::make_move_iterator(New.begin()), std::make_move_iterator(New.end()));
  } else {
    m_Rows.erase(m_Rows.begin() + r + 1, m_Rows.begin() + r + 1 + ExpansionSize(r));
  }
  RowsReplaced(TopLine);
  emit LineExpansionStateToggled(DocLine);
}

void CSourceEditor::ToggleExpanded(int DocLine) { SetExpanded(DocLine, !IsExpanded(DocLine)); }

void CSourceEditor::ExpandAll() {
  if (!m_Provider || m_Rows.empty()) return;
  const int TopLine = DocLineOfRow(FirstVisibleRow());
  std::vector<CSourceRow> New;
  New.reserve(m_Rows.size());
  for (size_t r = 0; r < m_Rows.size(); ++r) {
    if (m_Rows[r].Kind == 0) continue;  // existing expansions are rebuilt
    New.push_back(m_Rows[r]);
    InsertInstRows(int(r), m_Provider(int(m_Rows[r].DocLine)), New);
  }
  m_Rows.swap(New);
  RowsReplaced(TopLine);
}

void CSourceEditor::CollapseAll() {
  const int TopLine = DocLineOfRow(FirstVisibleRow());
  const size_t Before = m_Rows.size();
  m_Rows.erase(std::remove_if(m_Rows.begin(), m_Rows.end(), [](const CSourceRow& r) { return r.Kind == 0; }),
               m_Rows.end());
  if (m_Rows.size() != Before) RowsReplaced(TopLine);
}

void CSourceEditor::OnActionCollapseAllTriggered() { CollapseAll(); }
void CSourceEditor::OnActionExpandAllTriggered() { ExpandAll(); }

// ---------------------------------------------------------------------------
// Highlights

void CSourceEditor::SetLineColor(int DocLine, QColor Color, QColor InactiveColor) {
  if (Color.isValid()) m_LineColors.insert(DocLine, {Color, InactiveColor.isValid() ? InactiveColor : Color});
  else m_LineColors.remove(DocLine);
  viewport()->update();
}

void CSourceEditor::SetAddrColor(U64 Addr, QColor Color) {
  if (Color.isValid()) m_AddrColors.insert(Addr, Color);
  else m_AddrColors.remove(Addr);
  viewport()->update();
}

void CSourceEditor::ClearHighlights() {
  m_LineColors.clear();
  m_AddrColors.clear();
  viewport()->update();
}

void CSourceEditor::ClearHighlights(QColor Color) {
  for (auto it = m_LineColors.begin(); it != m_LineColors.end();)
    it = it->first == Color || it->second == Color ? m_LineColors.erase(it) : std::next(it);
  for (auto it = m_AddrColors.begin(); it != m_AddrColors.end();)
    it = *it == Color ? m_AddrColors.erase(it) : std::next(it);
  viewport()->update();
}

void CSourceEditor::SetBacktraceMode(bool On) {
  m_Backtrace = On;
  viewport()->update();
}

void CSourceEditor::SetPcHighlightForced(bool On) {
  m_PcForced = On;
  viewport()->update();
}

QColor CSourceEditor::RowBackground(int Row) const {
  if (Row < 0 || Row >= RowCount()) return QColor();
  const CSourceRow& r = m_Rows[size_t(Row)];
  const bool Several = std::abs(OffsetOf(m_Anchor) - OffsetOf(m_Cursor)) > 1;
  if (r.Kind == 1 && int(r.DocLine) == m_Cursor.y() && !Several) {
    if (m_Backtrace) return Colors::GetColor(COLOR_PC_BACKTRACE);
    if (hasFocus() && !(m_PcForced && m_LineColors.contains(int(r.DocLine))))
      return Colors::GetColor(COLOR_SELECTION_HIGHLIGHT);
  }
  if (r.Kind == 1) {
    auto it = m_LineColors.constFind(int(r.DocLine));
    if (it != m_LineColors.constEnd()) {
      // An expanded line of one instruction passes its colour on to that row.
      const int n = ExpansionSize(Row);
      return n == 1 ? it->second : it->first;
    }
    return QColor();
  }
  auto it = m_AddrColors.constFind(r.Addr);
  if (it != m_AddrColors.constEnd()) return *it;
  int Index = 0;  // position inside the expansion
  while (Row - 1 - Index >= 0 && m_Rows[size_t(Row - 1 - Index)].Kind == 0) ++Index;
  if (Index % 2) {
    const QColor Base = palette().color(QPalette::Base);
    return Base.lightness() > 128 ? Base.darker(106) : Base.lighter(130);
  }
  return QColor();
}

// ---------------------------------------------------------------------------
// Positions

int CSourceEditor::LineLen(int DocLine) const {
  const int r = RowOfDocLine(DocLine);
  return r < 0 ? 0 : m_Rows[size_t(r)].TextLen;
}

QPoint CSourceEditor::ClampPos(QPoint TextPos) const {
  const int Line = std::clamp(TextPos.y(), 1, std::max(1, DocLineCount()));
  return QPoint(std::clamp(TextPos.x(), 0, LineLen(Line)), Line);
}

int CSourceEditor::OffsetOf(QPoint TextPos) const {
  if (m_LineToRow.empty()) return 0;
  const QPoint p = ClampPos(TextPos);
  return m_Rows[size_t(RowOfDocLine(p.y()))].TextPos + p.x();
}

QPoint CSourceEditor::PosOfOffset(int Offset) const {
  if (m_LineToRow.empty()) return QPoint(0, 1);
  // The last line that starts at or before the offset.
  auto it = std::upper_bound(m_LineToRow.begin(), m_LineToRow.end(), Offset,
                             [this](int o, int Row) { return o < m_Rows[size_t(Row)].TextPos; });
  const int Line = std::max(1, int(it - m_LineToRow.begin()));
  const CSourceRow& r = m_Rows[size_t(m_LineToRow[size_t(Line - 1)])];
  return QPoint(std::clamp(Offset - r.TextPos, 0, r.TextLen), Line);
}

void CSourceEditor::MoveCursor(QPoint TextPos, bool KeepAnchor) {
  const QPoint p = ClampPos(TextPos);
  const bool HadSelection = HasSelection();
  const bool Moved = p != m_Cursor;
  m_Cursor = p;
  if (!KeepAnchor) m_Anchor = p;
  m_CaretOn = true;
  viewport()->update();
  if (Moved) emit CursorPositionChanged(m_Cursor);
  if (HadSelection || HasSelection()) emit TextSelectionChanged();
}

void CSourceEditor::SetCursorTextPos(QPoint TextPos) {
  m_PreferredX = -1;
  MoveCursor(TextPos, false);
}

void CSourceEditor::SelectText(QPoint TextPos, int Len) {
  const int Start = OffsetOf(TextPos);
  m_Anchor = ClampPos(TextPos);
  MoveCursor(PosOfOffset(std::clamp(Start + Len, 0, int(m_Text.size()))), true);
  m_PreferredX = -1;
}

QString CSourceEditor::SelectedText() const {
  const int a = OffsetOf(m_Anchor), b = OffsetOf(m_Cursor);
  return m_Text.mid(std::min(a, b), std::abs(a - b));
}

QString CSourceEditor::WordAt(QPoint TextPos) const {
  const int r = RowOfDocLine(TextPos.y());
  if (r < 0) return QString();
  const QStringView Line = QStringView(m_Text).mid(m_Rows[size_t(r)].TextPos, m_Rows[size_t(r)].TextLen);
  int c = std::clamp(TextPos.x(), 0, int(Line.size()));
  if (c == Line.size() || !IsWordChar(Line[c])) {
    if (c > 0 && IsWordChar(Line[c - 1])) --c;  // just behind a word
    else return QString();
  }
  int b = c, e = c;
  while (b > 0 && IsWordChar(Line[b - 1])) --b;
  while (e < Line.size() && IsWordChar(Line[e])) ++e;
  return Line.mid(b, e - b).toString();
}

QString CSourceEditor::SelectedTextOrWordUnderCursor() const {
  return HasSelection() ? SelectedText() : WordAt(m_Cursor);
}

void CSourceEditor::OnActionSelectAllTriggered() {
  if (m_LineToRow.empty()) return;
  m_Anchor = QPoint(0, 1);
  MoveCursor(QPoint(LineLen(DocLineCount()), DocLineCount()), true);
}

void CSourceEditor::OnActionCopyTriggered() {
  const QString s = SelectedTextOrWordUnderCursor();
  if (!s.isEmpty()) QApplication::clipboard()->setText(s);
}

// ---------------------------------------------------------------------------
// Geometry and scrolling

void CSourceEditor::UpdateMetrics() {
  const QFontMetrics fm(m_Font), am(m_AsmFont);
  m_RowHeight = std::max(fm.height(), am.height()) + 1;
  m_Ascent = std::max(fm.ascent(), am.ascent());
  m_CharWidth = std::max(1, fm.horizontalAdvance(QLatin1Char('M')));
  m_AsmCharWidth = std::max(1, am.horizontalAdvance(QLatin1Char('M')));
  // Some fonts claim a fixed pitch and are none: compare the advances.
  const QFontMetricsF ff(m_Font), af(m_AsmFont);
  m_CharWidthF = ff.horizontalAdvance(u'M');
  m_AsmCharWidthF = af.horizontalAdvance(u'M');
  m_FixedPitch = qFuzzyCompare(ff.horizontalAdvance(u'i'), m_CharWidthF) && qFuzzyCompare(ff.horizontalAdvance(u' '), m_CharWidthF);
  m_AsmFixedPitch =
      qFuzzyCompare(af.horizontalAdvance(u'i'), m_AsmCharWidthF) && qFuzzyCompare(af.horizontalAdvance(u' '), m_AsmCharWidthF);
  UpdateScrollBars();
}

void CSourceEditor::OnFontChanged(QFont Font) {
  m_Font = Font;
  UpdateMetrics();
  viewport()->update();
  emit ScrollChanged();
}

void CSourceEditor::OnAsmFontChanged(QFont Font) {
  m_AsmFont = Font;
  UpdateMetrics();
  viewport()->update();
  emit ScrollChanged();
}

int CSourceEditor::VisibleRowCount() const { return std::max(1, viewport()->height() / m_RowHeight); }
int CSourceEditor::FirstVisibleRow() const { return verticalScrollBar()->value(); }
int CSourceEditor::RowTop(int Row) const { return (Row - FirstVisibleRow()) * m_RowHeight; }
int CSourceEditor::RowAt(int ViewportY) const {
  if (ViewportY < 0) return -1;
  const int r = FirstVisibleRow() + ViewportY / m_RowHeight;
  return r < RowCount() ? r : -1;
}

void CSourceEditor::UpdateScrollBars() {
  const int Visible = VisibleRowCount();
  verticalScrollBar()->setRange(0, std::max(0, RowCount() - Visible));
  verticalScrollBar()->setPageStep(Visible);
  verticalScrollBar()->setSingleStep(1);
  const int Cols = std::max(1, viewport()->width() / m_CharWidth);
  // Instruction rows are about 40 characters wide behind their indent.
  const int Widest = std::max(m_MaxLineLen, RowCount() > DocLineCount() ? kAsmIndentChars + 48 : 0) + 1;
  horizontalScrollBar()->setRange(0, std::max(0, Widest - Cols));
  horizontalScrollBar()->setPageStep(Cols);
  horizontalScrollBar()->setSingleStep(1);
}

int CSourceEditor::ScrollPos() const { return verticalScrollBar()->value(); }
void CSourceEditor::SetScrollPos(int Row) { verticalScrollBar()->setValue(Row); }
int CSourceEditor::ScrollCol() const { return horizontalScrollBar()->value(); }
void CSourceEditor::SetScrollCol(int Col) { horizontalScrollBar()->setValue(Col); }

void CSourceEditor::EnsureTextLineVisible(int DocLine, bool CenterInEditor) {
  const int r = RowOfDocLine(DocLine);
  if (r < 0) return;
  const int First = FirstVisibleRow(), Visible = VisibleRowCount();
  if (CenterInEditor) SetScrollPos(r - Visible / 2);
  else if (r < First) SetScrollPos(r);
  else if (r >= First + Visible) SetScrollPos(r - Visible + 1);
}

void CSourceEditor::EnsureCursorVisible() {
  EnsureTextLineVisible(m_Cursor.y(), false);
  const int r = RowOfDocLine(m_Cursor.y());
  if (r < 0) return;
  const int v = XOfCol(m_Rows[size_t(r)], m_Cursor.x()) / m_CharWidth;
  const int Cols = std::max(1, viewport()->width() / m_CharWidth);
  if (v < ScrollCol()) SetScrollCol(v);
  else if (v >= ScrollCol() + Cols) SetScrollCol(v - Cols + 1);
}

void CSourceEditor::resizeEvent(QResizeEvent* e) {
  QAbstractScrollArea::resizeEvent(e);
  UpdateScrollBars();
  emit ScrollChanged();
}

void CSourceEditor::scrollContentsBy(int, int) {
  viewport()->update();
  emit ScrollChanged();
}

// ---------------------------------------------------------------------------
// Columns: tabs advance to the next multiple of the tab spacing (0 hides
// them). A fixed-pitch font puts every character on a grid; any other font
// is measured character by character.

QStringView CSourceEditor::RowText(const CSourceRow& Row) const {
  return Row.Kind ? QStringView(m_Text).mid(Row.TextPos, Row.TextLen) : QStringView(Row.Text);
}

void CSourceEditor::ColumnXs(const CSourceRow& Row, QVector<int>& Xs, QString* pShown) const {
  // Advances are fractional: positions are summed as reals and rounded, so
  // that each piece of a row is drawn where the glyphs before it end.
  const QStringView Raw = RowText(Row);
  const bool Fixed = Row.Kind ? m_FixedPitch : m_AsmFixedPitch;
  const qreal Cw = Row.Kind ? m_CharWidthF : m_AsmCharWidthF;
  const QFontMetricsF Fm(Row.Kind ? m_Font : m_AsmFont);
  const qreal Space = Fixed ? Cw : Fm.horizontalAdvance(u' ');
  Xs.resize(Raw.size() + 1);
  int v = 0;
  qreal x = 0;
  for (qsizetype i = 0; i < Raw.size(); ++i) {
    Xs[i] = qRound(x);
    if (Raw[i] == u'\t') {
      const int Next = m_TabSpacing ? (v / m_TabSpacing + 1) * m_TabSpacing : v;
      x += (Next - v) * Space;
      if (pShown) pShown->append(QString(Next - v, u' '));
      v = Next;
    } else {
      x += Fixed ? Cw : Fm.horizontalAdvance(Raw[i]);
      if (pShown) pShown->append(Raw[i]);
      ++v;
    }
  }
  Xs[Raw.size()] = qRound(x);
}

int CSourceEditor::XOfCol(const CSourceRow& Row, int Col) const {
  QVector<int> Xs;
  ColumnXs(Row, Xs, nullptr);
  return Xs[std::clamp(Col, 0, int(Xs.size()) - 1)];
}

int CSourceEditor::ColAtX(const CSourceRow& Row, int X) const {
  QVector<int> Xs;
  ColumnXs(Row, Xs, nullptr);
  for (int i = 0; i + 1 < Xs.size(); ++i)
    if (X < (Xs[i] + Xs[i + 1] + 1) / 2) return i;  // nearer to the left edge of this character
  return int(Xs.size()) - 1;
}

int CSourceEditor::RowIndent(const CSourceRow& Row) const {
  return Row.Kind == 0 && m_IndentAsm ? kAsmIndentChars * m_CharWidth : 0;
}

QPoint CSourceEditor::TextPosAt(QPoint EditorPos) const {
  if (m_LineToRow.empty()) return QPoint(0, 1);
  const int r = RowAt(EditorPos.y());
  if (r < 0) {
    const int Last = DocLineCount();
    return EditorPos.y() < 0 ? QPoint(0, 1) : QPoint(LineLen(Last), Last);
  }
  const CSourceRow& Row = m_Rows[size_t(r)];
  if (Row.Kind == 0) return QPoint(0, int(Row.DocLine));
  return QPoint(ColAtX(Row, EditorPos.x() + ScrollCol() * m_CharWidth - RowIndent(Row)), int(Row.DocLine));
}

// ---------------------------------------------------------------------------
// Editing

void CSourceEditor::SetModified(bool Modified) {
  if (!Modified) m_SavedUndoDepth = int(m_Undo.size());
  else m_SavedUndoDepth = -1;
  if (Modified != m_Modified) {
    m_Modified = Modified;
    emit DocumentStateChanged(m_FileNo, m_Modified);
  }
}

// Replaces the rows of the lines that the edit touches and moves the ones
// below; scanner states are refreshed from the edited line down as long as
// the state carried into the next line changes.
void CSourceEditor::ApplyEdit(int Offset, int RemoveLen, const QString& Inserted) {
  const int First = PosOfOffset(Offset).y();
  const int Last = PosOfOffset(Offset + RemoveLen).y();
  for (int l = Last; l >= First; --l) {  // from the bottom, so that the rows above keep their indices
    const int r = RowOfDocLine(l);
    if (const int n = ExpansionSize(r)) m_Rows.erase(m_Rows.begin() + r + 1, m_Rows.begin() + r + 1 + n);
  }
  RebuildLineMap();
  const int r1 = RowOfDocLine(First), r2 = RowOfDocLine(Last);
  const int OldEndState = m_Rows[size_t(r2)].State;
  const bool EndStateKnown = m_ScannedTo >= Last;
  const int Start = m_Rows[size_t(r1)].TextPos;
  const int Delta = int(Inserted.size()) - RemoveLen;
  const int Stop = m_Rows[size_t(r2)].TextPos + m_Rows[size_t(r2)].TextLen + Delta;
  m_Text.replace(Offset, RemoveLen, Inserted);
  std::vector<CSourceRow> New;
  BuildRows(First, Start, Stop, New);
  New.front().Addr = m_Rows[size_t(r1)].Addr;
  const int LineDelta = int(New.size()) - (Last - First + 1);
  const int NewLast = First + int(New.size()) - 1;
  m_Rows.erase(m_Rows.begin() + r1, m_Rows.begin() + r2 + 1);
  m_Rows.insert(m_Rows.begin() + r1, std::make_move_iterator(New.begin()), std::make_move_iterator(New.end()));
  for (size_t r = size_t(r1) + (NewLast - First + 1); r < m_Rows.size(); ++r) {
    if (m_Rows[r].Kind == 1) m_Rows[r].TextPos += Delta;
    m_Rows[r].DocLine = U32(int(m_Rows[r].DocLine) + LineDelta);
  }
  RebuildLineMap();
  if (LineDelta) {
    QHash<int, QPair<QColor, QColor>> Moved;
    for (auto it = m_LineColors.cbegin(); it != m_LineColors.cend(); ++it)
      if (it.key() < First) Moved.insert(it.key(), it.value());
      else if (it.key() > Last) Moved.insert(it.key() + LineDelta, it.value());
    m_LineColors.swap(Moved);
  }
  // Scanner states.
  if (m_ScannedTo >= Last) m_ScannedTo += LineDelta;
  else if (m_ScannedTo >= First) m_ScannedTo = First - 1;
  if (m_ScannedTo >= First - 1) {
    for (int l = First; l <= NewLast; ++l) ScanRow(RowOfDocLine(l));
    m_ScannedTo = std::max(m_ScannedTo, NewLast);
    bool Changed = !EndStateKnown || m_Rows[size_t(RowOfDocLine(NewLast))].State != OldEndState;
    for (int l = NewLast + 1; Changed && l <= m_ScannedTo; ++l) {
      const int r = RowOfDocLine(l);
      const int Old = m_Rows[size_t(r)].State;
      ScanRow(r);
      Changed = m_Rows[size_t(r)].State != Old;
    }
  }
  UpdateScrollBars();
  viewport()->update();
  emit RowsChanged();
}

void CSourceEditor::Edit(int Offset, int RemoveLen, const QString& Inserted, bool FromUndo) {
  const QPoint Pos = PosOfOffset(Offset);
  EDIT_EVENT Ev{RemoveLen && !Inserted.isEmpty() ? EDIT_REPLACE : RemoveLen ? EDIT_REMOVE : EDIT_INSERT, Pos,
                m_Text.mid(Offset, RemoveLen), Inserted};
  ApplyEdit(Offset, RemoveLen, Inserted);
  if (!FromUndo) {
    if (m_SavedUndoDepth > int(m_Undo.size())) m_SavedUndoDepth = -1;  // the saved text was undone away
    m_Undo.push_back(Ev);
    m_Redo.clear();
  }
  m_Anchor = m_Cursor = PosOfOffset(Offset + int(Inserted.size()));
  m_PreferredX = -1;
  const bool Modified = int(m_Undo.size()) != m_SavedUndoDepth;
  emit DocumentEdited(Ev);
  if (Modified != m_Modified) {
    m_Modified = Modified;
    emit DocumentStateChanged(m_FileNo, m_Modified);
  }
  emit CursorPositionChanged(m_Cursor);
  EnsureCursorVisible();
}

bool CSourceEditor::ReplaceText(QPoint TextPos, int Len, const QString& Inserted) {
  if (m_LineToRow.empty() || TextPos.y() < 1 || TextPos.y() > DocLineCount() || TextPos.x() < 0 ||
      TextPos.x() > LineLen(TextPos.y()) || Len < 0)
    return false;
  const int Offset = OffsetOf(TextPos);
  if (Offset + Len > m_Text.size()) return false;
  if (!Len && Inserted.isEmpty()) return true;
  Edit(Offset, Len, Inserted, false);
  return true;
}

void CSourceEditor::OnDocumentEdited(EDIT_EVENT Event) {
  ReplaceText(Event.Pos, int(Event.Removed.size()), Event.Inserted);
}

bool CSourceEditor::Undo() {
  if (m_Undo.empty()) return false;
  EDIT_EVENT Ev = m_Undo.back();
  m_Undo.pop_back();
  Edit(OffsetOf(Ev.Pos), int(Ev.Inserted.size()), Ev.Removed, true);
  m_Redo.push_back(Ev);
  return true;
}

bool CSourceEditor::Redo() {
  if (m_Redo.empty()) return false;
  EDIT_EVENT Ev = m_Redo.back();
  m_Redo.pop_back();
  m_Undo.push_back(Ev);
  Edit(OffsetOf(Ev.Pos), int(Ev.Removed.size()), Ev.Inserted, true);
  return true;
}

bool CSourceEditor::GateAllows() { return !m_EditGate || m_EditGate(); }

void CSourceEditor::InsertTyped(const QString& Text) {
  const int a = OffsetOf(m_Anchor), b = OffsetOf(m_Cursor);
  Edit(std::min(a, b), std::abs(a - b), Text, false);
}

// ---------------------------------------------------------------------------
// Keys

void CSourceEditor::keyPressEvent(QKeyEvent* e) {
  if (!OnKeyPressed(e)) QAbstractScrollArea::keyPressEvent(e);
}

void CSourceEditor::keyReleaseEvent(QKeyEvent* e) {
  OnKeyReleased(e);
  QAbstractScrollArea::keyReleaseEvent(e);
}

void CSourceEditor::OnKeyReleased(QKeyEvent*) {}

bool CSourceEditor::OnKeyPressed(QKeyEvent* e) {
  if (m_LineToRow.empty()) return false;
  if (OnKeyPressedViewMode(e)) return true;
  const bool Ctrl = e->modifiers() & Qt::ControlModifier;
  const bool Alt = e->modifiers() & Qt::AltModifier;
  const int k = e->key();
  const bool TextKey = k == Qt::Key_Backspace || k == Qt::Key_Delete || k == Qt::Key_Return || k == Qt::Key_Enter ||
                       k == Qt::Key_Tab || (Ctrl && (k == Qt::Key_V || k == Qt::Key_X || k == Qt::Key_Z || k == Qt::Key_Y)) ||
                       (!Ctrl && !Alt && !e->text().isEmpty() && e->text().at(0).isPrint());
  if (!TextKey) return false;
  if (!GateAllows()) return true;  // refused: dropped without a word
  return OnKeyPressedEditMode(e);
}

bool CSourceEditor::OnKeyPressedViewMode(QKeyEvent* e) {
  return OnArrowKeyPressedViewMode(e) || OnPageKeyPressedViewMode(e) || OnHomeEndKeyPressedViewMode(e);
}

bool CSourceEditor::OnArrowKeyPressedViewMode(QKeyEvent* e) {
  const bool Shift = e->modifiers() & Qt::ShiftModifier;
  if (e->modifiers() & Qt::AltModifier) {
    // Alt+Right expands the cursor line, Alt+Left collapses it.
    if (e->key() != Qt::Key_Right && e->key() != Qt::Key_Left) return false;
    if (e->key() == Qt::Key_Right) emit LineExpansionRequested();
    SetExpanded(m_Cursor.y(), e->key() == Qt::Key_Right);
    return true;
  }
  const int r = RowOfDocLine(m_Cursor.y());
  switch (e->key()) {
    case Qt::Key_Left:
      if (!Shift && HasSelection()) MoveCursor(OffsetOf(m_Anchor) < OffsetOf(m_Cursor) ? m_Anchor : m_Cursor, false);
      else if (m_Cursor.x() > 0) MoveCursor(m_Cursor - QPoint(1, 0), Shift);
      else if (m_Cursor.y() > 1) MoveCursor(QPoint(LineLen(m_Cursor.y() - 1), m_Cursor.y() - 1), Shift);
      m_PreferredX = -1;
      break;
    case Qt::Key_Right:
      if (!Shift && HasSelection()) MoveCursor(OffsetOf(m_Anchor) > OffsetOf(m_Cursor) ? m_Anchor : m_Cursor, false);
      else if (m_Cursor.x() < LineLen(m_Cursor.y())) MoveCursor(m_Cursor + QPoint(1, 0), Shift);
      else if (m_Cursor.y() < DocLineCount()) MoveCursor(QPoint(0, m_Cursor.y() + 1), Shift);
      m_PreferredX = -1;
      break;
    case Qt::Key_Up:
    case Qt::Key_Down: {
      const int Line = m_Cursor.y() + (e->key() == Qt::Key_Up ? -1 : 1);
      if (Line < 1 || Line > DocLineCount()) break;
      if (m_PreferredX < 0) m_PreferredX = XOfCol(m_Rows[size_t(r)], m_Cursor.x());
      const int Keep = m_PreferredX;
      MoveCursor(QPoint(ColAtX(m_Rows[size_t(RowOfDocLine(Line))], Keep), Line), Shift);
      m_PreferredX = Keep;
      break;
    }
    default: return false;
  }
  EnsureCursorVisible();
  return true;
}

bool CSourceEditor::OnPageKeyPressedViewMode(QKeyEvent* e) {
  const int Dir = e->key() == Qt::Key_PageUp ? -1 : e->key() == Qt::Key_PageDown ? 1 : 0;
  if (!Dir) return false;
  const int Page = VisibleRowCount();
  const int Row = std::clamp(RowOfDocLine(m_Cursor.y()) + Dir * Page, 0, RowCount() - 1);
  SetScrollPos(FirstVisibleRow() + Dir * Page);
  if (m_PreferredX < 0) m_PreferredX = XOfCol(m_Rows[size_t(RowOfDocLine(m_Cursor.y()))], m_Cursor.x());
  const int Keep = m_PreferredX;
  const int Line = DocLineOfRow(Row);
  MoveCursor(QPoint(ColAtX(m_Rows[size_t(RowOfDocLine(Line))], Keep), Line), e->modifiers() & Qt::ShiftModifier);
  m_PreferredX = Keep;
  EnsureCursorVisible();
  return true;
}

bool CSourceEditor::OnHomeEndKeyPressedViewMode(QKeyEvent* e) {
  const bool Shift = e->modifiers() & Qt::ShiftModifier;
  const bool Ctrl = e->modifiers() & Qt::ControlModifier;
  if (e->key() == Qt::Key_Home) MoveCursor(QPoint(0, Ctrl ? 1 : m_Cursor.y()), Shift);
  else if (e->key() == Qt::Key_End) {
    const int Line = Ctrl ? DocLineCount() : m_Cursor.y();
    MoveCursor(QPoint(LineLen(Line), Line), Shift);
  } else return false;
  m_PreferredX = -1;
  EnsureCursorVisible();
  return true;
}

bool CSourceEditor::OnKeyPressedEditMode(QKeyEvent* e) {
  const bool Ctrl = e->modifiers() & Qt::ControlModifier;
  const int k = e->key();
  if (Ctrl && k == Qt::Key_Z) return (e->modifiers() & Qt::ShiftModifier ? Redo() : Undo()), true;
  if (Ctrl && k == Qt::Key_Y) return Redo(), true;
  if (Ctrl && k == Qt::Key_V) {
    const QString s = QApplication::clipboard()->text();
    if (!s.isEmpty()) InsertTyped(s);
    return true;
  }
  if (Ctrl && k == Qt::Key_X) {
    if (HasSelection()) {
      QApplication::clipboard()->setText(SelectedText());
      InsertTyped(QString());
    }
    return true;
  }
  if (k == Qt::Key_Backspace || k == Qt::Key_Delete) {
    if (HasSelection()) return InsertTyped(QString()), true;
    const int o = OffsetOf(m_Cursor);
    if (k == Qt::Key_Backspace) {
      if (m_Cursor.x() > 0) Edit(o - 1, 1, QString(), false);
      else if (m_Cursor.y() > 1) {
        const int Prev = OffsetOf(QPoint(LineLen(m_Cursor.y() - 1), m_Cursor.y() - 1));
        Edit(Prev, o - Prev, QString(), false);
      }
    } else {
      if (m_Cursor.x() < LineLen(m_Cursor.y())) Edit(o, 1, QString(), false);
      else if (m_Cursor.y() < DocLineCount()) Edit(o, OffsetOf(QPoint(0, m_Cursor.y() + 1)) - o, QString(), false);
    }
    return true;
  }
  if (k == Qt::Key_Return || k == Qt::Key_Enter) return InsertTyped(QStringLiteral("\n")), true;
  if (k == Qt::Key_Tab) return InsertTyped(QStringLiteral("\t")), true;
  if (!Ctrl && !e->text().isEmpty() && e->text().at(0).isPrint()) return InsertTyped(e->text()), true;
  return false;
}

// ---------------------------------------------------------------------------
// Mouse

void CSourceEditor::mousePressEvent(QMouseEvent* e) { OnMouseButtonClicked(e); }
void CSourceEditor::mouseDoubleClickEvent(QMouseEvent* e) { OnMouseButtonDoubleClicked(e); }
void CSourceEditor::mouseReleaseEvent(QMouseEvent* e) { OnMouseButtonReleased(e); }
void CSourceEditor::mouseMoveEvent(QMouseEvent* e) { OnMouseMoved(e); }
void CSourceEditor::wheelEvent(QWheelEvent* e) { OnMouseWheelScrolled(e); }

void CSourceEditor::OnMouseButtonClicked(QMouseEvent* e) {
  m_TooltipTimer.stop();
  if (m_LineToRow.empty()) return;
  const QPoint Pos = e->position().toPoint();
  const QPoint TextPos = TextPosAt(Pos);
  if (e->button() == Qt::LeftButton) {
    m_PreferredX = -1;
    MoveCursor(TextPos, e->modifiers() & Qt::ShiftModifier);
    m_MouseSelecting = true;
  } else if (e->button() == Qt::RightButton) {
    const int o = OffsetOf(TextPos), a = OffsetOf(m_Anchor), b = OffsetOf(m_Cursor);
    if (!HasSelection() || o < std::min(a, b) || o > std::max(a, b)) SetCursorTextPos(TextPos);
  }
  emit Clicked(TextPos, int(e->button()));
  if (e->button() == Qt::RightButton) emit CustomContextMenuRequested(Pos);
}

void CSourceEditor::OnMouseButtonDoubleClicked(QMouseEvent* e) {
  if (m_LineToRow.empty() || e->button() != Qt::LeftButton) return;
  const QPoint p = TextPosAt(e->position().toPoint());
  const int r = RowOfDocLine(p.y());
  const QStringView Line = QStringView(m_Text).mid(m_Rows[size_t(r)].TextPos, m_Rows[size_t(r)].TextLen);
  int c = p.x();
  if (c < Line.size() && !IsWordChar(Line[c]) && c > 0 && IsWordChar(Line[c - 1])) --c;
  if (c >= Line.size() || !IsWordChar(Line[c])) return;
  int b = c, en = c;
  while (b > 0 && IsWordChar(Line[b - 1])) --b;
  while (en < Line.size() && IsWordChar(Line[en])) ++en;
  SelectText(QPoint(b, p.y()), en - b);
}

void CSourceEditor::OnMouseButtonReleased(QMouseEvent*) { m_MouseSelecting = false; }

void CSourceEditor::OnMouseMoved(QMouseEvent* e) {
  const QPoint Pos = e->position().toPoint();
  if (m_MouseSelecting && (e->buttons() & Qt::LeftButton)) {
    MoveCursor(TextPosAt(Pos), true);
    EnsureCursorVisible();
    return;
  }
  m_TooltipPos = Pos;
  m_TooltipTimer.start();  // a rest over a word asks for its tool tip
}

void CSourceEditor::OnMouseWheelScrolled(QWheelEvent* e) {
  const int Steps = e->angleDelta().y() / 120;
  if (e->modifiers() & Qt::ShiftModifier || (!Steps && e->angleDelta().x()))
    SetScrollCol(ScrollCol() - (Steps ? Steps : e->angleDelta().x() / 120) * kWheelRows);
  else SetScrollPos(ScrollPos() - Steps * kWheelRows);
  e->accept();
}

void CSourceEditor::leaveEvent(QEvent* e) {
  m_TooltipTimer.stop();
  QAbstractScrollArea::leaveEvent(e);
}

void CSourceEditor::focusInEvent(QFocusEvent* e) {
  m_BlinkTimer.start();
  m_CaretOn = true;
  viewport()->update();
  QAbstractScrollArea::focusInEvent(e);
}

void CSourceEditor::focusOutEvent(QFocusEvent* e) {
  m_BlinkTimer.stop();
  viewport()->update();
  QAbstractScrollArea::focusOutEvent(e);
}

void CSourceEditor::OnCursorBlinkTimerTimeout() {
  m_CaretOn = !m_CaretOn;
  const int r = RowOfDocLine(m_Cursor.y());
  if (r >= 0) viewport()->update(0, RowTop(r), viewport()->width(), m_RowHeight);
}

// Tab is a character here, not a move to the next widget.
bool CSourceEditor::event(QEvent* e) {
  if (e->type() == QEvent::KeyPress && static_cast<QKeyEvent*>(e)->key() == Qt::Key_Tab &&
      !(static_cast<QKeyEvent*>(e)->modifiers() & (Qt::ControlModifier | Qt::AltModifier))) {
    keyPressEvent(static_cast<QKeyEvent*>(e));
    return true;
  }
  return QAbstractScrollArea::event(e);
}

// ---------------------------------------------------------------------------
// Preferences

void CSourceEditor::SetPreference(int PrefId, int Value) {
  switch (PrefId) {
    case PREF_TAB_SPACING: m_TabSpacing = std::clamp(Value, 0, 8); break;
    case PREF_INDENT_INLINE_ASSEMBLY: m_IndentAsm = Value; break;
    case PREF_SHOW_ENCODINGS_SRC:
      m_ShowEncodings = Value;
      for (CSourceRow& r : m_Rows)
        if (r.Kind == 0) r.Scanned = false;
      break;
    default: break;
  }
  UpdateScrollBars();
  viewport()->update();
}

int CSourceEditor::Preference(int PrefId) const {
  switch (PrefId) {
    case PREF_TAB_SPACING: return m_TabSpacing;
    case PREF_INDENT_INLINE_ASSEMBLY: return m_IndentAsm;
    case PREF_SHOW_ENCODINGS_SRC: return m_ShowEncodings;
    default: return int(SysVars::GetValue(PrefId));
  }
}

// ---------------------------------------------------------------------------
// Painting: only the visible rows are scanned and drawn.

void CSourceEditor::paintEvent(QPaintEvent*) { OnPaint(viewport()); }

void CSourceEditor::OnPaint(QWidget* pWidget) {
  QPainter p(pWidget);
  const QPalette& Pal = palette();
  p.fillRect(pWidget->rect(), Pal.color(QPalette::Base));
  if (!m_Message.isEmpty()) {
    p.setPen(Pal.color(QPalette::Text));
    p.drawText(pWidget->rect().adjusted(8, 8, -8, -8), Qt::AlignLeft | Qt::AlignTop | Qt::TextWordWrap, m_Message);
    return;
  }
  const int First = FirstVisibleRow();
  const int Last = std::min(RowCount() - 1, First + VisibleRowCount());
  for (int r = First; r <= Last; ++r) PaintRow(p, r, RowTop(r));
}

void CSourceEditor::PaintRow(QPainter& p, int Row, int Y) {
  EnsureScanned(Row);
  const CSourceRow& r = m_Rows[size_t(Row)];
  const int W = viewport()->width();
  const QColor Bg = RowBackground(Row);
  if (Bg.isValid()) p.fillRect(0, Y, W, m_RowHeight, Bg);
  const int X0 = RowIndent(r) - ScrollCol() * m_CharWidth;
  const QStringView Raw = RowText(r);
  // Display text with tabs expanded, and the x of each character.
  const bool HasTabs = r.Kind && Raw.contains(u'\t');
  QString Shown;
  QVector<int> Xs;
  ColumnXs(r, Xs, HasTabs ? &Shown : nullptr);
  // Tab expansion maps character i to the display text from Vis(i).
  QVector<int> Vis;
  if (HasTabs) {
    Vis.resize(Raw.size() + 1);
    int v = 0;
    for (qsizetype i = 0; i < Raw.size(); ++i) {
      Vis[i] = v;
      v = Raw[i] == u'\t' ? (m_TabSpacing ? (v / m_TabSpacing + 1) * m_TabSpacing : v) : v + 1;
    }
    Vis[Raw.size()] = v;
  }
  // Selection.
  const QColor SelBg = Colors::GetColor(COLOR_SELECTION_HIGHLIGHT);
  QRect SelRect;
  if (r.Kind && HasSelection()) {
    const int a = OffsetOf(m_Anchor), b = OffsetOf(m_Cursor);
    const int s = std::max(std::min(a, b) - r.TextPos, 0), e = std::min(std::max(a, b) - r.TextPos, r.TextLen + 1);
    if (s < e) {
      const int x1 = X0 + Xs[std::min(s, r.TextLen)];
      const int x2 = e > r.TextLen ? X0 + Xs[r.TextLen] + m_CharWidth : X0 + Xs[e];
      SelRect = QRect(x1, Y, x2 - x1, m_RowHeight);
      p.fillRect(SelRect, SelBg);
    }
  }
  p.setFont(r.Kind ? m_Font : m_AsmFont);
  const QColor TextColor = palette().color(QPalette::Text);
  const int Base = Y + m_Ascent;
  // Only the characters that can be seen are drawn, however long the line.
  const int VisFrom = std::max(0, int(std::upper_bound(Xs.begin(), Xs.end(), -X0) - Xs.begin()) - 2);
  const int VisTo = std::min(int(Raw.size()), int(std::upper_bound(Xs.begin(), Xs.end(), W - X0) - Xs.begin()) + 1);
  auto draw = [&](int From, int To, const QColor& c) {
    From = std::max(From, VisFrom);
    To = std::min(To, VisTo);
    if (To <= From) return;
    p.setPen(c);
    p.drawText(X0 + Xs[From], Base, HasTabs ? Shown.mid(Vis[From], Vis[To] - Vis[From]) : Raw.mid(From, To - From).toString());
  };
  static const int kClassColor[10] = {-1,
                                      COLOR_SYNTAX_COMMENT,
                                      COLOR_SYNTAX_STRING,
                                      COLOR_SYNTAX_KEYWORD,
                                      COLOR_SYNTAX_DIRECTIVE,
                                      COLOR_SYNTAX_TEXT,
                                      COLOR_SYNTAX_MNEMONIC,
                                      COLOR_SYNTAX_LABEL,
                                      COLOR_SYNTAX_IMMEDIATE,
                                      COLOR_SYNTAX_REGISTER};
  // Text on the selection colour (the cursor row, selected characters) takes
  // the selection's text colour; elsewhere the colours of the tokens.
  auto drawAll = [&](const QColor& Force) {
    int At = 0;
    for (const CSyntaxToken& t : r.Tokens) {
      draw(At, t.Pos, Force.isValid() ? Force : TextColor);
      draw(t.Pos, t.Pos + t.Len,
           Force.isValid() ? Force : t.Class >= 1 && t.Class <= 9 ? Colors::GetColor(kClassColor[t.Class]) : TextColor);
      At = t.Pos + t.Len;
    }
    draw(At, int(Raw.size()), Force.isValid() ? Force : TextColor);
  };
  const QColor SelText = Colors::GetColor(COLOR_SELECTION_HIGHLIGHT_TEXT);
  const QColor RowForce = Bg.isValid() && Bg == SelBg ? SelText : QColor();
  if (SelRect.isEmpty()) {
    drawAll(RowForce);
  } else {
    p.setClipRegion(QRegion(0, Y, W, m_RowHeight) - SelRect);
    drawAll(RowForce);
    p.setClipRect(SelRect);
    drawAll(SelText);
    p.setClipping(false);
  }
  // Caret.
  if (r.Kind && int(r.DocLine) == m_Cursor.y() && hasFocus() && m_CaretOn) {
    const int x = X0 + Xs[std::min(m_Cursor.x(), r.TextLen)];
    p.fillRect(x, Y + 1, 2, m_RowHeight - 2, palette().color(QPalette::Text));
  }
}
