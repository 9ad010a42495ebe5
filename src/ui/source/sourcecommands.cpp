// The commands of the source viewer: closing and saving documents, showing a
// location, a line, the PC, finding text and files. Each works on the one
// source window, with or without a screen.
#include "commands/actions.h"
#include "device/bpmodel.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "files/filefinder.h"
#include "log/log.h"
#include "ui/source/sourcewindow.h"

#include <QDir>
#include <QFileInfo>
#include <QMutexLocker>

namespace {

bool Fail(int Id, const QString& sText) {
  SetActionError(Id, sText);
  SetActionResult(Id, -1);
  return false;
}

void Ok(int Id, I64 Result = 0) { SetActionResult(Id, Result); }

QString Arg(int Id, int i = 0) {
  QString s = GetActionArgs(Id).value(i).trimmed();
  if (s.size() >= 2 && s.startsWith(QLatin1Char('"')) && s.endsWith(QLatin1Char('"'))) s = s.mid(1, s.size() - 2);
  return s;
}

CSourceWindow* Window(int Id) {
  CSourceWindow* w = CSourceWindow::Instance();
  if (!w) Fail(Id, QStringLiteral("no source window"));
  return w;
}

// A file named by a command: an open document, else the active one for an
// empty argument.
bool RequireOpen(int Id, CSourceWindow* w, const QString& sName) {
  if (sName.isEmpty() ? w->ActiveDocument() != nullptr : w->IsOpen(sName)) return true;
  return Fail(Id, QStringLiteral("file is not open"));
}

void OnClose(int Id) {
  CSourceWindow* w = Window(Id);
  if (!w || !CheckArgCount(Id, 0)) return;
  const QString s = Arg(Id);
  if (!RequireOpen(Id, w, s)) return;
  if (!w->NotifyUserClose(s)) return void(Fail(Id, QStringLiteral("cancelled")));
  w->Close(s);
  Ok(Id);
}

// Closing several documents: the question for the modified ones first; a
// cancel closes none.
void CloseSeveral(int Id, bool (CSourceWindow::*Ask)(), void (CSourceWindow::*Close)()) {
  CSourceWindow* w = Window(Id);
  if (!w || !CheckArgCount(Id)) return;
  if (!(w->*Ask)()) return void(Fail(Id, QStringLiteral("cancelled")));
  (w->*Close)();
  Ok(Id);
}

void OnSave(int Id) {
  CSourceWindow* w = Window(Id);
  if (!w || !CheckArgCount(Id, 0)) return;
  const QString s = Arg(Id);
  if (!RequireOpen(Id, w, s)) return;
  QString sError;
  if (!w->Save(s, &sError)) return void(Fail(Id, sError));
  Ok(Id);
}

void OnSaveAll(int Id) {
  CSourceWindow* w = Window(Id);
  if (!w || !CheckArgCount(Id)) return;
  QString sError;
  if (!w->SaveAll(&sError)) return void(Fail(Id, sError));
  Ok(Id);
}

// A location from any form a user gives: "file:line", a function or
// symbol, an address.
bool LocationOfAny(const QString& s, CSrcLoc* pLoc) {
  IBreakpointProgram& Prog = CBreakpointsDataModel::Instance().Prog();
  if (s.isEmpty()) return false;
  if (Prog.ParseLocation(s, pLoc) && !pLoc->IsNull()) return true;
  U64 Addr = 0;
  if (!Prog.ParseAddress(s, &Addr) || Addr > 0xFFFFFFFFull) return false;
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  if (!CElfApi::Instance().IsLoaded()) return false;
  *pLoc = DWARF_GetProgramTables().GetLastSrcLoc(U32(Addr & ~1ull));
  return !pLoc->IsNull();
}

void OnViewSource(int Id) {
  CSourceWindow* w = Window(Id);
  if (!w || !CheckArgCount(Id)) return;
  const QString s = Arg(Id);
  CSrcLoc Loc;
  if (LocationOfAny(s, &Loc)) {
    if (!w->SelectLocation(Loc, true)) return void(Fail(Id, QStringLiteral("file not found")));
    return Ok(Id);
  }
  // A file by itself.
  if (!s.isEmpty() && !FileFinder().Resolve(s).isEmpty()) {
    w->Open(s);
    return Ok(Id);
  }
  Fail(Id, QStringLiteral("invalid parameter"));
}

void OnViewLine(int Id) {
  CSourceWindow* w = Window(Id);
  if (!w || !CheckArgCount(Id)) return;
  bool Num = false;
  const int Line = Arg(Id).toInt(&Num, 0);
  if (!Num || Line < 1) return void(Fail(Id, QStringLiteral("invalid parameter")));
  CSourceFile* d = w->ActiveDocument();
  if (!d) return void(Fail(Id, QStringLiteral("file is not open")));
  w->SelectFileLine(d->FilePath, Line, true);
  Ok(Id);
}

void OnViewPC(int Id, bool SelectLine) {
  CSourceWindow* w = Window(Id);
  if (!w || !CheckArgCount(Id)) return;
  if (!w->HasPC()) return void(Fail(Id, QStringLiteral("not connected")));
  if (w->GetPcLoc().IsNull()) return void(Fail(Id, QStringLiteral("no source line at PC")));
  if (SelectLine) w->SelectPcLine();
  else w->ViewPC();
  Ok(Id);
}

void OnOpenInclude(int Id) {
  CSourceWindow* w = Window(Id);
  if (!w || !CheckArgCount(Id, 0)) return;
  QString s = Arg(Id);
  if (s.isEmpty()) s = w->GetFileNameUnderCursor();
  // An include is looked for beside the including file first.
  QString sFound;
  if (CSourceFile* d = w->ActiveDocument()) {
    const QString sBeside = QFileInfo(d->FilePath).dir().filePath(s);
    if (QFileInfo::exists(sBeside)) sFound = sBeside;
  }
  if (sFound.isEmpty()) sFound = FileFinder().Resolve(s);
  if (sFound.isEmpty()) return void(Fail(Id, QStringLiteral("file not found")));
  w->Open(sFound);
  Ok(Id);
}

// File.Find: where the file finder finds a file; the source viewer opens it.
void OnFileFind(int Id) {
  CSourceWindow* w = Window(Id);
  if (!w || !CheckArgCount(Id)) return;
  const QString s = Arg(Id);
  if (s.isEmpty()) return void(Fail(Id, QStringLiteral("invalid parameter")));
  const QString sFound = FileFinder().Resolve(s);
  if (sFound.isEmpty()) return void(Fail(Id, QStringLiteral("file not found")));
  ConsolePrintLine(QFileInfo(sFound).absoluteFilePath());
  if (CFileFinder::ClassOf(sFound) == CFileFinder::FC_SOURCE) w->Open(sFound);
  Ok(Id);
}

void OnFindText(int Id) {
  CSourceWindow* w = Window(Id);
  if (!w || !CheckArgCount(Id)) return;
  const QString s = Arg(Id);
  if (s.isEmpty()) return void(Fail(Id, QStringLiteral("invalid parameter")));
  if (!w->ActiveDocument()) return void(Fail(Id, QStringLiteral("file is not open")));
  if (!w->FindText(s, true)) return void(Fail(Id, QStringLiteral("text not found")));
  Ok(Id);
}

}  // namespace

