#include "ui/framework/viewexport.h"

#include "files/fileworker.h"
#include "ui/framework/window.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "log/log.h"

#include <QAbstractItemModel>
#include <QSaveFile>
#include <algorithm>
#include <QVector>
#include <utility>

namespace {

QVector<std::pair<QString, VIEW_MODEL_PROVIDER>>& Providers() {
  static QVector<std::pair<QString, VIEW_MODEL_PROVIDER>> v;
  return v;
}

// By name, or by an alias of the window table ("Registers" is "Registers 1").
int IndexOf(const QString& sWindow) {
  const auto& v = Providers();
  for (const QString& sName : {sWindow.trimmed(), CWindow::ResolveAlias(sWindow)})
    for (int i = 0; i < v.size(); ++i)
      if (v[i].first.compare(sName, Qt::CaseInsensitive) == 0) return i;
  return -1;
}

QString Cell(const QVariant& v) {
  QString s = v.toString();
  for (QChar& c : s)
    if (c == QLatin1Char('\t') || c == QLatin1Char('\n') || c == QLatin1Char('\r')) c = QLatin1Char(' ');
  return s;
}

void AddRows(QAbstractItemModel* pModel, const QModelIndex& Parent, int Depth, QStringList& Lines) {
  while (pModel->canFetchMore(Parent)) {
    const int Before = pModel->rowCount(Parent);
    pModel->fetchMore(Parent);
    if (pModel->rowCount(Parent) == Before) break;
  }
  const int Columns = pModel->columnCount(Parent);
  for (int r = 0; r < pModel->rowCount(Parent); ++r) {
    QStringList Cells;
    for (int c = 0; c < Columns; ++c) Cells << Cell(pModel->data(pModel->index(r, c, Parent), Qt::DisplayRole));
    if (!Cells.isEmpty()) Cells[0].prepend(QString(2 * Depth, QLatin1Char(' ')));
    Lines << Cells.join(QLatin1Char('\t'));
    const QModelIndex Child = pModel->index(r, 0, Parent);
    if (pModel->hasChildren(Child)) AddRows(pModel, Child, Depth + 1, Lines);
  }
}

void OnWindowExport(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  QString sError;
  if (WIN_Export(Args.value(0), Args.value(1), &sError) < 0) {
    SetActionError(Id, sError);
    SetActionResult(Id, -1);
    return;
  }
  SetActionResult(Id, 0);
}

}  // namespace

void WIN_RegisterViewModel(const QString& sWindow, const VIEW_MODEL_PROVIDER& Provider) {
  const int i = IndexOf(sWindow);
  if (i >= 0) Providers()[i].second = Provider;
  else Providers().append({sWindow, Provider});
}

void WIN_UnregisterViewModel(const QString& sWindow) {
  const int i = IndexOf(sWindow);
  if (i >= 0) Providers().remove(i);
}

QStringList WIN_ExportableWindows() {
  QStringList l;
  for (const auto& p : Providers()) l << p.first;
  return l;
}

QStringList WIN_ModelLines(QAbstractItemModel* pModel) {
  QStringList Lines;
  if (!pModel) return Lines;
  QStringList Header;
  for (int c = 0; c < pModel->columnCount(); ++c) Header << Cell(pModel->headerData(c, Qt::Horizontal));
  Lines << Header.join(QLatin1Char('\t'));
  AddRows(pModel, QModelIndex(), 0, Lines);
  return Lines;
}

int WIN_Export(const QString& sWindow, const QString& sFilePath, QString* psError) {
  auto Fail = [&](const QString& s) {
    if (psError) *psError = s;
    return -1;
  };
  const int i = IndexOf(sWindow);
  if (i < 0) return Fail(QStringLiteral("invalid parameter: ") + sWindow);
  if (sFilePath.isEmpty()) return Fail(QStringLiteral("invalid parameter: no file path"));
  QAbstractItemModel* pModel = Providers()[i].second ? Providers()[i].second() : nullptr;
  if (!pModel) return Fail(QStringLiteral("Window \"%1\" has no data to export").arg(Providers()[i].first));
  const QStringList Lines = WIN_ModelLines(pModel);
  if (sFilePath == QLatin1String("-")) {
    ConsolePrintLines(Lines);
    return 0;
  }
  const bool Csv = sFilePath.endsWith(QLatin1String(".csv"), Qt::CaseInsensitive);
  return WIN_WriteLines(sFilePath, Csv ? WIN_CsvLines(Lines) : Lines, psError) ? 0 : -1;
}

QStringList WIN_CsvLines(const QStringList& TabLines) {
  QStringList Out;
  for (const QString& l : TabLines) {
    QStringList Fields = l.split(QLatin1Char('\t'));
    for (QString& f : Fields) {
      const bool Quote = f.contains(QLatin1Char(',')) || f.contains(QLatin1Char('"')) ||
                         (!f.isEmpty() && (f.front().isSpace() || f.back().isSpace()));
      if (Quote) f = QLatin1Char('"') + QString(f).replace(QLatin1String("\""), QLatin1String("\"\"")) + QLatin1Char('"');
    }
    Out << Fields.join(QLatin1Char(','));
  }
  return Out;
}

bool WIN_WriteLines(const QString& sFilePath, const QStringList& Lines, QString* psError) {
  auto Fail = [&](const QString& s) {
    if (psError) *psError = s;
    return false;
  };
  if (sFilePath.isEmpty()) return Fail(QStringLiteral("invalid parameter: no file path"));
  QSaveFile f(sFilePath);
  if (!f.open(QIODevice::WriteOnly | QIODevice::Text))
    return Fail(QStringLiteral("Cannot write %1: %2").arg(sFilePath, f.errorString()));
  // A long export shows its progress; the rows go out in slices.
  constexpr qsizetype kSlice = 4096;
  VFile::IFileProgress* pProgress = Lines.size() > kSlice ? VFile::FileProgress() : nullptr;
  if (pProgress) pProgress->StartProgress(QStringLiteral("Exporting..."), Lines.size());
  for (qsizetype i = 0; i < Lines.size(); i += kSlice) {
    QByteArray Chunk;
    for (qsizetype j = i; j < std::min(Lines.size(), i + kSlice); ++j) Chunk += Lines[j].toUtf8() + '\n';
    f.write(Chunk);
    if (pProgress) pProgress->SetProgress(std::min(Lines.size(), i + kSlice));
  }
  if (pProgress) pProgress->EndProgress();
  if (!f.commit()) return Fail(QStringLiteral("Cannot write %1: %2").arg(sFilePath, f.errorString()));
  return true;
}

void WIN_InstallExportCommand() { SetCommandSlot(AID_WINDOW_EXPORT, OnWindowExport); }
