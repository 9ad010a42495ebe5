// The source editor and its sidebar offscreen: rows and the document-line map
// under expansion, random editing against a plain model of the text (every
// row and scanner state equal to a fresh load), row colours, painting and
// the sidebar's icons and clicks.
#include "settings/colors.h"
#include "settings/ids.h"
#include "testsupport/randomtext.h"
#include "testsupport/testapp.h"
#include "ui/source/sidebar.h"
#include "ui/source/sourceeditor.h"

#include <QApplication>
#include <QClipboard>
#include <QSignalSpy>
#include <QTest>
#include <gtest/gtest.h>

namespace {

// Lines that are multiples of 3 have (line % 4) + 1 instructions.
QVector<SRC_INST_ROW> Insts(int DocLine) {
  QVector<SRC_INST_ROW> v;
  if (DocLine % 3 == 0)
    for (int i = 0; i <= DocLine % 4; ++i) v.append({U64(0x1000 + DocLine * 16 + i * 2), QStringLiteral("00001000: movs    r0, #1")});
  return v;
}

class SourceEditor : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!qApp) NewTestApp<QApplication>();
  }
  void SetUp() override {
    Editor.resize(600, 400);
    Editor.SetInstructionProvider(Insts);
    Editor.show();
  }
  // Rows, line map and scanner states against a fresh load of the same text.
  void ExpectSameAsFreshLoad() {
    CSourceEditor Fresh;
    Fresh.LoadDocument(Editor.Text(), Editor.FilePath(), 1);
    ASSERT_EQ(Editor.DocLineCount(), Fresh.DocLineCount());
    for (int l = 1; l <= Fresh.DocLineCount(); ++l) {
      const CSourceRow* a = Editor.RowData(Editor.RowOfDocLine(l), true);
      const CSourceRow* b = Fresh.RowData(Fresh.RowOfDocLine(l), true);
      ASSERT_TRUE(a && b && a->Kind == 1 && a->DocLine == U32(l));
      ASSERT_EQ(std::tie(a->TextPos, a->TextLen, a->State), std::tie(b->TextPos, b->TextLen, b->State)) << l;
      ASSERT_EQ(a->Tokens, b->Tokens) << l;
    }
  }
  CSourceEditor Editor;
};

TEST_F(SourceEditor, RowsAndLineMapKeepDocumentLinesUnderExpansion) {
  Editor.LoadDocument(QString(), QStringLiteral("/x/empty.c"), 1);
  EXPECT_EQ(Editor.RowCount(), 1);  // an empty file has one row
  Editor.LoadDocument(QStringLiteral("a\r\nbb\n\nlast"), QStringLiteral("/x/crlf.c"), 2);
  EXPECT_EQ(Editor.DocLineCount(), 4);
  EXPECT_EQ(Editor.DocLineText(1), QStringLiteral("a"));
  EXPECT_EQ(Editor.DocLineText(4), QStringLiteral("last"));
  QStringList Lines;
  for (int i = 1; i <= 40; ++i) Lines << QStringLiteral("int v%1 = %1; /* c").arg(i) << QStringLiteral("*/");
  Editor.LoadDocument(Lines.join(u'\n'), QStringLiteral("/x/a.c"), 3);
  const int N = Editor.DocLineCount();
  ASSERT_EQ(N, 80);
  QSignalSpy Toggled(&Editor, &CSourceEditor::LineExpansionStateToggled);
  Editor.ToggleExpanded(6);
  EXPECT_TRUE(Editor.IsExpanded(6));
  EXPECT_EQ(Toggled.count(), 1);
  EXPECT_EQ(Editor.RowOfDocLine(7), 6 + Insts(6).size());
  Editor.SetExpanded(5, true);  // no code: stays collapsed
  EXPECT_FALSE(Editor.IsExpanded(5));
  for (int Pass = 0; Pass < 2; ++Pass) {
    Pass ? Editor.CollapseAll() : Editor.ExpandAll();
    int Extra = 0;
    for (int l = 1; l <= N; ++l) {
      const int r = Editor.RowOfDocLine(l);
      ASSERT_EQ(r, l - 1 + Extra);
      EXPECT_EQ(Editor.DocLineOfRow(r), l);
      EXPECT_EQ(Editor.RowKind(r), 1);
      const QVector<SRC_INST_ROW> v = Pass ? QVector<SRC_INST_ROW>() : Insts(l);
      for (int i = 0; i < v.size(); ++i) {
        EXPECT_EQ(Editor.RowKind(r + 1 + i), 0);
        EXPECT_EQ(Editor.RowAddr(r + 1 + i), v[i].Addr);
        EXPECT_EQ(Editor.DocLineOfRow(r + 1 + i), l);
      }
      Extra += int(v.size());
    }
    EXPECT_EQ(Editor.RowCount(), N + Extra);
  }
  EXPECT_EQ(Editor.RowOfDocLine(0), -1);
  EXPECT_EQ(Editor.RowOfDocLine(N + 1), -1);
  ExpectSameAsFreshLoad();
}

