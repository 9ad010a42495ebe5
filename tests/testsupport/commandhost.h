// A window that carries the linked actions of some commands, the way the
// main window does: triggering one echoes the statement in the console ring
// and runs the command's registered slot.
#pragma once
#include "commands/actions.h"

#include <QAction>
#include <QMainWindow>
#include <initializer_list>

inline QMainWindow* NewCommandHost(std::initializer_list<int> Ids) {
  auto* pHost = new QMainWindow;
  for (int Id : Ids) {
    auto* a = new QAction(GetCommandName(Id), pHost);
    a->setObjectName(QString::fromLatin1(GetActionDesc(Id)->ActionName));
    pHost->addAction(a);
    ConnectAction(a, pHost, [Id] { RunCommandSlot(Id); });
  }
  LinkActions(pHost);
  return pHost;
}
