#include "files/memorydialog.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "settings/store.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QIcon>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalBlocker>

namespace {

struct MODE_TEXTS {
  const char *sTitle, *sButton, *sField, *sIcon;
};
const MODE_TEXTS kModes[] = {{"Load Memory Data", "Load", "File:", "drive-upload.png"},
                             {"Save Memory Data", "Save", "File:", "drive-download.png"},
                             {"Fill Memory", "Fill", "Fill Value:", "document--pencil.png"}};

// A hexadecimal number, with or without "0x".
bool ParseHex(QString s, U64* pOut) {
  s = s.trimmed();
  if (s.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) s = s.mid(2);
  bool Ok = false;
  *pOut = s.toULongLong(&Ok, 16);
  return Ok && !s.isEmpty();
}

QString HexText(U64 v) { return QString::number(v, 16).toUpper(); }

// The end of [Start, Start + Size), false when it passes 2^64 - 2.
bool EndOf(U64 Start, U64 Size, U64* pEnd) {
  if (Size == 0 || Start > 0xFFFFFFFFFFFFFFFDull || Size > 0xFFFFFFFFFFFFFFFDull - Start) return false;
  *pEnd = Start + Size - 1;
  return true;
}

}  // namespace

CGenericMemoryDialog::CGenericMemoryDialog(MODE Mode, QWidget* pParent) : QDialog(pParent), m_Mode(Mode) {
  setObjectName(QStringLiteral("CGenericMemoryDialog"));
  const MODE_TEXTS& t = kModes[Mode];
  setWindowTitle(QString::fromLatin1(t.sTitle));
  setWindowIcon(QIcon(QStringLiteral(":/icons/") + QString::fromLatin1(t.sIcon)));
  m_pGeneric = new QLineEdit(this);
  m_pStart = new QLineEdit(this);
  m_pEnd = new QLineEdit(this);
  m_pNumBytes = new QLineEdit(this);
  m_pButton = new QPushButton(QString::fromLatin1(t.sButton), this);
  auto* pCancel = new QPushButton(QStringLiteral("Cancel"), this);
  auto* pForm = new QFormLayout(this);
  auto* pFileRow = new QHBoxLayout;
  pFileRow->addWidget(m_pGeneric);
  if (Mode != MODE_FILL) {
    auto* pSelect = new QPushButton(QStringLiteral("..."), this);
    pFileRow->addWidget(pSelect);
    connect(pSelect, &QPushButton::clicked, this, &CGenericMemoryDialog::OnButtonSelectFileClicked);
  }
  pForm->addRow(QString::fromLatin1(t.sField), pFileRow);
  pForm->addRow(QStringLiteral("Start Address:"), m_pStart);
  pForm->addRow(QStringLiteral("End Address:"), m_pEnd);
  pForm->addRow(QStringLiteral("Number of Bytes:"), m_pNumBytes);
  auto* pButtons = new QHBoxLayout;
  pButtons->addStretch();
  pButtons->addWidget(m_pButton);
  pButtons->addWidget(pCancel);
  pForm->addRow(pButtons);
  connect(m_pButton, &QPushButton::clicked, this, &CGenericMemoryDialog::OnButtonLoadSaveClicked);
  connect(pCancel, &QPushButton::clicked, this, &CGenericMemoryDialog::OnButtonCancelClicked);
  connect(m_pGeneric, &QLineEdit::textChanged, this, &CGenericMemoryDialog::OnEditboxGenericValTextChanged);
  connect(m_pStart, &QLineEdit::textChanged, this, &CGenericMemoryDialog::OnEditboxStartAddrTextChanged);
  connect(m_pEnd, &QLineEdit::textChanged, this, &CGenericMemoryDialog::OnEditboxEndAddrTextChanged);
  connect(m_pNumBytes, &QLineEdit::textChanged, this, &CGenericMemoryDialog::OnEditboxNumBytesTextChanged);
  if (Mode != MODE_FILL)
    SetText(m_pGeneric, Settings::Value(SettingsKey(), QDir::homePath() + QStringLiteral("/data.bin")).toString());
  UpdateButton();
}

QString CGenericMemoryDialog::SettingsKey() const {
  return QStringLiteral("AppData/") + objectName() +
         (m_Mode == MODE_SAVE ? QStringLiteral("/DefaultDirSave") : QStringLiteral("/DefaultDirOpen"));
}

void CGenericMemoryDialog::showEvent(QShowEvent* pEvent) {
  QDialog::showEvent(pEvent);
  UpdateButton();
}

