#include "settings/fonts.h"

#include <QFontInfo>
#include <QGuiApplication>
#include <QMap>
#include <QStringList>
#include <array>
#include <optional>
#include "settings/store.h"
#include "settings/textvalue.h"

namespace {

const FONT_ROW kRows[FONT_COUNT] = {
    {FONT_APP, "FONT_APP", "Text", "Default Font used to display text"},
    {FONT_APP_MONO, "FONT_APP_MONO", "Value", "Default Font used to display text"},
    {FONT_ITEM_NAME, "FONT_ITEM_NAME", "Text", "Table text font"},
    {FONT_ITEM_VALUE, "FONT_ITEM_VALUE", "Value", "Table value text font"},
    {FONT_TABLE_HEADER, "FONT_TABLE_HEADER", "Text", "Table header font"},
    {FONT_SRC_CODE, "FONT_SRC_CODE", "Text", "Source code font as used by the source viewer"},
    {FONT_SRC_ASM_CODE, "FONT_SRC_ASM_CODE", "Assembly Code", "Font used for inline disassembly"},
    {FONT_ASM_CODE, "FONT_ASM_CODE", "Text", "Assembly code font as used by the disassembly and instruction trace windows"},
    {FONT_CONSOLE, "FONT_CONSOLE", "Text", "Console window font"},
    {FONT_LINE_NUMBERS, "FONT_LINE_NUMBERS", "Line Numbers", "Font used for line numbers"},
    {FONT_EXEC_COUNTERS, "FONT_EXEC_COUNTERS", "Execution Counters", "Font used for execution counters"},
};

struct State {
  QMap<int, QFont> User;                                 // fonts the user set
  std::optional<std::array<QFont, FONT_COUNT>> Defaults;  // computed once
};

State& S() {
  static State s;
  return s;
}

bool Valid(int Id) { return Id >= 0 && Id < FONT_COUNT; }

const QString kGroup = QStringLiteral("AppData/Preferences/Fonts/");

std::array<QFont, FONT_COUNT> ComputeDefaults() {
  std::array<QFont, FONT_COUNT> f;
  QFont app = QGuiApplication::font();
  app.setPointSize(8);
  app.setWeight(QFont::Normal);
  app.setItalic(false);

  // Ask the font database for a fixed-pitch family by giving it a family it
  // cannot know and the type-writer hint.
  QFont mono = app;
  QFont probe = app;
  probe.setFamily(QStringLiteral("unknown"));
  probe.setStyleHint(QFont::TypeWriter);
  mono.setFamily(qGuiApp ? QFontInfo(probe).family() : QStringLiteral("monospace"));
  mono.setStyleHint(QFont::TypeWriter);

  f[FONT_APP] = app;
  f[FONT_APP_MONO] = mono;
  f[FONT_ITEM_NAME] = app;
  f[FONT_CONSOLE] = app;
  f[FONT_ITEM_VALUE] = mono;
  f[FONT_SRC_CODE] = mono;
  f[FONT_ASM_CODE] = mono;
  f[FONT_TABLE_HEADER] = f[FONT_ITEM_NAME];
  f[FONT_SRC_ASM_CODE] = f[FONT_SRC_CODE];
  f[FONT_LINE_NUMBERS] = QFont();
  f[FONT_EXEC_COUNTERS] = QFont();
  return f;
}

}  // namespace

namespace Fonts {

const FONT_ROW* Row(int Id) { return Valid(Id) ? &kRows[Id] : nullptr; }

int FindFont(const QString& sText) { return SettingsText::FindRow(sText, kRows); }

QFont DefaultFont(int Id) {
  if (!Valid(Id)) return QFont();
  State& s = S();
  if (!s.Defaults) s.Defaults = ComputeDefaults();
  return (*s.Defaults)[Id];
}

QFont GetFont(int Id) {
  const auto it = S().User.constFind(Id);
  return it != S().User.cend() ? it.value() : DefaultFont(Id);
}

bool IsUserSet(int Id) { return S().User.contains(Id); }

void SetFont(int Id, const QFont& Font) {
  if (Valid(Id)) S().User.insert(Id, Font);
}

void ResetToDefaults() {
  S().User.clear();
  S().Defaults.reset();
}

bool ParseFontText(const QString& sText, QFont& Out) {
  QStringList parts = sText.split(QLatin1Char(','));
  if (parts.size() != 3) return false;
  for (QString& p : parts) p = p.trimmed().remove(QLatin1Char('"')).trimmed();
  const QString& family = parts[0];
  QString size = parts[1];
  const QString& style = parts[2];
  if (family.isEmpty()) return false;
  if (size.endsWith(QLatin1String("pt"), Qt::CaseInsensitive)) size = size.chopped(2).trimmed();
  bool ok = false;
  const int points = size.toInt(&ok, 10);
  if (!ok || points < 1 || points > 59) return false;

  QFont f;
  // A style name overrides weight and slant when the font is matched; the
  // application font carries one ("Normal"), so it is cleared here and the
  // style is told by weight and slant alone.
  f.setStyleName(QString());
  f.setFamily(family);
  f.setPointSize(points);
  auto has = [&style](const char* w) { return style.contains(QLatin1String(w), Qt::CaseInsensitive); };
  if (has("Bold") || has("Black") || has("Dark"))
    f.setWeight(QFont::Bold);
  else if (has("Medium"))
    f.setWeight(QFont::DemiBold);
  else if (has("Light"))
    f.setWeight(QFont::Light);
  else
    f.setWeight(QFont::Normal);
  f.setItalic(has("Italic") || has("Oblique"));
  Out = f;
  return true;
}

QString FontText(const QFont& Font) {
  // The style word follows weight and slant, which is what ParseFontText
  // reads back; a style name of the font is not trusted (an inherited
  // "Normal" would hide a bold weight).
  QString style;
  const int w = Font.weight();
  if (w >= QFont::Bold) style = QStringLiteral("Bold");
  else if (w >= QFont::DemiBold) style = QStringLiteral("Medium");
  else if (w <= QFont::Light) style = QStringLiteral("Light");
  if (Font.italic()) style = style.isEmpty() ? QStringLiteral("Italic") : style + QStringLiteral(" Italic");
  if (style.isEmpty()) style = QStringLiteral("Normal");
  const QString size = Font.pointSize() > 0 ? QString::number(Font.pointSize())
                                            : QString::number(Font.pointSizeF());
  return Font.family() + QStringLiteral(",  ") + size + QStringLiteral("pt,  ") + style;
}

void Load() {
  for (int i = 0; i < FONT_COUNT; ++i) {
    const QString key = kGroup + QLatin1String(kRows[i].Name);
    if (!Settings::Contains(key)) continue;
    QFont f;
    if (ParseFontText(Settings::Value(key).toString(), f)) SetFont(i, f);
  }
}

void Save() {
  for (int i = 0; i < FONT_COUNT; ++i) {
    const QString key = kGroup + QLatin1String(kRows[i].Name);
    if (IsUserSet(i))
      Settings::SetValue(key, FontText(GetFont(i)));
    else
      Settings::Remove(key);
  }
}

}  // namespace Fonts
