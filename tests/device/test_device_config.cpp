// The device configuration block: XML text in and out through Configure (a
// table of settings, each written, read back and compared field by field),
// the side effects of single parameters, the speed and version texts.
#include "log/log.h"
#include "device/device.h"
#include "device/events.h"
#include "fake_probe.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>
#include <gtest/gtest.h>

namespace {

struct CLogRecorder : CDeviceEventListener {
  QStringList Log;
  void OnDeviceLogMsg(const char* s, U32) override { Log << QString::fromUtf8(s); }
};

class DeviceConfig : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QCoreApplication>();
    SetDeviceGuiThread();
    SetDebugMode(true);  // debug and warning texts are posted
  }
  void SetUp() override { d = CDevice::CreateWithProbe(fakeprobe::Table()); }
  void TearDown() override {
    CDevice::Destroy();
    while (DeliverDeviceEvents(1000) > 0) {
    }
  }
  QStringList Deliver() {
    while (DeliverDeviceEvents(1000) > 0) {
    }
    QStringList l = rec.Log;
    rec.Log.clear();
    return l;
  }
  CDevice* d = nullptr;
  CLogRecorder rec;
};

struct XML_CASE {
  const char* sName;
  const char* sXml;
  int HostIF, TargetIF, Speed, MaxSpeed, Adaptive, Serial, UseSerial, Core, DRPre, IRPre, Multi, DevIdx;
  const char* sHost;
  const char* sDevice;
};

const XML_CASE kCases[] = {
    {"nested, device name with a blank, kHz speed",
     "<VordenSettings><HostInterface><ConnectMode>0x2</ConnectMode><USBSerialNo>0x1C</USBSerialNo>"
     "<HostName>10.0.0.7:2331</HostName><UseSerialNo>0x1</UseSerialNo></HostInterface><TargetDevice>"
     "<CoreIndex>0x3</CoreIndex><Endian>0x0</Endian><DeviceName>\"My Device\"</DeviceName></TargetDevice>"
     "<TargetInterface><TargetIF>0x0</TargetIF><DRPre>0x2</DRPre><IRPre>0x8</IRPre><MultipleTargets>0x1"
     "</MultipleTargets><Speed>4000</Speed><UseAdaptive>0x0</UseAdaptive><UseMaxSpeed>0x0</UseMaxSpeed>"
     "</TargetInterface></VordenSettings>",
     2, 0, 4000000, 0, 0, 0x1C, 1, 3, 2, 8, 1, 2, "10.0.0.7:2331", "My Device"},
    {"flat form, speed auto",
     "<VordenSettings><ConnectMode>1</ConnectMode><TargetIF>0x1</TargetIF><Speed>auto</Speed>"
     "<UseMaxSpeed>1</UseMaxSpeed><DeviceName>DevA</DeviceName></VordenSettings>",
     1, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, "", "DevA"},
    {"speed adaptive, octal and hex numbers",
     "<VordenSettings><TargetInterface><TargetIF>07</TargetIF><Speed>adaptive</Speed><UseAdaptive>0x1"
     "</UseAdaptive><IRPre>010</IRPre></TargetInterface></VordenSettings>",
     1, 7, 65535, 0, 1, 0, 0, 0, 0, 8, 0, -1, "", ""},
    {"no TargetInterface: SWD at speed 0", "<VordenSettings><HostInterface/></VordenSettings>",
     1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, -1, "", ""},
};

