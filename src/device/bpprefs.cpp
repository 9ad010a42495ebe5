// Breakpoints, data breakpoints and tracepoints in the user preference file:
// one record a line, "Key=value" fields separated by ",". Only fields that
// differ from an empty record are written; the first field names the place.
#include "device/bpmodel.h"

#include <cstring>


namespace {

const char* const kStates[] = {"BP_STATE_OFF", "BP_STATE_ON", "BP_STATE_ON_HIDDEN", "BP_STATE_DISABLED",
                               "BP_STATE_MIXED", "BP_STATE_UNKNOWN"};
const char* const kTypes[] = {"BP_TYPE_ANY", "BP_TYPE_HARD", "BP_TYPE_SOFT", "BP_TYPE_FLASH",
                              "BP_TYPE_RAM", "BP_TYPE_PENDING", "BP_TYPE_MIXED"};

const char* const kBpKeys[13] = {"Breakpoint", "Permitted Impl.", "Actual Impl.", "State", "Condition",
                                 "TriggerOnChange", "TaskName", "SkipCount", "ReloadSkip", "ConsoleMsg",
                                 "PopupMsg", "ScriptCallback", "Source"};
const char* const kAccessTypes[] = {"AT_READ_ONLY", "AT_WRITE_ONLY", "AT_READ_WRITE", "AT_NO_ACCESS"};
const char* const kTpOps[] = {"TP_OP_START", "TP_OP_STOP"};

QString Quote(const QString& s, bool Always = false) {
  const bool Quoted = s.size() >= 2 && s.startsWith(QLatin1Char('"')) && s.endsWith(QLatin1Char('"'));
  if (Quoted) return s;
  if (Always || s.contains(QLatin1Char(' ')) || s.contains(QLatin1Char(',')) || s.contains(QLatin1Char('\t')))
    return QLatin1Char('"') + s + QLatin1Char('"');
  return s;
}

QString HexText(U64 v) { return QStringLiteral("0x") + QString::number(v, 16).toUpper(); }

bool IsHexAddr(const QString& s, U64* pAddr) {
  if (!s.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) return false;
  bool Ok = false;
  const U64 v = s.mid(2).toULongLong(&Ok, 16);
  if (Ok && pAddr) *pAddr = v;
  return Ok;
}

bool ParseNumber(const QString& s, U64* pOut) {
  bool Ok = false;
  const U64 v = s.trimmed().toULongLong(&Ok, 0);
  if (Ok) *pOut = v;
  return Ok;
}

bool ParseBool(const QString& s) {
  const QString t = s.trimmed().toLower();
  return t == QLatin1String("1") || t == QLatin1String("true") || t == QLatin1String("yes") || t == QLatin1String("on");
}

int ParseWordOrNumber(const QString& s, const char* const* paWords, int Count, U64 Limit) {
  for (int i = 0; i < Count; ++i)
    if (s.trimmed().compare(QLatin1String(paWords[i]), Qt::CaseInsensitive) == 0) return i;
  U64 v = 0;
  return ParseNumber(s, &v) && v < Limit ? int(v) : -1;
}

int ParseAccessSize(const QString& s) {
  static const struct { const char* n; int v; } k[] = {{"AW_ANY", 0}, {"AW_BYTE", 1}, {"AW_HALF_WORD", 2}, {"AW_WORD", 4}};
  for (const auto& e : k)
    if (s.trimmed().compare(QLatin1String(e.n), Qt::CaseInsensitive) == 0) return e.v;
  U64 v = 0;
  return ParseNumber(s, &v) && (v == 0 || v == 1 || v == 2 || v == 4) ? int(v) : -1;
}

QString AccessSizeWord(U32 v) {
  switch (v) {
    case 0: return QStringLiteral("AW_ANY");
    case 1: return QStringLiteral("AW_BYTE");
    case 2: return QStringLiteral("AW_HALF_WORD");
    case 4: return QStringLiteral("AW_WORD");
    default: return QString::number(v);
  }
}

}  // namespace

QString BP_StateText(U32 State) { return State < 6 ? QString::fromLatin1(kStates[State]) : QString(); }
QString BP_TypeText(U32 Type) { return Type < 7 ? QString::fromLatin1(kTypes[Type]) : QString(); }
int BP_ParseState(const QString& s) { return ParseWordOrNumber(s, kStates, 6, 6); }
int BP_ParseType(const QString& s) { return ParseWordOrNumber(s, kTypes, 7, 7); }

