#include "lang/parser.h"

#include "base/check.h"
#include "base/text.h"

namespace kx::lang {
namespace {

constexpr double kPi = 3.141592653589793;

}  // namespace

int Parser::Parse(std::string_view text, const std::vector<Token>& tokens, Graph* graph,
                  const LeafFn& leaf) {
  text_ = text;
  tokens_ = &tokens;
  next_ = 0;
  graph_ = graph;
  leaf_ = &leaf;
  const int root = ParseExpr();
  KX_CHECK(Peek() == Tok::kEnd);
  return root;
}

// expr -> term {('+' | '-') term}
int Parser::ParseExpr() {
  int left = ParseTerm();
  while (Peek() == Tok::kPlus || Peek() == Tok::kMinus) {
    const Op op = Next().kind == Tok::kPlus ? Op::kAdd : Op::kSub;
    left = graph_->Binary(op, left, ParseTerm());
  }
  return left;
}

// term -> unary {('*' | '/') unary}
int Parser::ParseTerm() {
  int left = ParseUnary();
  while (Peek() == Tok::kStar || Peek() == Tok::kSlash) {
    const Op op = Next().kind == Tok::kStar ? Op::kMul : Op::kDiv;
    left = graph_->Binary(op, left, ParseUnary());
  }
  return left;
}

// unary -> ('+' | '-') unary | power        (so -x^2 is -(x^2))
int Parser::ParseUnary() {
  if (Peek() == Tok::kMinus) {
    Next();
    return graph_->Unary(Op::kNeg, ParseUnary());
  }
  if (Peek() == Tok::kPlus) {
    Next();
    return ParseUnary();
  }
  return ParsePower();
}

// power -> atom ['^' unary]                 (right-associative: 2^3^2 is 2^9)
int Parser::ParsePower() {
  const int base = ParseAtom();
  if (Peek() != Tok::kCaret) return base;
  Next();
  return graph_->Binary(Op::kPow, base, ParseUnary());
}

// atom -> number | name | '$' name | function '(' expr ')' | '(' expr ')'
int Parser::ParseAtom() {
  const Token& t = Next();
  switch (t.kind) {
    case Tok::kNumber:
      return graph_->Const(t.value);
    case Tok::kName:
    case Tok::kDerivName:
      return ParseName(t);
    case Tok::kFunction: {
      const Op op = FunctionOp(t.function);
      KX_CHECK(Next().kind == Tok::kLParen);
      const int arg = ParseExpr();
      KX_CHECK(Next().kind == Tok::kRParen);
      return graph_->Unary(op, arg);
    }
    case Tok::kLParen: {
      const int inner = ParseExpr();
      KX_CHECK(Next().kind == Tok::kRParen);
      return inner;
    }
    default:
      KX_CHECK(false);  // the syntax check lets no other token start an operand
  }
  return -1;
}

int Parser::ParseName(const Token& t) {
  const bool derivative = t.kind == Tok::kDerivName;
  const int start = t.pos + (derivative ? 1 : 0);
  AssignLower(text_.substr(start, t.pos + t.len - start), &name_);
  if (!derivative && name_ == "pi") return graph_->Const(kPi);
  return (*leaf_)(name_, derivative, t.pos);
}

}  // namespace kx::lang
