#include "session/program.h"

#include "commands/actions.h"
#include "elf/elfapi.h"
#include "log/log.h"
#include "project/project.h"

#include <QElapsedTimer>
#include <QFileInfo>

namespace {

// Program and data kinds that File.Open hands to the program layer; only ELF
// files are read so far.
bool IsElfFile(const QString& sPath) {
  QFile f(sPath);
  if (!f.open(QIODevice::ReadOnly)) return false;
  const QByteArray Magic = f.read(4);
  return Magic == QByteArray("\x7f" "ELF", 4);
}

// The Elf.* queries take no argument and store their answer as the result.
void RegisterQuery(int Id, U32 (CElfApi::*pfn)()) {
  SetCommandSlot(Id, [pfn](int Id) {
    if (!CheckArgCount(Id, 0)) return;
    SetActionResult(Id, (I64)(CElfApi::Instance().*pfn)());
  });
}

}  // namespace

namespace SessionModule {

int OpenProgramFile(const QString& sFilePath, int ActionId) {
  QElapsedTimer Timer;
  Timer.start();
  const QFileInfo Info(sFilePath);
  if (!Info.isFile()) {
    SetActionError(ActionId, "file not found", sFilePath);
    return -1;
  }
  if (!IsElfFile(sFilePath)) {
    SetActionError(ActionId, "not implemented yet", "only ELF program files can be opened so far");
    return -1;
  }
  if (CElfApi::Instance().Load(Info.absoluteFilePath()) < 0) {
    // The ELF layer has reported the reason through the diagnostic catalogue.
    SetActionError(ActionId, "invalid parameter", sFilePath);
    return -1;
  }
  ConsolePrintLine(QString("File.Open: completed in %1 ms").arg(Timer.elapsed()));
  return 0;
}

void Install() {
  g_pfnOpenProgramFile = &OpenProgramFile;
  RegisterQuery(AID_ELF_GET_BASE_ADDR, &CElfApi::GetBaseAddr);
  RegisterQuery(AID_ELF_GET_ENTRY_POINT_PC, &CElfApi::GetEntryPointPC);
  RegisterQuery(AID_ELF_GET_ENTRY_FUNC_PC, &CElfApi::GetEntryFuncPC);
  SetCommandSlot(AID_ELF_GET_ENDIANESS, [](int Id) {
    if (!CheckArgCount(Id, 0)) return;
    SetActionResult(Id, CElfApi::Instance().GetEndianess());
  });
}

}  // namespace SessionModule
