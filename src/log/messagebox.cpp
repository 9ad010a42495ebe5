#include "log/messagebox.h"

#include "common/hash.h"
#include "log/log.h"
#include "settings/ids.h"
#include "settings/store.h"
#include "settings/sysvars.h"

#include <QCheckBox>
#include <QDateTime>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>

namespace {
bool g_Batch = false;

QString AnswerText(int Result) {
  switch (Result) {
    case CMessageBox::RESULT_YES: return QStringLiteral("Yes");
    case CMessageBox::RESULT_NO: return QStringLiteral("No");
    default: return QStringLiteral("Cancel");
  }
}

// Default answer of a box: its first accepting button, else No, else Cancel.
int DefaultResult(QDialogButtonBox::StandardButtons b) {
  if (b & (QDialogButtonBox::Yes | QDialogButtonBox::Ok | QDialogButtonBox::Apply)) return CMessageBox::RESULT_YES;
  if (b & QDialogButtonBox::No) return CMessageBox::RESULT_NO;
  return CMessageBox::RESULT_CANCEL;
}
}  // namespace

void CMessageBox::SetBatchMode(bool On) { g_Batch = On; }
bool CMessageBox::IsBatchMode() { return g_Batch; }

QString CMessageBox::StorageKey(const QString& sText) {
  return QStringLiteral("AppData/MessageTimeouts/") + QString::number(TextHash(sText.toStdString()));
}

QString CMessageBox::CheckBoxText(int Timeout) {
  if (Timeout == 0) return QString();
  if (Timeout == -1 || Timeout == -2) return QStringLiteral("Do not show again");
  if (Timeout == 24) return QStringLiteral("Do not show again today");
  return QString::asprintf("Do not show again for %d hours", Timeout);
}

CMessageBox::CMessageBox(QWidget* pParent, const QString& sTitle, const QString& sText, int Timeout_,
                         QDialogButtonBox::StandardButtons Buttons, const QString& sExtraYesText)
    : QDialog(pParent), Timeout(Timeout_), m_sTitle(sTitle), m_sText(sText), m_Buttons(Buttons) {
  QString sWinTitle = sTitle;
  sWinTitle.remove(QLatin1Char('&'));
  setWindowTitle(QStringLiteral("   ") + sWinTitle);
  auto* pIcon = new QLabel(this);
  pIcon->setPixmap(style()->standardIcon(QStyle::SP_MessageBoxQuestion).pixmap(32, 32));
  auto* pText = new QLabel(sText, this);
  pText->setWordWrap(true);
  pText->setOpenExternalLinks(true);
  pText->setTextInteractionFlags(Qt::TextBrowserInteraction);
  auto* pLine = new QFrame(this);
  pLine->setFrameShape(QFrame::HLine);
  m_pCheck = new QCheckBox(CheckBoxText(Timeout), this);
  m_pCheck->setObjectName(QStringLiteral("checkBoxDoNotShowAgain"));
  m_ShowCheck = Timeout != 0 && SysVars::GetValue(PREF_DIALOG_SHOW_DNSA) != 0;
  m_pCheck->setVisible(m_ShowCheck);
  pLine->setVisible(m_ShowCheck);
  m_pButtons = new QDialogButtonBox(Buttons, this);
  if (!sExtraYesText.isEmpty()) {
    m_pExtra = m_pButtons->addButton(QStringLiteral("    ") + sExtraYesText + QStringLiteral("    "), QDialogButtonBox::YesRole);
    m_pButtons->setCenterButtons(true);
  }
  connect(m_pButtons, &QDialogButtonBox::clicked, this, &CMessageBox::OnClicked);
  auto* pTop = new QHBoxLayout;
  pTop->addWidget(pIcon, 0, Qt::AlignTop);
  pTop->addWidget(pText, 1);
  auto* pLayout = new QVBoxLayout(this);
  pLayout->addLayout(pTop);
  pLayout->addWidget(pLine);
  pLayout->addWidget(m_pCheck);
  pLayout->addWidget(m_pButtons);
  resize(200, sizeHint().height());
}

void CMessageBox::OnClicked(QAbstractButton* pButton) {
  Clicked = m_pButtons->standardButton(pButton);
  const auto Role = m_pButtons->buttonRole(pButton);
  if (pButton == m_pExtra) {
    Timeout = -2;
    Result = RESULT_YES;
    Settings::SetValue(StorageKey(m_sText), -2);
  } else {
    Result = (Role == QDialogButtonBox::AcceptRole || Role == QDialogButtonBox::YesRole || Role == QDialogButtonBox::ApplyRole)
                 ? RESULT_YES
                 : Role == QDialogButtonBox::NoRole ? RESULT_NO : RESULT_CANCEL;
    if (Result != RESULT_CANCEL && m_ShowCheck && m_pCheck->isChecked()) {
      if (Timeout == -1 || Timeout == -2) {
        Settings::SetValue(StorageKey(m_sText), Timeout);
      } else if (Timeout > 0) {
        Settings::SetValue(StorageKey(m_sText), QDateTime::currentMSecsSinceEpoch() + qint64(Timeout) * 3600 * 1000);
      }
    }
  }
  done(Result);
}

