// What the device tests need on both back ends: the target (the built-in
// simulator, or QEMU behind its GDB server), the firmware for it, and the
// facts about that firmware from the cross toolchain's objdump and nm.
#pragma once
#include "probe/gdb/qemu_util.h"
#include "testsupport/tools.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace devtest {

struct BACKEND {
  const char* sName;
  const char* sDevice;
  const char* sHostIF;
  const char* sFirmware;   // relative to the source tree
  const char* sDataSym;    // an initialised .data word
  const char* sConstSym;   // a const table of 16-bit elements in the image, or ""
  U32 RAMEnd;              // readable memory ends here
  bool PlainRAMAtEnd;      // what is written below RAMEnd reads back
};

inline const BACKEND kSim{"sim", "STM32F407VG", "USB", "firmware/corpus/app-dwarf4-O0.elf", "g_array", "crc_table",
                          0x20020000, true};
inline const BACKEND kQemu{"qemu", "MPS2-AN385", "IP", "firmware/gdb/elf/gdbtest_an385.elf", "g_table", "",
                           0x24000000, false};  // the end of the bit-band alias

inline std::string PrintBackend(const ::testing::TestParamInfo<BACKEND>& i) { return i.param.sName; }

// The emulator for the "IP" back end, listening once constructed; nothing
// for the simulator. An emulator that did not start fails the running test
// with the reason (outside a test, the reason goes to standard error).
class CTargetRig {
 public:
  explicit CTargetRig(const BACKEND& b) {
    if (QString(b.sHostIF) != "IP") return;
    m_pQemu = std::make_unique<gdbtest::Qemu>("mps2-an385");
    if (m_pQemu->port <= 0 && ::testing::UnitTest::GetInstance()->current_test_info())
      ADD_FAILURE() << "emulator: " << m_pQemu->sStartError;
  }
  QString Ident() const { return m_pQemu ? QStringLiteral("127.0.0.1:%1").arg(m_pQemu->port) : QString(); }
  gdbtest::Qemu* Qemu() { return m_pQemu.get(); }
  static bool HaveQemu() { return !RunToolOutput("command -v qemu-system-arm").empty(); }

 private:
  std::unique_ptr<gdbtest::Qemu> m_pQemu;
};

inline QString SourcePath(const char* sRel) { return QString::fromStdString(gdbtest::SourceDir()) + "/" + sRel; }

// A word of the program image at a symbol (+ 4 * Index): its load address
// and its bytes, from objdump's section table and nm.
struct IMAGE_WORD {
  U32 LoadAddr = 0, RunAddr = 0, Value = 0;
  bool Found = false;
};

inline IMAGE_WORD ImageWord(const QString& sElf, const char* sSym, int Index, int Size = 4) {
  IMAGE_WORD w;
  const QString Nm = QString::fromStdString(RunToolOutput("arm-none-eabi-nm " + sElf.toStdString()));
  const auto m = QRegularExpression(QStringLiteral("^([0-9a-f]+) \\w %1$").arg(sSym), QRegularExpression::MultilineOption).match(Nm);
  if (!m.hasMatch()) return w;
  w.RunAddr = m.captured(1).toUInt(nullptr, 16) + U32(Size) * U32(Index);
  const QString Sections = QString::fromStdString(RunToolOutput("arm-none-eabi-objdump -h " + sElf.toStdString()));
  // "  1 .data  00000090  20000000  08000f90  00010000  2**2"
  const QRegularExpression Row(QStringLiteral(R"(^\s*\d+\s+(\S+)\s+([0-9a-f]+)\s+([0-9a-f]+)\s+([0-9a-f]+)\s+([0-9a-f]+))"),
                               QRegularExpression::MultilineOption);
  QFile f(sElf);
  if (!f.open(QIODevice::ReadOnly)) return w;
  const QByteArray Data = f.readAll();
  for (auto It = Row.globalMatch(Sections); It.hasNext();) {
    const auto r = It.next();
    const U32 SecSize = r.captured(2).toUInt(nullptr, 16), Vma = r.captured(3).toUInt(nullptr, 16);
    const U32 Lma = r.captured(4).toUInt(nullptr, 16), Off = r.captured(5).toUInt(nullptr, 16);
    if (w.RunAddr < Vma || w.RunAddr + U32(Size) > Vma + SecSize) continue;
    const U32 At = Off + (w.RunAddr - Vma);
    if (qsizetype(At) + Size > Data.size()) return w;
    memcpy(&w.Value, Data.constData() + At, size_t(Size));
    w.LoadAddr = Lma + (w.RunAddr - Vma);
    w.Found = true;
    return w;
  }
  return w;
}

}  // namespace devtest

namespace devtest {

// A batch run on one back end: skipped without the emulator; the project
// lines that choose the back end and log the probe's calls to calls.log in
// the run's directory.
class CBackendBatch : public ::testing::TestWithParam<BACKEND> {
 protected:
  void SetUp() override {
    if (QString(GetParam().sHostIF) == "IP" && !CTargetRig::HaveQemu()) GTEST_SKIP() << "no qemu-system-arm";
  }
  QStringList Setup(const CTargetRig& Rig) const {
    const BACKEND& b = GetParam();
    return {QStringLiteral("Project.SetDevice(\"%1\")").arg(b.sDevice),
            QStringLiteral("Project.SetHostIF(\"%1\", \"%2\")").arg(b.sHostIF, Rig.Ident()),
            QStringLiteral("Project.SetTargetIF(\"SWD\")"),
            QStringLiteral("Project.SetVordenLogFile(\"%1\")").arg(Dir.filePath("calls.log"))};
  }
  QTemporaryDir Dir;
};

inline QByteArray ReadFileText(const QString& sPath) {
  QFile f(sPath);
  return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}
}  // namespace devtest
