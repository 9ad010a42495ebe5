// The layout of the main window: the default layout, the perspective in the
// settings store, and the lines of open windows and tool bars in the user
// file.
#include "log/log.h"
#include "settings/store.h"
#include "ui/framework/window.h"
#include "ui/shell/mainwindow.h"
#include "ui/shell/toolbars.h"

#include <QAction>
#include <QCryptographicHash>
#include <QDockWidget>
#include <QApplication>
#include <QRegularExpression>
#include <QScreen>

namespace {

struct DOCK_AREA_NAME {
  const char* sName;
  int Value;
  Qt::DockWidgetArea Area;
};
constexpr DOCK_AREA_NAME kAreas[] = {{"LEFT", 1, Qt::LeftDockWidgetArea},
                                     {"RIGHT", 2, Qt::RightDockWidgetArea},
                                     {"TOP", 4, Qt::TopDockWidgetArea},
                                     {"BOTTOM", 8, Qt::BottomDockWidgetArea},
                                     {"FLOATING", 22, Qt::NoDockWidgetArea}};

// "Key=value" fields of one user file line; the first field's value is the
// name. Values lose their quotes.
QHash<QString, QString> SplitLine(const QString& sLine, QString* psName) {
  QHash<QString, QString> h;
  const QStringList Fields = sLine.split(QLatin1Char(','));
  for (int i = 0; i < Fields.size(); ++i) {
    const int Eq = Fields[i].indexOf(QLatin1Char('='));
    if (Eq < 0) continue;
    QString sKey = Fields[i].left(Eq).trimmed(), sValue = Fields[i].mid(Eq + 1).trimmed();
    if (sValue.size() >= 2 && sValue.startsWith(QLatin1Char('"')) && sValue.endsWith(QLatin1Char('"')))
      sValue = sValue.mid(1, sValue.size() - 2);
    if (i == 0) *psName = sValue;
    h.insert(sKey.toLower(), sValue);
  }
  return h;
}

QString StateDigest(const QByteArray& State) {
  return QString::fromLatin1(QCryptographicHash::hash(State, QCryptographicHash::Sha1).toHex());
}

bool OnSomeScreen(const QRect& r) {
  for (QScreen* s : QGuiApplication::screens())
    if (s->availableGeometry().intersects(r)) return true;
  return QGuiApplication::screens().isEmpty();
}

}  // namespace

QString CMainWindow::PerspectiveGroup() const {
  return m_Perspective == 0 ? QStringLiteral("AppData/Perspectives/Edit") : QStringLiteral("AppData/Perspectives/Debug");
}

void CMainWindow::ApplyDefaultLayout() {
  for (CToolBar* p : m_ToolBars) p->hide();
  for (SHELL_WINDOW* p : AllWindows()) {
    p->pDock->setFloating(false);
    p->pDock->hide();
  }
  if (CToolBar* p = FindToolBar(QStringLiteral("Debug"))) p->show();
  if (CToolBar* p = FindToolBar(QStringLiteral("Windows"))) p->show();
  auto Place = [this](SHELL_WINDOW* p, Qt::DockWidgetArea Area) {
    if (!p) return;
    addDockWidget(Area, p->pDock);
    p->pDock->show();
  };
  auto Of = [this](SHELL_WINDOW_KINDS Kind) -> SHELL_WINDOW* {
    for (SHELL_WINDOW* p : m_Windows)
      if (p->Kind == Kind) return p;
    return nullptr;
  };
  Place(m_RegisterWindows.value(0), Qt::LeftDockWidgetArea);
  Place(Of(SWK_CALL_STACK), Qt::RightDockWidgetArea);
  Place(m_MemoryWindows.value(0), Qt::RightDockWidgetArea);
  Place(Of(SWK_CONSOLE), Qt::BottomDockWidgetArea);
  Place(Of(SWK_BREAKPOINTS), Qt::BottomDockWidgetArea);
  if (SHELL_WINDOW* a = Of(SWK_CONSOLE); a && Of(SWK_BREAKPOINTS))
    splitDockWidget(a->pDock, Of(SWK_BREAKPOINTS)->pDock, Qt::Horizontal);
  if (SHELL_WINDOW* a = Of(SWK_CALL_STACK); a && !m_MemoryWindows.isEmpty())
    splitDockWidget(a->pDock, m_MemoryWindows.first()->pDock, Qt::Vertical);
  for (CToolBar* p : m_ToolBars)
    if (p->ToggleAction()) p->ToggleAction()->setChecked(!p->isHidden());
}