void SourceCommands::Install() {
  SetCommandSlot(AID_FILE_CLOSE, OnClose);
  SetCommandSlot(AID_FILE_CLOSE_ALL, [](int Id) { CloseSeveral(Id, &CSourceWindow::NotifyUserCloseAll, &CSourceWindow::CloseAll); });
  SetCommandSlot(AID_FILE_CLOSE_ALL_BUT_THIS, [](int Id) {
    CloseSeveral(Id, &CSourceWindow::NotifyUserCloseAllButThis, &CSourceWindow::CloseAllButThis);
  });
  SetCommandSlot(AID_GUI_FILE_CLOSE_ALL_UNEDITED, [](int Id) {
    if (CSourceWindow* w = Window(Id)) w->CloseAllUneditedDocuments(), Ok(Id);
  });
  SetCommandSlot(AID_FILE_SAVE, OnSave);
  SetCommandSlot(AID_FILE_SAVE_ALL, OnSaveAll);
  SetCommandSlot(AID_FILE_FIND, OnFileFind);
  SetCommandSlot(AID_FIND_TEXT, OnFindText);
  SetCommandSlot(AID_VIEW_SOURCE, OnViewSource);
  SetCommandSlot(AID_VIEW_LINE, OnViewLine);
  SetCommandSlot(AID_VIEW_PC, [](int Id) { OnViewPC(Id, false); });
  SetCommandSlot(AID_VIEW_PC_LINE, [](int Id) { OnViewPC(Id, true); });
  SetCommandSlot(AID_SOURCE_OPEN_INCLUDE_FILE, OnOpenInclude);
  SetCommandSlot(AID_GUI_SRC_VIEW_PC, [](int Id) {
    if (CSourceWindow* w = Window(Id)) w->ViewPC(), Ok(Id);
  });
}
