#include "ui/source/sourcedocs.h"

#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "files/filefinder.h"
#include "log/log.h"
#include "log/messagebox.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMessageBox>
#include <QMutexLocker>
#include <QPushButton>
#include <QSaveFile>

namespace {

SRC_EOL_FORMAT (*g_pEolChooser)(const QString&) = nullptr;
bool (*g_pReloadQuestion)(const QString&, bool) = nullptr;

SRC_EOL_FORMAT AskEolFormat(const QString& sFileName) {
  if (g_pEolChooser) return g_pEolChooser(sFileName);
  const QString sText = QStringLiteral(
      "The document to be saved contains inconsistent line endings.\nPlease specify which format is to be used before saving.");
  if (CMessageBox::IsBatchMode()) {
    ConsolePrintLine(QStringLiteral("[box] ") + sFileName + QStringLiteral(": ") + QString(sText).replace(QLatin1Char('\n'), QLatin1Char(' ')) +
                     QStringLiteral(" -> Cancel"));
    return SRC_EOL_KEEP;
  }
  QMessageBox Box(QMessageBox::Question, sFileName, sText, QMessageBox::Cancel);
  QPushButton* pLf = Box.addButton(QStringLiteral("Unix (LF)"), QMessageBox::AcceptRole);
  QPushButton* pCrLf = Box.addButton(QStringLiteral("Windows (CR LF)"), QMessageBox::AcceptRole);
  Box.exec();
  if (Box.clickedButton() == pLf) return SRC_EOL_LF;
  if (Box.clickedButton() == pCrLf) return SRC_EOL_CRLF;
  return SRC_EOL_KEEP;
}

bool AskReload(const QString& sFileName, bool HasEdits) {
  if (g_pReloadQuestion) return g_pReloadQuestion(sFileName, HasEdits);
  QString sText = QStringLiteral("The source file %1 has been modified by another application.").arg(sFileName);
  if (HasEdits) sText += QStringLiteral("\nIt also has changes in Tavit that reloading would discard.");
  sText += QStringLiteral("\nDo you want to reload it?");
  // Batch mode answers with the default button; with edits in the viewer the
  // default is No, so that no work is thrown away unasked.
  if (HasEdits && CMessageBox::IsBatchMode()) {
    ConsolePrintLine(QStringLiteral("[box] Reload Source File: ") + QString(sText).replace(QLatin1Char('\n'), QLatin1Char(' ')) +
                     QStringLiteral(" -> No"));
    return false;
  }
  return CMessageBox::Ask(QStringLiteral("Reload Source File"), sText, 0, QDialogButtonBox::Yes | QDialogButtonBox::No) ==
         CMessageBox::RESULT_YES;
}

// The program's id of a debug path that resolves to sPath; 0 when none.
U32 DebugFileNoOf(const QString& sPath, QString* pDebugPath) {
  CElfApi& Elf = CElfApi::Instance();
  QMutexLocker Lock(&Elf.Mutex());
  if (!Elf.IsLoaded()) return 0;
  const CLineTables& t = DWARF_GetProgramTables();
  // The path as the debug information writes it.
  const U32 Direct = t.GetFileId(sPath);
  if (!t.GetFilePath(Direct).isEmpty()) {
    *pDebugPath = t.GetFilePath(Direct);
    return Direct;
  }
  const QString sCanon = QFileInfo(sPath).canonicalFilePath();
  const QString sName = FilePaths::FileName(sPath);
  for (const QString& s : t.GetSourceFiles()) {
    if (FilePaths::FileName(s).compare(sName, Qt::CaseInsensitive) != 0) continue;
    const QString sFound = FileFinder().Resolve(s);
    if (!sFound.isEmpty() && QFileInfo(sFound).canonicalFilePath() == sCanon) {
      *pDebugPath = s;
      return t.GetFileId(s);
    }
  }
  return 0;
}

// Seconds a source may be newer than its program and still match it.
constexpr int kOutOfDateSlackS = 60;

}  // namespace

QString CSourceFile::Name() const { return FilePaths::FileName(FilePath.isEmpty() ? DebugPath : FilePath); }

void CSourceDocuments::SetEolChooser(SRC_EOL_FORMAT (*Chooser)(const QString&)) { g_pEolChooser = Chooser; }
void CSourceDocuments::SetReloadQuestion(bool (*Ask)(const QString&, bool)) { g_pReloadQuestion = Ask; }

