// The source viewer's documents without a target: opening modes, a missing
// file, edits kept safe (atomic save, line endings, the reload question, the
// close question), the edit restriction, the user file's records, the file
// commands and the program's file numbers and row addresses.
#include "commands/actions.h"
#include "device/headless_app.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "files/filefinder.h"
#include "log/messagebox.h"
#include "settings/ids.h"
#include "settings/sysvars.h"
#include "testsupport/consolelines.h"
#include "testsupport/testapp.h"
#include "testsupport/tools.h"
#include "ui/source/sourceeditor.h"
#include "ui/source/sourcewindow.h"

#include <QApplication>
#include <QComboBox>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QTabBar>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

QString ReadAll(const QString& sPath) {
  QFile f(sPath);
  return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QStringLiteral("<missing>");
}

void Write(const QString& sPath, const QByteArray& b) {
  QFile f(sPath);
  ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
  f.write(b);
}

class SourceWindow : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QApplication>();
    InstallHeadlessDeviceApp();
    SourceCommands::Install();
  }
  void SetUp() override {
    ASSERT_TRUE(Dir.isValid());
    w = std::make_unique<CSourceWindow>();
    w->resize(800, 600);
    w->show();
    for (const char* s : {"a.c", "b.h", "c.txt"}) Write(Path(s), QByteArray("int ") + s[0] + ";\n/* two */\nend\n");
    SysVars::SetValue(PREF_RESTRICT_SRC_EDIT, 0);
  }
  void TearDown() override {
    CSourceDocuments::SetReloadQuestion(nullptr);
    CSourceDocuments::SetEolChooser(nullptr);
  }
  QString Path(const char* s) const { return Dir.filePath(QLatin1String(s)); }
  // Types into the active document as a user would.
  void Type(const QString& s) {
    w->GetTextEditor()->setFocus();
    QTest::keyClicks(w->GetTextEditor(), s);
  }
  // 0 when the command ran without an error line, else -1.
  static int Exec(const QString& s) {
    const int Errors = GetCommandErrorCount();
    return ExecuteCommand(s) == 1 && GetCommandErrorCount() == Errors ? 0 : -1;
  }
  QTemporaryDir Dir;
  std::unique_ptr<CSourceWindow> w;
};

TEST_F(SourceWindow, OpeningModesAndMissingFiles) {
  w->Open(Path("a.c"));
  w->Open(Path("b.h"), DOC_OPEN_APPEND);
  w->Open(Path("a.c"));  // a second time only switches tabs
  EXPECT_EQ(w->GetFilePaths(), QStringList({Path("a.c"), Path("b.h")}));
  EXPECT_EQ(w->ActiveDocument()->FilePath, Path("a.c"));
  w->Open(Path("c.txt"), DOC_OPEN_LOAD_ONLY);
  EXPECT_EQ(w->GetFileCount(), 2);
  EXPECT_TRUE(w->Documents().Find("c.txt"));
  w->Open(Path("c.txt"), 7);  // any other mode: in front, the current tab stays
  EXPECT_EQ(w->GetFilePaths().first(), Path("c.txt"));
  EXPECT_EQ(w->ActiveDocument()->FilePath, Path("a.c"));

  CSourceFile* d = w->Open(Path("gone.c"));
  ASSERT_TRUE(d);
  EXPECT_FALSE(d->Exists);
  EXPECT_EQ(w->GetTextEditor()->RowCount(), 0);
  EXPECT_EQ(Exec(QStringLiteral("File.Close(\"gone.c\")")), 0);
  TakeConsoleLines();
  EXPECT_EQ(Exec(QStringLiteral("File.Close(\"gone.c\")")), -1);
  EXPECT_TRUE(TakeConsoleLines().join('\n').contains("file is not open"));
  EXPECT_EQ(Exec(QStringLiteral("View.Line(2)")), 0);
  EXPECT_EQ(w->GetCursorTextPos().y(), 2);
  EXPECT_EQ(Exec(QStringLiteral("Find.Text(\"end\")")), 0);
  EXPECT_EQ(w->GetCursorTextPos().y(), 3);
  EXPECT_EQ(Exec(QStringLiteral("Find.Text(\"nowhere\")")), -1);
  EXPECT_EQ(Exec(QStringLiteral("File.Find(\"b.h\")")), -1) << "not on any search path";
  FileFinder().AddSearchPath(Dir.path());
  TakeConsoleLines();
  EXPECT_EQ(Exec(QStringLiteral("File.Find(\"b.h\")")), 0);
  EXPECT_TRUE(TakeConsoleLines().contains(Path("b.h")));
  FileFinder().Reset();
  EXPECT_EQ(Exec(QStringLiteral("File.CloseAll()")), 0);
  EXPECT_EQ(w->GetFileCount(), 0);
}

