// The window framework offscreen: sorting and filtering through CSortFilter,
// display format commands and their echo, change colours across halts, the
// superseded-PC rule, clearing when hidden, the user-file line, aliases,
// closing a dock by its title bar and the header state's fallback.
#include "commands/actionids.h"
#include "commands/actions.h"
#include "log/console.h"
#include "settings/colors.h"
#include "settings/store.h"
#include "testsupport/commandhost.h"
#include "testsupport/consolelines.h"
#include "testsupport/testapp.h"
#include "ui/framework/dockwindow.h"
#include "ui/framework/modelviewwindow.h"
#include "ui/framework/tableview.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTreeView>
#include <cmath>
#include <map>

namespace {

void WaitFor(const std::function<bool()>& Done, int Ms = 2000) {
  QElapsedTimer t;
  t.start();
  while (!Done() && t.elapsed() < Ms) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

struct ROW {
  const char* Name;
  const char* Value;
  QVariant Key, Key2;
  bool Pinned = false;
};

// Name (text) and Value (number of the given filter kind) columns.
CTableModel* MakeModel(const std::vector<ROW>& Rows, int ValueKind, QObject* pParent) {
  auto* m = new CTableModel(pParent);
  m->SetColumns({"Name", "Value"});
  m->SetColumnFilterKind(1, ValueKind);
  for (const ROW& r : Rows) {
    const U64 Id = m->AddRow(0, {r.Name, r.Value});
    m->SetRole(Id, 1, ROLE_SORT_KEY, r.Key);
    m->SetRole(Id, 1, ROLE_SORT_KEY_2, r.Key2);
    if (r.Pinned) m->SetRole(Id, 0, ROLE_PINNED, true), m->SetRole(Id, 1, ROLE_PINNED, true);
  }
  return m;
}

QStringList Names(const QAbstractItemModel& m) {
  QStringList l;
  for (int r = 0; r < m.rowCount(); ++r) l << m.index(r, 0).data().toString();
  return l;
}

class Framework : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!qApp) NewTestApp<QApplication>();
    SetUiThread();
    ConsoleRingStart();
  }
};

struct SORT_CASE {
  const char* Title;
  std::vector<ROW> Rows;
  int Col;
  const char* ObjectName;
  bool Sortable;
  QStringList Ascending, Descending;
};

TEST_F(Framework, SortingFollowsKeysPinsAndModelRules) {
  const double One = 1.0;
  const std::vector<SORT_CASE> Cases = {
      {"text without case", {{"beta", "", {}, {}}, {"Alpha", "", {}, {}}, {"gamma", "", {}, {}}}, 0, "", true,
       {"Alpha", "beta", "gamma"}, {"gamma", "beta", "Alpha"}},
      {"numeric keys, not texts", {{"a", "10", 10, {}}, {"b", "2", 2, {}}, {"c", "33", 33, {}}}, 1, "", true,
       {"b", "a", "c"}, {"c", "a", "b"}},
      {"doubles within 1e-15 are equal; the second key decides",
       {{"x", "1", One + 1e-16, 2}, {"y", "1", One, 1}, {"z", "0.5", 0.5, 9}}, 1, "", true, {"z", "y", "x"},
       {"x", "y", "z"}},
      {"a missing key falls back on the text", {{"p", "b", 1, {}}, {"q", "a", {}, {}}}, 1, "", true, {"q", "p"},
       {"p", "q"}},
      {"pinned row on top in both orders",
       {{"m", "5", 5, {}}, {"pin", "9", 9, {}, true}, {"k", "1", 1, {}}}, 1, "", true, {"pin", "k", "m"},
       {"pin", "m", "k"}},
      {"call stack keeps its rows", {{"main", "3", 3, {}}, {"Work", "1", 1, {}}, {"leaf", "2", 2, {}}}, 1,
       "CallStackDataModel", true, {"main", "Work", "leaf"}, {"main", "Work", "leaf"}},
      {"an unsortable view keeps its rows", {{"b", "", {}, {}}, {"a", "", {}, {}}}, 0, "", false, {"b", "a"}, {"b", "a"}},
  };
  for (const SORT_CASE& c : Cases) {
    QObject Owner;
    CTableModel* m = MakeModel(c.Rows, FILTER_KIND_NUMBER, &Owner);
    m->setObjectName(c.ObjectName);
    CSortFilter p;
    p.setSourceModel(m);
    p.SetSortable(c.Sortable);
    p.sort(c.Col, Qt::AscendingOrder);
    EXPECT_EQ(Names(p), c.Ascending) << c.Title;
    p.sort(c.Col, Qt::DescendingOrder);
    EXPECT_EQ(Names(p), c.Descending) << c.Title;
  }
}