// Fields set by the dialog itself do not start their own rules.
void CGenericMemoryDialog::SetText(QLineEdit* pEdit, const QString& sText) {
  const QSignalBlocker Block(pEdit);
  pEdit->setText(sText);
}

void CGenericMemoryDialog::OnEditboxGenericValTextChanged(QString) { UpdateButton(); }

void CGenericMemoryDialog::OnEditboxStartAddrTextChanged(QString NewText) {
  U64 Start = 0, Size = 0, End = 0;
  if (ParseHex(NewText, &Start)) {
    if (!ParseHex(m_pNumBytes->text(), &Size)) SetText(m_pEnd, HexText(Start));
    else SetText(m_pEnd, EndOf(Start, Size, &End) ? HexText(End) : QString());
  }
  UpdateButton();
}

void CGenericMemoryDialog::OnEditboxEndAddrTextChanged(QString NewText) {
  U64 Start = 0, End = 0;
  if (ParseHex(m_pStart->text(), &Start) && ParseHex(NewText, &End))
    SetText(m_pNumBytes, Start > End ? QString() : HexText(End - Start + 1));
  UpdateButton();
}

void CGenericMemoryDialog::OnEditboxNumBytesTextChanged(QString NewText) {
  U64 Start = 0, Size = 0, End = 0;
  if (!ParseHex(NewText, &Size) || Size == 0) SetText(m_pEnd, QString());
  else if (ParseHex(m_pStart->text(), &Start)) SetText(m_pEnd, EndOf(Start, Size, &End) ? HexText(End) : QString());
  UpdateButton();
}

void CGenericMemoryDialog::UpdateButton() {
  U64 Start = 0, Size = 0, Value = 0;
  const bool HaveRange = ParseHex(m_pStart->text(), &Start) && Start <= 0xFFFFFFFFull &&
                         ParseHex(m_pNumBytes->text(), &Size) && Size > 0 && Start + Size <= 0x100000000ull;
  const QString sFile = m_pGeneric->text().trimmed();
  bool Ok = false;
  switch (m_Mode) {
    case MODE_LOAD: Ok = QFileInfo(sFile).isFile() && ParseHex(m_pStart->text(), &Start) && Start <= 0xFFFFFFFFull; break;
    case MODE_SAVE: Ok = !sFile.isEmpty() && HaveRange; break;
    case MODE_FILL: Ok = ParseHex(sFile, &Value) && Value <= 0xFF && HaveRange; break;
  }
  m_pButton->setEnabled(Ok);
}

void CGenericMemoryDialog::OnButtonSelectFileClicked() {
  QString sPath = m_Mode == MODE_LOAD
                      ? QFileDialog::getOpenFileName(this, QStringLiteral("Load Memory Data from..."), m_pGeneric->text(),
                                                     QStringLiteral("Binary File (*.bin)"))
                      : QFileDialog::getSaveFileName(this, QStringLiteral("Save Memory Data to..."), m_pGeneric->text(),
                                                     QStringLiteral("Binary File (*.bin)"));
  if (sPath.isEmpty()) return;
  if (m_Mode == MODE_SAVE && QFileInfo(sPath).suffix().isEmpty()) sPath += QStringLiteral(".bin");
  m_pGeneric->setText(sPath);
  if (m_Mode == MODE_LOAD) m_pNumBytes->setText(HexText(U64(QFileInfo(sPath).size())));
}

void CGenericMemoryDialog::OnButtonLoadSaveClicked() {
  const QString sGeneric = m_pGeneric->text().trimmed(), sStart = QStringLiteral("0x") + m_pStart->text().trimmed();
  const QString sSize = QStringLiteral("0x") + m_pNumBytes->text().trimmed();
  int Id = AID_TARGET_FILL_MEMORY;
  switch (m_Mode) {
    case MODE_LOAD:
      if (QFileInfo(sGeneric).isFile()) Settings::SetValue(SettingsKey(), sGeneric);
      Id = AID_TARGET_LOAD_MEMORY;
      ExecActionLogged(Id, sGeneric, sStart);
      break;
    case MODE_SAVE:
      Settings::SetValue(SettingsKey(), sGeneric);
      Id = AID_TARGET_SAVE_MEMORY;
      ExecActionLogged(Id, sGeneric, sStart, sSize);
      break;
    case MODE_FILL: ExecActionLogged(AID_TARGET_FILL_MEMORY, sStart, sSize, QStringLiteral("0x") + sGeneric); break;
  }
  accept();
  // The statement runs as if typed, so the console shows it.
  TriggerAction(Id);
}

void CGenericMemoryDialog::OnButtonCancelClicked() { reject(); }
