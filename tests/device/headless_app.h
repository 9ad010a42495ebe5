// The modules an in-process run of target commands needs, without the
// application's start-up: the project with its commands, the device with its
// project settings, message boxes answered, and a main window whose actions
// carry the commands (its console does not draw).
#pragma once
#include "device/module.h"
#include "log/messagebox.h"
#include "project/project.h"
#include "project/projectcommands.h"
#include "ui/shell/consolewindow.h"
#include "ui/shell/mainwindow.h"

inline CMainWindow* InstallHeadlessDeviceApp() {
  CMessageBox::SetBatchMode(true);
  ProjectModule::Install();
  ProjectCommands::Install();
  DeviceModule::Install();
  ProjectModule::SetDeviceSettings(&DeviceModule::ProjectSettings());
  auto* pMain = new CMainWindow;
  pMain->ConsoleWindow()->SetDrawingEnabled(false);
  return pMain;
}
