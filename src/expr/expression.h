// C-like expressions: text -> tokens -> postfix list -> operator tree.
//
// There is no grammar. The operator table (operators.h) drives a tokeniser,
// three token-rewriting passes (unary operators, casts, file scopes) and a
// shunting-yard conversion. Names stay plain token texts; the evaluator
// resolves them. A few rules are deliberately not those of C:
//   - a cast is recognised only to a pointer or array type: "(char *)p",
//     "(int [4])p"; "(int)x" is left as it is and fails in the tree;
//   - "++" and "--" are tokens without an operation;
//   - the first character that starts no token ends the expression, and the
//     rest of the text is ignored, so "a = 5" is read as "a".
// Inner spellings of the unary operators: "`" dereference, "@" address of,
// "#" unary plus, "'" unary minus. A user who types them gets them.
#pragma once
#include "common/types.h"
#include "elf/symbol/exprsnapshot.h"
#include "elf/symbol/exprtoken.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>

class CSymbol;  // value of the symbol service; a node's evaluation result

// Expression status codes.
enum EXPR_STATUS : int {
  EXPR_OK = 0,
  EXPR_ERR_UNKNOWN = -1,
  EXPR_ERR_SYNTAX = -2,
  EXPR_ERR_EVALUATION = -3,
  EXPR_ERR_DATA_READOUT = -4,
  EXPR_ERR_BUFFER_SIZE = -5,
};

// Limits of what Parse accepts. Parsing and evaluation take time and memory
// linear in the text's length; these limits only refuse absurd input, each
// with a syntax error that names the limit.
constexpr int EXPR_MAX_TEXT_LENGTH = 100000;  // characters of the text
constexpr int EXPR_MAX_NESTING = 256;         // open "(" and "[" at one point

// One node of the operator tree. A leaf has no children; a unary operator's
// operand hangs on left.
struct CExprNode {
  QString text;
  std::unique_ptr<CExprNode> left;
  std::unique_ptr<CExprNode> right;
  std::shared_ptr<CSymbol> result;  // filled by the evaluator
  const CExprToken* op = nullptr;   // the operator's row; nullptr for a leaf

  CExprNode() = default;
  explicit CExprNode(const QString& sText, const CExprToken* pOp = nullptr) : text(sText), op(pOp) {}
  ~CExprNode();  // frees the subtree without recursion, so deep trees are safe
  CExprNode(const CExprNode&) = delete;
  CExprNode& operator=(const CExprNode&) = delete;
  bool IsLeaf() const { return !left && !right; }
};

// Visits the subtree depth first, left, right, then the node, without
// recursion. Stops at the first visit that answers non-zero and returns that
// value; 0 when all nodes were visited.
int EXPR_VisitPostOrder(CExprNode* pRoot, const std::function<int(CExprNode&)>& Visit);

class CExpression {
public:
  CExpression();
  explicit CExpression(const QString& sText);  // parses at once and keeps the status
  CExpression(const CExpression&) = default;
  CExpression& operator=(const CExpression&) = default;
  CExpression(CExpression&&) = default;
  CExpression& operator=(CExpression&&) = default;

  // Parses the text: sets text, tokens, postfix and errorText, drops the tree.
  // Result: the status, 0 or -2.
  int Parse(const QString& sText);

  // The tokeniser (EXPR_NextToken); it also splits type texts.
  static int NextToken(const QString& sText, int& Pos, QString& sToken) { return EXPR_NextToken(sText, Pos, sToken); }

  // Builds an operator tree from a postfix list. Result 0, or -2 (tree null)
  // when the list does not make exactly one tree.
  static int BuildTree(const QStringList& Postfix, std::shared_ptr<CExprNode>& pTree);
  // Builds this expression's tree if it has none yet (copies then share it).
  // On failure the status is -2 with its words. Result 0 or the status.
  int BuildTree();

  const QStringList& GetTokens() const { return tokens; }
  const QStringList& GetPostfix() const { return postfix; }
  const QString& GetText() const { return text; }
  const QString& GetError() const { return errorText; }
  int GetStatus() const { return status; }
  CExprNode* GetTree() const { return tree.get(); }

  // Sets the status and, if there is no error text yet, the status words.
  void SetStatus(int Code);
  // "ok", "unknown error", "syntax error", ... for a status code.
  static QString StatusText(int Code);

  // Fields; the evaluator works on them directly.
  QList<CAddrRange> reads;              // memory ranges the last evaluation read
  CExprSnapshot snapshot;               // optional captured memory
  std::shared_ptr<CExprNode> tree;      // null until first evaluated; shared by copies
  QStringList tokens;                   // tokens after all passes
  QStringList postfix;                  // tokens in postfix order
  QString errorText;                    // text of the last error, empty if none
  QString text;                         // source text
  CSrcLoc scope;                        // scope of the last evaluation
  I32 status = 0;                       // result of parsing or of the last evaluation
  U8 isCpp = 0;                         // program is C++, read at construction
  U8 usesRegister = 0;                  // a leaf was a local in a register
};