// Random keys against a plain model of the text; expansions come and go in
// between. Undoing everything gives the original text, redoing the last.
TEST_F(SourceEditor, RandomEditingMatchesAPlainModel) {
  const QString Original = QStringLiteral("/* head\n * more */\nint main(void) {\r\n\treturn \"s\";\n}\n#include <x.h>\n");
  testsupport::RandomText Rng(7);
  const int Keys[] = {Qt::Key_Left, Qt::Key_Right, Qt::Key_Up, Qt::Key_Down, Qt::Key_Home, Qt::Key_End, Qt::Key_Backspace,
                      Qt::Key_Delete, Qt::Key_Return, Qt::Key_Tab, Qt::Key_PageDown, Qt::Key_PageUp};
  const QString Typed = QStringLiteral("ab\"*/<>#;_ 9'");
  for (int Round = 0; Round < 16; ++Round) {
    Editor.LoadDocument(Original, QStringLiteral("/x/m.cpp"), 9);
    QString Model = Original;
    QSignalSpy Edited(&Editor, &CSourceEditor::DocumentEdited);
    int Steps = 0;
    for (int i = 0; i < 150; ++i) {
      const QPoint c = Editor.CursorTextPos();
      // The model's offset of the cursor from its own split of the text.
      int Off = 0;
      for (int l = 1; l < c.y(); ++l) Off = int(Model.indexOf(u'\n', Off)) + 1;
      Off += c.x();
      const size_t Pick = Rng.Below(std::size(Keys) + 5);
      if (Pick == std::size(Keys)) {
        // A replacement from outside, line ends of both kinds included.
        static const char* const kPieces[] = {"", "\r\n", "x\n", "\r", "/*", "\"", "\n\n"};
        const int Len = std::min(int(Rng.Below(5)), int(Model.size()) - Off);
        const QString Ins = QString::fromLatin1(kPieces[Rng.Below(std::size(kPieces))]);
        ASSERT_TRUE(Editor.ReplaceText(c, Len, Ins));
        Model.replace(Off, Len, Ins);
      } else if (Pick > std::size(Keys)) {
        const QChar ch = Typed[int(Rng.Below(Typed.size()))];
        QTest::keyClicks(&Editor, QString(ch));
        Model.insert(Off, ch);
      } else {
        const int Key = Keys[Pick];
        const int LineEnd = int(Model.indexOf(u'\n', Off));
        if (Key == Qt::Key_Backspace && Off > 0) {
          const int n = c.x() == 0 && Off >= 2 && Model.mid(Off - 2, 2) == QStringLiteral("\r\n") ? 2 : 1;
          Model.remove(Off - n, n);
        } else if (Key == Qt::Key_Delete && Off < Model.size()) {
          Model.remove(Off, Model.mid(Off, 2) == QStringLiteral("\r\n") && Off == LineEnd - 1 ? 2 : 1);
        } else if (Key == Qt::Key_Return) Model.insert(Off, u'\n');
        else if (Key == Qt::Key_Tab) Model.insert(Off, u'\t');
        QTest::keyClick(&Editor, Qt::Key(Key));
      }
      if (Rng.Below(10) == 0) Editor.ToggleExpanded(1 + int(Rng.Below(Editor.DocLineCount())));
      if (Rng.Below(4) == 0) Editor.RowData(int(Rng.Below(Editor.RowCount())), true);  // as painting would
      ASSERT_EQ(Editor.Text(), Model) << "round " << Round << " step " << i;
    }
    ExpectSameAsFreshLoad();
    Steps = int(Edited.count());
    EXPECT_EQ(Editor.IsModified(), Steps > 0);
    while (Editor.Undo()) {}
    EXPECT_EQ(Editor.Text(), Original);
    EXPECT_FALSE(Editor.IsModified());
    ExpectSameAsFreshLoad();
    while (Editor.Redo()) {}
    EXPECT_EQ(Editor.Text(), Model);
    ExpectSameAsFreshLoad();
  }
}

