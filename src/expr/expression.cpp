#include "expr/expression.h"

#include "expr/exprprogram.h"

#include <vector>

// ---------------------------------------------------------------------------
// Tree nodes

CExprNode::~CExprNode() {
  // Unlink the children into a work list and free them one by one, so that a
  // tree of any depth is freed without deep recursion.
  std::vector<std::unique_ptr<CExprNode>> pending;
  if (left) pending.push_back(std::move(left));
  if (right) pending.push_back(std::move(right));
  while (!pending.empty()) {
    std::unique_ptr<CExprNode> p = std::move(pending.back());
    pending.pop_back();
    if (p->left) pending.push_back(std::move(p->left));
    if (p->right) pending.push_back(std::move(p->right));
  }
}

int EXPR_VisitPostOrder(CExprNode* pRoot, const std::function<int(CExprNode&)>& Visit) {
  if (!pRoot) return 0;
  struct Frame { CExprNode* node; int stage; };
  std::vector<Frame> stack;
  stack.push_back({pRoot, 0});
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (f.stage == 0) {
      f.stage = 1;
      if (f.node->left) { stack.push_back({f.node->left.get(), 0}); continue; }
    }
    if (f.stage == 1) {
      f.stage = 2;
      if (f.node->right) { stack.push_back({f.node->right.get(), 0}); continue; }
    }
    CExprNode* n = f.node;
    stack.pop_back();
    if (int r = Visit(*n)) return r;
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Rewrite passes

namespace {

// "*", "&", "+" and "-" at the start, or behind an operator other than ")"
// and "]", are the unary operators.
int ResolveAmbiguousOperators(QStringList& Tokens) {
  for (int i = 0; i < Tokens.size(); ++i) {
    const QString p = i ? Tokens.at(i - 1) : QString();
    if (p == QLatin1String(")") || p == QLatin1String("]")) continue;
    if (i != 0 && !EXPR_IsOperator(p)) continue;
    QString& t = Tokens[i];
    if (t == QLatin1String("*")) t = QStringLiteral("`");
    else if (t == QLatin1String("&")) t = QStringLiteral("@");
    else if (t == QLatin1String("+")) t = QStringLiteral("#");
    else if (t == QLatin1String("-")) t = QStringLiteral("'");
  }
  return 0;
}

// A cast is "*" ")" or "]" ")" x, with a token x that is not an operator (so
// "(a[1])" at the end of a text stays an index). The tokens from the nearest
// "(" up to the "*" or "]" become one type text, followed by "$".
// A type in parentheses with nothing behind it, as in sizeof(char *), becomes
// the type text alone. The list is rebuilt in one pass: the output so far is
// exactly the part of the list in front of the current token, and a stack
// keeps the positions of its "(" tokens.
int ResolveCastOperators(QStringList& Tokens) {
  const int n = int(Tokens.size());
  QStringList out;
  out.reserve(n);
  std::vector<int> opens;  // indices of "(" in out
  int i = 0;
  while (i < n) {
    const QString& t0 = Tokens.at(i);
    const bool hasT1 = i + 1 < n && Tokens.at(i + 1) == QLatin1String(")");
    bool isCast = false;
    if (hasT1) {
      if (t0 == QLatin1String("*")) isCast = true;
      else if (t0 == QLatin1String("]")) isCast = i + 2 < n && !EXPR_IsOperator(Tokens.at(i + 2));
    }
    if (!isCast) {
      if (t0 == QLatin1String("(")) opens.push_back(int(out.size()));
      out.append(t0);
      ++i;
      continue;
    }
    if (opens.empty()) {
      // No "(": a "*" joins the token in front of it in place of the "*" or
      // "]", and the ")" stays; at the first token nothing changes.
      if (!out.isEmpty()) {
        out.last().append(QChar('*'));
      } else {
        out.append(t0);
      }
      ++i;
      continue;
    }
    const int k = opens.back();
    opens.pop_back();
    if (k < 0 || k >= out.size()) return -1;  // defensive: the stack only holds indices into out
    QString type;
    for (int j = k + 1; j < out.size(); ++j) {
      type += out.at(j);
      type += QChar(' ');
    }
    type += t0;
    type = type.trimmed();
    while (out.size() > k) out.removeLast();
    out.append(type);
    const bool operandFollows = i + 2 < n && Tokens.at(i + 2) != QLatin1String(")") &&
                                Tokens.at(i + 2) != QLatin1String("]");
    if (operandFollows) out.append(QStringLiteral("$"));
    i += 2;  // behind the ")"
  }
  Tokens = out;
  return 0;
}

// name "." ext "::" joins to one token: main.c::x gives main.c, "::", x.
int ResolveFileScopes(QStringList& Tokens) {
  const int n = int(Tokens.size());
  QStringList out;
  out.reserve(n);
  int i = 0;
  while (i < n) {
    if (i + 3 < n && Tokens.at(i + 1) == QLatin1String(".") && Tokens.at(i + 3) == QLatin1String("::")) {
      out.append(Tokens.at(i) + Tokens.at(i + 1) + Tokens.at(i + 2));
      i += 3;
    } else {
      out.append(Tokens.at(i));
      ++i;
    }
  }
  Tokens = out;
  return 0;
}

bool IsGroupToken(const QString& s) {
  return s == QLatin1String("(") || s == QLatin1String(")") || s == QLatin1String("[") ||
         s == QLatin1String("]");
}

// Shunting yard over the operator table.
int ConvertToPostfix(const QStringList& Tokens, QStringList& Postfix) {
  Postfix.clear();
  QStringList stack;  // top is last
  for (const QString& c : Tokens) {
    if (c == QLatin1String("(")) {
      stack.append(c);
    } else if (c == QLatin1String(")") || c == QLatin1String("]")) {
      const QLatin1String open(c == QLatin1String(")") ? "(" : "[");
      for (;;) {
        if (stack.isEmpty()) return -2;
        QString top = stack.takeLast();
        if (top == open) break;
        Postfix.append(top);
      }
      if (c == QLatin1String("]")) Postfix.append(QStringLiteral("[]"));
    } else if (const CExprToken* pc = EXPR_FindOperator(c)) {
      while (!stack.isEmpty()) {
        const QString& top = stack.last();
        if (IsGroupToken(top)) break;
        const CExprToken* pt = EXPR_FindOperator(top);
        if (!pt) break;
        if ((pc->leftAssoc && pc->precedence >= pt->precedence) || pc->precedence > pt->precedence) {
          Postfix.append(stack.takeLast());
        } else {
          break;
        }
      }
      stack.append(c);
    } else {
      Postfix.append(c);
    }
  }
  while (!stack.isEmpty()) {
    QString top = stack.takeLast();
    if (top == QLatin1String("(") || top == QLatin1String(")")) return -2;
    Postfix.append(top);
  }
  return 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// CExpression

CExpression::CExpression() {
  if (const CExprProgramInfo* p = EXPR_GetProgramInfo()) isCpp = p->IsCpp() ? 1 : 0;
}

CExpression::CExpression(const QString& sText) : CExpression() { Parse(sText); }

QString CExpression::StatusText(int Code) {
  switch (Code) {
    case EXPR_OK: return QStringLiteral("ok");
    case EXPR_ERR_SYNTAX: return QStringLiteral("syntax error");
    case EXPR_ERR_EVALUATION: return QStringLiteral("evaluation error");
    case EXPR_ERR_DATA_READOUT: return QStringLiteral("data readout error");
    case EXPR_ERR_BUFFER_SIZE: return QStringLiteral("invalid data buffer size");
    default: return QStringLiteral("unknown error");
  }
}

void CExpression::SetStatus(int Code) {
  status = Code;
  if (errorText.isEmpty()) errorText = StatusText(Code);
}

int CExpression::Parse(const QString& sText) {
  text = sText;
  tokens.clear();
  postfix.clear();
  errorText.clear();
  tree.reset();
  status = EXPR_OK;
  if (sText.isEmpty()) return status;
  if (sText.size() > EXPR_MAX_TEXT_LENGTH) {
    errorText = QStringLiteral("expression too long: %1 characters, the limit is %2")
                    .arg(sText.size())
                    .arg(EXPR_MAX_TEXT_LENGTH);
    SetStatus(EXPR_ERR_SYNTAX);
    return status;
  }

  QStringList list;
  int pos = 0;
  QString tok;
  int Depth = 0;
  while (NextToken(sText, pos, tok) == 0) {
    if (tok == QLatin1String("(") || tok == QLatin1String("[")) {
      if (++Depth > EXPR_MAX_NESTING) {
        errorText = QStringLiteral("expression nested too deeply: more than %1 open parentheses or brackets")
                        .arg(EXPR_MAX_NESTING);
        SetStatus(EXPR_ERR_SYNTAX);
        return status;
      }
    } else if ((tok == QLatin1String(")") || tok == QLatin1String("]")) && Depth > 0) {
      --Depth;
    }
    list.append(tok);
  }

  if (ResolveAmbiguousOperators(list) != 0) {
    errorText = QStringLiteral("error resolving ambiguous operators");
    SetStatus(EXPR_ERR_SYNTAX);
    return status;
  }
  if (ResolveCastOperators(list) != 0) {
    errorText = QStringLiteral("error resolving cast operators");
    SetStatus(EXPR_ERR_SYNTAX);
    return status;
  }
  if (ResolveFileScopes(list) != 0) {
    errorText = QStringLiteral("error resolving file scopes");
    SetStatus(EXPR_ERR_SYNTAX);
    return status;
  }
  tokens = list;
  QStringList pf;
  const int r = ConvertToPostfix(tokens, pf);
  if (r != 0) {
    errorText = QStringLiteral("error converting expression to postfix notation");
    SetStatus(r);
    return status;
  }
  postfix = pf;
  return status;
}

int CExpression::BuildTree(const QStringList& Postfix, std::shared_ptr<CExprNode>& pTree) {
  pTree.reset();
  std::vector<std::unique_ptr<CExprNode>> stack;
  stack.reserve(Postfix.size());
  for (const QString& s : Postfix) {
    const CExprToken* op = EXPR_FindOperator(s);
    if (!op) {
      stack.push_back(std::make_unique<CExprNode>(s));
      continue;
    }
    // Grouping tokens are no operators of their own: an index bracket left
    // open ends up here and is rejected.
    if (IsGroupToken(s)) return -2;
    auto node = std::make_unique<CExprNode>(s, op);
    if (op->isBinary) {
      if (stack.size() < 2) return -2;
      node->right = std::move(stack.back());
      stack.pop_back();
      node->left = std::move(stack.back());
      stack.pop_back();
    } else {
      if (stack.empty()) return -2;
      node->left = std::move(stack.back());
      stack.pop_back();
    }
    stack.push_back(std::move(node));
  }
  if (stack.size() != 1) return -2;
  pTree = std::shared_ptr<CExprNode>(std::move(stack.back()));
  return 0;
}

int CExpression::BuildTree() {
  if (tree) return 0;
  if (status != EXPR_OK && postfix.isEmpty()) {
    // A parse failure stays what it was.
    return status;
  }
  std::shared_ptr<CExprNode> t;
  if (BuildTree(postfix, t) != 0) {
    SetStatus(EXPR_ERR_SYNTAX);
    return status;
  }
  tree = std::move(t);
  return 0;
}
