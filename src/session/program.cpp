#include "session/program.h"

#include "commands/actions.h"
#include "elf/elfapi.h"
#include "log/log.h"
#include "log/logcapture.h"
#include "session/debugsession.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

namespace {

// Why a path cannot be a program file, before the ELF layer reads it; empty
// when it may be one.
QString RefuseProgramFile(const QString& sPath) {
  const QFileInfo Info(sPath);
  if (!Info.exists()) return QStringLiteral("file not found");
  if (Info.isDir()) return QStringLiteral("is a directory, not a program file");
  if (!Info.isFile()) return QStringLiteral("is not a regular file");
  QFile f(sPath);
  if (!f.open(QIODevice::ReadOnly)) return QStringLiteral("cannot be read: ") + f.errorString();
  if (f.size() == 0) return QStringLiteral("is empty, not an ELF program file");
  const QByteArray Magic = f.read(4);
  // Only ELF program files can be opened so far (data files arrive with
  // their own reader).
  if (Magic != QByteArray("\x7f" "ELF", 4)) return QStringLiteral("is not an ELF program file");
  return QString();
}

// The Elf.* queries take no argument and store their answer as the result.
void RegisterQuery(int Id, U32 (CElfApi::*pfn)()) {
  SetCommandSlot(Id, [pfn](int Id) {
    if (!CheckArgCount(Id, 0)) return;
    SetActionResult(Id, (I64)(CElfApi::Instance().*pfn)());
  });
}

class CProgramFileLoader : public IProgramFileLoader {
 public:
  int OpenProgramFile(const QString& sFilePath, int ActionId) override {
    return SessionModule::OpenProgramFile(sFilePath, ActionId);
  }
};

}  // namespace

namespace SessionModule {

IProgramFileLoader& ProgramFileLoader() {
  static CProgramFileLoader s_Loader;
  return s_Loader;
}

int OpenProgramFile(const QString& sFilePath, int ActionId) {
  QElapsedTimer Timer;
  Timer.start();
  const QString sReason = RefuseProgramFile(sFilePath);
  if (!sReason.isEmpty()) {
    SetActionError(ActionId, sFilePath + QStringLiteral(": ") + sReason);
    return -1;
  }
  int r = 0;
  QStringList ElfErrors;
  {
    // The ELF layer's reasons become part of the one error of this command.
    CLogCapture Capture(MSG_DIAG);
    r = CElfApi::Instance().Load(QFileInfo(sFilePath).absoluteFilePath());
    if (r < 0) {
      ElfErrors = Capture.Texts();
      Capture.Discard();
    }
  }
  if (r < 0) {
    QString sText = ElfErrors.isEmpty() ? QStringLiteral("the ELF file could not be read") : ElfErrors.join(QStringLiteral("; "));
    if (sText.endsWith(QLatin1Char('.'))) sText.chop(1);
    SetActionError(ActionId, sFilePath + QStringLiteral(": ") + sText);
    return -1;
  }
  ConsolePrintLine(QString("File.Open: completed in %1 ms").arg(Timer.elapsed()));
  if (CDebugSession* pSession = DebugSession()) pSession->OnDataFileOpened(sFilePath);
  return 0;
}

void Install() {
  RegisterQuery(AID_ELF_GET_BASE_ADDR, &CElfApi::GetBaseAddr);
  RegisterQuery(AID_ELF_GET_ENTRY_POINT_PC, &CElfApi::GetEntryPointPC);
  RegisterQuery(AID_ELF_GET_ENTRY_FUNC_PC, &CElfApi::GetEntryFuncPC);
  SetCommandSlot(AID_ELF_GET_ENDIANESS, [](int Id) {
    if (!CheckArgCount(Id, 0)) return;
    SetActionResult(Id, CElfApi::Instance().GetEndianess());
  });
  InstallExprCommands();
}

}  // namespace SessionModule
