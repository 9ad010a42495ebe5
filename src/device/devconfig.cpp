#include "device/devconfig.h"

#include <QHash>
#include <QRegularExpression>
#include <QXmlStreamReader>
#include <cmath>

namespace {

const int kDefaults[DEV_CFG_NUM_INT] = {-1, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 6, -1, 0, 0};
const char kDefaultHost[] = "192.168.0.1";

QString Hex(int v) { return QStringLiteral("0x") + QString::number(U32(v), 16).toUpper(); }

int FieldLimit(int Id) { return Id == DEV_CFG_HOST_NAME || Id == DEV_CFG_DEVICE_NAME ? 255 : 2047; }

}  // namespace

void CDeviceConfig::Reset() {
  for (int i = 0; i < DEV_CFG_NUM_INT; ++i) m_aInt[i].store(kDefaults[i]);
  {
    std::lock_guard<std::mutex> g(m_Mx);
    m_sHostName = QLatin1String(kDefaultHost);
    m_sDeviceName.clear();
    m_sScriptFile.clear();
    m_sLogFile.clear();
  }
  RewriteXml();
}

QString CDeviceConfig::GetString(int Id) const {
  std::lock_guard<std::mutex> g(m_Mx);
  switch (Id) {
    case DEV_CFG_HOST_NAME: return m_sHostName;
    case DEV_CFG_DEVICE_NAME: return m_sDeviceName;
    case DEV_CFG_SCRIPT_FILE: return m_sScriptFile;
    case DEV_CFG_LOG_FILE: return m_sLogFile;
    default: return QString();
  }
}

bool CDeviceConfig::StoreString(int Id, const QString& s) {
  const QString v = s.left(FieldLimit(Id));
  std::lock_guard<std::mutex> g(m_Mx);
  switch (Id) {
    case DEV_CFG_HOST_NAME: m_sHostName = v; return true;
    case DEV_CFG_DEVICE_NAME: m_sDeviceName = v; return true;
    case DEV_CFG_SCRIPT_FILE: m_sScriptFile = v; return true;
    case DEV_CFG_LOG_FILE: m_sLogFile = v; return true;
    default: return false;
  }
}

QString CDeviceConfig::Xml() const {
  std::lock_guard<std::mutex> g(m_Mx);
  return m_sXml;
}

void CDeviceConfig::RewriteXml() {
  const QString s = BuildXml(*this).left(2047);
  std::lock_guard<std::mutex> g(m_Mx);
  m_sXml = s;
}

QString CDeviceConfig::BuildXml(const CDeviceConfig& c) {
  QString sName = c.GetString(DEV_CFG_DEVICE_NAME);
  if (sName.contains(QLatin1Char(' ')) && !(sName.size() >= 2 && sName.startsWith('"') && sName.endsWith('"')))
    sName = QLatin1Char('"') + sName + QLatin1Char('"');
  // Element texts are escaped except for the double quotes, which the text
  // keeps as plain characters.
  auto Esc = [](QString s) {
    s.replace('&', QLatin1String("&amp;")).replace('<', QLatin1String("&lt;")).replace('>', QLatin1String("&gt;"));
    return s;
  };
  auto El = [](const char* sTag, const QString& sValue) {
    return QStringLiteral("    <%1>%2</%1>\n").arg(QLatin1String(sTag), sValue);
  };
  const int Speed = c.Get(DEV_CFG_SPEED);
  const QString sSpeed = (Speed == 0 || Speed == 65535) ? DEV_SpeedToText(Speed, false) : QString::number(U32(Speed) / 1000);
  QString s = QStringLiteral("<VordenSettings>\n  <HostInterface>\n");
  s += El("ConnectMode", Hex(c.Get(DEV_CFG_HOST_IF)));
  s += El("USBSerialNo", Hex(c.Get(DEV_CFG_USB_SERIAL_NO)));
  s += El("HostName", Esc(c.GetString(DEV_CFG_HOST_NAME)));
  s += El("UseSerialNo", Hex(c.Get(DEV_CFG_USE_SERIAL_NO)));
  s += QStringLiteral("  </HostInterface>\n  <TargetDevice>\n");
  s += El("CoreIndex", Hex(c.Get(DEV_CFG_CORE_INDEX)));
  s += El("Endian", Hex(c.Get(DEV_CFG_ENDIAN)));
  s += El("DeviceName", Esc(sName));
  s += QStringLiteral("  </TargetDevice>\n  <TargetInterface>\n");
  s += El("TargetIF", Hex(c.Get(DEV_CFG_TARGET_IF)));
  s += El("DRPre", Hex(c.Get(DEV_CFG_DR_PRE)));
  s += El("IRPre", Hex(c.Get(DEV_CFG_IR_PRE)));
  s += El("MultipleTargets", Hex(c.Get(DEV_CFG_MULTIPLE_TARGETS)));
  s += El("Speed", sSpeed);
  s += El("UseAdaptive", Hex(c.Get(DEV_CFG_USE_ADAPTIVE)));
  s += El("UseMaxSpeed", Hex(c.Get(DEV_CFG_USE_MAX_SPEED)));
  s += QStringLiteral("  </TargetInterface>\n</VordenSettings>\n");
  return s;
}

