// The data windows:
//  - a halt refresh of the watched data window with 200 expressions, on the
//    simulator and on the emulator behind its GDB server: the time from the
//    step report to the last row read (expressions evaluated, rows merged,
//    the visible rows read through the data cache; the framework's 10 ms
//    update timer included), and the evaluation alone;
//  - stepping with the watched data window open, on both back ends: source
//    step over and instruction step, from the command to the rows on screen
//    read, with no expression, with one global and with 200 expressions,
//    each with the live refresh off and at 5 Hz, the sets taking turns in
//    blocks of steps; then a second's run with each set: whether the live
//    timer ran, the refreshes and the probe's memory reads (its call log) in
//    that second, the longest the event loop was held, and the time from the
//    halt command to the rows read;
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
#include "elf/symbol/symbol.h"
#include "ui/framework/tableview.h"
#include "ui/symbols/framedata.h"
#include "ui/symbols/functionswindow.h"
#include "ui/symbols/symbolsmodule.h"
#include "ui/symbols/symbolswindow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTimer>
#include <algorithm>
#include <iterator>
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

// Every root row on screen has its value (the entry row aside).
bool RowsOnScreenRead(CWatchWindow& w) {
  const CWatchDataModel& m = *w.WatchModel();
  for (const QModelIndex& p : w.View()->VisibleRows())
    if (w.ToSource(p).row() < m.RootCount() && w.ToSource(p).data(ROLE_READ_STATE).toInt() != READ_STATE_DONE) return false;
  return true;
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
  auto AllRead = [&w] { return RowsOnScreenRead(w); };
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

// The sets of watched expressions stepping is measured with: none, one
// global and 200 expressions over the frame test program's globals, each
// with the live refresh off and at 5 Hz.
struct WATCH_SET {
  int Count, Hz;
  const char* sName;
};
constexpr WATCH_SET kWatchSets[] = {{0, 0, "no expression"}, {1, 0, "1 global, Off"}, {1, 5, "1 global at 5 Hz"},
                                    {200, 0, "200, Off"},    {200, 5, "200 at 5 Hz"}};
constexpr int kSetCount = int(std::size(kWatchSets));

QStringList FrameExpressions(int Count) {
  QStringList l{"g_tick", "g_pair.a", "g_pair.b", "shade"};
  for (int i = 0; l.size() < Count; ++i)
    l << (i % 2 ? QStringLiteral("g_tick + %1").arg(i) : QStringLiteral("g_pair.a * %1").arg(i));
  return l.mid(0, Count);
}

// Stops as the windows see them (a step that ran to its end is reported as a
// halt).
struct STOPS : CDeviceEventListener {
  int Halts = 0, Steps = 0;
  int Count() const { return Halts + Steps; }
  void OnDeviceHaltDone(U32, HALT_REASONS) override { ++Halts; }
  void OnDeviceStepped(U32) override { ++Steps; }
};

qsizetype MemReadCalls(const QString& sLog) { return devtest::ReadFileText(sLog).count("VORDENARM_ReadMem"); }

struct SET_FIGURES {
  std::vector<double> Over, Inst, Halt, Stall;
  qsizetype StepReads = 0, RunReads = 0;
  int StepRefreshes = 0, Steps = 0, Runs = 0, RunsWithTimer = 0, RunRefreshes = 0;
};

void MeasureStepping(const devtest::BACKEND& b, int Blocks, int StepsPerBlock) {
  if (QString(b.sHostIF) == "IP" && !devtest::CTargetRig::HaveQemu()) return void(printf("%s: no qemu-system-arm\n", b.sName));
  devtest::CTargetRig Rig(b);
  STOPS Stops;
  QTemporaryDir Dir;
  const QString sLog = Dir.filePath("calls.log");
  ExecAction(AID_PROJECT_SET_VORDEN_LOG_FILE, sLog);
  const QString sElf = devtest::SourcePath(b.sFirmware);
  if (CElfApi::Instance().Load(sElf) != 0 || !bench::StartTarget(b.sDevice, b.sHostIF, Rig.Ident(), sElf))
    return void(printf("%s: could not connect and download\n", b.sName));
  CDevice* d = Device();
  int Kind = 0;
  d->PostRunTo(U32(ResolveToAddress("main", Kind).start) & ~1u);
  if (!WaitFor([&] { return Stops.Halts > 0; }, 10000)) return void(printf("%s: no halt at main\n", b.sName));
  CWatchWindow w;
  CWatchDataModel& m = *w.WatchModel();
  w.resize(900, 600);
  w.show();
  auto Settled = [&] { return !w.UpdateTimer()->isActive() && RowsOnScreenRead(w); };
  auto Idle = [](int Ms) { WaitFor([] { return false; }, Ms); };
  auto UseSet = [&](const WATCH_SET& Set) {
    m.ClearExpressions();
    for (const QString& s : FrameExpressions(Set.Count)) m.SetRate(m.AddExpression(s), Set.Hz);
    w.Update(d->CurrentPC());
    WaitFor(Settled);
    Idle(150);  // the live check after the change
  };
  auto Refreshes = [&] { return m.RootCount() ? m.Item(0).RefreshCount : 0; };
  // From the command to the rows on screen read; -1 when the step did not end.
  auto Step = [&](bool Source) {
    const int Before = Stops.Count();
    QElapsedTimer t;
    t.start();
    Source ? d->PostStep(JT_STEP_OVER) : d->PostStepInst();
    const bool Done = WaitFor([&] { return Stops.Count() > Before && !d->IsSourceStepInProgress() && Settled(); }, 20000);
    return Done ? t.nsecsElapsed() / 1e6 : -1.0;
  };
  // A second's run, then a halt: what the live refresh did meanwhile.
  auto RunOneSecond = [&](SET_FIGURES& f) {
    const int Halts = Stops.Halts;
    d->PostContinue();
    Idle(300);
    const int RefreshesBefore = Refreshes();
    const qsizetype ReadsBefore = MemReadCalls(sLog);
    // The longest time the event loop did not come back meanwhile.
    QElapsedTimer Loop;
    Loop.start();
    qint64 Last = 0, Longest = 0;
    while (Loop.elapsed() < 1000) {
      QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
      Longest = std::max(Longest, Loop.nsecsElapsed() - Last);
      Last = Loop.nsecsElapsed();
    }
    f.Stall.push_back(Longest / 1e6);
    ++f.Runs;
    f.RunsWithTimer += w.LiveTimer()->isActive();
    f.RunRefreshes += Refreshes() - RefreshesBefore;
    f.RunReads += MemReadCalls(sLog) - ReadsBefore;
    QElapsedTimer t;
    t.start();
    d->PostHalt();
    if (WaitFor([&] { return Stops.Halts > Halts && Settled(); }, 10000)) f.Halt.push_back(t.nsecsElapsed() / 1e6);
  };

  // The sets take turns, so that each sees the same mix of lines and calls;
  // the runs come last, since each makes the program's loop longer.
  SET_FIGURES f[kSetCount];
  for (int k = 0; k < Blocks; ++k)
    for (int s = 0; s < kSetCount; ++s) {
      UseSet(kWatchSets[s]);
      const int RefreshesBefore = Refreshes();
      const qsizetype ReadsBefore = MemReadCalls(sLog);
      for (int i = 0; i < StepsPerBlock; ++i)
        for (bool Source : {true, false}) {
          const double Ms = Step(Source);
          if (Ms < 0)
            return void(printf("%s: %s with %s did not end at PC 0x%X\n", b.sName, Source ? "a step over" : "an instruction step",
                               kWatchSets[s].sName, d->CurrentPC()));
          (Source ? f[s].Over : f[s].Inst).push_back(Ms);
          ++f[s].Steps;
        }
      f[s].StepRefreshes += Refreshes() - RefreshesBefore;
      f[s].StepReads += MemReadCalls(sLog) - ReadsBefore;
    }
  for (int k = 0; k < 3; ++k)
    for (int s = 0; s < kSetCount; ++s) {
      UseSet(kWatchSets[s]);
      RunOneSecond(f[s]);
    }

  printf("%-5s stepping with the watched data window open (%s; %zu step overs and as many instruction steps a set, from "
         "the command to the rows on screen read; ratios against no expression):\n",
         b.sName, qPrintable(QFileInfo(sElf).fileName()), f[0].Over.size());
  const double Over0 = Median(f[0].Over), Inst0 = Median(f[0].Inst);
  for (int s = 0; s < kSetCount; ++s) {
    const double Over = Median(f[s].Over), Inst = Median(f[s].Inst);
    printf("  %-17s step over %6.2f ms (x%.2f), instruction step %6.2f ms (x%.2f)", kWatchSets[s].sName, Over, Over / Over0, Inst,
           Inst / Inst0);
    // The live set against the same set with the refresh off just before it.
    if (kWatchSets[s].Hz)
      printf(", against Off x%.2f / x%.2f", Over / Median(f[s - 1].Over), Inst / Median(f[s - 1].Inst));
    printf("; %.1f probe memory reads a step, %d live refreshes in %d steps\n", double(f[s].StepReads) / f[s].Steps,
           f[s].StepRefreshes, f[s].Steps);
  }
  for (int s = 0; s < kSetCount; ++s)
    printf("  1 s run, %-17s live timer on in %d of %d runs, %.1f refreshes of the first row and %.1f probe memory reads a "
           "second; longest event loop stall %.1f ms; halt to rows read %.2f ms\n",
           kWatchSets[s].sName, f[s].RunsWithTimer, f[s].Runs, double(f[s].RunRefreshes) / f[s].Runs,
           double(f[s].RunReads) / f[s].Runs, Median(f[s].Stall), Median(f[s].Halt));
  m.ClearExpressions();
  Device()->PostDisconnect();
  DeviceModule::WaitUntilIdle(10000);
  CElfApi::Instance().Close();
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
  // The frame test program runs on the MPS2 machine of both back ends.
  const devtest::BACKEND SimMps2{"sim", "MPS2-AN385", "USB", "firmware/tests/elf/frames-O0.elf", "", "", 0x20010000, true};
  const devtest::BACKEND QemuMps2{"qemu", "MPS2-AN385", "IP", "firmware/tests/elf/frames-O0.elf", "", "", 0x24000000, false};
  for (const devtest::BACKEND* b : {&SimMps2, &QemuMps2}) MeasureStepping(*b, std::max(1, Rounds / 5), 10);
  MeasureOpen(argc > 2 ? QString::fromUtf8(argv[2]) : QStringLiteral("/tmp/large/large-dwarf4.elf"));
  return 0;
}
