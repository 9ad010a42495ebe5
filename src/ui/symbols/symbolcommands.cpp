#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/device.h"
#include "project/project.h"
#include "stack/callstack.h"
#include "ui/framework/viewexport.h"
#include "ui/symbols/framedata.h"
#include "ui/symbols/functionswindow.h"
#include "ui/symbols/symbolsmodule.h"
#include "ui/symbols/symbolswindow.h"

#include <QApplication>

namespace {

std::function<void(const QString&)>& ShowHook() {
  static std::function<void(const QString&)> s;
  return s;
}

CWatchDataModel& W() { return CWatchDataModel::Instance(); }

bool Fail(int Id, const QString& sWord) {
  SetActionError(Id, sWord);
  SetActionResult(Id, -1);
  return false;
}

QString Arg(int Id, int i) {
  QString s = GetActionArgs(Id).value(i).trimmed();
  if (s.size() >= 2 && s.startsWith('"') && s.endsWith('"')) s = s.mid(1, s.size() - 2);
  return s;
}

// The root row of a watched expression: the selected one if it holds the
// text, else the first.
int WatchedRow(int Id, const QString& sExpr) {
  const int r = W().RowOfText(sExpr);
  if (r < 0) Fail(Id, QStringLiteral("expression not watched: ") + sExpr);
  return r;
}

bool ParseNumber(const QString& s, I64* pValue) {
  bool Ok = false;
  if (s.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) *pValue = I64(s.mid(2).toULongLong(&Ok, 16));
  else *pValue = s.toLongLong(&Ok);
  return Ok || FindConstant(s, pValue);
}

void OnWatchAdd(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = Arg(Id, 0);
  if (s.isEmpty()) return void(Fail(Id, QStringLiteral("empty expression")));
  W().AddExpression(s);
  SetActionResult(Id, 0);
}

void OnWatchInsert(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString e = Arg(Id, 0), b = Arg(Id, 1);
  if (e.isEmpty()) return void(Fail(Id, QStringLiteral("empty expression")));
  W().InsertBefore(e, b);
  SetActionResult(Id, 0);
}

void OnWatchRemove(int Id) {
  if (!CheckArgCount(Id)) return;
  const int r = WatchedRow(Id, Arg(Id, 0));
  if (r < 0) return;
  W().RemoveExpression(r);
  SetActionResult(Id, 0);
}

void OnEditRefreshRate(int Id) {
  if (GetActionArgs(Id).size() != 2) return void(Fail(Id, QStringLiteral("wrong parameter count")));
  I64 Hz = 0;
  if (!ParseNumber(Arg(Id, 1), &Hz)) return void(Fail(Id, QStringLiteral("invalid parameter")));
  const int r = WatchedRow(Id, Arg(Id, 0));
  if (r < 0) return;
  W().SetRate(r, int(qBound(I64(-1), Hz, I64(1000))));
  SetActionResult(Id, 0);
}

void OnEditMemZone(int Id) {
  if (GetActionArgs(Id).size() != 2) return void(Fail(Id, QStringLiteral("wrong parameter count")));
  const int r = WatchedRow(Id, Arg(Id, 0));
  if (r < 0) return;
  W().SetZone(r, Arg(Id, 1));
  SetActionResult(Id, 0);
}

void OnEditDisplayFormat(int Id) {
  if (GetActionArgs(Id).size() != 2) return void(Fail(Id, QStringLiteral("wrong parameter count")));
  I64 f = 0;
  if (!ParseNumber(Arg(Id, 1), &f) || (f != 0 && f != 2 && f != 8 && f != 10 && f != 16))
    return void(Fail(Id, QStringLiteral("invalid display format")));
  const int r = WatchedRow(Id, Arg(Id, 0));
  if (r < 0) return;
  W().SetFormat(r, int(f));
  SetActionResult(Id, 0);
}

// View.Data: a global shows in the global data window, anything else is
// watched.
void OnViewData(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = Arg(Id, 0);
  if (s.isEmpty()) return void(Fail(Id, QStringLiteral("empty expression")));
  CGlobalsDataModel& g = CGlobalsDataModel::Instance();
  if (!g.IsBuilt()) g.Init();
  if (g.RowOfName(s) >= 0) {
    if (ShowHook()) ShowHook()(QStringLiteral("Global Data"));
    return SetActionResult(Id, 0);
  }
  if (W().RowOfText(s) < 0) W().AddExpression(s);
  if (ShowHook()) ShowHook()(QStringLiteral("Watched Data"));
  SetActionResult(Id, 0);
}

void OnFind(int Id, int Mode) {
  const QString s = Arg(Id, 0);
  if (!s.isEmpty()) {
    if (CFindSymbolWidget::ShowSymbol(Mode, s) < 0) return void(Fail(Id, QStringLiteral("unknown symbol: ") + s));
    return SetActionResult(Id, 0);
  }
  if (!qobject_cast<QApplication*>(QCoreApplication::instance()) || !QApplication::activeWindow())
    return void(Fail(Id, QStringLiteral("no window")));
  auto* w = new CFindSymbolWidget(Mode, QApplication::activeWindow());
  w->show();
  SetActionResult(Id, 0);
}

// The locals of the selected frame, the call stack unwound far enough.
QAbstractItemModel* LocalRows() {
  CLocalsDataModel& m = CLocalsDataModel::Instance();
  CCallStack& s = CCallStack::Instance();
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected() || !d->HaltReported()) {
    m.Reset();
    return &m;
  }
  if (s.FrameCount() <= qMax(1, s.SelectedFrame() + 1) && !s.IsUnwinding()) s.UnwindAll(10000);
  m.ShowFrame(-1);
  m.ReadAllNow();
  return &m;
}

}  // namespace

