// Installs the session module when the application object is created, so
// that an executable only has to link this object.
#include "session/program.h"

#include <QCoreApplication>

static void InstallSessionModule() { SessionModule::Install(); }
Q_COREAPP_STARTUP_FUNCTION(InstallSessionModule)