bool CMainWindow::RestorePerspective() {
  const QString sGroup = PerspectiveGroup().replace(QLatin1String("/Edit"), QLatin1String("/Debug"));
  const QVariant v = Settings::Value(sGroup + QStringLiteral("/WindowState"));
  if (!v.isValid()) return true;
  QWidget* pFocus = QApplication::focusWidget();
  const QByteArray State = v.toByteArray();
  // The toolkit does not survive every damaged state, so a state is only
  // handed to it when its digest, written with it, still matches.
  const bool Intact = Settings::Value(sGroup + QStringLiteral("/WindowStateDigest")).toString() == StateDigest(State);
  if (State.isEmpty() || !Intact || !restoreState(State)) {
    // Shown in the console as well: the user sees why the layout changed.
    LogInfo(QStringLiteral("Warning: the stored window layout (") + sGroup +
            QStringLiteral(") is damaged and was not restored; the default layout is used."));
    ApplyDefaultLayout();
    return false;
  }
  for (CToolBar* p : m_ToolBars) {
    const QVariant Shown = Settings::Value(sGroup + QLatin1Char('/') + p->StateKey());
    if (Shown.isValid()) p->setVisible(Shown.toBool());
    if (p->ToggleAction()) p->ToggleAction()->setChecked(!p->isHidden());
  }
  // A window that the stored state left floating outside every screen comes
  // back into the main window, so that none is lost from sight.
  for (SHELL_WINDOW* p : AllWindows())
    if (p->pDock->isFloating() && !p->pDock->isHidden() && !OnSomeScreen(p->pDock->frameGeometry())) {
      LogInfo(QStringLiteral("Warning: window ") + p->sName + QStringLiteral(" was outside the screen and is docked again."));
      p->pDock->setFloating(false);
    }
  if (pFocus && pFocus->isVisible()) pFocus->setFocus();
  return true;
}

void CMainWindow::SavePerspective() {
  const QString sGroup = m_Perspective == 0 ? QStringLiteral("AppData/Perspectives/Edit") : QStringLiteral("AppData/Perspectives/Debug");
  const QByteArray State = saveState();
  Settings::SetValue(sGroup + QStringLiteral("/WindowState"), State);
  Settings::SetValue(sGroup + QStringLiteral("/WindowStateDigest"), StateDigest(State));
  for (CToolBar* p : m_ToolBars) Settings::SetValue(sGroup + QLatin1Char('/') + p->StateKey(), !p->isHidden());
}

QStringList CMainWindow::WriteWindowLines() const {
  QStringList Lines;
  for (SHELL_WINDOW* p : AllWindows()) {
    if (!p->IsOpen()) continue;
    // A framework window writes its own line, with its own fields.
    if (auto* w = qobject_cast<CWindow*>(p->pWindow)) {
      w->SaveToLine(Lines);
      continue;
    }
    QString sArea = QStringLiteral("FLOATING");
    if (!p->pDock->isFloating()) {
      const Qt::DockWidgetArea Area = dockWidgetArea(p->pDock);
      for (const auto& a : kAreas)
        if (a.Area == Area) sArea = QLatin1String(a.sName);
    }
    const QRect r = p->pDock->frameGeometry();
    Lines << QStringLiteral("OpenWindow=\"%1\", DockArea=%2, x=%3, y=%4, w=%5, h=%6")
                 .arg(p->sName, sArea)
                 .arg(r.x())
                 .arg(r.y())
                 .arg(r.width())
                 .arg(r.height());
  }
  return Lines;
}

