// The data windows:
//  - a halt refresh of the watched data window with 200 expressions, on the
//    simulator and on the emulator behind its GDB server: the time from the
//    step report to the last row read (expressions evaluated, rows merged,
//    the visible rows read through the data cache; the framework's 10 ms
//    update timer included), and the evaluation alone;
//  - opening the global data and function windows on the generated large
//    program (bench/gen/gen_large.py), rows built once and sorted.
// Usage: bench_symbols [ROUNDS] [LARGE.elf]   (defaults 30, /tmp/large/large-dwarf4.elf)
#include <gtest/gtest.h>  // the shared target helpers use its parameter type

#include "../../tests/device/target_support.h"
#include "../benchsupport.h"
#include "commands/actions.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "ui/framework/tableview.h"
#include "ui/symbols/framedata.h"
#include "ui/symbols/functionswindow.h"
#include "ui/symbols/symbolsmodule.h"
#include "ui/symbols/symbolswindow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTimer>
#include <algorithm>
#include <cstdio>

namespace {

using bench::Median;
using bench::Run;
using bench::STEP_CLOCK;
using bench::WaitFor;

// 200 expressions over a program's globals: scalars, members, bit fields,
// array elements, pointer targets, arithmetic; the corpus program on the
// simulator, the emulator's test program there.
QStringList Expressions(bool Corpus) {
  const QStringList Base = Corpus ? QStringList{"g_ticks", "g_mode", "g_config.version", "g_config.origin.x", "g_config.origin.y",
                                                "g_ctrl.bits.mode", "g_ctrl.bits.trim", "g_ctrl.word", "g_pun.u", "g_root->value",
                                                "g_root->left->value", "g_config.label", "g_nodes[3].value", "g_fib_ptr"}
                                   : QStringList{"g_counter", "g_watched", "g_result", "g_break", "g_breaks"};
  QStringList l = Base;
  for (int i = 0; l.size() < 200; ++i) {
    if (Corpus) l << (i % 2 ? QStringLiteral("g_nodes[%1].value").arg(i % 7) : QStringLiteral("g_nodes[%1].value + %2").arg(i % 7).arg(i));
    else l << (i % 2 ? QStringLiteral("g_table[%1]").arg(i % 32) : QStringLiteral("g_table[%1] + %2").arg(i % 32).arg(i));
  }
  return l;
}

void MeasureRefresh(const devtest::BACKEND& b, const char* sFirmware, int Rounds, int Height) {
  if (QString(b.sHostIF) == "IP" && !devtest::CTargetRig::HaveQemu()) return void(printf("%s: no qemu-system-arm\n", b.sName));
  devtest::CTargetRig Rig(b);
  STEP_CLOCK Clock;
  ExecAction(AID_PROJECT_SET_DEVICE, b.sDevice);
  ExecAction(AID_PROJECT_SET_HOST_IF, b.sHostIF, Rig.Ident());
  ExecAction(AID_PROJECT_SET_TARGET_IF, "SWD");
  const QString sElf = devtest::SourcePath(sFirmware);
  if (CElfApi::Instance().Load(sElf) != 0 || Run(AID_EXEC_CONNECT) != 0 || Run(AID_EXEC_DOWNLOAD, sElf) != 0 ||
      Run(AID_EXEC_RESET) != 0)
    return void(printf("%s: could not connect and download\n", b.sName));
  CWatchWindow w;
  CWatchDataModel& m = *w.WatchModel();
  w.resize(900, Height);
  w.show();
  for (const QString& s : Expressions(&b == &devtest::kSim)) m.AddExpression(s);
  // Every row on screen read.
  auto AllRead = [&m, &w] {
    for (const QModelIndex& p : w.View()->VisibleRows())
      if (w.ToSource(p).row() < m.RootCount() && w.ToSource(p).data(ROLE_READ_STATE).toInt() != READ_STATE_DONE) return false;
    return true;
  };
  w.Update(Device()->CurrentPC());
  WaitFor(AllRead);
  std::vector<double> Stop, Eval;
  int Queued = 0;
  for (int i = 0; i < Rounds; ++i) {
    const int Steps = Clock.n;
    m.TakeReadCounts();
    Device()->PostStepInst();
    if (!WaitFor([&] { return Clock.n > Steps; })) break;
    if (!WaitFor([&] { return !w.UpdateTimer()->isActive() && AllRead(); })) {
      printf("%s: stop %d: rows not read\n", b.sName, i);
      break;
    }
    Stop.push_back(Clock.t.nsecsElapsed() / 1e6);
    Eval.push_back(m.LastEvalMs());
    Queued = m.TakeReadCounts().Queued;
  }
  int Values = 0;
  for (int r = 0; r < m.RootCount(); ++r) Values += !m.index(r, SYM_COL_VALUE).data().toString().isEmpty();
  printf("%-5s 200 watched expressions, window %d px high (%d with values, %d reads a stop): step report to the rows on "
         "screen read %.2f ms median (%zu stops), evaluation %.2f ms\n",
         b.sName, Height, Values, Queued, Median(Stop), Stop.size(), Median(Eval));
  m.ClearExpressions();
  Device()->PostDisconnect();
  DeviceModule::WaitUntilIdle(10000);
}

void MeasureOpen(const QString& sLarge) {
  if (!QFileInfo::exists(sLarge)) return void(printf("large program: %s not found (bench/gen/gen_large.py)\n", qPrintable(sLarge)));
  QElapsedTimer t;
  t.start();
  if (CElfApi::Instance().Load(sLarge) != 0) return void(printf("large program: %s does not load\n", qPrintable(sLarge)));
  const double LoadMs = t.nsecsElapsed() / 1e6;
  t.start();
  auto* g = new CGlobalsWindow;
  g->resize(900, 700);
  g->show();
  QCoreApplication::processEvents();
  const double GlobalsMs = t.nsecsElapsed() / 1e6;
  t.start();
  auto* f = new CFunctionsWindow;
  f->resize(900, 700);
  f->show();
  QCoreApplication::processEvents();
  const double FunctionsMs = t.nsecsElapsed() / 1e6;
  t.start();
  f->Proxy()->sort(FUNC_COL_SIZE);
  QCoreApplication::processEvents();
  const double SortMs = t.nsecsElapsed() / 1e6;
  printf("large program (%s, loaded in %.0f ms): global data window %d rows open in %.0f ms; functions window %d rows open "
         "in %.0f ms, sorted by size in %.0f ms\n",
         qPrintable(QFileInfo(sLarge).fileName()), LoadMs, g->SymModel()->RootCount(), GlobalsMs, f->FuncModel()->TopCount(),
         FunctionsMs, SortMs);
  delete f;
  delete g;
}

}  // namespace

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication App(argc, argv);
  const int Rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 30;
  InstallHeadlessDeviceApp();
  DWARF_Install();
  SymbolsModule::Install();
  // A window of ordinary height, and one that shows all 200 rows.
  for (int Height : {600, 5000}) {
    MeasureRefresh(devtest::kSim, devtest::kSim.sFirmware, Rounds, Height);
    MeasureRefresh(devtest::kQemu, devtest::kQemu.sFirmware, Rounds, Height);
  }
  MeasureOpen(argc > 2 ? QString::fromUtf8(argv[2]) : QStringLiteral("/tmp/large/large-dwarf4.elf"));
  return 0;
}
