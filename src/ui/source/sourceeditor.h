// The text surface of the source viewer: a document held as one text and a
// list of rows drawn by hand. Source rows map one to one onto document lines;
// an expanded line has instruction rows below it, which the window supplies.
// Text positions are QPoint(column, docLine): column from 0, docLine from 1.
#pragma once
#include <QAbstractScrollArea>
#include <QColor>
#include <QHash>
#include <QPoint>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVector>
#include <functional>
#include <vector>
#include "common/types.h"
#include "ui/source/highlighter.h"

class QPainter;

struct SRC_INST_ROW {
  U64 Addr;
  QString Text;  // the instruction as the disassembly shows it: address, [encoding,] mnemonic and operands
};

enum EDIT_EVENT_KIND { EDIT_INSERT = 1, EDIT_REMOVE = 2, EDIT_REPLACE = 3 };

// One change of the document: at Pos, Removed was replaced by Inserted.
struct EDIT_EVENT {
  int Kind;  // EDIT_EVENT_KIND
  QPoint Pos;
  QString Removed, Inserted;
};
Q_DECLARE_METATYPE(EDIT_EVENT)

struct CSourceRow {
  U8 Kind = 1;        // 1 a source line, 0 an instruction row
  I32 State = 0;      // scanner state at the end of the row
  I32 TextPos = -1;   // start in the document text; negative for instruction rows
  I32 TextLen = 0;    // without the line end
  U32 DocLine = 0;    // from 1; an instruction row carries the line it belongs to
  U64 Addr = ~U64(0);
  QString Text;       // instruction rows only: their own text
  QVector<CSyntaxToken> Tokens;
  bool Scanned = false;
};

class CSourceEditor : public QAbstractScrollArea {
  Q_OBJECT
 public:
  static constexpr U64 kNoAddr = ~U64(0);
  static constexpr int kMnemonicWidth = 8;

  explicit CSourceEditor(QWidget* pParent = nullptr);
  ~CSourceEditor() override;

  // Replaces the document: one pass over the text builds the rows. The
  // language follows the path's suffix.
  void LoadDocument(const QString& Text, const QString& FilePath, U32 FileNo);
  // A text in place of a document (e.g. a file that was not found): no rows.
  void ShowMessage(const QString& Text);
  void Clear();
  QString Message() const { return m_Message; }

  U32 FileNo() const { return m_FileNo; }
  QString FilePath() const { return m_FilePath; }
  QString Text() const { return m_Text; }
  SRC_LANGUAGE Language() const { return m_Language; }
  void SetLanguage(SRC_LANGUAGE Language);
  QString DocLineText(int DocLine) const;  // empty when out of range

  int DocLineCount() const { return int(m_LineToRow.size()); }
  int RowCount() const { return int(m_Rows.size()); }
  int RowOfDocLine(int DocLine) const;  // -1 when out of range
  int DocLineOfRow(int Row) const;      // -1 when out of range
  int RowKind(int Row) const;           // -1 when out of range
  U64 RowAddr(int Row) const;           // kNoAddr when unknown
  void SetRowAddr(int Row, U64 Addr);
  const CSourceRow* RowData(int Row, bool Scan);  // null when out of range; Scan fills its tokens

  // Expansion into instruction rows.
  void SetInstructionProvider(std::function<QVector<SRC_INST_ROW>(int DocLine)> Provider);
  void SetRegisterNames(const QStringList& Names);
  bool IsExpanded(int DocLine) const;
  void SetExpanded(int DocLine, bool Expanded);
  void ToggleExpanded(int DocLine);  // emits LineExpansionStateToggled
  void ExpandAll();
  void CollapseAll();

  // Row highlights.
  void SetLineColor(int DocLine, QColor Color, QColor InactiveColor);
  void SetAddrColor(U64 Addr, QColor Color);
  void ClearHighlights();
  void ClearHighlights(QColor Color);  // only the entries of that colour
  void SetBacktraceMode(bool On);
  void SetPcHighlightForced(bool On);  // a coloured line wins over the cursor row
  QColor RowBackground(int Row) const; // the colour the rules give; invalid for the default background