TEST_F(SourceEditor, GateDropsKeysAndSaveClearsTheModifiedState) {
  Editor.LoadDocument(QStringLiteral("abc\ndef"), QStringLiteral("/x/g.c"), 4);
  bool Allow = false;
  Editor.SetEditGate([&] { return Allow; });
  QTest::keyClicks(&Editor, QStringLiteral("xy"));
  QTest::keyClick(&Editor, Qt::Key_Delete);
  QTest::keyClick(&Editor, Qt::Key_Down);  // view keys pass the gate by
  EXPECT_EQ(Editor.Text(), QStringLiteral("abc\ndef"));
  EXPECT_EQ(Editor.CursorTextPos(), QPoint(0, 2));
  Allow = true;
  QSignalSpy State(&Editor, &CSourceEditor::DocumentStateChanged);
  QTest::keyClicks(&Editor, QStringLiteral("xy"));
  EXPECT_EQ(Editor.Text(), QStringLiteral("abc\nxydef"));
  ASSERT_EQ(State.count(), 1);
  EXPECT_EQ(State[0][0].toUInt(), 4u);
  EXPECT_TRUE(State[0][1].toBool());
  Editor.SetModified(false);
  EXPECT_FALSE(Editor.IsModified());
  Editor.Undo();
  EXPECT_TRUE(Editor.IsModified());  // the saved text is one step ahead
  Editor.Redo();
  EXPECT_FALSE(Editor.IsModified());
  // Selection, word and copy.
  Editor.SelectText(QPoint(1, 1), 5);
  EXPECT_EQ(Editor.SelectedText(), QStringLiteral("bc\nxy"));
  Editor.SetCursorTextPos(QPoint(3, 2));
  EXPECT_EQ(Editor.SelectedTextOrWordUnderCursor(), QStringLiteral("xydef"));
  Editor.OnActionCopyTriggered();
  EXPECT_EQ(QApplication::clipboard()->text(), QStringLiteral("xydef"));
  // A rest of the mouse over a word asks for its tool tip.
  QSignalSpy Tip(&Editor, &CSourceEditor::SymbolTooltipRequest);
  QTest::mouseMove(Editor.viewport(), QPoint(Editor.CharWidth() * 2, Editor.RowTop(0) + 2));
  ASSERT_TRUE(Tip.wait(2000));
  EXPECT_EQ(Tip[0][1].toString(), QStringLiteral("abc"));
}

TEST_F(SourceEditor, RowColoursFollowTheRulesAndReachThePixels) {
  QStringList Lines;
  for (int i = 1; i <= 300; ++i) Lines << QStringLiteral("x = %1;").arg(i);
  Editor.LoadDocument(Lines.join(u'\n'), QStringLiteral("/x/c.c"), 5);
  const QColor Active(200, 0, 0), Inactive(250, 200, 200), Inst(0, 0, 200);
  Editor.SetLineColor(3, Active, Inactive);   // 4 instructions
  Editor.SetLineColor(12, Active, Inactive);  // 1 instruction
  Editor.SetExpanded(3, true);
  Editor.SetExpanded(12, true);
  Editor.SetAddrColor(Insts(3)[2].Addr, Inst);
  EXPECT_EQ(Editor.RowBackground(Editor.RowOfDocLine(3)), Active);
  EXPECT_EQ(Editor.RowBackground(Editor.RowOfDocLine(12)), Inactive);
  EXPECT_EQ(Editor.RowBackground(Editor.RowOfDocLine(3) + 3), Inst);
  EXPECT_FALSE(Editor.RowBackground(Editor.RowOfDocLine(3) + 1).isValid());
  EXPECT_TRUE(Editor.RowBackground(Editor.RowOfDocLine(3) + 2).isValid());  // alternating shade
  Editor.SetCursorTextPos(QPoint(0, 12));
  Editor.SetBacktraceMode(true);
  EXPECT_EQ(Editor.RowBackground(Editor.RowOfDocLine(12)), Colors::GetColor(COLOR_PC_BACKTRACE));
  Editor.SetBacktraceMode(false);
  Editor.ClearHighlights(Active);
  EXPECT_FALSE(Editor.RowBackground(Editor.RowOfDocLine(3)).isValid());
  EXPECT_EQ(Editor.RowBackground(Editor.RowOfDocLine(3) + 3), Inst);
  // Line 250 centred, coloured, and painted in its colour.
  Editor.SetLineColor(250, Active, Inactive);
  Editor.EnsureTextLineVisible(250, true);
  const int r = Editor.RowOfDocLine(250);
  ASSERT_GE(r, Editor.FirstVisibleRow());
  ASSERT_LT(r, Editor.FirstVisibleRow() + Editor.VisibleRowCount());
  const QImage Img = Editor.viewport()->grab().toImage();
  EXPECT_EQ(QColor(Img.pixel(Editor.viewport()->width() - 3, Editor.RowTop(r) + 2)), Active);
  EXPECT_EQ(Editor.TextPosAt(QPoint(Editor.CharWidth() * 4 + 1, Editor.RowTop(r) + 1)), QPoint(4, 250));
  // Page down scrolls by a page and moves the cursor along.
  Editor.SetCursorTextPos(QPoint(0, 250));
  const int Before = Editor.ScrollPos();
  QSignalSpy Scrolled(&Editor, &CSourceEditor::ScrollChanged);
  QTest::keyClick(&Editor, Qt::Key_PageDown);
  EXPECT_EQ(Editor.ScrollPos(), Before + Editor.VisibleRowCount());
  EXPECT_GE(Scrolled.count(), 1);
  Editor.ShowMessage(QStringLiteral("File not found:\n\n/x/c.c"));
  EXPECT_EQ(Editor.RowCount(), 0);
}

