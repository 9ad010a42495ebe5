// A project for the core plug-in host that names no plug-in file and shows
// no dialog: the family's default plug-in is loaded.
#pragma once
#include "plugins/corehost.h"

struct CNoCoreProject : ICorePluginProject {
  QString CorePluginPath() const override { return {}; }
  void SetCorePluginPath(const QString&) override {}
  bool DialogsAllowed() const override { return false; }
  QString AskCorePluginFile(const QString&, const QString&, const QString&) override { return {}; }
};