  // Cursor, selection, scrolling.
  QPoint CursorTextPos() const { return m_Cursor; }
  void SetCursorTextPos(QPoint TextPos);
  void SelectText(QPoint TextPos, int Len);
  bool HasSelection() const { return m_Anchor != m_Cursor; }
  QString SelectedText() const;
  QString SelectedTextOrWordUnderCursor() const;
  QString WordAt(QPoint TextPos) const;
  QPoint TextPosAt(QPoint EditorPos) const;  // viewport coordinates
  int RowAt(int ViewportY) const;            // -1 below the last row
  int RowTop(int Row) const;                 // viewport y of the row's top
  int RowHeight() const { return m_RowHeight; }
  int CharWidth() const { return m_CharWidth; }
  int FirstVisibleRow() const;
  int VisibleRowCount() const;
  void EnsureTextLineVisible(int DocLine, bool CenterInEditor);
  int ScrollPos() const;
  void SetScrollPos(int Row);
  int ScrollCol() const;
  void SetScrollCol(int Col);

  // Editing.
  void SetEditGate(std::function<bool()> Gate) { m_EditGate = std::move(Gate); }
  bool IsModified() const { return m_Modified; }
  void SetModified(bool Modified);
  bool Undo();
  bool Redo();
  bool CanUndo() const { return !m_Undo.empty(); }
  bool CanRedo() const { return !m_Redo.empty(); }
  // Replaces Len characters at TextPos by Inserted as one undoable edit
  // (the gate is not asked). False for a position outside the document.
  bool ReplaceText(QPoint TextPos, int Len, const QString& Inserted);

  // PREF_TAB_SPACING, PREF_INDENT_INLINE_ASSEMBLY, PREF_SHOW_ENCODINGS_SRC;
  // other ids only repaint.
  void SetPreference(int PrefId, int Value);
  int Preference(int PrefId) const;

 signals:
  void CursorPositionChanged(QPoint TextPos);
  void TextSelectionChanged();
  void CustomContextMenuRequested(QPoint Pos);
  void LineExpansionStateToggled(int DocLine);
  void LineExpansionRequested();
  void DocumentStateChanged(U32 FileNo, bool HasUnsavedChanges);
  void DocumentEdited(EDIT_EVENT Event);
  void RowsChanged();
  void ScrollChanged();
  void SymbolTooltipRequest(QPoint GlobalPos, QString Name);
  void Clicked(QPoint TextPos, int Button);

 public slots:
  void OnPaint(QWidget* pWidget);
  void OnFontChanged(QFont Font);
  void OnAsmFontChanged(QFont Font);
  void OnDocumentEdited(EDIT_EVENT Event);  // applies an edit that arrives from outside, as one undo step
  void OnActionSelectAllTriggered();
  void OnActionCopyTriggered();
  void OnActionCollapseAllTriggered();
  void OnActionExpandAllTriggered();
  void OnCursorBlinkTimerTimeout();

 protected:
  void paintEvent(QPaintEvent* e) override;
  void resizeEvent(QResizeEvent* e) override;
  void scrollContentsBy(int dx, int dy) override;
  void keyPressEvent(QKeyEvent* e) override;
  void keyReleaseEvent(QKeyEvent* e) override;
  void mousePressEvent(QMouseEvent* e) override;
  void mouseDoubleClickEvent(QMouseEvent* e) override;
  void mouseReleaseEvent(QMouseEvent* e) override;
  void mouseMoveEvent(QMouseEvent* e) override;
  void wheelEvent(QWheelEvent* e) override;
  void focusInEvent(QFocusEvent* e) override;
  void focusOutEvent(QFocusEvent* e) override;
  void leaveEvent(QEvent* e) override;
  bool event(QEvent* e) override;

