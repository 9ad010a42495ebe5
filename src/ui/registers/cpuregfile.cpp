#include "ui/registers/cpuregfile.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QXmlStreamReader>

bool REG_ParseNumber(const QString& sText, U64* pValue) {
  QString s = sText.trimmed();
  s.remove(QLatin1Char('+'));
  U64 Scale = 1;
  if (!s.isEmpty()) {
    switch (s.back().toLower().unicode()) {
      case 'k': Scale = 1000ull; break;
      case 'm': Scale = 1000000ull; break;
      case 'g': Scale = 1000000000ull; break;
      case 't': Scale = 1000000000000ull; break;
      default: break;
    }
    if (Scale != 1) s.chop(1);
  }
  bool Ok = false;
  const U64 v = s.startsWith(QLatin1Char('#')) ? s.mid(1).toULongLong(&Ok, 2) : s.toULongLong(&Ok, 0);
  if (!Ok) return false;
  *pValue = v * Scale;
  return true;
}

namespace {

// The text of the current element, runs of blanks made one.
QString ElementText(QXmlStreamReader& x) {
  return x.readElementText(QXmlStreamReader::SkipChildElements).simplified();
}

U32 BitsOf(const QString& sText, U32 Default) {
  U64 v = 0;
  return REG_ParseNumber(sText, &v) && v > 0 && v <= 64 ? U32(v) : Default;
}

// A field's position: bitOffset with bitWidth, else lsb with msb, else
// bitRange "[msb:lsb]"; the one-bit ones are appended to Flags.
void ReadFields(QXmlStreamReader& x, QList<QPair<QString, U8>>* pFlags) {
  while (x.readNextStartElement()) {
    if (x.name() != QLatin1String("field")) {
      x.skipCurrentElement();
      continue;
    }
    QString sName;
    QHash<QString, U64> v;
    while (x.readNextStartElement()) {
      const QString n = x.name().toString();
      const QString t = ElementText(x);
      if (n == QLatin1String("name")) sName = t;
      U64 k = 0;
      if (n == QLatin1String("bitRange")) {
        const QStringList l = QString(t).remove(QLatin1Char('[')).remove(QLatin1Char(']')).split(QLatin1Char(':'));
        if (l.size() == 2 && REG_ParseNumber(l[0], &k)) v.insert(QStringLiteral("rmsb"), k);
        if (l.size() == 2 && REG_ParseNumber(l[1], &k)) v.insert(QStringLiteral("rlsb"), k);
      } else if (REG_ParseNumber(t, &k)) {
        v.insert(n, k);
      }
    }
    auto Has = [&](const char* a, const char* b) { return v.contains(QLatin1String(a)) && v.contains(QLatin1String(b)); };
    U64 Pos = 0, Width = 0;
    if (Has("bitOffset", "bitWidth")) Pos = v["bitOffset"], Width = v["bitWidth"];
    else if (Has("lsb", "msb")) Pos = v["lsb"], Width = v["msb"] - v["lsb"] + 1;
    else if (Has("rlsb", "rmsb")) Pos = v["rlsb"], Width = v["rmsb"] - v["rlsb"] + 1;
    if (Width == 1 && Pos < 64 && !sName.isEmpty()) pFlags->append({sName, U8(Pos)});
  }
}

void ReadRegister(QXmlStreamReader& x, const QString& sGroup, U32 Bits, QList<CPU_REG_DESC>* pRegs) {
  CPU_REG_DESC r;
  r.Group = sGroup;
  r.Bits = Bits;
  bool HasIndex = false;
  while (x.readNextStartElement()) {
    const QStringView n = x.name();
    if (n == QLatin1String("name")) r.Name = ElementText(x);
    else if (n == QLatin1String("description")) r.Description = ElementText(x);
    else if (n == QLatin1String("size")) r.Bits = BitsOf(ElementText(x), r.Bits);
    else if (n == QLatin1String("fields")) ReadFields(x, &r.Flags);
    else if (n == QLatin1String("index")) {
      U64 v = 0;
      HasIndex = REG_ParseNumber(ElementText(x), &v) && v <= 0xFFFFFFFFull;
      r.LogicIdx = U32(v);
    } else x.skipCurrentElement();
  }
  if (HasIndex && !r.Name.isEmpty()) pRegs->append(r);
}

void ReadGroup(QXmlStreamReader& x, U32 Bits, QList<CPU_REG_DESC>* pRegs) {
  if (x.attributes().hasAttribute(QLatin1String("derivedFrom"))) {
    x.skipCurrentElement();
    return;
  }
  QString sName;
  while (x.readNextStartElement()) {
    const QStringView n = x.name();
    if (n == QLatin1String("name")) sName = ElementText(x);
    else if (n == QLatin1String("size")) Bits = BitsOf(ElementText(x), Bits);
    else if (n == QLatin1String("registers")) {
      while (x.readNextStartElement()) {
        if (x.name() == QLatin1String("register")) ReadRegister(x, sName, Bits, pRegs);
        else x.skipCurrentElement();
      }
    } else x.skipCurrentElement();
  }
}

}  // namespace

int REG_ReadCpuFile(const QString& sPath, QList<CPU_REG_DESC>* pRegs, QString* psError) {
  pRegs->clear();
  const QString sName = QFileInfo(sPath).fileName();
  QFile f(sPath);
  if (!f.open(QIODevice::ReadOnly)) {
    *psError = QStringLiteral("Could not open register description file ") + sPath;
    return -1;
  }
  if (f.size() < 10) return 0;
  QXmlStreamReader x(&f);
  if (!x.readNextStartElement()) {
    *psError = QStringLiteral("Skipping ") + sName + QStringLiteral(": not a CMSIS CPU register set description file");
    return -1;
  }
  const QString sRoot = x.name().toString().toLower();
  if (sRoot != QLatin1String("cpu") && sRoot != QLatin1String("device")) {
    *psError = QStringLiteral("Skipping ") + sName + QStringLiteral(": not a CMSIS CPU register set description file");
    return -1;
  }
  U32 Bits = 32;
  while (x.readNextStartElement()) {
    if (x.name() == QLatin1String("size")) {
      Bits = BitsOf(ElementText(x), Bits);
    } else if (x.name() == QLatin1String("groups")) {
      while (x.readNextStartElement()) {
        if (x.name() == QLatin1String("group")) ReadGroup(x, Bits, pRegs);
        else x.skipCurrentElement();
      }
    } else {
      x.skipCurrentElement();
    }
  }
  if (x.hasError()) {
    *psError = QStringLiteral("Register description file ") + sName + QStringLiteral(" is corrupt: ") + x.errorString() +
               QStringLiteral(" (line %1)").arg(x.lineNumber());
    pRegs->clear();
    return -1;
  }
  return 0;
}