TEST_F(SourceEditor, SideBarDrawsProvidedIconsAndReportsClicks) {
  Editor.LoadDocument(QStringLiteral("a\nb\nc\nd\ne\nf"), QStringLiteral("/x/s.c"), 6);
  CSideBar Bar(&Editor);
  Bar.resize(80, 400);
  Bar.show();
  for (int Id = 1; Id <= 13; ++Id) {
    const QString Name = CSideBar::IconFileName(Id);
    const QPixmap Px = CSideBar::IconPixmap(Id);
    ASSERT_FALSE(Px.isNull()) << Name.toStdString();
    EXPECT_EQ(Px.width(), Name.section(u'-', -1).section(u'.', 0, 0).toInt()) << Name.toStdString();
  }
  Bar.SetIconProvider([](int Row) { return Row == 1 ? 1 : Row == 2 ? 11 : 99; });
  EXPECT_EQ(Bar.IconAt(1), 1);
  EXPECT_EQ(Bar.IconAt(2), 11);
  EXPECT_EQ(Bar.IconAt(3), 0);  // outside the table
  QSignalSpy Clicks(&Bar, &CSideBar::MouseClicked);
  QTest::mouseClick(&Bar, Qt::RightButton, {}, Bar.IconRect(4).center());
  ASSERT_EQ(Clicks.count(), 1);
  EXPECT_EQ(Clicks[0][0].toInt(), 4);
  EXPECT_EQ(Clicks[0][1].toInt(), int(Qt::RightButton));
  // The expansion mark of a line with code toggles it.
  Editor.SetRowAddr(2, 0x1000);
  QTest::mouseClick(&Bar, Qt::LeftButton, {}, Bar.MarkRect(2).center());
  EXPECT_TRUE(Editor.IsExpanded(3));
  EXPECT_EQ(Clicks.count(), 1);
  Editor.SetCursorTextPos(QPoint(0, 4));
  const QStringList Want[] = {{"", "", "", ""}, {"", "", "4", ""}, {"1", "2", "4", "5"}, {"", "", "4", "5"}};
  for (int Freq = 0; Freq < 4; ++Freq) {
    Bar.SetPreference(PREF_LINE_NUMBER_FREQ, Freq);
    const int Rows[] = {Editor.RowOfDocLine(1), Editor.RowOfDocLine(2), Editor.RowOfDocLine(4), Editor.RowOfDocLine(5)};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(Bar.LineNumberText(Rows[i]), Want[Freq][i]) << Freq << " " << i;
  }
  EXPECT_EQ(Bar.LineNumberText(3), QString());  // an instruction row
  QSignalSpy State(&Bar, &CSideBar::StateChanged);
  Bar.SetPreference(PREF_SHOW_SRC_CODE_PROFILE, 1);
  EXPECT_EQ(State.count(), 1);
  Bar.SetPreference(PREF_SHOW_SIDEBAR_SRC, 0);
  EXPECT_EQ(Bar.IconAt(1), 0);
  EXPECT_EQ(Bar.width(), 0);
}

}  // namespace
