// CMessageBox: stored "do not show again" answers, clicks and batch answers.
#include "log/console.h"
#include "log/log.h"
#include "log/messagebox.h"
#include "settings/store.h"
#include "settings/sysvars.h"
#include "testsupport/consolelines.h"
#include "testsupport/testapp.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QDateTime>
#include <QPushButton>
#include <QTimer>

namespace {

class MessageBox : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    NewTestApp<QApplication>();
    SetUiThread();
    ConsoleRingStart();
    SysVars::Reset();
  }
  void SetUp() override {
    Settings::Remove("AppData/MessageTimeouts");
    CMessageBox::SetBatchMode(false);
  }
  // Runs a box and, once it is on the screen, ticks the check box (if asked)
  // and clicks a button.
  static int ClickRun(CMessageBox& Box, QDialogButtonBox::StandardButton Button, bool Tick, bool* pShown = nullptr) {
    bool Shown = false;
    QTimer::singleShot(0, &Box, [&] {
      Shown = Box.isVisible();
      if (Tick) Box.findChild<QCheckBox*>("checkBoxDoNotShowAgain")->setChecked(true);
      Box.findChild<QDialogButtonBox*>()->button(Button)->click();
    });
    const int r = Box.Run();
    if (pShown) *pShown = Shown;
    return r;
  }
};

TEST_F(MessageBox, CheckBoxTexts) {
  EXPECT_EQ(CMessageBox::CheckBoxText(0), "");
  EXPECT_EQ(CMessageBox::CheckBoxText(-1), "Do not show again");
  EXPECT_EQ(CMessageBox::CheckBoxText(-2), "Do not show again");
  EXPECT_EQ(CMessageBox::CheckBoxText(24), "Do not show again today");
  EXPECT_EQ(CMessageBox::CheckBoxText(3), "Do not show again for 3 hours");
}

TEST_F(MessageBox, StoredMinusTwoNeverShowsAndAnswersYes) {
  const QString sText = "Reset Execution Counters and Profiling Data?";
  Settings::SetValue(CMessageBox::StorageKey(sText), -2);
  bool Suppressed = false;
  EXPECT_EQ(CMessageBox::Ask("Reset Code Profile", sText, -2, QDialogButtonBox::Yes | QDialogButtonBox::No, &Suppressed), 1);
  EXPECT_TRUE(Suppressed);
  EXPECT_EQ(AskResetCodeProfile(), 1);
}

TEST_F(MessageBox, DoNotShowAgainTodayAnswersNoWithoutShowing) {
  const QString sText = "Is it today?";
  {
    CMessageBox Box(nullptr, "T", sText, 24, QDialogButtonBox::Yes | QDialogButtonBox::No);
    bool Shown = false;
    EXPECT_EQ(ClickRun(Box, QDialogButtonBox::No, true, &Shown), 0);
    EXPECT_TRUE(Shown);
  }
  const qint64 Until = Settings::Value(CMessageBox::StorageKey(sText)).toLongLong();
  const qint64 Now = QDateTime::currentMSecsSinceEpoch();
  EXPECT_GT(Until, Now + 23 * 3600 * 1000LL);
  EXPECT_LE(Until, Now + 24 * 3600 * 1000LL);
  // Even a box that would answer Yes by default now answers No unseen.
  CMessageBox::SetBatchMode(true);
  EXPECT_EQ(CMessageBox::Ask("T", sText, 24, QDialogButtonBox::Yes | QDialogButtonBox::No), 0);
  EXPECT_TRUE(TakeConsoleLines().isEmpty());
  // An expired time shows the box again.
  Settings::SetValue(CMessageBox::StorageKey(sText), Now - 1);
  EXPECT_EQ(CMessageBox::Ask("T", sText, 24, QDialogButtonBox::Yes | QDialogButtonBox::No), 1);
  EXPECT_EQ(TakeConsoleLines(), QStringList({"[box] T: Is it today? -> Yes"}));
}

TEST_F(MessageBox, ClicksGiveResultsAndOnlyTickedAnswersAreStored) {
  const QString sText = "Save?";
  auto B = QDialogButtonBox::Yes | QDialogButtonBox::No | QDialogButtonBox::Cancel;
  {
    CMessageBox Box(nullptr, "Save Project Changes?", sText, -1, B);
    EXPECT_EQ(ClickRun(Box, QDialogButtonBox::Cancel, true), 2);
  }
  EXPECT_FALSE(Settings::Contains(CMessageBox::StorageKey(sText)));  // cancel stores nothing
  {
    CMessageBox Box(nullptr, "Save Project Changes?", sText, -1, B);
    EXPECT_EQ(ClickRun(Box, QDialogButtonBox::Yes, false), 1);
  }
  EXPECT_FALSE(Settings::Contains(CMessageBox::StorageKey(sText)));
  {
    CMessageBox Box(nullptr, "Save Project Changes?", sText, -1, B);
    EXPECT_EQ(ClickRun(Box, QDialogButtonBox::Yes, true), 1);
  }
  EXPECT_EQ(Settings::Value(CMessageBox::StorageKey(sText)).toInt(), -1);
  // A box without a timeout never stores anything.
  {
    CMessageBox Box(nullptr, "X", "plain", 0, QDialogButtonBox::Ok);
    EXPECT_EQ(ClickRun(Box, QDialogButtonBox::Ok, true), 1);
  }
  EXPECT_FALSE(Settings::Contains(CMessageBox::StorageKey("plain")));
}

TEST_F(MessageBox, EmptyTextAnswersYes) { EXPECT_EQ(CMessageBox::Ask("T", "", 0, QDialogButtonBox::No), 1); }

TEST_F(MessageBox, BatchModeAnswersWithTheDefaultButtonAndSaysSo) {
  CMessageBox::SetBatchMode(true);
  TakeConsoleLines();
  EXPECT_EQ(AskSaveProjectChanges(), 1);
  EXPECT_EQ(CMessageBox::Ask("&Only No", "Really?", 0, QDialogButtonBox::No | QDialogButtonBox::Cancel), 0);
  EXPECT_EQ(AskSaveDocumentChanges("main.c"), 1);
  EXPECT_EQ(TakeConsoleLines(), QStringList({"[box] Save Project Changes?: The current project was modified. Save changes? -> Yes",
                                 "[box] Only No: Really? -> No",
                                 "[box] Save Document Changes?: main.c is modified. Save changes? -> Yes"}));
}

}  // namespace
