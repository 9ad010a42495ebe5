// The commands Edit.SysVar, Edit.Preference, Edit.Color and Edit.Font, the
// change signals that follow them, and the start-up / exit handling of the
// user's preferences, colours and fonts in the settings store.
//
// The Edit* functions take the argument texts of the action as the console or
// a script hands them over and report what the action slot has to do with
// them: an error word (and the text it concerns) or, on success, whether the
// action's arguments are to be replaced for the echo.
#pragma once
#include <QFont>
#include <QObject>
#include <QString>
#include <QStringList>
#include "common/types.h"
#include "settings/ids.h"

struct SettingsEditResult {
  int Result = 0;          // 0 on success, -1 on failure
  QString sError;          // "wrong parameter count", "unknown system variable",
                           // "unknown preference", "unknown color",
                           // "unknown font", "invalid parameter"; empty on success
  QString sErrorText;      // the argument the error is about (may be empty)
  bool bReplaceArgs = false;  // success: show EchoArgs as the action's arguments
  bool bClearData = false;    // success without echo: show nothing
  QStringList EchoArgs;       // symbolic form, e.g. {"VAR_ACCESS_WIDTH", "Word"}
  bool Ok() const { return Result == 0; }
};

// Emits after each successful Edit* command. The main window forwards
// SysVarEdited / UserPreferenceEdited to its own signals of the same names.
class CSettingsNotifier : public QObject {
  Q_OBJECT
 public:
  using QObject::QObject;
 signals:
  void SysVarEdited(int VarID, I64 Value);
  void UserPreferenceEdited(int SysVarID, I64 Value);
  void ColorEdited(int ColorID, U32 Value);  // windows: SetColor + Repaint
  void FontEdited(int FontID, const QFont& Font);  // windows: SetFont + Repaint
};

CSettingsNotifier& SettingsNotifier();

// Edit.SysVar(VarID, Value [, Echo])
SettingsEditResult EditSysVar(const QStringList& Args);
// Edit.Preference(SysVarID, Value [, Store [, Echo]])
SettingsEditResult EditPreference(const QStringList& Args);
// Edit.Color(ColorID, sColor): echoes {name, "0xAARRGGBB"}
SettingsEditResult EditColor(const QStringList& Args);
// Edit.Font(FontID, sFont)
SettingsEditResult EditFont(const QStringList& Args);

// The argument texts with which SetSysVarValue / SetPreferenceValue run the
// action for a value: {name, value text[, store][, echo]}.
QStringList SysVarActionArgs(int Id, I64 Value, bool Echo = true);
QStringList PreferenceActionArgs(int Id, I64 Value, bool Store, bool Echo = true);

namespace UserSettings {
// Start-up, after Settings::Load(): reset the value table, clear
// PREF_RESET_DIALOG_DNSA, load every preference as stored value (its default
// when the key is missing or unusable), then colours and fonts.
void Load();
// Exit, before Settings::Save(): colours, fonts, the stored preferences
// (AppData/Preferences/Preferences/<PREF name>), then reset the value table.
void Save();
void LoadPreferences();
void SavePreferences();
}  // namespace UserSettings
