// The settings store and the user's preferences, colours and fonts in it,
// across a real restart: the first run saves, a second process loads.
#include <gtest/gtest.h>

#include <QFile>
#include <QGuiApplication>
#include <QProcess>
#include <QProcessEnvironment>
#include "settings/colors.h"
#include "settings/edit.h"
#include "settings/fonts.h"
#include "settings/store.h"
#include "settings/sysvars.h"

namespace {

int g_argc = 1;
char g_name[] = "test_settings_store";
char* g_argv[] = {g_name, nullptr};
QString g_self;

class SettingsStore : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!qGuiApp) new QGuiApplication(g_argc, g_argv);
    g_self = QCoreApplication::applicationFilePath();
  }
};

QString FileText() {
  QFile f(Settings::FilePath());
  return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

TEST_F(SettingsStore, MapOperations) {
  ASSERT_FALSE(qgetenv("TAVIT_SETTINGS_DIR").isEmpty());
  EXPECT_TRUE(Settings::FilePath().startsWith(QString::fromLocal8Bit(qgetenv("TAVIT_SETTINGS_DIR"))));
  Settings::Remove(QString());
  Settings::SetValue("A/B/x", 1);
  Settings::SetValue("/A//B/y/", 2);
  Settings::SetValue("A/B/C/z", 3);
  Settings::SetValue("A/Bee", 4);
  EXPECT_EQ(Settings::Value("A/B/y").toInt(), 2);
  EXPECT_EQ(Settings::ChildKeys("A/B"), QStringList({"x", "y"}));
  EXPECT_FALSE(Settings::Contains("A/B"));
  EXPECT_EQ(Settings::Value("A/missing", 7).toInt(), 7);
  Settings::Remove("A/B");  // the group, not its namesake "A/Bee"
  EXPECT_FALSE(Settings::Contains("A/B/C/z"));
  EXPECT_FALSE(Settings::Contains("A/B/x"));
  EXPECT_TRUE(Settings::Contains("A/Bee"));

  // Nothing reaches the back end before Save; Load replaces the map.
  Settings::Save();
  Settings::SetValue("A/Later", 5);
  EXPECT_FALSE(FileText().contains("Later"));
  Settings::Load();
  EXPECT_FALSE(Settings::Contains("A/Later"));
  EXPECT_EQ(Settings::Value("A/Bee").toInt(), 4);
  Settings::Remove(QString());
  Settings::Save();
}

// First run: set preferences, colours and fonts through the commands, then
// shut down in the program's order and start a second process to check.
TEST_F(SettingsStore, PersistsAcrossRestart) {
  if (qEnvironmentVariableIsSet("TAVIT_SETTINGS_SECOND_RUN")) GTEST_SKIP();
  Settings::Remove(QString());
  Settings::SetValue("AppData/Preferences/Colors/COLOR_PC_INACTIVE", "#010203");  // from an earlier run
  Settings::SetValue("AppData/Preferences/Colors/COLOR_SYNTAX_TEXT", "not a colour");
  Settings::SetValue("AppData/Preferences/Preferences/PREF_TAB_SPACING", 77);  // no such entry
  Settings::SetValue("AppData/MessageTimeouts/12345", 1);
  Settings::Save();
  Settings::Load();
  UserSettings::Load();
  EXPECT_EQ(Colors::GetValue(COLOR_PC_INACTIVE), 0xFF010203u);
  EXPECT_EQ(Colors::GetValue(COLOR_SYNTAX_TEXT), Colors::GetDefault(COLOR_SYNTAX_TEXT));
  EXPECT_EQ(SysVars::GetValue(PREF_TAB_SPACING), 2);

  ASSERT_TRUE(EditPreference({"PREF_SHOW_TOOLTIPS", "no", "true"}).Ok());
  ASSERT_TRUE(EditPreference({"PREF_MAX_POWER_SAMPLES", "0xFFFFFFFFFFFFFFFF", "1"}).Ok());
  ASSERT_TRUE(EditPreference({"PREF_CALLSTACK_DEPTH_LIMIT", "123"}).Ok());  // not stored
  ASSERT_TRUE(EditColor({"COLOR_LOGGING_ERROR", "#00FF00"}).Ok());
  ASSERT_TRUE(EditColor({"COLOR_CHANGE_LEVEL_1_FG", "#00FF00"}).Ok());
  ASSERT_TRUE(EditColor({"COLOR_CHANGE_LEVEL_1_FG", "#ff0000"}).Ok());  // its default again
  // A palette colour given as the real colour it resolves to is its default.
  ASSERT_TRUE(EditColor({"COLOR_PROGRESS_BAR_REMAINING",
                         QGuiApplication::palette().color(QPalette::Base).name()}).Ok());
  ASSERT_TRUE(EditColor({"COLOR_PC_INACTIVE", "#E3FFC1"}).Ok());
  ASSERT_TRUE(EditFont({"FONT_SRC_CODE", "Courier New, 10pt, Bold Italic"}).Ok());
  ASSERT_TRUE(EditPreference({"PREF_RESET_DIALOG_DNSA", "yes", "1"}).Ok());
  EXPECT_FALSE(Settings::Contains("AppData/MessageTimeouts/12345"));
  ASSERT_TRUE(EditSysVar({"VAR_ACCESS_WIDTH", "Word"}).Ok());

  UserSettings::Save();
  Settings::Save();

  // The file as written, read as text.
  const QString text = FileText();
  EXPECT_TRUE(text.contains("COLOR_LOGGING_ERROR=#00ff00")) << qPrintable(text);
  EXPECT_FALSE(text.contains("COLOR_CHANGE_LEVEL_1_FG"));
  EXPECT_FALSE(text.contains("COLOR_PROGRESS_BAR_REMAINING"));
  EXPECT_FALSE(text.contains("COLOR_PC_INACTIVE"));
  EXPECT_FALSE(text.contains("COLOR_SYNTAX_TEXT"));
  EXPECT_TRUE(text.contains("PREF_SHOW_TOOLTIPS=0"));
  EXPECT_TRUE(text.contains("PREF_CALLSTACK_DEPTH_LIMIT=50"));
  EXPECT_FALSE(text.contains("VAR_"));  // system variables live in the project

  QProcess second;
  QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
  env.insert("TAVIT_SETTINGS_SECOND_RUN", "1");
  second.setProcessEnvironment(env);
  second.start(g_self, {"--gtest_filter=SettingsStore.SecondRun"});
  ASSERT_TRUE(second.waitForFinished(60000));
  const QString out = QString::fromLocal8Bit(second.readAllStandardOutput());
  EXPECT_EQ(second.exitCode(), 0) << qPrintable(out);
  EXPECT_TRUE(out.contains("[       OK ] SettingsStore.SecondRun")) << qPrintable(out);
}

TEST_F(SettingsStore, SecondRun) {
  if (!qEnvironmentVariableIsSet("TAVIT_SETTINGS_SECOND_RUN")) GTEST_SKIP();
  Settings::Load();
  UserSettings::Load();
  EXPECT_EQ(SysVars::GetValue(PREF_SHOW_TOOLTIPS), 0);
  EXPECT_EQ(SysVars::GetStored(PREF_SHOW_TOOLTIPS), 0);
  EXPECT_EQ(static_cast<U64>(SysVars::GetValue(PREF_MAX_POWER_SAMPLES)), ~0ull);
  EXPECT_EQ(SysVars::GetValue(PREF_CALLSTACK_DEPTH_LIMIT), 50);
  EXPECT_EQ(SysVars::GetValue(PREF_RESET_DIALOG_DNSA), 0);
  EXPECT_EQ(SysVars::GetValue(VAR_ACCESS_WIDTH), 0);
  EXPECT_EQ(Colors::GetValue(COLOR_LOGGING_ERROR), 0xFF00FF00u);
  EXPECT_EQ(Colors::GetValue(COLOR_CHANGE_LEVEL_1_FG), 0xFFFF0000u);
  EXPECT_EQ(Colors::GetValue(COLOR_PROGRESS_BAR_REMAINING), Colors::kPaletteBase);
  EXPECT_TRUE(Fonts::IsUserSet(FONT_SRC_CODE));
  EXPECT_EQ(Fonts::FontText(Fonts::GetFont(FONT_SRC_CODE)), "Courier New,  10pt,  Bold Italic");
  EXPECT_FALSE(Fonts::IsUserSet(FONT_ASM_CODE));
}

}  // namespace
