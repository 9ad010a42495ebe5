// Window.Export: the rows of a registered window model, through the command
// slot to a file, and to the console.
#include "commands/actionids.h"
#include "commands/actions.h"
#include "log/console.h"
#include "testsupport/consolelines.h"
#include "testsupport/testapp.h"
#include "ui/framework/viewexport.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QApplication>
#include <QStandardItemModel>
#include <QTemporaryDir>

namespace {

// Two top rows, the first with a child and a grandchild; a tab and a line
// break inside texts.
QStandardItemModel* MakeModel() {
  auto* m = new QStandardItemModel(0, 2);
  m->setHorizontalHeaderLabels({"Function", "Location"});
  QList<QStandardItem*> a{new QStandardItem("main"), new QStandardItem("main.c:\t12")};
  QList<QStandardItem*> b{new QStandardItem("Work"), new QStandardItem("work.c:3\n")};
  QList<QStandardItem*> c{new QStandardItem("leaf"), new QStandardItem("")};
  m->appendRow(a);
  a[0]->appendRow(b);
  b[0]->appendRow(c);
  m->appendRow({new QStandardItem("Reset_Handler"), new QStandardItem("0x08000100")});
  return m;
}

const QStringList kExpected = {"Function\tLocation", "main\tmain.c: 12", "  Work\twork.c:3 ", "    leaf\t",
                               "Reset_Handler\t0x08000100"};

TEST(WindowExport, RowsToAFileAndToTheConsole) {
  if (!qApp) NewTestApp<QApplication>();
  SetUiThread();
  ConsoleRingStart();
  std::unique_ptr<QStandardItemModel> pModel(MakeModel());
  WIN_RegisterViewModel("Call Stack", [&] { return pModel.get(); });
  WIN_InstallExportCommand();
  EXPECT_EQ(WIN_ModelLines(pModel.get()), kExpected);

  QTemporaryDir dir;
  const QString sPath = dir.filePath("stack.txt");
  SetActionArgs(AID_WINDOW_EXPORT, {"call stack", sPath});
  RunCommandSlot(AID_WINDOW_EXPORT);
  EXPECT_EQ(GetActionError(AID_WINDOW_EXPORT), "");
  QFile f(sPath);
  ASSERT_TRUE(f.open(QIODevice::ReadOnly));
  EXPECT_EQ(QString::fromUtf8(f.readAll()), kExpected.join('\n') + '\n');

  TakeConsoleLines();
  QString sErr;
  ASSERT_EQ(WIN_Export("Call Stack", "-", &sErr), 0) << sErr.toStdString();
  EXPECT_EQ(TakeConsoleLines().join('\n'), kExpected.join('\n'));

  // A window is also found by the alias of its name.
  WIN_RegisterViewModel("Registers 1", [&] { return pModel.get(); });
  ASSERT_EQ(WIN_Export("Registers", "-", &sErr), 0) << sErr.toStdString();
  EXPECT_EQ(TakeConsoleLines().join('\n'), kExpected.join('\n'));
  WIN_UnregisterViewModel("Registers 1");

  // Unknown window, unwritable path: an error, nothing written.
  EXPECT_EQ(WIN_Export("Nonesuch", sPath, &sErr), -1);
  EXPECT_EQ(sErr, "invalid parameter: Nonesuch");
  EXPECT_EQ(WIN_Export("Call Stack", dir.filePath("no/such/dir/x.txt"), &sErr), -1);
  EXPECT_TRUE(sErr.startsWith("Cannot write")) << sErr.toStdString();
  WIN_UnregisterViewModel("CALL STACK");
  EXPECT_TRUE(WIN_ExportableWindows().isEmpty());
}

}  // namespace