QList<QPair<QString, QString>> BP_ParseUserRecord(const QString& sLine, QStringList* pBad) {
  QList<QPair<QString, QString>> Out;
  QStringList Fields;
  QString Cur;
  bool InQuotes = false;
  for (const QChar c : sLine) {
    if (c == QLatin1Char('"')) InQuotes = !InQuotes;
    if (c == QLatin1Char(',') && !InQuotes) {
      Fields.append(Cur.trimmed());
      Cur.clear();
      continue;
    }
    Cur += c;
  }
  Fields.append(Cur.trimmed());
  for (const QString& f : Fields) {
    if (f.isEmpty()) continue;
    const qsizetype e = f.indexOf(QLatin1Char('='));
    if (e < 0) {
      if (pBad) pBad->append(f);
      continue;
    }
    QString v = f.mid(e + 1).trimmed();
    if (v.size() >= 2 && v.startsWith(QLatin1Char('"')) && v.endsWith(QLatin1Char('"'))) v = v.mid(1, v.size() - 2);
    Out.append({f.left(e).trimmed(), v});
  }
  return Out;
}

bool BP_ParseUserLine(const QString& sLine, BP_USER_RECORD* pRec, QStringList* pErrors) {
  QStringList Bad;
  const auto Fields = BP_ParseUserRecord(sLine, &Bad);
  for (const QString& b : Bad)
    if (pErrors) pErrors->append(QStringLiteral("Syntax error in user preference file (.vdebug.user): ") + b);
  if (Fields.isEmpty()) return false;
  auto Err = [&](const char* s) {
    if (pErrors) pErrors->append(QStringLiteral("configuration error. ") + QLatin1String(s));
  };
  BP_USER_RECORD& r = *pRec;
  r = BP_USER_RECORD();
  const QString sKind = Fields[0].first;
  U64 Addr = 0;
  if (sKind == QLatin1String(kBpKeys[0])) {
    r.Kind = 0;
    CBreakpointInfo& b = r.Bp;
    for (const auto& [k, v] : Fields) {
      int Idx = -1;
      for (int i = 0; i < 13; ++i)
        if (k == QLatin1String(kBpKeys[i])) Idx = i;
      U64 n = 0;
      switch (Idx) {
        case 0:
          if (IsHexAddr(v, &Addr) && Addr <= 0xFFFFFFFFull) {
            b.Addr = Addr;
            r.HasAddr = true;
          } else {
            r.sLoc = v;
          }
          break;
        case 1:
        case 2: {
          const int t = BP_ParseType(v);
          if (t < 0) {
            Err("not a valid breakpoint type");
            return false;
          }
          (Idx == 1 ? b.PermittedImpl : b.ActualImpl) = BP_TYPES(t);
          break;
        }
        case 3: {
          const int s = BP_ParseState(v);
          if (s < 0) {
            Err("not a valid breakpoint state");
            return false;
          }
          b.State = BP_STATES(s);
          break;
        }
        case 4: b.Condition = v; break;
        case 5: b.TriggerOnChange = ParseBool(v); break;
        case 6: b.TaskName = v; break;
        case 7: b.SkipCount = ParseNumber(v, &n) ? I32(n) : 0; break;
        case 8: b.ReloadSkip = ParseBool(v); break;
        case 9: b.ConsoleMsg = v; break;
        case 10: b.PopupMsg = v; break;
        case 11: b.ScriptCallback = v; break;
        case 12: b.SourceText = v; break;
        default: break;
      }
    }
    return r.HasAddr || !r.sLoc.isEmpty();
  }
  if (sKind == QLatin1String("DataBreakpoint")) {
    r.Kind = 1;
    WP& w = r.Wp;
    for (const auto& [k, v] : Fields) {
      U64 n = 0;
      if (k == QLatin1String("DataBreakpoint")) {
        if (IsHexAddr(v, &Addr) && Addr <= 0xFFFFFFFFull) {
          w.Addr = U32(Addr);
          r.HasAddr = true;
        } else {
          r.sLoc = v.left(255);
        }
      } else if (k == QLatin1String("AddrMask")) {
        if (ParseNumber(v, &n)) w.AddrMask = U32(n);
      } else if (k == QLatin1String("AccessType")) {
        const int t = ParseWordOrNumber(v, kAccessTypes, 4, 4);
        if (t < 0) {
          Err("not a valid access type");
          return false;
        }
        w.AccessType = U32(t);
      } else if (k == QLatin1String("AccessSize")) {
        const int s = ParseAccessSize(v);
        if (s < 0) {
          Err("not a valid access size");
          return false;
        }
        w.AccessSize = U32(s);
      } else if (k == QLatin1String("MatchValue")) {
        if (ParseNumber(v, &n)) w.MatchValue = U32(n);
      } else if (k == QLatin1String("ValueMask")) {
        if (ParseNumber(v, &n)) w.ValueMask = n;
      } else if (k == QLatin1String("State")) {
        const int s = BP_ParseState(v);
        if (s < 0) {
          Err("not a valid breakpoint state");
          return false;
        }
        w.State = BP_STATES(s);
      }
    }
    const QByteArray Sym = r.sLoc.toUtf8().left(255);
    memcpy(w.Symbol, Sym.constData(), size_t(Sym.size()));
    return w.State != BP_STATE_UNKNOWN && (r.HasAddr || !r.sLoc.isEmpty());
  }
  if (sKind == QLatin1String("Tracepoint")) {
    r.Kind = 2;
    TP& t = r.Tp;
    for (const auto& [k, v] : Fields) {
      if (k == QLatin1String("Tracepoint")) {
        if (IsHexAddr(v, &Addr)) {
          t.Addr = Addr;
          r.HasAddr = true;
        } else {
          r.sLoc = v;
          t.FromSource = 1;
        }
      } else if (k == QLatin1String("Type")) {
        const int o = ParseWordOrNumber(v, kTpOps, 2, 2);
        if (o < 0) {
          Err("not a valid tracepoint operation");
          return false;
        }
        t.Op = U8(o);
      } else if (k == QLatin1String("State")) {
        const int s = BP_ParseState(v);
        if (s < 0) {
          Err("not a valid breakpoint state");
          return false;
        }
        t.State = U8(s);
      }
    }
    return r.HasAddr || !r.sLoc.isEmpty();
  }
  return false;
}

