#include "expr/exprdump.h"

#include "expr/exprprogram.h"

namespace {

QString Quoted(const QString& s) {
  if (s.contains(QChar(' ')) || s.isEmpty()) return QLatin1Char('"') + s + QLatin1Char('"');
  return s;
}

QString TokenKind(const QString& s) {
  if (const CExprToken* op = EXPR_FindOperator(s)) {
    return QStringLiteral("operator %1 %2, %3, %4, precedence %5")
        .arg(op->id)
        .arg(QLatin1String(op->meaning))
        .arg(op->isBinary ? QLatin1String("binary") : QLatin1String("unary"))
        .arg(op->leftAssoc ? QLatin1String("left") : QLatin1String("right"))
        .arg(op->precedence);
  }
  if (s.isEmpty()) return QStringLiteral("empty");
  if (s.at(0).isNumber()) return QStringLiteral("number");
  // Casts leave type texts with blanks, "*" or "[..]" in them.
  if (s.contains(QChar(' ')) || s.contains(QChar('*')) || s.contains(QChar('['))) return QStringLiteral("type text");
  if (s.contains(QChar('.'))) return QStringLiteral("file name");
  if (const CExprProgramInfo* p = EXPR_GetProgramInfo()) {
    if (p->IsTypeName(s)) return QStringLiteral("type name");
    if (p->IsMacro(s)) return QStringLiteral("macro");
  }
  return QStringLiteral("name");
}

}  // namespace

QStringList EXPR_RenderTokenLines(const QString& sText) { return EXPR_RenderTokenLines(CExpression(sText)); }

QStringList EXPR_RenderTokenLines(const CExpression& Expr) {
  QStringList lines;
  lines << QStringLiteral("expression: %1").arg(Expr.GetText());
  QString st = QStringLiteral("status: %1 (%2)").arg(Expr.GetStatus()).arg(CExpression::StatusText(Expr.GetStatus()));
  if (!Expr.GetError().isEmpty() && Expr.GetError() != CExpression::StatusText(Expr.GetStatus()))
    st += QStringLiteral(": ") + Expr.GetError();
  lines << st;
  // Where a character that starts no token cut the text short.
  int pos = 0;
  QString tok;
  int r;
  while ((r = CExpression::NextToken(Expr.GetText(), pos, tok)) == 0) {
  }
  if (r == -2)
    lines << QStringLiteral("ignored from column %1: %2").arg(pos + 1).arg(Expr.GetText().mid(pos));
  const QStringList& toks = Expr.GetTokens();
  lines << QStringLiteral("tokens: %1").arg(toks.size());
  for (int i = 0; i < toks.size(); ++i)
    lines << QStringLiteral("  %1  %2  %3").arg(i).arg(Quoted(toks.at(i)), TokenKind(toks.at(i)));
  QStringList pf;
  for (const QString& s : Expr.GetPostfix()) pf << Quoted(s);
  lines << (pf.isEmpty() ? QStringLiteral("postfix:") : QStringLiteral("postfix: ") + pf.join(QChar(' ')));
  std::shared_ptr<CExprNode> tree;
  const int t = Expr.GetStatus() == 0 ? CExpression::BuildTree(Expr.GetPostfix(), tree) : Expr.GetStatus();
  lines << QStringLiteral("tree: %1 (%2)").arg(t).arg(CExpression::StatusText(t));
  return lines;
}
