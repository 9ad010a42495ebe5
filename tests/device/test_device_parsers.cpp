// The device layer's parsers of outside text under ASan/UBSan: configuration
// XML and ELF program headers, each fed mutations of a valid input and plain
// random bytes. Nothing may crash; results must stay consistent.
#include "device/devconfig.h"
#include "device/loadimage.h"

#include <QFile>
#include <QRandomGenerator>
#include <gtest/gtest.h>

namespace {

QByteArray Mutate(QByteArray s, QRandomGenerator& r) {
  const int n = 1 + int(r.bounded(8));
  for (int i = 0; i < n && !s.isEmpty(); ++i) {
    const int At = int(r.bounded(quint32(s.size())));
    switch (r.bounded(4)) {
      case 0: s[At] = char(r.bounded(256)); break;
      case 1: s.remove(At, int(r.bounded(16))); break;
      case 2: s.insert(At, s.mid(int(r.bounded(quint32(s.size()))), int(r.bounded(32)))); break;
      default: s.truncate(At); break;
    }
  }
  return s;
}

TEST(DeviceParsers, ConfigurationXmlSurvivesRandomInput) {
  CDeviceConfig c;
  c.StoreString(DEV_CFG_DEVICE_NAME, QStringLiteral("My Device"));
  const QByteArray Valid = CDeviceConfig::BuildXml(c).toUtf8();
  QRandomGenerator r(1234);
  int Parsed = 0;
  for (int i = 0; i < 20000; ++i) {
    const QByteArray In = (i % 10 == 9) ? QByteArray::number(r.generate64()).repeated(int(r.bounded(20)))
                                        : Mutate(Valid, r);
    DEV_CONFIG_XML x;
    const bool Ok = CDeviceConfig::ParseXml(QString::fromUtf8(In), &x);
    if (!Ok) EXPECT_FALSE(x.Errors.isEmpty());
    Parsed += Ok;
    EXPECT_FALSE(x.sDeviceName.contains('"'));
  }
  EXPECT_GT(Parsed, 0);
}

TEST(DeviceParsers, ProgramHeadersSurviveRandomInput) {
  QFile f(qEnvironmentVariable("TAVIT_SOURCE_DIR") + "/firmware/corpus/app-dwarf4-O0.elf");
  ASSERT_TRUE(f.open(QIODevice::ReadOnly));
  const QByteArray Valid = f.readAll();
  std::vector<DEV_LOAD_BLOCK> Blocks;
  QString sErr;
  ASSERT_TRUE(DEV_ParseLoadSegments(Valid, &Blocks, &sErr)) << sErr.toStdString();
  // Mutations near the headers matter most: cut the file to its first 4 KB.
  const QByteArray Head = Valid.left(4096);
  QRandomGenerator r(99);
  for (int i = 0; i < 20000; ++i) {
    QByteArray In = Mutate(i % 2 ? Head : Valid.left(256), r);
    Blocks.clear();
    if (DEV_ParseLoadSegments(In, &Blocks, &sErr)) {
      for (const DEV_LOAD_BLOCK& b : Blocks) EXPECT_FALSE(b.Data.isEmpty());
    } else {
      EXPECT_FALSE(sErr.isEmpty());
      EXPECT_TRUE(Blocks.empty());
    }
  }
}

}  // namespace