void CMainWindow::ReadWindowLines(const QStringList& Lines) {
  if (Lines.isEmpty()) return;
  // As many memory and register windows as the lines name.
  QList<QString> Names;
  for (const QString& l : Lines) {
    QString sName;
    SplitLine(l, &sName);
    if (!sName.isEmpty()) Names << sName;
  }
  static const QRegularExpression MemoryRe(QStringLiteral("^Memory (\\d+)$"), QRegularExpression::CaseInsensitiveOption);
  static const QRegularExpression RegisterRe(QStringLiteral("^Registers (\\d+)$"), QRegularExpression::CaseInsensitiveOption);
  int nMemory = 0, nRegisters = 0;
  for (const QString& s : Names) {
    if (auto m = MemoryRe.match(s); m.hasMatch()) nMemory = std::max(nMemory, std::min(m.captured(1).toInt(), 64));
    if (auto m = RegisterRe.match(s); m.hasMatch()) nRegisters = std::max(nRegisters, std::min(m.captured(1).toInt(), 64));
  }
  while (!m_MemoryWindows.isEmpty() && m_MemoryWindows.size() < nMemory)
    if (!AddMemoryWindow()) break;
  while (!m_RegisterWindows.isEmpty() && m_RegisterWindows.size() < nRegisters)
    if (!AddRegisterWindow()) break;
  for (const QString& l : Lines) {
    QString sName;
    const QHash<QString, QString> f = SplitLine(l, &sName);
    SHELL_WINDOW* p = nullptr;
    for (SHELL_WINDOW* q : AllWindows())
      if (q->sName.compare(sName, Qt::CaseInsensitive) == 0) p = q;
    if (!p) continue;
    if (auto* w = qobject_cast<CWindow*>(p->pWindow)) {
      w->ClearAttributes();
      w->LoadFromLines(Lines);
    }
    const QString sArea = f.value(QStringLiteral("dockarea")).toLower();
    bool Placed = false;
    for (const auto& a : kAreas) {
      if (!sArea.contains(QString::fromLatin1(a.sName).toLower()) || Placed) continue;
      Placed = true;
      if (a.Area == Qt::NoDockWidgetArea) {
        p->pDock->setFloating(true);
        const QRect r(f.value(QStringLiteral("x")).toInt(), f.value(QStringLiteral("y")).toInt(),
                      f.value(QStringLiteral("w")).toInt(), f.value(QStringLiteral("h")).toInt());
        if (r.width() > 20 && r.height() > 20 && OnSomeScreen(r)) p->pDock->setGeometry(r);
      } else if (dockWidgetArea(p->pDock) != a.Area || p->pDock->isFloating()) {
        p->pDock->setFloating(false);
        addDockWidget(a.Area, p->pDock);
      }
    }
    p->pDock->show();
  }
}

QStringList CMainWindow::WriteToolbarLines() const {
  QStringList Lines;
  for (CToolBar* p : m_ToolBars)
    if (!p->isHidden())
      Lines << QStringLiteral("OpenToolbar=\"%1\", Floating=%2, x=%3, y=%4")
                   .arg(p->Name())
                   .arg(p->isFloating() ? 1 : 0)
                   .arg(p->x())
                   .arg(p->y());
  return Lines;
}

void CMainWindow::ReadToolbarLines(const QStringList& Lines) {
  if (Lines.isEmpty()) return;
  QStringList Open;
  for (const QString& l : Lines) {
    QString sName;
    SplitLine(l, &sName);
    Open << sName.toLower();
  }
  for (CToolBar* p : m_ToolBars) {
    p->setVisible(Open.contains(p->Name().toLower()));
    if (p->ToggleAction()) p->ToggleAction()->setChecked(!p->isHidden());
  }
}