 public:
  // Key handlers; each returns whether it took the key.
  bool OnKeyPressed(QKeyEvent* e);
  bool OnKeyPressedViewMode(QKeyEvent* e);
  bool OnKeyPressedEditMode(QKeyEvent* e);
  bool OnArrowKeyPressedViewMode(QKeyEvent* e);
  bool OnPageKeyPressedViewMode(QKeyEvent* e);
  bool OnHomeEndKeyPressedViewMode(QKeyEvent* e);
  void OnKeyReleased(QKeyEvent* e);
  void OnMouseButtonClicked(QMouseEvent* e);
  void OnMouseButtonDoubleClicked(QMouseEvent* e);
  void OnMouseButtonReleased(QMouseEvent* e);
  void OnMouseMoved(QMouseEvent* e);
  void OnMouseWheelScrolled(QWheelEvent* e);

 private:
  // Text offsets and positions.
  int OffsetOf(QPoint TextPos) const;  // clamped into the document
  QPoint PosOfOffset(int Offset) const;
  int LineLen(int DocLine) const;
  QPoint ClampPos(QPoint TextPos) const;
  void MoveCursor(QPoint TextPos, bool KeepAnchor);
  void EnsureCursorVisible();
  // Rows.
  void BuildRows(int FirstDocLine, int From, int Stop, std::vector<CSourceRow>& Out);
  void RebuildLineMap();
  void ScanRow(int Row);
  void EnsureScanned(int Row);
  int StateBefore(int DocLine) const;
  int InstColumn() const;
  int ExpansionSize(int Row) const;
  void InsertInstRows(int Row, const QVector<SRC_INST_ROW>& Insts, std::vector<CSourceRow>& Out) const;
  void RowsReplaced(int FirstVisibleDocLine);
  // Editing.
  void ApplyEdit(int Offset, int RemoveLen, const QString& Inserted);
  void Edit(int Offset, int RemoveLen, const QString& Inserted, bool FromUndo);
  bool GateAllows();
  void InsertTyped(const QString& Text);
  // Display.
  void UpdateMetrics();
  void UpdateScrollBars();
  QStringView RowText(const CSourceRow& Row) const;
  void ColumnXs(const CSourceRow& Row, QVector<int>& Xs, QString* pShown) const;  // x of each character and of the end
  int XOfCol(const CSourceRow& Row, int Col) const;
  int ColAtX(const CSourceRow& Row, int X) const;
  int RowIndent(const CSourceRow& Row) const;
  void PaintRow(QPainter& p, int Row, int Y);

  QString m_Text;
  QString m_FilePath;
  QString m_Message;
  U32 m_FileNo = 0;
  SRC_LANGUAGE m_Language = SRC_LANG_OTHER;
  std::vector<CSourceRow> m_Rows;
  std::vector<int> m_LineToRow;  // DocLine - 1 -> row
  int m_ScannedTo = 0;
  int m_MaxLineLen = 0;           // source rows below this index have no valid state yet
  std::function<QVector<SRC_INST_ROW>(int)> m_Provider;
  QStringList m_RegNames;
  QHash<int, QPair<QColor, QColor>> m_LineColors;
  QHash<U64, QColor> m_AddrColors;
  bool m_Backtrace = false;
  bool m_PcForced = false;

  QPoint m_Cursor{0, 1};
  QPoint m_Anchor{0, 1};
  int m_PreferredX = -1;  // x that up/down keep, -1 none
  bool m_MouseSelecting = false;
  bool m_CaretOn = true;
  QTimer m_BlinkTimer;
  QTimer m_TooltipTimer;
  QPoint m_TooltipPos;

  std::function<bool()> m_EditGate;
  std::vector<EDIT_EVENT> m_Undo, m_Redo;
  int m_SavedUndoDepth = 0;  // -1: the saved state is no longer reachable
  bool m_Modified = false;

  QFont m_Font, m_AsmFont;
  int m_RowHeight = 16;
  int m_CharWidth = 8;
  int m_AsmCharWidth = 8;
  qreal m_CharWidthF = 8, m_AsmCharWidthF = 8;
  bool m_FixedPitch = true, m_AsmFixedPitch = true;
  int m_Ascent = 12;
  int m_TabSpacing = 2;
  int m_IndentAsm = 1;
  int m_ShowEncodings = 0;
};
