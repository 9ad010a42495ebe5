// The device layer's parser of configuration XML under ASan/UBSan, fed
// mutations of a valid input and plain random bytes. Nothing may crash;
// results must stay consistent. (The program header reader is fuzzed through
// the data file reader that uses it.)
#include "device/devconfig.h"

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

}  // namespace
