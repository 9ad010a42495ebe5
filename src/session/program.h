// The program side of a session: opening a program file through the ELF-API
// wrapper and the Elf.* commands that ask about the open program.
#pragma once
#include "project/project.h"

#include <QString>

namespace SessionModule {
// Registers the command slots of this module (Elf.*, Elf.GetExprValue) and
// the expression evaluator's constant and system variable lookups. Called
// once by the top at start-up.
void Install();
void InstallExprCommands();
// The loader File.Open hands program files to; the top installs it with
// ProjectModule::SetProgramFileLoader.
IProgramFileLoader& ProgramFileLoader();
// Opens a program file: 0 on success, -1 with the action's error set to one
// text that names the file and the reason.
int OpenProgramFile(const QString& sFilePath, int ActionId);
}  // namespace SessionModule
