// Installs the project module when the application object is created, so
// that an executable only has to link this object.
#include "project/project.h"

#include <QCoreApplication>

static void InstallProjectModule() { ProjectModule::Install(); }
Q_COREAPP_STARTUP_FUNCTION(InstallProjectModule)
