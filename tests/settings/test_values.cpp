// Value table, text forms and the Edit.* commands.
#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QSignalSpy>
#include "settings/colors.h"
#include "settings/edit.h"
#include "settings/fonts.h"
#include "settings/sysvars.h"
#include "settings/textvalue.h"
#include "testsupport/testapp.h"

namespace {

class SettingsValues : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!qGuiApp) NewTestApp<QGuiApplication>("test_settings_values");
  }
  void SetUp() override {
    SysVars::Reset();
    SysVars::SetConstantLookup(nullptr);
    Colors::ResetToDefaults();
    Fonts::ResetToDefaults();
  }
};

TEST_F(SettingsValues, FrequencyText) {
  using SettingsText::FrequencyFromText;
  EXPECT_EQ(FrequencyFromText("2,5 MHz"), 2500000);
  EXPECT_EQ(FrequencyFromText("4 MHz"), 4000000);
  EXPECT_EQ(FrequencyFromText("  12.5   kHz "), 12500);
  EXPECT_EQ(FrequencyFromText("33.3 kHz"), 33300);
  EXPECT_EQ(FrequencyFromText("1GHz"), 1000000000);
  EXPECT_EQ(FrequencyFromText("100 hz"), 100);
  EXPECT_EQ(FrequencyFromText("0x10 kHz"), 16000);
  EXPECT_EQ(FrequencyFromText("AUTO"), 0);
  EXPECT_EQ(FrequencyFromText("Adaptive"), 65535);
  EXPECT_EQ(FrequencyFromText("0.0000004 Hz"), 0);  // rounds to whole Hz
  for (const char* bad : {"", "MHz", "fast", "-5 kHz", "inf", "nan MHz", "1e5", "2,5,1 MHz", "1 2 kHz"})
    EXPECT_EQ(FrequencyFromText(bad), -1) << bad;

  using SettingsText::FrequencyToText;
  EXPECT_EQ(FrequencyToText(0), "auto");
  EXPECT_EQ(FrequencyToText(65535), "adaptive");
  EXPECT_EQ(FrequencyToText(1000), "1 kHz");
  EXPECT_EQ(FrequencyToText(999000), "999 kHz");
  EXPECT_EQ(FrequencyToText(1000000), "1 MHz");
  EXPECT_EQ(FrequencyToText(2500000), "2500000 Hz");
  EXPECT_EQ(FrequencyToText(1500), "1500 Hz");
  // Every rendered text reads back to the same number.
  for (U64 hz : {1ull, 999ull, 1000ull, 12500ull, 65534ull, 65536ull, 3000000ull, 2000000000ull})
    EXPECT_EQ(FrequencyFromText(FrequencyToText(hz)), static_cast<I64>(hz)) << hz;
}

TEST_F(SettingsValues, TruthWordsAndNumbers) {
  for (const char* t : {"true", "ENABLED", "Active", "yes", "on", "1", "-7", "0x10"}) {
    bool b = false;
    EXPECT_TRUE(SettingsText::ParseTruth(t, b) && b) << t;
  }
  for (const char* f : {"false", "Disabled", "INACTIVE", "no", "off", "0", "0x0"}) {
    bool b = true;
    EXPECT_TRUE(SettingsText::ParseTruth(f, b) && !b) << f;
  }
  bool keep = true;
  EXPECT_FALSE(SettingsText::ParseTruth("maybe", keep));
  EXPECT_TRUE(keep);
  I64 v = 0;
  EXPECT_TRUE(SettingsText::ParseInt("0xFFFFFFFFFFFFFFFF", v));
  EXPECT_EQ(v, -1);
  U64 u = 0;
  EXPECT_FALSE(SettingsText::ParseUInt("-1", u));
  EXPECT_FALSE(SettingsText::ParseInt("12abc", v));
}

