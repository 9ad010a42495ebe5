#include "ui/dialogs/projectdialogs.h"

#include "commands/actions.h"
#include "log/log.h"
#include "project/project.h"
#include "project/projecttext.h"
#include "project/vscript.h"
#include "settings/sysvars.h"

#include <QComboBox>
#include <QDesktopServices>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGridLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QStyle>
#include <QTableWidget>
#include <QUrl>
#include <QVBoxLayout>

bool CProjectDialogs::RunSettingsDialog(bool SysVarsOnly) {
  QDialog Dlg;
  Dlg.setWindowTitle(SysVarsOnly ? QStringLiteral("System Variables") : QStringLiteral("Preferences"));
  auto* pLayout = new QVBoxLayout(&Dlg);
  auto* pTable = new QTableWidget(&Dlg);
  pTable->setColumnCount(3);
  pTable->setHorizontalHeaderLabels({QStringLiteral("Name"), QStringLiteral("Value"), QStringLiteral("Description")});
  QList<int> Ids;
  for (int Id = 0; Id < SYSVAR_COUNT; ++Id) {
    const SYSVAR* r = SysVars::Row(Id);
    if (!r || SysVars::IsPreference(Id) == SysVarsOnly) continue;
    if (SysVarsOnly && !r->IsEditable) continue;
    Ids.append(Id);
  }
  pTable->setRowCount(int(Ids.size()));
  QStringList Before;
  for (int i = 0; i < Ids.size(); ++i) {
    const SYSVAR* r = SysVars::Row(Ids[i]);
    // A label may carry a long and a short form: 'long" | "short'.
    const QString sLabel = QString::fromUtf8(r->Label ? r->Label : r->Name).section(QStringLiteral("\" | \""), 0, 0);
    auto* pName = new QTableWidgetItem(sLabel);
    pName->setFlags(pName->flags() & ~Qt::ItemIsEditable);
    pName->setToolTip(QString::fromLatin1(r->Name));
    const QString sValue = r->Type == SysVarType::String ? SysVars::GetString(Ids[i]) : SysVars::ValueToText(Ids[i], SysVars::GetValue(Ids[i]));
    Before.append(sValue);
    auto* pDesc = new QTableWidgetItem(QString::fromUtf8(r->Description ? r->Description : ""));
    pDesc->setFlags(pDesc->flags() & ~Qt::ItemIsEditable);
    pTable->setItem(i, 0, pName);
    pTable->setItem(i, 1, new QTableWidgetItem(sValue));
    pTable->setItem(i, 2, pDesc);
  }
  pTable->setWordWrap(false);
  pTable->horizontalHeader()->setStretchLastSection(true);
  pTable->resizeColumnsToContents();
  pLayout->addWidget(pTable);
  auto* pButtons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &Dlg);
  QObject::connect(pButtons, &QDialogButtonBox::accepted, &Dlg, &QDialog::accept);
  QObject::connect(pButtons, &QDialogButtonBox::rejected, &Dlg, &QDialog::reject);
  pLayout->addWidget(pButtons);
  Dlg.resize(800, 600);
  if (Dlg.exec() != QDialog::Accepted) return false;
  QStringList Written;
  for (int i = 0; i < Ids.size(); ++i) {
    const QString sNew = pTable->item(i, 1)->text().trimmed();
    if (sNew == Before[i]) continue;
    const QString sName = QString::fromLatin1(SysVars::Row(Ids[i])->Name);
    QString sArg = sNew;
    if (sArg.contains(QLatin1Char(' '))) sArg = QLatin1Char('"') + sArg + QLatin1Char('"');
    if (SysVarsOnly) {
      ExecAction(AID_EDIT_SYS_VAR, sName, sArg);
      Written.append(RenderCommand(AID_EDIT_SYS_VAR, {sName, sNew}));
    } else {
      ExecAction(AID_EDIT_PREFERENCE, sName, sArg, QStringLiteral("1"));
    }
  }
  if (SysVarsOnly && !Written.isEmpty() && !VScript::ScriptFilePath().isEmpty()) {
    QStringList Names;
    for (const QString& c : Written) Names.append(ProjectText::RemovePatternFor(c));
    if (Project().WriteSettings(VScript::ScriptFilePath(), true, Written, Names) >= 0)
      LogInfo(QStringLiteral("System settings were written to the project file"));
  }
  return true;
}

