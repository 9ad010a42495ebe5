// Reading a 4 MB Intel HEX file (and its S-record twin) into memory blocks,
// against the cross toolchain's objcopy converting the same file to raw
// binary. Prints MB/s of file text and the ratio of the two throughputs
// (above 1: faster than objcopy). Usage: bench_files [runs]
#include "files/fileworker.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>

namespace {

QByteArray Record(int Type, U32 Addr16, const QByteArray& Data) {
  QByteArray Body = char(Data.size()) + QByteArray(1, char(Addr16 >> 8)) + char(Addr16) + char(Type) + Data;
  int Sum = 0;
  for (char c : Body) Sum += U8(c);
  return ":" + (Body + char(-Sum)).toHex().toUpper() + "\r\n";
}

// 16 data bytes a line, as objcopy writes them, from 0x08000000 on.
QByteArray MakeHex(qint64 FileSize, QByteArray* pData) {
  QByteArray Text;
  QRandomGenerator Rng(42);
  U32 Addr = 0x08000000, Page = 0xFFFFFFFF;
  while (Text.size() < FileSize) {
    if (Addr >> 16 != Page) {
      Page = Addr >> 16;
      Text += Record(4, 0, QByteArray(1, char(Page >> 8)) + char(Page));
    }
    QByteArray Data(16, 0);
    for (char& c : Data) c = char(Rng.bounded(256));
    Text += Record(0, Addr & 0xFFFF, Data);
    *pData += Data;
    Addr += 16;
  }
  return Text + ":00000001FF\r\n";
}

template <typename F>
double BestMs(int Runs, F&& Fn) {
  double Best = 1e30;
  for (int i = 0; i < Runs; ++i) {
    QElapsedTimer t;
    t.start();
    Fn();
    Best = std::min(Best, double(t.nsecsElapsed()) / 1e6);
  }
  return Best;
}

void Measure(const char* sName, const QString& sFile, const char* sObjcopyFormat, const QByteArray& Want, int Runs,
             const QString& sOut) {
  VFile::CFileWorker w;
  CMemBlockList Blocks;
  const double Ours = BestMs(Runs, [&] { Blocks = w.Read(sFile); });
  const bool Same = Blocks.size() == 1 && Blocks[0].Data == Want;
  const double Theirs = BestMs(Runs, [&] {
    QProcess::execute("arm-none-eabi-objcopy", {"-I", sObjcopyFormat, "-O", "binary", sFile, sOut});
  });
  QFile o(sOut);
  const bool TheirsSame = o.open(QIODevice::ReadOnly) && o.readAll() == Want;
  const double MB = double(QFile(sFile).size()) / 1e6;
  printf("%-8s %.2f MB file: Tavit %.1f ms (%.0f MB/s)%s; objcopy -I %s -O binary %.1f ms (%.0f MB/s)%s; ratio %.2f\n", sName,
         MB, Ours, MB / Ours * 1e3, Same ? "" : " WRONG DATA", sObjcopyFormat, Theirs, MB / Theirs * 1e3,
         TheirsSame ? "" : " (objcopy output differs)", Theirs / Ours);
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication App(argc, argv);
  const int Runs = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
  QTemporaryDir Dir;
  QByteArray Data;
  const QByteArray Text = MakeHex(4000000, &Data);
  const QString sHex = Dir.filePath("image.hex"), sSrec = Dir.filePath("image.srec"), sOut = Dir.filePath("out.bin");
  QFile f(sHex);
  if (!f.open(QIODevice::WriteOnly) || f.write(Text) != Text.size()) return fprintf(stderr, "cannot write %s\n", qPrintable(sHex)), 1;
  f.close();
  QProcess::execute("arm-none-eabi-objcopy", {"-I", "ihex", "-O", "srec", "--srec-forceS3", sHex, sSrec});
  printf("best of %d runs; ratio = objcopy time / Tavit time\n", Runs);
  Measure("ihex", sHex, "ihex", Data, Runs, sOut);
  Measure("srec", sSrec, "srec", Data, Runs, sOut);
  return 0;
}
