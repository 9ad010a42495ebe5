// The few dialogs of the project module: the preferences / system variable
// editor over the value table, the project warnings list and the new-project
// wizard. None of them opens in batch mode; the callers check that.
#pragma once
#include <QString>
#include <QStringList>

// Shows the table of preferences (or of the editable system variables) and
// runs Edit.Preference / Edit.SysVar for every changed row. System variables
// are then written to the project file. True when accepted.
bool RunSettingsDialog(bool SysVarsOnly);
// The warnings of a project: 1 accepted (Ignore), -1 cancelled.
int ShowProjectWarningsDialog(const QStringList& Warnings, const QString& sProjectPath);
// Asks for device, interfaces, speed, program file and project path; returns
// the commands of the new project (empty when cancelled).
QStringList RunProjectWizard(QString* pProjectPath);