void ExpectFields(CDevice* d, const XML_CASE& c) {
  SCOPED_TRACE(c.sName);
  const CDeviceConfig& k = d->Config();
  EXPECT_EQ(k.Get(DEV_CFG_HOST_IF), c.HostIF);
  EXPECT_EQ(k.Get(DEV_CFG_TARGET_IF), c.TargetIF);
  EXPECT_EQ(k.Get(DEV_CFG_SPEED), c.Speed);
  EXPECT_EQ(k.Get(DEV_CFG_USE_MAX_SPEED), c.MaxSpeed);
  EXPECT_EQ(k.Get(DEV_CFG_USE_ADAPTIVE), c.Adaptive);
  EXPECT_EQ(k.Get(DEV_CFG_USB_SERIAL_NO), c.Serial);
  EXPECT_EQ(k.Get(DEV_CFG_USE_SERIAL_NO), c.UseSerial);
  EXPECT_EQ(k.Get(DEV_CFG_CORE_INDEX), c.Core);
  EXPECT_EQ(k.Get(DEV_CFG_DR_PRE), c.DRPre);
  EXPECT_EQ(k.Get(DEV_CFG_IR_PRE), c.IRPre);
  EXPECT_EQ(k.Get(DEV_CFG_MULTIPLE_TARGETS), c.Multi);
  EXPECT_EQ(k.Get(DEV_CFG_DEVICE_INDEX), c.DevIdx);
  EXPECT_EQ(k.GetString(DEV_CFG_HOST_NAME), QString::fromUtf8(c.sHost));
  EXPECT_EQ(k.GetString(DEV_CFG_DEVICE_NAME), QString::fromUtf8(c.sDevice));
}

TEST_F(DeviceConfig, XmlRoundTripKeepsEveryParameter) {
  for (const XML_CASE& c : kCases) {
    d->Config().Reset();
    ASSERT_EQ(d->Configure(c.sXml), 0) << c.sName;
    ExpectFields(d, c);
    // What the block writes reads back to the same block.
    const QByteArray Written = d->Config().Xml().toUtf8();
    if (QString::fromUtf8(c.sDevice).contains(' '))
      EXPECT_TRUE(Written.contains(QByteArray("<DeviceName>\"") + c.sDevice + "\"</DeviceName>")) << Written.constData();
    d->Config().Reset();
    ASSERT_EQ(d->Configure(Written.constData()), 0) << Written.constData();
    ExpectFields(d, c);
    EXPECT_EQ(d->Config().Xml().toUtf8(), Written);
  }
  // Numbers are written as upper-case hexadecimal.
  EXPECT_TRUE(d->Config().Xml().contains("<ConnectMode>0x1</ConnectMode>"));
}

TEST_F(DeviceConfig, MalformedXmlGivesInvalidParameterTexts) {
  const char* const kBad[] = {"", "<VordenSettings>", "<<>>", "<VordenSettings><Speed>fast</Speed></VordenSettings>",
                              "<VordenSettings><CoreIndex>0xZZ</CoreIndex></VordenSettings>",
                              "<a><b><c><d><e></e></d></c></b></a>&"};
  for (const char* s : kBad) {
    EXPECT_EQ(d->Configure(s), -1) << s;
    const QStringList Log = Deliver();
    EXPECT_TRUE(Log.join('\n').contains("Invalid configuration parameter")) << s << ": " << Log.join('|').toStdString();
  }
  EXPECT_EQ(d->SetConfigParam(DEV_CFG_CORE_INDEX, (const char*)nullptr), -1);
  EXPECT_TRUE(Deliver().contains("Invalid configuration parameter string value"));
  EXPECT_EQ(d->SetConfigParam(DEV_CFG_CORE_INDEX, "x"), -1);
  EXPECT_TRUE(Deliver().contains("Invalid configuration parameter"));
  EXPECT_EQ(d->SetConfigParam(DEV_CONFIG_PARAMS(17), 1), -1);
  EXPECT_TRUE(Deliver().contains("Unknown configuration parameter with ID 17"));
}