CSourceFile* CSourceDocuments::Load(const QString& sPathIn) {
  if (sPathIn.isEmpty()) return nullptr;
  if (CSourceFile* d = Find(sPathIn)) return d;
  auto p = std::make_unique<CSourceFile>();
  CSourceFile& d = *p;
  d.DebugPath = sPathIn;
  d.FilePath = sPathIn;
  if (!QFileInfo::exists(sPathIn) || QFileInfo(sPathIn).isRelative()) {
    const QString sFound = FileFinder().Resolve(sPathIn);
    if (!sFound.isEmpty()) d.FilePath = sFound;
  }
  if (QFileInfo::exists(d.FilePath)) d.FilePath = QFileInfo(d.FilePath).absoluteFilePath();
  Number(d);
  // The same file reached by another spelling is the same document.
  if (CSourceFile* Old = Get(d.FileNo)) return Old;
  if (CSourceFile* Old = Find(d.FilePath)) return Old;
  d.Suffix = QFileInfo(d.FilePath).suffix().toLower();
  ReadFile(d);
  const U32 No = d.FileNo;
  m_Docs[No] = std::move(p);
  return m_Docs[No].get();
}

void CSourceDocuments::Number(CSourceFile& d) {
  QString sDebug;
  U32 No = DebugFileNoOf(d.DebugPath, &sDebug);
  if (!No && d.FilePath != d.DebugPath) No = DebugFileNoOf(d.FilePath, &sDebug);
  const bool Was = d.InProgram;
  d.InProgram = No != 0;
  if (No) {
    d.DebugPath = sDebug;
    d.FileNo = No;
    CElfApi& Elf = CElfApi::Instance();
    QMutexLocker Lock(&Elf.Mutex());
    const CAddrRange r = DWARF_GetProgramTables().GetFileRange(No);
    d.FirstAddr = r.start;
    d.LastAddr = r.size ? U32(r.End() - 1) : r.start;
    // A source newer than the program may no longer match it.
    const QFileInfo Prog(Elf.GetFilePath());
    // A checkout writes sources and programs within moments of each other,
    // in any order: only a source clearly newer than the program counts.
    d.ModifiedOnDisk = Prog.exists() && QFileInfo(d.FilePath).lastModified() > Prog.lastModified().addSecs(kOutOfDateSlackS);
  } else if (d.FileNo == 0 || Was) {
    // A file outside the program gets a number no other document has.
    U32 Own = U32(qHash(d.FilePath.isEmpty() ? d.DebugPath : d.FilePath)) | 1u;
    while (Own == 0 || m_Docs.count(Own)) ++Own;
    d.FileNo = Own;
    d.FirstAddr = d.LastAddr = 0;
  }
}

void CSourceDocuments::ReadFile(CSourceFile& d) {
  QFile f(d.FilePath);
  d.Exists = f.open(QIODevice::ReadOnly);
  d.Text = d.Exists ? QString::fromUtf8(f.readAll()) : QString();
  const QFileInfo i(d.FilePath);
  d.DiskTime = d.Exists ? i.lastModified() : QDateTime();
  d.DiskSize = d.Exists ? i.size() : -1;
  d.HasUnsavedChanges = false;
}

CSourceFile* CSourceDocuments::Get(U32 FileNo) {
  auto it = m_Docs.find(FileNo);
  return it == m_Docs.end() ? nullptr : it->second.get();
}

CSourceFile* CSourceDocuments::Find(const QString& sPathOrName) {
  if (sPathOrName.isEmpty()) return nullptr;
  const QString sAbs = QFileInfo(sPathOrName).isAbsolute() ? QDir::cleanPath(sPathOrName) : QString();
  for (auto& [No, p] : m_Docs) {
    if (p->FilePath == sPathOrName || p->DebugPath == sPathOrName || (!sAbs.isEmpty() && p->FilePath == sAbs)) return p.get();
  }
  // A bare name, or a relative path that ends one of the documents' paths.
  const bool Bare = !sPathOrName.contains(QLatin1Char('/')) && !sPathOrName.contains(QLatin1Char('\\'));
  const QString sTail = QLatin1Char('/') + FilePaths::Normalise(sPathOrName);
  for (auto& [No, p] : m_Docs) {
    if (Bare ? p->Name().compare(sPathOrName, Qt::CaseInsensitive) == 0
             : (!sAbs.isEmpty() ? false : p->FilePath.endsWith(sTail) || p->DebugPath.endsWith(sTail)))
      return p.get();
  }
  return nullptr;
}