TEST_F(SettingsValues, TableShape) {
  for (int id = 0; id < SYSVAR_COUNT; ++id) {
    const SYSVAR* r = SysVars::Row(id);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->Id, id);
    EXPECT_EQ(SysVars::FindSysVar(QString::fromLatin1(r->Name).toLower()), id);
    // A default must be a value the row can take, so that its text reads back.
    if (r->Type != SysVarType::String) {
      I64 back = -12345;
      EXPECT_EQ(SysVars::ValueFromText(id, SysVars::GetText(id), back), SysVars::TEXT_OK) << r->Name;
      EXPECT_EQ(back, r->Default) << r->Name;
    }
    if (r->Type == SysVarType::Unsigned || r->Type == SysVarType::Signed) {
      I64 mn;
      U64 mx;
      EXPECT_TRUE(SysVars::ParseRange(SysVars::GetRangeText(id), mn, mx)) << r->Name;
    }
  }
  EXPECT_EQ(SysVars::Row(SYSVAR_NONE), nullptr);
  EXPECT_EQ(SysVars::FindSysVar("84"), -1);
  EXPECT_EQ(SysVars::FindSysVar("0x53"), PREF_BIN_BLOCK_SEPARATOR);
  EXPECT_EQ(SysVars::FindSysVar("-1"), -1);
  EXPECT_EQ(SysVars::GetString(VAR_BREAK_AT_THIS_SYMBOL), "main");
}