struct FILTER_CASE {
  const char* Title;
  int Kind;
  int Col;
  const char* Filter;
  QStringList Kept;
};

TEST_F(Framework, FilteringByTextAndRange) {
  const std::vector<ROW> Dec = {{"alpha", "5", 5, {}}, {"Phase", "20", 20, {}}, {"gamma", "21", {}, {}},
                                {"pinned", "99", 99, {}, true}};
  const std::vector<ROW> Hex = {{"r0", "0x0000000F", {}, {}}, {"r1", "0x00000010", {}, {}},
                                {"r2", "0x0000001F", {}, {}}, {"r3", "0x00000100", {}, {}}};
  const std::vector<FILTER_CASE> Cases = {
      {"substring without case", FILTER_KIND_NUMBER, 0, "PH", {"alpha", "Phase", "pinned"}},
      {"decimal range matches by value, not text", FILTER_KIND_NUMBER, 1, "5-20", {"alpha", "Phase", "pinned"}},
      {"open range", FILTER_KIND_NUMBER, 1, "21-", {"gamma", "pinned"}},
      {"one value", FILTER_KIND_NUMBER, 1, "2", {"pinned"}},
      {"no range at all", FILTER_KIND_NUMBER, 1, "abc", {"pinned"}},
      {"hexadecimal range", FILTER_KIND_NUMBER | FILTER_KIND_HEX, 1, "10-1F", {"r1", "r2"}},
      {"hexadecimal with prefix", FILTER_KIND_NUMBER | FILTER_KIND_HEX, 1, "0x100", {"r3"}},
      {"text kind compares texts", FILTER_KIND_TEXT, 1, "0000001", {"r1", "r2"}},
  };
  for (const FILTER_CASE& c : Cases) {
    QObject Owner;
    CTableModel* m = MakeModel(QString(c.Title).contains("hex") || c.Kind == FILTER_KIND_TEXT ? Hex : Dec, c.Kind, &Owner);
    CSortFilter p;
    p.setSourceModel(m);
    p.SetFilterText(c.Col, c.Filter);
    p.invalidate();
    EXPECT_EQ(Names(p), c.Kept) << c.Title;
  }
  // Only top-level rows are filtered: a child stays under a parent that passes.
  CTableModel m;
  m.SetColumns({"Name"});
  const U64 Parent = m.AddRow(0, {"struct s"});
  m.AddRow(Parent, {"member"});
  m.AddRow(0, {"other"});
  CSortFilter p;
  p.setSourceModel(&m);
  p.SetFilterText(0, "struct");
  p.invalidate();
  ASSERT_EQ(p.rowCount(), 1);
  EXPECT_EQ(p.rowCount(p.index(0, 0)), 1);
  int Start = -1, Len = 0;
  EXPECT_TRUE(p.FilterMatch(p.index(0, 0), &Start, &Len));
  EXPECT_EQ(Start, 0);
  EXPECT_EQ(Len, 6);
}

// A table window over a simulated target: each row's value comes from Target
// when the window reads it.
class CTestModel : public CTableModel {
 public:
  std::map<QString, QString>* pTarget = nullptr;
  int Reads = 0;
  bool ReadRow(U64 Id) override {
    ++Reads;
    const QString n = Text(Id, 0);
    FillRow(Id, {n, pTarget->at(n)});
    return true;
  }
};

