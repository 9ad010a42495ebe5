// Costs of the window framework, offscreen: one halt refresh of a table
// window (only the visible rows are read, whatever the row count), a burst
// of typing in the filter bar (one filter pass), and sorting by number keys.
// Usage: QT_QPA_PLATFORM=offscreen bench_framework [ROWS]   (default 100000)
#include "ui/framework/modelviewwindow.h"
#include "ui/framework/tableview.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QTreeView>
#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

// Rows whose value changes at every halt; each read is answered at once.
class CCountingModel : public CTableModel {
 public:
  int Reads = 0;
  U32 Halt = 0;
  bool ReadRow(U64 Id) override {
    ++Reads;
    FillRow(Id, {Text(Id, 0), QString::number(Halt * 7 + U32(Id))});
    return true;
  }
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", qgetenv("QT_QPA_PLATFORM").isEmpty() ? "offscreen" : qgetenv("QT_QPA_PLATFORM"));
  QApplication App(argc, argv);
  const int Rows = argc > 1 ? std::max(1, atoi(argv[1])) : 100000;
  CWindow::SetDevicePcSource([](U32* p) { return *p = 0x100, true; });
  CWindow::SetDebugStateSource([] { return DEBUG_STATE_HALTED; });

  CCountingModel Model;
  Model.SetColumns({"Name", "Value"});
  Model.SetColumnFilterKind(1, FILTER_KIND_NUMBER);
  Model.BeginRebuild();
  for (int i = 0; i < Rows; ++i) {
    const U64 Id = Model.AddRow(0, {QStringLiteral("var%1").arg(i), QString()});
    Model.SetRole(Id, 1, ROLE_SORT_KEY, (i * 7919) % Rows);
  }
  Model.EndRebuild();
  CModelViewWindow w;
  w.setWindowTitle("Bench");
  w.SetModel(&Model);
  w.resize(800, 600);
  w.show();
  QCoreApplication::processEvents();

  // Halt refresh: Update and the timer's read of the visible rows.
  std::vector<double> Refresh;
  int ReadsPerHalt = 0;
  for (int h = 0; h < 30; ++h) {
    Model.Halt = U32(h);
    Model.Reads = 0;
    QElapsedTimer t;
    t.start();
    w.OnDeviceHaltDone(0x100, HALT_REASON_PLAIN);
    w.OnUpdateTimerTimeout();
    QCoreApplication::processEvents();
    Refresh.push_back(t.nsecsElapsed() / 1e6);
    ReadsPerHalt = Model.Reads;
  }
  std::printf("halt refresh, %d rows, %d visible rows read: median %.2f ms (30 halts; the 10 ms timer not counted)\n",
              Rows, ReadsPerHalt, Median(Refresh));

  // Typing "var12" into the filter bar: one pass when the timer fires.
  int Passes = 0;
  QObject::connect(w.FilterBar(), &CFilterHeaderView::FiltersApplied, [&] { ++Passes; });
  w.SetFlag(WINDOW_FLAG_FILTER_BAR, true);
  QElapsedTimer t;
  t.start();
  QLineEdit* e = w.FilterBar()->Edit(0);
  for (QChar c : QStringLiteral("var12")) e->setText(e->text() + c);
  while (Passes == 0) QCoreApplication::processEvents();
  std::printf("filter burst of 5 characters over %d rows: %d pass, %.1f ms, %d rows kept\n", Rows, Passes,
              t.nsecsElapsed() / 1e6, w.Proxy()->rowCount());
  w.FilterBar()->OnActionClearAllFiltersTriggered();

  t.restart();
  w.Proxy()->sort(1, Qt::AscendingOrder);
  std::printf("sort of %d rows by number key: %.1f ms\n", Rows, t.nsecsElapsed() / 1e6);
  t.restart();
  w.Proxy()->sort(0, Qt::DescendingOrder);
  std::printf("sort of %d rows by text: %.1f ms\n", Rows, t.nsecsElapsed() / 1e6);
  return 0;
}
