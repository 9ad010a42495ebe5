#include "ui/shell/toolbars.h"

#include <QAction>

CToolBar::CToolBar(const QString& sName, const QString& sStateKey, QWidget* pParent)
    : QToolBar(sName, pParent), m_sName(sName), m_sStateKey(sStateKey) {
  setObjectName(QStringLiteral("ToolBar") + QString(sName).remove(QLatin1Char(' ')));
  setIconSize(QSize(16, 16));
}

void CToolBar::SetToggleAction(QAction* pAction) {
  m_pToggle = pAction;
  pAction->setCheckable(true);
  connect(this, &QToolBar::visibilityChanged, pAction, [this](bool) { m_pToggle->setChecked(!isHidden()); });
}