TEST_F(SettingsValues, SelectionRules) {
  // A label in any case and its value have the same effect.
  ASSERT_TRUE(EditSysVar({"VAR_RESET_MODE", "reset & run"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_RESET_MODE), 2);
  SysVars::Reset();
  ASSERT_TRUE(EditSysVar({"0", "2"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_RESET_MODE), 2);

  // 3 is no entry value of the access width, so it counts as an index; 2 is.
  auto r = EditSysVar({QString::number(VAR_ACCESS_WIDTH), "3"});
  ASSERT_TRUE(r.Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_ACCESS_WIDTH), 4);
  EXPECT_EQ(r.EchoArgs, QStringList({"VAR_ACCESS_WIDTH", "Word"}));
  ASSERT_TRUE(EditSysVar({"VAR_ACCESS_WIDTH", "2"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_ACCESS_WIDTH), 2);
  EXPECT_EQ(SysVars::GetText(VAR_ACCESS_WIDTH), "HalfWord");

  // Neither an entry value nor an index: refused, value kept.
  r = EditSysVar({"VAR_ACCESS_WIDTH", "5"});
  EXPECT_EQ(r.sError, "invalid parameter");
  EXPECT_EQ(r.sErrorText, "5");
  EXPECT_EQ(SysVars::GetValue(VAR_ACCESS_WIDTH), 2);

  // Script constants: built-in names, then an installed lookup.
  ASSERT_TRUE(EditSysVar({"VAR_SEMIHOSTING_ENABLED", "ENABLED"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_SEMIHOSTING_ENABLED), 1);
  ASSERT_TRUE(EditSysVar({"VAR_ACCESS_WIDTH", "aw_auto"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_ACCESS_WIDTH), 0);
  SysVars::SetConstantLookup([](const QString& s, I64& v) {
    if (s != "MY_WIDTH") return false;
    v = 4;
    return true;
  });
  ASSERT_TRUE(EditSysVar({"VAR_ACCESS_WIDTH", "MY_WIDTH"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_ACCESS_WIDTH), 4);
  // A constant whose value is no entry does not count.
  EXPECT_FALSE(EditSysVar({"VAR_BREAKPOINT_TYPE", "MY_WIDTH"}).Ok());
}

TEST_F(SettingsValues, InterfaceSpeed) {
  ASSERT_TRUE(EditSysVar({"VAR_TIF_SPEED", "4 MHz"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_TIF_SPEED), 4000000);
  auto r = EditSysVar({"VAR_TIF_SPEED", "2,5 MHz"});
  ASSERT_TRUE(r.Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_TIF_SPEED), 2500000);
  EXPECT_EQ(r.EchoArgs.value(1), "2500000 Hz");
  ASSERT_TRUE(EditSysVar({"VAR_TIF_SPEED", "adaptive speed"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_TIF_SPEED), 0xFFFF);
  EXPECT_FALSE(EditSysVar({"VAR_TIF_SPEED", "warp"}).Ok());

  // Bound to a field of the device configuration.
  U32 field = 0;
  SysVars::BindExternal(VAR_TIF_SPEED, &field);
  EXPECT_EQ(field, 0xFFFFu);
  ASSERT_TRUE(EditSysVar({"VAR_TIF_SPEED", "1 MHz"}).Ok());
  EXPECT_EQ(field, 1000000u);
  SysVars::Reset();
  EXPECT_EQ(field, 0u);
  SysVars::BindExternal(VAR_TIF_SPEED, nullptr);
}

TEST_F(SettingsValues, NumbersRangesAndStrings) {
  // Delays go in steps of 50, cut toward zero; the range is checked first.
  ASSERT_TRUE(EditSysVar({"VAR_TRACE_PORT_DELAY_0", "2025"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_TRACE_PORT_DELAY_0), 2000);
  ASSERT_TRUE(EditSysVar({"VAR_TRACE_PORT_DELAY_1", "-2049"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_TRACE_PORT_DELAY_1), -2000);
  // A script's -100 arrives zero-extended.
  ASSERT_TRUE(EditSysVar({"VAR_TRACE_PORT_DELAY_2", "4294967196"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_TRACE_PORT_DELAY_2), -100);
  EXPECT_FALSE(EditSysVar({"VAR_TRACE_PORT_DELAY_3", "100001"}).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_TRACE_PORT_DELAY_3), 2000);

  I64 v = 0;
  EXPECT_EQ(SysVars::ValueFromText(VAR_TIF_SCAN_CHAIN_LEN, "1000000001", v), SysVars::TEXT_OUT_OF_RANGE);
  EXPECT_EQ(SysVars::ValueFromText(VAR_TIF_SCAN_CHAIN_LEN, "lots", v), SysVars::TEXT_NOT_A_NUMBER);
  EXPECT_EQ(SysVars::ValueFromText(PREF_MAX_SYMBOL_MEMBERS, "2 kHz", v), SysVars::TEXT_OK);
  EXPECT_EQ(v, 2000);
  EXPECT_EQ(SysVars::ValueFromText(VAR_SWO_SPEED, "2,25 MHz", v), SysVars::TEXT_OK);
  EXPECT_EQ(v, 2250000);
  EXPECT_EQ(SysVars::ValueFromText(VAR_TRACE_MAX_INST_CNT, "0xFFFFFFFFFFFFFFFF", v), SysVars::TEXT_OK);
  EXPECT_EQ(static_cast<U64>(v), ~0ull);

  // Texts of values set directly, outside the range.
  SysVars::SetValue(PREF_MAX_SYMBOL_MEMBERS, 200000);
  EXPECT_EQ(SysVars::GetText(PREF_MAX_SYMBOL_MEMBERS), "Value 200000 is out of range (Min: 0, Max: 100000)");
  SysVars::SetValue(VAR_TRACE_PORT_DELAY_0, -100050);
  EXPECT_EQ(SysVars::GetText(VAR_TRACE_PORT_DELAY_0), "Value -100050 is out of range (Min: -100000, Max: 100000)");
  SysVars::SetValue(VAR_SWO_SPEED, 2000000);
  EXPECT_EQ(SysVars::GetText(VAR_SWO_SPEED), "2 MHz");
  I64 mn;
  U64 mx;
  EXPECT_TRUE(SysVars::ParseRange("sysvarmin= -0x10,SYSVARMAX= 0xFFFFFFFF", mn, mx));
  EXPECT_EQ(mn, -16);
  EXPECT_EQ(mx, 0xFFFFFFFFull);
  EXPECT_FALSE(SysVars::ParseRange("SysVarMin=0;SysVarMax=1", mn, mx));

  // Strings: exactly 100 bytes fit, 101 are refused and the value stays.
  const QString s100(100, QLatin1Char('x'));
  ASSERT_TRUE(EditSysVar({"VAR_BREAK_AT_THIS_SYMBOL", s100}).Ok());
  EXPECT_EQ(SysVars::GetString(VAR_BREAK_AT_THIS_SYMBOL), s100);
  EXPECT_EQ(EditSysVar({"VAR_BREAK_AT_THIS_SYMBOL", s100 + "y"}).sError, "invalid parameter");
  EXPECT_EQ(SysVars::GetString(VAR_BREAK_AT_THIS_SYMBOL), s100);
  EXPECT_TRUE(SysVars::IsChanged(VAR_BREAK_AT_THIS_SYMBOL));
  SysVars::ResetRow(VAR_BREAK_AT_THIS_SYMBOL);
  EXPECT_EQ(SysVars::GetString(VAR_BREAK_AT_THIS_SYMBOL), "main");
  EXPECT_FALSE(SysVars::WasExplicitlySet(VAR_BREAK_AT_THIS_SYMBOL));
  // 50 two-byte characters fill the buffer too; one more does not fit.
  EXPECT_EQ(SysVars::SetText(VAR_MEM_ZONE_RUNNING, QString(50, QChar(0xE9))), SysVars::TEXT_OK);
  EXPECT_EQ(SysVars::SetText(VAR_MEM_ZONE_RUNNING, QString(51, QChar(0xE9))), SysVars::TEXT_TOO_LONG);
}

TEST_F(SettingsValues, EditCommands) {
  QSignalSpy sysSpy(&SettingsNotifier(), &CSettingsNotifier::SysVarEdited);
  QSignalSpy prefSpy(&SettingsNotifier(), &CSettingsNotifier::UserPreferenceEdited);

  EXPECT_EQ(EditSysVar({"VAR_RESET_MODE"}).sError, "wrong parameter count");
  auto r = EditSysVar({"VAR_NOPE", "1"});
  EXPECT_EQ(r.sError, "unknown system variable");
  EXPECT_EQ(r.sErrorText, "VAR_NOPE");
  EXPECT_EQ(r.Result, -1);
  EXPECT_EQ(EditPreference({"84", "1"}).sError, "unknown preference");
  EXPECT_EQ(EditPreference({"PREF_TAB_SPACING", "9"}).sError, "invalid parameter");
  EXPECT_EQ(sysSpy.count() + prefSpy.count(), 0);  // failures change nothing

  EXPECT_FALSE(SysVars::WasExplicitlySet(VAR_CONNECT_MODE));
  r = EditSysVar({"VAR_CONNECT_MODE", "1", "false"});
  ASSERT_TRUE(r.Ok());
  EXPECT_TRUE(r.bClearData);
  EXPECT_FALSE(r.bReplaceArgs);
  EXPECT_TRUE(SysVars::WasExplicitlySet(VAR_CONNECT_MODE));
  ASSERT_EQ(sysSpy.count(), 1);
  EXPECT_EQ(sysSpy[0][0].toInt(), VAR_CONNECT_MODE);
  EXPECT_EQ(sysSpy[0][1].value<I64>(), 1);

  // Without Store the running value changes, the stored one does not.
  r = EditPreference({"PREF_LINE_NUMBER_FREQ", "every 5 lines"});
  ASSERT_TRUE(r.Ok());
  EXPECT_EQ(r.EchoArgs, QStringList({"PREF_LINE_NUMBER_FREQ", "Every 5 Lines"}));
  EXPECT_EQ(SysVars::GetValue(PREF_LINE_NUMBER_FREQ), 3);
  EXPECT_EQ(SysVars::GetStored(PREF_LINE_NUMBER_FREQ), 2);
  ASSERT_TRUE(EditPreference({"PREF_LINE_NUMBER_FREQ", "1", "active", "0"}).Ok());
  EXPECT_EQ(SysVars::GetStored(PREF_LINE_NUMBER_FREQ), 1);
  // An unreadable Store keeps its default (false).
  ASSERT_TRUE(EditPreference({"PREF_LINE_NUMBER_FREQ", "4", "perhaps"}).Ok());
  EXPECT_EQ(SysVars::GetStored(PREF_LINE_NUMBER_FREQ), 1);
  EXPECT_EQ(prefSpy.count(), 3);

  // The helper's arguments run through the same command.
  const QStringList args = PreferenceActionArgs(PREF_TERMINAL_EOL_FORMAT, 2, true);
  EXPECT_EQ(args, QStringList({"PREF_TERMINAL_EOL_FORMAT", "Mac format (CR)", "1"}));
  ASSERT_TRUE(EditPreference(args).Ok());
  EXPECT_EQ(SysVars::GetStored(PREF_TERMINAL_EOL_FORMAT), 2);
  ASSERT_TRUE(EditSysVar(SysVarActionArgs(VAR_SWO_CPU_SPEED, 72000000)).Ok());
  EXPECT_EQ(SysVars::GetValue(VAR_SWO_CPU_SPEED), 72000000);
}

TEST_F(SettingsValues, Colors) {
  EXPECT_EQ(Colors::FindColor("console text (error)"), COLOR_LOGGING_ERROR);
  EXPECT_EQ(Colors::FindColor("color_pc_active"), COLOR_PC_ACTIVE);
  EXPECT_EQ(Colors::FindColor("39"), -1);
  EXPECT_EQ(EditColor({"COLOR_PURPLE", "red"}).sError, "unknown color");
  EXPECT_EQ(EditColor({"COLOR_PC_ACTIVE", "#12345"}).sError, "invalid parameter");
  EXPECT_EQ(EditColor({"COLOR_PC_ACTIVE", "0x1FFFFFFFF"}).sError, "invalid parameter");
  EXPECT_EQ(Colors::GetValue(COLOR_PC_ACTIVE), 0xFF77FF6Du);

  auto r = EditColor({"COLOR_PC_ACTIVE", "red"});
  ASSERT_TRUE(r.Ok());
  EXPECT_EQ(r.EchoArgs, QStringList({"COLOR_PC_ACTIVE", "0xFFFF0000"}));
  ASSERT_TRUE(EditColor({"8", "0xFF000002"}).Ok());  // palette text colour
  EXPECT_EQ(Colors::GetColor(COLOR_PC_ACTIVE), QGuiApplication::palette().color(QPalette::Text));

  // The grid shade follows the base colour's lightness.
  QPalette light(Qt::black, Qt::white);
  light.setColor(QPalette::Base, QColor(200, 200, 200));
  EXPECT_EQ(Colors::Resolve(Colors::kPaletteGridShade, light), QColor(160, 160, 160));
  QPalette dark = light;
  dark.setColor(QPalette::Base, QColor(10, 240, 30));  // lightness 125
  EXPECT_EQ(Colors::Resolve(Colors::kPaletteGridShade, dark), QColor(50, 255, 70));
}

TEST_F(SettingsValues, Fonts) {
  QSignalSpy spy(&SettingsNotifier(), &CSettingsNotifier::FontEdited);
  EXPECT_EQ(EditFont({"FONT_NOPE", "Sans, 10pt, Bold"}).sError, "unknown font");
  EXPECT_EQ(EditFont({"11", "Sans, 10pt, Bold"}).sError, "unknown font");
  for (const char* bad : {"Sans, 10pt", "Sans, 10pt, Bold, x", "Sans, 0pt, Bold", "Sans, 60, Bold", "Sans, ten, Bold", ", 10, Bold"})
    EXPECT_EQ(EditFont({"FONT_CONSOLE", bad}).sError, "invalid parameter") << bad;
  EXPECT_FALSE(Fonts::IsUserSet(FONT_CONSOLE));

  ASSERT_TRUE(EditFont({"font_console", "\"DejaVu Sans Mono\" , 59 , Black Oblique"}).Ok());
  QFont f = Fonts::GetFont(FONT_CONSOLE);
  EXPECT_EQ(f.family(), "DejaVu Sans Mono");
  EXPECT_EQ(f.pointSize(), 59);
  EXPECT_EQ(f.weight(), QFont::Bold);
  EXPECT_TRUE(f.italic());
  EXPECT_EQ(Fonts::FontText(f), "DejaVu Sans Mono,  59pt,  Bold Italic");
  ASSERT_EQ(spy.count(), 1);

  struct {
    const char* Style;
    QFont::Weight Weight;
    const char* Shown;
  } const kStyles[] = {{"Medium", QFont::DemiBold, "Medium"}, {"Light Italic", QFont::Light, "Light Italic"},
                       {"Regular", QFont::Normal, "Normal"}, {"dark", QFont::Bold, "Bold"},
                       {"Bold Italic", QFont::Bold, "Bold Italic"}, {"Italic", QFont::Normal, "Italic"}};
  // The program's application font carries the style name "Normal"; a font
  // made from it must still keep the style it was given, and the stored text
  // must read back to the same style (it is what the next start sees).
  const QFont App = QGuiApplication::font();
  QFont Named = App;
  Named.setStyleName("Normal");
  QGuiApplication::setFont(Named);
  for (const auto& s : kStyles) {
    QFont g;
    ASSERT_TRUE(Fonts::ParseFontText(QStringLiteral("Serif, 1pt, %1").arg(s.Style), g));
    EXPECT_EQ(g.weight(), s.Weight) << s.Style;
    const QString sText = Fonts::FontText(g);
    EXPECT_EQ(sText, QStringLiteral("Serif,  1pt,  %1").arg(s.Shown));
    QFont Back;
    ASSERT_TRUE(Fonts::ParseFontText(sText, Back));
    EXPECT_EQ(Fonts::FontText(Back), sText) << s.Style;
  }
  QGuiApplication::setFont(App);

  // Defaults: the application font at 8 points; followers share their source.
  EXPECT_EQ(Fonts::DefaultFont(FONT_APP).pointSize(), 8);
  EXPECT_EQ(Fonts::DefaultFont(FONT_TABLE_HEADER), Fonts::DefaultFont(FONT_APP));
  EXPECT_EQ(Fonts::DefaultFont(FONT_SRC_ASM_CODE), Fonts::DefaultFont(FONT_APP_MONO));
  EXPECT_EQ(Fonts::GetFont(FONT_ITEM_NAME), Fonts::DefaultFont(FONT_APP));
}

}  // namespace
