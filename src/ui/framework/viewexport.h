// Window.Export: the rows of a model-view window as text, the columns as the
// window shows them. Windows register a provider of their model under the
// window's name; the model exists without a widget, so the export works in
// batch mode too.
#pragma once
#include <QString>
#include <QStringList>
#include <functional>

class QAbstractItemModel;

// The provider hands out the window's model (not owned by the caller); it
// may create the model on first use.
using VIEW_MODEL_PROVIDER = std::function<QAbstractItemModel*()>;
void WIN_RegisterViewModel(const QString& sWindow, const VIEW_MODEL_PROVIDER& Provider);
void WIN_UnregisterViewModel(const QString& sWindow);
// Names of the windows that can be exported, in registration order.
QStringList WIN_ExportableWindows();

// One header line, then every row depth-first: the display texts of the
// columns, tab-separated; the first column of a child row is indented by two
// blanks per level. Tabs and line breaks inside a text become blanks.
QStringList WIN_ModelLines(QAbstractItemModel* pModel);

// The same rows as comma-separated values: a field holding a comma, a quote
// or a leading or trailing blank is quoted, its quotes doubled.
QStringList WIN_CsvLines(const QStringList& TabLines);
// Writes the lines, each ended by a line break, atomically; false with the
// reason in *psError.
bool WIN_WriteLines(const QString& sFilePath, const QStringList& Lines, QString* psError);

// Writes the rows of the named window (case-insensitive) to sFilePath, or to
// the console when the path is "-"; a path ending in ".csv" gets
// comma-separated values. 0, or -1 with the reason in *psError.
int WIN_Export(const QString& sWindow, const QString& sFilePath, QString* psError);

// Installs the slot of Window.Export.
void WIN_InstallExportCommand();