TEST_F(SourceWindow, EditsAreSavedAtomicallyAndNeverLost) {
  w->Open(Path("a.c"));
  // Editing is refused silently where the setting says so.
  SysVars::SetValue(PREF_RESTRICT_SRC_EDIT, 2);
  Type("x");
  EXPECT_FALSE(w->ActiveDocument()->HasUnsavedChanges);
  SysVars::SetValue(PREF_RESTRICT_SRC_EDIT, 1);  // only while connected: not now
  Type("XY");
  EXPECT_TRUE(w->IsDocumentModified(w->ActiveDocument()->FileNo));
  EXPECT_EQ(w->GetDocsWithUnsavedChangesFileNames(), QStringList{"a.c"});
  EXPECT_TRUE(w->TabBar()->tabText(0).endsWith('*'));

  // The old file is replaced, not overwritten: a second name for it keeps
  // the old text.
  ASSERT_EQ(::link(qPrintable(Path("a.c")), qPrintable(Path("a.old"))), 0);
  EXPECT_EQ(Exec(QStringLiteral("File.Save()")), 0);
  EXPECT_TRUE(ReadAll(Path("a.c")).startsWith("XYint a;")) << ReadAll(Path("a.c")).toStdString();
  EXPECT_TRUE(ReadAll(Path("a.old")).startsWith("int a;"));
  EXPECT_FALSE(w->HasDocumentWithUnsavedChanges());

  // Mixed line endings ask for one form.
  Write(Path("b.h"), "one\r\ntwo\nthree\n");
  w->Open(Path("b.h"));
  Type("0");
  CSourceDocuments::SetEolChooser([](const QString&) { return SRC_EOL_CRLF; });
  EXPECT_EQ(Exec(QStringLiteral("File.Save(\"b.h\")")), 0);
  EXPECT_EQ(ReadAll(Path("b.h")), "0one\r\ntwo\r\nthree\r\n");

  // A change on disk: reloaded when the document has no edits ...
  static int s_Asked;
  s_Asked = 0;
  CSourceDocuments::SetReloadQuestion([](const QString&, bool) { return ++s_Asked, true; });
  QTest::qWait(1100);  // file times have a resolution of a second on some file systems
  Write(Path("b.h"), "outside\n");
  w->CheckDiskChanges();
  EXPECT_EQ(s_Asked, 1);
  EXPECT_EQ(w->GetDocText("b.h"), "outside\n");
  w->CheckDiskChanges();
  EXPECT_EQ(s_Asked, 1) << "asked once for each change";
  // ... and in batch mode the edits win over the disk.
  CSourceDocuments::SetReloadQuestion(nullptr);
  w->GetTextEditor()->SetCursorTextPos(QPoint(0, 1));
  Type("mine ");
  QTest::qWait(1100);
  Write(Path("b.h"), "outside again\n");
  TakeConsoleLines();
  w->CheckDiskChanges();
  EXPECT_TRUE(TakeConsoleLines().join('\n').contains("[box] Reload Source File:"));
  EXPECT_TRUE(w->GetDocText("b.h").startsWith("mine outside")) << w->GetDocText("b.h").toStdString();

  // Closing asks; batch mode's answer saves, so the edit reaches the file.
  EXPECT_EQ(Exec(QStringLiteral("File.Close(\"b.h\")")), 0);
  EXPECT_TRUE(ReadAll(Path("b.h")).startsWith("mine outside"));
  EXPECT_FALSE(w->IsOpen("b.h"));
}

