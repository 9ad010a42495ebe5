// The commands of the data windows (Watch.*, Edit.RefreshRate,
// Edit.MemZone, Edit.DisplayFormat, View.Data, Find.Func, Find.Symbol), the
// rows of "Watched Data", "Local Data" and "Global Data" for Window.Export
// without a window, and the watched expressions in the user file.
#pragma once
#include <QString>
#include <functional>

class QWidget;

namespace SymbolsModule {
void Install();
// How View.Data and the find pop-up show a window (the main window's
// Window.Show); unset, they only act on the models.
void SetShowWindowHook(const std::function<void(const QString& sWindow)>& Fn);
}  // namespace SymbolsModule

QWidget* SYM_CreateWatchWindow(QWidget* pParent, int Index);
QWidget* SYM_CreateLocalsWindow(QWidget* pParent, int Index);
QWidget* SYM_CreateGlobalsWindow(QWidget* pParent, int Index);
QWidget* SYM_CreateFunctionsWindow(QWidget* pParent, int Index);