int CMessageBox::Run(bool* pSuppressed) {
  if (pSuppressed) *pSuppressed = false;
  if (m_sText.isEmpty()) return Result = RESULT_YES;
  const QVariant Stored = Settings::Value(StorageKey(m_sText));
  if (Stored.isValid()) {
    bool ok = false;
    const qint64 v = Stored.toLongLong(&ok);
    if (ok && (v == -1 || v == -2)) {
      if (pSuppressed) *pSuppressed = true;
      return Result = RESULT_YES;
    }
    if (ok && v > QDateTime::currentMSecsSinceEpoch()) return Result = RESULT_NO;
  }
  if (g_Batch) {
    Result = DefaultResult(m_Buttons);
    QString sTitle = m_sTitle;
    sTitle.remove(QLatin1Char('&'));
    QString sText = m_sText;
    sText.replace(QLatin1Char('\n'), QLatin1Char(' '));
    ConsolePrintLine(QStringLiteral("[box] ") + sTitle + QStringLiteral(": ") + sText + QStringLiteral(" -> ") + AnswerText(Result));
    return Result;
  }
  exec();
  return Result;
}

int CMessageBox::Ask(const QString& sTitle, const QString& sText, int Timeout, QDialogButtonBox::StandardButtons Buttons,
                     bool* pSuppressed, const QString& sExtraYesText) {
  CMessageBox Box(nullptr, sTitle, sText, Timeout, Buttons, sExtraYesText);
  return Box.Run(pSuppressed);
}

using B = QDialogButtonBox;

int AskResetCodeProfile() {
  return CMessageBox::Ask(QStringLiteral("Reset Code Profile"), QStringLiteral("Reset Execution Counters and Profiling Data?"), -2, B::Yes | B::No);
}
int TellInstCacheNotInitialized() {
  return CMessageBox::Ask(QStringLiteral("Instruction Cache not Initialized"),
                          QStringLiteral("The Vorden firmware reports that its instruction cache is not initialized.\n"
                                         "This is probably due to the fact that no program file was specified.\n\n"
                                         "An uninitialized cache will lead to inaccuarate instruction trace data.\n\n"
                                         "Please use command \"Debug.ReadIntoInstCache\" to initialize the cache manually."),
                          -2, B::Ok);
}
int TellNotEditableWhileDebugging(const QString& sSettingName) {
  return CMessageBox::Ask(sSettingName, QStringLiteral("This setting cannot be edited while debugging"), 0, B::Ok);
}
int AskReloadProgramFile() {
  return CMessageBox::Ask(QStringLiteral("Reload Program File"),
                          QStringLiteral("The program file has been modified by another application.<br>Do you want to reload it?"), -2, B::Yes | B::No);
}
int AskStopDebugging() { return CMessageBox::Ask(QStringLiteral("Stop Debugging"), QStringLiteral("Close this Session?"), 0, B::Yes | B::No); }
int TellSourceFileChanged() {
  return CMessageBox::Ask(QString(),
                          QStringLiteral("This source file has changed. It no longer matches the version of\n the file used to build the application beeing debugged."),
                          0, B::Ok);
}
int AskDownloadAfterOpen() { return CMessageBox::Ask(QString(), QStringLiteral("Program file opened. Download to target?"), 0, B::Yes | B::No); }
int AskStartWithModifiedSources() {
  return CMessageBox::Ask(QString(),
                          QStringLiteral("Source files have been modified and might not match the files used to build the application.\nStart debugging?"),
                          0, B::Yes | B::No, nullptr, QStringLiteral("Yes and do not show again"));
}
int AskEditDocument() {
  return CMessageBox::Ask(QString(),
                          QStringLiteral("You are about to edit this document. Note that edited documents might not match\n"
                                         "the debug information until the application is recompiled and programmed.\nContinue editing?"),
                          0, B::Yes | B::No, nullptr, QStringLiteral("Yes and do not show again"));
}
int AskAbortAfterConnectionLost() {
  return CMessageBox::Ask(QStringLiteral("Target Connection Lost"), QStringLiteral("Failed to read target status. Abort Debug Session?"), 0, B::Yes | B::No);
}
int AskSaveProjectChanges() {
  return CMessageBox::Ask(QStringLiteral("Save Project Changes?"), QStringLiteral("The current project was modified. Save changes?"), 0,
                          B::Yes | B::No | B::Cancel);
}
int AskSaveDocumentChanges(const QString& sFileName) {
  return CMessageBox::Ask(QStringLiteral("Save Document Changes?"), sFileName + QStringLiteral(" is modified. Save changes?"), 0,
                          B::Yes | B::No | B::Cancel);
}
int AskSaveAllDocuments(const QStringList& FileNames) {
  QString s = QStringLiteral("The following documents are modified:\n");
  for (const QString& f : FileNames) s += f + QLatin1Char('\n');
  s += QStringLiteral("Save all changes before closing?");
  return CMessageBox::Ask(QStringLiteral("Save Document Changes?"), s, 0, B::Yes | B::No | B::Cancel);
}
int TellProjectNotSaved(const QString& sReason) {
  return CMessageBox::Ask(QStringLiteral("Project Warning"), QStringLiteral("Project settings could not be saved: ") + sReason, 0, B::Ok);
}
int TellUnknownBreakSymbol(const QString& sName) {
  return CMessageBox::Ask(QStringLiteral("Break at Symbol"),
                          QStringLiteral("Symbol ") + sName + QStringLiteral(" is unknown. Program halts at first instruction."), -2, B::Ok);
}