class CTestWindow : public CModelViewWindow {
 public:
  explicit CTestWindow(const QString& sName, std::map<QString, QString>* pTarget) {
    setObjectName(sName);
    setWindowTitle(sName);
    m_Model.pTarget = pTarget;
    m_Model.SetColumns({"Name", "Value"});
    SetModel(&m_Model);
  }
  CTestModel m_Model;
  int Updates = 0;
  void Update(U32 NewPC) override {
    ++Updates;
    if (m_Model.rowCount() == 0)
      for (const auto& [k, v] : *m_Model.pTarget) m_Model.AddRow(0, {k, QString()});
    CModelViewWindow::Update(NewPC);
  }
};

struct HaltedTarget : Framework {
  void SetUp() override {
    CWindow::SetDevicePcSource([this](U32* p) { return *p = Pc, true; });
    CWindow::SetDebugStateSource([] { return DEBUG_STATE_HALTED; });
  }
  void TearDown() override {
    CWindow::SetDevicePcSource(nullptr);
    CWindow::SetDebugStateSource(nullptr);
  }
  U32 Pc = 0x08000100;
};

TEST_F(HaltedTarget, ChangeLevelsAcrossHaltsAndSelectionColours) {
  std::map<QString, QString> Target = {{"R0", "1"}, {"R1", "7"}};
  CTestWindow w("Registers 1", &Target);
  w.resize(400, 300);
  w.show();
  auto Level = [&](int Row) { return w.Model()->index(Row, 0).data(ROLE_CHANGE_LEVEL).toInt(); };
  auto Halt = [&] {
    w.OnDeviceHaltDone(Pc, HALT_REASON_PLAIN);
    WaitFor([&] { return w.Model()->index(0, 0).data(ROLE_READ_STATE).toInt() == READ_STATE_DONE; });
  };
  Halt();
  ASSERT_EQ(w.Model()->rowCount(), 2);
  EXPECT_EQ(w.Model()->index(0, 1).data().toString(), "1");
  const int ReadsPerHalt = w.m_Model.Reads;
  EXPECT_EQ(ReadsPerHalt, 2) << "one read per row and halt";
  const std::vector<std::pair<QString, int>> Steps = {{"2", 1}, {"3", 2}, {"4", 3}, {"5", 3}, {"5", 0}};
  for (const auto& [Value, Expected] : Steps) {
    Target["R0"] = Value;
    Halt();
    EXPECT_EQ(Level(0), Expected) << "R0 = " << Value.toStdString();
    EXPECT_EQ(Level(1), 0);
  }
  Target["R0"] = "6";
  Halt();
  const QModelIndex v0 = w.Model()->index(0, 1), n0 = w.Model()->index(0, 0), v1 = w.Model()->index(1, 1);
  EXPECT_EQ(v0.data(Qt::ForegroundRole).value<QColor>(), Colors::GetColor(COLOR_CHANGE_LEVEL_1_FG));
  EXPECT_EQ(v0.data(Qt::BackgroundRole).value<QColor>(), Colors::GetColor(COLOR_CHANGE_LEVEL_1_BG));
  EXPECT_EQ(n0.data(Qt::ForegroundRole).value<QColor>(), w.palette().color(QPalette::Text)) << "names do not change";
  EXPECT_EQ(v1.data(Qt::BackgroundRole).value<QColor>(), w.palette().color(QPalette::Base));
  w.View()->selectionModel()->select(w.Proxy()->index(1, 0), QItemSelectionModel::Select | QItemSelectionModel::Rows);
  EXPECT_EQ(v1.data(Qt::BackgroundRole).value<QColor>(), Colors::GetColor(COLOR_SELECTION_HIGHLIGHT));
  EXPECT_EQ(v1.data(Qt::ForegroundRole).value<QColor>(), Colors::GetColor(COLOR_SELECTION_HIGHLIGHT_TEXT));
  w.Model()->ResetChangeMarks();
  EXPECT_EQ(Level(0), 0);
}

