#include "settings/edit.h"

#include "settings/colors.h"
#include "settings/fonts.h"
#include "settings/store.h"
#include "settings/sysvars.h"
#include "settings/textvalue.h"

namespace {

SettingsEditResult Fail(const char* sError, const QString& sText = QString()) {
  SettingsEditResult r;
  r.Result = -1;
  r.sError = QString::fromLatin1(sError);
  r.sErrorText = sText;
  return r;
}

SettingsEditResult Done(bool Echo, const QStringList& EchoArgs) {
  SettingsEditResult r;
  r.bReplaceArgs = Echo;
  r.bClearData = !Echo;
  if (Echo) r.EchoArgs = EchoArgs;
  return r;
}

// Shared path of Edit.SysVar and Edit.Preference.
SettingsEditResult EditRow(const QStringList& Args, bool Preference) {
  if (Args.size() < 2) return Fail("wrong parameter count");
  const int id = SysVars::FindSysVar(Args[0]);
  if (id < 0) return Fail(Preference ? "unknown preference" : "unknown system variable", Args[0]);
  bool store = false;
  bool echo = true;
  qsizetype next = 2;
  if (Preference && Args.size() > next) SettingsText::ParseTruth(Args[next++], store);
  if (Args.size() > next) SettingsText::ParseTruth(Args[next], echo);

  const SYSVAR* row = SysVars::Row(id);
  if (row->Type == SysVarType::String) {
    if (SysVars::SetText(id, Args[1], store) != SysVars::TEXT_OK) return Fail("invalid parameter", Args[1]);
  } else {
    I64 v = 0;
    if (SysVars::ValueFromText(id, Args[1], v) != SysVars::TEXT_OK) return Fail("invalid parameter", Args[1]);
    // Trace port delays are set in steps of 50 ps; others are cut toward zero.
    if (id >= VAR_TRACE_PORT_DELAY_0 && id <= VAR_TRACE_PORT_DELAY_3) v -= v % 50;
    SysVars::SetValue(id, v, store);
  }
  const I64 value = SysVars::GetValue(id);
  if (Preference) {
    // Set from the preferences dialog (with Store): forget every "do not show
    // again" answer.
    if (id == PREF_RESET_DIALOG_DNSA && store && value != 0) Settings::Remove(QStringLiteral("AppData/MessageTimeouts"));
    emit SettingsNotifier().UserPreferenceEdited(id, value);
  } else {
    emit SettingsNotifier().SysVarEdited(id, value);
  }
  return Done(echo, {QString::fromLatin1(row->Name), SysVars::ValueToText(id, value)});
}

}  // namespace

CSettingsNotifier& SettingsNotifier() {
  static CSettingsNotifier* n = [] {
    // The signal arguments by their names, for queued connections.
    qRegisterMetaType<I64>("I64");
    qRegisterMetaType<U32>("U32");
    return new CSettingsNotifier;  // lives for the whole run
  }();
  return *n;
}

SettingsEditResult EditSysVar(const QStringList& Args) { return EditRow(Args, false); }

SettingsEditResult EditPreference(const QStringList& Args) { return EditRow(Args, true); }

SettingsEditResult EditColor(const QStringList& Args) {
  if (Args.size() < 2) return Fail("wrong parameter count");
  const int id = Colors::FindColor(Args[0]);
  if (id < 0) return Fail("unknown color", Args[0]);
  U32 value = 0;
  if (!Colors::ParseColorText(Args[1], value)) return Fail("invalid parameter", Args[1]);
  Colors::SetValue(id, value);
  emit SettingsNotifier().ColorEdited(id, value);
  return Done(true, {QString::fromLatin1(Colors::Row(id)->Name),
                     QStringLiteral("0x") + QStringLiteral("%1").arg(value, 8, 16, QLatin1Char('0')).toUpper()});
}

SettingsEditResult EditFont(const QStringList& Args) {
  if (Args.size() < 2) return Fail("wrong parameter count");
  const int id = Fonts::FindFont(Args[0]);
  if (id < 0) return Fail("unknown font", Args[0]);
  QFont font;
  if (!Fonts::ParseFontText(Args[1], font)) return Fail("invalid parameter", Args[1]);
  Fonts::SetFont(id, font);
  emit SettingsNotifier().FontEdited(id, font);
  SettingsEditResult r;  // the arguments are shown as given
  return r;
}

QStringList SysVarActionArgs(int Id, I64 Value, bool Echo) {
  const SYSVAR* row = SysVars::Row(Id);
  if (!row) return {};
  QStringList args{QString::fromLatin1(row->Name), SysVars::ValueToText(Id, Value)};
  if (!Echo) args << QStringLiteral("0");
  return args;
}

QStringList PreferenceActionArgs(int Id, I64 Value, bool Store, bool Echo) {
  const SYSVAR* row = SysVars::Row(Id);
  if (!row) return {};
  QStringList args{QString::fromLatin1(row->Name), SysVars::ValueToText(Id, Value),
                   Store ? QStringLiteral("1") : QStringLiteral("0")};
  if (!Echo) args << QStringLiteral("0");
  return args;
}

namespace UserSettings {

namespace {

QString PreferenceKey(int Id) {
  return QStringLiteral("AppData/Preferences/Preferences/") + QLatin1String(SysVars::Row(Id)->Name);
}

// A stored preference, or nothing when it is missing or not a value the row
// can hold.
bool ReadPreference(int Id, I64& Out) {
  const QString key = PreferenceKey(Id);
  if (!Settings::Contains(key)) return false;
  const QString text = Settings::Value(key).toString().trimmed();
  const SYSVAR* row = SysVars::Row(Id);
  if (row->Type == SysVarType::Selection) {
    I64 v = 0;
    if (!SettingsText::ParseInt(text, v) || !SysVars::GetSelectionValues(Id).contains(v)) return false;
    Out = v;
    return true;
  }
  return SysVars::ValueFromText(Id, text, Out) == SysVars::TEXT_OK;
}

}  // namespace

void LoadPreferences() {
  for (int id = SYSVAR_FIRST_PREF; id < SYSVAR_COUNT; ++id) {
    // The reset request is an action of the preferences dialog, not a state
    // to carry into the next run.
    if (id == PREF_RESET_DIALOG_DNSA) continue;
    I64 v = SysVars::GetDefault(id);
    ReadPreference(id, v);
    SysVars::SetValue(id, v, true);
  }
}

void SavePreferences() {
  for (int id = SYSVAR_FIRST_PREF; id < SYSVAR_COUNT; ++id) {
    const I64 v = SysVars::GetStored(id);
    if (SysVars::Row(id)->Type == SysVarType::UInt64)
      Settings::SetValue(PreferenceKey(id), QVariant::fromValue<qulonglong>(static_cast<U64>(v)));
    else
      Settings::SetValue(PreferenceKey(id), QVariant::fromValue<qlonglong>(v));
  }
}

void Load() {
  SysVars::Reset();
  SysVars::SetValue(PREF_RESET_DIALOG_DNSA, 0, true);
  LoadPreferences();
  Colors::ResetToDefaults();
  Fonts::ResetToDefaults();
  Colors::Load();
  Fonts::Load();
}

void Save() {
  Colors::Save();
  Fonts::Save();
  Fonts::ResetToDefaults();
  SavePreferences();
  SysVars::Reset();
}

}  // namespace UserSettings
