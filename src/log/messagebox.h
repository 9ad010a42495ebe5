// CMessageBox: the program's modal question box with its "Do not show again"
// memory, kept in the settings under AppData/MessageTimeouts/<hash of text>.
// In batch mode no box opens: the default button answers and one line
// "[box] <title>: <text> -> <answer>" goes to the console.
#pragma once
#include <QDialog>
#include <QDialogButtonBox>
#include <QString>

class QCheckBox;
class QLabel;

class CMessageBox : public QDialog {
  Q_OBJECT
 public:
  // Result values.
  enum { RESULT_NO = 0, RESULT_YES = 1, RESULT_CANCEL = 2 };

  CMessageBox(QWidget* pParent, const QString& sTitle, const QString& sText, int Timeout,
              QDialogButtonBox::StandardButtons Buttons, const QString& sExtraYesText = QString());

  // Runs the box (or answers from the stored value) and returns Result.
  int Run(bool* pSuppressed = nullptr);

  int Result = RESULT_NO;
  QDialogButtonBox::StandardButton Clicked = QDialogButtonBox::NoButton;
  int Timeout = 0;

  // The settings key of a text.
  static QString StorageKey(const QString& sText);
  // The text of the check box for a timeout, empty when it is hidden.
  static QString CheckBoxText(int Timeout);
  // Batch mode: no box is shown.
  static void SetBatchMode(bool On);
  static bool IsBatchMode();
  // Generic entry: title, text, timeout, buttons; pSuppressed tells whether
  // the box is under a permanent "do not show".
  static int Ask(const QString& sTitle, const QString& sText, int Timeout,
                 QDialogButtonBox::StandardButtons Buttons, bool* pSuppressed = nullptr,
                 const QString& sExtraYesText = QString());

 private:
  void OnClicked(QAbstractButton* pButton);
  QString m_sTitle, m_sText;
  QDialogButtonBox* m_pButtons = nullptr;
  QCheckBox* m_pCheck = nullptr;
  QAbstractButton* m_pExtra = nullptr;
  QDialogButtonBox::StandardButtons m_Buttons;
  bool m_ShowCheck = false;
};

// The standard boxes.
int AskResetCodeProfile();
int TellInstCacheNotInitialized();
int TellNotEditableWhileDebugging(const QString& sSettingName);
int AskReloadProgramFile();
int AskStopDebugging();
int TellSourceFileChanged();
int AskDownloadAfterOpen();
int AskStartWithModifiedSources();
int AskEditDocument();
int AskAbortAfterConnectionLost();
int AskSaveProjectChanges();
int AskSaveDocumentChanges(const QString& sFileName);
int AskSaveAllDocuments(const QStringList& FileNames);
int TellProjectNotSaved(const QString& sReason);
int TellUnknownBreakSymbol(const QString& sName);