TEST_F(HaltedTarget, OldPcDoesNotUpdateAndHiddenWindowClears) {
  std::map<QString, QString> Target = {{"R0", "1"}};
  CTestWindow w("Watch", &Target);
  w.show();
  const int Before = w.Updates;
  w.OnDeviceHaltDone(0x08000200, HALT_REASON_PLAIN);
  EXPECT_EQ(w.Updates, Before) << "a stop that a newer one overtook";
  w.OnDeviceStepped(Pc + 1);
  EXPECT_EQ(w.Updates, Before + 1) << "the PC aligned down to the instruction is the device's";
  WaitFor([&] { return w.Model()->index(0, 1).data().toString() == "1"; });
  ASSERT_EQ(w.Model()->rowCount(), 1);
  w.hide();
  EXPECT_TRUE(w.IsEmpty()) << "flag 4: hidden means cleared";
  w.OnDeviceHaltDone(Pc, HALT_REASON_PLAIN);
  EXPECT_TRUE(w.IsEmpty()) << "a hidden window is not updated";
  w.show();
  WaitFor([&] { return w.Model()->index(0, 1).data().toString() == "1"; });
  EXPECT_EQ(w.Model()->index(0, 1).data().toString(), "1") << "filled again when shown";
  w.SetFlag(WINDOW_FLAG_CLEAR_WHEN_HIDDEN, false);
  w.hide();
  EXPECT_FALSE(w.IsEmpty());
}

TEST_F(Framework, CommandsOfMenuClicksAndTheTitleBarAreEchoed) {
  std::map<QString, QString> Target;
  std::unique_ptr<QMainWindow> pHost(NewCommandHost({AID_WINDOW_SET_DISPLAY_FORMAT, AID_WINDOW_CLOSE}));
  CTestWindow* w = new CTestWindow("Watched Data", &Target);
  auto* pDock = new CDockWindow(w, pHost.get());
  pHost->addDockWidget(Qt::BottomDockWidgetArea, pDock);
  pHost->show();
  SetCommandSlot(AID_WINDOW_SET_DISPLAY_FORMAT, [](int Id) {
    const QStringList a = GetActionArgs(Id);
    I64 v = 0;
    CWindow* p = CWindow::FindWindow(a.value(0));
    if (!p || !FindConstant(a.value(1), &v)) return SetActionError(Id, "unknown window");
    p->SetDisplayFormat(int(v));
  });
  SetCommandSlot(AID_WINDOW_CLOSE, [](int Id) {
    if (CWindow* p = CWindow::FindWindow(GetActionArgs(Id).value(0))) p->Dock()->CloseWindow();
  });
  TakeConsoleLines();
  QSignalSpy Spy(w, &CWindow::DisplayFormatChanged);
  w->DisplayFormatAction(16)->trigger();
  EXPECT_EQ(TakeConsoleLines(), QStringList{"Window.SetDisplayFormat (\"Watched Data\", DISPLAY_FORMAT_HEX);"});
  EXPECT_EQ(w->GetDisplayFormat(), 16);
  EXPECT_TRUE(w->DisplayFormatAction(16)->isChecked());
  ASSERT_EQ(Spy.count(), 1);
  ExecuteCommand("Window.SetDisplayFormat(\"watched data\", DISPLAY_FORMAT_CHAR)");
  EXPECT_EQ(w->GetDisplayFormat(), 8);
  TakeConsoleLines();
  pDock->close();
  EXPECT_EQ(TakeConsoleLines(), QStringList{"Window.Close (\"Watched Data\");"});
  EXPECT_TRUE(pDock->isHidden());
  EXPECT_FALSE(w->IsOpen());
  QStringList Lines;
  w->SaveToLine(Lines);
  EXPECT_TRUE(Lines.isEmpty()) << "a closed window has no line";
  SetCommandSlot(AID_WINDOW_SET_DISPLAY_FORMAT, nullptr);
  SetCommandSlot(AID_WINDOW_CLOSE, nullptr);
}

