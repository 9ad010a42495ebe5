// The modules an in-process run of target commands needs, without the
// application's start-up: the project with its commands, the device with its
// project settings, message boxes answered, and a main window whose actions
// carry the commands (its console does not draw).
#pragma once
#include "commands/actions.h"
#include "device/device.h"
#include "device/module.h"
#include "log/messagebox.h"
#include "project/project.h"
#include "project/projectcommands.h"
#include "ui/shell/consolewindow.h"
#include "ui/shell/mainwindow.h"
#include "testsupport/testapp.h"

#include <QApplication>

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

// A suite of target commands run in this process: the application once, and
// after each test the target disconnected and the project closed. BASE is
// the suite's parameterised test class.
template <class BASE>
class CHeadlessTargetSuite : public BASE {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QApplication>();
    InstallHeadlessDeviceApp();
  }
  void TearDown() override {
    Device()->PostDisconnect();
    DeviceModule::WaitUntilIdle(10000);
    Project().Close();
  }
  // Runs a command as a script would and waits for it.
  static I64 Run(int Id, const QVariant& a = {}, const QVariant& b = {}) {
    ExecAction(Id, a, b);
    WaitForCommand(Id);
    return GetActionResult(Id);
  }
};
