// The table of system variables (VAR_*) and user preferences (PREF_*): row
// descriptions, current, default and stored values, and the text forms the
// console, scripts and dialogs use to read and show them.
//
// All writes happen on the user interface thread. Other threads may call
// GetValue at any time: numeric values are single atomic 64-bit fields.
#pragma once
#include <QString>
#include <QStringList>
#include <functional>
#include "common/types.h"
#include "settings/ids.h"

enum class SysVarType { Selection, Unsigned, Signed, Frequency, String, UInt64 };

// One row of the table, constant data.
struct SYSVAR {
  int Id;
  const char* Name;         // VAR_* or PREF_*; the settings key of a preference
  SysVarType Type;
  I64 Default;              // numeric default
  const char* sDefault;     // default of a string row
  const char* Range;        // "SysVarMin=..,SysVarMax=.." or "label=value,..."
  bool IsEditable;          // listed in the system variable editor
  const char* Description;
  const char* Label;
};

namespace SysVars {

// Results of SetText / ValueFromText.
enum TextResult {
  TEXT_OK = 0,
  TEXT_INVALID = -1,       // no label, constant, number or index matched
  TEXT_TOO_LONG = -2,      // a string of more than 100 bytes (UTF-8)
  TEXT_OUT_OF_RANGE = -3,  // a number outside the row's range
  TEXT_NOT_A_NUMBER = -4,
};

constexpr int kStringCapacity = 100;  // bytes of a string value

const SYSVAR* Row(int Id);  // null outside 0..83
bool IsPreference(int Id);  // PREF_* rows
// A decimal or hexadecimal number below 84, else a name compared without
// regard to case. -1 when nothing matches.
int FindSysVar(const QString& sText);
const char* TypeName(SysVarType Type);  // "string selection", "unsigned int", ...

// Copy the defaults over the current and stored values; clears ExplicitlySet.
void Reset();
// The same for one row (a project change resets VAR_BREAK_AT_THIS_SYMBOL and
// VAR_TRACE_SOURCE this way).
void ResetRow(int Id);

I64 GetValue(int Id);            // numeric value (unsigned rows as 0..2^32-1)
I64 GetDefault(int Id);
I64 GetStored(int Id);
QString GetString(int Id);       // value of a string row
QString GetStoredString(int Id);
// Set a numeric value as is (no range check); Store also copies it to Stored.
// Marks the row as explicitly set.
void SetValue(int Id, I64 Value, bool Store = false);
void SetString(int Id, const QString& sValue, bool Store = false);  // false if too long

// Read a text for a row without changing anything: labels, script constants,
// numbers, indices (selections), frequencies (number rows), plain text for
// strings. On success Out holds the value.
TextResult ValueFromText(int Id, const QString& sText, I64& Out);
// Read the text and set the row; the value stays as it was on failure.
TextResult SetText(int Id, const QString& sText, bool Store = false);
// The text of the current value: a label, a number, a frequency text, or one
// of the "out of range" / "Could not check range" forms.
QString GetText(int Id);
// The text of any value of the row, as the console would accept it back: the
// label for a selection (the decimal number when the value has no label), the
// frequency text for frequency rows, the decimal number otherwise.
QString ValueToText(int Id, I64 Value);

QStringList GetSelectionLabels(int Id);
QList<I64> GetSelectionValues(int Id);
QString GetRangeText(int Id);  // the row's Range field, empty for strings
// Parses "SysVarMin=<n>,SysVarMax=<n>"; false when the text does not match.
bool ParseRange(const QString& sRange, I64& Min, U64& Max);

bool IsChanged(int Id);          // value differs from default
bool WasExplicitlySet(int Id);   // touched by a set operation since Reset

// The rows VAR_TIF_SPEED, VAR_TIF_SCAN_CHAIN_POS and VAR_TIF_SCAN_CHAIN_LEN
// may keep their value in a field of the device configuration. Bind it here
// (null unbinds); Reset writes the default into the bound field.
void BindExternal(int Id, U32* pField);

// Script constants (the vocabulary of enumeration names) used when a
// selection text is neither a label nor a number. Without a lookup, the truth
// words and FREQ_* names are known.
using ConstantLookup = std::function<bool(const QString& sName, I64& Value)>;
void SetConstantLookup(ConstantLookup Lookup);

}  // namespace SysVars