// A window with one attribute of its own beyond the table's ids.
class CAttrWindow : public CWindow {
 public:
  using CWindow::CWindow;
  QList<int> GetAttributeIds() const override { return CWindow::GetAttributeIds() << 13 << 120; }
  QString GetAttributeName(int Id) const override {
    return Id == 13 ? "Zoom" : Id == 120 ? "TooFar" : CWindow::GetAttributeName(Id);
  }
  QString GetDisplayName() const override { return "Break & Tracepoints"; }
};

TEST_F(Framework, UserFileLineAndAliases) {
  QMainWindow Main;
  auto* w = new CAttrWindow;
  w->SetName("BreakpointWindow");
  auto* pDock = new CDockWindow(w, &Main);
  Main.addDockWidget(Qt::LeftDockWidgetArea, pDock);
  Main.resize(800, 600);
  Main.show();
  w->SetDisplayFormat(16);
  w->SetFlag(WINDOW_FLAG_FILTER_BAR, true);
  w->SetAttribute("Zoom", "7");
  QStringList Lines{"OpenWindow=\"Other\", DockArea=RIGHT"};
  w->SaveToLine(Lines);
  ASSERT_EQ(Lines.size(), 2);
  EXPECT_TRUE(Lines[1].startsWith("OpenWindow=\"BreakpointWindow\", DockArea=LEFT, x=")) << Lines[1].toStdString();
  EXPECT_TRUE(Lines[1].contains(", FilterBarShown=1, DisplayFormat=16, Zoom=7"));
  EXPECT_FALSE(Lines[1].contains("TooFar"));

  CAttrWindow Fresh;
  Fresh.SetName("BreakpointWindow");
  ASSERT_TRUE(Fresh.LoadFromLines(Lines));
  EXPECT_EQ(Fresh.FindOwnLine(Lines), 1);
  EXPECT_EQ(Fresh.GetAttribute(WIN_ATTR_DOCK_AREA, true), DOCK_AREA_LEFT);
  for (int Id : {WIN_ATTR_X, WIN_ATTR_Y, WIN_ATTR_W, WIN_ATTR_H})
    EXPECT_EQ(Fresh.GetAttribute(Id, true), w->GetAttribute(Id, false)) << Id;
  EXPECT_EQ(Fresh.GetDisplayFormat(), 16);
  EXPECT_TRUE(Fresh.TestFlag(WINDOW_FLAG_FILTER_BAR));
  EXPECT_EQ(Fresh.GetAttribute(13, true), 7);
  EXPECT_FALSE(Fresh.SetAttribute("TooFar", "1")) << "ids above 99 are refused";
  EXPECT_FALSE(Fresh.SetAttribute("DockArea", "nowhere"));
  for (const auto& [Text, Area] : std::vector<std::pair<QString, int>>{
           {"BOTTOM", 8}, {"Qt::rightDockWidgetArea", 2}, {"left", 1}, {"floating", 22}, {"xyz", -1}})
    EXPECT_EQ(CWindow::ParseDockArea(Text), Area) << Text.toStdString();
  // An alias in the line finds the window too.
  CAttrWindow ByAlias;
  ByAlias.SetName("BreakpointWindow");
  EXPECT_TRUE(ByAlias.LoadFromLines({"OpenWindow=\"Breakpoints\", DisplayFormat=DISPLAY_FORMAT_DEC"}));
  EXPECT_EQ(ByAlias.GetDisplayFormat(), 10);

  EXPECT_TRUE(w->IsMatched("  breakpoints "));
  EXPECT_TRUE(w->IsMatched("Breakpoints/Tracepoints"));
  EXPECT_TRUE(w->IsMatched("breakpointwindow"));
  EXPECT_FALSE(w->IsMatched("Memory"));
  EXPECT_EQ(CWindow::FindWindow("Data Breakpoints"), w);
  EXPECT_EQ(CWindow::ResolveAlias("Memory Content2"), "Memory 2");
  EXPECT_EQ(CWindow::ResolveAlias("memory3"), "Memory 3");
  EXPECT_EQ(CWindow::ResolveAlias("Threads"), "Tasks");
  CWindow Mem;
  Mem.setWindowTitle("Memory 2");
  EXPECT_TRUE(Mem.IsMatched("Memory Content2"));
  EXPECT_FALSE(Mem.IsMatched("Memory Content1"));
}

