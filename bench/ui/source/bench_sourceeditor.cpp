// Costs of the source editor, offscreen: opening a generated C file (one
// pass for the rows, then the first paint), one page scroll with its repaint,
// the first jump to the end (every line above is scanned once), a key typed
// in the middle of the file, and the scanner's throughput.
// Usage: QT_QPA_PLATFORM=offscreen bench_sourceeditor [LINES]   (default 100000)
#include "ui/source/sidebar.h"
#include "ui/source/sourceeditor.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QScrollBar>
#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

double Ms(const QElapsedTimer& t) { return double(t.nsecsElapsed()) / 1e6; }

// A C file of the given number of lines: functions with comments, strings,
// preprocessor lines and tabs.
QString GenerateC(int Lines) {
  QString s;
  s.reserve(Lines * 36);
  int n = 0;
  for (int f = 0; n < Lines; ++f) {
    const QString Block = QStringLiteral(
                              "/* Function %1: adds the inputs\n"
                              " * and returns the sum. */\n"
                              "#include <stdint.h>\n"
                              "static int func_%1(int a, unsigned b) {\n"
                              "\tconst char* s = \"value %1\"; // the name\n"
                              "\tif (a > 0 && b != 0u) return a + (int)b;\n"
                              "\tfor (int i = 0; i < %1; ++i) a += i * 3;\n"
                              "\treturn a;\n"
                              "}\n"
                              "\n")
                              .arg(f);
    s += Block;
    n += 10;
  }
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", qgetenv("QT_QPA_PLATFORM").isEmpty() ? "offscreen" : qgetenv("QT_QPA_PLATFORM"));
  QApplication App(argc, argv);
  const int Lines = argc > 1 ? std::max(10, atoi(argv[1])) : 100000;
  const QString Text = GenerateC(Lines);

  QWidget Window;
  auto* pLayout = new QHBoxLayout(&Window);
  auto* pEditor = new CSourceEditor;
  auto* pBar = new CSideBar(pEditor);
  pLayout->addWidget(pBar);
  pLayout->addWidget(pEditor);
  Window.resize(1000, 800);
  Window.show();
  QApplication::processEvents();

  std::vector<double> Open, Scroll, Type;
  double JumpToEnd = 0;
  for (int Run = 0; Run < 7; ++Run) {
    QElapsedTimer t;
    t.start();
    pEditor->LoadDocument(Text, QStringLiteral("/bench/generated.c"), 1);
    pEditor->viewport()->repaint();
    pBar->repaint();
    Open.push_back(Ms(t));
    // Page scrolls from the top, each with its repaint.
    for (int i = 0; i < 20; ++i) {
      t.start();
      pEditor->SetScrollPos(pEditor->ScrollPos() + pEditor->VisibleRowCount());
      pEditor->viewport()->repaint();
      pBar->repaint();
      Scroll.push_back(Ms(t));
    }
    t.start();
    pEditor->SetScrollPos(pEditor->RowCount());
    pEditor->viewport()->repaint();
    JumpToEnd = std::max(JumpToEnd, Ms(t));
    // A key typed in the middle: the rows below move, states rescan locally.
    pEditor->SetCursorTextPos(QPoint(4, pEditor->DocLineCount() / 2));
    for (int i = 0; i < 10; ++i) {
      QKeyEvent Key(QEvent::KeyPress, Qt::Key_X, Qt::NoModifier, QStringLiteral("x"));
      t.start();
      QApplication::sendEvent(pEditor, &Key);
      pEditor->viewport()->repaint();
      Type.push_back(Ms(t));
    }
  }

  const int DocLines = pEditor->DocLineCount();
  // One line of a million characters: painting draws only what can be seen.
  QString Long;
  for (int i = 0; Long.size() < 1000000; ++i) Long += QStringLiteral("x%1 = \"s\"; ").arg(i);
  std::vector<double> LongOpen;
  for (int Run = 0; Run < 3; ++Run) {
    QElapsedTimer t;
    t.start();
    pEditor->LoadDocument(Long, QStringLiteral("/bench/long.c"), 2);
    pEditor->SetScrollCol(pEditor->horizontalScrollBar()->maximum() / 2);
    pEditor->viewport()->repaint();
    LongOpen.push_back(Ms(t));
  }

  QVector<CSyntaxToken> Tokens;
  int State = 0;
  QElapsedTimer t;
  t.start();
  for (QStringView Line : QStringView(Text).split(u'\n')) SRC_Highlight(SRC_LANG_C, Line, Tokens, State);
  const double ScanMs = Ms(t);

  std::printf("source editor, %d lines (%.1f MB of text), viewport %dx%d, %d rows visible\n", DocLines,
              Text.size() / 1e6, pEditor->viewport()->width(), pEditor->viewport()->height(), pEditor->VisibleRowCount());
  std::printf("  open (LoadDocument + first paint), median of 7: %8.2f ms   (target <= 200 ms)\n", Median(Open));
  std::printf("  one page scroll with repaint, median of 140:    %8.3f ms   (target <= 16 ms)\n", Median(Scroll));
  std::printf("  first jump to the end (scans every line once):  %8.2f ms\n", JumpToEnd);
  std::printf("  one typed key in the middle with repaint:       %8.3f ms\n", Median(Type));
  std::printf("  a 1,000,000-character line, open and paint:    %8.2f ms\n", Median(LongOpen));
  std::printf("  scanner throughput over the whole file:         %8.1f MB/s (%.1f ms)\n", Text.size() / 1e3 / ScanMs,
              ScanMs);
  return 0;
}