namespace SymbolsModule {

void SetShowWindowHook(const std::function<void(const QString&)>& Fn) { ShowHook() = Fn; }

void Install() {
  static bool s_Done = false;
  if (s_Done) return;
  s_Done = true;
  SetCommandSlot(AID_WATCH_ADD, OnWatchAdd);
  SetCommandSlot(AID_WATCH_INSERT, OnWatchInsert);
  SetCommandSlot(AID_WATCH_REMOVE, OnWatchRemove);
  SetCommandSlot(AID_EDIT_REFRESH_RATE, OnEditRefreshRate);
  SetCommandSlot(AID_EDIT_MEM_ZONE, OnEditMemZone);
  SetCommandSlot(AID_EDIT_DISPLAY_FORMAT, OnEditDisplayFormat);
  SetCommandSlot(AID_VIEW_DATA, OnViewData);
  SetCommandSlot(AID_FIND_FUNC, [](int Id) { OnFind(Id, 0); });
  SetCommandSlot(AID_FIND_SYMBOL, [](int Id) { OnFind(Id, 1); });
  WIN_RegisterViewModel(QStringLiteral("Watched Data"), [] {
    W().Reevaluate();
    W().ReadAllNow();
    return &W();
  });
  WIN_RegisterViewModel(QStringLiteral("Local Data"), LocalRows);
  WIN_RegisterViewModel(QStringLiteral("Global Data"), [] {
    CGlobalsDataModel& g = CGlobalsDataModel::Instance();
    if (!g.IsBuilt()) g.Init();
    g.ReadAllNow();
    return &g;
  });
  RegisterUserFileSection({QStringLiteral("WatchedExpression"), 16 /* DISABLE_SAVE_EXPRESSIONS */, [] { return W().WriteUserLines(); },
                           [](const QStringList& Lines) { W().ReadUserLines(Lines); }});
  // A project's expressions go with it; the next one brings its own.
  QObject::connect(&Project(), &CProject::Closed, [] {
    W().ClearExpressions();
    CLocalsDataModel::Instance().Reset();
  });
}

}  // namespace SymbolsModule

QWidget* SYM_CreateWatchWindow(QWidget* pParent, int) { return new CWatchWindow(pParent); }
QWidget* SYM_CreateLocalsWindow(QWidget* pParent, int) { return new CLocalsWindow(pParent); }
QWidget* SYM_CreateGlobalsWindow(QWidget* pParent, int) { return new CGlobalsWindow(pParent); }
QWidget* SYM_CreateFunctionsWindow(QWidget* pParent, int) { return new CFunctionsWindow(pParent); }