TEST_F(DeviceConfig, SpeedParametersMoveTogether) {
  d->SetConfigParam(DEV_CFG_SPEED, 0);
  EXPECT_EQ(d->Config().Get(DEV_CFG_USE_MAX_SPEED), 1);
  EXPECT_EQ(d->Config().Get(DEV_CFG_USE_ADAPTIVE), 0);
  d->SetConfigParam(DEV_CFG_SPEED, 65535);
  EXPECT_EQ(d->Config().Get(DEV_CFG_USE_MAX_SPEED), 0);
  EXPECT_EQ(d->Config().Get(DEV_CFG_USE_ADAPTIVE), 1);
  d->SetConfigParam(DEV_CFG_SPEED, 12000);
  EXPECT_EQ(d->Config().Get(DEV_CFG_USE_MAX_SPEED), 0);
  EXPECT_EQ(d->Config().Get(DEV_CFG_USE_ADAPTIVE), 0);
  d->SetConfigParam(DEV_CFG_USE_MAX_SPEED, 1);
  EXPECT_EQ(d->Config().Get(DEV_CFG_SPEED), 0);
  // An unknown device name leaves no device selected.
  d->SetConfigParam(DEV_CFG_DEVICE_NAME, "Nobody");
  EXPECT_EQ(d->Config().Get(DEV_CFG_DEVICE_INDEX), -1);
  d->SetConfigParam(DEV_CFG_DEVICE_NAME, "DevA");
  EXPECT_EQ(d->Config().Get(DEV_CFG_DEVICE_INDEX), 1);
  EXPECT_EQ(d->Info().RAMAddr, fakeprobe::kRAM);
  EXPECT_EQ(d->Info().CoreFamily, 0x0Eu);
  // Before a connection SWO counts as available.
  EXPECT_TRUE(d->ReadSWOTraceCapability());
}

TEST(DeviceTexts, SpeedFormatterAndParser) {
  EXPECT_EQ(DEV_SpeedToText(0, true), "auto");
  EXPECT_EQ(DEV_SpeedToText(65535, true), "adaptive");
  EXPECT_EQ(DEV_SpeedToText(-1, true), "");
  EXPECT_EQ(DEV_SpeedToText(4000000, true), "4 MHz");
  EXPECT_EQ(DEV_SpeedToText(12000, true), "12 kHz");
  EXPECT_EQ(DEV_SpeedToText(1500, true), "1500 Hz");
  EXPECT_EQ(DEV_SpeedToText(2500000, true), "2500000 Hz");
  EXPECT_EQ(DEV_SpeedToText(2500000, false), "2500000");
  EXPECT_EQ(DEV_SpeedFromText("AUTO"), 0);
  EXPECT_EQ(DEV_SpeedFromText("Adaptive"), 65535);
  EXPECT_EQ(DEV_SpeedFromText("2,5 MHz"), 2500000);
  EXPECT_EQ(DEV_SpeedFromText("4.5kHz"), 4500);
  EXPECT_EQ(DEV_SpeedFromText("1 GHz"), 1000000000);
  EXPECT_EQ(DEV_SpeedFromText("100"), 100);
  EXPECT_EQ(DEV_SpeedFromText("fast"), -1);
  EXPECT_EQ(DEV_SpeedFromText(""), -1);
  EXPECT_EQ(DEV_RoundProjectSpeed(4000501), 4001000);
  EXPECT_EQ(DEV_RoundProjectSpeed(4000500), 4000000);
  EXPECT_EQ(DEV_RoundProjectSpeed(10), 1000);
  EXPECT_EQ(DEV_RoundProjectSpeed(65535), 65535);
}

TEST(DeviceTexts, LibraryVersionAndWebServerPort) {
  EXPECT_EQ(DEV_LibVersionText(62006), "6.20f");
  EXPECT_EQ(DEV_LibVersionText(70000), "7.00");
  EXPECT_EQ(DEV_LibVersionText(40501), "4.05a");
  EXPECT_EQ(DEV_WebServerPort(70000, -1), 19080);
  EXPECT_EQ(DEV_WebServerPort(62005, 0), 19080);
  EXPECT_EQ(DEV_WebServerPort(62100, 0), 19080);
  EXPECT_EQ(DEV_WebServerPort(70000, 0), 0);
  EXPECT_EQ(DEV_WebServerPort(70000, 1234), 1234);
}

}  // namespace
