#include "ui/source/sourcerows.h"

#include "ui/source/sourceeditor.h"
#include "ui/source/sourcewindow.h"

int CSourceRowsModel::rowCount(const QModelIndex& Parent) const {
  if (Parent.isValid() || !m_pWindow || !m_pWindow->ActiveDocument()) return 0;
  return m_pWindow->GetTextEditor()->RowCount();
}

QString CSourceRowsModel::RowText(CSourceEditor* e, int Row) {
  const CSourceRow* r = e->RowData(Row, false);
  if (!r) return QString();
  return r->Kind == 1 ? e->DocLineText(int(r->DocLine)) : r->Text;
}

QString CSourceRowsModel::MarkText(int Icon) {
  switch (Icon) {
    case 1: return QStringLiteral("bp (part)");
    case 2: return QStringLiteral("bp off (part)");
    case 3: return QStringLiteral("BP");
    case 4: return QStringLiteral("BP off");
    case 5: case 7: return QStringLiteral("TP");
    case 6: case 8: return QStringLiteral("TP off");
    case 9: return QStringLiteral("code");
    case 10: return QStringLiteral("PC");
    case 11: return QStringLiteral("caller");
    default: return QString();
  }
}

QVariant CSourceRowsModel::data(const QModelIndex& Index, int Role) const {
  if (Role != Qt::DisplayRole || !Index.isValid() || !m_pWindow) return QVariant();
  CSourceEditor* e = m_pWindow->GetTextEditor();
  const int r = Index.row();
  if (r >= e->RowCount()) return QVariant();
  const bool Source = e->RowKind(r) == 1;
  switch (Index.column()) {
    case COL_LINE: return Source ? QString::number(e->DocLineOfRow(r)) : QString();
    case COL_ADDR: {
      const U64 a = e->RowAddr(r);
      return a == ~0ull ? QString() : QStringLiteral("0x%1").arg(a, 8, 16, QLatin1Char('0')).toUpper().replace(QLatin1String("0X"), QLatin1String("0x"));
    }
    case COL_MARK: {
      QString s = MarkText(m_pWindow->SidebarIcon(r));
      // The PC stands on a row with a breakpoint too.
      if (m_pWindow->IsPcRow(r) && s != QLatin1String("PC")) s = s.isEmpty() || s == QLatin1String("code") ? QStringLiteral("PC") : s + QStringLiteral(" PC");
      return s == QLatin1String("code") ? QString() : s;
    }
    case COL_TEXT: return RowText(e, r);
    default: return QVariant();
  }
}

QVariant CSourceRowsModel::headerData(int Section, Qt::Orientation Orientation, int Role) const {
  if (Orientation != Qt::Horizontal || Role != Qt::DisplayRole) return QVariant();
  static const char* const kHeaders[] = {"Line", "Address", "Mark", "Text"};
  return Section >= 0 && Section < COL_COUNT ? QString::fromLatin1(kHeaders[Section]) : QVariant();
}