TEST_F(SourceWindow, OpenDocumentRecordsRoundTrip) {
  w->Open(Path("a.c"));
  w->Open(Path("b.h"), DOC_OPEN_APPEND);
  w->SelectFileLine(Path("a.c"), 3, false);
  const QStringList Lines = w->WriteDocumentLines();
  ASSERT_EQ(Lines.size(), 2);
  EXPECT_EQ(Lines[0], QStringLiteral("OpenDocument=\"a.c\", FilePath=\"%1\", Line=3").arg(Path("a.c")));
  CSourceWindow Other;
  Other.ReadDocumentLines(Lines + QStringList{"OpenDocument=\"broken\", Line=4"});
  EXPECT_EQ(Other.GetFilePaths(), w->GetFilePaths());
  EXPECT_EQ(Other.Documents().Find("a.c")->Line, 3);
}

TEST_F(SourceWindow, ProgramFilesHaveTheirNumbersAndRowAddresses) {
  DWARF_Install();
  const QString sElf = QStringLiteral(TAVIT_SOURCE_DIR "/examples/demo/demo.elf");
  ASSERT_EQ(CElfApi::Instance().Load(sElf), 0);
  FileFinder().AddPathSubstitute(QStringLiteral("/tavit"), QStringLiteral(TAVIT_SOURCE_DIR));
  const std::string Nm = RunToolOutput("arm-none-eabi-nm " + sElf.toStdString() + " | grep ' T main$'");
  ASSERT_FALSE(Nm.empty());
  const U32 Main = U32(std::stoul(Nm, nullptr, 16));
  const std::string Where = RunToolOutput("arm-none-eabi-addr2line -e " + sElf.toStdString() + QStringLiteral(" 0x%1").arg(Main, 0, 16).toStdString());
  const int MainLine = std::stoi(Where.substr(Where.rfind(':') + 1));
  // The halt's view: the file of main opens with its line under the cursor.
  w->Update(Main);
  CSourceFile* d = w->ActiveDocument();
  ASSERT_TRUE(d && d->Exists);
  EXPECT_EQ(d->FilePath, QStringLiteral(TAVIT_SOURCE_DIR "/firmware/sim/demo.c"));
  EXPECT_EQ(d->DebugPath, QString::fromStdString(Where.substr(0, Where.rfind(':'))));
  EXPECT_EQ(w->GetPcLoc().line, U32(MainLine));
  EXPECT_EQ(w->GetCursorTextPos().y(), MainLine);
  CSourceEditor* e = w->GetTextEditor();
  const int Row = e->RowOfDocLine(MainLine);
  EXPECT_TRUE(w->IsPcRow(Row));
  EXPECT_EQ(w->SidebarIcon(Row), 10);
  // Every row with an address: the first address of its line.
  int WithCode = 0;
  for (int r = 0; r < e->RowCount(); ++r) {
    if (e->RowAddr(r) == ~0ull) continue;
    ++WithCode;
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    EXPECT_EQ(I64(e->RowAddr(r)), DWARF_GetProgramTables().GetFirstLocAddress(CSrcLoc(d->FileNo, U32(e->DocLineOfRow(r)))));
  }
  EXPECT_GT(WithCode, 10);
  // The scope box names the function of the cursor.
  EXPECT_EQ(w->ScopeBox()->currentText(), "main") << w->ScopeBox()->count() << " entries";
  // The same file by another spelling is the same document.
  w->Open(d->DebugPath);
  EXPECT_EQ(w->GetFileCount(), 1);
  CElfApi::Instance().Close();
  FileFinder().Reset();
}

}  // namespace
