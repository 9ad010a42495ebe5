// The dialogs of the project flows: the preferences / system variable
// editor over the value table, the project warnings list, the new-project
// wizard and the file choosers. The top installs one CProjectDialogs with
// ProjectModule::SetDialogs; the project never opens one in batch mode.
#pragma once
#include "project/project.h"

class CProjectDialogs : public IProjectDialogs {
 public:
  // Shows the table of preferences (or of the editable system variables) and
  // runs Edit.Preference / Edit.SysVar for every changed row. System
  // variables are then written to the project file. True when accepted.
  bool RunSettingsDialog(bool SysVarsOnly) override;
  // The warnings of a project: 1 accepted (Ignore), -1 cancelled.
  int ShowProjectWarnings(const QStringList& Warnings, const QString& sProjectPath) override;
  // Asks for device, interfaces, speed, program file and project path;
  // returns the commands of the new project (empty when cancelled).
  QStringList RunProjectWizard(QString* pProjectPath) override;
  QString AskOpenFile(const QString& sDir) override;
  QString AskSaveProjectFile(const QString& sDir) override;
  QString AskFileWithText(const QString& sTitle, const QString& sText, const QString& sDir) override;
};
