// The memory dialog for loading a file into target memory, saving target
// memory to a file, and filling target memory with a value. Its fields (file
// or value, start, end, number of bytes; numbers hexadecimal) stay consistent
// with each other, and its button is enabled only while what the mode needs
// is valid. Acceptance runs Target.LoadMemory, Target.SaveMemory or
// Target.FillMemory.
#pragma once
#include "common/types.h"

#include <QDialog>

class QLabel;
class QLineEdit;
class QPushButton;

class CGenericMemoryDialog : public QDialog {
  Q_OBJECT
 public:
  enum MODE { MODE_LOAD = 0, MODE_SAVE = 1, MODE_FILL = 2 };
  explicit CGenericMemoryDialog(MODE Mode, QWidget* pParent = nullptr);

  QLineEdit* GenericValEdit() const { return m_pGeneric; }
  QLineEdit* StartAddrEdit() const { return m_pStart; }
  QLineEdit* EndAddrEdit() const { return m_pEnd; }
  QLineEdit* NumBytesEdit() const { return m_pNumBytes; }
  QPushButton* LoadSaveButton() const { return m_pButton; }

 protected:
  void showEvent(QShowEvent* pEvent) override;

 private slots:
  void OnButtonLoadSaveClicked();
  void OnButtonCancelClicked();
  void OnButtonSelectFileClicked();
  void OnEditboxGenericValTextChanged(QString NewText);
  void OnEditboxStartAddrTextChanged(QString NewText);
  void OnEditboxEndAddrTextChanged(QString NewText);
  void OnEditboxNumBytesTextChanged(QString NewText);

 private:
  void SetText(QLineEdit* pEdit, const QString& sText);
  void UpdateButton();
  QString SettingsKey() const;

  MODE m_Mode;
  QLineEdit *m_pGeneric, *m_pStart, *m_pEnd, *m_pNumBytes;
  QPushButton* m_pButton;
};