bool CDeviceConfig::ParseXml(const QString& sXml, DEV_CONFIG_XML* pOut) {
  *pOut = DEV_CONFIG_XML();
  // Element name -> text, from the root and from each child of the root.
  QHash<QString, QString> Values;
  QXmlStreamReader r(sXml);
  int Depth = 0;
  QString sCurrent;
  QString sText;
  while (!r.atEnd()) {
    const auto t = r.readNext();
    if (t == QXmlStreamReader::StartElement) {
      ++Depth;
      sCurrent = r.name().toString();
      sText.clear();
    } else if (t == QXmlStreamReader::Characters) {
      sText += r.text();
    } else if (t == QXmlStreamReader::EndElement) {
      if ((Depth == 2 || Depth == 3) && r.name() == sCurrent && !Values.contains(sCurrent))
        Values.insert(sCurrent, sText.trimmed());
      sText.clear();
      sCurrent.clear();
      --Depth;
    }
  }
  if (r.hasError()) {
    pOut->Errors << QStringLiteral("Invalid configuration parameter text: %1 (line %2)")
                        .arg(r.errorString())
                        .arg(r.lineNumber());
    return false;
  }
  auto Num = [&](const char* sTag, U32 Absent) -> U32 {
    const QString k = QLatin1String(sTag);
    if (!Values.contains(k)) return Absent;
    bool Ok = false;
    const QString v = Values.value(k);
    // C rules: "0x" hexadecimal, a leading 0 octal.
    U64 n = v.toULongLong(&Ok, 0);
    if (Ok && n > 0xFFFFFFFFull) Ok = false;
    if (!Ok) {
      const I64 sv = v.toLongLong(&Ok, 0);
      if (Ok && (sv < -2147483648LL || sv > 0xFFFFFFFFLL)) Ok = false;
      n = U64(sv);
    }
    if (!Ok) {
      pOut->Errors << QStringLiteral("Invalid configuration parameter %1: \"%2\"").arg(k, v);
      return Absent;
    }
    return U32(n);
  };
  pOut->ConnectMode = Num("ConnectMode", 1);
  pOut->USBSerialNo = Num("USBSerialNo", 0);
  pOut->UseSerialNo = Num("UseSerialNo", 0);
  pOut->CoreIndex = Num("CoreIndex", 0);
  pOut->Endian = Num("Endian", 0);
  pOut->TargetIF = Num("TargetIF", 1);
  pOut->DRPre = Num("DRPre", 0);
  pOut->IRPre = Num("IRPre", 0);
  pOut->MultipleTargets = Num("MultipleTargets", 0);
  pOut->UseAdaptive = Num("UseAdaptive", 0);
  pOut->UseMaxSpeed = Num("UseMaxSpeed", 0);
  const QString sSpeed = Values.value(QStringLiteral("Speed"));
  if (sSpeed.compare(QLatin1String("auto"), Qt::CaseInsensitive) == 0) pOut->Speed = 0;
  else if (sSpeed.compare(QLatin1String("adaptive"), Qt::CaseInsensitive) == 0) pOut->Speed = 65535;
  else if (!sSpeed.isEmpty()) pOut->Speed = Num("Speed", 0) * 1000u;
  pOut->sHostName = Values.value(QStringLiteral("HostName"));
  pOut->sDeviceName = Values.value(QStringLiteral("DeviceName")).remove(QLatin1Char('"'));
  return true;
}

QString DEV_SpeedToText(I64 Hz, bool WithUnit) {
  if (Hz < 0) return QString();
  if (Hz == 0) return QStringLiteral("auto");
  if (Hz == 65535) return QStringLiteral("adaptive");
  if (!WithUnit) return QString::number(Hz);
  static const QString kSep = QStringLiteral(" ");
  if (Hz >= 1000 && Hz <= 999999 && Hz % 1000 == 0) return QString::number(Hz / 1000) + kSep + QStringLiteral("kHz");
  if (Hz >= 1000000 && Hz % 1000000 == 0) return QString::number(Hz / 1000000) + kSep + QStringLiteral("MHz");
  return QString::number(Hz) + kSep + QStringLiteral("Hz");
}

I64 DEV_SpeedFromText(const QString& sText) {
  const QString s = sText.trimmed();
  if (s.compare(QLatin1String("auto"), Qt::CaseInsensitive) == 0) return 0;
  if (s.compare(QLatin1String("adaptive"), Qt::CaseInsensitive) == 0) return 65535;
  static const QRegularExpression Re(QStringLiteral("^(\\d+(?:[.,]\\d*)?)\\s*(ghz|mhz|khz|hz)?$"),
                                     QRegularExpression::CaseInsensitiveOption);
  const auto m = Re.match(s);
  if (!m.hasMatch()) return -1;
  QString sNum = m.captured(1);
  sNum.replace(QLatin1Char(','), QLatin1Char('.'));
  bool Ok = false;
  const double v = sNum.toDouble(&Ok);
  if (!Ok) return -1;
  const QString u = m.captured(2).toLower();
  const double f = u == QLatin1String("ghz") ? 1e9 : u == QLatin1String("mhz") ? 1e6 : u == QLatin1String("khz") ? 1e3 : 1;
  const double Hz = std::round(v * f);
  if (Hz > 9.2e18) return -1;
  return I64(Hz);
}

I64 DEV_RoundProjectSpeed(I64 Hz) {
  if (Hz == 0 || Hz == 65535 || Hz < 0) return Hz;
  I64 k = Hz / 1000;
  if (Hz % 1000 >= 501) ++k;
  return std::max<I64>(1000, k * 1000);
}

QString DEV_LibVersionText(int Version) {
  const int Major = Version / 10000, Minor = (Version / 100) % 100, Rest = Version % 100;
  QString s = QStringLiteral("%1.%2%3").arg(Major).arg(Minor < 10 ? QStringLiteral("0") : QString()).arg(Minor);
  if (Rest) s += QChar(QLatin1Char('a' + (Rest - 1) % 26));
  return s;
}

int DEV_WebServerPort(int Version, int FuncPort) {
  if (FuncPort < 0) return 19080;
  if (FuncPort > 0) return FuncPort;
  if (Version < 62006 || Version == 62100 || Version == 62101) return 19080;
  return 0;
}
