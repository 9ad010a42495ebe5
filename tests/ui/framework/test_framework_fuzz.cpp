// Random and mutated input for the framework's parsers under ASan/UBSan: the
// window's user-file line, the TableHeader line, the header state bytes of
// the settings and the numeric filter ranges. None may crash, hang or leave
// a window without a visible column.
#include "testsupport/randomtext.h"
#include "testsupport/testapp.h"
#include "ui/framework/modelviewwindow.h"
#include "ui/framework/tableview.h"

#include <gtest/gtest.h>

#include <QApplication>

namespace {

TEST(FrameworkFuzz, UserFileLinesHeaderStatesAndRanges) {
  if (!qApp) NewTestApp<QApplication>();
  CTableModel Model;
  Model.SetColumns({"Name", "Value", "Type"});
  for (int i = 0; i < 5; ++i) Model.AddRow(0, {QString::number(i), QString::number(i * 7), "int"});
  CModelViewWindow w;
  w.setObjectName("Fuzz");
  w.setWindowTitle("Fuzz");
  w.SetModel(&Model);
  const QByteArray Good = w.HeaderState();
  testsupport::RandomText r(
      {"OpenWindow=", "\"Fuzz\"", "DockArea=", "LEFT", "FLOATING", ", ", "x=", "w=", "-1", "99999999999", "FilterBarShown=",
       "DisplayFormat=", "DISPLAY_FORMAT_HEX", "TableHeader=", "SortCol=", "SortOrder=", "VisibleCols=", "ColWidths=", "0 1 2",
       "2 2", "=", ",", " ", "0x", "-", "ms", "1e308"},
      {"OpenWindow=\"Fuzz\", DockArea=BOTTOM, x=1, y=2, w=3, h=4, FilterBarShown=1, DisplayFormat=16",
       "TableHeader=\"Fuzz\", SortCol=1, SortOrder=1, VisibleCols=2 0 1, ColWidths=50 60 70"},
      20261126);
  for (int i = 0; i < 3000; ++i) {
    const std::string s = i % 2 ? r.Mutate(r.Seed(), 6, testsupport::RandomText::Byte)
                                : r.Text(1, 14, 4, testsupport::RandomText::Character);
    const QString q = QString::fromUtf8(s.data(), int(s.size()));
    w.LoadFromLines({q});
    w.ParseHeaderLine(q);
    double a, b;
    CSortFilter::ParseRange(q, FILTER_KIND_NUMBER | (i % 3 ? FILTER_KIND_HEX : FILTER_KIND_TIME), &a, &b);
    QByteArray State = Good;
    for (int k = 0; k < 1 + int(r.Below(8)); ++k) State[int(r.Below(size_t(State.size())))] = char(r.Next());
    w.SetHeaderState(State);
    int Visible = 0;
    for (int c = 0; c < w.Header()->count(); ++c) Visible += w.Header()->isSectionHidden(c) ? 0 : 1;
    ASSERT_GT(Visible, 0) << "input " << i << ": " << s;
    ASSERT_EQ(w.Header()->count(), 3);
  }
}

}  // namespace
