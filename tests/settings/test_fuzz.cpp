// Random and mutated texts through every parser of the settings module,
// built with ASan/UBSan: no crash, and whatever a row accepts reads back to
// the same value from the text it shows.
#include <gtest/gtest.h>

#include <QGuiApplication>
#include <random>
#include "settings/colors.h"
#include "settings/edit.h"
#include "settings/fonts.h"
#include "settings/sysvars.h"
#include "settings/textvalue.h"
#include "testsupport/randomtext.h"
#include "testsupport/testapp.h"

namespace {

const char* const kTokens[] = {
    "0", "1", "2", "5", "9", "0x", "FF", "-", "+", ",", ".", " ", "  ", "\"", "=", "Hz", "kHz", "MHz",
    "GHz", "khz", "auto", "adaptive", "pt", "Bold", "Italic", "Light", "Medium", "yes", "no", "true",
    "ENABLED", "VAR_", "PREF_", "COLOR_", "FONT_", "RESET_MODE", "#", "e", "inf", "nan", "\t", "\xc3\xa9",
    "18446744073709551615", "4294967295", "2147483648", "99999999999999999999", "Word", "Reset & Run",
    "SysVarMin=", ",SysVarMax=", "Courier New", "red"};

TEST(SettingsFuzz, ParsersSurviveAndRoundTrip) {
  if (!qGuiApp) NewTestApp<QGuiApplication>("test_settings_fuzz");

  std::mt19937 rng(20261122);
  testsupport::RandomText gen({std::begin(kTokens), std::end(kTokens)}, {}, 20261122);
  auto Text = [&gen] { return QString::fromUtf8(gen.Text(0, 6, 0, testsupport::RandomText::Printable)); };
  std::uniform_int_distribution<int> row(0, SYSVAR_COUNT - 1);
  int accepted = 0;
  for (int i = 0; i < 40000; ++i) {
    const QString text = Text();
    const int id = row(rng);
    I64 v = 0;
    if (SysVars::SetText(id, text) == SysVars::TEXT_OK && SysVars::Row(id)->Type != SysVarType::String) {
      ++accepted;
      v = SysVars::GetValue(id);
      I64 back = 0;
      ASSERT_EQ(SysVars::ValueFromText(id, SysVars::GetText(id), back), SysVars::TEXT_OK)
          << SysVars::Row(id)->Name << " '" << qPrintable(text) << "' -> '" << qPrintable(SysVars::GetText(id)) << "'";
      ASSERT_EQ(back, v) << SysVars::Row(id)->Name << " '" << qPrintable(text) << "'";
    }
    SettingsText::FrequencyFromText(text);
    bool b = false;
    SettingsText::ParseTruth(text, b);
    SysVars::FindSysVar(text);
    I64 mn;
    U64 mx;
    SysVars::ParseRange(text, mn, mx);
    EditSysVar({Text(), text, Text()});
    EditPreference({QString::number(id), text, Text(), Text()});
    EditColor({Text(), text});
    if (EditFont({QString::number(i % 12), text}).Ok()) {
      // The shown text of a font reads back to the same font text.
      QFont f;
      const QString shown = Fonts::FontText(Fonts::GetFont(i % 12));
      ASSERT_TRUE(Fonts::ParseFontText(shown, f)) << qPrintable(shown);
      ASSERT_EQ(Fonts::FontText(f), shown);
    }
  }
  EXPECT_GT(accepted, 400);  // the generator does reach the accepting paths

  std::uniform_int_distribution<U64> hz(0, 4000000000ull);
  for (int i = 0; i < 20000; ++i) {
    const U64 f = i % 2 ? hz(rng) : hz(rng) / 1000 * 1000;
    ASSERT_EQ(SettingsText::FrequencyFromText(SettingsText::FrequencyToText(f)), static_cast<I64>(f));
  }
}

}  // namespace