TEST_F(Framework, HeaderStateAndEmptyText) {
  std::map<QString, QString> Target = {{"a", "1"}};
  CTestWindow w("Locals", &Target);
  w.show();
  w.Header()->resizeSection(0, 123);
  w.Header()->setSortIndicator(1, Qt::DescendingOrder);
  w.SaveHeaderState();
  w.Header()->resizeSection(0, 50);
  ASSERT_TRUE(w.LoadHeaderState());
  EXPECT_EQ(w.Header()->sectionSize(0), 123);
  // Garbage, and a state that hides every column: the default layout.
  QHeaderView AllHidden(Qt::Horizontal);
  AllHidden.setModel(w.Model());
  AllHidden.hideSection(0);
  AllHidden.hideSection(1);
  for (const QByteArray& Bad : {QByteArray("\x00\x01garbage", 9), AllHidden.saveState()}) {
    Settings::SetValue(CModelViewWindow::HeaderSettingsKey("Locals"), Bad);
    EXPECT_FALSE(w.LoadHeaderState());
    EXPECT_EQ(w.Header()->count(), 2);
    EXPECT_FALSE(w.Header()->isSectionHidden(0) || w.Header()->isSectionHidden(1));
  }
  // The user file's TableHeader line.
  w.Header()->resizeSection(0, 140);
  w.Header()->moveSection(1, 0);
  const QString sLine = w.HeaderLine();
  EXPECT_TRUE(sLine.startsWith("TableHeader=\"Locals\", SortCol=")) << sLine.toStdString();
  EXPECT_TRUE(sLine.contains("VisibleCols=1 0, ColWidths=140 "));
  w.ResetHeader();
  ASSERT_TRUE(w.ParseHeaderLine(sLine));
  EXPECT_EQ(w.Header()->logicalIndex(0), 1);
  EXPECT_EQ(w.Header()->sectionSize(0), 140);
  EXPECT_FALSE(w.ParseHeaderLine("TableHeader=\"Locals\", VisibleCols=7"));
  EXPECT_FALSE(w.ParseHeaderLine("TableHeader=\"Other\", VisibleCols=0"));

  CWindow Empty;
  EXPECT_EQ(Empty.GetEmptyWindowText(DEBUG_STATE_RUNNING), "Program running");
  EXPECT_EQ(Empty.GetEmptyWindowText(DEBUG_STATE_NO_CONNECTION), "No target connection");
  EXPECT_EQ(Empty.GetEmptyWindowText(DEBUG_STATE_HALTED), "No data");
}

TEST_F(Framework, ColumnFitTakesNinetyPercentOfTheRows) {
  QVector<int> w(20, 100);
  w[0] = 1000;
  w[1] = 900;
  EXPECT_EQ(CModelViewWindow::FitWidth(w, 40), 100) << "two very long rows do not widen the column";
  EXPECT_EQ(CModelViewWindow::FitWidth(w, 160), 160) << "never below the header";
  EXPECT_EQ(CModelViewWindow::FitWidth({20, 25}, 60), 25) << "narrow columns take the measured width";
  EXPECT_EQ(CModelViewWindow::FitWidth({5000}, 10), 1995) << "beyond the histogram";
  EXPECT_EQ(CSortFilter::RangeText("1", "1"), "1");
  double a, b;
  EXPECT_TRUE(CSortFilter::ParseRange("1ms-2 ms", FILTER_KIND_NUMBER | FILTER_KIND_TIME, &a, &b));
  EXPECT_EQ(a, 1e6);
  EXPECT_EQ(b, 2e6);
}

}  // namespace