int CProjectDialogs::ShowProjectWarnings(const QStringList& Warnings, const QString& sProjectPath) {
  QDialog Dlg;
  Dlg.setWindowTitle(QStringLiteral("Project File Warnings"));
  auto* pLayout = new QVBoxLayout(&Dlg);
  pLayout->addWidget(new QLabel(QStringLiteral("The project file contains errors:"), &Dlg));
  auto* pList = new QListWidget(&Dlg);
  for (const QString& w : Warnings) pList->addItem(new QListWidgetItem(QIcon(QStringLiteral(":/Resources/exclamation-button.png")), w));
  pLayout->addWidget(pList);
  auto* pButtons = new QDialogButtonBox(&Dlg);
  QPushButton* pEdit = pButtons->addButton(QStringLiteral("Edit"), QDialogButtonBox::ActionRole);
  QPushButton* pIgnore = pButtons->addButton(QStringLiteral("Ignore"), QDialogButtonBox::AcceptRole);
  QPushButton* pNever = pButtons->addButton(QStringLiteral("  Ignore && Do Not Show Again  "), QDialogButtonBox::AcceptRole);
  pButtons->addButton(QDialogButtonBox::Cancel);
  pIgnore->setDefault(true);
  QObject::connect(pEdit, &QPushButton::clicked, &Dlg, [sProjectPath] { QDesktopServices::openUrl(QUrl::fromLocalFile(sProjectPath)); });
  QObject::connect(pIgnore, &QPushButton::clicked, &Dlg, &QDialog::accept);
  QObject::connect(pNever, &QPushButton::clicked, &Dlg, [&Dlg] {
    SysVars::SetValue(PREF_SHOW_PROJECT_WARNINGS_DIALOG, 0, true);
    Dlg.accept();
  });
  QObject::connect(pButtons, &QDialogButtonBox::rejected, &Dlg, &QDialog::reject);
  pLayout->addWidget(pButtons);
  return Dlg.exec() == QDialog::Accepted ? 1 : -1;
}

QStringList CProjectDialogs::RunProjectWizard(QString* pProjectPath) {
  QDialog Dlg;
  Dlg.setWindowTitle(QStringLiteral("New Project"));
  auto* pForm = new QFormLayout(&Dlg);
  auto* pDevice = new QLineEdit(&Dlg);
  auto* pHost = new QComboBox(&Dlg);
  pHost->addItems({QStringLiteral("USB"), QStringLiteral("IP")});
  auto* pIdent = new QLineEdit(&Dlg);
  auto* pTif = new QComboBox(&Dlg);
  pTif->addItems({QStringLiteral("SWD"), QStringLiteral("JTAG"), QStringLiteral("FINE"), QStringLiteral("cJTAG")});
  auto* pSpeed = new QLineEdit(QStringLiteral("4 MHz"), &Dlg);
  auto* pProgram = new QLineEdit(&Dlg);
  auto* pPath = new QLineEdit(&Dlg);
  pForm->addRow(QStringLiteral("Device"), pDevice);
  pForm->addRow(QStringLiteral("Host interface"), pHost);
  pForm->addRow(QStringLiteral("Serial number / address"), pIdent);
  pForm->addRow(QStringLiteral("Target interface"), pTif);
  pForm->addRow(QStringLiteral("Speed"), pSpeed);
  pForm->addRow(QStringLiteral("Program file"), pProgram);
  pForm->addRow(QStringLiteral("Project file"), pPath);
  auto* pButtons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &Dlg);
  QObject::connect(pButtons, &QDialogButtonBox::accepted, &Dlg, &QDialog::accept);
  QObject::connect(pButtons, &QDialogButtonBox::rejected, &Dlg, &QDialog::reject);
  pForm->addRow(pButtons);
  if (Dlg.exec() != QDialog::Accepted || pDevice->text().trimmed().isEmpty()) return {};
  QStringList c;
  c << RenderCommand(AID_PROJECT_SET_DEVICE, {pDevice->text().trimmed()});
  c << RenderCommand(AID_PROJECT_SET_HOST_IF, {pHost->currentText(), pIdent->text().trimmed()});
  c << RenderCommand(AID_PROJECT_SET_TARGET_IF, {pTif->currentText()});
  if (!pSpeed->text().trimmed().isEmpty()) c << RenderCommand(AID_PROJECT_SET_TIF_SPEED, {pSpeed->text().trimmed()});
  if (!pProgram->text().trimmed().isEmpty()) c << RenderCommand(AID_FILE_OPEN, {pProgram->text().trimmed()});
  QString sPath = pPath->text().trimmed();
  if (!sPath.isEmpty() && QFileInfo(sPath).suffix().isEmpty()) sPath += QStringLiteral(".vdebug");
  if (pProjectPath) *pProjectPath = sPath;
  return c;
}

QString CProjectDialogs::AskOpenFile(const QString& sDir) {
  return QFileDialog::getOpenFileName(nullptr, QStringLiteral("Open File"), sDir);
}

// The text with the exclamation icon above the chooser, both with the title.
QString CProjectDialogs::AskFileWithText(const QString& sTitle, const QString& sText, const QString& sDir) {
  QFileDialog Dialog(nullptr, sTitle, sDir);
  Dialog.setFileMode(QFileDialog::ExistingFile);
  Dialog.setOption(QFileDialog::DontUseNativeDialog);
  if (auto* pGrid = qobject_cast<QGridLayout*>(Dialog.layout())) {
    auto* pIcon = new QLabel(&Dialog);
    pIcon->setPixmap(Dialog.style()->standardIcon(QStyle::SP_MessageBoxWarning).pixmap(32, 32));
    pGrid->addWidget(pIcon, pGrid->rowCount(), 0);
    pGrid->addWidget(new QLabel(sText, &Dialog), pGrid->rowCount() - 1, 1, 1, -1);
  }
  return Dialog.exec() == QDialog::Accepted && !Dialog.selectedFiles().isEmpty() ? Dialog.selectedFiles().first() : QString();
}

QString CProjectDialogs::AskSaveProjectFile(const QString& sDir) {
  return QFileDialog::getSaveFileName(nullptr, QStringLiteral("Save Project as..."), sDir,
                                      QStringLiteral("Project files (*.vdebug)"));
}