QList<CSourceFile*> CSourceDocuments::All() {
  QList<CSourceFile*> l;
  for (auto& [No, p] : m_Docs) l << p.get();
  return l;
}

void CSourceDocuments::Remove(U32 FileNo) { m_Docs.erase(FileNo); }
void CSourceDocuments::Clear() { m_Docs.clear(); }

bool CSourceDocuments::HasMixedLineEndings(const QString& sText) {
  int nCrLf = 0, nLf = 0, nCr = 0;
  for (qsizetype i = 0; i < sText.size(); ++i) {
    const QChar c = sText[i];
    if (c == QLatin1Char('\r')) {
      if (i + 1 < sText.size() && sText[i + 1] == QLatin1Char('\n')) ++nCrLf, ++i;
      else ++nCr;
    } else if (c == QLatin1Char('\n')) {
      ++nLf;
    }
  }
  return (nCrLf > 0) + (nLf > 0) + (nCr > 0) > 1;
}

QString CSourceDocuments::ConvertLineEndings(const QString& sText, SRC_EOL_FORMAT Format) {
  if (Format == SRC_EOL_KEEP) return sText;
  QString s = sText;
  s.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
  s.replace(QLatin1Char('\r'), QLatin1Char('\n'));
  if (Format == SRC_EOL_CRLF) s.replace(QLatin1Char('\n'), QStringLiteral("\r\n"));
  return s;
}

bool CSourceDocuments::Save(CSourceFile& d, QString* pError) {
  auto Fail = [pError](const QString& s) {
    if (pError) *pError = s;
    return false;
  };
  if (d.FilePath.isEmpty()) return Fail(QStringLiteral("file has no path"));
  if (HasMixedLineEndings(d.Text)) d.Text = ConvertLineEndings(d.Text, AskEolFormat(d.Name()));
  // The new text goes to a temporary file beside the old one, which it
  // replaces only once it is completely written: a full disk or a crash
  // leaves the old file as it was.
  QSaveFile f(d.FilePath);
  if (!f.open(QIODevice::WriteOnly)) return Fail(QStringLiteral("could not write file: ") + f.errorString());
  const QByteArray b = d.Text.toUtf8();
  if (f.write(b) != b.size()) {
    f.cancelWriting();
    return Fail(QStringLiteral("could not write file: ") + f.errorString());
  }
  if (!f.commit()) return Fail(QStringLiteral("could not write file: ") + f.errorString());
  const QFileInfo i(d.FilePath);
  d.Exists = true;
  d.DiskTime = i.lastModified();
  d.DiskSize = i.size();
  d.HasUnsavedChanges = false;
  return true;
}

bool CSourceDocuments::Reload(CSourceFile& d) {
  ReadFile(d);
  return d.Exists;
}

bool CSourceDocuments::ChangedOnDisk(const CSourceFile& d) const {
  if (d.FilePath.isEmpty()) return false;
  const QFileInfo i(d.FilePath);
  if (!i.exists()) return false;  // a file that went away keeps its text here
  if (!d.Exists) return true;     // a file that has appeared
  return i.lastModified() != d.DiskTime || i.size() != d.DiskSize;
}

QList<U32> CSourceDocuments::CheckDiskChanges() {
  QList<U32> Reloaded;
  for (auto& [No, p] : m_Docs) {
    CSourceFile& d = *p;
    if (!ChangedOnDisk(d)) continue;
    // Asked once for each change: the new state is taken as seen.
    const QFileInfo i(d.FilePath);
    const bool HadFile = d.Exists;
    d.DiskTime = i.lastModified();
    d.DiskSize = i.size();
    if (!HadFile || AskReload(d.Name(), d.HasUnsavedChanges)) {
      ReadFile(d);
      Reloaded << No;
    }
  }
  return Reloaded;
}

void CSourceDocuments::Renumber() {
  std::map<U32, std::unique_ptr<CSourceFile>> Old;
  Old.swap(m_Docs);
  for (auto& [No, p] : Old) {
    if (p->InProgram) p->DebugPath = p->FilePath.isEmpty() ? p->DebugPath : p->FilePath;
    Number(*p);
    m_Docs[p->FileNo] = std::move(p);
  }
}
