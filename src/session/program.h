// The program side of a session: opening a program file through the ELF-API
// wrapper and the Elf.* commands that ask about the open program.
#pragma once
#include <QString>

namespace SessionModule {
// Registers the command slots of this module and the program-file hook of
// File.Open. Called once when the application object exists.
void Install();
// Opens a program file: 0 on success, -1 with the action's error set.
int OpenProgramFile(const QString& sFilePath, int ActionId);
}
