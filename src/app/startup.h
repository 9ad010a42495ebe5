// Process start, the first step after the main window is shown, batch mode.
#pragma once
#include "cmdline/cmdline.h"
#include <QStringList>
#include <functional>

// What the first show of the main window leads to.
enum START_PATH {
  START_OPEN_FILE = 0,        // first argument is a project (suffix "vdebug")
  START_CMDLINE_PROJECT = 1,  // a device was given
  START_WIZARD = 2,           // no recent project
  START_RECENT = 3,           // most recent project, by preference
  START_WELCOME = 4,          // the welcome screen
  START_NOTHING = 5,          // batch mode: neither welcome screen nor wizard
};
START_PATH ChooseStartPath(const QStringList& Args, const CMDLINE_OPTIONS& Options, bool RecentEmpty,
                           bool StartWithMostRecent, bool Batch);

// The whole process: start-up, event loop, shut-down. Returns the exit code.
int RunTavit(int argc, char** argv);

// Called once after the first show of the main window has done its work
// (the project of the command line is open); for drivers of the whole
// program such as the GUI acceptance test and the start-up benchmark.
class CMainWindow;
void SetMainWindowStartedHook(const std::function<void(CMainWindow*)>& Fn);
