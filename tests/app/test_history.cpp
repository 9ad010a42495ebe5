// Console input history: one entry per distinct line, Up and Down wrap.
#include "ui/shell/consolewindow.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <memory>

#include "testsupport/testapp.h"

namespace {

TEST(ConsoleHistory, KeysAndDuplicates) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  const std::unique_ptr<QApplication> App(NewTestApp<QApplication>());
  CConsoleInput In;
  In.AddToHistory("a");
  In.AddToHistory("b");
  In.AddToHistory("c");
  In.AddToHistory("a");  // already there: does not move to the front
  EXPECT_EQ(In.History(), QStringList({"c", "b", "a"}));
  In.HistoryUp();
  EXPECT_EQ(In.text(), "c");
  In.HistoryUp();
  EXPECT_EQ(In.text(), "b");
  In.HistoryUp();
  In.HistoryUp();  // behind the oldest: the newest again
  EXPECT_EQ(In.text(), "c");
  In.AddToHistory("d");  // resets the cursor
  In.HistoryDown();      // starts at the oldest
  EXPECT_EQ(In.text(), "a");
  In.HistoryDown();
  EXPECT_EQ(In.text(), "b");
  In.HistoryDown();
  In.HistoryDown();
  EXPECT_EQ(In.text(), "d");
  In.HistoryDown();  // behind the newest: the oldest again
  EXPECT_EQ(In.text(), "a");
}

}  // namespace