QString BP_FormatBreakpoint(const CBreakpointInfo& b, const QString& sLocText) {
  const CBreakpointInfo d;
  QStringList f;
  f << QStringLiteral("Breakpoint=") + Quote(sLocText);
  auto Add = [&](int Key, const QString& v, const QString& Default, bool AlwaysQuote = false) {
    if (v != Default) f << QLatin1String(kBpKeys[Key]) + QLatin1Char('=') + Quote(v, AlwaysQuote);
  };
  Add(1, BP_TypeText(b.PermittedImpl), BP_TypeText(d.PermittedImpl));
  Add(3, BP_StateText(b.State), BP_StateText(d.State));
  Add(4, b.Condition, d.Condition, true);
  Add(5, b.TriggerOnChange ? QStringLiteral("1") : QStringLiteral("0"), QStringLiteral("0"));
  Add(6, b.TaskName, d.TaskName);
  Add(7, QString::number(b.SkipCount), QString::number(d.SkipCount));
  Add(8, b.ReloadSkip ? QStringLiteral("1") : QStringLiteral("0"), QStringLiteral("0"));
  Add(9, b.ConsoleMsg, d.ConsoleMsg);
  Add(10, b.PopupMsg, d.PopupMsg);
  Add(11, b.ScriptCallback, d.ScriptCallback);
  return f.join(QStringLiteral(", "));
}

QString BP_FormatDataBreakpoint(const WP& w) {
  const WP d;
  QStringList f;
  const QString sSym = QString::fromUtf8(w.Symbol, int(strnlen(w.Symbol, sizeof w.Symbol)));
  f << QStringLiteral("DataBreakpoint=") + (sSym.isEmpty() ? HexText(w.Addr) : Quote(sSym));
  if (w.AddrMask != d.AddrMask) f << QStringLiteral("AddrMask=") + HexText(w.AddrMask);
  if (w.AccessType != d.AccessType)
    f << QStringLiteral("AccessType=") + (w.AccessType < 4 ? QLatin1String(kAccessTypes[w.AccessType]) : QString::number(w.AccessType));
  if (w.AccessSize != d.AccessSize) f << QStringLiteral("AccessSize=") + AccessSizeWord(w.AccessSize);
  if (w.MatchValue != d.MatchValue) f << QStringLiteral("MatchValue=") + HexText(w.MatchValue);
  if (w.ValueMask != d.ValueMask) f << QStringLiteral("ValueMask=") + HexText(w.ValueMask);
  if (w.State != d.State) f << QStringLiteral("State=") + BP_StateText(w.State);
  return f.join(QStringLiteral(", "));
}

QString BP_FormatTracepoint(const TP& t, const QString& sLocText) {
  QStringList f;
  f << QStringLiteral("Tracepoint=") + Quote(sLocText);
  if (t.Op != TP_OP_START) f << QStringLiteral("Type=") + QLatin1String(t.Op < 2 ? kTpOps[t.Op] : "TP_OP_STOP");
  if (t.State != 0) f << QStringLiteral("State=") + BP_StateText(t.State);
  return f.join(QStringLiteral(", "));
}

