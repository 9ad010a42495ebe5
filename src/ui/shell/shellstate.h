// What the main window shows of the rest of the program: the session's
// state, asked whenever the actions, the title or the status bar are brought
// up to date. The top installs the source; without one the window stands as
// if nothing were open.
#pragma once
#include <QString>
#include <functional>

struct SHELL_STATE {
  bool ProjectOpen = false;
  bool ProjectModified = false;
  QString ProjectPath;
  QString ProgramPath;          // empty: no program open
  bool Connected = false;
  bool CorePluginLoaded = false;
  bool DocumentOpen = false;      // the source viewer holds a document
  bool DocumentModified = false;  // ... with changes
  int ConnectMode = 0, ResetMode = 1;  // VAR_CONNECT_MODE, VAR_RESET_MODE
  int BreakpointCount = 0, DataBreakpointCount = 0, TracepointCount = 0;
  // The run controls as the session enables them.
  bool Start = true, Stop = false, Continue = false, Halt = false, Reset = false, Step = false;
};

using SHELL_STATE_SOURCE = std::function<SHELL_STATE()>;

// The window title for a state: "New Project" without a project; the
// project's base name while connected, its path otherwise; the program's
// path while connected with a program; " - *" behind a modified project.
QString ShellTitleText(const QString& sAppTitle, const SHELL_STATE& State);
