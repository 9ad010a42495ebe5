// The rows of the source viewer as a table, for Window.Export("Source"):
// document line, address, the sidebar's mark and the text of each row of the
// active document, instruction rows of expanded lines included.
#pragma once
#include <QAbstractTableModel>

class CSourceEditor;
class CSourceWindow;

class CSourceRowsModel : public QAbstractTableModel {
 public:
  explicit CSourceRowsModel(CSourceWindow* pWindow) : m_pWindow(pWindow) {}
  enum { COL_LINE, COL_ADDR, COL_MARK, COL_TEXT, COL_COUNT };
  int rowCount(const QModelIndex& Parent = QModelIndex()) const override;
  int columnCount(const QModelIndex& Parent = QModelIndex()) const override { return Parent.isValid() ? 0 : COL_COUNT; }
  QVariant data(const QModelIndex& Index, int Role = Qt::DisplayRole) const override;
  QVariant headerData(int Section, Qt::Orientation Orientation, int Role = Qt::DisplayRole) const override;
  // The text of a sidebar icon ("PC", "BP", ...); empty for none.
  static QString MarkText(int Icon);
  // The text a row shows: its document line, or its instruction.
  static QString RowText(CSourceEditor* pEditor, int Row);
  void Reset() {
    beginResetModel();
    endResetModel();
  }

 private:
  CSourceWindow* m_pWindow;
};
