// A project for the core plug-in host in tests: no plug-in path of its own,
// no dialogs, so the host loads the family's default plug-in.
#pragma once
#include "plugins/corehost.h"

struct CNoCoreProject : ICorePluginProject {
  QString CorePluginPath() const override { return {}; }
  void SetCorePluginPath(const QString&) override {}
  bool DialogsAllowed() const override { return false; }
  QString AskCorePluginFile(const QString&, const QString&, const QString&) override { return {}; }
};
// Installs one for the whole test program.
inline void UseNoCoreProject() {
  static CNoCoreProject s_Project;
  CORE_SetProject(&s_Project);
}
