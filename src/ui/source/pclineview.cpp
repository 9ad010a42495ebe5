#include "ui/source/pclineview.h"

#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "files/filefinder.h"

#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QMutexLocker>
#include <QTextBlock>
#include <QVBoxLayout>

CPcLineView::CPcLineView(QWidget* pParent) : QWidget(pParent) {
  setObjectName(QStringLiteral("PcLineView"));
  auto* pLayout = new QVBoxLayout(this);
  pLayout->setContentsMargins(0, 0, 0, 0);
  m_pHeader = new QLabel(QStringLiteral("No program running"), this);
  m_pHeader->setMargin(3);
  m_pText = new QPlainTextEdit(this);
  m_pText->setReadOnly(true);
  m_pText->setLineWrapMode(QPlainTextEdit::NoWrap);
  QFont f(QStringLiteral("Monospace"));
  f.setStyleHint(QFont::TypeWriter);
  m_pText->setFont(f);
  pLayout->addWidget(m_pHeader);
  pLayout->addWidget(m_pText, 1);
  // New path rules may find the file elsewhere: read it again.
  connect(&FileFinder(), &CFileFinder::RulesChanged, this, [this] {
    m_sFile.clear();
    if (m_HasPC) ShowPC(m_LastPC);
  });
}

void CPcLineView::ClearMark() { m_pText->setExtraSelections({}); }

void CPcLineView::ShowPC(U32 PC) {
  m_HasPC = true;
  m_LastPC = PC;
  QString sPath;
  CSrcLoc Loc;
  {
    CElfApi& Elf = CElfApi::Instance();
    QMutexLocker Lock(&Elf.Mutex());
    if (Elf.IsLoaded()) {
      const CLineTables& t = DWARF_GetProgramTables();
      Loc = t.GetLastSrcLoc(PC);
      if (!Loc.IsNull()) sPath = t.GetFilePath(Loc.file);
    }
  }
  const QString sPC = QStringLiteral("PC 0x%1").arg(PC, 8, 16, QLatin1Char('0')).toUpper().replace(QLatin1String("0X"), QLatin1String("0x"));
  if (sPath.isEmpty()) {
    m_pHeader->setText(sPC + QStringLiteral(": no source line"));
    ClearMark();
    m_Line = 0;
    return;
  }
  QString sFile = FileFinder().Resolve(sPath);
  if (sFile.isEmpty()) sFile = sPath;
  if (sFile != m_sFile) {
    QFile f(sFile);
    if (!f.open(QIODevice::ReadOnly)) {
      m_pHeader->setText(QStringLiteral("%1: %2:%3 (file not found)").arg(sPC, sFile).arg(Loc.line));
      m_pText->clear();
      m_sFile.clear();
      m_Line = 0;
      return;
    }
    m_pText->setPlainText(QString::fromUtf8(f.readAll()));
    m_sFile = sFile;
  }
  m_Line = int(Loc.line);
  m_pHeader->setText(QStringLiteral("%1: %2:%3").arg(sPC, QFileInfo(sFile).fileName()).arg(Loc.line));
  const QTextBlock b = m_pText->document()->findBlockByNumber(m_Line - 1);
  QTextEdit::ExtraSelection s;
  s.format.setBackground(QColor(255, 240, 120));
  s.format.setProperty(QTextFormat::FullWidthSelection, true);
  s.cursor = QTextCursor(b);
  m_pText->setExtraSelections({s});
  m_pText->setTextCursor(QTextCursor(b));
  m_pText->centerCursor();
}
